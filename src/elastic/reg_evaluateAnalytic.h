#pragma once
// Inner loops of the analytic elastic gradient: the exact derivative of the
// objective with respect to every control-point coordinate, in one pass over
// the reference voxels.
//
// At voxel v the objective changes with its model sample s(v) at the rate
// dF/ds (the metric's slope, from the statistics of the caching pass), the
// sample with its position T(v) at the rate of the model's gradient there
// (the trilinear interpolant's own, exactly as the sampler interpolates), and
// T(v) with the local control point k at the rate of the spline's basis
// product B_k(v). The penalties add their derivatives with respect to the
// first and second derivatives of T, whose basis products take weight1 and
// weight2 in place of weight on one or two axes. So every voxel adds a few
// 3-vectors, each with its own kind of basis product, into the 4 x 4 x 4
// control points around it.
//
// The basis products are separable, and the sums are taken the way the
// spline is evaluated, in reverse: along a line of voxels (fixed y and z)
// the vectors are summed per lattice column with the x weights; at the end
// of the line the columns go into the rows of the slice with the y weights;
// at the end of the slice the rows go into four lattice layers with the z
// weights. A voxel thus costs 4 x 3 multiply-adds per kind of vector, not
// 64 x 3.
//
// Work units are z slices (rows in two dimensions); each unit writes its own
// block of four lattice layers (rows), and the blocks are added up in unit
// order afterwards, so the result does not depend on how many threads ran.
// Nothing here allocates; the voxel type, the metric's slope and the model's
// gradient are template parameters.
#include "QbVec3d.h"
#include "QbVec3f.h"
#include "RegCorrelationRatio.h"
#include "RegElasticFunctional.h"
#include "RegMutualInformation.h"
#include "RegSplineInterpolant.h"
#include "RegVoxelCubicSplineTransform.h"
#include "ZrVoxelValue.h"
#include "reg_evaluateElastic.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

// The kinds of vector a voxel adds, by the derivative order of the basis on
// y and z: the metric's and the Jacobian's Tx terms and the energy's Txx term
// go with (0, 0), Ty and Txy with (1, 0), Tz and Txz with (0, 1), Tyy with
// (2, 0), Tzz with (0, 2), Tyz with (1, 1). Within a kind the x order is
// carried by which of weight, weight1, weight2 multiplies the vector.
enum RegAnalyticGroup { REG_G00, REG_G10, REG_G01, REG_G20, REG_G02, REG_G11, REG_GROUPS };
const int reg_analyticGroupY[REG_GROUPS] = {0, 1, 0, 2, 0, 1};
const int reg_analyticGroupZ[REG_GROUPS] = {0, 0, 1, 0, 2, 1};

// The reference's bin and its two weights for each value of a voxel type of
// at most 16 bits, made once per pass: the reference does not move, and
// binning it per voxel would cost as much as the rest of the histogram.
struct RegAnalyticRefBin {
  int bin;
  double w0, w1;
};

// The reference bin of a voxel: from the table where there is one (`base`
// is the table's lowest value), else computed.
template <class T>
inline void reg_analyticRefBin(const RegAnalyticRefBin* table, int base, T raw, double r,
                               double min, double scale, int n, int& i, double& a0, double& a1) {
  if (table) {
    const RegAnalyticRefBin& b = table[(int)raw - base];
    i = b.bin;
    a0 = b.w0;
    a1 = b.w1;
  } else {
    RegMutualInformation::binOf(r, min, scale, n, i, a0, a1);
  }
}

