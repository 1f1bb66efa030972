#pragma once
// Base of the data objects (as opposed to modules).
#include "ZrObject.h"

class ZrData : public ZrObject {
  QB_TYPE_HEADER(ZrData)
public:
  ZrData() = default;
  ~ZrData() override = default;
};
