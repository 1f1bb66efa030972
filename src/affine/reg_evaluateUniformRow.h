#pragma once
// The row walk shared by the uniform-grid evaluators: the interval of a row's
// voxels that land inside the model, found with a few divisions per row
// instead of a test per voxel, the trilinear sample of the model from its raw
// voxels, and the walk over one reference slice that feeds the inside voxels
// to a metric-specific step in blocks.
//
// Positions are model voxel coordinates (voxel i at coordinate i) in double
// precision. The model counts as reaching half a voxel beyond its outer voxel
// centres; there the sample replicates the border.
#include "QbVec3i.h"
#include "SbMatrixd.h"
#include "SbVec3d.h"
#include "ZrCoord3.h"
#include "reg_evaluateUniformSimd.h"

#include <cstddef>
#include <cstdint>

// A step count t for the interval, clamped so that its truncation stays in
// the range of int. Rows are far shorter than the clamp, so a clamped value
// decides the same as the true one; NaN ends up below every row.
inline double reg_evaluateUniformClampSteps(double t) {
  return t > 1e9 ? 1e9 : (t > -1e9 ? t : -1e9);
}

// Voxels first..last of the row starting at v (step `step` per voxel, nx
// voxels) lie inside the bounds `clip` (lo, hi per axis). `flags` per axis: 1
// the row runs upwards, -1 downwards, 2 it stays at one coordinate, 0 the axis
// does not clip. Returns false when no voxel is inside.
//
// A step count that lands exactly on a bound skips the voxel on entry and
// keeps it on exit. The asymmetry is deliberate and kept: the set of counted
// voxels, and with it every result, depends on it.
inline bool reg_evaluateUniformRowInterval(const SbVec3d& v, const QbVec3i& flags,
                                           const SbVec3d& step, const double* clip, int nx,
                                           int& first, int& last) {
  first = 0;
  last = nx - 1;
  const double pos[3] = {v.x, v.y, v.z};
  const double dir[3] = {step.x, step.y, step.z};
  const int flag[3] = {flags.x, flags.y, flags.z};
  for (int a = 0; a < 3; a++) {
    const double lo = clip[2 * a], hi = clip[2 * a + 1];
    if (flag[a] == 1 || flag[a] == -1) {
      const double enter = flag[a] == 1 ? lo : hi;
      const double leave = flag[a] == 1 ? hi : lo;
      double t = reg_evaluateUniformClampSteps((enter - pos[a]) / dir[a]);
      int f = (int)t + (t > 0 ? 1 : 0);
      if (f > first)
        first = f;
      t = reg_evaluateUniformClampSteps((leave - pos[a]) / dir[a]);
      int l = (int)t - (t < 0 ? 1 : 0);
      if (l < last)
        last = l;
    } else if (flag[a] == 2) {
      if (pos[a] < lo || pos[a] > hi)
        return false;
    }
  }
  return last >= first;
}

inline double reg_evaluateUniformLerp(double a, double b, double t) { return (b - a) * t + a; }

// The eight voxels of `model` (x fastest, dimensions nx, ny, nz) around the
// voxel coordinates (x, y, z), which the row interval keeps within half a
// voxel of the lattice: c[0] at the cell's low corner, then its neighbours
// along x, y, x + y, z, ... (bit 0 of the index x, bit 1 y, bit 2 z), as
// doubles; f[0..2] the fractions of (x, y, z) in the cell. Coordinates
// clamp to [0, n - 1], as in the AVX2 sampler, and at the top the neighbour
// offset falls to 0, so the border voxel is replicated without a test; the
// clamp changes no sample (the two voxels it weighs are equal), only how a
// partial volume splits a border voxel's weight.
template <class ModelT>
inline void reg_evaluateUniformCorners(const ModelT* model, double x, double y, double z, int nx,
                                       int ny, int nz, double* c, double* f) {
  x = x > 0.0 ? (x < nx - 1 ? x : nx - 1) : 0.0;
  y = y > 0.0 ? (y < ny - 1 ? y : ny - 1) : 0.0;
  z = z > 0.0 ? (z < nz - 1 ? z : nz - 1) : 0.0;
  const int ix = (int)x, iy = (int)y, iz = (int)z;
  f[0] = x - ix;
  f[1] = y - iy;
  f[2] = z - iz;
  const size_t sx = ix + 1 < nx ? 1 : 0;
  const size_t sy = iy + 1 < ny ? (size_t)nx : 0;
  const size_t sz = iz + 1 < nz ? (size_t)nx * ny : 0;
  const ModelT* p = model + ((size_t)iz * ny + iy) * nx + ix;
  c[0] = (double)p[0];
  c[1] = (double)p[sx];
  c[2] = (double)p[sy];
  c[3] = (double)p[sy + sx];
  c[4] = (double)p[sz];
  c[5] = (double)p[sz + sx];
  c[6] = (double)p[sz + sy];
  c[7] = (double)p[sz + sy + sx];
}

