#pragma once
#include "SbVec3.h"

using SbVec3d = SbVec3<double>;
