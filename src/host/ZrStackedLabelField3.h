#pragma once
// A stacked field of integer labels; answers the label interface of its type.
#include "ZrStackedScalarField3.h"

class ZrStackedLabelField3 : public ZrStackedScalarField3 {
  QB_TYPE_HEADER(ZrStackedLabelField3)
public:
  ZrStackedLabelField3(const int dims[3], int primType, const float xyBox[4], const float* z,
                       void* data = nullptr);
  ZrStackedLabelField3(const ZrStackedLabelField3& o) = default;
  ZrObject* duplicate() const override;
};
