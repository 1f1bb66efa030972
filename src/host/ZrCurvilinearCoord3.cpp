#include "ZrCurvilinearCoord3.h"
#include "qbmalloc.h"
#include <algorithm>
#include <cstring>

namespace {
size_t nodeCount(const int d[3]) {
  return size_t(std::max(d[0], 0)) * size_t(std::max(d[1], 0)) * size_t(std::max(d[2], 0));
}
} // namespace

ZrCurvilinearCoord3::ZrCurvilinearCoord3(const int d[3], const float* p) : ZrCoord3(d) {
  const size_t bytes = 3 * nodeCount(d) * sizeof(float);
  positions = static_cast<float*>(qbmalloc(bytes));
  if (p)
    std::memcpy(positions, p, bytes);
  else
    std::memset(positions, 0, bytes);
}

ZrCurvilinearCoord3::~ZrCurvilinearCoord3() { qbfree(positions); }

void ZrCurvilinearCoord3::getBoundingBox(float b[6]) const {
  const size_t n = nodeCount(dims);
  if (n == 0) {
    for (int a = 0; a < 6; a++)
      b[a] = 0.0f;
    return;
  }
  for (int a = 0; a < 3; a++)
    b[2 * a] = b[2 * a + 1] = positions[a];
  for (size_t i = 1; i < n; i++) {
    const float* q = positions + 3 * i;
    for (int a = 0; a < 3; a++) {
      b[2 * a] = std::min(b[2 * a], q[a]);
      b[2 * a + 1] = std::max(b[2 * a + 1], q[a]);
    }
  }
}

void ZrCurvilinearCoord3::pos(int i, int j, int k, float p[3]) const {
  const float* q =
      positions + 3 * (size_t(i) + size_t(dims[0]) * (size_t(j) + size_t(dims[1]) * k));
  p[0] = q[0];
  p[1] = q[1];
  p[2] = q[2];
}

ZrCoord3* ZrCurvilinearCoord3::duplicate() const {
  return new ZrCurvilinearCoord3(dims, positions);
}

void ZrCurvilinearCoord3::resize(const int newDims[3]) {
  // A curvilinear grid has no rule for new positions: the nodes are put at
  // their index positions (i, j, k), the same start a new vector field gets.
  const size_t n = nodeCount(newDims);
  float* p = static_cast<float*>(qbmalloc(3 * n * sizeof(float)));
  size_t idx = 0;
  for (int k = 0; k < newDims[2]; k++)
    for (int j = 0; j < newDims[1]; j++)
      for (int i = 0; i < newDims[0]; i++, idx += 3) {
        p[idx] = float(i);
        p[idx + 1] = float(j);
        p[idx + 2] = float(k);
      }
  qbfree(positions);
  positions = p;
  ZrCoord3::resize(newDims);
}
