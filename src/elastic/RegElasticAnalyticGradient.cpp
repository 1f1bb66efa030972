#include "RegElasticAnalyticGradient.h"

#include "RegCorrelationRatio.h"
#include "RegElasticFunctional.h"
#include "RegElasticFunctionalRegular.h"
#include "RegMeanSquaredDifference.h"
#include "RegNormMutualInformation.h"
#include "RegSimpleMutualInformation.h"
#include "RegVoxelCubicSplineTransform.h"
#include "ZrLandmarkSet.h"
#include "ZrRegScalarField3.h"
#include "ZrSettingsMgr.h"
#include "ZrWorkArea.h"
#include "reg_evaluateAnalytic.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <typeinfo>

namespace {

enum SlopeKind { SLOPE_HISTOGRAM, SLOPE_SQUARED, SLOPE_CORRELATION, SLOPE_NONE };

SlopeKind slopeKindOf(const RegMetric* m) {
  if (!m)
    return SLOPE_NONE;
  const std::type_info& t = typeid(*m);
  if (t == typeid(RegNormMutualInformation) || t == typeid(RegSimpleMutualInformation))
    return SLOPE_HISTOGRAM;
  if (t == typeid(RegMeanSquaredDifference))
    return SLOPE_SQUARED;
  if (t == typeid(RegCorrelationRatio))
    return SLOPE_CORRELATION;
  return SLOPE_NONE;
}

// The metrics' overlap factor: 1, or the covered fraction times 5 /
// maxCoverage when it falls below a fifth of maxCoverage. The counts do not
// move with the parameters, so neither does the factor.
double overlapFactor(const RegMetric* m) {
  const double f = (double)m->numInside / (double)m->numTotal;
  if (m->maxCoverage > 0 && f / m->maxCoverage < 0.2)
    return f * 5.0 / m->maxCoverage;
  return 1.0;
}

// ln of a histogram entry; an empty bin counts as holding 1e-12 of a sample,
// so that a sample next to it has a large but finite slope.
inline double logEntry(double h) { return std::log(h > 1e-12 ? h : 1e-12); }

// The slope table G of mutual information (see RegAnalyticHistogramSlope).
RegAnalyticHistogramSlope histogramSlope(RegMutualInformation* mi, QbDArray<double>& table) {
  RegAnalyticHistogramSlope s;
  const int nr = mi->numBinsRef, nm = mi->numBinsMod;
  s.nRef = nr;
  s.nMod = nm;
  s.refMin = mi->refMin;
  s.refScale = mi->refScale;
  s.modelMin = mi->modelMin;
  s.modelScale = mi->modelScale;
  const double n = (double)mi->numInside;
  table.resize(nr * nm);
  for (int k = 0; k < table.size(); k++)
    table[k] = 0.0;
  s.slope = table.data();
  if (n <= 0)
    return s;
  const double w = overlapFactor(mi);
  double alpha = w, beta = w;
  if (dynamic_cast<RegNormMutualInformation*>(mi)) {
    double hRef, hMod, hJoint;
    mi->getMarginalEntropies(hRef, hMod);
    mi->getJointEntropy(hJoint);
    alpha = w / hJoint;
    beta = w * (hRef + hMod) / (hJoint * hJoint);
  }
  const double* h = mi->histogram.data();
  QbDArray<double> column(nm);
  for (int j = 0; j < nm; j++)
    column[j] = 0.0;
  for (int i = 0; i < nr; i++)
    for (int j = 0; j < nm; j++)
      column[j] += h[(size_t)i * nm + j];
  for (int i = 0; i < nr; i++)
    for (int j = 0; j + 1 < nm; j++) {
      const double* e = h + (size_t)i * nm + j;
      table[i * nm + j] = alpha * (logEntry(column[j + 1]) - logEntry(column[j])) -
                          beta * (logEntry(e[1]) - logEntry(e[0]));
    }
  s.factor = -mi->modelScale / n;
  return s;
}

RegAnalyticSquaredSlope squaredSlope(const RegMeanSquaredDifference* m) {
  RegAnalyticSquaredSlope s;
  if (m->numInside > 0)
    s.factor = 2.0 / overlapFactor(m) / (double)m->numInside;
  return s;
}

// The correlation's sums are of values less its offsets; the slope works in
// the values themselves.
RegAnalyticCorrelationSlope correlationSlope(const RegCorrelationRatio* m) {
  RegAnalyticCorrelationSlope s;
  s.refLow = m->refLow;
  s.refHigh = m->refHigh;
  s.modelLow = m->modelLow;
  s.modelHigh = m->modelHigh;
  const double n = (double)m->numInside;
  if (n <= 0)
    return s;
  const double ma = m->sumRef / n, mb = m->sumModel / n;
  const double cov = m->sumProduct - n * ma * mb;
  const double va = m->sumRefSq - n * ma * ma, vb = m->sumModelSq - n * mb * mb;
  if (!(va > 0 && vb > 0))
    return s;
  const double root = std::sqrt(va * vb);
  const double c = cov / root;
  const double sign = c < 0 ? -1.0 : 1.0;
  const double w = overlapFactor(m);
  s.refMean = m->refOffset + ma;
  s.modelMean = m->modelOffset + mb;
  s.k1 = w * sign / root;
  s.k2 = w * sign * c / vb;
  return s;
}

} // namespace

