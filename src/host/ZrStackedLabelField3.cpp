#include "ZrStackedLabelField3.h"

namespace {
QbInterfaceOwner* createStackedLabelField3() {
  const int dims[3] = {1, 1, 1};
  const float xy[4] = {0, 0, 0, 0};
  const float z = 0.0f;
  return new ZrStackedLabelField3(dims, 0, xy, &z);
}
} // namespace

QB_TYPE_SOURCE(ZrStackedLabelField3, ZrStackedScalarField3, createStackedLabelField3)

ZrStackedLabelField3::ZrStackedLabelField3(const int dims[3], int primType, const float xyBox[4],
                                           const float* z, void* data)
    : ZrStackedScalarField3(dims, primType, xyBox, z, data) {}

ZrObject* ZrStackedLabelField3::duplicate() const { return new ZrStackedLabelField3(*this); }
