// Rotations as quaternions: axis and angle, from-to and composition order.
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
  expectVecNear(rotated(SbRotationd(SbVec3d(0, 0, 2), kPi / 2), SbVec3d(1, 0, 0)), SbVec3d(0, 1, 0),
                1e-15);
  expectVecNear(rotated(SbRotationd(SbVec3d(1, 0, 0), kPi / 2), SbVec3d(0, 1, 0)), SbVec3d(0, 0, 1),
                1e-15);
  expectVecNear(rotated(SbRotationd(SbVec3d(0, 1, 0), kPi / 2), SbVec3d(0, 0, 1)), SbVec3d(1, 0, 0),
                1e-15);
  // A general rotation keeps its axis and turns a perpendicular vector by the
  // angle, in the right-handed sense.
  const SbVec3d axis = unit(SbVec3d(1, -2, 0.5));
  const double angle = 1.1;
  SbRotationd r(axis, angle);
  expectVecNear(rotated(r, axis), axis, 1e-15);
  const SbVec3d perp = unit(axis.cross(SbVec3d(0, 0, 1)));
  const SbVec3d turned = rotated(r, perp);
  EXPECT_NEAR(turned.dot(perp), std::cos(angle), 1e-15);
  expectVecNear(perp.cross(turned), axis * std::sin(angle), 1e-15);
  SbVec3d backAxis;
  double backAngle;
  r.getValue(backAxis, backAngle);
  expectVecNear(backAxis, axis, 1e-15);
  EXPECT_NEAR(backAngle, angle, 1e-15);
  // Angles beyond a half turn are the same rotation; q and -q too.
  EXPECT_TRUE(SbRotationd(axis, 2 * kPi - 0.5).equals(SbRotationd(axis, -0.5), 1e-15));
  SbRotationd q(0, 0, 2, 2); // 90 degrees about z, normalised
  double x, y, z, w;
  q.getValue(x, y, z, w);
  EXPECT_NEAR(w, std::sqrt(0.5), 2e-16);
  EXPECT_TRUE(q.equals(SbRotationd(0, 0, -1, -1), 1e-15));
  EXPECT_FALSE(q.equals(SbRotationd(0, 0, 1, -1), 1e-3));
  // A zero axis reads back as no rotation.
  EXPECT_TRUE(SbRotationd(SbVec3d(0, 0, 0), 1.0).equals(SbRotationd::identity(), 0.0));
}

TEST(SbRotationd, FromToTakesTheShortestWay) {
  for (const SbVec3d& from : kSamples)
    for (const SbVec3d& to : kSamples) {
      SbRotationd r(from, to * 2.5);
      expectVecNear(rotated(r, unit(from)), unit(to), 1e-14);
      SbVec3d axis;
      double angle;
      r.getValue(axis, angle);
      EXPECT_NEAR(std::cos(angle), unit(from).dot(unit(to)), 1e-14);
      if (angle > 1e-9) {
        EXPECT_NEAR(axis.dot(unit(from)), 0.0, 1e-14);
        EXPECT_NEAR(axis.dot(unit(to)), 0.0, 1e-14);
      }
      // Opposite: a half turn about a perpendicular axis.
      SbRotationd h(from, from * -2.0);
      h.getValue(axis, angle);
      EXPECT_NEAR(angle, kPi, 1e-15);
      EXPECT_NEAR(axis.dot(unit(from)), 0.0, 1e-15);
      expectVecNear(rotated(h, from), -from, 1e-14);
    }
  // Nearly opposite: still exact, and no longer an arbitrary half turn.
  SbRotationd r(SbVec3d(1, 0, 0), SbVec3d(-1, 1e-9, 0));
  expectVecNear(rotated(r, SbVec3d(1, 0, 0)), unit(SbVec3d(-1, 1e-9, 0)), 1e-15);
  SbVec3d axis;
  double angle;
  r.getValue(axis, angle);
  expectVecNear(axis, SbVec3d(0, 0, 1), 1e-12);
  EXPECT_TRUE(SbRotationd(SbVec3d(0, 0, 0), SbVec3d(1, 0, 0)).equals(SbRotationd(), 0.0));
}

TEST(SbRotationd, CompositionAppliesTheLeftOperandFirst) {
  SbRotationd a(SbVec3d(0, 0, 1), kPi / 2), b(SbVec3d(1, 0, 0), kPi / 2);
  // x -> y by a, then y -> z by b; the other order leaves x under b, then y.
  expectVecNear(rotated(a * b, SbVec3d(1, 0, 0)), SbVec3d(0, 0, 1), 1e-15);
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
}