// Slope of mutual information and its normalised form with respect to one
// model sample, through the soft bin weights. With h the histogram, a sample
// of reference bin i (weights a0, a1) and model position t between bins j and
// j + 1 moves weight from bin j to bin j + 1 at the rate `scale`, so
//   dF/ds = -scale / N * (a0 G(i, j) + a1 G(i + 1, j)),
//   G(i, j) = alpha (ln m(j + 1) - ln m(j)) - beta (ln h(i, j + 1) - ln h(i, j)),
// with m the model's marginal, alpha = beta = w for mutual information and
// alpha = w / Hj, beta = F / Hj for the normalised form. `slope` holds G.
// A sample exactly on a bin centre has the mean of its two one-sided slopes.
struct RegAnalyticHistogramSlope {
  const double* slope = nullptr;
  double refMin = 0, refScale = 0, modelMin = 0, modelScale = 0;
  int nRef = 0, nMod = 0;
  double factor = 0;
  const RegAnalyticRefBin* refTable = nullptr;
  int refBase = 0;
  template <class T> inline double operator()(T raw, double r, double s) const {
    double t = (s - modelMin) * modelScale;
    // Below the first and at or above the last bin the weights are constant.
    if (!(t >= 0.0 && t < (double)(nMod - 1)))
      return 0.0;
    int i;
    double a0, a1;
    reg_analyticRefBin(refTable, refBase, raw, r, refMin, refScale, nRef, i, a0, a1);
    const int j = (int)t;
    const double* g = slope + (size_t)i * nMod + j;
    double d = a0 * g[0] + a1 * g[nMod];
    if (t == (double)j && j > 0)
      d = 0.5 * (d + a0 * g[-1] + a1 * g[nMod - 1]);
    return factor * d;
  }
};

// Slope of minus the mean squared difference: 2 w (r - s) / n.
struct RegAnalyticSquaredSlope {
  double factor = 0;
  template <class T> inline double operator()(T, double r, double s) const {
    return factor * (r - s);
  }
};

// Slope of the absolute correlation w |c|, c = cov / sqrt(varR varM), for a
// sample inside both windows: w sign(c) ((r - meanR) / sqrt(varR varM) -
// c (s - meanM) / varM). Samples outside a window do not enter the sums.
struct RegAnalyticCorrelationSlope {
  double refLow = 0, refHigh = 0, modelLow = 0, modelHigh = 0;
  double refMean = 0, modelMean = 0, k1 = 0, k2 = 0;
  template <class T> inline double operator()(T, double r, double s) const {
    if (!(r >= refLow && r <= refHigh && s >= modelLow && s <= modelHigh))
      return 0.0;
    return k1 * (r - refMean) - k2 * (s - modelMean);
  }
};

// Derivatives of the trilinear interpolant with respect to the fractions of
// its cell, from the corners c000, c100, c010, c110, c011, c111, c001, c101
// (the sampler's order).
inline void reg_trilinearSlope(const float* c, double fx, double fy, double fz, double* d) {
  const double e0 = c[0] + (c[1] - c[0]) * fx, e1 = c[6] + (c[7] - c[6]) * fx;
  const double e2 = c[2] + (c[3] - c[2]) * fx, e3 = c[4] + (c[5] - c[4]) * fx;
  const double x0 = (double)c[1] - c[0], x1 = (double)c[7] - c[6];
  const double x2 = (double)c[3] - c[2], x3 = (double)c[5] - c[4];
  const double x4 = x0 + (x2 - x0) * fy, x5 = x1 + (x3 - x1) * fy;
  d[0] = x4 + (x5 - x4) * fz;
  const double y0 = e2 - e0, y1 = e3 - e1;
  d[1] = y0 + (y1 - y0) * fz;
  d[2] = (e1 + (e3 - e1) * fy) - (e0 + (e2 - e0) * fy);
}

