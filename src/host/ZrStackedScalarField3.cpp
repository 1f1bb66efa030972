#include "ZrStackedScalarField3.h"

namespace {
QbInterfaceOwner* createStackedScalarField3() {
  const int dims[3] = {1, 1, 1};
  const float xy[4] = {0, 0, 0, 0};
  const float z = 0.0f;
  return new ZrStackedScalarField3(dims, 0, xy, &z);
}
} // namespace

QB_TYPE_SOURCE(ZrStackedScalarField3, ZrRegScalarField3, createStackedScalarField3)

ZrStackedScalarField3::ZrStackedScalarField3(const int dims[3], int primType, const float xyBox[4],
                                             const float* z, void* data)
    : ZrRegScalarField3(dims, primType, new ZrStackedCoord3(dims, xyBox, z), data) {}

ZrObject* ZrStackedScalarField3::duplicate() const { return new ZrStackedScalarField3(*this); }
