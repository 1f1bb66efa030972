#pragma once
// Trilinear free-form deformation on the voxel lattice of the reference: the
// deformation is interpolated between the eight corners of a lattice cell.
// The lattice has no outer ring: its first and last points lie on the box.
// Always three-dimensional.
#include "RegLinearSplineInterpolant.h"
#include "RegSplineTransform.h"

class ZrRegScalarField3;

class RegVoxelLinearSplineTransform : public RegSplineTransform {
public:
  ZrRegScalarField3* referenceField = nullptr; // not owned
  int numVoxels[3] = {0, 0, 0};
  RegLinearSplineInterpolant* linearX = nullptr;
  RegLinearSplineInterpolant* linearY = nullptr;
  RegLinearSplineInterpolant* linearZ = nullptr;

  explicit RegVoxelLinearSplineTransform(bool fastMode);
  ~RegVoxelLinearSplineTransform() override;

  void setReference(ZrSpatialData* reference) override;
  void getTransformedGrid(int* v, QbVec3f& out, const QbDVector<double>& p) const override;
  void getGridSpacing() override;
  // Cells i - 1 to i of the point's axis index i; mode is not used.
  void getVolumeOfInfluence(int idx, float* from, float* to, int mode) const override;
  // Rest positions on the box; the argument is not used.
  ZrLandmarkSet* createControlPoints(ZrLandmarkSet* set) override;
  // Refines by any factor f: (n - 1) f + 1 points per axis.
  void refineNoInterpolants(int factor) override;
  void precomputeInterpolants() override;

  using RegSplineTransform::getTransformedGridComplete;
  using RegSplineTransform::getTransformedGridSequence;
  // numPoints voxels along x from v; leaves v[0] past the run.
  virtual void getTransformedGridSequence(QbVec3f* out, int numPoints, int* v) const;
  virtual void getTransformedGridSequence(QbVec3f* out, int numPoints, int* v,
                                          const QbDVector<double>& p) const;
  // Not offered by the linear spline: does nothing.
  virtual void getTransformedGridComplete(QbVec3f* out, float** passX, float** passY) const;
};
