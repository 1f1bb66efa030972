#include "RegVoxelLinearSplineTransform.h"
#include "ZrLandmarkSet.h"
#include "ZrRegScalarField3.h"
#include "qbmalloc.h"
#include <algorithm>
#include <cstring>

namespace {

template <class PosFn>
RegLinearSplineInterpolant* reg_buildLinearTable(RegLinearSplineInterpolant* old, int n, PosFn pos,
                                                 float min, float inv, int limit) {
  qbfree(old);
  RegLinearSplineInterpolant* t =
      (RegLinearSplineInterpolant*)qbmalloc(sizeof(RegLinearSplineInterpolant) * (n > 0 ? n : 1));
  for (int v = 0; v < n; v++) {
    const float u = (pos(v) - min) * inv;
    const int cell = std::min(limit, (int)u);
    t[v].cell = cell;
    t[v].frac = u - float(cell);
    t[v].invFrac = 1.0f - t[v].frac;
  }
  return t;
}

// Trilinear sum over the cell whose lower corner q points to. A weight of
// exactly 0 skips its side, so that the last point of a lattice, whose upper
// neighbour does not exist, is never read beyond the parameters.
inline double reg_trilinear(const double* q, double tx, double ty, double tz, int sx, int sy,
                            int sz) {
  auto lerpX = [&](const double* r) { return tx == 0.0 ? r[0] : (1 - tx) * r[0] + tx * r[sx]; };
  auto lerpY = [&](const double* r) {
    return ty == 0.0 ? lerpX(r) : (1 - ty) * lerpX(r) + ty * lerpX(r + sy);
  };
  return tz == 0.0 ? lerpY(q) : (1 - tz) * lerpY(q) + tz * lerpY(q + sz);
}

} // namespace

RegVoxelLinearSplineTransform::RegVoxelLinearSplineTransform(bool fast)
    : RegSplineTransform(3, fast) {}

RegVoxelLinearSplineTransform::~RegVoxelLinearSplineTransform() {
  qbfree(linearX);
  qbfree(linearY);
  qbfree(linearZ);
}

void RegVoxelLinearSplineTransform::setReference(ZrSpatialData* reference) {
  referenceField = static_cast<ZrRegScalarField3*>(reference);
  const int* d = referenceField->getDims();
  numVoxels[0] = d[0];
  numVoxels[1] = d[1];
  numVoxels[2] = d[2];
  RegSplineTransform::setReference(reference);
}

void RegVoxelLinearSplineTransform::getGridSpacing() {
  for (int a = 0; a < 3; a++) {
    const float extent = interpolatedSpaceBoundary[2 * a + 1] - interpolatedSpaceBoundary[2 * a];
    gridSpacing[a] = extent / float(gridSize[a] - 1);
    invGridSpacing[a] = float(gridSize[a] - 1) / extent;
  }
}

ZrLandmarkSet* RegVoxelLinearSplineTransform::createControlPoints(ZrLandmarkSet*) {
  RegSplineTransform::createControlPoints(nullptr);
  const float* b = interpolatedSpaceBoundary;
  for (int k = 0; k < gridSize[2]; k++)
    for (int j = 0; j < gridSize[1]; j++)
      for (int i = 0; i < gridSize[0]; i++)
        controlPoints->appendLandmark(QbVec3f(i * gridSpacing[0] + b[0], j * gridSpacing[1] + b[2],
                                              k * gridSpacing[2] + b[4]));
  controlPoints2Params();
  controlPoints->touch();
  controlPoints->fire();
  return controlPoints;
}

void RegVoxelLinearSplineTransform::precomputeInterpolants() {
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
  linearX =
      reg_buildLinearTable(linearX, numVoxels[0], posX, b[0], invGridSpacing[0], gridSize[0] - 2);
  linearY =
      reg_buildLinearTable(linearY, numVoxels[1], posY, b[2], invGridSpacing[1], gridSize[1] - 2);
  linearZ =
      reg_buildLinearTable(linearZ, numVoxels[2], posZ, b[4], invGridSpacing[2], gridSize[2] - 2);
}

