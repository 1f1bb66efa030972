#include "RegAffineTransform.h"

#include "SbMatrix.h"
#include "SoDB.h"
#include "SoSensorManager.h"
#include "ZrSpatialData.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace {

const int kNumParams = 15;
const double kDegToRad = M_PI / 180.0;
const double kRadToDeg = 180.0 / M_PI;

double dot3(const double* a, const double* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

} // namespace

RegAffineTransform::RegAffineTransform() {
  paramVector.resize(kNumParams);
  makeIdentityTransform();
  // Matches entry 6 of the identity, so that the isotropic mode starts from a
  // consistent value.
  lastScaleX = paramVector[6];
}

RegAffineTransform::RegAffineTransform(QbDArray<ZrSpatialData*>& references, ZrSpatialData* model,
                                       int dof)
    : references(references), model(model), dof(dof) {
  paramVector.resize(kNumParams);
  init();
  inverse = nullptr;
}

RegAffineTransform::~RegAffineTransform() { delete inverse; }

void RegAffineTransform::getFrameMatrices(SbMatrixd& referenceMatrix, SbMatrixd& referenceOrigin,
                                          SbMatrixd& modelOrigin) const {
  // A transform without data (default constructed) works in the frame of the
  // parameters alone: the missing matrices are identities.
  referenceMatrix.makeIdentity();
  referenceOrigin.makeIdentity();
  modelOrigin.makeIdentity();
  ZrSpatialData* reference = references.size() > 0 ? references[0] : nullptr;
  if (reference) {
    SbMatrix m;
    reference->getTransform(m);
    referenceMatrix.setValue(m);
    QbVec3f o = reference->getBoundingBoxOrigin();
    referenceOrigin.setTranslate(SbVec3d(o.x, o.y, o.z));
  }
  if (model) {
    QbVec3f o = model->getBoundingBoxOrigin();
    modelOrigin.setTranslate(SbVec3d(o.x, o.y, o.z));
  }
}

int RegAffineTransform::init() {
  SbMatrixd R, Tref, Tmod;
  getFrameMatrices(R, Tref, Tmod);
  SbMatrixd Mmodel;
  if (model) {
    SbMatrix m;
    model->getTransform(m);
    Mmodel.setValue(m);
  }
  modelMatrix = Mmodel;
  // The exact inverse of the last step of composeMatrix().
  matrix = Tmod * Mmodel * R.inverse() * Tref.inverse();
  return decomposeMatrix();
}

void RegAffineTransform::makeIdentityTransform() {
  for (int i = 0; i < kNumParams; i++)
    paramVector[i] = 0.0;
  paramVector[6] = paramVector[7] = paramVector[8] = 1.0;
}

