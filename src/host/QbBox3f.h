#pragma once
// Axis-aligned box of six floats: xmin, xmax, ymin, ymax, zmin, zmax.
#include <algorithm>
#include <cfloat>

class QbBox3f {
public:
  float b[6];

  // An empty box: minimum above maximum on every axis.
  QbBox3f() { makeEmpty(); }
  QbBox3f(float xmin, float xmax, float ymin, float ymax, float zmin, float zmax)
      : b{xmin, xmax, ymin, ymax, zmin, zmax} {}
  explicit QbBox3f(const float* v) { std::copy(v, v + 6, b); }

  float& operator[](int i) { return b[i]; }
  const float& operator[](int i) const { return b[i]; }
  float* getValue() { return b; }
  const float* getValue() const { return b; }

  void makeEmpty() {
    for (int a = 0; a < 3; a++) {
      b[2 * a] = FLT_MAX;
      b[2 * a + 1] = -FLT_MAX;
    }
  }
  bool isEmpty() const { return b[0] > b[1] || b[2] > b[3] || b[4] > b[5]; }
  void extendBy(float x, float y, float z) {
    const float p[3] = {x, y, z};
    for (int a = 0; a < 3; a++) {
      b[2 * a] = std::min(b[2 * a], p[a]);
      b[2 * a + 1] = std::max(b[2 * a + 1], p[a]);
    }
  }
  void extendBy(const QbBox3f& o) {
    if (o.isEmpty())
      return;
    extendBy(o.b[0], o.b[2], o.b[4]);
    extendBy(o.b[1], o.b[3], o.b[5]);
  }
  // Bounds included.
  bool contains(float x, float y, float z) const {
    return x >= b[0] && x <= b[1] && y >= b[2] && y <= b[3] && z >= b[4] && z <= b[5];
  }
  float size(int axis) const { return b[2 * axis + 1] - b[2 * axis]; }
  float center(int axis) const { return 0.5f * (b[2 * axis] + b[2 * axis + 1]); }
  bool operator==(const QbBox3f& o) const { return std::equal(b, b + 6, o.b); }
};
