#pragma once
// 4x4 matrix in double precision, scene-graph conventions: row vectors
// (p' = p * M), the translation in row 3, and in A * B the matrix A acts first.
#include "SbVec3d.h"
#include "SbVec3f.h"

class SbMatrix;
class SbRotationd;

class SbMatrixd {
public:
  double m[4][4];

  SbMatrixd(); // identity
  SbMatrixd(double a11, double a12, double a13, double a14, double a21, double a22, double a23,
            double a24, double a31, double a32, double a33, double a34, double a41, double a42,
            double a43, double a44);
  explicit SbMatrixd(const double v[4][4]);
  explicit SbMatrixd(const SbMatrix& other);

  double* operator[](int i) { return m[i]; }
  const double* operator[](int i) const { return m[i]; }
  void setValue(const double v[4][4]);
  // Conversion from the other precision.
  void setValue(const SbMatrix& other);
  void getValue(double v[4][4]) const;

  void makeIdentity();
  static SbMatrixd identity();
  // Exactly the identity: no tolerance.
  bool isIdentity() const;
  bool operator==(const SbMatrixd& o) const;
  bool operator!=(const SbMatrixd& o) const { return !(*this == o); }
  bool equals(const SbMatrixd& o, double tolerance) const;

  void setTranslate(const SbVec3d& t);
  void setScale(double s);
  void setScale(const SbVec3d& s);
  void setRotate(const SbRotationd& r);
  // M = -C * SO^-1 * S * SO * R * C * T: scale about the centre in the scale
  // orientation, then rotate about the centre, then translate.
  void setTransform(const SbVec3d& translation, const SbRotationd& rotation,
                    const SbVec3d& scaleFactor, const SbRotationd& scaleOrientation,
                    const SbVec3d& center);
  void setTransform(const SbVec3d& translation, const SbRotationd& rotation,
                    const SbVec3d& scaleFactor, const SbRotationd& scaleOrientation);
  void setTransform(const SbVec3d& translation, const SbRotationd& rotation,
                    const SbVec3d& scaleFactor);
  // Decomposition matching setTransform, for a given centre. A reflection shows
  // as a negative scale factor. Returns false for a singular or projective matrix.
  bool getTransform(SbVec3d& translation, SbRotationd& rotation, SbVec3d& scaleFactor,
                    SbRotationd& scaleOrientation, const SbVec3d& center) const;
  bool getTransform(SbVec3d& translation, SbRotationd& rotation, SbVec3d& scaleFactor,
                    SbRotationd& scaleOrientation) const;

  // Determinant of the upper-left 3x3 part, and of the whole matrix.
  double det3() const;
  double det4() const;
  // Inverse. A singular matrix has none: the result is then a copy of the
  // matrix itself, and callers that care test det4() first.
  SbMatrixd inverse() const;
  SbMatrixd transpose() const;

  // this = this * b (b acts after this)
  SbMatrixd& multRight(const SbMatrixd& b);
  // this = b * this (b acts before this)
  SbMatrixd& multLeft(const SbMatrixd& b);
  SbMatrixd& operator*=(const SbMatrixd& b) { return multRight(b); }
  friend SbMatrixd operator*(const SbMatrixd& a, const SbMatrixd& b) {
    SbMatrixd r(a);
    return r.multRight(b);
  }

  // Point: (src, 1) * M with the homogeneous divide.
  void multVecMatrix(const SbVec3f& src, SbVec3f& dst) const;
  void multVecMatrix(const SbVec3d& src, SbVec3d& dst) const;
  // Direction: src * (upper-left 3x3).
  void multDirMatrix(const SbVec3f& src, SbVec3f& dst) const;
  void multDirMatrix(const SbVec3d& src, SbVec3d& dst) const;
};
