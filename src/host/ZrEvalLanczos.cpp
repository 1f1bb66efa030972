#include "ZrEvalLanczos.h"
#include "ZrField3.h"
#include "ZrSeparableKernel.h"
#include "ZrVoxelValue.h"
#include <cmath>

namespace {
const double kPi = 3.14159265358979323846;
// A local coordinate this close to a node counts as the node itself: the
// value is then that node's, exactly, and not a sum of 216 terms that equals
// it only up to rounding.
const double kNodeSnap = 1e-6;

// The taps of one axis: flat node offsets along the axis and their weights.
struct Taps {
  int n;
  ptrdiff_t off[6];
  double w[6];
};

// Weights of the nodes cell-2 .. cell+3 for a point at local coordinate frac
// in the cell. The six sines of the kernel come from one sine and one
// sine-cosine pair: sin(pi (u - m)) = (-1)^m sin(pi u), and sin(pi (u - m) / 3)
// follows from the angle difference with the fixed angles pi m / 3.
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
  static const double cosM[6] = {-0.5, 0.5, 1.0, 0.5, -0.5, -1.0}; // cos(pi m / 3), m = -2..3
  static const double sinM[6] = {-0.86602540378443865, -0.86602540378443865, 0.0,
                                 0.86602540378443865,  0.86602540378443865,  0.0};
  const double s = std::sin(kPi * u);
  const double sa = std::sin(kPi * u / 3.0), ca = std::cos(kPi * u / 3.0);
  double sum = 0.0;
  t.n = 6;
  for (int q = 0; q < 6; q++) {
    const int m = q - 2;
    const double x = u - m;
    const double sinPiX = (m & 1) ? -s : s;
    const double sinPiX3 = sa * cosM[q] - ca * sinM[q];
    const double w = 3.0 * sinPiX * sinPiX3 / (kPi * kPi * x * x);
    int node = i + m;
    node = node < 0 ? 0 : (node >= dim ? dim - 1 : node);
    t.off[q] = ptrdiff_t(node) * stride;
    t.w[q] = w;
    sum += w;
  }
  for (int q = 0; q < 6; q++)
    t.w[q] /= sum;
}

template <class T, int NC, bool Native>
using LanczosKernel = ZrSeparableKernel<T, NC, Native, Taps, axisTaps>;
} // namespace

ZrFieldEvaluator* ZrEvalLanczos::createEval(ZrField3* field) {
  if (!field || field->nDataVar() < 1 || field->coordType() != ZR_COORD_UNIFORM)
    return nullptr;
  const int type = field->primType();
  const int nVar = field->nDataVar();
  ZrLatticeLocation3::Kernel f = ZrLatticeLocation3::selectKernel<LanczosKernel>(type, nVar, false);
  ZrLatticeLocation3::Kernel n = ZrLatticeLocation3::selectKernel<LanczosKernel>(type, nVar, true);
  if (!f || !n)
    return nullptr;
  return new ZrEvalLanczos(field, f, n);
}

ZrLocation3* ZrEvalLanczos::createLocation() { return field->createLocation(); }

void ZrEvalLanczos::eval(ZrLocation3* location, float* result) {
  floatKernel(*static_cast<ZrLatticeLocation3*>(location), field->lattice.dataPtr(), result);
}

void ZrEvalLanczos::evalNative(ZrLocation3* location, void* result) {
  nativeKernel(*static_cast<ZrLatticeLocation3*>(location), field->lattice.dataPtr(), result);
}
