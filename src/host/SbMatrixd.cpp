#include "SbMatrixd.h"
#include "QbMat3d.h"
#include "SbMatrix.h"
#include "SbRotationd.h"

#include <algorithm>
#include <cmath>

SbMatrixd::SbMatrixd() { makeIdentity(); }

SbMatrixd::SbMatrixd(double a11, double a12, double a13, double a14, double a21, double a22,
                     double a23, double a24, double a31, double a32, double a33, double a34,
                     double a41, double a42, double a43, double a44)
    : m{{a11, a12, a13, a14}, {a21, a22, a23, a24}, {a31, a32, a33, a34}, {a41, a42, a43, a44}} {}

SbMatrixd::SbMatrixd(const double v[4][4]) { setValue(v); }

SbMatrixd::SbMatrixd(const SbMatrix& other) { setValue(other); }

void SbMatrixd::setValue(const double v[4][4]) {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      m[i][j] = v[i][j];
}

void SbMatrixd::setValue(const SbMatrix& other) {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      m[i][j] = double(other.m[i][j]);
}

void SbMatrixd::getValue(double v[4][4]) const {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      v[i][j] = m[i][j];
}

void SbMatrixd::makeIdentity() {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      m[i][j] = i == j ? 1.0 : 0.0;
}

SbMatrixd SbMatrixd::identity() { return SbMatrixd(); }

bool SbMatrixd::isIdentity() const {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      if (m[i][j] != (i == j ? 1.0 : 0.0))
        return false;
  return true;
}

bool SbMatrixd::operator==(const SbMatrixd& o) const {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      if (m[i][j] != o.m[i][j])
        return false;
  return true;
}

bool SbMatrixd::equals(const SbMatrixd& o, double tolerance) const {
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      if (!(std::fabs(m[i][j] - o.m[i][j]) <= tolerance))
        return false;
  return true;
}

void SbMatrixd::setTranslate(const SbVec3d& t) {
  makeIdentity();
  m[3][0] = t.x;
  m[3][1] = t.y;
  m[3][2] = t.z;
}

void SbMatrixd::setScale(double s) { setScale(SbVec3d(s, s, s)); }

void SbMatrixd::setScale(const SbVec3d& s) {
  makeIdentity();
  m[0][0] = s.x;
  m[1][1] = s.y;
  m[2][2] = s.z;
}

void SbMatrixd::setRotate(const SbRotationd& r) { r.getValue(*this); }

namespace {

// The upper-left 3x3 part of a matrix, and the way back with a translation.
QbMat3d linearPart(const SbMatrixd& a) {
  QbMat3d r;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      r[i][j] = a.m[i][j];
  return r;
}

void setAffine(SbMatrixd& out, const QbMat3d& a, const double t[3]) {
  for (int i = 0; i < 3; i++) {
    for (int j = 0; j < 3; j++)
      out.m[i][j] = a[i][j];
    out.m[i][3] = 0.0;
  }
  for (int j = 0; j < 3; j++)
    out.m[3][j] = t[j];
  out.m[3][3] = 1.0;
}

double maxAbs(const QbMat3d& a) {
  double r = 0.0;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      r = std::max(r, std::fabs(a[i][j]));
  return r;
}

double frobenius(const QbMat3d& a) {
  double r = 0.0;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      r += a[i][j] * a[i][j];
  return std::sqrt(r);
}

// Orthogonal factor U of the polar decomposition a = P U (P symmetric), by the
// scaled Newton iteration U <- (g U + U^-T / g) / 2, which converges
// quadratically. det(U) has the sign of det(a). a must be regular.
QbMat3d orthogonalPolarFactor(const QbMat3d& a) {
  QbMat3d u = a;
  bool scaled = true;
  for (int iter = 0; iter < 100; iter++) {
    QbMat3d invT = u.inverse().transpose();
    double g = 1.0;
    if (scaled) {
      double nu = frobenius(u), ni = frobenius(invT);
      if (nu > 0.0 && ni > 0.0)
        g = std::sqrt(ni / nu);
    }
    QbMat3d next = (u * g + invT * (1.0 / g)) * 0.5;
    double change = maxAbs(next - u);
    u = next;
    // Near convergence the unscaled step is the better one.
    if (change < 1e-3)
      scaled = false;
    if (change <= 1e-15)
      break;
  }
  return u;
}

// Eigen-decomposition p = V diag(s) V^T of a symmetric matrix with V a proper
// rotation. The columns are arranged so that V is as close to the identity as
// a permutation and signs allow: column i is the eigenvector most aligned with
// coordinate axis i, pointing along it. So an axis-aligned scaling comes back
// with its factors in their own order and no scale orientation.
void symmetricEigen(const QbMat3d& p, QbMat3d& v, double s[3]) {
  double values[3];
  QbMat3d vec;
  p.eigenSystem(values, vec);
  static const int perms[6][3] = {{0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}};
  int best = 0;
  double bestScore = -1.0;
  for (int k = 0; k < 6; k++) {
    // perms[k][i]: the eigenvector placed in column i.
    double score = 0.0;
    for (int i = 0; i < 3; i++)
      score += std::fabs(vec[i][perms[k][i]]);
    if (score > bestScore + 1e-12) {
      bestScore = score;
      best = k;
    }
  }
  for (int i = 0; i < 3; i++) {
    int c = perms[best][i];
    double sign = vec[i][c] < 0.0 ? -1.0 : 1.0;
    for (int r = 0; r < 3; r++)
      v[r][i] = sign * vec[r][c];
    s[i] = values[c];
  }
  if (v.det() < 0.0) {
    int weakest = 0;
    for (int i = 1; i < 3; i++)
      if (std::fabs(v[i][i]) < std::fabs(v[weakest][weakest]))
        weakest = i;
    for (int r = 0; r < 3; r++)
      v[r][weakest] = -v[r][weakest];
  }
}

} // namespace

