#pragma once
#include "QbVec3.h"

using QbVec3d = QbVec3<double>;
