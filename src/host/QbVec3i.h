#pragma once
#include "QbVec3.h"

using QbVec3i = QbVec3<int>;
