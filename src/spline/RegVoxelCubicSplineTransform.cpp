#include "RegVoxelCubicSplineTransform.h"
#include "ZrLandmarkSet.h"
#include "ZrRegScalarField3.h"
#include "qbmalloc.h"
#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

// Rebuilds one interpolant table of n rows. pos(v) gives the coordinate of
// index v on the axis; the cell is clamped to limit.
template <class PosFn>
RegSplineInterpolant* reg_buildSplineTable(RegSplineInterpolant* old, int n, PosFn pos, float min,
                                           float inv, int limit) {
  qbfree(old);
  RegSplineInterpolant* t =
      (RegSplineInterpolant*)qbmalloc(sizeof(RegSplineInterpolant) * (n > 0 ? n : 1));
  for (int v = 0; v < n; v++) {
    const float u = (pos(v) - min) * inv;
    const int cell = std::min(limit, (int)u);
    t[v].cell = cell;
    t[v].frac = u - float(cell);
    t[v].setWeights((double)t[v].frac);
  }
  return t;
}

// First and last index of a table whose cell lies in lower .. upper: the
// first index with a cell not below lower (n if none), and one before the
// first index from there with a cell above upper.
inline void reg_cellRange(const RegSplineInterpolant* g, int n, int lower, int upper, float& from,
                          float& to) {
  int f = 0;
  while (f < n && g[f].cell < lower)
    f++;
  int e = f;
  while (e < n && g[e].cell <= upper)
    e++;
  from = (float)f;
  to = (float)(e - 1);
}

// 64-term sum of one coordinate over a 4 x 4 x 4 neighbourhood, z outermost.
inline double reg_sumNeighbourhood(const double* q, const double* wx, const double* wy,
                                   const double* wz, int sx, int sy, int sz) {
  double s = 0.0;
  for (int n = 0; n < 4; n++)
    for (int m = 0; m < 4; m++) {
      const double* r = q + n * sz + m * sy;
      for (int l = 0; l < 4; l++)
        s += wx[l] * wy[m] * wz[n] * r[l * sx];
    }
  return s;
}

// Column reduction of getTransformedGridSequence: for the columns 0 .. cols-1
// starting at src (3 doubles per column), dst[3 q + c] = sum over the 16 y-z
// offsets of weight[k * 4 + j] * src[3 q + off[k][j] + c]. Written as 16
// passes over the whole row, so that each pass is a contiguous multiply-add
// with the terms in the same order as a per-column sum.
inline void reg_evaluateSequenceColumns(double* dst, const double* src, const double* w,
                                        const int (*off)[4], int cols, int total) {
  const int len = 3 * cols;
  {
    const double* s = src + off[0][0];
    const double w0 = w[0];
    for (int e = 0; e < len; e++)
      dst[e] = w0 * s[e];
  }
  for (int kj = 1; kj < 16; kj++) {
    const double* s = src + off[kj >> 2][kj & 3];
    const double wk = w[kj];
    for (int e = 0; e < len; e++)
      dst[e] += wk * s[e];
  }
  // Columns that lie beyond the lattice row are never combined into a voxel
  // of a lattice coarser than the voxels; they are zero so that nothing
  // outside the parameters is read.
  for (int e = len; e < 3 * total; e++)
    dst[e] = 0.0;
}

// One voxel of a row walk: sum over l of w[l] * phi[3 (q + l) + c].
inline double reg_evaluateSequenceVoxel(const double* w, const double* phi, int c) {
  return w[0] * phi[c] + w[1] * phi[3 + c] + w[2] * phi[6 + c] + w[3] * phi[9 + c];
}

} // namespace

RegVoxelCubicSplineTransform::RegVoxelCubicSplineTransform(int dim, bool fast)
    : RegCubicSplineTransform(dim, fast), is2D(dim != 3) {}

RegVoxelCubicSplineTransform::~RegVoxelCubicSplineTransform() {
  qbfree(interpolantsX);
  qbfree(interpolantsY);
  qbfree(interpolantsZ);
  qbfree(landmarkInterpolantsX);
  qbfree(landmarkInterpolantsY);
  qbfree(landmarkInterpolantsZ);
  delete landmarkPositions;
}

void RegVoxelCubicSplineTransform::setReference(ZrSpatialData* reference) {
  referenceField = static_cast<ZrRegScalarField3*>(reference);
  const int* d = referenceField->getDims();
  numVoxels[0] = d[0];
  numVoxels[1] = d[1];
  numVoxels[2] = d[2];
  RegCubicSplineTransform::setReference(reference);
}

