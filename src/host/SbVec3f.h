#pragma once
#include "SbVec3.h"

using SbVec3f = SbVec3<float>;
