#pragma once
// What the spline modules hand to the outside, shared by the registration
// module and the module that applies a saved control grid: the transformed
// reference lattice, the dense displacement field, the model warped onto the
// reference lattice, the control grid as a vector field, and the landmark
// check.
#include "QbVec3f.h"

#include <vector>

class RegVoxelCubicSplineTransform;
class ZrField3;
class ZrFieldEvaluator;
class ZrLandmarkSet;
class ZrPortInfo;
class ZrRegScalarField3;
class ZrRegVectorField3;

class RegSplineOutput {
public:
  // Transformed position of every node of the reference lattice `R`, x
  // fastest, from the transform's present parameters. The transform's
  // reference and interpolants must be those of `R`.
  static void transformGrid(RegVoxelCubicSplineTransform* t, ZrRegScalarField3* R,
                            std::vector<QbVec3f>& out);
  // The same into `out`, which holds one position per node of R.
  static void transformGrid(RegVoxelCubicSplineTransform* t, ZrRegScalarField3* R, QbVec3f* out);

  // A curvilinear float field on the lattice of `R` whose node lies at the
  // transformed position q of the reference node p and holds sign * (p - q).
  // Null with the message "Could not create vector field.\n" when the field
  // cannot be had.
  static ZrRegVectorField3* makeVectorField(RegVoxelCubicSplineTransform* t, ZrRegScalarField3* R,
                                            float sign);

  // The evaluator of a warp: nearest node for label data, otherwise windowed
  // sinc where quality counts (`lanczos`) and the field's own interpolation
  // where speed does. Lanczos needs uniform coordinates; other lattices fall
  // back to the standard interpolation. Owned by the caller.
  static ZrFieldEvaluator* createModelEvaluator(ZrField3* model, bool nearest, bool lanczos);

  // Writes the model, seen through `eval` (made for `model`), at the transformed positions of
  // `R` into `result`, whose lattice has R's dimensions. Integer voxel types
  // are rounded to nearest and clamped to their range. Brackets the
  // computation with the model's inverse transform when the model has one.
  static void warpModel(RegVoxelCubicSplineTransform* t, ZrRegScalarField3* R, ZrField3* model,
                        ZrFieldEvaluator* eval, ZrRegScalarField3* result);

  // A temporary landmark set with the rest positions of the control lattice,
  // named "controlPointsInitial", in the object pool with its icon hidden.
  static ZrLandmarkSet* makeRestPositions(RegVoxelCubicSplineTransform* t);

  // The control lattice as a uniform field of displacements from `rest`, over
  // the interpolated box widened by one grid spacing on each side. Null
  // (with the message) on failure.
  static ZrRegVectorField3* makeControlGridVectors(RegVoxelCubicSplineTransform* t,
                                                   ZrLandmarkSet* rest);

  // The control lattice as a curvilinear field: the live control points as
  // coordinates, their displacement from `rest` as vectors. Null (with the
  // message) on failure.
  static ZrRegVectorField3* makeDeformedGrid(RegVoxelCubicSplineTransform* t, ZrLandmarkSet* rest);

  // Refreshes marker m of `mapped`: set 0 takes p + v(p), with p from set 0
  // of `landmarks` and v the field's vector at p; set 1 takes the marker's
  // target, set 1 of `landmarks`. `v` is scratch of at least the field's
  // component count (and 3); it is not cleared between markers, so a marker
  // outside the field keeps what the evaluation left.
  static void mapLandmarks(ZrLandmarkSet* landmarks, ZrLandmarkSet* mapped, ZrField3* field);

  // The landmark check: the distances between the two sets of `mapped` as
  // they stand are measured (and so describe the previous mapping), then the
  // markers are mapped anew. Shows "mean %g dev %g rms %g max %g" and
  // "median %g aboveThresh %g %%" on the two info ports.
  static void validate(ZrLandmarkSet* landmarks, ZrLandmarkSet* mapped, ZrField3* field,
                       float threshold, ZrPortInfo* statistics, ZrPortInfo* statistics2);

  // The set "transformedLandmarks" of 2 point sets, made and added to the
  // object pool if `set` is null, sized to `numMarkers`.
  static ZrLandmarkSet* ensureMappedSet(ZrLandmarkSet* set, int numMarkers);
};
