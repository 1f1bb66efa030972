#include "ZrCellLocator3.h"
#include <algorithm>
#include <cmath>

namespace {
// Local coordinates this far outside [0, 1] still count as inside the cell:
// a point on a face shared by two cells, or on the grid's boundary, must be
// found despite rounding.
const double kParamTol = 1e-5;
// Edge of a bucket in units of a cell's mean corner box. Larger buckets list
// more cells (more box tests per point), smaller ones hold each cell in more
// lists (more memory).
const double kBucketScale = 1.5;
// Most buckets the grid gets; larger grids get wider buckets, which keeps the
// lists within a few entries per cell.
const size_t kMaxBuckets = size_t(1) << 22;

inline double dot(const double a[3], const double b[3]) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
inline void cross(const double a[3], const double b[3], double r[3]) {
  r[0] = a[1] * b[2] - a[2] * b[1];
  r[1] = a[2] * b[0] - a[0] * b[2];
  r[2] = a[0] * b[1] - a[1] * b[0];
}
} // namespace

ZrCellLocator3::ZrCellLocator3(const int d[3], const float* positions) : pos(positions) {
  numActive = 0;
  for (int a = 0; a < 3; a++) {
    dims[a] = std::max(d[a], 0);
    cells[a] = dims[a] > 1 ? dims[a] - 1 : 1;
    if (dims[a] > 1)
      active[numActive++] = a;
  }
  step[0] = dims[0] > 1 ? 1 : 0;
  step[1] = dims[1] > 1 ? size_t(dims[0]) : 0;
  step[2] = dims[2] > 1 ? size_t(dims[0]) * dims[1] : 0;

  const size_t numNodes = size_t(dims[0]) * dims[1] * dims[2];
  if (numNodes == 0) {
    for (int a = 0; a < 6; a++)
      box[a] = 0.0f;
    for (int a = 0; a < 3; a++) {
      nb[a] = 1;
      bucketInv[a] = 0.0;
    }
    offsets.assign(2, 0);
    return;
  }
  for (int a = 0; a < 3; a++)
    box[2 * a] = box[2 * a + 1] = pos[a];
  for (size_t n = 1; n < numNodes; n++)
    for (int a = 0; a < 3; a++) {
      box[2 * a] = std::min(box[2 * a], pos[3 * n + a]);
      box[2 * a + 1] = std::max(box[2 * a + 1], pos[3 * n + a]);
    }

  // Bucket grid: buckets of about kBucketScale times the mean corner box of a
  // cell on each axis (sampled over up to 4096 cells), widened evenly while
  // there are too many. A cell then lies in a few buckets and a
  // bucket lists a handful of cells, whatever the shape of the cells.
  const size_t numCells = size_t(cells[0]) * cells[1] * cells[2];
  double ext[3], mean[3] = {0.0, 0.0, 0.0};
  for (int a = 0; a < 3; a++)
    ext[a] = double(box[2 * a + 1]) - double(box[2 * a]);
  {
    const size_t stride = std::max<size_t>(1, numCells / 4096);
    size_t count = 0;
    for (size_t id = 0; id < numCells; id += stride, count++) {
      float cb[6];
      cellBox(node(int(id % cells[0]), int((id / cells[0]) % cells[1]),
                   int(id / (size_t(cells[0]) * cells[1]))),
              cb);
      for (int a = 0; a < 3; a++)
        mean[a] += double(cb[2 * a + 1]) - double(cb[2 * a]);
    }
    for (int a = 0; a < 3; a++)
      mean[a] /= double(count);
  }
  // No more buckets than a few per cell either: a thin, slightly curved sheet
  // has flat cell boxes across a box that is not flat.
  const size_t maxBuckets = std::min(kMaxBuckets, 4 * numCells + 64);
  double widen = kBucketScale;
  for (;;) {
    size_t total = 1;
    for (int a = 0; a < 3; a++) {
      nb[a] = 1;
      if (ext[a] > 0.0) {
        const double h = mean[a] > 0.0 ? widen * mean[a] : ext[a];
        nb[a] = int(std::max(1.0, std::min(std::ceil(ext[a] / h), 65536.0)));
      }
      total *= size_t(nb[a]);
    }
    if (total <= maxBuckets)
      break;
    widen *= 1.25;
  }
  for (int a = 0; a < 3; a++)
    bucketInv[a] = ext[a] > 0.0 ? double(nb[a]) / ext[a] : 0.0;

  // Two passes over the cells, counting and then filling, so that the lists
  // lie in one block and each list is in cell order.
  const size_t numBuckets = size_t(nb[0]) * nb[1] * nb[2];
  offsets.assign(numBuckets + 1, 0);
  for (int pass = 0; pass < 2; pass++) {
    std::vector<size_t> cursor;
    if (pass == 1) {
      for (size_t b = 0; b < numBuckets; b++)
        offsets[b + 1] += offsets[b];
      items.resize(offsets[numBuckets]);
      cursor.assign(offsets.begin(), offsets.end() - 1);
    }
    int c[3];
    for (c[2] = 0; c[2] < cells[2]; c[2]++)
      for (c[1] = 0; c[1] < cells[1]; c[1]++)
        for (c[0] = 0; c[0] < cells[0]; c[0]++) {
          const uint32_t id = uint32_t(node(c[0], c[1], c[2]));
          float cb[6];
          cellBox(id, cb);
          int lo[3], hi[3];
          for (int a = 0; a < 3; a++) {
            // A little padding, so that a point that counts as inside by the
            // parameter tolerance is in the cell's buckets too.
            const float pad = 1e-4f * (cb[2 * a + 1] - cb[2 * a]);
            lo[a] = bucketCoord(a, cb[2 * a] - pad);
            hi[a] = bucketCoord(a, cb[2 * a + 1] + pad);
          }
          for (int k = lo[2]; k <= hi[2]; k++)
            for (int j = lo[1]; j <= hi[1]; j++)
              for (int i = lo[0]; i <= hi[0]; i++) {
                const size_t b = size_t(i) + size_t(nb[0]) * (size_t(j) + size_t(nb[1]) * k);
                if (pass == 0)
                  offsets[b + 1]++;
                else
                  items[cursor[b]++] = id;
              }
        }
  }
}