void RegVoxelCubicSplineTransform::precomputeInterpolants() {
  const ZrCoord3* coords = referenceField->lattice.coords();
  const float* b = interpolatedSpaceBoundary;
  auto posX = [coords](int v) {
    float q[3];
    coords->pos(v, 0, 0, q);
    return q[0];
  };
  auto posY = [coords](int v) {
    float q[3];
    coords->pos(0, v, 0, q);
    return q[1];
  };
  auto posZ = [coords](int v) {
    float q[3];
    coords->pos(0, 0, v, q);
    return q[2];
  };
  interpolantsX = reg_buildSplineTable(interpolantsX, numVoxels[0], posX, b[0], invGridSpacing[0],
                                       gridSize[0] - 4);
  interpolantsY = reg_buildSplineTable(interpolantsY, numVoxels[1], posY, b[2], invGridSpacing[1],
                                       gridSize[1] - 4);
  // A lattice of fewer than 4 layers (the single layer of 2-D) has cell 0.
  const int zLimit = gridSize[2] < 4 ? 0 : gridSize[2] - 4;
  interpolantsZ =
      reg_buildSplineTable(interpolantsZ, numVoxels[2], posZ, b[4], invGridSpacing[2], zLimit);
}

void RegVoxelCubicSplineTransform::setLandmarks(ZrLandmarkSet* set) {
  numLandmarks = set->getNumMarkers();
  delete landmarkPositions;
  landmarkPositions = nullptr;
  landmarkPositions = new QbDArray<QbVec3f>(numLandmarks);
  // Marker set 1 is the side of the landmarks in the reference's space.
  const QbVec3f* c = set->getCoords(1);
  for (int i = 0; i < numLandmarks; i++)
    (*landmarkPositions)[i] = c[i];
}

void RegVoxelCubicSplineTransform::precomputeInterpolantsLandmarks() {
  const float* b = interpolatedSpaceBoundary;
  const QbVec3f* lm = landmarkPositions ? landmarkPositions->data() : nullptr;
  auto posX = [lm](int v) { return lm[v].x; };
  auto posY = [lm](int v) { return lm[v].y; };
  auto posZ = [lm](int v) { return lm[v].z; };
  landmarkInterpolantsX = reg_buildSplineTable(landmarkInterpolantsX, numLandmarks, posX, b[0],
                                               invGridSpacing[0], gridSize[0] - 4);
  landmarkInterpolantsY = reg_buildSplineTable(landmarkInterpolantsY, numLandmarks, posY, b[2],
                                               invGridSpacing[1], gridSize[1] - 4);
  // As for the voxels: the single layer of a 2-D lattice has cell 0 (a
  // limit of gridSize - 4 there put landmarks in cells below the lattice).
  const int zLimit = gridSize[2] < 4 ? 0 : gridSize[2] - 4;
  landmarkInterpolantsZ = reg_buildSplineTable(landmarkInterpolantsZ, numLandmarks, posZ, b[4],
                                               invGridSpacing[2], zLimit);
}

void RegVoxelCubicSplineTransform::getVolumeOfInfluence(int idx, float* from, float* to,
                                                        int mode) const {
  const int nx = gridSize[0], ny = gridSize[1];
  const int cp = idx / 3;
  const int ijk[3] = {cp % nx, (cp / nx) % ny, cp / (nx * ny)};
  // -1 follows the object's fast mode, 0 is always full, 1 always narrow.
  const bool narrow = mode == 1 || (fastMode && mode < 0);
  const RegSplineInterpolant* tables[3] = {interpolantsX, interpolantsY, interpolantsZ};
  const int axes = is2D ? 2 : 3;
  for (int a = 0; a < axes; a++) {
    // A point acts on the four cells i - 3 .. i; the narrow support keeps the
    // two middle ones, where its weight is greatest.
    const int lower = narrow ? ijk[a] - 2 : ijk[a] - 3;
    const int upper = narrow ? ijk[a] - 1 : ijk[a];
    reg_cellRange(tables[a], numVoxels[a], lower, upper, from[a], to[a]);
  }
  if (is2D) {
    from[2] = 0.0f;
    to[2] = 0.0f;
  }
}

void RegVoxelCubicSplineTransform::getTransformedGrid(int* v, QbVec3f& out,
                                                      const QbDVector<double>& p) const {
  const RegSplineInterpolant& gx = interpolantsX[v[0]];
  const RegSplineInterpolant& gy = interpolantsY[v[1]];
  const RegSplineInterpolant& gz = interpolantsZ[v[2]];
  const int nx = gridSize[0], ny = gridSize[1];
  const double* q = p.data() + ((gz.cell * ny + gy.cell) * nx + gx.cell) * strideX;
  for (int c = 0; c < 3; c++)
    out[c] = (float)reg_sumNeighbourhood(q + c, gx.weight, gy.weight, gz.weight, strideX, strideY,
                                         strideZ);
}

