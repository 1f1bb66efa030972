#include "SbRotationd.h"
#include "SbMatrixd.h"

#include <algorithm>
#include <cmath>

// The quaternion q = (x, y, z, w) rotates a column vector v to q v q^-1. In
// the row-vector convention of the matrices the same rotation is the
// transpose of that rotation matrix, and "a * b" (a first, then b) is the
// quaternion product b q a.

SbRotationd::SbRotationd() : q{0.0, 0.0, 0.0, 1.0} {}

SbRotationd::SbRotationd(double x, double y, double z, double w) { setValue(x, y, z, w); }

SbRotationd::SbRotationd(const SbVec3d& axis, double radians) { setValue(axis, radians); }

SbRotationd::SbRotationd(const SbVec3d& from, const SbVec3d& to) { setValue(from, to); }

SbRotationd::SbRotationd(const SbMatrixd& m) { setValue(m); }

SbRotationd& SbRotationd::setValue(double x, double y, double z, double w) {
  double n = std::sqrt(x * x + y * y + z * z + w * w);
  if (n > 0.0 && std::isfinite(n)) {
    q[0] = x / n;
    q[1] = y / n;
    q[2] = z / n;
    q[3] = w / n;
  } else {
    // No rotation can be read from a zero quaternion: identity.
    q[0] = q[1] = q[2] = 0.0;
    q[3] = 1.0;
  }
  return *this;
}

SbRotationd& SbRotationd::setValue(const SbVec3d& axis, double radians) {
  double len = axis.length();
  if (!(len > 0.0))
    return setValue(0.0, 0.0, 0.0, 1.0);
  double s = std::sin(0.5 * radians) / len;
  q[0] = axis.x * s;
  q[1] = axis.y * s;
  q[2] = axis.z * s;
  q[3] = std::cos(0.5 * radians);
  return *this;
}

SbRotationd& SbRotationd::setValue(const SbVec3d& fromIn, const SbVec3d& toIn) {
  SbVec3d from = fromIn, to = toIn;
  if (!(from.normalize() > 0.0) || !(to.normalize() > 0.0))
    return setValue(0.0, 0.0, 0.0, 1.0);
  SbVec3d axis = from.cross(to);
  double c = from.dot(to);
  double s = axis.length();
  if (c < 0.0 && s < 1e-12) {
    // Opposite directions: any half turn about an axis perpendicular to from
    // does. Take the one about from x e, with e the coordinate axis along
    // which from is shortest, so that the cross product is well conditioned.
    SbVec3d e(1.0, 0.0, 0.0);
    double ax = std::fabs(from.x), ay = std::fabs(from.y), az = std::fabs(from.z);
    if (ay < ax && ay <= az)
      e = SbVec3d(0.0, 1.0, 0.0);
    else if (az < ax && az < ay)
      e = SbVec3d(0.0, 0.0, 1.0);
    SbVec3d perp = from.cross(e);
    perp.normalize();
    q[0] = perp.x;
    q[1] = perp.y;
    q[2] = perp.z;
    q[3] = 0.0;
    return *this;
  }
  // Half-angle form: (sin(a) n, 1 + cos(a)) normalised is (sin(a/2) n, cos(a/2)).
  // The angle itself is taken by atan2 for accuracy at small and large angles.
  if (s == 0.0)
    return setValue(0.0, 0.0, 0.0, 1.0);
  double angle = std::atan2(s, c);
  double sh = std::sin(0.5 * angle) / s;
  q[0] = axis.x * sh;
  q[1] = axis.y * sh;
  q[2] = axis.z * sh;
  q[3] = std::cos(0.5 * angle);
  return *this;
}

