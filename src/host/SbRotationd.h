#pragma once
// Rotation as a unit quaternion (x, y, z, w) in double precision.
#include "SbVec3d.h"

class SbMatrixd;

class SbRotationd {
public:
  SbRotationd(); // identity
  SbRotationd(double x, double y, double z, double w);
  SbRotationd(const SbVec3d& axis, double radians);
  SbRotationd(const SbVec3d& from, const SbVec3d& to);
  explicit SbRotationd(const SbMatrixd& m);

  // Quaternion components, normalised.
  SbRotationd& setValue(double x, double y, double z, double w);
  // Rotation by radians about axis (right-handed); a zero axis gives identity.
  SbRotationd& setValue(const SbVec3d& axis, double radians);
  // The shortest rotation that takes the direction of from to that of to.
  SbRotationd& setValue(const SbVec3d& from, const SbVec3d& to);
  // From the rotation part of a matrix in the row-vector convention.
  SbRotationd& setValue(const SbMatrixd& m);

  const double* getValue() const { return q; }
  void getValue(double& x, double& y, double& z, double& w) const;
  void getValue(SbVec3d& axis, double& radians) const;
  void getValue(SbMatrixd& m) const;

  SbRotationd inverse() const;
  SbRotationd& invert();
  // Rotates a vector: dst = src * R in the row-vector convention.
  void multVec(const SbVec3d& src, SbVec3d& dst) const;
  // Composition: (a * b) applies a first, then b.
  SbRotationd& operator*=(const SbRotationd& b);
  friend SbRotationd operator*(const SbRotationd& a, const SbRotationd& b);
  // Same rotation up to tolerance (q and -q are the same rotation).
  bool equals(const SbRotationd& r, double tolerance) const;

  static SbRotationd identity() { return SbRotationd(); }

private:
  double q[4]; // x, y, z, w
};
