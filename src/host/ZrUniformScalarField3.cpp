#include "ZrUniformScalarField3.h"

namespace {
QbInterfaceOwner* createUniformScalarField3() {
  const int dims[3] = {1, 1, 1};
  const float box[6] = {0, 0, 0, 0, 0, 0};
  return new ZrUniformScalarField3(dims, 0, box);
}
} // namespace

QB_TYPE_SOURCE(ZrUniformScalarField3, ZrRegScalarField3, createUniformScalarField3)

ZrUniformScalarField3::ZrUniformScalarField3(const int dims[3], int primType, const float box[6],
                                             void* data)
    : ZrRegScalarField3(dims, primType, new ZrUniformCoord3(dims, box), data) {}

ZrObject* ZrUniformScalarField3::duplicate() const { return new ZrUniformScalarField3(*this); }
