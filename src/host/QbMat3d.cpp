#include "QbMat3d.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

QbMat3d::QbMat3d() { makeZero(); }

QbMat3d::QbMat3d(double a00, double a01, double a02, double a10, double a11, double a12, double a20,
                 double a21, double a22)
    : m{{a00, a01, a02}, {a10, a11, a12}, {a20, a21, a22}} {}

QbMat3d::QbMat3d(const double v[3][3]) {
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      m[i][j] = v[i][j];
}

void QbMat3d::makeZero() {
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      m[i][j] = 0.0;
}

void QbMat3d::makeIdentity() {
  makeZero();
  m[0][0] = m[1][1] = m[2][2] = 1.0;
}

QbMat3d QbMat3d::identity() {
  QbMat3d r;
  r.makeIdentity();
  return r;
}

void QbMat3d::setColumn(int j, const QbVec3d& v) {
  m[0][j] = v.x;
  m[1][j] = v.y;
  m[2][j] = v.z;
}

void QbMat3d::setRow(int i, const QbVec3d& v) {
  m[i][0] = v.x;
  m[i][1] = v.y;
  m[i][2] = v.z;
}

bool QbMat3d::operator==(const QbMat3d& o) const {
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      if (m[i][j] != o.m[i][j])
        return false;
  return true;
}

QbMat3d QbMat3d::operator*(const QbMat3d& b) const {
  QbMat3d r;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      r.m[i][j] = m[i][0] * b.m[0][j] + m[i][1] * b.m[1][j] + m[i][2] * b.m[2][j];
  return r;
}

QbMat3d QbMat3d::operator+(const QbMat3d& b) const {
  QbMat3d r;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      r.m[i][j] = m[i][j] + b.m[i][j];
  return r;
}

QbMat3d QbMat3d::operator-(const QbMat3d& b) const {
  QbMat3d r;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      r.m[i][j] = m[i][j] - b.m[i][j];
  return r;
}

QbMat3d QbMat3d::operator*(double s) const {
  QbMat3d r;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      r.m[i][j] = m[i][j] * s;
  return r;
}

QbVec3d QbMat3d::operator*(const QbVec3d& v) const {
  return QbVec3d(m[0][0] * v.x + m[0][1] * v.y + m[0][2] * v.z,
                 m[1][0] * v.x + m[1][1] * v.y + m[1][2] * v.z,
                 m[2][0] * v.x + m[2][1] * v.y + m[2][2] * v.z);
}

QbVec3d QbMat3d::multLeft(const QbVec3d& v) const {
  return QbVec3d(v.x * m[0][0] + v.y * m[1][0] + v.z * m[2][0],
                 v.x * m[0][1] + v.y * m[1][1] + v.z * m[2][1],
                 v.x * m[0][2] + v.y * m[1][2] + v.z * m[2][2]);
}

QbMat3d QbMat3d::transpose() const {
  QbMat3d r;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      r.m[i][j] = m[j][i];
  return r;
}

