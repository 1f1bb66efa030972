#include "ZrUniformLabelField3.h"

namespace {
QbInterfaceOwner* createUniformLabelField3() {
  const int dims[3] = {1, 1, 1};
  const float box[6] = {0, 0, 0, 0, 0, 0};
  return new ZrUniformLabelField3(dims, 0, box);
}
} // namespace

QB_TYPE_SOURCE(ZrUniformLabelField3, ZrUniformScalarField3, createUniformLabelField3)

ZrUniformLabelField3::ZrUniformLabelField3(const int dims[3], int primType, const float box[6],
                                           void* data)
    : ZrUniformScalarField3(dims, primType, box, data) {}

ZrObject* ZrUniformLabelField3::duplicate() const { return new ZrUniformLabelField3(*this); }