// A uniform model's raw voxels as the metric's trilinear sampler reads them:
// positions are clamped into the lattice, and along a clamped axis the sample
// does not change. value() is the sampler's arithmetic, in single precision;
// slope() the gradient with respect to the position, false where it is 0.
template <class T> struct RegAnalyticVoxelModel {
  const T* data = nullptr;
  float box[6] = {0, 0, 0, 0, 0, 0};
  int dims[3] = {0, 0, 0};
  float scale[3] = {0, 0, 0};

  // Corner of the cell, offsets to the upper neighbours, fractions, and
  // which axes are not clamped.
  inline const T* cell(const QbVec3f& point, float* fr, int64_t* step, bool* moves) const {
    const float pt[3] = {point.x, point.y, point.z};
    const int64_t nx = dims[0], ny = dims[1], nz = dims[2];
    // Inside the lattice, away from its upper faces, no axis is clamped.
    const float p0 = (pt[0] - box[0]) * scale[0], p1 = (pt[1] - box[2]) * scale[1],
                p2 = (pt[2] - box[4]) * scale[2];
    if (p0 >= 0 && p1 >= 0 && p2 >= 0 && p0 < (float)(dims[0] - 1) && p1 < (float)(dims[1] - 1) &&
        p2 < (float)(dims[2] - 1)) {
      const int v0 = (int)p0, v1 = (int)p1, v2 = (int)p2;
      fr[0] = p0 - (float)v0;
      fr[1] = p1 - (float)v1;
      fr[2] = p2 - (float)v2;
      moves[0] = moves[1] = moves[2] = true;
      step[0] = 1;
      step[1] = nx;
      step[2] = nx * ny;
      return data + ((int64_t)v2 * ny + v1) * nx + v0;
    }
    int vs[3];
    for (int a = 0; a < 3; a++) {
      float p = (pt[a] - box[2 * a]) * scale[a];
      int v = (int)p;
      moves[a] = true;
      if (p < 0) {
        v = 0;
        p = 0;
        moves[a] = false;
      } else if (v + 1 >= dims[a]) {
        v = dims[a] - 1;
        p = (float)v;
        moves[a] = false;
      }
      vs[a] = v;
      fr[a] = p - (float)v;
    }
    step[0] = vs[0] + 1 < nx ? 1 : 0;
    step[1] = vs[1] + 1 < ny ? nx : 0;
    step[2] = vs[2] + 1 < nz ? nx * ny : 0;
    return data + ((int64_t)vs[2] * ny + vs[1]) * nx + vs[0];
  }
  static inline void corners(const T* p, const int64_t* st, float* c) {
    RegMetric::loadCorners(p, st[0], st[1], st[2], c);
  }
  inline float value(const QbVec3f& point) const {
    float fr[3], c[8], e[6];
    int64_t st[3];
    bool moves[3];
    corners(cell(point, fr, st, moves), st, c);
    RegMetric::lerpX(c, fr[0], e);
    RegMetric::lerpY(e, fr[1]);
    return RegMetric::lerpZ(e, fr[2]);
  }
  inline bool slope(const QbVec3f& point, double* g) const {
    float fr[3], c[8];
    int64_t st[3];
    bool moves[3];
    const T* p = cell(point, fr, st, moves);
    if (!(moves[0] || moves[1] || moves[2]))
      return false;
    corners(p, st, c);
    // A cell of one value (the background) has no slope.
    if (c[0] == c[1] && c[0] == c[2] && c[0] == c[3] && c[0] == c[4] && c[0] == c[5] &&
        c[0] == c[6] && c[0] == c[7])
      return false;
    double d[3];
    reg_trilinearSlope(c, fr[0], fr[1], fr[2], d);
    for (int a = 0; a < 3; a++)
      g[a] = moves[a] ? d[a] * (double)scale[a] : 0.0;
    return g[0] != 0.0 || g[1] != 0.0 || g[2] != 0.0;
  }
};

