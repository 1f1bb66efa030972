#pragma once
// Scene-graph style 3-vector; SbVec3f and SbVec3d are its instances.
#include "QbVec3.h"

template <class T> class SbVec3 : public QbVec3<T> {
public:
  SbVec3() = default;
  SbVec3(T a, T b, T c) : QbVec3<T>(a, b, c) {}
  explicit SbVec3(const T* v) : QbVec3<T>(v) {}
  SbVec3(const QbVec3<T>& o) : QbVec3<T>(o) {}
  template <class U> explicit SbVec3(const QbVec3<U>& o) : QbVec3<T>(o) {}
  void getValue(T& a, T& b, T& c) const { a = this->x, b = this->y, c = this->z; }
  using QbVec3<T>::getValue;
};
