#include "ZrCoord3.h"

ZrCoord3::ZrCoord3(const int d[3]) {
  for (int a = 0; a < 3; a++)
    dims[a] = d[a];
}

void ZrCoord3::resize(const int newDims[3]) {
  for (int a = 0; a < 3; a++)
    dims[a] = newDims[a];
}