// A uniform model as its field evaluator interpolates it: a point outside
// the box of the nodes reads 0 and has no gradient; inside, the cell and
// fractions follow the evaluator's location, and the value its trilinear
// kernel (combined in the type's accumulator type).
template <class T> struct RegAnalyticFieldModel {
  typedef typename ZrVoxelValue<T>::Acc Acc;
  const T* data = nullptr;
  float box[6] = {0, 0, 0, 0, 0, 0};
  int dims[3] = {0, 0, 0};
  double inv[3] = {0, 0, 0};
  int lastCell[3] = {0, 0, 0};
  int64_t step[3] = {0, 0, 0};

  inline const T* cell(const QbVec3f& point, float* fr) const {
    const float pt[3] = {point.x, point.y, point.z};
    if (!(pt[0] >= box[0] && pt[0] <= box[1] && pt[1] >= box[2] && pt[1] <= box[3] &&
          pt[2] >= box[4] && pt[2] <= box[5]))
      return nullptr;
    int c[3];
    for (int a = 0; a < 3; a++) {
      const double f = ((double)pt[a] - (double)box[2 * a]) * inv[a];
      int i = (int)f;
      if (i > lastCell[a])
        i = lastCell[a];
      double u = f - (double)i;
      u = u > 1.0 ? 1.0 : (u < 0.0 ? 0.0 : u);
      c[a] = i;
      fr[a] = (float)u;
    }
    return data + ((int64_t)c[2] * dims[1] + c[1]) * dims[0] + c[0];
  }
  inline float value(const QbVec3f& point) const {
    float fr[3];
    const T* q = cell(point, fr);
    if (!q)
      return 0.0f;
    const int64_t ox = step[0], oy = step[1], oz = step[2];
    const Acc u = fr[0], v = fr[1], w = fr[2];
    const Acc a00 = Acc(q[0]) + u * (Acc(q[ox]) - Acc(q[0]));
    const Acc a10 = Acc(q[oy]) + u * (Acc(q[oy + ox]) - Acc(q[oy]));
    const Acc a01 = Acc(q[oz]) + u * (Acc(q[oz + ox]) - Acc(q[oz]));
    const Acc a11 = Acc(q[oz + oy]) + u * (Acc(q[oz + oy + ox]) - Acc(q[oz + oy]));
    const Acc b0 = a00 + v * (a10 - a00);
    const Acc b1 = a01 + v * (a11 - a01);
    return float(b0 + w * (b1 - b0));
  }
  inline bool slope(const QbVec3f& point, double* g) const {
    float fr[3];
    const T* p = cell(point, fr);
    if (!p)
      return false;
    const int64_t sx = step[0], sy = step[1], sz = step[2];
    const float c[8] = {(float)p[0],       (float)p[sx],           (float)p[sy], (float)p[sy + sx],
                        (float)p[sy + sz], (float)p[sy + sz + sx], (float)p[sz], (float)p[sz + sx]};
    double d[3];
    reg_trilinearSlope(c, fr[0], fr[1], fr[2], d);
    for (int a = 0; a < 3; a++)
      g[a] = d[a] * inv[a];
    return g[0] != 0.0 || g[1] != 0.0 || g[2] != 0.0;
  }
};

// The statistics of one block of a value pass, added up as the metrics' own
// increment() does. Mutual information: the soft-binned joint histogram.
struct RegAnalyticHistogramSum {
  double* hist = nullptr;
  double refMin = 0, refScale = 0, modelMin = 0, modelScale = 0;
  int nRef = 0, nMod = 0;
  const RegAnalyticRefBin* refTable = nullptr;
  int refBase = 0;
  int64_t inside = 0, total = 0;
  template <class T> inline void add(T raw, double r, double s) {
    int i, j;
    double a0, a1, b0, b1;
    reg_analyticRefBin(refTable, refBase, raw, r, refMin, refScale, nRef, i, a0, a1);
    const double t = (s - modelMin) * modelScale;
    if (t >= 0.0 && t < (double)(nMod - 1)) {
      // binOf's result where no clamp applies.
      j = (int)t;
      b1 = t - (double)j;
      b0 = 1.0 - b1;
    } else {
      RegMutualInformation::binOf(s, modelMin, modelScale, nMod, j, b0, b1);
    }
    RegMutualInformation::addWeights(hist, nMod, i, j, a0, a1, b0, b1, 1.0);
    inside++;
    total++;
  }
};

// Squared difference: minus the sum of squared differences.
struct RegAnalyticSquaredSum {
  double sum = 0;
  int64_t inside = 0, total = 0;
  template <class T> inline void add(T, double r, double s) {
    const double d = r - s;
    sum -= d * d;
    inside++;
    total++;
  }
};

// Correlation: the sums of the values less the metric's offsets, of the
// samples inside both windows.
struct RegAnalyticCorrelationSum {
  double refLow = 0, refHigh = 0, modelLow = 0, modelHigh = 0, refOffset = 0, modelOffset = 0;
  double aa = 0, bb = 0, ab = 0, a = 0, b = 0;
  int64_t inside = 0, total = 0;
  template <class T> inline void add(T, double r, double s) {
    total++;
    if (!(r >= refLow && r <= refHigh && s >= modelLow && s <= modelHigh))
      return;
    const double x = r - refOffset, y = s - modelOffset;
    aa += x * x;
    bb += y * y;
    ab += x * y;
    a += x;
    b += y;
    inside++;
  }
};

