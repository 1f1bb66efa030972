#include "ZrEvalNN.h"
#include "ZrField3.h"
#include "ZrVoxelValue.h"

namespace {
template <class T, int NC, bool Native> struct NearestKernel {
  static void run(const ZrLatticeLocation3& loc, const void* raw, void* result) {
    typedef ZrVoxelOut<T, Native> Out;
    typename Out::Type* out = static_cast<typename Out::Type*>(result);
    const int nc = NC > 0 ? NC : loc.nDataVar();
    if (!loc.inside) {
      for (int c = 0; c < nc; c++)
        out[c] = typename Out::Type(0);
      return;
    }
    // Without branches: at random points they would be mispredicted half the
    // time.
    ptrdiff_t node = ptrdiff_t(loc.base);
    for (int a = 0; a < 3; a++)
      node += loc.offset[a] & -ptrdiff_t(loc.frac[a] >= 0.5f);
    const T* d = static_cast<const T*>(raw) + size_t(node) * size_t(nc);
    for (int c = 0; c < nc; c++) {
      if constexpr (Native)
        out[c] = d[c];
      else
        out[c] = float(d[c]);
    }
  }
};
} // namespace

ZrFieldEvaluator* ZrEvalNN::createEval(ZrField3* field) {
  if (!field || field->nDataVar() < 1)
    return nullptr;
  const int type = field->primType();
  const int nVar = field->nDataVar();
  ZrLatticeLocation3::Kernel f = ZrLatticeLocation3::selectKernel<NearestKernel>(type, nVar, false);
  ZrLatticeLocation3::Kernel n = ZrLatticeLocation3::selectKernel<NearestKernel>(type, nVar, true);
  if (!f || !n)
    return nullptr;
  return new ZrEvalNN(field, f, n);
}

ZrLocation3* ZrEvalNN::createLocation() { return field->createLocation(); }

void ZrEvalNN::eval(ZrLocation3* location, float* result) {
  floatKernel(*static_cast<ZrLatticeLocation3*>(location), field->lattice.dataPtr(), result);
}

void ZrEvalNN::evalNative(ZrLocation3* location, void* result) {
  nativeKernel(*static_cast<ZrLatticeLocation3*>(location), field->lattice.dataPtr(), result);
}
