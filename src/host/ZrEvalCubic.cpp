#include "ZrEvalCubic.h"
#include "ZrField3.h"
#include "ZrVoxelValue.h"

namespace {
// A local coordinate this close to a node counts as the node itself, so that
// the value there is the node's, exactly.
const double kNodeSnap = 1e-6;

struct Taps {
  int n;
  ptrdiff_t off[4];
  double w[4];
};

// Weights of the nodes cell-1 .. cell+2 for a point at local coordinate frac
// in the cell: Keys' kernel with a = -1/2,
//   |x| <= 1: 1.5|x|^3 - 2.5|x|^2 + 1,  1 < |x| < 2: -0.5|x|^3 + 2.5|x|^2 - 4|x| + 2.
inline void axisTaps(int cell, float frac, int dim, ptrdiff_t stride, Taps& t) {
  int i = cell;
  double u = frac;
  if (u >= 1.0 - kNodeSnap) {
    i++;
    u = 0.0;
  } else if (u <= kNodeSnap) {
    u = 0.0;
  }
  if (dim <= 1 || u == 0.0) {
    t.n = 1;
    t.off[0] = ptrdiff_t(i < dim ? i : dim - 1) * stride;
    t.w[0] = 1.0;
    return;
  }
  const double v = 1.0 - u;
  t.n = 4;
  t.w[0] = -0.5 * u * v * v;              // x = u + 1
  t.w[1] = 1.0 + u * u * (1.5 * u - 2.5); // x = u
  t.w[2] = 1.0 + v * v * (1.5 * v - 2.5); // x = 1 - u
  t.w[3] = -0.5 * v * u * u;              // x = 2 - u
  for (int q = 0; q < 4; q++) {
    int node = i + q - 1;
    node = node < 0 ? 0 : (node >= dim ? dim - 1 : node);
    t.off[q] = ptrdiff_t(node) * stride;
  }
}

template <class T, int NC, bool Native> struct CubicKernel {
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
    axisTaps(loc.cell[0], loc.frac[0], dims[0], 1, tx);
    axisTaps(loc.cell[1], loc.frac[1], dims[1], ptrdiff_t(dims[0]), ty);
    axisTaps(loc.cell[2], loc.frac[2], dims[2], ptrdiff_t(dims[0]) * dims[1], tz);
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
} // namespace

ZrFieldEvaluator* ZrEvalCubic::createEval(ZrField3* field) {
  if (!field || field->nDataVar() < 1 || field->coordType() != ZR_COORD_UNIFORM)
    return nullptr;
  const int type = field->primType();
  const int nVar = field->nDataVar();
  ZrLatticeLocation3::Kernel f = ZrLatticeLocation3::selectKernel<CubicKernel>(type, nVar, false);
  ZrLatticeLocation3::Kernel n = ZrLatticeLocation3::selectKernel<CubicKernel>(type, nVar, true);
  if (!f || !n)
    return nullptr;
  return new ZrEvalCubic(field, f, n);
}

ZrLocation3* ZrEvalCubic::createLocation() { return field->createLocation(); }

void ZrEvalCubic::eval(ZrLocation3* location, float* result) {
  floatKernel(*static_cast<ZrLatticeLocation3*>(location), field->lattice.dataPtr(), result);
}

void ZrEvalCubic::evalNative(ZrLocation3* location, void* result) {
  nativeKernel(*static_cast<ZrLatticeLocation3*>(location), field->lattice.dataPtr(), result);
}