void SbMatrixd::setTransform(const SbVec3d& translation, const SbRotationd& rotation,
                             const SbVec3d& scaleFactor, const SbRotationd& scaleOrientation,
                             const SbVec3d& center) {
  SbMatrixd rm, som;
  rotation.getValue(rm);
  scaleOrientation.getValue(som);
  QbMat3d r = linearPart(rm), so = linearPart(som);
  QbMat3d s;
  s[0][0] = scaleFactor.x;
  s[1][1] = scaleFactor.y;
  s[2][2] = scaleFactor.z;
  // Linear part SO^-1 * S * SO * R; the inverse of a rotation is its transpose.
  QbMat3d a = so.transpose() * s * so * r;
  // p' = ((p - c) * A + c) + t
  double t[3];
  for (int j = 0; j < 3; j++)
    t[j] = translation[j] + center[j] -
           (center[0] * a[0][j] + center[1] * a[1][j] + center[2] * a[2][j]);
  setAffine(*this, a, t);
}

void SbMatrixd::setTransform(const SbVec3d& translation, const SbRotationd& rotation,
                             const SbVec3d& scaleFactor, const SbRotationd& scaleOrientation) {
  setTransform(translation, rotation, scaleFactor, scaleOrientation, SbVec3d(0.0, 0.0, 0.0));
}

void SbMatrixd::setTransform(const SbVec3d& translation, const SbRotationd& rotation,
                             const SbVec3d& scaleFactor) {
  setTransform(translation, rotation, scaleFactor, SbRotationd(), SbVec3d(0.0, 0.0, 0.0));
}