void RegVoxelCubicSplineTransform::getTransformedGridLandmark(int* l, QbVec3f& out,
                                                              const QbDVector<double>& p) const {
  const RegSplineInterpolant& gx = landmarkInterpolantsX[l[0]];
  const RegSplineInterpolant& gy = landmarkInterpolantsY[l[0]];
  const RegSplineInterpolant& gz = landmarkInterpolantsZ[l[0]];
  const double* q = p.data() + gx.cell * strideX + gy.cell * strideY + gz.cell * strideZ;
  if (is2D) {
    // The single layer of a flat lattice: the 4 x 4 sum in its plane.
    for (int c = 0; c < 3; c++) {
      double sum = 0.0;
      for (int m = 0; m < 4; m++)
        for (int k = 0; k < 4; k++)
          sum += gx.weight[k] * gy.weight[m] * q[c + k * strideX + m * strideY];
      out[c] = (float)sum;
    }
    return;
  }
  for (int c = 0; c < 3; c++)
    out[c] = (float)reg_sumNeighbourhood(q + c, gx.weight, gy.weight, gz.weight, strideX, strideY,
                                         strideZ);
}

void RegVoxelCubicSplineTransform::getTransformedGridSequence(
    QbVec3f* out, QbVec3d* dxx, QbVec3d* dyy, QbVec3d* dzz, QbVec3d* dxy, QbVec3d* dxz,
    QbVec3d* dyz, QbVec3d* dx, QbVec3d* dy, QbVec3d* dz, int numPoints, int* v) const {
  getTransformedGridSequence(out, dxx, dyy, dzz, dxy, dxz, dyz, dx, dy, dz, numPoints, v,
                             paramVector);
}

