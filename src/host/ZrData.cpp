#include "ZrData.h"

QB_TYPE_SOURCE(ZrData, ZrObject, nullptr)
