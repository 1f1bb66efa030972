#include "ZrLatticeLocation3.h"
#include "QbPrimType.h"
#include "ZrField3.h"
#include "ZrVoxelValue.h"
#include <cstring>

namespace {

// Trilinear interpolation in the location's cell, component by component.
// Along an axis of one node the offset is 0 and both corners are the same
// node, so flat lattices need no case of their own.
template <class T, int NC, bool Native> struct TrilinearKernel {
  static void run(const ZrLatticeLocation3& loc, const void* raw, void* result) {
    typedef typename ZrVoxelValue<T>::Acc Acc;
    typedef ZrVoxelOut<T, Native> Out;
    typename Out::Type* out = static_cast<typename Out::Type*>(result);
    const int nc = NC > 0 ? NC : loc.nDataVar();
    if (!loc.inside) {
      for (int c = 0; c < nc; c++)
        out[c] = typename Out::Type(0);
      return;
    }
    const T* d = static_cast<const T*>(raw) + loc.base * size_t(nc);
    const ptrdiff_t ox = loc.offset[0] * nc, oy = loc.offset[1] * nc, oz = loc.offset[2] * nc;
    const Acc u = loc.frac[0], v = loc.frac[1], w = loc.frac[2];
    for (int c = 0; c < nc; c++) {
      const T* q = d + c;
      const Acc a00 = Acc(q[0]) + u * (Acc(q[ox]) - Acc(q[0]));
      const Acc a10 = Acc(q[oy]) + u * (Acc(q[oy + ox]) - Acc(q[oy]));
      const Acc a01 = Acc(q[oz]) + u * (Acc(q[oz + ox]) - Acc(q[oz]));
      const Acc a11 = Acc(q[oz + oy]) + u * (Acc(q[oz + oy + ox]) - Acc(q[oz + oy]));
      const Acc b0 = a00 + v * (a10 - a00);
      const Acc b1 = a01 + v * (a11 - a01);
      out[c] = Out::put(b0 + w * (b1 - b0));
    }
  }
};

// Stands in for the kernels of a voxel type no field holds: zeros, as float.
void zeroFloatKernel(const ZrLatticeLocation3& loc, const void*, void* result) {
  std::memset(result, 0, sizeof(float) * size_t(loc.nDataVar()));
}

} // namespace

ZrLatticeLocation3::ZrLatticeLocation3(const ZrField3* f)
    : field(f), nVar(f->nDataVar()), primType(f->primType()) {
  for (int a = 0; a < 3; a++)
    dims[a] = f->getDims()[a];
  floatKernel = trilinearKernel(primType, nVar, false);
  nativeKernel = trilinearKernel(primType, nVar, true);
  if (!floatKernel)
    floatKernel = nativeKernel = zeroFloatKernel;
}

void ZrLatticeLocation3::setRegularOffsets() {
  offset[0] = dims[0] > 1 ? 1 : 0;
  offset[1] = dims[1] > 1 ? ptrdiff_t(dims[0]) : 0;
  offset[2] = dims[2] > 1 ? ptrdiff_t(dims[0]) * dims[1] : 0;
}

void ZrLatticeLocation3::evalFloat(float* result) const {
  floatKernel(*this, field->lattice.dataPtr(), result);
}

void ZrLatticeLocation3::evalNative(void* result) const {
  nativeKernel(*this, field->lattice.dataPtr(), result);
}

ZrLatticeLocation3::Kernel ZrLatticeLocation3::trilinearKernel(int primType, int nVar,
                                                               bool native) {
  return selectKernel<TrilinearKernel>(primType, nVar, native);
}

void ZrLatticeLocation3::writeZeros(int primType, int nVar, bool native, void* result) {
  const size_t size = native ? qbPrimTypeSize(primType) : sizeof(float);
  std::memset(result, 0, size * size_t(nVar > 0 ? nVar : 0));
}