// What one pass reads: the voxels and caches of the functional, the spline's
// tables, and the penalty factors. The buffers are the functional's own.
struct RegAnalyticPass {
  const int* dims = nullptr;
  // Samples of the caching pass; in two dimensions also its positions
  // (`grid`, every voxel): three-dimensional passes compute them line by
  // line.
  const float* cachedSamples = nullptr;
  const QbVec3f* grid = nullptr;
  // Two-dimensional regularised pass: the whole derivative images.
  const QbVec3d *dX = nullptr, *dY = nullptr, *dXX = nullptr, *dYY = nullptr, *dXY = nullptr;
  const RegVoxelCubicSplineTransform* transform = nullptr;
  const RegSplineInterpolant *gx = nullptr, *gy = nullptr, *gz = nullptr;
  int ncx = 0, ncy = 0;
  bool is2D = false;
  bool wantE = false, wantJ = false;
  // -weight / n of each penalty: the objective adds weight * (-sum) / n.
  double energyFactor = 0, jacobianFactor = 0;
  RegElasticPenalty penalty;
  // The reference value reaches the metric in single precision (regular
  // class) or as it is (general class).
  bool refAsFloat = false;
  // Three dimensions: the voxels taken, every stride-th along each axis
  // from 0.
  int stride = 1;

  explicit RegAnalyticPass(const RegElasticPenalty& penalty) : penalty(penalty) {}
};

// Scratch of one thread.
struct RegAnalyticScratch {
  // REG_GROUPS blocks of ncx * 3 column sums.
  double* columns = nullptr;
  // Three blocks (z order 0, 1, 2) of ncy * ncx * 3 row sums.
  double* rows = nullptr;
  // The slice's lattice reduced along z (ncy * ncx * 3; zplaneOf names the
  // slice it holds, -1 none), and a line's columns reduced along y and z
  // (ncx * 3).
  double* zplane = nullptr;
  int zplaneOf = -1;
  double* phi = nullptr;
  // One line of positions, and of derivatives (three-dimensional regularised).
  QbVec3f* line = nullptr;
  QbVec3d *dx = nullptr, *dy = nullptr, *dz = nullptr, *dxx = nullptr, *dyy = nullptr,
          *dzz = nullptr, *dxy = nullptr, *dxz = nullptr, *dyz = nullptr;
};

// Adds `u0` times the weights into the four columns of the voxel's x cell.
inline void reg_analyticAddColumns0(double* col, const RegSplineInterpolant& W, const double* u0) {
  for (int l = 0; l < 4; l++) {
    double* q = col + 3 * l;
    const double w0 = W.weight[l];
    q[0] += w0 * u0[0];
    q[1] += w0 * u0[1];
    q[2] += w0 * u0[2];
  }
}

// Adds w[l] * u into the four columns of the voxel's x cell, for the weight
// kinds given (weight, weight1 or weight2 of the voxel's row).
inline void reg_analyticAdd(double* col, const double* w, const QbVec3d& u) {
  for (int l = 0; l < 4; l++) {
    double* q = col + 3 * l;
    q[0] += w[l] * u.x;
    q[1] += w[l] * u.y;
    q[2] += w[l] * u.z;
  }
}

inline void reg_analyticAdd(double* col, const double* wa, const QbVec3d& ua, const double* wb,
                            const QbVec3d& ub) {
  for (int l = 0; l < 4; l++) {
    double* q = col + 3 * l;
    q[0] += wa[l] * ua.x + wb[l] * ub.x;
    q[1] += wa[l] * ua.y + wb[l] * ub.y;
    q[2] += wa[l] * ua.z + wb[l] * ub.z;
  }
}