void RegVoxelCubicSplineTransform::getTransformedGridSequence(
    QbVec3f* out, QbVec3d* dxx, QbVec3d* dyy, QbVec3d* dzz, QbVec3d* dxy, QbVec3d* dxz,
    QbVec3d* dyz, QbVec3d* dx, QbVec3d* dy, QbVec3d* dz, int numPoints, int* v,
    const QbDVector<double>& p) const {
  const bool first = dx && dy && dz;
  const bool second = dxx && dyy && dzz && dxy && dxz && dyz;
  const RegSplineInterpolant* gx = interpolantsX;
  const RegSplineInterpolant& By = interpolantsY[v[1]];
  const RegSplineInterpolant& Bz = interpolantsZ[v[2]];
  const int nx = gridSize[0], ny = gridSize[1], nvx = numVoxels[0];
  const int x0 = v[0], end = x0 + numPoints;
  if (numPoints <= 0 || x0 >= nvx)
    return;

  // Products of the y and z weights, index n * 4 + m (n for z, m for y).
  double S[16], Sy[16], Sz[16], Syz[16], Syy[16], Szz[16];
  for (int n = 0; n < 4; n++)
    for (int m = 0; m < 4; m++) {
      const int i = n * 4 + m;
      S[i] = By.weight[m] * Bz.weight[n];
      if (first || second) {
        Sy[i] = By.weight1[m] * Bz.weight[n];
        Sz[i] = By.weight[m] * Bz.weight1[n];
      }
      if (second) {
        Syz[i] = By.weight1[m] * Bz.weight1[n];
        Syy[i] = By.weight2[m] * Bz.weight[n];
        Szz[i] = By.weight[m] * Bz.weight2[n];
      }
    }

  // Reduced columns, 3 doubles per column. The scratch is fixed; a row that
  // needs more columns than it holds (a lattice wider than maxSequenceColumns)
  // is done in chunks of runs, so that any width is served without
  // allocation and without writing past the arrays.
  const int cap = maxSequenceColumns;
  double phi[3 * maxSequenceColumns], phiY[3 * maxSequenceColumns], phiZ[3 * maxSequenceColumns];
  double phiYZ[3 * maxSequenceColumns], phiYY[3 * maxSequenceColumns],
      phiZZ[3 * maxSequenceColumns];

  const int c0 = gx[x0].cell;
  const double* row = p.data() + ((Bz.cell * ny + By.cell) * nx + c0) * 3;
  const int colsInRow = nx - c0;
  const int(*off)[4] = neighbourOffset[0];

  int xi = x0;
  int consumed = 0; // columns of the row already behind the present chunk
  // The end of the range is looked at only between runs: a range that ends
  // inside a run is completed to the end of that run. The walk also ends at
  // the end of the table.
  while (xi < end && xi < nvx) {
    const int xs = xi;
    int runs = 0;
    while (xi < end && xi < nvx && runs < cap - 3) {
      do
        ++xi;
      while (xi < nvx && gx[xi].cell == gx[xi - 1].cell);
      ++runs;
    }
    const int xe = xi;
    // Column q is used by the run q with its three successors.
    const int cols = runs + 3;
    const int valid = std::max(0, std::min(cols, colsInRow - consumed));
    const double* src = row + 3 * consumed;
    reg_evaluateSequenceColumns(phi, src, S, off, valid, cols);
    if (first || second) {
      reg_evaluateSequenceColumns(phiY, src, Sy, off, valid, cols);
      reg_evaluateSequenceColumns(phiZ, src, Sz, off, valid, cols);
    }
    if (second) {
      reg_evaluateSequenceColumns(phiYZ, src, Syz, off, valid, cols);
      reg_evaluateSequenceColumns(phiYY, src, Syy, off, valid, cols);
      reg_evaluateSequenceColumns(phiZZ, src, Szz, off, valid, cols);
    }

    // Positions. q moves by one at every change of cell.
    {
      int q = 0;
      for (int x = xs; x < xe; x++) {
        if (x > xs && gx[x].cell != gx[x - 1].cell)
          q++;
        const double* w = gx[x].weight;
        const double* ph = phi + 3 * q;
        QbVec3f& o = out[x - x0];
        o.x = (float)reg_evaluateSequenceVoxel(w, ph, 0);
        o.y = (float)reg_evaluateSequenceVoxel(w, ph, 1);
        o.z = (float)reg_evaluateSequenceVoxel(w, ph, 2);
      }
    }
    if (first) {
      int q = 0;
      for (int x = xs; x < xe; x++) {
        if (x > xs && gx[x].cell != gx[x - 1].cell)
          q++;
        const double* wa = gx[x].weight;
        const double* wb = gx[x].weight1;
        const int i = x - x0;
        for (int c = 0; c < 3; c++) {
          dx[i][c] = reg_evaluateSequenceVoxel(wb, phi + 3 * q, c);
          dy[i][c] = reg_evaluateSequenceVoxel(wa, phiY + 3 * q, c);
          dz[i][c] = reg_evaluateSequenceVoxel(wa, phiZ + 3 * q, c);
        }
      }
    }
    if (second) {
      int q = 0;
      for (int x = xs; x < xe; x++) {
        if (x > xs && gx[x].cell != gx[x - 1].cell)
          q++;
        const double* wa = gx[x].weight;
        const double* wb = gx[x].weight1;
        const double* wc = gx[x].weight2;
        const int i = x - x0;
        for (int c = 0; c < 3; c++) {
          dxx[i][c] = reg_evaluateSequenceVoxel(wc, phi + 3 * q, c);
          dyy[i][c] = reg_evaluateSequenceVoxel(wa, phiYY + 3 * q, c);
          dzz[i][c] = reg_evaluateSequenceVoxel(wa, phiZZ + 3 * q, c);
          dxy[i][c] = reg_evaluateSequenceVoxel(wb, phiY + 3 * q, c);
          dxz[i][c] = reg_evaluateSequenceVoxel(wb, phiZ + 3 * q, c);
          dyz[i][c] = reg_evaluateSequenceVoxel(wa, phiYZ + 3 * q, c);
        }
      }
    }
    consumed += runs;
  }
}

