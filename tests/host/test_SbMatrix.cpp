// 4x4 matrices in the row-vector convention: products and their order,
// point and direction mapping, and composing and decomposing
// transforms with a centre, a scale orientation and reflections.
#include "SbMatrix.h"
#include "SbMatrixd.h"
#include "SbRotationd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace {

const double kPi = 3.14159265358979323846;

void expectVecNear(const SbVec3d& a, const SbVec3d& b, double tol) {
  EXPECT_NEAR(a.x, b.x, tol);
  EXPECT_NEAR(a.y, b.y, tol);
  EXPECT_NEAR(a.z, b.z, tol);
}

SbVec3d point(const SbMatrixd& m, const SbVec3d& p) {
  SbVec3d r;
  m.multVecMatrix(p, r);
  return r;
}

SbMatrixd translation(double x, double y, double z) {
  SbMatrixd m;
  m.setTranslate(SbVec3d(x, y, z));
  return m;
}

SbMatrixd rotation(const SbVec3d& axis, double angle) {
  SbMatrixd m;
  m.setRotate(SbRotationd(axis, angle));
  return m;
}

// An affine matrix with everything in it.
SbMatrixd generalAffine() {
  return SbMatrixd(1.2, 0.3, -0.4, 0, -0.2, 0.9, 0.5, 0, 0.7, -0.1, 2.1, 0, 10, -20, 5.5, 1);
}

} // namespace

TEST(SbMatrix, ProductOrderFollowsTheRowVectorConvention) {
  SbMatrixd t = translation(1, 0, 0);
  SbMatrixd r = rotation(SbVec3d(0, 0, 1), kPi / 2);
  // t * r: translate first, then rotate: the origin goes to (1,0,0), then (0,1,0).
  expectVecNear(point(t * r, SbVec3d(0, 0, 0)), SbVec3d(0, 1, 0), 1e-15);
  // r * t: the origin stays under the rotation and is then translated.
  expectVecNear(point(r * t, SbVec3d(0, 0, 0)), SbVec3d(1, 0, 0), 1e-15);
  expectVecNear(point(t * r, SbVec3d(1, 0, 0)), SbVec3d(0, 2, 0), 1e-15);

  SbMatrixd m = t;
  m.multLeft(r);
  EXPECT_TRUE(m == r * t);

  // Composition of point maps: p * (a * b) = (p * a) * b.
  SbMatrixd a = generalAffine(), b = rotation(SbVec3d(1, 2, 3), 0.3) * translation(-1, 2, 0.5);
  const SbVec3d p(0.3, -1.7, 2.2);
  expectVecNear(point(a * b, p), point(b, point(a, p)), 1e-13);
}

TEST(SbMatrix, PointsAreDividedDirectionsIgnoreTranslation) {
  // Column 3 = (1, 0, 0, 2): w = x + 2.
  SbMatrixd m(1, 0, 0, 1, 0, 1, 0, 0, 0, 0, 1, 0, 3, 4, 5, 2);
  SbVec3d r = point(m, SbVec3d(2, 4, 6));
  // (2+3, 4+4, 6+5) / (2+2)
  expectVecNear(r, SbVec3d(5.0 / 4, 8.0 / 4, 11.0 / 4), 1e-15);
  SbVec3d d;
  m.multDirMatrix(SbVec3d(2, 4, 6), d);
  expectVecNear(d, SbVec3d(2, 4, 6), 0.0);

  SbMatrixd t = generalAffine();
  t.multDirMatrix(SbVec3d(1, 0, 0), d);
  expectVecNear(d, SbVec3d(1.2, 0.3, -0.4), 0.0);
  // In place.
  SbVec3d v(0, 0, 0);
  t.multVecMatrix(v, v);
  expectVecNear(v, SbVec3d(10, -20, 5.5), 0.0);
}

TEST(SbMatrix, SetTransformComposesAboutTheCentre) {
  // Scale 2, then a quarter turn about z, both about the centre (1,0,0), then
  // a translation by (1,2,3).
  SbMatrixd m;
  m.setTransform(SbVec3d(1, 2, 3), SbRotationd(SbVec3d(0, 0, 1), kPi / 2), SbVec3d(2, 2, 2),
                 SbRotationd(), SbVec3d(1, 0, 0));
  // The centre only moves by the translation.
  expectVecNear(point(m, SbVec3d(1, 0, 0)), SbVec3d(2, 2, 3), 1e-15);
  // (2,0,0) is one unit along x from the centre: two units after the scale,
  // along y after the turn.
  expectVecNear(point(m, SbVec3d(2, 0, 0)), SbVec3d(2, 4, 3), 1e-15);

  // The scale orientation turns the scaling axes: a scale of 3 along the
  // diagonal x = y of the xy plane.
  SbMatrixd d;
  d.setTransform(SbVec3d(0, 0, 0), SbRotationd(), SbVec3d(3, 1, 1),
                 SbRotationd(SbVec3d(0, 0, 1), kPi / 4));
  // In the row-vector convention SO^-1 * S * SO maps a point into the frame
  // of SO^-1 first: the x axis of the scaling frame is SO applied to x.
  SbVec3d axis;
  SbRotationd(SbVec3d(0, 0, 1), kPi / 4).multVec(SbVec3d(1, 0, 0), axis);
  expectVecNear(point(d, axis), axis * 3.0, 1e-15);
  SbVec3d across(-axis.y, axis.x, 0);
  expectVecNear(point(d, across), across, 1e-15);

  // The shorter forms have no centre and no scale orientation.
  SbMatrixd full, shorter;
  SbRotationd r(SbVec3d(1, 1, 1), 0.5);
  full.setTransform(SbVec3d(1, 2, 3), r, SbVec3d(1, 2, 3), SbRotationd(), SbVec3d(0, 0, 0));
  shorter.setTransform(SbVec3d(1, 2, 3), r, SbVec3d(1, 2, 3));
  EXPECT_TRUE(full == shorter);
  SbMatrixd product;
  product.setScale(SbVec3d(1, 2, 3));
  product.multRight(rotation(SbVec3d(1, 1, 1), 0.5));
  product.multRight(translation(1, 2, 3));
  EXPECT_TRUE(full.equals(product, 1e-15));
}

TEST(SbMatrix, GetTransformRefusesSingularAndProjectiveMatrices) {
  SbVec3d t, s;
  SbRotationd r, so;
  SbMatrixd flat;
  flat.setScale(SbVec3d(2, 0, 1));
  flat[3][0] = 7;
  EXPECT_FALSE(flat.getTransform(t, r, s, so));
  expectVecNear(t, SbVec3d(7, 0, 0), 0.0);
  SbMatrixd proj;
  proj[0][3] = 0.1;
  EXPECT_FALSE(proj.getTransform(t, r, s, so));

  // A homogeneous factor alone is divided out.
  SbMatrixd m;
  m.setTransform(SbVec3d(1, 2, 3), SbRotationd(SbVec3d(0, 1, 0), 0.4), SbVec3d(2, 3, 4));
  SbMatrixd twice = m;
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      twice[i][j] *= 2.0;
  ASSERT_TRUE(twice.getTransform(t, r, s, so));
  expectVecNear(t, SbVec3d(1, 2, 3), 1e-13);
  expectVecNear(s, SbVec3d(2, 3, 4), 1e-13);
  EXPECT_TRUE(r.equals(SbRotationd(SbVec3d(0, 1, 0), 0.4), 1e-13));
}
