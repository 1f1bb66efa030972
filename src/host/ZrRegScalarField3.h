#pragma once
// A field of one value per node, of one of the six voxel types, over any kind
// of coordinates.
#include "ZrField3.h"

class ZrRegScalarField3 : public ZrField3 {
  QB_TYPE_HEADER(ZrRegScalarField3)
public:
  ZrRegScalarField3(const int dims[3], int primType, ZrCoord3* coords, void* data = nullptr);
  ZrRegScalarField3(const ZrRegScalarField3& o) = default;
  ZrObject* duplicate() const override;

  // Smallest and largest value. The last argument selects the range: 0, the
  // only value in use, is the whole data range.
  void getRange(float& min, float& max, int which = 0) const;
  // Value at node (i, j, k) as float.
  float getValue(int i, int j, int k) const;
};
