#pragma once
// Location in a field on stacked coordinates: regular in x and y, one z
// position per slice. A point is inside when it lies in the box of the node
// positions, bounds included: the x-y box, and z from the lowest to the
// highest slice. Between two slices neighbouring in z the value is
// interpolated linearly; the slices are ordered by z once, when the location
// is made, so ascending, descending and unsorted stacks all work, and the
// slice pair is found by a binary search (the pair of the previous point is
// tried first, since points mostly come in runs).
#include "QbDArray.h"
#include "ZrLatticeLocation3.h"

class ZrStackedLocation3 : public ZrLatticeLocation3 {
public:
  // The field must have stacked coordinates.
  explicit ZrStackedLocation3(const ZrField3* field);
  int set(float x, float y, float z) override;
  using ZrLocation3::set;

private:
  float box[6];
  double inv[2];
  int lastCell[2];
  QbDArray<float> zSorted; // slice positions in ascending order
  QbDArray<int> slice;     // slice index of each entry of zSorted
  int lastPair = 0;        // index in zSorted of the previous point's lower slice
};