void ZrCellLocator3::cellBox(size_t n0, float b[6]) const {
  const float* p = pos + 3 * n0;
  b[0] = b[1] = p[0];
  b[2] = b[3] = p[1];
  b[4] = b[5] = p[2];
  for (int q = 1; q < 8; q++) {
    const size_t n =
        n0 + ((q & 1) ? step[0] : 0) + ((q & 2) ? step[1] : 0) + ((q & 4) ? step[2] : 0);
    const float* r = pos + 3 * n;
    for (int a = 0; a < 3; a++) {
      b[2 * a] = std::min(b[2 * a], r[a]);
      b[2 * a + 1] = std::max(b[2 * a + 1], r[a]);
    }
  }
}

int ZrCellLocator3::bucketCoord(int axis, float x) const {
  const double f = (double(x) - double(box[2 * axis])) * bucketInv[axis];
  if (!(f > 0.0))
    return 0;
  const int i = int(f);
  return i >= nb[axis] ? nb[axis] - 1 : i;
}

bool ZrCellLocator3::invert(const int c[3], const float p[3], double uvw[3]) const {
  return invertAt(node(c[0], c[1], c[2]), p, uvw);
}

bool ZrCellLocator3::invertAt(size_t n0, const float p[3], double uvw[3]) const {
  // Corners in the order of their bits: 1 the upper x, 2 upper y, 4 upper z.
  double P[8][3];
  for (int q = 0; q < 8; q++) {
    const size_t n =
        n0 + ((q & 1) ? step[0] : 0) + ((q & 2) ? step[1] : 0) + ((q & 4) ? step[2] : 0);
    for (int a = 0; a < 3; a++)
      P[q][a] = pos[3 * n + a];
  }
  // X(u,v,w) = A + B u + C v + D w + E uv + F uw + G vw + H uvw
  double A[3], B[3], C[3], D[3], E[3], F[3], G[3], H[3];
  for (int a = 0; a < 3; a++) {
    A[a] = P[0][a];
    B[a] = P[1][a] - P[0][a];
    C[a] = P[2][a] - P[0][a];
    D[a] = P[4][a] - P[0][a];
    E[a] = P[3][a] - P[2][a] - P[1][a] + P[0][a];
    F[a] = P[5][a] - P[4][a] - P[1][a] + P[0][a];
    G[a] = P[6][a] - P[4][a] - P[2][a] + P[0][a];
    H[a] = P[7][a] - P[6][a] - P[5][a] + P[4][a] - P[3][a] + P[2][a] + P[1][a] - P[0][a];
  }
  const double q[3] = {p[0], p[1], p[2]};
  double t[3] = {0.0, 0.0, 0.0};
  for (int i = 0; i < numActive; i++)
    t[active[i]] = 0.5;

  double r[3], J[3][3];
  bool converged = false;
  for (int it = 0; it < 20; it++) {
    const double u = t[0], v = t[1], w = t[2];
    for (int a = 0; a < 3; a++) {
      const double x = A[a] + B[a] * u + C[a] * v + D[a] * w + E[a] * u * v + F[a] * u * w +
                       G[a] * v * w + H[a] * u * v * w;
      r[a] = q[a] - x;
      J[0][a] = B[a] + E[a] * v + F[a] * w + H[a] * v * w;
      J[1][a] = C[a] + E[a] * u + G[a] * w + H[a] * u * w;
      J[2][a] = D[a] + F[a] * u + G[a] * v + H[a] * u * v;
    }
    double delta[3] = {0.0, 0.0, 0.0};
    if (numActive == 3) {
      // Square system: the inverse Jacobian's rows are the cross products of
      // its columns over the determinant. A nearly singular Jacobian (a
      // folded or collapsed cell) gives up.
      double c12[3], c20[3], c01[3];
      cross(J[1], J[2], c12);
      cross(J[2], J[0], c20);
      cross(J[0], J[1], c01);
      const double det = dot(J[0], c12);
      if (!(det * det > 1e-24 * dot(J[0], J[0]) * dot(J[1], J[1]) * dot(J[2], J[2])))
        return false;
      const double inv = 1.0 / det;
      delta[0] = dot(r, c12) * inv;
      delta[1] = dot(r, c20) * inv;
      delta[2] = dot(r, c01) * inv;
    } else if (numActive == 2) {
      // A sheet: least squares through the normal equations.
      const double* ja = J[active[0]];
      const double* jb = J[active[1]];
      const double n00 = dot(ja, ja), n01 = dot(ja, jb), n11 = dot(jb, jb);
      const double det = n00 * n11 - n01 * n01;
      if (!(det > 1e-12 * n00 * n11))
        return false;
      const double ra = dot(ja, r), rb = dot(jb, r);
      const double inv = 1.0 / det;
      delta[active[0]] = (n11 * ra - n01 * rb) * inv;
      delta[active[1]] = (n00 * rb - n01 * ra) * inv;
    } else if (numActive == 1) {
      const double* ja = J[active[0]];
      const double n00 = dot(ja, ja);
      if (!(n00 > 0.0))
        return false;
      delta[active[0]] = dot(ja, r) / n00;
    }
    double largest = 0.0;
    for (int a = 0; a < 3; a++) {
      // Bounded, so that a far point or a folded cell cannot send the
      // iteration off; the answer is outside [0, 1] then anyway, and the
      // distance test below rejects a solution held at the bound.
      const double next = std::max(-3.0, std::min(t[a] + delta[a], 4.0));
      largest = std::max(largest, std::fabs(next - t[a]));
      t[a] = next;
    }
    if (!(largest == largest))
      return false;
    // Quadratic convergence: the error left after a step of 1e-4 is of the
    // order of its square, below what the float result can show.
    if (largest < 1e-4) {
      converged = true;
      break;
    }
  }
  if (!converged && numActive == 3)
    return false;
  // Distance from p to the map at the solution: 0 up to rounding for a solid
  // grid, the distance off the sheet (or curve) for a flat one. Compared in
  // squares: within 1e-5 of the cell's size, plus float rounding of p.
  {
    const double u = t[0], v = t[1], w = t[2];
    double d2 = 0.0;
    for (int a = 0; a < 3; a++) {
      const double x = A[a] + B[a] * u + C[a] * v + D[a] * w + E[a] * u * v + F[a] * u * w +
                       G[a] * v * w + H[a] * u * v * w;
      d2 += (q[a] - x) * (q[a] - x);
    }
    const double size2 = dot(B, B) + dot(C, C) + dot(D, D);
    const double mag = std::fabs(q[0]) + std::fabs(q[1]) + std::fabs(q[2]);
    if (!(d2 <= 3e-10 * size2 + 1e-12 * mag * mag))
      return false;
  }
  for (int a = 0; a < 3; a++)
    uvw[a] = t[a];
  return true;
}

