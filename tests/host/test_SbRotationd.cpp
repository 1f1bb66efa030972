// Rotations as quaternions: axis and angle, from-to, composition order, and
// agreement with the rotation matrices of the row-vector convention.
#include "SbMatrixd.h"
#include "SbRotationd.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

const double kPi = 3.14159265358979323846;

void expectVecNear(const SbVec3d& a, const SbVec3d& b, double tol) {
  EXPECT_NEAR(a.x, b.x, tol);
  EXPECT_NEAR(a.y, b.y, tol);
  EXPECT_NEAR(a.z, b.z, tol);
}

SbVec3d unit(SbVec3d v) {
  v.normalize();
  return v;
}

SbVec3d rotated(const SbRotationd& r, const SbVec3d& v) {
  SbVec3d out;
  r.multVec(v, out);
  return out;
}

const SbVec3d kSamples[] = {SbVec3d(1, 0, 0),   SbVec3d(0, 1, 0),       SbVec3d(0, 0, 1),
                            SbVec3d(1, 2, 3),   SbVec3d(-0.3, 0.8, -2), SbVec3d(5, -1, 0.25),
                            SbVec3d(-1, -1, -1)};

} // namespace

TEST(SbRotationd, AxisAndAngleAreRightHanded) {
  SbRotationd rz(SbVec3d(0, 0, 2), kPi / 2);
  expectVecNear(rotated(rz, SbVec3d(1, 0, 0)), SbVec3d(0, 1, 0), 1e-15);
  expectVecNear(rotated(rz, SbVec3d(0, 1, 0)), SbVec3d(-1, 0, 0), 1e-15);
  SbRotationd rx(SbVec3d(1, 0, 0), kPi / 2);
  expectVecNear(rotated(rx, SbVec3d(0, 1, 0)), SbVec3d(0, 0, 1), 1e-15);
  SbRotationd ry(SbVec3d(0, 1, 0), kPi / 2);
  expectVecNear(rotated(ry, SbVec3d(0, 0, 1)), SbVec3d(1, 0, 0), 1e-15);

  // A general rotation keeps lengths and its axis, and turns a perpendicular
  // vector by the angle.
  SbVec3d axis = unit(SbVec3d(1, -2, 0.5));
  const double angle = 1.1;
  SbRotationd r(axis, angle);
  expectVecNear(rotated(r, axis), axis, 1e-15);
  SbVec3d perp = unit(axis.cross(SbVec3d(0, 0, 1)));
  SbVec3d turned = rotated(r, perp);
  EXPECT_NEAR(turned.length(), 1.0, 1e-15);
  EXPECT_NEAR(turned.dot(perp), std::cos(angle), 1e-15);
  expectVecNear(perp.cross(turned), axis * std::sin(angle), 1e-15);

  SbVec3d backAxis;
  double backAngle;
  r.getValue(backAxis, backAngle);
  expectVecNear(backAxis, axis, 1e-15);
  EXPECT_NEAR(backAngle, angle, 1e-15);

  // Angles beyond a half turn come back as the same rotation.
  SbRotationd big(axis, 2 * kPi - 0.5);
  SbRotationd small(axis, -0.5);
  EXPECT_TRUE(big.equals(small, 1e-15));

  // A zero axis, and the identity, read back as no rotation.
  SbRotationd none(SbVec3d(0, 0, 0), 1.0);
  EXPECT_TRUE(none.equals(SbRotationd::identity(), 0.0));
  none.getValue(backAxis, backAngle);
  EXPECT_EQ(backAngle, 0.0);
}

TEST(SbRotationd, QuaternionValuesAreNormalised) {
  SbRotationd r(0, 0, 2, 2); // 90 degrees about z
  double x, y, z, w;
  r.getValue(x, y, z, w);
  EXPECT_NEAR(z, std::sqrt(0.5), 2e-16);
  EXPECT_NEAR(w, std::sqrt(0.5), 2e-16);
  expectVecNear(rotated(r, SbVec3d(2, 0, 0)), SbVec3d(0, 2, 0), 1e-15);
  // q and -q are the same rotation.
  EXPECT_TRUE(r.equals(SbRotationd(0, 0, -1, -1), 1e-15));
  EXPECT_FALSE(r.equals(SbRotationd(0, 0, 1, -1), 1e-3));
  EXPECT_TRUE(SbRotationd(0, 0, 0, 0).equals(SbRotationd(), 0.0));
}

