#pragma once
// Still voxels of the finite-difference gradient: reference voxels whose
// model sample no probe of the gradient can change. Where the model holds one
// value over every cell a probe may move the voxel into, the probe adds back
// the very sample that the taking out removed, so the gradient's walks skip
// such voxels in both halves; the clones end as before up to the rounding of
// that pair of opposite additions. Background of constant grey value (0
// around a skull-stripped brain) makes up most of a head-sized volume.
#include "QbVec3f.h"
#include "RegMetric.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <type_traits>

// Largest move of a probe, in model voxels along its axis, for which the
// still map holds: a move under one voxel changes the clamped cell by at most
// one, and the cells [c - 1, c + 1] around a voxel's cell c have their corners
// among the voxels [c - 1, c + 2]. The margin covers the single-precision
// rounding of the new position.
const double kRegElasticStillReach = 0.5;

template <class T> inline bool reg_elasticFinite(T value) {
  if constexpr (std::is_floating_point<T>::value)
    return std::isfinite(value);
  return true;
}

// blocks[i] = 1 where the model holds one finite value over the voxels
// [i - 1, i + 2] on every axis, clamped to the lattice; `scratch` holds as
// many bytes. Three passes, one per axis: a voxel's window is constant when
// its consecutive pairs along the axis are equal and, for the second and third
// axis, the windows of the earlier axes are constant at every step.
template <class T>
inline void reg_evaluateElasticConstantBlocks(const T* model, const int* dims, uint8_t* blocks,
                                              uint8_t* scratch) {
  const int64_t n[3] = {dims[0], dims[1], dims[2]};
  const int64_t stride[3] = {1, n[0], n[0] * n[1]};
  // Pass a reads `in` (null for the first) and writes `out`.
  auto pass = [&](int a, const uint8_t* in, uint8_t* out) {
    const int64_t s = stride[a], len = n[a];
    size_t v = 0;
    int64_t at[3];
    for (at[2] = 0; at[2] < n[2]; at[2]++)
      for (at[1] = 0; at[1] < n[1]; at[1]++)
        for (at[0] = 0; at[0] < n[0]; at[0]++, v++) {
          const int64_t i = at[a], last = std::min(i + 2, len - 1);
          bool same = reg_elasticFinite(model[v]);
          for (int64_t j = std::max<int64_t>(i - 1, 0); same && j <= last; j++) {
            const size_t w = v + (size_t)((j - i) * s);
            if (in && !in[w])
              same = false;
            else if (j < last && !(model[w] == model[w + (size_t)s]))
              same = false;
          }
          out[v] = same ? 1 : 0;
        }
  };
  pass(0, nullptr, blocks);
  pass(1, blocks, scratch);
  pass(2, scratch, blocks);
}

// still[v] = 1 for the reference voxels (grid positions `grid`, cached
// samples `cached`) whose cell in the model lies in a constant block and
// whose cached sample is that block's value. `m` holds the model's sampling
// geometry.
template <class T>
inline void reg_evaluateElasticStillVoxels(const RegMetric& m, const T* model,
                                           const uint8_t* blocks, const QbVec3f* grid,
                                           const float* cached, size_t n, uint8_t* still) {
  const int64_t nx = m.dims[0], ny = m.dims[1];
  for (size_t v = 0; v < n; v++) {
    const QbVec3f& g = grid[v];
    if (!(std::isfinite(g.x) && std::isfinite(g.y) && std::isfinite(g.z))) {
      still[v] = 0;
      continue;
    }
    int c[3];
    float fr, p;
    for (int a = 0; a < 3; a++)
      m.locateGrey(a, g[a], c[a], fr, p);
    const int64_t i = ((int64_t)c[2] * ny + c[1]) * nx + c[0];
    still[v] = blocks[i] && cached[v] == (float)model[i] ? 1 : 0;
  }
}

// Calls run(a, b) for every run [a, b] of columns in [xa, xb] whose voxels are
// not still (`still` points at the row's column 0; null: one run).
template <class Run>
inline void reg_forElasticLiveRuns(const uint8_t* still, int xa, int xb, Run&& run) {
  if (!still) {
    run(xa, xb);
    return;
  }
  int x = xa;
  while (x <= xb) {
    while (x <= xb && still[x])
      x++;
    int e = x;
    while (e <= xb && !still[e])
      e++;
    if (e > x)
      run(x, e - 1);
    x = e;
  }
}
