#pragma once
// Location in a field on curvilinear coordinates. A point is inside when it
// lies in a cell of the grid (the trilinear image of a unit cube between
// neighbouring nodes, bounds included); a point in the box of the nodes that
// no cell covers, as in the corners of a rotated or curved grid, is outside.
// The cell is found by a ZrCellLocator3, built when the location is made
// (time and memory in proportion to the number of cells), and the cell of the
// previous point is tried first.
#include "ZrCellLocator3.h"
#include "ZrLatticeLocation3.h"

class ZrCurvilinearLocation3 : public ZrLatticeLocation3 {
public:
  // The field must have curvilinear coordinates.
  explicit ZrCurvilinearLocation3(const ZrField3* field);
  int set(float x, float y, float z) override;
  using ZrLocation3::set;
  const ZrCellLocator3& getLocator() const { return locator; }

private:
  ZrCellLocator3 locator;
  int hint[3] = {-1, -1, -1};
};
