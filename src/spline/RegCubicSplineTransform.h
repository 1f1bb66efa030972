#pragma once
// Uniform cubic B-spline free-form deformation: the geometry of the control
// lattice around the interpolated box (one extra ring of points on each side),
// control points at rest, exact doubling of the lattice and its bending
// energy. Evaluation on voxels is RegVoxelCubicSplineTransform's.
#include "RegSplineTransform.h"

class RegCubicSplineTransform : public RegSplineTransform {
public:
  // Determinant of the lattice at rest in the model's local coordinates: the
  // volume change that the model's own transformation implies, against which
  // the Jacobian penalty measures the deformation. Signed: a reflecting model
  // transformation makes it negative.
  double modelVolumeScale = 1.0;
  // For coordinate c, layer k and row j: offset in paramVector from the first
  // point of a 4 x 4 x 4 neighbourhood to its point (0, j, k), coordinate c.
  int neighbourOffset[3][4][4];

  RegCubicSplineTransform(int dimension, bool fastMode);

  void setModel(ZrSpatialData* model) override;
  // Spacing and inverse spacing from boundary and size, and neighbourOffset.
  void getGridSpacing() override;
  // With set null: fills controlPoints with the rest positions and takes them
  // as parameters. Otherwise appends the rest positions to set only.
  ZrLandmarkSet* createControlPoints(ZrLandmarkSet* set) override;
  // Doubles the lattice by subdivision; other factors are refused.
  void refineNoInterpolants(int factor) override;
  // Rest positions of all control points, 3 per point in lattice order, for
  // the present box and spacing, with the arithmetic of createControlPoints.
  void getRestPositions(QbDVector<double>& rest) const;
  // Takes `box` as interpolatedSpaceBoundary (and its spacing) and moves every
  // control point so that it keeps its displacement from its rest position:
  // a lattice at rest stays at rest, a shift stays a shift.
  void moveToBoundary(const float box[6]);
  // Mean bending energy over the interior points of v.
  virtual double getGridEnergy(const QbDVector<double>& v) const;
  // Bending energy density at the point whose x parameter p points to.
  virtual double getGridEnergy(const double* p) const;

  // Fills neighbourOffset from the present strides.
  void updateNeighbourOffset();
};