void RegAffineTransform::composeMatrix() {
  QbDVector<double>& p = paramVector;

  // Isotropic mode: entries 7 and 8 follow entry 6 in ratio, so an
  // anisotropic start stays anisotropic while its scales move together. The
  // scale of a planar run's flat axis stays (the z scale for mode 4).
  if (dof == 7 && lastScaleX > 0 && p[6] != lastScaleX) {
    const double ratio = p[6] / lastScaleX;
    const int held = flatAxis == 4 ? 2 : flatAxis;
    if (held != 1)
      p[7] *= ratio;
    if (held != 2)
      p[8] *= ratio;
    lastScaleX = p[6];
  }

  const double rx = p[3] * kDegToRad, ry = p[4] * kDegToRad, rz = p[5] * kDegToRad;
  const double cx = std::cos(rx), sx = std::sin(rx);
  const double cy = std::cos(ry), sy = std::sin(ry);
  const double cz = std::cos(rz), sz = std::sin(rz);
  const double Sx = p[6], Sy = p[7], Sz = p[8];

  double M[4][4] = {
      {Sx * (cy * cz), Sx * (-cy * sz), Sx * (-sy), 0.0},
      {Sy * (cz * sx * sy + cx * sz), Sy * (cx * cz - sx * sy * sz), Sy * (sx * cy), 0.0},
      {Sz * (cz * cx * sy - sx * sz), Sz * (-cx * sy * sz - sx * cz), Sz * (cx * cy), 0.0},
      {0.0, 0.0, 0.0, 1.0}};

  // Shear, each step on rows the previous one changed.
  for (int k = 0; k < 3; k++)
    M[2][k] += p[11] * M[0][k];
  for (int k = 0; k < 3; k++)
    M[1][k] += p[10] * M[2][k];
  for (int k = 0; k < 3; k++)
    M[0][k] += p[9] * M[1][k];

  // Translation: p' = (p - c) * A + c + t.
  const double c[3] = {p[12], p[13], p[14]};
  const double t[3] = {p[0], p[1], p[2]};
  for (int k = 0; k < 3; k++)
    M[3][k] = c[k] + t[k] - (c[0] * M[0][k] + c[1] * M[1][k] + c[2] * M[2][k]);

  matrix.setValue(M);

  // Model local -> relative to the model box origin -> M -> at the reference
  // box origin -> the reference's own matrix into world space.
  SbMatrixd R, Tref, Tmod;
  getFrameMatrices(R, Tref, Tmod);
  modelMatrix = matrix;
  modelMatrix.multRight(Tref);
  modelMatrix.multLeft(Tmod.inverse());
  modelMatrix.multRight(R);
}

int RegAffineTransform::decomposeMatrix() { return decomposeMatrix(matrix, paramVector); }

int RegAffineTransform::decomposeMatrix(SbMatrixd& source, QbDVector<double>& params) {
  double m[4][4];
  source.getValue(m);
  if (params.size() < kNumParams)
    params.resize(kNumParams);
  params.fill(0.0);

  // Shear. Row 0, already reduced, is what the last step uses. The rows are
  // taken to be orthogonal otherwise; several shears do not come back exactly.
  for (int i = 0; i < 3; i++) {
    const double* r = m[(i + 1) % 3];
    const double s = dot3(m[i], r) / dot3(r, r);
    params[9 + i] = s;
    for (int k = 0; k < 3; k++)
      m[i][k] -= s * r[k];
  }

  for (int k = 0; k < 3; k++)
    params[k] = m[3][k];

  for (int k = 0; k < 3; k++) {
    const double length = std::sqrt(dot3(m[k], m[k]));
    params[6 + k] = length;
    // A NaN length passes this test, and so does not count as singular.
    if (length < 0.001) {
      std::fputs("\nRegAffineTransform::decomposeMatrix encountered singular matrix.", stderr);
      return 0;
    }
  }
  lastScaleX = params[6];

  // Rotation about z, from row 0.
  const double a = m[0][0] / params[6], b = m[0][1] / params[6], c = m[0][2] / params[6];
  const double h = std::sqrt(a * a + b * b);
  // The branches test `< 0.001` as written, so that a NaN takes the general
  // branch and propagates instead of being read as an axis-aligned row.
  double cosZ, sinZ;
  if (h < 0.001) {
    cosZ = 1.0;
    sinZ = 0.0;
  } else {
    cosZ = a / h;
    sinZ = b / h;
  }
  params[5] = -std::atan2(sinZ, cosZ) * kRadToDeg;

  // Rotation about y, then about x from row 2.
  const double len = std::sqrt(a * a + b * b + c * c);
  if (!(len < 0.001)) {
    const double sinY = c / len;
    const double cosY = h < 0.001 ? a / len : (a * a + b * b) / (h * len);
    params[4] = -std::atan2(sinY, cosY) * kRadToDeg;

    const double u = m[2][0] / params[8], v = m[2][1] / params[8], w = m[2][2] / params[8];
    const double pp = v * cosZ - u * sinZ;
    const double q = -sinY * sinZ * v + w * cosY - sinY * cosZ * u;
    const double l = std::sqrt(pp * pp + q * q);
    double first, second;
    if (l < 0.001) {
      first = 0.0;
      second = 1.0;
    } else {
      first = pp / l;
      second = q / l;
    }
    params[3] = -std::atan2(first, second) * kRadToDeg;
  }

  // The centre goes to the middle of the model box. This always works on the
  // own parameters and `matrix`.
  if (model) {
    QbVec3f s = model->getBoundingBoxSize();
    const double center[3] = {s.x * 0.5, s.y * 0.5, s.z * 0.5};
    changeCenter(center);
  }
  return 1;
}

