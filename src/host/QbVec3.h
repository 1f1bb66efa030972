#pragma once
// Small 3-vector of the utility library; QbVec3i, QbVec3f and QbVec3d are its
// instances.
#include <cmath>

template <class T> class QbVec3 {
public:
  T x = 0, y = 0, z = 0;

  QbVec3() = default;
  QbVec3(T a, T b, T c) : x(a), y(b), z(c) {}
  explicit QbVec3(const T* v) : x(v[0]), y(v[1]), z(v[2]) {}
  template <class U> explicit QbVec3(const QbVec3<U>& o) : x(T(o.x)), y(T(o.y)), z(T(o.z)) {}

  T& operator[](int i) { return i == 0 ? x : (i == 1 ? y : z); }
  const T& operator[](int i) const { return i == 0 ? x : (i == 1 ? y : z); }
  T* getValue() { return &x; }
  const T* getValue() const { return &x; }
  void setValue(T a, T b, T c) { x = a, y = b, z = c; }

  QbVec3 operator+(const QbVec3& o) const { return QbVec3(x + o.x, y + o.y, z + o.z); }
  QbVec3 operator-(const QbVec3& o) const { return QbVec3(x - o.x, y - o.y, z - o.z); }
  QbVec3 operator-() const { return QbVec3(-x, -y, -z); }
  QbVec3 operator*(T s) const { return QbVec3(x * s, y * s, z * s); }
  QbVec3 operator/(T s) const { return QbVec3(x / s, y / s, z / s); }
  QbVec3& operator+=(const QbVec3& o) { return x += o.x, y += o.y, z += o.z, *this; }
  QbVec3& operator-=(const QbVec3& o) { return x -= o.x, y -= o.y, z -= o.z, *this; }
  QbVec3& operator*=(T s) { return x *= s, y *= s, z *= s, *this; }
  QbVec3& operator/=(T s) { return x /= s, y /= s, z /= s, *this; }
  bool operator==(const QbVec3& o) const { return x == o.x && y == o.y && z == o.z; }
  bool operator!=(const QbVec3& o) const { return !(*this == o); }

  T dot(const QbVec3& o) const { return x * o.x + y * o.y + z * o.z; }
  QbVec3 cross(const QbVec3& o) const {
    return QbVec3(y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x);
  }
  double length() const { return std::sqrt(double(x) * x + double(y) * y + double(z) * z); }
  // Scales to unit length and returns the former length; a zero vector stays.
  double normalize() {
    double l = length();
    if (l > 0) {
      x = T(x / l), y = T(y / l), z = T(z / l);
    }
    return l;
  }
};

template <class T> inline QbVec3<T> operator*(T s, const QbVec3<T>& v) { return v * s; }
