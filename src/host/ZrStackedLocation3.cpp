#include "ZrStackedLocation3.h"
#include "ZrField3.h"
#include "ZrStackedCoord3.h"
#include <algorithm>

ZrStackedLocation3::ZrStackedLocation3(const ZrField3* f) : ZrLatticeLocation3(f) {
  const ZrStackedCoord3* coords = static_cast<const ZrStackedCoord3*>(f->lattice.coords());
  coords->getBoundingBox(box);
  for (int a = 0; a < 2; a++) {
    const double extent = double(box[2 * a + 1]) - double(box[2 * a]);
    inv[a] = (dims[a] > 1 && extent > 0.0) ? double(dims[a] - 1) / extent : 0.0;
    lastCell[a] = dims[a] > 1 ? dims[a] - 2 : 0;
  }
  setRegularOffsets();

  const int nz = dims[2];
  slice.resize(nz);
  zSorted.resize(nz);
  const float* z = coords->getZ();
  for (int k = 0; k < nz; k++)
    slice[k] = k;
  // Stable, so that slices at equal z keep their index order.
  std::stable_sort(slice.begin(), slice.end(), [z](int a, int b) { return z[a] < z[b]; });
  for (int s = 0; s < nz; s++)
    zSorted[s] = z[slice[s]];
}

int ZrStackedLocation3::set(float x, float y, float z) {
  if (!(x >= box[0] && x <= box[1] && y >= box[2] && y <= box[3] && z >= box[4] && z <= box[5]) ||
      dims[0] < 1 || dims[1] < 1 || dims[2] < 1) {
    inside = 0;
    return 0;
  }
  const float p[2] = {x, y};
  for (int a = 0; a < 2; a++) {
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

  const int nz = dims[2];
  int k0 = 0, k1 = 0;
  float w = 0.0f;
  if (nz > 1) {
    const float* zs = zSorted.data();
    int s = lastPair;
    if (!(zs[s] <= z && z <= zs[s + 1])) {
      // First entry above z, less one: the lower slice of the pair.
      s = int(std::upper_bound(zs, zs + nz, z) - zs) - 1;
      s = std::max(0, std::min(s, nz - 2));
      lastPair = s;
    }
    k0 = slice[s];
    k1 = slice[s + 1];
    const float dz = zs[s + 1] - zs[s];
    w = dz > 0.0f ? (z - zs[s]) / dz : 0.0f;
    w = std::max(0.0f, std::min(w, 1.0f));
  }
  cell[2] = k0;
  frac[2] = w;
  offset[2] = (ptrdiff_t(k1) - ptrdiff_t(k0)) * ptrdiff_t(dims[0]) * dims[1];
  base = nodeIndex(cell[0], cell[1], k0);
  inside = 1;
  return 1;
}
