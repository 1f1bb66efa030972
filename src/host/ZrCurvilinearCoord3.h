#pragma once
// One position per node, three floats each, x index fastest.
#include "ZrCoord3.h"

class ZrCurvilinearCoord3 : public ZrCoord3 {
public:
  // positions: 3 * number of nodes floats, copied; null gives all zero.
  ZrCurvilinearCoord3(const int dims[3], const float* positions = nullptr);
  ~ZrCurvilinearCoord3() override;
  ZrCoordType coordType() const override { return ZR_COORD_CURVILINEAR; }
  void getBoundingBox(float box[6]) const override;
  void pos(int i, int j, int k, float p[3]) const override;
  ZrCoord3* duplicate() const override;
  void resize(const int newDims[3]) override;
  float* getPositions() { return positions; }
  const float* getPositions() const { return positions; }

private:
  float* positions = nullptr; // qbmalloc'd
};