void RegVoxelCubicSplineTransform::getTransformedGridComplete(QbVec3f* out, QbVec3f* passX,
                                                              QbVec3f* passY) const {
  const int nx = gridSize[0], ny = gridSize[1], nz = gridSize[2];
  const int nvx = numVoxels[0], nvy = numVoxels[1], nvz = numVoxels[2];
  const int dim = dimension < 3 ? dimension : 3;
  const double* p = paramVector.data();
  const RegSplineInterpolant* gx = interpolantsX;
  const RegSplineInterpolant* gy = interpolantsY;
  const RegSplineInterpolant* gz = interpolantsZ;
  // Each term is added in double and the sum narrowed to float at once.
  // Pass 1: along x, for every control row.
  for (int k = 0; k < nz; k++)
    for (int j = 0; j < ny; j++) {
      const double* prow = p + (k * ny + j) * nx * 3;
      QbVec3f* dst = passX + (size_t)(k * ny + j) * nvx;
      for (int x = 0; x < nvx; x++) {
        const double* w = gx[x].weight;
        const double* q = prow + 3 * gx[x].cell;
        float acc[3] = {0.0f, 0.0f, 0.0f};
        for (int c = 0; c < dim; c++)
          for (int l = 0; l < 4; l++)
            acc[c] = (float)(acc[c] + w[l] * q[3 * l + c]);
        dst[x].setValue(acc[0], acc[1], acc[2]);
      }
    }
  // Pass 2: along y, for every control layer.
  for (int k = 0; k < nz; k++)
    for (int y = 0; y < nvy; y++) {
      const double* w = gy[y].weight;
      const float* s = (const float*)(passX + (size_t)(k * ny + gy[y].cell) * nvx);
      float* dst = (float*)(passY + (size_t)(k * nvy + y) * nvx);
      const size_t rowLen = 3 * (size_t)nvx;
      for (int x = 0; x < nvx; x++) {
        float acc[3] = {0.0f, 0.0f, 0.0f};
        for (int c = 0; c < dim; c++)
          for (int l = 0; l < 4; l++)
            acc[c] = (float)(acc[c] + w[l] * s[l * rowLen + 3 * x + c]);
        dst[3 * x] = acc[0];
        dst[3 * x + 1] = acc[1];
        dst[3 * x + 2] = acc[2];
      }
    }
  if (is2D)
    return;
  // Pass 3: along z, all three coordinates.
  const size_t plane = (size_t)nvx * nvy;
  for (int z = 0; z < nvz; z++) {
    const double* w = gz[z].weight;
    const float* s = (const float*)(passY + (size_t)gz[z].cell * plane);
    float* dst = (float*)(out + (size_t)z * plane);
    const size_t n = 3 * plane;
    const double w0 = w[0], w1 = w[1], w2 = w[2], w3 = w[3];
    const float *s0 = s, *s1 = s + n, *s2 = s + 2 * n, *s3 = s + 3 * n;
    for (size_t e = 0; e < n; e++) {
      float acc = (float)(w0 * s0[e]);
      acc = (float)(acc + w1 * s1[e]);
      acc = (float)(acc + w2 * s2[e]);
      acc = (float)(acc + w3 * s3[e]);
      dst[e] = acc;
    }
  }
}

void RegVoxelCubicSplineTransform::getTransformedGridCompleteWithRegularization2D(
    QbVec3f* passX, QbVec3d* passXdx, QbVec3f* out, QbVec3d* dx, QbVec3d* dy, QbVec3d* passXdxx,
    QbVec3d* dxx, QbVec3d* dyy, QbVec3d* dxy) const {
  const int nx = gridSize[0], ny = gridSize[1], nz = gridSize[2];
  const int nvx = numVoxels[0], nvy = numVoxels[1];
  const int dim = dimension < 3 ? dimension : 3;
  const double* p = paramVector.data();
  const RegSplineInterpolant* gx = interpolantsX;
  const RegSplineInterpolant* gy = interpolantsY;
  for (int k = 0; k < nz; k++)
    for (int j = 0; j < ny; j++) {
      const double* prow = p + (k * ny + j) * nx * 3;
      const size_t o = (size_t)(k * ny + j) * nvx;
      for (int x = 0; x < nvx; x++) {
        const RegSplineInterpolant& g = gx[x];
        const double* q = prow + 3 * g.cell;
        double s0[3] = {0, 0, 0}, s1[3] = {0, 0, 0}, s2[3] = {0, 0, 0};
        for (int c = 0; c < dim; c++)
          for (int l = 0; l < 4; l++) {
            s0[c] += g.weight[l] * q[3 * l + c];
            s1[c] += g.weight1[l] * q[3 * l + c];
            s2[c] += g.weight2[l] * q[3 * l + c];
          }
        passX[o + x].setValue((float)s0[0], (float)s0[1], (float)s0[2]);
        passXdx[o + x].setValue(s1[0], s1[1], s1[2]);
        passXdxx[o + x].setValue(s2[0], s2[1], s2[2]);
      }
    }
  for (int k = 0; k < nz; k++)
    for (int y = 0; y < nvy; y++) {
      const RegSplineInterpolant& By = gy[y];
      const size_t src = (size_t)(k * ny + By.cell) * nvx;
      const size_t dst = (size_t)(k * nvy + y) * nvx;
      for (int x = 0; x < nvx; x++) {
        double t[3] = {0, 0, 0}, tx[3] = {0, 0, 0}, ty[3] = {0, 0, 0};
        double txx[3] = {0, 0, 0}, tyy[3] = {0, 0, 0}, txy[3] = {0, 0, 0};
        for (int c = 0; c < dim; c++)
          for (int m = 0; m < 4; m++) {
            const size_t e = src + (size_t)m * nvx + x;
            const double px = passX[e][c], pdx = passXdx[e][c], pdxx = passXdxx[e][c];
            t[c] += By.weight[m] * px;
            tx[c] += By.weight[m] * pdx;
            ty[c] += By.weight1[m] * px;
            txx[c] += By.weight[m] * pdxx;
            tyy[c] += By.weight2[m] * px;
            txy[c] += By.weight1[m] * pdx;
          }
        out[dst + x].setValue((float)t[0], (float)t[1], (float)t[2]);
        dx[dst + x].setValue(tx[0], tx[1], tx[2]);
        dy[dst + x].setValue(ty[0], ty[1], ty[2]);
        dxx[dst + x].setValue(txx[0], txx[1], txx[2]);
        dyy[dst + x].setValue(tyy[0], tyy[1], tyy[2]);
        dxy[dst + x].setValue(txy[0], txy[1], txy[2]);
      }
    }
}