RegElasticAnalyticGradient::~RegElasticAnalyticGradient() {}

bool RegElasticAnalyticGradient::isAvailable(const RegElasticFunctional& f, const char** why) {
  const char* reason = nullptr;
  const ZrRegScalarField3* model =
      f.models.size() > 0 ? dynamic_cast<const ZrRegScalarField3*>(f.models[0]) : nullptr;
  if (slopeKindOf(f.metric) == SLOPE_NONE)
    reason = "the metric has no derivative";
  else if (!dynamic_cast<const RegVoxelCubicSplineTransform*>(f.splineTransform))
    reason = "the transform is no cubic spline on voxels";
  else if (f.interpolator != RegInterpolatorStandard)
    reason = "the model is sampled at the nearest voxel";
  else if (!model || !model->lattice.coords() ||
           model->lattice.coords()->coordType() != ZR_COORD_UNIFORM)
    reason = "the model's coordinates are not uniform";
  if (why)
    *why = reason;
  return reason == nullptr;
}

int RegElasticAnalyticGradient::threadsToUse() const {
  const int n = numThreads > 0 ? numThreads : ZrSettingsMgr::getInstance()->getNumThreads();
  return n > 0 ? n : 1;
}

double RegElasticAnalyticGradient::evaluate(RegElasticFunctional& f, QbDVector<double>& gradient) {
  const bool regularized = f.regularizerMode >= 1 && f.regularizerMode <= 3;
  const double base = regularized ? f.evaluateAndCacheWithRegularizer() : f.evaluateAndCache();
  if (base == REG_INVALID_VALUE)
    return REG_INVALID_VALUE;
  if (f.fixLowEntropy && f.fixPending)
    f.updateFixedControlPoints();
  const int n = f.transform->getParamVectorDim();
  if (gradient.size() < n)
    gradient.resize(n);
  compute(f, gradient);
  if (ZrWorkArea::getTheWorkArea()->wasInterrupted(1))
    return REG_INVALID_VALUE;
  return base;
}

namespace {

// Runs the work units over the threads; each thread's scratch is carved from
// `scratch`, each unit's output from `out`.
template <class T, bool Regularized, class Slope, class Grad>
void runUnits(const RegAnalyticPass& P, const T* ref, const Slope& slope, const Grad& grad,
              int threads, QbDArray<double>& scratch, QbDArray<double>& out, size_t unitBlock) {
  const int units = P.is2D ? P.dims[1] : P.dims[2];
  const int nx = P.dims[0];
  const size_t columns = (size_t)REG_GROUPS * 3 * P.ncx;
  const size_t rows = (size_t)3 * P.ncy * 3 * P.ncx;
  // One line of positions (3 floats each, rounded up to doubles) and nine of
  // derivatives.
  const size_t line = Regularized && !P.is2D ? (size_t)nx * 2 + (size_t)9 * 3 * nx : 0;
  const size_t perThread = columns + rows + line;
  scratch.resize((int)(perThread * threads));
  out.resize((int)(unitBlock * units));
  double* scratchBase = scratch.data();
  double* outBase = out.data();
#pragma omp parallel num_threads(threads)
  {
    double* mine = scratchBase + perThread * (size_t)omp_get_thread_num();
    RegAnalyticScratch s;
    s.columns = mine;
    s.rows = mine + columns;
    if (line) {
      double* l = mine + columns + rows;
      s.line = reinterpret_cast<QbVec3f*>(l);
      QbVec3d* d = reinterpret_cast<QbVec3d*>(l + (size_t)nx * 2);
      QbVec3d** all[9] = {&s.dx, &s.dy, &s.dz, &s.dxx, &s.dyy, &s.dzz, &s.dxy, &s.dxz, &s.dyz};
      for (int k = 0; k < 9; k++)
        *all[k] = d + (size_t)k * nx;
    }
#pragma omp for schedule(dynamic, 1)
    for (int u = 0; u < units; u++)
      reg_evaluateAnalyticUnit<T, Regularized>(P, ref, slope, grad, u, s,
                                               outBase + unitBlock * (size_t)u);
  }
}

template <class T, class Grad>
void runWithGrad(const RegAnalyticPass& P, const T* ref, RegMetric* metric, const Grad& grad,
                 bool regularized, int threads, QbDArray<double>& scratch, QbDArray<double>& out,
                 size_t unitBlock, QbDArray<double>& table) {
  auto run = [&](const auto& slope) {
    if (regularized)
      runUnits<T, true>(P, ref, slope, grad, threads, scratch, out, unitBlock);
    else
      runUnits<T, false>(P, ref, slope, grad, threads, scratch, out, unitBlock);
  };
  switch (slopeKindOf(metric)) {
  case SLOPE_HISTOGRAM:
    run(histogramSlope(static_cast<RegMutualInformation*>(metric), table));
    break;
  case SLOPE_SQUARED:
    run(squaredSlope(static_cast<RegMeanSquaredDifference*>(metric)));
    break;
  case SLOPE_CORRELATION:
    run(correlationSlope(static_cast<RegCorrelationRatio*>(metric)));
    break;
  case SLOPE_NONE:
    abort();
  }
}

} // namespace