bool ZrCellLocator3::locate(const float p[3], int cell[3], float uvw[3], int hint[3]) const {
  if (!(p[0] >= box[0] && p[0] <= box[1] && p[1] >= box[2] && p[1] <= box[3] && p[2] >= box[4] &&
        p[2] <= box[5]) ||
      dims[0] < 1 || dims[1] < 1 || dims[2] < 1)
    return false;

  auto inRange = [](const double t[3]) {
    for (int a = 0; a < 3; a++)
      if (!(t[a] >= -kParamTol && t[a] <= 1.0 + kParamTol))
        return false;
    return true;
  };
  auto accept = [&](const int c[3], const double t[3]) {
    for (int a = 0; a < 3; a++) {
      cell[a] = c[a];
      hint[a] = c[a];
      uvw[a] = float(std::max(0.0, std::min(t[a], 1.0)));
    }
    return true;
  };

  double t[3];
  size_t tried = size_t(-1);
  // The hint, and a walk towards where its local coordinates point. Only for
  // near misses: a point two cells away or more goes to the buckets.
  if (hint[0] >= 0 && hint[0] < cells[0] && hint[1] >= 0 && hint[1] < cells[1] && hint[2] >= 0 &&
      hint[2] < cells[2]) {
    int c[3] = {hint[0], hint[1], hint[2]};
    // Worth a try only if p is within about one cell of the hint's box.
    float hb[6];
    cellBox(node(c[0], c[1], c[2]), hb);
    bool near = true;
    for (int a = 0; a < 3 && near; a++) {
      const float margin = hb[2 * a + 1] - hb[2 * a];
      near = p[a] >= hb[2 * a] - margin && p[a] <= hb[2 * a + 1] + margin;
    }
    for (int walk = 0; near && walk < 4; walk++) {
      const size_t n0 = node(c[0], c[1], c[2]);
      if (!invertAt(n0, p, t))
        break;
      if (walk == 0)
        tried = n0;
      if (inRange(t))
        return accept(c, t);
      bool moved = false, far = false;
      for (int a = 0; a < 3; a++) {
        const double f = std::floor(t[a]);
        if (f < -1.0 || f > 1.0) {
          far = true;
          break;
        }
        const int nc = std::max(0, std::min(c[a] + int(f), cells[a] - 1));
        moved |= nc != c[a];
        c[a] = nc;
      }
      if (far || !moved)
        break;
    }
  }

  int b[3];
  for (int a = 0; a < 3; a++)
    b[a] = bucketCoord(a, p[a]);
  const size_t bucket = size_t(b[0]) + size_t(nb[0]) * (size_t(b[1]) + size_t(nb[1]) * b[2]);
  for (size_t e = offsets[bucket], end = offsets[bucket + 1]; e < end; e++) {
    const size_t n0 = items[e];
    if (n0 == tried)
      continue;
    float cb[6];
    cellBox(n0, cb);
    bool inBox = true;
    for (int a = 0; a < 3 && inBox; a++) {
      const float pad = 1e-4f * (cb[2 * a + 1] - cb[2 * a]);
      inBox = p[a] >= cb[2 * a] - pad && p[a] <= cb[2 * a + 1] + pad;
    }
    if (!inBox)
      continue;
    if (invertAt(n0, p, t) && inRange(t)) {
      // The corner's node index back to the cell's indices, once.
      const size_t nx = size_t(dims[0]), ny = size_t(dims[1]);
      const int c[3] = {int(n0 % nx), int((n0 / nx) % ny), int(n0 / (nx * ny))};
      return accept(c, t);
    }
  }
  return false;
}
