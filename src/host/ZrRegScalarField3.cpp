#include "ZrRegScalarField3.h"

QB_TYPE_SOURCE(ZrRegScalarField3, ZrField3, nullptr)

ZrRegScalarField3::ZrRegScalarField3(const int dims[3], int primType, ZrCoord3* coords, void* data)
    : ZrField3(dims, 1, primType, coords, data) {}

ZrObject* ZrRegScalarField3::duplicate() const { return new ZrRegScalarField3(*this); }

void ZrRegScalarField3::getRange(float& min, float& max, int which) const {
  double lo, hi;
  lattice.computeRange(lo, hi, 0);
  min = float(lo);
  max = float(hi);
}

float ZrRegScalarField3::getValue(int i, int j, int k) const {
  const int* d = lattice.getDims();
  return lattice.getValueAsFloat(size_t(i) + size_t(d[0]) * (size_t(j) + size_t(d[1]) * k));
}
