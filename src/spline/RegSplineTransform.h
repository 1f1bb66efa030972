#pragma once
// Abstract base of the free-form transforms: a lattice of control points whose
// absolute positions are the parameters (3 doubles per point, x index
// fastest), the box of space the lattice interpolates, per-point flags that
// take points out of the optimization, and the bracket that maps the
// parameters into the model's local coordinates while positions are computed.
#include "QbBox3f.h"
#include "QbDVector.h"
#include "QbVec3d.h"
#include "QbVec3f.h"
#include "RegParametricTransform.h"
#include "SbMatrix.h"

class ZrLandmarkSet;
class ZrRegVectorField3;
class ZrSpatialData;

class RegSplineTransform : public RegParametricTransform {
public:
  // User-visible control points; never deleted by the transform.
  ZrLandmarkSet* controlPoints = nullptr;
  // Control points per axis.
  int gridSize[3] = {0, 0, 0};
  // One byte per point: 1 while the point is still to be optimized in this pass.
  unsigned char* newControlPoints = nullptr;
  // The model's transformation is not the identity.
  bool modelTransformed = false;
  // xmin, xmax, ymin, ymax, zmin, zmax of the space the spline covers.
  float interpolatedSpaceBoundary[6];
  float gridSpacing[3] = {0, 0, 0};
  // Transformation of the model data object (row vectors) and its inverse.
  SbMatrix modelMatrix;
  // 2 for registrations of single slices, else 3.
  int dimension;
  SbMatrix modelInverseMatrix;
  // Exact copy of the parameters taken by applyModelTransformInv.
  QbDVector<double> savedParams;
  // paramVector currently holds local coordinates; savedParams the true ones.
  bool modelInverseApplied = false;
  float invGridSpacing[3] = {0, 0, 0};
  // One byte per point: 0 if the point is fixed.
  unsigned char* activeControlPoints = nullptr;
  // Distances in doubles inside paramVector from a point to its neighbour at
  // (+1,0,0), (0,+1,0), (+1,+1,0), (0,0,+1), (+1,0,+1), (0,+1,+1), (+1,+1,+1).
  int strideX = 0, strideY = 0, strideXY = 0, strideZ = 0, strideXZ = 0, strideYZ = 0,
      strideXYZ = 0;
  ZrSpatialData* referenceData = nullptr;
  ZrSpatialData* modelData = nullptr;
  // Narrows the volume of influence of a control point.
  bool fastMode;

  RegSplineTransform(int dimension, bool fastMode);
  RegSplineTransform(const RegSplineTransform&) = delete;
  RegSplineTransform& operator=(const RegSplineTransform&) = delete;
  ~RegSplineTransform() override;

  // Copies the parameters into the control-point set and lets displays follow.
  void update() override;
  int getParamVectorDim() const override;
  int getVariableParamVectorDim() const override;
  // 1.0 for a free coordinate, 0.0 for a frozen one (fixed or not new point, z
  // of a 2-D registration). The size is not used.
  double getParamStep(int idx, SbVec3d* size) const override;
  // Map v into the model's local coordinates (saving it), and back.
  virtual void applyModelTransformInv(QbDVector<double>& v);
  virtual void applyModelTransform(QbDVector<double>& v);
  // The same mapping into local coordinates for one point, or from one vector
  // into another, touching neither savedParams nor the flag: safe to call
  // from several threads at once. In 2-D z keeps its world value.
  void mapToLocal(const double* world, double* local) const;
  void mapToLocal(const QbDVector<double>& world, QbDVector<double>& local) const;
  // How a point's local coordinates move when its world coordinate c moves by
  // 1: row c of the linear part of modelInverseMatrix, or the unit vector c
  // when the model has no transformation. In 2-D the z entry is 1 for c = 2
  // only, as z keeps its world value there.
  void getLocalDirection(int c, double dir[3]) const;
  virtual void setReference(ZrSpatialData* reference);
  virtual void setModel(ZrSpatialData* model);
  // Position of voxel v under parameters p.
  virtual void getTransformedGrid(int* v, QbVec3f& out, const QbDVector<double>& p) const = 0;
  // A run of numPoints voxels along x from voxel v, with the second (dxx ..
  // dyz) and first (dx, dy, dz) derivatives where all pointers of a group are
  // given. Nothing here; voxel subclasses implement it.
  virtual void getTransformedGridSequence(QbVec3f* out, QbVec3d* dxx, QbVec3d* dyy, QbVec3d* dzz,
                                          QbVec3d* dxy, QbVec3d* dxz, QbVec3d* dyz, QbVec3d* dx,
                                          QbVec3d* dy, QbVec3d* dz, int numPoints, int* v) const;
  virtual void getTransformedGridSequence(QbVec3f* out, QbVec3d* dxx, QbVec3d* dyy, QbVec3d* dzz,
                                          QbVec3d* dxy, QbVec3d* dxz, QbVec3d* dyz, QbVec3d* dx,
                                          QbVec3d* dy, QbVec3d* dz, int numPoints, int* v,
                                          const QbDVector<double>& p) const;
  // The whole reference lattice by separable passes. Nothing here.
  virtual void getTransformedGridComplete(QbVec3f* out, QbVec3f* passX, QbVec3f* passY) const;
  // Recomputes spacing (and what depends on it) from boundary and grid size.
  virtual void getGridSpacing() = 0;
  // First and last voxel index per axis that parameter idx can move; mode -1
  // follows fastMode, 0 full support, 1 narrow support.
  virtual void getVolumeOfInfluence(int idx, float* from, float* to, int mode) const = 0;
  // Base: makes or empties controlPoints and returns it; subclasses fill it.
  virtual ZrLandmarkSet* createControlPoints(ZrLandmarkSet* set);
  virtual void refineNoInterpolants(int factor) = 0;
  virtual void precomputeInterpolants() = 0;

  void setControlGridSize(int nx, int ny, int nz);
  void setControlPointActive();
  void setControlPointInactive(int idx);
  void setAllControlPointsNew();
  // Marks as new the points that did not exist before the last doubling.
  void setNewControlPoints();

  // Stores the set and takes its positions as parameters. A set whose number
  // of points differs from the lattice's is refused (false, with a message,
  // nothing changed): its positions would not fit the per-point flags.
  bool setControlPoints(ZrLandmarkSet* set);
  // Takes size, boundary and positions from a field made by getControlPoints.
  void setControlPoints(ZrRegVectorField3* field);
  // The lattice as a float vector field "ControlGridVectors"; owned by the
  // caller, null on failure.
  ZrRegVectorField3* getControlPoints() const;
  // Copies the set's positions into the parameters; false, leaving them, when
  // a lattice size is set and the set holds another number of points.
  bool controlPoints2Params();
  void params2ControlPoints();

  void applyModelTransformInv() { applyModelTransformInv(paramVector); }
  void applyModelTransform() { applyModelTransform(paramVector); }

  void updateInterpolatedSpaceBoundary(const QbBox3f& box);
  void correctInterpolatedSpaceBoundary(const float* delta);
  void smoothGrid(float centerWeight, float sideWeight);
  // refineNoInterpolants, then precomputeInterpolants for the new lattice.
  void refine(int factor);

  int getNumControlPoints() const { return gridSize[0] * gridSize[1] * gridSize[2]; }
};
