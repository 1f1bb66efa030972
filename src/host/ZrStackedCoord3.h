#pragma once
// Slices of regular x-y lattices at individual z positions, one per slice.
#include "QbDArray.h"
#include "ZrCoord3.h"

class ZrStackedCoord3 : public ZrCoord3 {
public:
  // xyBox: xmin, xmax, ymin, ymax. z: dims[2] slice positions (copied).
  ZrStackedCoord3(const int dims[3], const float xyBox[4], const float* z);
  ZrCoordType coordType() const override { return ZR_COORD_STACKED; }
  void getBoundingBox(float box[6]) const override;
  void pos(int i, int j, int k, float p[3]) const override;
  ZrCoord3* duplicate() const override;
  void resize(const int newDims[3]) override;
  const float* getZ() const { return z.data(); }
  float* getZ() { return z.data(); }
  const float* getXYBox() const { return xy; }
  void setXYBox(const float xyBox[4]);

private:
  float xy[4];
  QbDArray<float> z;
};
