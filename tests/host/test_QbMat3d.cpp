// 3x3 matrix algebra and the symmetric eigen-solver.
#include "QbMat3d.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace {

// Rotation matrix (column-vector sense) about a unit axis, Rodrigues' formula.
QbMat3d rotation(QbVec3d axis, double angle) {
  axis.normalize();
  double c = std::cos(angle), s = std::sin(angle), t = 1.0 - c;
  double x = axis.x, y = axis.y, z = axis.z;
  return QbMat3d(t * x * x + c, t * x * y - s * z, t * x * z + s * y, t * x * y + s * z,
                 t * y * y + c, t * y * z - s * x, t * x * z - s * y, t * y * z + s * x,
                 t * z * z + c);
}

QbMat3d diag(double a, double b, double c) { return QbMat3d(a, 0, 0, 0, b, 0, 0, 0, c); }

double maxDiff(const QbMat3d& a, const QbMat3d& b) {
  double d = 0.0;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      d = std::max(d, std::fabs(a[i][j] - b[i][j]));
  return d;
}

// Checks A v_i = lambda_i v_i for each column and that the columns are
// orthonormal; returns the values sorted ascending.
std::array<double, 3> checkEigenSystem(const QbMat3d& a, double tol) {
  double values[3];
  QbMat3d v;
  a.eigenSystem(values, v);
  for (int i = 0; i < 3; i++) {
    QbVec3d col = v.getColumn(i);
    QbVec3d av = a * col;
    for (int k = 0; k < 3; k++)
      EXPECT_NEAR(av[k], values[i] * col[k], tol) << "eigenpair " << i;
  }
  EXPECT_LT(maxDiff(v.transpose() * v, QbMat3d::identity()), 1e-13);
  std::array<double, 3> sorted = {values[0], values[1], values[2]};
  std::sort(sorted.begin(), sorted.end());
  return sorted;
}

} // namespace

TEST(QbMat3d, ProductTransposeDeterminantInverse) {
  QbMat3d a(2, -1, 0.5, 3, 4, -2, 1, 0, 7);
  QbMat3d b = rotation(QbVec3d(1, 2, 3), 0.7) * diag(2, 3, 0.5);
  // det(a) by the rule of Sarrus, worked by hand: 56 + 2 + 0 - 2 - 0 + 21 = 77.
  EXPECT_NEAR(a.det(), 77.0, 1e-12);
  EXPECT_NEAR(b.det(), 3.0, 1e-12);
  EXPECT_NEAR((a * b).det(), a.det() * b.det(), 1e-10);
  EXPECT_LT(maxDiff((a * b).transpose(), b.transpose() * a.transpose()), 1e-14);
  EXPECT_LT(maxDiff(a * a.inverse(), QbMat3d::identity()), 1e-14);
  EXPECT_LT(maxDiff(a.inverse() * a, QbMat3d::identity()), 1e-14);
  EXPECT_EQ(QbMat3d(1, 2, 3, 2, 4, 6, 0, 0, 1).inverse(), QbMat3d());

  // Matrix times column vector, and row vector times matrix.
  QbVec3d v(1, -2, 0.5);
  QbVec3d av = a * v;
  EXPECT_DOUBLE_EQ(av.x, 2 + 2 + 0.25);
  EXPECT_DOUBLE_EQ(av.y, 3 - 8 - 1);
  EXPECT_DOUBLE_EQ(av.z, 1 + 0 + 3.5);
  QbVec3d va = a.multLeft(v);
  QbVec3d expect = a.transpose() * v;
  EXPECT_DOUBLE_EQ(va.x, expect.x);
  EXPECT_DOUBLE_EQ(va.y, expect.y);
  EXPECT_DOUBLE_EQ(va.z, expect.z);

  QbMat3d z;
  EXPECT_EQ(z, QbMat3d::zero());
  z.setColumn(1, QbVec3d(4, 5, 6));
  z.setRow(2, QbVec3d(7, 8, 9));
  EXPECT_EQ(z, QbMat3d(0, 4, 0, 0, 5, 0, 7, 8, 9));
  EXPECT_EQ(z.getColumn(1), QbVec3d(4, 5, 8));
  EXPECT_EQ(z.getRow(2), QbVec3d(7, 8, 9));
}

TEST(QbMat3dEigen, DiagonalMatrix) {
  QbMat3d a = diag(3, -1, 2);
  auto values = checkEigenSystem(a, 1e-14);
  EXPECT_DOUBLE_EQ(values[0], -1.0);
  EXPECT_DOUBLE_EQ(values[1], 2.0);
  EXPECT_DOUBLE_EQ(values[2], 3.0);
}