namespace {

// delta times the basis column of one control point along an axis, for the
// indices from..to in runs of equal cell: the column starts at min(3, i) and
// goes down by one at each change of cell. Columns below 0 (a region wider
// than the point's four cells) get 0.
inline void reg_incrementalColumn(const RegSplineInterpolant* g, int from, int to, int i,
                                  float delta, float* b0, float* b1, float* b2) {
  int w = std::min(3, i);
  for (int x = from; x <= to; x++) {
    if (x > from && g[x].cell != g[x - 1].cell)
      w--;
    const bool ok = w >= 0 && w < 4;
    b0[x - from] = ok ? (float)(delta * g[x].weight[w]) : 0.0f;
    if (b1)
      b1[x - from] = ok ? (float)(delta * g[x].weight1[w]) : 0.0f;
    if (b2)
      b2[x - from] = ok ? (float)(delta * g[x].weight2[w]) : 0.0f;
  }
}

} // namespace

void RegVoxelCubicSplineTransform::getIncrementalRow(int idx, const int* voi, float delta,
                                                     float* row) const {
  reg_incrementalColumn(interpolantsX, voi[0], voi[1], (idx / 3) % gridSize[0], delta, row, nullptr,
                        nullptr);
}

void RegVoxelCubicSplineTransform::getTransformedGridIncremental(int idx, QbVec3f* out,
                                                                 const QbVec3f* base,
                                                                 const int* voi, float* bufXY,
                                                                 float* bufX, float delta) const {
  getTransformedGridIncremental(paramVector, idx, out, base, voi, bufXY, bufX, delta);
}

void RegVoxelCubicSplineTransform::getTransformedGridIncremental(const QbDVector<double>&, int idx,
                                                                 QbVec3f* out, const QbVec3f* base,
                                                                 const int* voi, float* bufXY,
                                                                 float* bufX, float delta) const {
  const int nx = gridSize[0], ny = gridSize[1];
  const int nvx = numVoxels[0], nvy = numVoxels[1];
  const int c = idx % 3;
  const int cp = idx / 3;
  const int i = cp % nx, j = (cp / nx) % ny, k = cp / (nx * ny);
  const int x0 = voi[0], x1 = voi[1], y0 = voi[2], y1 = voi[3], z0 = voi[4], z1 = voi[5];
  const int w = x1 - x0 + 1;
  if (w <= 0 || y1 < y0)
    return;
  // The start column min(3, i) is exact for the full support; with the narrow
  // support of fast mode it is one too high for i >= 3, an approximation that
  // belongs to that mode.
  reg_incrementalColumn(interpolantsX, x0, x1, i, delta, bufX, nullptr, nullptr);
  {
    int wy = std::min(3, j);
    for (int y = y0; y <= y1; y++) {
      if (y > y0 && interpolantsY[y].cell != interpolantsY[y - 1].cell)
        wy--;
      const double f = (wy >= 0 && wy < 4) ? interpolantsY[y].weight[wy] : 0.0;
      float* dst = bufXY + (size_t)(y - y0) * w;
      for (int x = 0; x < w; x++)
        dst[x] = (float)(bufX[x] * f);
    }
  }
  // With a model transformation the base grid holds local positions, and a
  // world move of coordinate c moves them along row c of the inverse model
  // matrix, not along local axis c: all three coordinates then change.
  double dir[3];
  getLocalDirection(c, dir);
  const bool along = !modelTransformed;
  if (!is2D) {
    int wz = std::min(3, k);
    for (int z = z0; z <= z1; z++) {
      if (z > z0 && interpolantsZ[z].cell != interpolantsZ[z - 1].cell)
        wz--;
      const double f = (wz >= 0 && wz < 4) ? interpolantsZ[z].weight[wz] : 0.0;
      for (int y = y0; y <= y1; y++) {
        const QbVec3f* b = base + ((size_t)z * nvy + y) * nvx + x0;
        const float* inc = bufXY + (size_t)(y - y0) * w;
        if (along) {
          for (int x = 0; x < w; x++) {
            QbVec3f o = b[x];
            o[c] = (float)(o[c] + inc[x] * f);
            *out++ = o;
          }
        } else {
          for (int x = 0; x < w; x++) {
            const double m = inc[x] * f;
            QbVec3f o = b[x];
            o.x = (float)(o.x + m * dir[0]);
            o.y = (float)(o.y + m * dir[1]);
            o.z = (float)(o.z + m * dir[2]);
            *out++ = o;
          }
        }
      }
    }
  } else {
    // z is not deformed in 2-D; the third float of the output is not written.
    for (int y = y0; y <= y1; y++) {
      const QbVec3f* b = base + (size_t)y * nvx + x0;
      const float* inc = bufXY + (size_t)(y - y0) * w;
      for (int x = 0; x < w; x++, out++) {
        out->x = b[x].x;
        out->y = b[x].y;
        if (along) {
          if (c < 2)
            (*out)[c] += inc[x];
        } else {
          out->x = (float)(out->x + inc[x] * dir[0]);
          out->y = (float)(out->y + inc[x] * dir[1]);
        }
      }
    }
  }
}

