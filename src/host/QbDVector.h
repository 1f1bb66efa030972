#pragma once
// Numeric vector of the utility library.
#include <algorithm>
#include <cassert>
#include <cmath>
#include <vector>

template <class T> class QbDVector {
public:
  QbDVector() = default;
  explicit QbDVector(int n, T value = T()) : v(n < 0 ? 0 : n, value) {}

  int size() const { return (int)v.size(); }
  // New elements are 0; existing ones keep their values.
  void resize(int n) { v.resize(n < 0 ? 0 : n, T()); }
  T& operator[](int i) {
    assert(i >= 0 && i < size());
    return v[i];
  }
  const T& operator[](int i) const {
    assert(i >= 0 && i < size());
    return v[i];
  }
  T* data() { return v.data(); }
  const T* data() const { return v.data(); }
  void fill(T value) { std::fill(v.begin(), v.end(), value); }
  bool operator==(const QbDVector& o) const { return v == o.v; }
  bool operator!=(const QbDVector& o) const { return v != o.v; }

  // Dot product over the common length.
  T dot(const QbDVector& o) const {
    T s = T();
    int n = std::min(size(), o.size());
    for (int i = 0; i < n; i++)
      s += v[i] * o.v[i];
    return s;
  }
  T sum() const {
    T s = T();
    for (const T& x : v)
      s += x;
    return s;
  }
  T sumOfSquares() const { return dot(*this); }
  double norm() const { return std::sqrt((double)sumOfSquares()); }
  T maxAbs() const {
    T m = T();
    for (const T& x : v)
      m = std::max(m, (T)std::abs(x));
    return m;
  }
  QbDVector& operator*=(T s) {
    for (T& x : v)
      x *= s;
    return *this;
  }
  QbDVector& operator+=(const QbDVector& o) {
    assert(o.size() == size());
    for (int i = 0; i < size(); i++)
      v[i] += o.v[i];
    return *this;
  }
  QbDVector& operator-=(const QbDVector& o) {
    assert(o.size() == size());
    for (int i = 0; i < size(); i++)
      v[i] -= o.v[i];
    return *this;
  }
  // this += s * o
  void addScaled(const QbDVector& o, T s) {
    assert(o.size() == size());
    for (int i = 0; i < size(); i++)
      v[i] += s * o.v[i];
  }

private:
  std::vector<T> v;
};