// The trilinear interpolation of the eight voxels c at the fractions f, as
// reg_evaluateUniformCorners gives them.
inline double reg_evaluateUniformTrilinear(const double* c, const double* f) {
  const double e0 = reg_evaluateUniformLerp(c[0], c[1], f[0]);
  const double e1 = reg_evaluateUniformLerp(c[4], c[5], f[0]);
  const double e4 = reg_evaluateUniformLerp(e0, reg_evaluateUniformLerp(c[2], c[3], f[0]), f[1]);
  return reg_evaluateUniformLerp(
      e4, reg_evaluateUniformLerp(e1, reg_evaluateUniformLerp(c[6], c[7], f[0]), f[1]), f[2]);
}

// Trilinear sample of `model` at the voxel coordinates (x, y, z).
template <class ModelT>
inline double reg_evaluateUniformSample(const ModelT* model, double x, double y, double z, int nx,
                                        int ny, int nz) {
  double c[8], f[3];
  reg_evaluateUniformCorners(model, x, y, z, nx, ny, nz, c, f);
  return reg_evaluateUniformTrilinear(c, f);
}

// The partial volume of one sample over bins of one value each: its eight
// voxels c and their trilinear weights w (as reg_evaluateUniformSlice's
// corners give them), and the bins' low end and top index. Where the voxels
// fall into at most two bins, returns true with the bin of voxel 0 (j0) and
// the other one (that of the first voxel in another bin, j0 where there is
// none) and their summed weights; the AVX2 form gives the same to the last
// bit.
inline bool reg_evaluateUniformLabelPair(const double* c, const double* w, double low, double top,
                                         int& j0, int& j1, double& w0, double& w1) {
  double t[8];
  for (int u = 0; u < 8; u++) {
    const double v = c[u] - low > 0.0 ? c[u] - low : 0.0;
    t[u] = v < top ? v : top;
  }
  double second = t[0];
  for (int u = 7; u > 0; u--)
    second = t[u] != t[0] ? t[u] : second;
  double a[4], b[4];
  bool two = true;
  for (int l = 0; l < 4; l++) {
    a[l] = (t[l] == t[0] ? w[l] : 0.0) + (t[l + 4] == t[0] ? w[l + 4] : 0.0);
    b[l] = (t[l] == second ? w[l] : 0.0) + (t[l + 4] == second ? w[l + 4] : 0.0);
    two = two && (t[l] == t[0] || t[l] == second) && (t[l + 4] == t[0] || t[l + 4] == second);
  }
  if (!two)
    return false;
  w0 = (a[0] + a[1]) + (a[2] + a[3]);
  w1 = (b[0] + b[1]) + (b[2] + b[3]);
  j0 = (int)t[0];
  j1 = (int)second;
  return true;
}

// Voxels a row hands on at once. Reference values and samples of a block lie
// in small arrays, so that the samples are independent of each other and the
// metric step after them has only its own accumulators to wait for.
constexpr int kUniformBlock = 64;
static_assert(kUniformBlock == 64, "the AVX2 sampler lays out 64 samples a block");