double QbMat3d::det() const {
  return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
         m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
         m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

QbMat3d QbMat3d::inverse() const {
  double d = det();
  if (d == 0.0)
    return QbMat3d();
  QbMat3d r(m[1][1] * m[2][2] - m[1][2] * m[2][1], m[0][2] * m[2][1] - m[0][1] * m[2][2],
            m[0][1] * m[1][2] - m[0][2] * m[1][1], m[1][2] * m[2][0] - m[1][0] * m[2][2],
            m[0][0] * m[2][2] - m[0][2] * m[2][0], m[0][2] * m[1][0] - m[0][0] * m[1][2],
            m[1][0] * m[2][1] - m[1][1] * m[2][0], m[0][1] * m[2][0] - m[0][0] * m[2][1],
            m[0][0] * m[1][1] - m[0][1] * m[1][0]);
  return r * (1.0 / d);
}

namespace {

const int N = 3;

// Householder reduction of the symmetric matrix a to tridiagonal form. On
// return d holds the diagonal, e the sub-diagonal in e[1..N-1] (e[0] = 0), and
// a the orthogonal matrix of the accumulated transformations.
void householderTridiagonal(double a[N][N], double d[N], double e[N]) {
  for (int i = N - 1; i > 0; i--) {
    int l = i - 1;
    double h = 0.0;
    if (l > 0) {
      double scale = 0.0;
      for (int k = 0; k <= l; k++)
        scale += std::fabs(a[i][k]);
      if (scale == 0.0) {
        // Nothing to annihilate in this row.
        e[i] = a[i][l];
      } else {
        for (int k = 0; k <= l; k++) {
          a[i][k] /= scale;
          h += a[i][k] * a[i][k];
        }
        double f = a[i][l];
        double g = f >= 0.0 ? -std::sqrt(h) : std::sqrt(h);
        e[i] = scale * g;
        h -= f * g;
        a[i][l] = f - g;
        f = 0.0;
        for (int j = 0; j <= l; j++) {
          // The Householder vector divided by h, kept in column i for the
          // accumulation below.
          a[j][i] = a[i][j] / h;
          g = 0.0;
          for (int k = 0; k <= j; k++)
            g += a[j][k] * a[i][k];
          for (int k = j + 1; k <= l; k++)
            g += a[k][j] * a[i][k];
          e[j] = g / h;
          f += e[j] * a[i][j];
        }
        double hh = f / (h + h);
        for (int j = 0; j <= l; j++) {
          f = a[i][j];
          g = e[j] - hh * f;
          e[j] = g;
          for (int k = 0; k <= j; k++)
            a[j][k] -= f * e[k] + g * a[i][k];
        }
      }
    } else {
      e[i] = a[i][l];
    }
    d[i] = h;
  }
  d[0] = 0.0;
  e[0] = 0.0;
  // Accumulate the transformations into a.
  for (int i = 0; i < N; i++) {
    int l = i - 1;
    if (d[i] != 0.0) {
      for (int j = 0; j <= l; j++) {
        double g = 0.0;
        for (int k = 0; k <= l; k++)
          g += a[i][k] * a[k][j];
        for (int k = 0; k <= l; k++)
          a[k][j] -= g * a[k][i];
      }
    }
    d[i] = a[i][i];
    a[i][i] = 1.0;
    for (int j = 0; j <= l; j++)
      a[j][i] = a[i][j] = 0.0;
  }
}

// The relative precision of the arithmetic: halve from 1e-10 until adding it
// to 1 no longer changes 1, at most 84 times.
double machinePrecision() {
  volatile double eps = 1e-10;
  for (int n = 0; n < 84; n++) {
    volatile double sum = eps + 1.0;
    if (!(sum > 1.0))
      break;
    eps = eps * 0.5;
  }
  return eps;
}

// QL with implicit shifts on the tridiagonal matrix (d, e), e as left by
// householderTridiagonal. The rotations are applied to the columns of z, so
// that column i becomes the eigenvector of d[i]. After 30 iterations without
// convergence on one eigenvalue it reports and stops with what it has.
void implicitQL(double d[N], double* e, double z[N][N]) {
  for (int i = 1; i < N; i++)
    e[i - 1] = e[i];
  e[N - 1] = 0.0;
  const double eps = machinePrecision();

  for (int l = 0; l < N; l++) {
    int iter = 0;
    int m;
    do {
      // Look for a negligible off-diagonal element to split the matrix.
      for (m = l; m < N - 1; m++) {
        double dd = std::fabs(d[m]) + std::fabs(d[m + 1]);
        if (dd * eps >= std::fabs(e[m]))
          break;
      }
      if (m != l) {
        if (++iter == 31) {
          std::fputs("Too many iterations in TQLI", stdout);
          std::fflush(stdout);
          return;
        }
        // Shift from the leading 2x2 block.
        double g = (d[l + 1] - d[l]) / (2.0 * e[l]);
        double r = std::hypot(g, 1.0);
        g = d[m] - d[l] + e[l] / (g + (g >= 0.0 ? std::fabs(r) : -std::fabs(r)));
        double s = 1.0, c = 1.0, p = 0.0;
        int i;
        for (i = m - 1; i >= l; i--) {
          double f = s * e[i];
          double b = c * e[i];
          r = std::hypot(f, g);
          e[i + 1] = r;
          if (r == 0.0) {
            // Underflow: deflate and start again.
            d[i + 1] -= p;
            e[m] = 0.0;
            break;
          }
          s = f / r;
          c = g / r;
          g = d[i + 1] - p;
          r = (d[i] - g) * s + 2.0 * c * b;
          p = s * r;
          d[i + 1] = g + p;
          g = c * r - b;
          for (int k = 0; k < N; k++) {
            f = z[k][i + 1];
            z[k][i + 1] = s * z[k][i] + c * f;
            z[k][i] = c * z[k][i] - s * f;
          }
        }
        if (r == 0.0 && i >= l)
          continue;
        d[l] -= p;
        e[l] = g;
        e[m] = 0.0;
      }
    } while (m != l);
  }
}

} // namespace

void QbMat3d::eigenSystem(double values[3], QbMat3d& vectors) const {
  vectors = *this;
  for (int i = 0; i < N; i++)
    values[i] = 0.0;
  // The off-diagonal scratch comes from the heap; if it cannot be had, the
  // solve is left out with a message and the outputs stay as set above.
  double* e = static_cast<double*>(std::malloc(N * sizeof(double)));
  if (!e) {
    std::fputs("QbDMatrix::eigenSystem: NULL pointer argument.\n", stderr);
    return;
  }
  householderTridiagonal(vectors.m, values, e);
  implicitQL(values, e, vectors.m);
  std::free(e);
}
