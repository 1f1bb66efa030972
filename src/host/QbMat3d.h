#pragma once
// 3x3 matrix of doubles in the usual column-vector sense: m[i][j] is row i,
// column j, and a matrix times a vector is M * v. Used for inertia tensors and
// their axes, with the axes stored as columns.
#include "QbVec3d.h"

class QbMat3d {
public:
  double m[3][3];

  // The zero matrix.
  QbMat3d();
  QbMat3d(double a00, double a01, double a02, double a10, double a11, double a12, double a20,
          double a21, double a22);
  explicit QbMat3d(const double v[3][3]);

  double* operator[](int i) { return m[i]; }
  const double* operator[](int i) const { return m[i]; }

  void makeZero();
  void makeIdentity();
  static QbMat3d identity();
  static QbMat3d zero() { return QbMat3d(); }

  QbVec3d getColumn(int j) const { return QbVec3d(m[0][j], m[1][j], m[2][j]); }
  void setColumn(int j, const QbVec3d& v);
  QbVec3d getRow(int i) const { return QbVec3d(m[i][0], m[i][1], m[i][2]); }
  void setRow(int i, const QbVec3d& v);

  bool operator==(const QbMat3d& o) const;
  bool operator!=(const QbMat3d& o) const { return !(*this == o); }

  QbMat3d operator*(const QbMat3d& b) const;
  QbMat3d& operator*=(const QbMat3d& b) { return *this = *this * b; }
  QbMat3d operator+(const QbMat3d& b) const;
  QbMat3d operator-(const QbMat3d& b) const;
  QbMat3d operator*(double s) const;
  // M * v
  QbVec3d operator*(const QbVec3d& v) const;
  // Row vector times matrix: v * M, which is transpose(M) * v.
  QbVec3d multLeft(const QbVec3d& v) const;

  QbMat3d transpose() const;
  double det() const;
  // Inverse by the adjugate. A singular matrix gives the zero matrix.
  QbMat3d inverse() const;

  // Eigenvalues and eigenvectors of the symmetric part of the matrix (only
  // the lower triangle is read): eigenvector i is column i of vectors, with
  // unit length, and belongs to values[i]. The values come in the order the
  // solver finds them, unsorted. Householder reduction to tridiagonal form,
  // then QL with implicit shifts.
  void eigenSystem(double values[3], QbMat3d& vectors) const;
};
