#pragma once
// 4x4 matrix in float precision, scene-graph conventions: row vectors
// (p' = p * M), the translation in row 3, and in A * B the matrix A acts first.
#include "SbVec3d.h"
#include "SbVec3f.h"

class SbMatrixd;
class SbRotationd;

class SbMatrix {
public:
  float m[4][4];

  SbMatrix(); // identity
  SbMatrix(float a11, float a12, float a13, float a14, float a21, float a22, float a23, float a24,
           float a31, float a32, float a33, float a34, float a41, float a42, float a43, float a44);
  explicit SbMatrix(const float v[4][4]);
  explicit SbMatrix(const SbMatrixd& other);

  float* operator[](int i) { return m[i]; }
  const float* operator[](int i) const { return m[i]; }
  void setValue(const float v[4][4]);
  // Conversion from the other precision.
  void setValue(const SbMatrixd& other);
  void getValue(float v[4][4]) const;

  void makeIdentity();
  static SbMatrix identity();
  // Exactly the identity: no tolerance.
  bool isIdentity() const;
  bool operator==(const SbMatrix& o) const;
  bool operator!=(const SbMatrix& o) const { return !(*this == o); }
  bool equals(const SbMatrix& o, double tolerance) const;

  void setTranslate(const SbVec3f& t);
  void setScale(float s);
  void setScale(const SbVec3f& s);
  void setRotate(const SbRotationd& r);
  // M = -C * SO^-1 * S * SO * R * C * T: scale about the centre in the scale
  // orientation, then rotate about the centre, then translate.
  void setTransform(const SbVec3f& translation, const SbRotationd& rotation,
                    const SbVec3f& scaleFactor, const SbRotationd& scaleOrientation,
                    const SbVec3f& center);
  void setTransform(const SbVec3f& translation, const SbRotationd& rotation,
                    const SbVec3f& scaleFactor, const SbRotationd& scaleOrientation);
  void setTransform(const SbVec3f& translation, const SbRotationd& rotation,
                    const SbVec3f& scaleFactor);
  // Decomposition matching setTransform, for a given centre. A reflection shows
  // as a negative scale factor. Returns false for a singular or projective matrix.
  bool getTransform(SbVec3f& translation, SbRotationd& rotation, SbVec3f& scaleFactor,
                    SbRotationd& scaleOrientation, const SbVec3f& center) const;
  bool getTransform(SbVec3f& translation, SbRotationd& rotation, SbVec3f& scaleFactor,
                    SbRotationd& scaleOrientation) const;

  // Determinant of the upper-left 3x3 part, and of the whole matrix.
  double det3() const;
  double det4() const;
  // Inverse. A singular matrix has none: the result is then a copy of the
  // matrix itself, and callers that care test det4() first.
  SbMatrix inverse() const;
  SbMatrix transpose() const;

  // this = this * b (b acts after this)
  SbMatrix& multRight(const SbMatrix& b);
  // this = b * this (b acts before this)
  SbMatrix& multLeft(const SbMatrix& b);
  SbMatrix& operator*=(const SbMatrix& b) { return multRight(b); }
  friend SbMatrix operator*(const SbMatrix& a, const SbMatrix& b) {
    SbMatrix r(a);
    return r.multRight(b);
  }

  // Point: (src, 1) * M with the homogeneous divide.
  void multVecMatrix(const SbVec3f& src, SbVec3f& dst) const;
  void multVecMatrix(const SbVec3d& src, SbVec3d& dst) const;
  // Direction: src * (upper-left 3x3).
  void multDirMatrix(const SbVec3f& src, SbVec3f& dst) const;
  void multDirMatrix(const SbVec3d& src, SbVec3d& dst) const;
};