void RegVoxelCubicSplineTransform::getTransformedGridIncrementalWithRegularization2D(
    int idx, const QbVec3f* base, QbVec3f* out, const QbVec3d* baseDx, QbVec3d* outDx,
    const QbVec3d* baseDy, QbVec3d* outDy, const QbVec3d* baseDxx, QbVec3d* outDxx,
    const QbVec3d* baseDyy, QbVec3d* outDyy, const QbVec3d* baseDxy, QbVec3d* outDxy,
    const int* voi, float* bufT, float* bufDx, float* bufDy, float* bufDxx, float* bufDyy,
    float* bufDxy, float* bufX, float* bufX1, float* bufX2, float delta) const {
  getTransformedGridIncrementalWithRegularization2D(
      paramVector, idx, base, out, baseDx, outDx, baseDy, outDy, baseDxx, outDxx, baseDyy, outDyy,
      baseDxy, outDxy, voi, bufT, bufDx, bufDy, bufDxx, bufDyy, bufDxy, bufX, bufX1, bufX2, delta);
}

void RegVoxelCubicSplineTransform::getTransformedGridIncrementalWithRegularization2D(
    const QbDVector<double>&, int idx, const QbVec3f* base, QbVec3f* out, const QbVec3d* baseDx,
    QbVec3d* outDx, const QbVec3d* baseDy, QbVec3d* outDy, const QbVec3d* baseDxx, QbVec3d* outDxx,
    const QbVec3d* baseDyy, QbVec3d* outDyy, const QbVec3d* baseDxy, QbVec3d* outDxy,
    const int* voi, float* bufT, float* bufDx, float* bufDy, float* bufDxx, float* bufDyy,
    float* bufDxy, float* bufX, float* bufX1, float* bufX2, float delta) const {
  const int nx = gridSize[0], ny = gridSize[1];
  const int nvx = numVoxels[0];
  const int c = idx % 3;
  const int cp = idx / 3;
  const int i = cp % nx, j = (cp / nx) % ny;
  const int x0 = voi[0], x1 = voi[1], y0 = voi[2], y1 = voi[3];
  const int w = x1 - x0 + 1;
  if (w <= 0 || y1 < y0)
    return;
  reg_incrementalColumn(interpolantsX, x0, x1, i, delta, bufX, bufX1, bufX2);
  int wy = std::min(3, j);
  for (int y = y0; y <= y1; y++) {
    const RegSplineInterpolant& g = interpolantsY[y];
    if (y > y0 && g.cell != interpolantsY[y - 1].cell)
      wy--;
    const bool ok = wy >= 0 && wy < 4;
    const double f0 = ok ? g.weight[wy] : 0.0, f1 = ok ? g.weight1[wy] : 0.0,
                 f2 = ok ? g.weight2[wy] : 0.0;
    const size_t o = (size_t)(y - y0) * w;
    for (int x = 0; x < w; x++) {
      bufT[o + x] = (float)(bufX[x] * f0);
      bufDx[o + x] = (float)(bufX1[x] * f0);
      bufDy[o + x] = (float)(bufX[x] * f1);
      bufDxx[o + x] = (float)(bufX2[x] * f0);
      bufDyy[o + x] = (float)(bufX[x] * f2);
      bufDxy[o + x] = (float)(bufX1[x] * f1);
    }
  }
  // z is not deformed in 2-D. With a model transformation the images hold
  // local positions and derivatives, which a world move of coordinate c
  // changes along row c of the inverse model matrix.
  double dir[3];
  getLocalDirection(c, dir);
  const bool along = !modelTransformed;
  const bool add = c < 2;
  size_t e = 0;
  for (int y = y0; y <= y1; y++) {
    const size_t b = (size_t)y * nvx + x0;
    for (int x = 0; x < w; x++, e++) {
      const size_t s = b + x;
      out[e].x = base[s].x, out[e].y = base[s].y;
      outDx[e].x = baseDx[s].x, outDx[e].y = baseDx[s].y;
      outDy[e].x = baseDy[s].x, outDy[e].y = baseDy[s].y;
      outDxx[e].x = baseDxx[s].x, outDxx[e].y = baseDxx[s].y;
      outDyy[e].x = baseDyy[s].x, outDyy[e].y = baseDyy[s].y;
      outDxy[e].x = baseDxy[s].x, outDxy[e].y = baseDxy[s].y;
      if (along) {
        if (add) {
          out[e][c] += bufT[e];
          outDx[e][c] += bufDx[e];
          outDy[e][c] += bufDy[e];
          outDxx[e][c] += bufDxx[e];
          outDyy[e][c] += bufDyy[e];
          outDxy[e][c] += bufDxy[e];
        }
        continue;
      }
      for (int a = 0; a < 2; a++) {
        out[e][a] = (float)(out[e][a] + bufT[e] * dir[a]);
        outDx[e][a] += bufDx[e] * dir[a];
        outDy[e][a] += bufDy[e] * dir[a];
        outDxx[e][a] += bufDxx[e] * dir[a];
        outDyy[e][a] += bufDyy[e] * dir[a];
        outDxy[e][a] += bufDxy[e] * dir[a];
      }
    }
  }
}

