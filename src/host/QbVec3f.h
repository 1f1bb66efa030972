#pragma once
#include "QbVec3.h"

using QbVec3f = QbVec3<float>;