// The penalty vectors of one voxel, added into the column sums of the line.
// a, b, c: Tx, Ty, Tz; the second derivatives as named. In two dimensions the
// third column is the constant (1, 1, 1), whose terms do not move.
inline void reg_analyticPenaltyVoxel(const RegAnalyticPass& P, double* columns,
                                     const RegSplineInterpolant& W, const QbVec3d& a,
                                     const QbVec3d& b, const QbVec3d& c, const QbVec3d* xx,
                                     const QbVec3d* yy, const QbVec3d* zz, const QbVec3d* xy,
                                     const QbVec3d* xz, const QbVec3d* yz) {
  const RegElasticPenalty& pen = P.penalty;
  const int stride = 3 * P.ncx;
  double* col = columns + 3 * W.cell;
  const double *w0 = W.weight, *w1 = W.weight1, *w2 = W.weight2;
  // The Jacobian term |ln R|, R the determinant relative to the lattice at
  // rest, moves with R at the rate sign(R - 1) / R, and R with the columns
  // a, b, c along b x c, c x a, a x b (times the factor of the relative
  // determinant).
  QbVec3d ja, jb, jc;
  if (P.wantJ) {
    const double det = pen.determinant(a, b, c);
    const double sign = det > 1.0 ? 1.0 : (det < 1.0 ? -1.0 : 0.0);
    const double dj = sign / det * pen.detFactor * P.jacobianFactor;
    ja = b.cross(c) * dj;
    jb = c.cross(a) * dj;
    jc = a.cross(b) * dj;
  }
  if (!P.wantE) {
    reg_analyticAdd(col + REG_G00 * stride, w1, ja);
    reg_analyticAdd(col + REG_G10 * stride, w0, jb);
    if (!P.is2D)
      reg_analyticAdd(col + REG_G01 * stride, w0, jc);
    return;
  }
  // The energy's terms: a squared second derivative weighted by k moves with
  // it at the rate 2 k times itself.
  const double f = P.energyFactor;
  const QbVec3d exx = *xx * (2.0 * pen.sxx * f), exy = *xy * (4.0 * pen.sxy * f);
  reg_analyticAdd(col + REG_G00 * stride, w1, ja, w2, exx);
  reg_analyticAdd(col + REG_G10 * stride, w0, jb, w1, exy);
  reg_analyticAdd(col + REG_G20 * stride, w0, *yy * (2.0 * pen.syy * f));
  if (P.is2D)
    return;
  reg_analyticAdd(col + REG_G01 * stride, w0, jc, w1, *xz * (4.0 * pen.sxz * f));
  reg_analyticAdd(col + REG_G02 * stride, w0, *zz * (2.0 * pen.szz * f));
  reg_analyticAdd(col + REG_G11 * stride, w0, *yz * (4.0 * pen.syz * f));
}

// A work unit of a pass (a slice, or a row in two dimensions) is one call
// into which everything of the voxel loop is inlined.
#define REG_ANALYTIC_UNIT __attribute__((noinline, flatten))

// Positions of the line (y, z) of a three-dimensional lattice into s.line,
// with the derivatives that the penalties need. Without derivatives the
// spline is summed here, separably: the slice's lattice reduced along z once
// per slice, each line's columns along y, and each voxel along x, 4 x 3
// products.
template <bool Regularized>
inline void reg_analyticLine(const RegAnalyticPass& P, int y, int z, RegAnalyticScratch& s) {
  if (Regularized) {
    int start[3] = {0, y, z};
    P.transform->getTransformedGridSequence(s.line, P.wantE ? s.dxx : nullptr, s.dyy, s.dzz, s.dxy,
                                            s.dxz, s.dyz, P.wantJ ? s.dx : nullptr, s.dy, s.dz,
                                            P.dims[0], start);
    return;
  }
  const RegVoxelCubicSplineTransform* t = P.transform;
  const int ncx = P.ncx, len = 3 * ncx;
  if (s.zplaneOf != z) {
    const RegSplineInterpolant& Bz = P.gz[z];
    const double* p = t->paramVector.data() + (size_t)Bz.cell * t->strideZ;
    const size_t plane = (size_t)P.ncy * len;
    for (size_t e = 0; e < plane; e++)
      s.zplane[e] = Bz.weight[0] * p[e] + Bz.weight[1] * p[e + t->strideZ] +
                    Bz.weight[2] * p[e + 2 * t->strideZ] + Bz.weight[3] * p[e + 3 * t->strideZ];
    s.zplaneOf = z;
  }
  const RegSplineInterpolant& By = P.gy[y];
  const double* r = s.zplane + (size_t)By.cell * len;
  for (int e = 0; e < len; e++)
    s.phi[e] = By.weight[0] * r[e] + By.weight[1] * r[e + len] + By.weight[2] * r[e + 2 * len] +
               By.weight[3] * r[e + 3 * len];
  const int nx = P.dims[0];
  for (int x = 0; x < nx; x += P.stride) {
    const RegSplineInterpolant& W = P.gx[x];
    const double* q = s.phi + 3 * W.cell;
    const double w0 = W.weight[0], w1 = W.weight[1], w2 = W.weight[2], w3 = W.weight[3];
    s.line[x].x = (float)(w0 * q[0] + w1 * q[3] + w2 * q[6] + w3 * q[9]);
    s.line[x].y = (float)(w0 * q[1] + w1 * q[4] + w2 * q[7] + w3 * q[10]);
    s.line[x].z = (float)(w0 * q[2] + w1 * q[5] + w2 * q[8] + w3 * q[11]);
  }
}

