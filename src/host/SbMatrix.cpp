#include "SbMatrix.h"
#include "SbMatrixd.h"
#include "SbRotationd.h"

#include <cmath>

// The single-precision matrix computes through the double one and rounds the
// result once, so that products, inverses and decompositions lose no more than
// the final rounding.

SbMatrix::SbMatrix() { makeIdentity(); }

SbMatrix::SbMatrix(float a11, float a12, float a13, float a14, float a21, float a22, float a23,
                   float a24, float a31, float a32, float a33, float a34, float a41, float a42,
                   float a43, float a44)
    : m{{a11, a12, a13, a14}, {a21, a22, a23, a24}, {a31, a32, a33, a34}, {a41, a42, a43, a44}} {}

SbMatrix::SbMatrix(const float v[4][4]) { setValue(v); }

SbMatrix::SbMatrix(const SbMatrixd& other) { setValue(other); }

void SbMatrix::setValue(const float v[4][4]) {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      m[i][j] = v[i][j];
}

void SbMatrix::setValue(const SbMatrixd& other) {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      m[i][j] = float(other.m[i][j]);
}

void SbMatrix::getValue(float v[4][4]) const {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      v[i][j] = m[i][j];
}

void SbMatrix::makeIdentity() {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      m[i][j] = i == j ? 1.0f : 0.0f;
}

SbMatrix SbMatrix::identity() { return SbMatrix(); }

bool SbMatrix::isIdentity() const {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      if (m[i][j] != (i == j ? 1.0f : 0.0f))
        return false;
  return true;
}

bool SbMatrix::operator==(const SbMatrix& o) const {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      if (m[i][j] != o.m[i][j])
        return false;
  return true;
}

bool SbMatrix::equals(const SbMatrix& o, double tolerance) const {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      if (!(std::fabs(double(m[i][j]) - double(o.m[i][j])) <= tolerance))
        return false;
  return true;
}

void SbMatrix::setTranslate(const SbVec3f& t) {
  makeIdentity();
  m[3][0] = t.x;
  m[3][1] = t.y;
  m[3][2] = t.z;
}

void SbMatrix::setScale(float s) { setScale(SbVec3f(s, s, s)); }

void SbMatrix::setScale(const SbVec3f& s) {
  makeIdentity();
  m[0][0] = s.x;
  m[1][1] = s.y;
  m[2][2] = s.z;
}

void SbMatrix::setRotate(const SbRotationd& r) {
  SbMatrixd d;
  r.getValue(d);
  setValue(d);
}

void SbMatrix::setTransform(const SbVec3f& translation, const SbRotationd& rotation,
                            const SbVec3f& scaleFactor, const SbRotationd& scaleOrientation,
                            const SbVec3f& center) {
  SbMatrixd d;
  d.setTransform(SbVec3d(translation), rotation, SbVec3d(scaleFactor), scaleOrientation,
                 SbVec3d(center));
  setValue(d);
}

void SbMatrix::setTransform(const SbVec3f& translation, const SbRotationd& rotation,
                            const SbVec3f& scaleFactor, const SbRotationd& scaleOrientation) {
  setTransform(translation, rotation, scaleFactor, scaleOrientation, SbVec3f(0.0f, 0.0f, 0.0f));
}

void SbMatrix::setTransform(const SbVec3f& translation, const SbRotationd& rotation,
                            const SbVec3f& scaleFactor) {
  setTransform(translation, rotation, scaleFactor, SbRotationd(), SbVec3f(0.0f, 0.0f, 0.0f));
}

bool SbMatrix::getTransform(SbVec3f& translation, SbRotationd& rotation, SbVec3f& scaleFactor,
                            SbRotationd& scaleOrientation, const SbVec3f& center) const {
  SbVec3d t, s;
  bool ok = SbMatrixd(*this).getTransform(t, rotation, s, scaleOrientation, SbVec3d(center));
  translation = SbVec3f(t);
  scaleFactor = SbVec3f(s);
  return ok;
}

bool SbMatrix::getTransform(SbVec3f& translation, SbRotationd& rotation, SbVec3f& scaleFactor,
                            SbRotationd& scaleOrientation) const {
  return getTransform(translation, rotation, scaleFactor, scaleOrientation,
                      SbVec3f(0.0f, 0.0f, 0.0f));
}

double SbMatrix::det3() const { return SbMatrixd(*this).det3(); }

double SbMatrix::det4() const { return SbMatrixd(*this).det4(); }

SbMatrix SbMatrix::inverse() const {
  SbMatrixd d(*this);
  SbMatrixd inv = d.inverse();
  // The double inverse hands back its input for a singular matrix; so does
  // this one, exactly.
  if (inv == d)
    return *this;
  return SbMatrix(inv);
}

SbMatrix SbMatrix::transpose() const {
  SbMatrix r;
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      r.m[i][j] = m[j][i];
  return r;
}

SbMatrix& SbMatrix::multRight(const SbMatrix& b) {
  SbMatrixd d(*this);
  d.multRight(SbMatrixd(b));
  setValue(d);
  return *this;
}

SbMatrix& SbMatrix::multLeft(const SbMatrix& b) {
  SbMatrixd d(*this);
  d.multLeft(SbMatrixd(b));
  setValue(d);
  return *this;
}

void SbMatrix::multVecMatrix(const SbVec3f& src, SbVec3f& dst) const {
  SbMatrixd(*this).multVecMatrix(src, dst);
}

void SbMatrix::multVecMatrix(const SbVec3d& src, SbVec3d& dst) const {
  SbMatrixd(*this).multVecMatrix(src, dst);
}

void SbMatrix::multDirMatrix(const SbVec3f& src, SbVec3f& dst) const {
  SbMatrixd(*this).multDirMatrix(src, dst);
}

void SbMatrix::multDirMatrix(const SbVec3d& src, SbVec3d& dst) const {
  SbMatrixd(*this).multDirMatrix(src, dst);
}
