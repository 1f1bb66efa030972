#pragma once
// How a field on a uniform lattice goes into an image file: the header's
// dimension, sizes, spacing, origin and direction, and where each node's
// value lies in the file.
//
// Without a file order the file's axes are the field's. With one (the order
// of the input file the lattice came from), file axis j is field axis
// axisOf[j], reversed where flip[j]; the origin is then the world position of
// the node that comes first in the file. A file order of two dimensions gives
// a 2-D file when the lattice is flat along its third axis and the transform
// leaves that plane where it was (z = 0, normal along z).
#include "ZrImageIO.h"

#include <cstddef>
#include <string>

class SbMatrixd;
namespace itk {
class ImageIOBase;
}

class ZrFileLayout {
public:
  int dimension = 3;
  int dims[3] = {1, 1, 1};
  double spacing[3] = {1, 1, 1};
  double origin[3] = {0, 0, 0};
  double direction[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}; // [world row][file axis]

  // Lays out a lattice of fieldDims nodes over box (local coordinates)
  // placed in the world by toWorld (row vectors, local * toWorld). False
  // with error for a transform that is singular. notes receives what the
  // header could not hold exactly: a shear (the header keeps the nearest
  // orthonormal directions) or a 2-D order that the transform moved out of
  // its plane (written in three dimensions).
  bool set(const int fieldDims[3], const float box[6], const SbMatrixd& toWorld,
           const ZrImageIO::FileOrder* order, std::string& error, std::string* notes);

  // True when the file holds the nodes in the field's own order.
  bool keepsFieldOrder() const;
  // Copies the nodes of the field (x fastest, nodeBytes each) into file
  // order.
  void toFileOrder(const void* field, void* file, size_t nodeBytes) const;

  // Puts the geometry into a writer's header (dimension, sizes, spacing,
  // origin, direction), asks for compression where the format has it, and
  // sets the region to the whole image.
  void describe(itk::ImageIOBase* io) const;

private:
  int fieldDims[3] = {1, 1, 1};
  int axisOf[3] = {0, 1, 2};
  bool flip[3] = {false, false, false};
};