void RegAffineTransform::rotateScaleShear(double* out, const double* in) const {
  double r[3];
  for (int k = 0; k < 3; k++)
    r[k] = in[0] * matrix[0][k] + in[1] * matrix[1][k] + in[2] * matrix[2][k];
  out[0] = r[0];
  out[1] = r[1];
  out[2] = r[2];
}

void RegAffineTransform::changeCenter(const double* newCenter) {
  QbDVector<double>& p = paramVector;
  double d[3];
  for (int k = 0; k < 3; k++) {
    d[k] = newCenter[k] - p[12 + k];
    p[k] -= d[k];
  }
  rotateScaleShear(d, d);
  for (int k = 0; k < 3; k++) {
    p[k] += d[k];
    p[12 + k] = newCenter[k];
  }
}

void RegAffineTransform::apply() {
  composeMatrix();
  if (model) {
    SbMatrix m;
    m.setValue(modelMatrix);
    model->setTransform(m);
  }
}

void RegAffineTransform::update() {
  if (model)
    model->fire(1);
  SoDB::getSensorManager()->processQueues(1);
}

int RegAffineTransform::getParamVectorDim() const { return kNumParams; }

int RegAffineTransform::getVariableParamVectorDim() const { return dof; }

double RegAffineTransform::getParamStep(int index, SbVec3d* size) const {
  if (index >= getVariableParamVectorDim())
    return 0.0;
  // Without an extent every parameter steps by one unit.
  if (!size)
    return 1.0;
  const double x = (*size)[0], y = (*size)[1], z = (*size)[2];
  switch (index) {
  case 3:
    return 1080.0 / (M_PI * std::sqrt(y * y + z * z));
  case 4:
    return 1080.0 / (M_PI * std::sqrt(x * x + z * z));
  case 5:
    return 1080.0 / (M_PI * std::sqrt(x * x + y * y));
  case 6:
  case 7:
  case 8:
  case 9:
  case 10:
  case 11: {
    double m = 0.0;
    m = std::max(m, x);
    m = std::max(m, y);
    m = std::max(m, z);
    return 4.0 / m;
  }
  default:
    return 1.0;
  }
}

void RegAffineTransform::setDegreesOfFreedom(int newDof) {
  if (newDof == 7 && dof != 7)
    lastScaleX = paramVector[6];
  dof = newDof;
}

void RegAffineTransform::setDegreesOfFreedomDirect(int newDof) { dof = newDof; }

RegParametricTransform* RegAffineTransform::makeInverse() {
  RegAffineTransform* result = new RegAffineTransform(references, model, dof);
  result->matrix = matrix.inverse();
  result->decomposeMatrix();
  result->modelMatrix = modelMatrix.inverse();
  result->inverse = nullptr;
  return result;
}

void RegAffineTransform::updateInverse() {
  if (!inverse)
    return;
  inverse->dof = dof;
  inverse->matrix = matrix.inverse();
  inverse->decomposeMatrix();
  inverse->modelMatrix = modelMatrix.inverse();
}

RegAffineTransform* RegAffineTransform::getInverse() {
  if (!inverse) {
    RegParametricTransform* made = makeInverse();
    inverse = dynamic_cast<RegAffineTransform*>(made);
    if (!inverse)
      delete made;
    return inverse;
  }
  updateInverse();
  return inverse;
}