TEST(QbMat3dEigen, RotatedDiagonalGivesItsValuesAndAxes) {
  const QbVec3d axes[] = {QbVec3d(1, 2, 3), QbVec3d(0, 0, 1), QbVec3d(-1, 0.3, 0.1)};
  const double angles[] = {0.7, 2.5, -1.2};
  for (int t = 0; t < 3; t++) {
    QbMat3d r = rotation(axes[t], angles[t]);
    QbMat3d a = r * diag(5, 2, -1) * r.transpose();
    auto values = checkEigenSystem(a, 1e-13);
    EXPECT_NEAR(values[0], -1.0, 1e-13);
    EXPECT_NEAR(values[1], 2.0, 1e-13);
    EXPECT_NEAR(values[2], 5.0, 1e-13);
    // Each eigenvector is a column of r, up to sign.
    double ev[3];
    QbMat3d v;
    a.eigenSystem(ev, v);
    for (int i = 0; i < 3; i++) {
      int c = std::fabs(ev[i] - 5) < 1e-9 ? 0 : (std::fabs(ev[i] - 2) < 1e-9 ? 1 : 2);
      double dot = v.getColumn(i).dot(r.getColumn(c));
      EXPECT_NEAR(std::fabs(dot), 1.0, 1e-13);
    }
  }
}

TEST(QbMat3dEigen, LargeInertiaLikeEntries) {
  // Moments of the size the principal-axes alignment produces.
  QbMat3d r = rotation(QbVec3d(0.2, -1, 0.4), 0.4);
  QbMat3d a = r * diag(3.5e9, 1.2e9, 2.9e9) * r.transpose();
  auto values = checkEigenSystem(a, 1e-5);
  EXPECT_NEAR(values[0] / 1.2e9, 1.0, 1e-14);
  EXPECT_NEAR(values[1] / 2.9e9, 1.0, 1e-14);
  EXPECT_NEAR(values[2] / 3.5e9, 1.0, 1e-14);
}

TEST(QbMat3dEigen, EqualEigenvalues) {
  auto ones = checkEigenSystem(QbMat3d::identity(), 1e-15);
  for (double v : ones)
    EXPECT_DOUBLE_EQ(v, 1.0);

  // A double eigenvalue: any orthonormal pair in its plane will do, but the
  // single one must come with its own axis.
  QbMat3d r = rotation(QbVec3d(1, 1, 0), 0.9);
  QbMat3d a = r * diag(4, 4, 1) * r.transpose();
  auto values = checkEigenSystem(a, 1e-13);
  EXPECT_NEAR(values[0], 1.0, 1e-13);
  EXPECT_NEAR(values[1], 4.0, 1e-13);
  EXPECT_NEAR(values[2], 4.0, 1e-13);
  double ev[3];
  QbMat3d v;
  a.eigenSystem(ev, v);
  int single = 0;
  for (int i = 1; i < 3; i++)
    if (ev[i] < ev[single])
      single = i;
  EXPECT_NEAR(std::fabs(v.getColumn(single).dot(r.getColumn(2))), 1.0, 1e-13);
}

TEST(QbMat3dEigen, ZeroAndBlockMatrices) {
  double ev[3];
  QbMat3d v;
  QbMat3d().eigenSystem(ev, v);
  for (int i = 0; i < 3; i++)
    EXPECT_EQ(ev[i], 0.0);
  EXPECT_EQ(v, QbMat3d::identity());

  // The last row's leading part is zero, so its reduction step is skipped;
  // the 2x2 block [[2, 1], [1, 2]] has the values 1 and 3.
  QbMat3d block(2, 1, 0, 1, 2, 0, 0, 0, 7);
  auto values = checkEigenSystem(block, 1e-14);
  EXPECT_NEAR(values[0], 1.0, 1e-14);
  EXPECT_NEAR(values[1], 3.0, 1e-14);
  EXPECT_NEAR(values[2], 7.0, 1e-14);

  // Only the lower triangle is read.
  QbMat3d lower(2, 99, 99, 1, 2, 99, 0, 0, 7);
  double lv[3];
  QbMat3d lvec;
  lower.eigenSystem(lv, lvec);
  double bv[3];
  QbMat3d bvec;
  block.eigenSystem(bv, bvec);
  for (int i = 0; i < 3; i++)
    EXPECT_DOUBLE_EQ(lv[i], bv[i]);
}

TEST(QbMat3dEigen, NonConvergenceReportsAndStops) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  QbMat3d a(1, 0, 0, nan, 2, 0, 0, 1, 3);
  double ev[3];
  QbMat3d v;
  testing::internal::CaptureStdout();
  a.eigenSystem(ev, v);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "Too many iterations in TQLI");
}