// Walks slice k of the reference `ref` (dimensions refDims, x fastest). Each
// row start v is mapped through `matrix` into model voxel coordinates; voxel
// i of the row lies at v + i * step. The inside voxels of a row go to
// `consume(r, value, n)` in blocks of at most kUniformBlock: the reference's
// own voxels and the model samples as doubles. `total` rises by the row length
// whatever lies inside. `consume` is inlined: the metric step costs no call.
//
// With kPartialVolume, `consume(r, value, pure, n, corners)` gets besides
// the samples whether the eight voxels of each are equal (pure[m]), and
// `corners(m, c, w)` gives the eight voxels c[0..7] of sample m (x fastest)
// as doubles and their trilinear weights w[0..7], kept from the sampling.
template <class RefT, class ModelT, class Consume, bool kPartialVolume = false>
inline void reg_evaluateUniformSlice(const RefT* ref, const ModelT* model, const QbVec3i& refDims,
                                     const int* modelDims, const ZrCoord3* coords,
                                     const SbMatrixd& matrix, const QbVec3i& flags,
                                     const SbVec3d& step, const double* clip, int k, int64_t& total,
                                     Consume&& consume) {
  const int nx = refDims.x, ny = refDims.y;
  const int mx = modelDims[0], my = modelDims[1], mz = modelDims[2];
  const RefT* r = ref + (size_t)k * nx * ny;
  double value[kUniformBlock];
  bool pure[kUniformBlock];
  // By partial volume: the eight voxels of each sample, voxel u of sample m
  // at u * kUniformBlock + m, and its fractions along x, y and z, likewise.
  alignas(32) double corner[kPartialVolume ? 8 * kUniformBlock : 1];
  alignas(32) double frac3[kPartialVolume ? 3 * kUniformBlock : 1];
  (void)pure;
  (void)corner;
  (void)frac3;
  const bool simd = reg_evaluateUniformSimd();
  (void)simd;
  for (int j = 0; j < ny; j++) {
    float p[3];
    coords->pos(0, j, k, p);
    SbVec3d v;
    matrix.multVecMatrix(SbVec3d(p[0], p[1], p[2]), v);
    int first, last;
    if (!reg_evaluateUniformRowInterval(v, flags, step, clip, nx, first, last)) {
      last = -1;
    } else {
      r += first;
      total += first;
      for (int i = first; i <= last;) {
        const int n = last - i + 1 < kUniformBlock ? last - i + 1 : kUniformBlock;
        // The eight voxels of sample m and their trilinear weights; pair()
        // is reg_evaluateUniformLabelPair on them.
        struct Corners {
          const double* corner;
          const double* frac3;
          bool simd;
          void operator()(int m, double* c, double* w) const {
            const double* f = frac3 + m;
            const double wx[2] = {1.0 - f[0], f[0]};
            const double wy[2] = {1.0 - f[kUniformBlock], f[kUniformBlock]};
            const double wz[2] = {1.0 - f[2 * kUniformBlock], f[2 * kUniformBlock]};
            for (int u = 0; u < 8; u++) {
              c[u] = corner[u * kUniformBlock + m];
              w[u] = wx[u & 1] * wy[(u >> 1) & 1] * wz[u >> 2];
            }
          }
          bool pair(int m, double low, double top, int& j0, int& j1, double& w0, double& w1) const {
#ifdef ZR_UNIFORM_AVX2
            if (simd)
              return reg_evaluateUniformLabelPairAvx2(corner, frac3, m, low, top, j0, j1, w0, w1);
#endif
            double c[8], w[8];
            (*this)(m, c, w);
            return reg_evaluateUniformLabelPair(c, w, low, top, j0, j1, w0, w1);
          }
        } corners{corner, frac3, simd};
        auto sample = [&](int m) {
          const double t = (double)(i + m);
          if constexpr (kPartialVolume) {
            double c[8], f[3];
            reg_evaluateUniformCorners(model, v.x + t * step.x, v.y + t * step.y, v.z + t * step.z,
                                       mx, my, mz, c, f);
            value[m] = reg_evaluateUniformTrilinear(c, f);
            bool same = true;
            for (int u = 0; u < 8; u++) {
              same = same && c[u] == c[0];
              corner[u * kUniformBlock + m] = c[u];
            }
            for (int a = 0; a < 3; a++)
              frac3[a * kUniformBlock + m] = f[a];
            pure[m] = same;
          } else {
            value[m] = reg_evaluateUniformSample(model, v.x + t * step.x, v.y + t * step.y,
                                                 v.z + t * step.z, mx, my, mz);
          }
        };
#ifdef ZR_UNIFORM_AVX2
        if (simd)
          reg_evaluateUniformSampleBlockAvx2(model, mx, my, mz, v, step, i, n, value, sample,
                                             kPartialVolume ? pure : nullptr, corner, frac3);
        else
#endif
          for (int m = 0; m < n; m++)
            sample(m);
        if constexpr (kPartialVolume)
          consume(r, (const double*)value, (const bool*)pure, n, corners);
        else
          consume(r, (const double*)value, n);
        r += n;
        i += n;
        total += n;
      }
    }
    // The rest of the row lies outside.
    total += nx - 1 - last;
    r += nx - 1 - last;
  }
}
