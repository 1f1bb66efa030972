// The symmetric 3x3 eigen-solver on matrices of known eigensystems.
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

} // namespace

TEST(QbMat3dEigen, KnownEigensystems) {
  struct Case {
    QbMat3d r;
    std::array<double, 3> values;
    double tol, valueTol; // of the eigenpairs; of the values, relative
  } cases[] = {
      {QbMat3d::identity(), {3, -1, 2}, 1e-14, 4e-16},
      {rotation(QbVec3d(1, 2, 3), 0.7), {5, 2, -1}, 1e-13, 1e-13},
      {rotation(QbVec3d(0, 0, 1), 2.5), {5, 2, -1}, 1e-13, 1e-13},
      {rotation(QbVec3d(-1, 0.3, 0.1), -1.2), {5, 2, -1}, 1e-13, 1e-13},
      // Moments of the size the principal-axes alignment produces.
      {rotation(QbVec3d(0.2, -1, 0.4), 0.4), {3.5e9, 1.2e9, 2.9e9}, 1e-5, 1e-14},
      // A double eigenvalue: any orthonormal pair in its plane will do, but
      // the single one must come with its own axis.
      {rotation(QbVec3d(1, 1, 0), 0.9), {4, 4, 1}, 1e-13, 1e-13},
  };
  for (const Case& c : cases) {
    const QbMat3d a = c.r * diag(c.values[0], c.values[1], c.values[2]) * c.r.transpose();
    double ev[3];
    QbMat3d v;
    a.eigenSystem(ev, v);
    EXPECT_LT(maxDiff(v.transpose() * v, QbMat3d::identity()), 1e-13);
    for (int i = 0; i < 3; i++) {
      // A v_i = lambda_i v_i, and lambda_i is one of the values, with its axis
      // (a column of r, up to sign) where it is single.
      const QbVec3d col = v.getColumn(i), acol = a * col;
      for (int k = 0; k < 3; k++)
        EXPECT_NEAR(acol[k], ev[i] * col[k], c.tol) << "eigenpair " << i;
      int match = -1, count = 0;
      for (int j = 0; j < 3; j++)
        if (std::fabs(ev[i] - c.values[j]) <= c.valueTol * std::max(1.0, std::fabs(c.values[j]))) {
          match = j;
          count++;
        }
      ASSERT_GE(match, 0) << ev[i];
      if (count == 1) {
        EXPECT_NEAR(std::fabs(col.dot(c.r.getColumn(match))), 1.0, 1e-13);
      }
    }
  }
}

TEST(QbMat3dEigen, ZeroBlockLowerTriangleAndNonConvergence) {
  double ev[3];
  QbMat3d v;
  QbMat3d().eigenSystem(ev, v);
  EXPECT_EQ(ev[0], 0.0);
  EXPECT_EQ(v, QbMat3d::identity());
  // The last row's leading part is zero, so its reduction step is skipped;
  // the 2x2 block [[2, 1], [1, 2]] has the values 1 and 3. Only the lower
  // triangle is read.
  QbMat3d lower(2, 99, 99, 1, 2, 99, 0, 0, 7);
  lower.eigenSystem(ev, v);
  std::sort(ev, ev + 3);
  EXPECT_NEAR(ev[0], 1.0, 1e-14);
  EXPECT_NEAR(ev[1], 3.0, 1e-14);
  EXPECT_NEAR(ev[2], 7.0, 1e-14);

  const double nan = std::numeric_limits<double>::quiet_NaN();
  testing::internal::CaptureStdout();
  QbMat3d(1, 0, 0, nan, 2, 0, 0, 1, 3).eigenSystem(ev, v);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Too many iterations in TQLI");
}