bool SbMatrixd::getTransform(SbVec3d& translation, SbRotationd& rotation, SbVec3d& scaleFactor,
                             SbRotationd& scaleOrientation, const SbVec3d& center) const {
  rotation = SbRotationd();
  scaleOrientation = SbRotationd();
  // A projective matrix has no such decomposition; a homogeneous factor in
  // m[3][3] alone is divided out.
  if (m[0][3] != 0.0 || m[1][3] != 0.0 || m[2][3] != 0.0 || m[3][3] == 0.0 ||
      !std::isfinite(m[3][3])) {
    translation.setValue(m[3][0], m[3][1], m[3][2]);
    scaleFactor.setValue(1.0, 1.0, 1.0);
    return false;
  }
  const double w = m[3][3];
  QbMat3d a = linearPart(*this) * (1.0 / w);
  double trans[3] = {m[3][0] / w, m[3][1] / w, m[3][2] / w};
  // t = trans + c * A - c, from p' = ((p - c) * A + c) + t.
  for (int j = 0; j < 3; j++)
    translation[j] =
        trans[j] + (center[0] * a[0][j] + center[1] * a[1][j] + center[2] * a[2][j]) - center[j];

  double d = a.det();
  double n = maxAbs(a);
  if (!std::isfinite(d) || !(std::fabs(d) > 1e-15 * n * n * n)) {
    // Singular: report the lengths of the rows as the scale, nothing more.
    for (int i = 0; i < 3; i++)
      scaleFactor[i] = a.getRow(i).length();
    return false;
  }

  // A = P * Q with P symmetric and Q orthogonal, P = SO^-1 * S * SO.
  QbMat3d q = orthogonalPolarFactor(a);
  QbMat3d p = a * q.transpose();
  p = (p + p.transpose()) * 0.5;
  QbMat3d v;
  double s[3];
  symmetricEigen(p, v, s);

  if (q.det() < 0.0) {
    // A reflection. With F_k = I - 2 v_k v_k^T (v_k column k of V), A equals
    // (P F_k) (F_k Q), where F_k Q is a rotation and P F_k has the same
    // eigenvectors with the sign of scale k turned. Of the three choices the
    // one with the smallest rotation is taken, so that a mirrored axis of an
    // otherwise unrotated matrix shows as that axis's negative scale.
    int bestK = 0;
    double bestTrace = -1e300;
    QbMat3d bestQ;
    for (int k = 0; k < 3; k++) {
      QbVec3d vk = v.getColumn(k);
      QbMat3d f = QbMat3d::identity();
      for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++)
          f[i][j] -= 2.0 * vk[i] * vk[j];
      QbMat3d fq = f * q;
      double tr = fq[0][0] + fq[1][1] + fq[2][2];
      if (tr > bestTrace + 1e-12) {
        bestTrace = tr;
        bestK = k;
        bestQ = fq;
      }
    }
    q = bestQ;
    s[bestK] = -s[bestK];
  }

  scaleFactor.setValue(s[0], s[1], s[2]);
  // SO^-1 = V, so the matrix of SO is V^T.
  QbMat3d so = v.transpose();
  const double zero[3] = {0.0, 0.0, 0.0};
  SbMatrixd rm, som;
  setAffine(rm, q, zero);
  setAffine(som, so, zero);
  rotation.setValue(rm);
  scaleOrientation.setValue(som);
  return true;
}

bool SbMatrixd::getTransform(SbVec3d& translation, SbRotationd& rotation, SbVec3d& scaleFactor,
                             SbRotationd& scaleOrientation) const {
  return getTransform(translation, rotation, scaleFactor, scaleOrientation, SbVec3d(0.0, 0.0, 0.0));
}

double SbMatrixd::det3() const { return linearPart(*this).det(); }

double SbMatrixd::det4() const {
  // Expansion by the 2x2 minors of the first two and the last two rows.
  const double s0 = m[0][0] * m[1][1] - m[1][0] * m[0][1];
  const double s1 = m[0][0] * m[1][2] - m[1][0] * m[0][2];
  const double s2 = m[0][0] * m[1][3] - m[1][0] * m[0][3];
  const double s3 = m[0][1] * m[1][2] - m[1][1] * m[0][2];
  const double s4 = m[0][1] * m[1][3] - m[1][1] * m[0][3];
  const double s5 = m[0][2] * m[1][3] - m[1][2] * m[0][3];
  const double c5 = m[2][2] * m[3][3] - m[3][2] * m[2][3];
  const double c4 = m[2][1] * m[3][3] - m[3][1] * m[2][3];
  const double c3 = m[2][1] * m[3][2] - m[3][1] * m[2][2];
  const double c2 = m[2][0] * m[3][3] - m[3][0] * m[2][3];
  const double c1 = m[2][0] * m[3][2] - m[3][0] * m[2][2];
  const double c0 = m[2][0] * m[3][1] - m[3][0] * m[2][1];
  return s0 * c5 - s1 * c4 + s2 * c3 + s3 * c2 - s4 * c1 + s5 * c0;
}