SbRotationd& SbRotationd::setValue(const SbMatrixd& mIn) {
  // Rows of the rotation part, normalised so that a scale applied before the
  // rotation (row scaling) does not disturb the result.
  double r[3][3];
  for (int i = 0; i < 3; i++) {
    double len = std::sqrt(mIn[i][0] * mIn[i][0] + mIn[i][1] * mIn[i][1] + mIn[i][2] * mIn[i][2]);
    for (int j = 0; j < 3; j++)
      r[i][j] = len > 0.0 ? mIn[i][j] / len : 0.0;
  }
  // r is the transpose of the column-convention rotation R: R[i][j] = r[j][i].
  // Take the numerically largest of w, x, y, z first.
  double trace = r[0][0] + r[1][1] + r[2][2];
  double x, y, z, w;
  if (trace >= r[0][0] && trace >= r[1][1] && trace >= r[2][2]) {
    double s = std::sqrt(std::max(0.0, trace + 1.0)) * 2.0; // 4w
    w = 0.25 * s;
    x = (r[1][2] - r[2][1]) / s;
    y = (r[2][0] - r[0][2]) / s;
    z = (r[0][1] - r[1][0]) / s;
  } else if (r[0][0] >= r[1][1] && r[0][0] >= r[2][2]) {
    double s = std::sqrt(std::max(0.0, 1.0 + r[0][0] - r[1][1] - r[2][2])) * 2.0; // 4x
    x = 0.25 * s;
    w = (r[1][2] - r[2][1]) / s;
    y = (r[0][1] + r[1][0]) / s;
    z = (r[2][0] + r[0][2]) / s;
  } else if (r[1][1] >= r[2][2]) {
    double s = std::sqrt(std::max(0.0, 1.0 + r[1][1] - r[0][0] - r[2][2])) * 2.0; // 4y
    y = 0.25 * s;
    w = (r[2][0] - r[0][2]) / s;
    x = (r[0][1] + r[1][0]) / s;
    z = (r[1][2] + r[2][1]) / s;
  } else {
    double s = std::sqrt(std::max(0.0, 1.0 + r[2][2] - r[0][0] - r[1][1])) * 2.0; // 4z
    z = 0.25 * s;
    w = (r[0][1] - r[1][0]) / s;
    x = (r[2][0] + r[0][2]) / s;
    y = (r[1][2] + r[2][1]) / s;
  }
  return setValue(x, y, z, w);
}

void SbRotationd::getValue(double& x, double& y, double& z, double& w) const {
  x = q[0];
  y = q[1];
  z = q[2];
  w = q[3];
}

void SbRotationd::getValue(SbVec3d& axis, double& radians) const {
  double s = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2]);
  if (s > 0.0) {
    axis.setValue(q[0] / s, q[1] / s, q[2] / s);
    radians = 2.0 * std::atan2(s, q[3]);
  } else {
    axis.setValue(0.0, 0.0, 1.0);
    radians = 0.0;
  }
}

void SbRotationd::getValue(SbMatrixd& m) const {
  const double x = q[0], y = q[1], z = q[2], w = q[3];
  m = SbMatrixd(1.0 - 2.0 * (y * y + z * z), 2.0 * (x * y + z * w), 2.0 * (x * z - y * w), 0.0,
                2.0 * (x * y - z * w), 1.0 - 2.0 * (x * x + z * z), 2.0 * (y * z + x * w), 0.0,
                2.0 * (x * z + y * w), 2.0 * (y * z - x * w), 1.0 - 2.0 * (x * x + y * y), 0.0, 0.0,
                0.0, 0.0, 1.0);
}

SbRotationd SbRotationd::inverse() const {
  SbRotationd r(*this);
  return r.invert();
}

SbRotationd& SbRotationd::invert() {
  q[0] = -q[0];
  q[1] = -q[1];
  q[2] = -q[2];
  return *this;
}

void SbRotationd::multVec(const SbVec3d& src, SbVec3d& dst) const {
  // v' = v + 2 w (u x v) + 2 u x (u x v), u the vector part.
  const SbVec3d u(q[0], q[1], q[2]);
  SbVec3d t = u.cross(src) * 2.0;
  dst = src + t * q[3] + u.cross(t);
}

SbRotationd& SbRotationd::operator*=(const SbRotationd& b) {
  // this first, then b: the quaternion product b * this.
  const double ax = q[0], ay = q[1], az = q[2], aw = q[3];
  const double bx = b.q[0], by = b.q[1], bz = b.q[2], bw = b.q[3];
  return setValue(bw * ax + bx * aw + by * az - bz * ay, bw * ay - bx * az + by * aw + bz * ax,
                  bw * az + bx * ay - by * ax + bz * aw, bw * aw - bx * ax - by * ay - bz * az);
}

SbRotationd operator*(const SbRotationd& a, const SbRotationd& b) {
  SbRotationd r(a);
  r *= b;
  return r;
}

bool SbRotationd::equals(const SbRotationd& r, double tolerance) const {
  double dPlus = 0.0, dMinus = 0.0;
  for (int i = 0; i < 4; i++) {
    dPlus = std::max(dPlus, std::fabs(q[i] - r.q[i]));
    dMinus = std::max(dMinus, std::fabs(q[i] + r.q[i]));
  }
  return std::min(dPlus, dMinus) <= tolerance;
}