TEST(SbRotationd, FromToTakesTheShortestWay) {
  for (const SbVec3d& from : kSamples)
    for (const SbVec3d& to : kSamples) {
      SbRotationd r(from, to);
      expectVecNear(rotated(r, unit(from)), unit(to), 1e-14);
      SbVec3d axis;
      double angle;
      r.getValue(axis, angle);
      double cosAngle = unit(from).dot(unit(to));
      EXPECT_NEAR(std::cos(angle), cosAngle, 1e-14);
      if (angle > 1e-9) {
        // The axis stands perpendicular to both.
        EXPECT_NEAR(axis.dot(unit(from)), 0.0, 1e-14);
        EXPECT_NEAR(axis.dot(unit(to)), 0.0, 1e-14);
      }
    }
  // Lengths do not matter, equal directions give the identity.
  EXPECT_TRUE(SbRotationd(SbVec3d(1, 2, 3), SbVec3d(2, 4, 6)).equals(SbRotationd(), 1e-15));
  EXPECT_TRUE(SbRotationd(SbVec3d(0, 0, 0), SbVec3d(1, 0, 0)).equals(SbRotationd(), 0.0));
}

TEST(SbRotationd, FromToOppositeIsAHalfTurnAboutAPerpendicularAxis) {
  const SbVec3d froms[] = {SbVec3d(1, 0, 0), SbVec3d(0, -3, 0), SbVec3d(0, 0, 1), SbVec3d(1, 2, 3),
                           SbVec3d(-0.3, 0.8, -2)};
  for (const SbVec3d& from : froms) {
    SbRotationd r(from, from * -2.0);
    SbVec3d axis;
    double angle;
    r.getValue(axis, angle);
    EXPECT_NEAR(angle, kPi, 1e-15);
    EXPECT_NEAR(axis.dot(unit(from)), 0.0, 1e-15);
    expectVecNear(rotated(r, from), -from, 1e-14);
  }
  // Nearly opposite: still exact, and no longer an arbitrary half turn.
  SbVec3d from(1, 0, 0), to(-1, 1e-9, 0);
  SbRotationd r(from, to);
  expectVecNear(rotated(r, from), unit(to), 1e-15);
  SbVec3d axis;
  double angle;
  r.getValue(axis, angle);
  expectVecNear(axis, SbVec3d(0, 0, 1), 1e-12);
}

TEST(SbRotationd, CompositionAppliesTheLeftOperandFirst) {
  SbRotationd a(SbVec3d(0, 0, 1), kPi / 2);
  SbRotationd b(SbVec3d(1, 0, 0), kPi / 2);
  // x -> y by a, then y -> z by b.
  expectVecNear(rotated(a * b, SbVec3d(1, 0, 0)), SbVec3d(0, 0, 1), 1e-15);
  // The other order: x stays under b, then goes to y.
  expectVecNear(rotated(b * a, SbVec3d(1, 0, 0)), SbVec3d(0, 1, 0), 1e-15);

  SbRotationd c(SbVec3d(1, 2, 3), 0.4), d(SbVec3d(-2, 0.5, 1), 2.2);
  for (const SbVec3d& v : kSamples)
    expectVecNear(rotated(c * d, v), rotated(d, rotated(c, v)), 1e-14);
  // The same order as matrix products.
  SbMatrixd mc, md, mcd;
  c.getValue(mc);
  d.getValue(md);
  (c * d).getValue(mcd);
  EXPECT_TRUE(mcd.equals(mc * md, 1e-15));

  SbRotationd e = c;
  e *= d;
  EXPECT_TRUE(e.equals(c * d, 0.0));
  EXPECT_TRUE((c * c.inverse()).equals(SbRotationd(), 1e-15));
  SbRotationd f = d;
  f.invert();
  expectVecNear(rotated(f, rotated(d, SbVec3d(1, 2, 3))), SbVec3d(1, 2, 3), 1e-14);
}

TEST(SbRotationd, MatrixFormAgreesWithMultVec) {
  const SbVec3d axes[] = {SbVec3d(1, 0, 0), SbVec3d(0, 1, 0),  SbVec3d(0, 0, 1),
                          SbVec3d(1, 2, 3), SbVec3d(-1, 1, 0), SbVec3d(0.2, -0.1, 1)};
  const double angles[] = {0.0, 0.3, -1.7, kPi / 2, kPi, 3.0, -kPi};
  for (const SbVec3d& axis : axes)
    for (double angle : angles) {
      SbRotationd r(axis, angle);
      SbMatrixd m;
      r.getValue(m);
      EXPECT_NEAR(m.det4(), 1.0, 1e-14);
      for (const SbVec3d& v : kSamples) {
        SbVec3d byMatrix;
        m.multDirMatrix(v, byMatrix);
        expectVecNear(byMatrix, rotated(r, v), 1e-14);
        // A rotation matrix as a point transform has no translation.
        SbVec3d asPoint;
        m.multVecMatrix(v, asPoint);
        expectVecNear(asPoint, byMatrix, 0.0);
      }
      // And back from the matrix, half turns included.
      EXPECT_TRUE(SbRotationd(m).equals(r, 1e-15)) << "angle " << angle;
    }
  // A matrix with a scale applied before the rotation gives the rotation.
  SbRotationd r(SbVec3d(1, 1, 0), 0.8);
  SbMatrixd s, m;
  s.setScale(SbVec3d(2, 0.5, 3));
  m.setRotate(r);
  EXPECT_TRUE(SbRotationd(s * m).equals(r, 1e-15));
}