SbMatrixd SbMatrixd::inverse() const {
  if (m[0][3] == 0.0 && m[1][3] == 0.0 && m[2][3] == 0.0 && m[3][3] == 1.0) {
    // Affine: invert the linear part and carry the translation back,
    // p = (p' - t) * A^-1.
    QbMat3d a = linearPart(*this);
    if (a.det() == 0.0)
      return *this;
    QbMat3d ai = a.inverse();
    double t[3];
    for (int j = 0; j < 3; j++)
      t[j] = -(m[3][0] * ai[0][j] + m[3][1] * ai[1][j] + m[3][2] * ai[2][j]);
    SbMatrixd r;
    setAffine(r, ai, t);
    return r;
  }
  // General case: Gauss-Jordan elimination with partial pivoting.
  double a[4][4], b[4][4];
  getValue(a);
  SbMatrixd::identity().getValue(b);
  for (int c = 0; c < 4; c++) {
    int piv = c;
    for (int r = c + 1; r < 4; r++)
      if (std::fabs(a[r][c]) > std::fabs(a[piv][c]))
        piv = r;
    if (a[piv][c] == 0.0)
      return *this;
    if (piv != c)
      for (int j = 0; j < 4; j++) {
        std::swap(a[c][j], a[piv][j]);
        std::swap(b[c][j], b[piv][j]);
      }
    const double inv = 1.0 / a[c][c];
    for (int j = 0; j < 4; j++) {
      a[c][j] *= inv;
      b[c][j] *= inv;
    }
    for (int r = 0; r < 4; r++) {
      if (r == c || a[r][c] == 0.0)
        continue;
      const double f = a[r][c];
      for (int j = 0; j < 4; j++) {
        a[r][j] -= f * a[c][j];
        b[r][j] -= f * b[c][j];
      }
    }
  }
  return SbMatrixd(b);
}

SbMatrixd SbMatrixd::transpose() const {
  SbMatrixd r;
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      r.m[i][j] = m[j][i];
  return r;
}

SbMatrixd& SbMatrixd::multRight(const SbMatrixd& b) {
  double r[4][4];
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      r[i][j] =
          m[i][0] * b.m[0][j] + m[i][1] * b.m[1][j] + m[i][2] * b.m[2][j] + m[i][3] * b.m[3][j];
  setValue(r);
  return *this;
}

SbMatrixd& SbMatrixd::multLeft(const SbMatrixd& b) {
  double r[4][4];
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      r[i][j] =
          b.m[i][0] * m[0][j] + b.m[i][1] * m[1][j] + b.m[i][2] * m[2][j] + b.m[i][3] * m[3][j];
  setValue(r);
  return *this;
}

void SbMatrixd::multVecMatrix(const SbVec3d& src, SbVec3d& dst) const {
  double r[4];
  for (int j = 0; j < 4; j++)
    r[j] = src.x * m[0][j] + src.y * m[1][j] + src.z * m[2][j] + m[3][j];
  // A point at infinity (w = 0) is left undivided rather than made infinite.
  if (r[3] != 0.0 && r[3] != 1.0) {
    const double inv = 1.0 / r[3];
    dst.setValue(r[0] * inv, r[1] * inv, r[2] * inv);
  } else {
    dst.setValue(r[0], r[1], r[2]);
  }
}

void SbMatrixd::multVecMatrix(const SbVec3f& src, SbVec3f& dst) const {
  SbVec3d d;
  multVecMatrix(SbVec3d(src.x, src.y, src.z), d);
  dst.setValue(float(d.x), float(d.y), float(d.z));
}

void SbMatrixd::multDirMatrix(const SbVec3d& src, SbVec3d& dst) const {
  dst.setValue(src.x * m[0][0] + src.y * m[1][0] + src.z * m[2][0],
               src.x * m[0][1] + src.y * m[1][1] + src.z * m[2][1],
               src.x * m[0][2] + src.y * m[1][2] + src.z * m[2][2]);
}

void SbMatrixd::multDirMatrix(const SbVec3f& src, SbVec3f& dst) const {
  SbVec3d d;
  multDirMatrix(SbVec3d(src.x, src.y, src.z), d);
  dst.setValue(float(d.x), float(d.y), float(d.z));
}