// The value pass of one slice of a three-dimensional lattice: every voxel's
// sample into `stats` (and into `cache`, when given), and with Regularized
// the penalty terms into E and J (negated sums). Returns false at a fold.
template <class T, bool Regularized, class Model, class Stats>
REG_ANALYTIC_UNIT bool reg_evaluateAnalyticValueSlice(const RegAnalyticPass& P, const T* ref,
                                                      const Model& model, Stats& stats, int z,
                                                      RegAnalyticScratch& s, float* cache,
                                                      double& E, double& J) {
  const int nx = P.dims[0], ny = P.dims[1];
  const RegElasticPenalty& pen = P.penalty;
  for (int y = 0; y < ny; y += P.stride) {
    reg_analyticLine<Regularized>(P, y, z, s);
    const size_t v0 = ((size_t)z * ny + y) * nx;
    const T* r = ref + v0;
    for (int x = 0; x < nx; x += P.stride) {
      const float sample = model.value(s.line[x]);
      if (cache)
        cache[v0 + x] = sample;
      stats.add(r[x], P.refAsFloat ? (double)(float)r[x] : (double)r[x], (double)sample);
      if (!Regularized)
        continue;
      if (P.wantE)
        E -= pen.energy(s.dxx[x], s.dyy[x], s.dzz[x], s.dxy[x], s.dxz[x], s.dyz[x]);
      if (P.wantJ) {
        const double d = pen.determinant(s.dx[x], s.dy[x], s.dz[x]);
        if (d <= 0.0)
          return false;
        J -= pen.jacobian(d);
      }
    }
  }
  return true;
}

// The metric's vector of one voxel: dF/ds times the model's gradient at the
// voxel's position. Returns false when it is 0.
template <class T, class Slope, class Model>
inline bool reg_analyticMetricVoxel(const RegAnalyticPass& P, const T* ref, size_t v,
                                    const QbVec3f& position, const Slope& slope, const Model& model,
                                    double* columns, const RegSplineInterpolant& W) {
  const double r = P.refAsFloat ? (double)(float)ref[v] : (double)ref[v];
  const double dFds = slope(ref[v], r, (double)P.cachedSamples[v]);
  if (dFds == 0.0)
    return false;
  double g[3];
  if (!model.slope(position, g))
    return false;
  const double u[3] = {dFds * g[0], dFds * g[1], dFds * g[2]};
  reg_analyticAddColumns0(columns + 3 * W.cell, W, u);
  return true;
}

// Column sums of one line (y, z) into s.columns; returns false when the line
// added nothing. Regularized: the penalties' vectors too, with the
// derivatives from the images (two dimensions) or from the line recomputed
// (three dimensions).
template <class T, bool Regularized, class Slope, class Model>
inline bool reg_evaluateAnalyticLine(const RegAnalyticPass& P, const T* ref, const Slope& slope,
                                     const Model& model, int y, int z, RegAnalyticScratch& s) {
  const int nx = P.dims[0], ny = P.dims[1];
  const int groups = Regularized ? REG_GROUPS : 1;
  std::memset(s.columns, 0, sizeof(double) * 3 * P.ncx * groups);
  const size_t v0 = ((size_t)z * ny + y) * nx;
  const QbVec3f* positions = P.is2D ? P.grid + v0 : s.line;
  if (!P.is2D)
    reg_analyticLine<Regularized>(P, y, z, s);
  bool any = Regularized;
  const int step = P.is2D ? 1 : P.stride;
  for (int x = 0; x < nx; x += step) {
    const RegSplineInterpolant& W = P.gx[x];
    any |= reg_analyticMetricVoxel(P, ref, v0 + x, positions[x], slope, model, s.columns, W);
    if (!Regularized)
      continue;
    if (P.is2D) {
      const size_t v = v0 + x;
      const QbVec3d one(1.0, 1.0, 1.0);
      reg_analyticPenaltyVoxel(P, s.columns, W, P.dX[v], P.dY[v], one, P.dXX + v, P.dYY + v,
                               nullptr, P.dXY + v, nullptr, nullptr);
    } else {
      const QbVec3d zero;
      reg_analyticPenaltyVoxel(P, s.columns, W, P.wantJ ? s.dx[x] : zero, P.wantJ ? s.dy[x] : zero,
                               P.wantJ ? s.dz[x] : zero, s.dxx + x, s.dyy + x, s.dzz + x, s.dxy + x,
                               s.dxz + x, s.dyz + x);
    }
  }
  return any;
}

