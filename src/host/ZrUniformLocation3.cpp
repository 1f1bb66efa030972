#include "ZrUniformLocation3.h"
#include "ZrField3.h"

ZrUniformLocation3::ZrUniformLocation3(const ZrField3* f) : ZrLatticeLocation3(f) {
  f->lattice.coords()->getBoundingBox(box);
  for (int a = 0; a < 3; a++) {
    const double extent = double(box[2 * a + 1]) - double(box[2 * a]);
    inv[a] = (dims[a] > 1 && extent > 0.0) ? double(dims[a] - 1) / extent : 0.0;
    lastCell[a] = dims[a] > 1 ? dims[a] - 2 : 0;
  }
  setRegularOffsets();
}

int ZrUniformLocation3::set(float x, float y, float z) {
  // Written so that a NaN coordinate fails the test and lies outside.
  if (!(x >= box[0] && x <= box[1] && y >= box[2] && y <= box[3] && z >= box[4] && z <= box[5]) ||
      dims[0] < 1 || dims[1] < 1 || dims[2] < 1) {
    inside = 0;
    return 0;
  }
  const float p[3] = {x, y, z};
  for (int a = 0; a < 3; a++) {
    const double f = (double(p[a]) - double(box[2 * a])) * inv[a];
    int i = int(f);
    if (i > lastCell[a])
      i = lastCell[a];
    double u = f - double(i);
    if (u > 1.0)
      u = 1.0;
    else if (u < 0.0)
      u = 0.0;
    cell[a] = i;
    frac[a] = float(u);
  }
  base = nodeIndex(cell[0], cell[1], cell[2]);
  inside = 1;
  return 1;
}
