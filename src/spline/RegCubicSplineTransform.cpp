#include "RegCubicSplineTransform.h"
#include "ZrLandmarkSet.h"
#include "ZrSpatialData.h"
#include "qbmalloc.h"
#include <algorithm>
#include <cstdio>
#include <cstring>

RegCubicSplineTransform::RegCubicSplineTransform(int dim, bool fast)
    : RegSplineTransform(dim, fast) {
  std::memset(neighbourOffset, 0, sizeof(neighbourOffset));
}

void RegCubicSplineTransform::setModel(ZrSpatialData* model) {
  RegSplineTransform::setModel(model);
  if (!model || !model->getTransform(false))
    return;
  // The penalties measure the deformation in the model's local coordinates,
  // where a lattice at rest has the determinant of the inverse model matrix
  // (1 / s^3 for a scale s, negative for a reflection), not the product of
  // the model's scale factors: that product would make the rest state cost
  // 6 ln s per voxel and pull the deformation towards growth. In 2-D only
  // the x-y block counts, as z keeps its world value.
  const SbMatrix& m = modelInverseMatrix;
  if (dimension == 3)
    modelVolumeScale = m.det3();
  else
    modelVolumeScale = (double)m[0][0] * m[1][1] - (double)m[0][1] * m[1][0];
}

void RegCubicSplineTransform::updateNeighbourOffset() {
  for (int c = 0; c < 3; c++)
    for (int k = 0; k < 4; k++)
      for (int j = 0; j < 4; j++)
        neighbourOffset[c][k][j] = k * strideZ + c + j * strideY;
}

void RegCubicSplineTransform::getGridSpacing() {
  // n points span n - 3 cells across the box.
  for (int a = 0; a < dimension; a++) {
    const float extent = interpolatedSpaceBoundary[2 * a + 1] - interpolatedSpaceBoundary[2 * a];
    gridSpacing[a] = extent / float(gridSize[a] - 3);
    invGridSpacing[a] = float(gridSize[a] - 3) / extent;
  }
  updateNeighbourOffset();
}

ZrLandmarkSet* RegCubicSplineTransform::createControlPoints(ZrLandmarkSet* set) {
  ZrLandmarkSet* target = set;
  if (!set)
    target = RegSplineTransform::createControlPoints(nullptr);
  const float* b = interpolatedSpaceBoundary;
  const float x0 = b[0] - gridSpacing[0];
  const float y0 = b[2] - gridSpacing[1];
  // In 2-D the single layer lies at half the z extent (the midpoint for a box
  // that starts at 0).
  const float z0 = dimension == 3 ? b[4] - gridSpacing[2] : (b[5] - b[4]) * 0.5f;
  // Positions advance by repeated float addition along each axis.
  float z = z0;
  for (int k = 0; k < gridSize[2]; k++, z += gridSpacing[2]) {
    float y = y0;
    for (int j = 0; j < gridSize[1]; j++, y += gridSpacing[1]) {
      float x = x0;
      for (int i = 0; i < gridSize[0]; i++, x += gridSpacing[0])
        target->appendLandmark(QbVec3f(x, y, z));
    }
  }
  if (!set)
    controlPoints2Params();
  target->touch();
  target->fire();
  return controlPoints;
}

void RegCubicSplineTransform::getRestPositions(QbDVector<double>& rest) const {
  rest.resize(3 * getNumControlPoints());
  const float* b = interpolatedSpaceBoundary;
  const float x0 = b[0] - gridSpacing[0];
  const float y0 = b[2] - gridSpacing[1];
  const float z0 = dimension == 3 ? b[4] - gridSpacing[2] : (b[5] - b[4]) * 0.5f;
  int n = 0;
  float z = z0;
  for (int k = 0; k < gridSize[2]; k++, z += gridSpacing[2]) {
    float y = y0;
    for (int j = 0; j < gridSize[1]; j++, y += gridSpacing[1]) {
      float x = x0;
      for (int i = 0; i < gridSize[0]; i++, x += gridSpacing[0], n += 3) {
        rest[n] = x;
        rest[n + 1] = y;
        rest[n + 2] = z;
      }
    }
  }
}

void RegCubicSplineTransform::moveToBoundary(const float box[6]) {
  QbDVector<double> before, after;
  getRestPositions(before);
  for (int i = 0; i < 6; i++)
    interpolatedSpaceBoundary[i] = box[i];
  getGridSpacing();
  getRestPositions(after);
  const int n = std::min(paramVector.size(), after.size());
  for (int i = 0; i < n; i++)
    paramVector[i] += after[i] - before[i];
}

