#include "ZrCurvilinearLocation3.h"
#include "ZrCurvilinearCoord3.h"
#include "ZrField3.h"

ZrCurvilinearLocation3::ZrCurvilinearLocation3(const ZrField3* f)
    : ZrLatticeLocation3(f),
      locator(f->getDims(),
              static_cast<const ZrCurvilinearCoord3*>(f->lattice.coords())->getPositions()) {
  setRegularOffsets();
}

int ZrCurvilinearLocation3::set(float x, float y, float z) {
  const float p[3] = {x, y, z};
  if (!locator.locate(p, cell, frac, hint)) {
    inside = 0;
    return 0;
  }
  base = nodeIndex(cell[0], cell[1], cell[2]);
  inside = 1;
  return 1;
}