void RegElasticAnalyticGradient::compute(RegElasticFunctional& f, QbDVector<double>& gradient) {
  RegVoxelCubicSplineTransform* t = static_cast<RegVoxelCubicSplineTransform*>(f.splineTransform);
  RegElasticFunctionalRegular* regular = dynamic_cast<RegElasticFunctionalRegular*>(&f);
  const bool regularized = f.regularizerMode >= 1 && f.regularizerMode <= 3;
  const int numParams = t->getParamVectorDim();
  const int ncx = t->gridSize[0], ncy = t->gridSize[1], ncz = t->gridSize[2];

  RegAnalyticPass P(RegElasticPenalty(t->invGridSpacing, t->modelVolumeScale, f.is2D));
  P.dims = f.dims;
  P.cachedSamples = f.cachedSamples;
  P.grid = f.grid;
  P.dX = f.dX;
  P.dY = f.dY;
  P.dXX = f.dXX;
  P.dYY = f.dYY;
  P.dXY = f.dXY;
  P.transform = t;
  P.gx = t->interpolantsX;
  P.gy = t->interpolantsY;
  P.gz = t->interpolantsZ;
  P.ncx = ncx;
  P.ncy = ncy;
  P.is2D = f.is2D;
  P.wantE = regularized && f.energyWeight > 0;
  P.wantJ = regularized && f.jacobianWeight > 0;
  const int64_t count = regular ? regular->regularNumVoxels : f.numVoxels;
  if (regularized && count > 0) {
    P.energyFactor = -(double)f.energyWeight / (double)count;
    P.jacobianFactor = -(double)f.jacobianWeight / (double)count;
  }
  P.refAsFloat = regular != nullptr;

  const size_t plane = P.is2D ? (size_t)3 * ncx : (size_t)3 * ncx * ncy;
  const size_t unitBlock = 4 * plane;
  const int units = P.is2D ? f.dims[1] : f.dims[2];
  const int threads = std::max(1, std::min(threadsToUse(), units));

  // The three-dimensional regularised pass recomputes the lines from the
  // parameters, in the model's local coordinates as the caching pass did.
  const bool bracket = regularized && !f.is2D && t->modelTransformed;
  if (bracket)
    t->applyModelTransformInv();
  if (!qbDispatchVoxelType(f.primType, [&](auto tag) {
        typedef decltype(tag) T;
        const T* ref = (const T*)f.referenceVoxels;
        if (regular) {
          RegAnalyticVoxelSlope<T> grad;
          grad.data = (const T*)f.modelVoxels;
          for (int a = 0; a < 6; a++)
            grad.box[a] = regular->modelBox[a];
          for (int a = 0; a < 3; a++)
            grad.dims[a] = regular->modelDims[a];
          grad.scale[0] = regular->scaleX;
          grad.scale[1] = regular->scaleY;
          grad.scale[2] = regular->scaleZ;
          runWithGrad(P, ref, f.metric, grad, regularized, threads, scratch, unitOut, unitBlock,
                      slopeTable);
        } else {
          const ZrRegScalarField3* model = static_cast<const ZrRegScalarField3*>(f.models[0]);
          RegAnalyticFieldSlope<T> grad;
          grad.data = (const T*)model->lattice.dataPtr();
          model->getBoundingBox(grad.box);
          for (int a = 0; a < 3; a++) {
            const int d = model->getDims()[a];
            grad.dims[a] = d;
            const double extent = (double)grad.box[2 * a + 1] - (double)grad.box[2 * a];
            grad.inv[a] = (d > 1 && extent > 0.0) ? (double)(d - 1) / extent : 0.0;
            grad.lastCell[a] = d > 1 ? d - 2 : 0;
          }
          grad.step[0] = grad.dims[0] > 1 ? 1 : 0;
          grad.step[1] = grad.dims[1] > 1 ? grad.dims[0] : 0;
          grad.step[2] = grad.dims[2] > 1 ? (int64_t)grad.dims[0] * grad.dims[1] : 0;
          runWithGrad(P, ref, f.metric, grad, regularized, threads, scratch, unitOut, unitBlock,
                      slopeTable);
        }
      }))
    abort();
  if (bracket)
    t->applyModelTransform();

  // The units' blocks, added per lattice plane (z layer, or y row in two
  // dimensions) in the order of the units, whatever thread made them.
  sums.resize(numParams);
  double* g = sums.data();
  const int planes = P.is2D ? ncy : ncz;
  const RegSplineInterpolant* cells = P.is2D ? t->interpolantsY : t->interpolantsZ;
  const double* outBase = unitOut.data();
#pragma omp parallel for num_threads(threads) schedule(static)
  for (int k = 0; k < planes; k++) {
    double* dst = g + (size_t)k * plane;
    for (size_t e = 0; e < plane; e++)
      dst[e] = 0.0;
    for (int u = 0; u < units; u++) {
      const int c = cells[u].cell;
      if (k < c || k > c + 3)
        continue;
      const double* src = outBase + unitBlock * (size_t)u + (size_t)(k - c) * plane;
      for (size_t e = 0; e < plane; e++)
        dst[e] += src[e];
    }
  }

  // From the model's local coordinates to the world's: a local coordinate c
  // of a control point moves with its world coordinate a at the rate
  // modelInverseMatrix[a][c]. A flat lattice's positions do not depend on
  // its z coordinates.
  const int local = f.is2D ? 2 : 3;
  for (int p = 0; p < numParams; p += 3) {
    double l[3] = {g[p], g[p + 1], local == 3 ? g[p + 2] : 0.0};
    if (t->modelTransformed) {
      const SbMatrix& m = t->modelInverseMatrix;
      for (int a = 0; a < 3; a++) {
        double s = 0.0;
        for (int c = 0; c < local; c++)
          s += (double)m[a][c] * l[c];
        g[p + a] = s;
      }
    } else {
      g[p + 2] = l[2];
    }
  }

  // Landmarks: the term is w * -(1/L) sum |m - T(l)|^2 with T from the
  // parameters in world coordinates, so its derivative needs no mapping. The
  // landmark tables serve three-dimensional lattices only.
  if (f.numLandmarks != 0 && f.landmarkWeight > 0 && !f.is2D) {
    const double k = 2.0 * (double)f.landmarkWeight / (double)f.numLandmarks;
    for (int i = 0; i < f.numLandmarks; i++) {
      int li = i;
      QbVec3f p;
      t->getTransformedGridLandmark(&li, p, t->paramVector);
      const QbVec3f& m = (*f.landmarksModel)[i];
      const double d[3] = {k * (double)(m.x - p.x), k * (double)(m.y - p.y),
                           k * (double)(m.z - p.z)};
      const RegSplineInterpolant& bx = t->landmarkInterpolantsX[i];
      const RegSplineInterpolant& by = t->landmarkInterpolantsY[i];
      const RegSplineInterpolant& bz = t->landmarkInterpolantsZ[i];
      const int base = bx.cell * t->strideX + by.cell * t->strideY + bz.cell * t->strideZ;
      for (int nz = 0; nz < 4; nz++)
        for (int my = 0; my < 4; my++)
          for (int lx = 0; lx < 4; lx++) {
            const double w = bx.weight[lx] * by.weight[my] * bz.weight[nz];
            double* q = g + base + lx * t->strideX + my * t->strideY + nz * t->strideZ;
            q[0] += w * d[0];
            q[1] += w * d[1];
            q[2] += w * d[2];
          }
    }
  }

  // On the scale of the central differences divided by the probe step:
  // twice the derivative. A coordinate with no step stays where it is.
  for (int i = 0; i < numParams; i++) {
    const float s = f.paramSteps[i];
    gradient[i] = (s > 0 || std::isnan(s)) ? 2.0 * g[i] : 0.0;
  }
}
