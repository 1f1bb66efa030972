#pragma once
// Vector images: three float components per voxel, written as ITK vector
// images (NIfTI, MetaImage, NRRD) whose vectors are in world coordinates, the
// convention of displacement fields in ITK's and ANTs' tools.
//
// A uniform vector field is written with its box and transform as the image
// geometry; its vectors, held in the field's local coordinates, are turned
// into world coordinates by the linear part of the transform. Reading undoes
// both, so a field written and read back is the same field.
#include "ZrImageIO.h"

#include <string>
#include <vector>

class ZrRegVectorField3;
class ZrRegScalarField3;

class ZrVectorImageIO {
public:
  // A uniform field with its box and transform as the file's geometry; with
  // an order that fits it, in that voxel order and dimension.
  static bool write(const ZrRegVectorField3* field, const std::string& path, std::string& error,
                    const ZrImageIO::FileOrder* order = nullptr);
  // A uniform, three-component float field (owned by the caller), or null.
  // A 2-D file of two-component vectors reads with z components of 0.
  static ZrRegVectorField3* read(const std::string& path, std::string& error);
  // Writes vectors given per node of a uniform scalar field's lattice (x
  // fastest, three floats each, in world coordinates), with that field's
  // geometry, in the voxel order and dimension of order when it fits (the
  // order of the file the lattice came from). A 2-D file whose vectors all
  // lie in its plane gets two components. `release`, when given, is the
  // vector that holds worldVectors: it is freed as soon as the file's own
  // copy is made, so that a fine field is not held twice while it is written.
  static bool writeOnLattice(const ZrRegScalarField3* lattice, const float* worldVectors,
                             const std::string& path, std::string& error,
                             const ZrImageIO::FileOrder* order = nullptr,
                             std::vector<float>* release = nullptr);
};
