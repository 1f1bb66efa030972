#pragma once
// Regular lattice: node (i, j, k) lies at min + (i, j, k) * voxel size, the
// first and last nodes on the box.
#include "QbBox3f.h"
#include "ZrCoord3.h"

class ZrUniformCoord3 : public ZrCoord3 {
public:
  ZrUniformCoord3(const int dims[3], const float box[6]);
  ZrCoordType coordType() const override { return ZR_COORD_UNIFORM; }
  void getBoundingBox(float box[6]) const override;
  void setBoundingBox(const float box[6]);
  void pos(int i, int j, int k, float p[3]) const override;
  ZrCoord3* duplicate() const override;
  // Box size over (dims - 1) per axis; an axis of one node gives its box size
  // (0 for a flat box).
  void getVoxelSize(float size[3]) const;

private:
  QbBox3f box;
};