void RegVoxelLinearSplineTransform::getTransformedGrid(int* v, QbVec3f& out,
                                                       const QbDVector<double>& p) const {
  const RegLinearSplineInterpolant& gx = linearX[v[0]];
  const RegLinearSplineInterpolant& gy = linearY[v[1]];
  const RegLinearSplineInterpolant& gz = linearZ[v[2]];
  const int nx = gridSize[0], ny = gridSize[1];
  const double* q = p.data() + ((gz.cell * ny + gy.cell) * nx + gx.cell) * strideX;
  const double tx = gx.frac, ty = gy.frac, tz = gz.frac;
  const double ux = gx.invFrac, uy = gy.invFrac, uz = gz.invFrac;
  for (int c = 0; c < 3; c++) {
    const double* r = q + c;
    const double s =
        uz * (uy * (ux * r[0] + tx * r[strideX]) + ty * (ux * r[strideY] + tx * r[strideXY])) +
        tz * (uy * (ux * r[strideZ] + tx * r[strideXZ]) +
              ty * (ux * r[strideYZ] + tx * r[strideXYZ]));
    out[c] = (float)s;
  }
}

void RegVoxelLinearSplineTransform::getTransformedGridSequence(QbVec3f* out, int numPoints,
                                                               int* v) const {
  getTransformedGridSequence(out, numPoints, v, paramVector);
}

void RegVoxelLinearSplineTransform::getTransformedGridSequence(QbVec3f* out, int numPoints, int* v,
                                                               const QbDVector<double>& p) const {
  for (int n = 0; n < numPoints; n++, out++, v[0]++)
    getTransformedGrid(v, *out, p);
}

void RegVoxelLinearSplineTransform::getTransformedGridComplete(QbVec3f*, float**, float**) const {}

void RegVoxelLinearSplineTransform::getVolumeOfInfluence(int idx, float* from, float* to,
                                                         int) const {
  const int nx = gridSize[0], ny = gridSize[1];
  const int cp = idx / strideX;
  const int ijk[3] = {cp % nx, (cp / nx) % ny, cp / nx / ny};
  const RegLinearSplineInterpolant* tables[3] = {linearX, linearY, linearZ};
  for (int a = 0; a < 3; a++) {
    const RegLinearSplineInterpolant* g = tables[a];
    const int n = numVoxels[a];
    int f = 0;
    while (f < n && g[f].cell < ijk[a] - 1)
      f++;
    int e = f;
    while (e < n && g[e].cell <= ijk[a])
      e++;
    from[a] = (float)f;
    to[a] = (float)(e - 1);
  }
}

void RegVoxelLinearSplineTransform::refineNoInterpolants(int f) {
  const int n[3] = {gridSize[0], gridSize[1], gridSize[2]};
  int nn[3];
  for (int a = 0; a < 3; a++)
    nn[a] = (n[a] - 1) * f + 1;
  QbDVector<double> fine(3 * nn[0] * nn[1] * nn[2]);
  const double* p = paramVector.data();
  double* d = fine.data();
  for (int k = 0; k < nn[2]; k++)
    for (int j = 0; j < nn[1]; j++)
      for (int i = 0; i < nn[0]; i++, d += 3) {
        const double tx = (float)(i % f) / (float)f;
        const double ty = (float)(j % f) / (float)f;
        const double tz = (float)(k % f) / (float)f;
        const double* q = p + (i / f) * strideX + (j / f) * strideY + (k / f) * strideZ;
        for (int c = 0; c < 3; c++)
          d[c] = reg_trilinear(q + c, tx, ty, tz, strideX, strideY, strideZ);
      }
  setControlGridSize(nn[0], nn[1], nn[2]);
  std::memcpy(paramVector.data(), fine.data(), sizeof(double) * fine.size());
  for (int a = 0; a < 3; a++) {
    gridSpacing[a] = (interpolatedSpaceBoundary[2 * a + 1] - interpolatedSpaceBoundary[2 * a]) /
                     float(nn[a] - 1);
    invGridSpacing[a] = 1.0f / gridSpacing[a];
  }
}
