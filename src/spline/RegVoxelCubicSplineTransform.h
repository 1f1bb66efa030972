#pragma once
// The cubic spline evaluated on the voxel lattice of the reference volume:
// positions of single voxels, of runs along x (with first and second
// derivatives), of the whole lattice by three separable passes, and of the
// volume of influence of one parameter after it moved. All basis values come
// from one precomputed table per axis.
#include "QbDArray.h"
#include "QbVec3i.h"
#include "RegCubicSplineTransform.h"
#include "RegSplineInterpolant.h"

class ZrRegScalarField3;

class RegVoxelCubicSplineTransform : public RegCubicSplineTransform {
public:
  // Columns of control points that getTransformedGridSequence reduces at a
  // time, in fixed arrays on the stack: 256 cells and the 3 extra points.
  static constexpr int maxSequenceColumns = 259;

  int numLandmarks = 0;
  RegSplineInterpolant* landmarkInterpolantsX = nullptr;
  RegSplineInterpolant* landmarkInterpolantsY = nullptr;
  RegSplineInterpolant* landmarkInterpolantsZ = nullptr;
  // Owned copy of the landmarks' positions in the reference's space.
  QbDArray<QbVec3f>* landmarkPositions = nullptr;
  ZrRegScalarField3* referenceField = nullptr; // not owned
  int numVoxels[3] = {0, 0, 0};
  bool is2D;
  // numVoxels[a] rows each (qbmalloc).
  RegSplineInterpolant* interpolantsX = nullptr;
  RegSplineInterpolant* interpolantsY = nullptr;
  RegSplineInterpolant* interpolantsZ = nullptr;

  RegVoxelCubicSplineTransform(int dimension, bool fastMode);
  ~RegVoxelCubicSplineTransform() override;

  // The reference must be a scalar field.
  void setReference(ZrSpatialData* reference) override;
  void getTransformedGrid(int* v, QbVec3f& out, const QbDVector<double>& p) const override;
  using RegSplineTransform::getTransformedGridSequence;
  void getTransformedGridSequence(QbVec3f* out, QbVec3d* dxx, QbVec3d* dyy, QbVec3d* dzz,
                                  QbVec3d* dxy, QbVec3d* dxz, QbVec3d* dyz, QbVec3d* dx,
                                  QbVec3d* dy, QbVec3d* dz, int numPoints, int* v) const override;
  void getTransformedGridSequence(QbVec3f* out, QbVec3d* dxx, QbVec3d* dyy, QbVec3d* dzz,
                                  QbVec3d* dxy, QbVec3d* dxz, QbVec3d* dyz, QbVec3d* dx,
                                  QbVec3d* dy, QbVec3d* dz, int numPoints, int* v,
                                  const QbDVector<double>& p) const override;
  // passX: nvx ny nz, passY: nvx nvy nz, out: nvx nvy nvz elements (nv voxels,
  // n control points). In 2-D out may be null and the result is passY.
  void getTransformedGridComplete(QbVec3f* out, QbVec3f* passX, QbVec3f* passY) const override;
  void getVolumeOfInfluence(int idx, float* from, float* to, int mode) const override;
  void precomputeInterpolants() override;

  // Position of landmark l[0] under p, from the landmark tables.
  void getTransformedGridLandmark(int* l, QbVec3f& out, const QbDVector<double>& p) const;

  // Whole 2-D lattice with first and second derivatives (per cell).
  void getTransformedGridCompleteWithRegularization2D(QbVec3f* passX, QbVec3d* passXdx,
                                                      QbVec3f* out, QbVec3d* dx, QbVec3d* dy,
                                                      QbVec3d* passXdxx, QbVec3d* dxx, QbVec3d* dyy,
                                                      QbVec3d* dxy) const;

  // Positions of the region voi (x0, x1, y0, y1, z0, z1, inclusive) after
  // parameter idx moved by delta, from the full grid base. out, bufXY and bufX
  // hold the region only, packed, x fastest. p is not read: the change is
  // linear in the parameters.
  void getTransformedGridIncremental(const QbDVector<double>& p, int idx, QbVec3f* out,
                                     const QbVec3f* base, const int* voi, float* bufXY, float* bufX,
                                     float delta) const;
  void getTransformedGridIncremental(int idx, QbVec3f* out, const QbVec3f* base, const int* voi,
                                     float* bufXY, float* bufX, float delta) const;
  // The factors of that move, for a caller that forms the positions itself:
  // row[x - x0] = delta times the x weight of the point, as a float, for x0
  // to x1 of voi; the y and z weights follow from incrementalWeight().
  void getIncrementalRow(int idx, const int* voi, float delta, float* row) const;
  // Weight of a point whose first column along an axis is `first`
  // (min(3, point index)) at lattice index t of a region starting at t0, with
  // `column` the running column: call for t0, t0 + 1, ... in order, starting
  // with column = first. 0 outside the point's four cells.
  static inline double incrementalWeight(const RegSplineInterpolant* g, int t, int t0,
                                         int& column) {
    if (t > t0 && g[t].cell != g[t - 1].cell)
      column--;
    return (column >= 0 && column < 4) ? g[t].weight[column] : 0.0;
  }
  // The same in 2-D with the five derivative images. Mind the order: here the
  // base comes before the output.
  void getTransformedGridIncrementalWithRegularization2D(
      const QbDVector<double>& p, int idx, const QbVec3f* base, QbVec3f* out, const QbVec3d* baseDx,
      QbVec3d* outDx, const QbVec3d* baseDy, QbVec3d* outDy, const QbVec3d* baseDxx,
      QbVec3d* outDxx, const QbVec3d* baseDyy, QbVec3d* outDyy, const QbVec3d* baseDxy,
      QbVec3d* outDxy, const int* voi, float* bufT, float* bufDx, float* bufDy, float* bufDxx,
      float* bufDyy, float* bufDxy, float* bufX, float* bufX1, float* bufX2, float delta) const;
  void getTransformedGridIncrementalWithRegularization2D(
      int idx, const QbVec3f* base, QbVec3f* out, const QbVec3d* baseDx, QbVec3d* outDx,
      const QbVec3d* baseDy, QbVec3d* outDy, const QbVec3d* baseDxx, QbVec3d* outDxx,
      const QbVec3d* baseDyy, QbVec3d* outDyy, const QbVec3d* baseDxy, QbVec3d* outDxy,
      const int* voi, float* bufT, float* bufDx, float* bufDy, float* bufDxx, float* bufDyy,
      float* bufDxy, float* bufX, float* bufX1, float* bufX2, float delta) const;

  // Keeps a copy of the positions of the set's marker set 1.
  void setLandmarks(ZrLandmarkSet* set);
  void precomputeInterpolantsLandmarks();

  // Determinant of the Jacobian for count voxels along x from voxel v, scaled
  // to world units.
  void getJacobianDeterminant(const QbDVector<double>& p, QbDVector<double>& out, const QbVec3i& v,
                              int count) const;
  // Mean |log(J / modelVolumeScale)| over the reference lattice, or the
  // invalid value if the deformation folds anywhere (J / modelVolumeScale not
  // above 0). The parameters are read as they stand: with a model
  // transformation, bracket the call with applyModelTransformInv().
  double getJacobianConstraint() const;
};
