#pragma once
// The affine transform of the registration: 15 parameters (translation,
// rotation in degrees, scale, shear and the centre of rotation) turned into
// two double matrices. `matrix` maps between the two bounding-box origins;
// `modelMatrix` is the complete matrix that is written into the model object.
// A mirror transform for the inverse mapping is kept on request.
//
// Matrices act on row vectors, p' = p * M, translation in row 3.
//
// Parameter layout:
//   0..2   translation x, y, z (world length)
//   3..5   rotation about x, y, z (degrees)
//   6..8   scale x, y, z
//   9..11  shear of rows 0, 1, 2
//   12..14 centre of rotation, scale and shear, relative to the model box origin
#include "QbDArray.h"
#include "RegParametricTransform.h"
#include "SbMatrixd.h"

class ZrSpatialData;

class RegAffineTransform : public RegParametricTransform {
public:
  // The reference objects; only element 0 is consulted. Not owned.
  QbDArray<ZrSpatialData*> references;
  // The object that is moved. Not owned.
  ZrSpatialData* model = nullptr;
  // Transform between box-origin-relative coordinates.
  SbMatrixd matrix;
  // The complete matrix to assign to `model`.
  SbMatrixd modelMatrix;
  // Degrees of freedom: the number of leading parameters that are varied.
  int dof = 12;
  // Value of entry 6 that the isotropic mode (dof 7) scales entries 7 and 8
  // against.
  double lastScaleX = 0.0;
  // The axis of a planar run (0, 1, 2, or 4 for planar motion plus z
  // translation), 3 for none. The isotropic mode leaves that axis's scale
  // alone: a planar run must not change the row of its flat axis.
  int flatAxis = 3;
  // The inverse mirror, owned; null until first requested.
  RegAffineTransform* inverse = nullptr;

  // Identity parameters, dof 12, no data.
  RegAffineTransform();
  // Reads the present transforms of the data into the matrices and parameters.
  RegAffineTransform(QbDArray<ZrSpatialData*>& references, ZrSpatialData* model, int dof);
  RegAffineTransform(const RegAffineTransform&) = delete;
  RegAffineTransform& operator=(const RegAffineTransform&) = delete;
  ~RegAffineTransform() override;

  RegParametricTransform* makeInverse() override;
  // Fires the model and lets the scene catch up, so that a moving model is
  // redrawn during a long registration.
  void update() override;
  int getParamVectorDim() const override;
  int getVariableParamVectorDim() const override;
  double getParamStep(int index, SbVec3d* size) const override;
  // Splits `matrix` into shear, translation, scale and rotation, written to
  // `params`, and then moves the centre of this transform's own parameters to
  // the middle of the model box. Returns 0 for a singular matrix.
  virtual int decomposeMatrix(SbMatrixd& matrix, QbDVector<double>& params);
  virtual void setDegreesOfFreedom(int dof);
  virtual void setDegreesOfFreedomDirect(int dof);

  // Fills matrices and parameters from the present transforms of the data.
  // Returns the result of the decomposition.
  int init();
  // All parameters to the identity; the matrices are not touched.
  void makeIdentityTransform();
  // Parameters to `matrix` and `modelMatrix`.
  void composeMatrix();
  // Decomposes the own `matrix` into the own parameters.
  int decomposeMatrix();
  // out = in * (upper-left 3x3 of `matrix`); out and in may be the same array.
  void rotateScaleShear(double* out, const double* in) const;
  // Moves the centre (entries 12..14) without changing the mapping.
  void changeCenter(const double* newCenter);
  // composeMatrix(), then writes `modelMatrix` to the model.
  void apply();
  // The inverse mirror, built on first use and brought up to date with the
  // stored matrices on every later call. It does not compose: call apply()
  // first for fresh values.
  RegAffineTransform* getInverse();
  void updateInverse();

private:
  // Matrix of references[0], translation to its box origin, and translation
  // to the model box origin. Missing objects give identities.
  void getFrameMatrices(SbMatrixd& referenceMatrix, SbMatrixd& referenceOrigin,
                        SbMatrixd& modelOrigin) const;
};