void RegCubicSplineTransform::refineNoInterpolants(int factor) {
  if (factor != 2) {
    fprintf(stderr, "WARNING: Cannot refine spline warps by factors other than 2.\n");
    return;
  }
  const int* n = gridSize;
  int nn[3];
  float newSpacing[3] = {gridSpacing[0], gridSpacing[1], gridSpacing[2]};
  for (int a = 0; a < 3; a++) {
    if (a < dimension) {
      nn[a] = 2 * n[a] - 3;
      newSpacing[a] = (interpolatedSpaceBoundary[2 * a + 1] - interpolatedSpaceBoundary[2 * a]) /
                      float(nn[a] - 3);
    } else {
      nn[a] = 1;
    }
  }
  const int total = 3 * nn[0] * nn[1] * nn[2];
  double* buf = (double*)qbmalloc(sizeof(double) * (total > 0 ? total : 1));
  const double* p = paramVector.data();
  const bool threeD = dimension == 3;
  double* out = buf;
  for (int k = 0; k < nn[2]; k++)
    for (int j = 0; j < nn[1]; j++)
      for (int i = 0; i < nn[0]; i++)
        for (int c = 0; c < 3; c++) {
          // New odd index 2m - 1 coincides with old point m; even index 2m lies
          // between old points m and m + 1.
          const int base = ((i + 1) / 2) * strideX + ((j + 1) / 2) * strideY +
                           (threeD ? ((k + 1) / 2) * strideZ : 0) + c;
          // Stage x, in double, stored as float; a[dk + 1][dj + 1].
          float a[3][3];
          const int dkFrom = threeD ? ((k & 1) ? -1 : 0) : 0;
          const int dkTo = threeD ? 1 : 0;
          const int djFrom = (j & 1) ? -1 : 0;
          for (int dk = dkFrom; dk <= dkTo; dk++)
            for (int dj = djFrom; dj <= 1; dj++) {
              const int q = base + dk * strideZ + dj * strideY;
              if (i & 1)
                a[dk + 1][dj + 1] = (float)((6.0 * p[q] + p[q - strideX] + p[q + strideX]) * 0.125);
              else
                a[dk + 1][dj + 1] = (float)((p[q] + p[q + strideX]) * 0.5);
            }
          // Stage y, in float.
          float bv[3];
          for (int dk = dkFrom; dk <= dkTo; dk++) {
            const float* r = a[dk + 1];
            if (j & 1)
              bv[dk + 1] = (6.0f * r[1] + r[0] + r[2]) * 0.125f;
            else
              bv[dk + 1] = (r[1] + r[2]) * 0.5f;
          }
          // Stage z, in float.
          float result;
          if (!threeD)
            result = bv[1];
          else if (k & 1)
            result = (6.0f * bv[1] + bv[0] + bv[2]) * 0.125f;
          else
            result = (bv[1] + bv[2]) * 0.5f;
          *out++ = result;
        }
  try {
    setControlGridSize(nn[0], nn[1], nn[2]);
  } catch (...) {
    qbfree(buf);
    throw;
  }
  std::memcpy(paramVector.data(), buf, sizeof(double) * total);
  qbfree(buf);
  for (int a = 0; a < dimension; a++) {
    gridSpacing[a] = newSpacing[a];
    invGridSpacing[a] = 1.0f / gridSpacing[a];
  }
  updateNeighbourOffset();
}

double RegCubicSplineTransform::getGridEnergy(const double* p) const {
  // Basis at a knot for the neighbours -1, 0, +1: value, first and second
  // derivative, in lattice units.
  const double sp[3] = {1.0 / 6.0, 2.0 / 3.0, 1.0 / 6.0};
  const double dsp[3] = {-0.5, 0.0, 0.5};
  const double ddsp[3] = {1.0, -2.0, 1.0};
  double dxx[3] = {0, 0, 0}, dyy[3] = {0, 0, 0}, dzz[3] = {0, 0, 0};
  double dxy[3] = {0, 0, 0}, dyz[3] = {0, 0, 0}, dxz[3] = {0, 0, 0};
  for (int g = 0; g < 3; g++) {
    const double* pz = p + (g - 1) * strideZ;
    for (int b = 0; b < 3; b++) {
      const double* py = pz + (b - 1) * strideY;
      for (int a = 0; a < 3; a++) {
        const double* q = py + (a - 1) * strideX;
        const double wxx = ddsp[a] * sp[b] * sp[g];
        const double wyy = sp[a] * ddsp[b] * sp[g];
        const double wzz = sp[a] * sp[b] * ddsp[g];
        const double wxy = dsp[a] * dsp[b] * sp[g];
        const double wyz = sp[a] * dsp[b] * dsp[g];
        const double wxz = dsp[a] * sp[b] * dsp[g];
        for (int c = 0; c < 3; c++) {
          const double v = q[c];
          dxx[c] += wxx * v;
          dyy[c] += wyy * v;
          dzz[c] += wzz * v;
          dxy[c] += wxy * v;
          dyz[c] += wyz * v;
          dxz[c] += wxz * v;
        }
      }
    }
  }
  auto sq = [](const double* d) { return d[0] * d[0] + d[1] * d[1] + d[2] * d[2]; };
  const float fx = invGridSpacing[0], fy = invGridSpacing[1], fz = invGridSpacing[2];
  // Each squared second derivative is scaled by the product of two inverse
  // spacings: this is the energy's defined scale.
  return (double)(fx * fx) * sq(dxx) + (double)(fy * fy) * sq(dyy) + (double)(fz * fz) * sq(dzz) +
         2.0 * ((double)(fx * fy) * sq(dxy) + (double)(fy * fz) * sq(dyz) +
                (double)(fx * fz) * sq(dxz));
}

double RegCubicSplineTransform::getGridEnergy(const QbDVector<double>& v) const {
  const int nx = gridSize[0], ny = gridSize[1], nz = gridSize[2];
  double sum = 0.0;
  if (nz - 1 >= 2) {
    const double* pk = v.data() + strideX + strideY + strideZ;
    for (int k = 1; k < nz - 1; k++, pk += strideZ) {
      const double* pj = pk;
      for (int j = 1; j < ny - 1; j++, pj += strideY) {
        const double* pi = pj;
        for (int i = 1; i < nx - 1; i++, pi += strideX)
          sum += getGridEnergy(pi);
      }
    }
  }
  return sum / (double)((ny - 2) * (nx - 2) * (nz - 2));
}
