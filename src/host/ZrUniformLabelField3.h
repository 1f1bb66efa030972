#pragma once
// A uniform field of integer labels. It answers the label interface: asked by
// getInterface for ZrUniformLabelField3's type it returns itself.
#include "ZrUniformScalarField3.h"

class ZrUniformLabelField3 : public ZrUniformScalarField3 {
  QB_TYPE_HEADER(ZrUniformLabelField3)
public:
  ZrUniformLabelField3(const int dims[3], int primType, const float box[6], void* data = nullptr);
  ZrUniformLabelField3(const ZrUniformLabelField3& o) = default;
  ZrObject* duplicate() const override;
};
