#include "ZrEvalCubic.h"
#include "ZrField3.h"
#include "ZrSeparableKernel.h"
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

template <class T, int NC, bool Native>
using CubicKernel = ZrSeparableKernel<T, NC, Native, Taps, axisTaps>;
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
