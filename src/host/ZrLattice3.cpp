#include "ZrLattice3.h"
#include "QbPrimType.h"
#include "qbmalloc.h"
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

namespace {
template <class T> T roundClamp(double v) {
  // Integer voxels: round to nearest in the current rounding mode, then clamp
  // to the type's range (NaN becomes 0).
  if (std::isnan(v))
    return T(0);
  const double lo = double(std::numeric_limits<T>::lowest());
  const double hi = double(std::numeric_limits<T>::max());
  const double r = std::nearbyint(v);
  if (r <= lo)
    return std::numeric_limits<T>::lowest();
  if (r >= hi)
    return std::numeric_limits<T>::max();
  return T(r);
}

template <class T> void storeValue(void* data, size_t at, double v) {
  if constexpr (std::is_floating_point<T>::value)
    static_cast<T*>(data)[at] = T(v);
  else
    static_cast<T*>(data)[at] = roundClamp<T>(v);
}
} // namespace

ZrLattice3::ZrLattice3(const int d[3], int nDataVar, int primType, ZrCoord3* c, void* dat)
    : nVar(nDataVar), type(primType), coordinates(c), data(dat) {
  for (int a = 0; a < 3; a++)
    dims[a] = std::max(d[a], 0);
  if (!data) {
    try {
      const size_t bytes = numBytes();
      data = qbmalloc(bytes);
      std::memset(data, 0, bytes);
    } catch (...) {
      // The coordinates were handed over: they go with the failed lattice.
      delete coordinates;
      coordinates = nullptr;
      throw;
    }
  }
}

ZrLattice3::ZrLattice3(const ZrLattice3& o)
    : nVar(o.nVar), type(o.type), coordinates(nullptr), data(nullptr) {
  for (int a = 0; a < 3; a++)
    dims[a] = o.dims[a];
  const size_t bytes = numBytes();
  data = qbmalloc(bytes);
  if (bytes)
    std::memcpy(data, o.data, bytes);
  try {
    coordinates = o.coordinates ? o.coordinates->duplicate() : nullptr;
  } catch (...) {
    qbfree(data);
    throw;
  }
}

ZrLattice3::~ZrLattice3() {
  delete coordinates;
  qbfree(data);
}

size_t ZrLattice3::numBytes() const { return numNodes() * size_t(nVar) * qbPrimTypeSize(type); }

void ZrLattice3::resize(const int newDims[3], int newPrimType) {
  const int t = newPrimType >= 0 ? newPrimType : type;
  int d[3];
  for (int a = 0; a < 3; a++)
    d[a] = std::max(newDims[a], 0);
  const size_t bytes = size_t(d[0]) * d[1] * d[2] * size_t(nVar) * qbPrimTypeSize(t);
  // The new buffer is had before anything changes, so that a failed
  // allocation leaves the lattice as it was.
  void* p = qbmalloc(bytes);
  std::memset(p, 0, bytes);
  if (coordinates)
    coordinates->resize(d);
  qbfree(data);
  data = p;
  type = t;
  for (int a = 0; a < 3; a++)
    dims[a] = d[a];
}

void ZrLattice3::setCoords(ZrCoord3* c) {
  if (c == coordinates)
    return;
  delete coordinates;
  coordinates = c;
}

float ZrLattice3::getValueAsFloat(size_t idx, int c) const {
  return float(getValueAsDouble(idx, c));
}

double ZrLattice3::getValueAsDouble(size_t idx, int c) const {
  const size_t at = idx * size_t(nVar) + size_t(c);
  double v = 0.0;
  qbDispatchVoxelType(type, [&](auto t) {
    using T = decltype(t);
    v = double(static_cast<const T*>(data)[at]);
  });
  return v;
}

void ZrLattice3::setValue(size_t idx, double v, int c) {
  const size_t at = idx * size_t(nVar) + size_t(c);
  qbDispatchVoxelType(type, [&](auto t) { storeValue<decltype(t)>(data, at, v); });
}

void ZrLattice3::computeRange(double& mn, double& mx, int c) const {
  mn = mx = 0.0;
  const size_t n = numNodes();
  if (n == 0)
    return;
  qbDispatchVoxelType(type, [&](auto t) {
    using T = decltype(t);
    const T* p = static_cast<const T*>(data) + c;
    const size_t stride = size_t(nVar);
    T lo = p[0], hi = p[0];
    for (size_t i = 1; i < n; i++) {
      const T v = p[i * stride];
      // Written so that NaN in float data is skipped rather than taken.
      if (v < lo)
        lo = v;
      if (v > hi)
        hi = v;
    }
    mn = double(lo);
    mx = double(hi);
  });
}