// Adds the column sums of group g of a line into its rows: rows[kz][j0 + m]
// += Wy[m] * columns, for the y and z orders of the group.
inline void reg_analyticColumnsToRows(const RegAnalyticPass& P, const double* columns, int g,
                                      const RegSplineInterpolant& By, double* rows, size_t rowBlock,
                                      int j0) {
  const int len = 3 * P.ncx;
  const double* col = columns + (size_t)g * len;
  const int ky = reg_analyticGroupY[g], kz = reg_analyticGroupZ[g];
  const double* wy = ky == 0 ? By.weight : (ky == 1 ? By.weight1 : By.weight2);
  double* blk = rows + (size_t)kz * rowBlock;
  for (int m = 0; m < 4; m++) {
    double* r = blk + (size_t)(j0 + m) * len;
    const double w = wy[m];
    for (int e = 0; e < len; e++)
      r[e] += w * col[e];
  }
}

// One work unit: slice z in three dimensions (out: four lattice layers from
// the slice's z cell on, ncy * ncx * 3 each), row y in two (out: four
// lattice rows from the row's y cell on, ncx * 3 each). out is overwritten.
template <class T, bool Regularized, class Slope, class Model>
REG_ANALYTIC_UNIT void reg_evaluateAnalyticUnit(const RegAnalyticPass& P, const T* ref,
                                                const Slope& slope, const Model& model, int unit,
                                                RegAnalyticScratch& s, double* out) {
  const int len = 3 * P.ncx;
  if (P.is2D) {
    // All groups of a flat lattice have z order 0.
    std::memset(out, 0, sizeof(double) * 4 * len);
    if (reg_evaluateAnalyticLine<T, Regularized>(P, ref, slope, model, unit, 0, s)) {
      const RegSplineInterpolant& By = P.gy[unit];
      reg_analyticColumnsToRows(P, s.columns, REG_G00, By, out, 0, 0);
      if (Regularized) {
        reg_analyticColumnsToRows(P, s.columns, REG_G10, By, out, 0, 0);
        reg_analyticColumnsToRows(P, s.columns, REG_G20, By, out, 0, 0);
      }
    }
    return;
  }
  const int ny = P.dims[1];
  const size_t rowBlock = (size_t)P.ncy * len;
  const int kinds = Regularized ? 3 : 1;
  if (unit % P.stride != 0) {
    std::memset(out, 0, sizeof(double) * 4 * rowBlock);
    return;
  }
  std::memset(s.rows, 0, sizeof(double) * rowBlock * kinds);
  for (int y = 0; y < ny; y += P.stride) {
    if (!reg_evaluateAnalyticLine<T, Regularized>(P, ref, slope, model, y, unit, s))
      continue;
    const RegSplineInterpolant& By = P.gy[y];
    for (int g = 0; g < (Regularized ? (int)REG_GROUPS : 1); g++)
      reg_analyticColumnsToRows(P, s.columns, g, By, s.rows, rowBlock, By.cell);
  }
  const RegSplineInterpolant& Bz = P.gz[unit];
  const double* r0 = s.rows;
  const double* r1 = s.rows + rowBlock;
  const double* r2 = s.rows + 2 * rowBlock;
  for (int n = 0; n < 4; n++) {
    double* layer = out + (size_t)n * rowBlock;
    const double w0 = Bz.weight[n], w1 = Bz.weight1[n], w2 = Bz.weight2[n];
    if (kinds == 1)
      for (size_t e = 0; e < rowBlock; e++)
        layer[e] = w0 * r0[e];
    else
      for (size_t e = 0; e < rowBlock; e++)
        layer[e] = w0 * r0[e] + w1 * r1[e] + w2 * r2[e];
  }
}
