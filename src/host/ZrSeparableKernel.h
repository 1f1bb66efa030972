#pragma once
// The kernel of the separable interpolating evaluators (cubic convolution,
// windowed sinc): per axis, AxisTaps gives the node offsets and weights around
// the location (Taps: n, off[], w[]); the value of each component is the
// weighted sum over their product, x innermost, as float or, with Native, in
// the field's voxel type (rounded and clamped). Outside the field every
// component is 0.
#include "ZrLatticeLocation3.h"
#include "ZrVoxelValue.h"

#include <cstddef>

template <class T, int NC, bool Native, class Taps,
          void (*AxisTaps)(int cell, float frac, int dim, ptrdiff_t stride, Taps& t)>
struct ZrSeparableKernel {
  static void run(const ZrLatticeLocation3& loc, const void* raw, void* result) {
    typedef ZrVoxelOut<T, Native> Out;
    typename Out::Type* out = static_cast<typename Out::Type*>(result);
    const int nc = NC > 0 ? NC : loc.nDataVar();
    if (!loc.inside) {
      for (int c = 0; c < nc; c++)
        out[c] = typename Out::Type(0);
      return;
    }
    const int* dims = loc.getDims();
    Taps tx, ty, tz;
    AxisTaps(loc.cell[0], loc.frac[0], dims[0], 1, tx);
    AxisTaps(loc.cell[1], loc.frac[1], dims[1], ptrdiff_t(dims[0]), ty);
    AxisTaps(loc.cell[2], loc.frac[2], dims[2], ptrdiff_t(dims[0]) * dims[1], tz);
    const T* d = static_cast<const T*>(raw);
    for (int c = 0; c < nc; c++) {
      double acc = 0.0;
      for (int z = 0; z < tz.n; z++) {
        double accY = 0.0;
        for (int y = 0; y < ty.n; y++) {
          const T* row = d + (tz.off[z] + ty.off[y]) * nc + c;
          double accX = 0.0;
          for (int x = 0; x < tx.n; x++)
            accX += tx.w[x] * double(row[tx.off[x] * nc]);
          accY += ty.w[y] * accX;
        }
        acc += tz.w[z] * accY;
      }
      out[c] = Out::put(typename ZrVoxelValue<T>::Acc(acc));
    }
  }
};
