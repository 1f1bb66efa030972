#include "ZrUniformCoord3.h"

ZrUniformCoord3::ZrUniformCoord3(const int d[3], const float b[6]) : ZrCoord3(d), box(b) {}

void ZrUniformCoord3::getBoundingBox(float b[6]) const {
  for (int a = 0; a < 6; a++)
    b[a] = box[a];
}

void ZrUniformCoord3::setBoundingBox(const float b[6]) { box = QbBox3f(b); }

void ZrUniformCoord3::pos(int i, int j, int k, float p[3]) const {
  const int idx[3] = {i, j, k};
  for (int a = 0; a < 3; a++) {
    const float lo = box[2 * a], hi = box[2 * a + 1];
    const int n = dims[a];
    // The last node is placed on the upper bound exactly, rather than at
    // lo + (n-1) * step, so that the box of the nodes is the box as set.
    if (n <= 1 || idx[a] == 0)
      p[a] = lo;
    else if (idx[a] == n - 1)
      p[a] = hi;
    else
      p[a] = lo + idx[a] * ((hi - lo) / (n - 1));
  }
}

ZrCoord3* ZrUniformCoord3::duplicate() const { return new ZrUniformCoord3(*this); }

void ZrUniformCoord3::getVoxelSize(float size[3]) const {
  for (int a = 0; a < 3; a++) {
    const float extent = box[2 * a + 1] - box[2 * a];
    size[a] = dims[a] > 1 ? extent / (dims[a] - 1) : extent;
  }
}
