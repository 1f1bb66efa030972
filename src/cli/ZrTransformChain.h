#pragma once
// A chain of transforms found by registrations, and the resampling of an
// image through it.
//
// The steps are listed in the order in which they move the image: first the
// affine that `zrreg affine` found, then the deformation of `zrreg elastic`.
// To fill a voxel of the output grid, its position travels the other way:
// through the last step first, back to the image, which is sampled there.
//
//   affine        an ITK transform file (maps reference points to points of
//                 the image, ITK's convention) or a 4x4 matrix as
//                 `zrreg affine --matrix` writes it (moves the image: the
//                 inverse is used); either one inverted on request
//   control grid  the B-spline lattice of `zrreg elastic --control-grid`,
//                 evaluated by the package's own module on the output grid,
//                 exactly as `zrreg apply-grid` does, and between its nodes
//                 by trilinear interpolation of those positions
//   displacement  a vector image of world displacements (reference point to
//                 image point, ITK's convention), interpolated trilinearly;
//                 no displacement outside it
#include "SbMatrixd.h"

#include <memory>
#include <string>
#include <vector>

class ZrCliSession;
class ZrRegScalarField3;
class ZrRegVectorField3;

class ZrTransformChain {
public:
  enum Kind { Affine, InverseAffine, ControlGrid, Displacement };
  enum Interpolation { Nearest, Linear, Cubic, Lanczos };

  ZrTransformChain();
  ~ZrTransformChain();

  // Reads the file of one step and appends it; false with a message.
  bool add(Kind kind, const std::string& path, std::string& error);
  int size() const { return int(steps.size()); }
  bool affineOnly() const;
  // The product of the affine steps as a motion of the image in the world,
  // row vectors (world' = world * M): for writing the image on its own grid.
  SbMatrixd imageMotion() const;

  // Samples image through the chain on the lattice of grid (a uniform field):
  // a new field (owned by the caller) with grid's lattice, box and transform
  // and image's voxel type and label kind; voxels that map outside the image
  // get 0. Control grids are evaluated by a ZrApplyBSplineTransform module of
  // the session, on grid, which must be in the object pool under gridName.
  // Reports progress through the work area and stops when it asks to: null
  // then, with error saying so.
  ZrRegScalarField3* resample(ZrCliSession& session, ZrRegScalarField3* image,
                              ZrRegScalarField3* grid, const std::string& gridName,
                              Interpolation interpolation, std::string& error);

private:
  struct Step;
  std::vector<std::unique_ptr<Step>> steps;
};
