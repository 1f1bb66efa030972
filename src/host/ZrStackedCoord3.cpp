#include "ZrStackedCoord3.h"
#include <algorithm>

ZrStackedCoord3::ZrStackedCoord3(const int d[3], const float xyBox[4], const float* zs)
    : ZrCoord3(d), z(std::max(d[2], 0)) {
  setXYBox(xyBox);
  for (int k = 0; k < z.size(); k++)
    z[k] = zs ? zs[k] : float(k);
}

void ZrStackedCoord3::setXYBox(const float xyBox[4]) {
  for (int a = 0; a < 4; a++)
    xy[a] = xyBox[a];
}

void ZrStackedCoord3::getBoundingBox(float b[6]) const {
  for (int a = 0; a < 4; a++)
    b[a] = xy[a];
  if (z.isEmpty()) {
    b[4] = b[5] = 0.0f;
    return;
  }
  // Slices need not be sorted: the box takes the extreme positions.
  b[4] = b[5] = z[0];
  for (float v : z) {
    b[4] = std::min(b[4], v);
    b[5] = std::max(b[5], v);
  }
}

void ZrStackedCoord3::pos(int i, int j, int k, float p[3]) const {
  const int idx[2] = {i, j};
  for (int a = 0; a < 2; a++) {
    const float lo = xy[2 * a], hi = xy[2 * a + 1];
    const int n = dims[a];
    if (n <= 1 || idx[a] == 0)
      p[a] = lo;
    else if (idx[a] == n - 1)
      p[a] = hi;
    else
      p[a] = lo + idx[a] * ((hi - lo) / (n - 1));
  }
  p[2] = z[k];
}

ZrCoord3* ZrStackedCoord3::duplicate() const { return new ZrStackedCoord3(*this); }

void ZrStackedCoord3::resize(const int newDims[3]) {
  // The x-y box stays. The slices are spread evenly over the old z range (first
  // and last slice keep their positions), so a resized stack covers the same
  // space as before.
  const int nOld = z.size();
  const int nNew = std::max(newDims[2], 0);
  if (nNew != nOld) {
    QbDArray<float> old = z;
    z.resize(0);
    z.resize(nNew);
    if (nOld > 0) {
      const float lo = old[0], hi = old[nOld - 1];
      for (int k = 0; k < nNew; k++)
        z[k] = nNew > 1 ? lo + (hi - lo) * float(k) / float(nNew - 1) : lo;
    } else {
      for (int k = 0; k < nNew; k++)
        z[k] = float(k);
    }
  }
  ZrCoord3::resize(newDims);
}
