#pragma once
// Location in a field on uniform coordinates. A point is inside when it lies
// in the box of the node positions, bounds included; its cell and local
// coordinates follow from the box and the node spacing directly.
#include "ZrLatticeLocation3.h"

class ZrUniformLocation3 : public ZrLatticeLocation3 {
public:
  // The field must have uniform coordinates.
  explicit ZrUniformLocation3(const ZrField3* field);
  int set(float x, float y, float z) override;
  using ZrLocation3::set;

private:
  float box[6];
  double inv[3];   // nodes per unit length along each axis; 0 where all nodes coincide
  int lastCell[3]; // highest lower-corner index: n-2, or 0 on an axis of one node
};