void RegVoxelCubicSplineTransform::getJacobianDeterminant(const QbDVector<double>& p,
                                                          QbDVector<double>& out, const QbVec3i& v,
                                                          int count) const {
  const RegSplineInterpolant& gy = interpolantsY[v.y];
  const RegSplineInterpolant& gz = interpolantsZ[v.z];
  const int nx = gridSize[0], ny = gridSize[1];
  const double* q = p.data() + ((gz.cell * ny + gy.cell) * nx + interpolantsX[v.x].cell) * strideX;
  const double scale = (double)(invGridSpacing[0] * invGridSpacing[1] * invGridSpacing[2]);
  for (int n = 0; n < count; n++) {
    const int x = v.x + n;
    const RegSplineInterpolant& gx = interpolantsX[x];
    if (n > 0 && gx.cell != interpolantsX[x - 1].cell)
      q += strideX;
    double J[3][3] = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
    for (int kz = 0; kz < 4; kz++)
      for (int jy = 0; jy < 4; jy++) {
        const double wyz = gy.weight[jy] * gz.weight[kz];
        const double w1y = gy.weight1[jy] * gz.weight[kz];
        const double w1z = gy.weight[jy] * gz.weight1[kz];
        for (int c = 0; c < 3; c++) {
          const double* col = q + neighbourOffset[c][kz][jy];
          for (int l = 0; l < 4; l++) {
            const double pv = col[l * strideX];
            J[0][c] += gx.weight1[l] * wyz * pv;
            J[1][c] += gx.weight[l] * w1y * pv;
            J[2][c] += gx.weight[l] * w1z * pv;
          }
        }
      }
    const double det = J[0][0] * J[1][1] * J[2][2] + J[0][1] * J[1][2] * J[2][0] +
                       J[0][2] * J[1][0] * J[2][1] - J[2][0] * J[1][1] * J[0][2] -
                       J[2][1] * J[0][0] * J[1][2] - J[2][2] * J[0][1] * J[1][0];
    out[n] = scale * det;
  }
}

double RegVoxelCubicSplineTransform::getJacobianConstraint() const {
  const int nvx = numVoxels[0], nvy = numVoxels[1], nvz = numVoxels[2];
  QbDVector<double> row(nvx);
  double sum = 0.0;
  for (int z = 0; z < nvz; z++)
    for (int y = 0; y < nvy; y++) {
      getJacobianDeterminant(paramVector, row, QbVec3i(0, y, z), nvx);
      for (int x = 0; x < nvx; x++) {
        // Relative to the rest state, whose sign a reflecting model
        // transformation turns.
        const double J = row[x] / modelVolumeScale;
        if (J <= 0.0)
          return -3.4028234663852886e+38; // a fold: the invalid value
        sum += std::fabs(std::log(J));
      }
    }
  return sum / (double)(nvy * nvx * nvz);
}
