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
#include "ZrThread.h"
#include "ZrWorkArea.h"
#include "qbmalloc.h"
#include "reg_evaluate.h"
#include "reg_evaluateAnalytic.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <memory>
#include <type_traits>
#include <typeinfo>

namespace {

enum MetricKind { METRIC_HISTOGRAM, METRIC_SQUARED, METRIC_CORRELATION, METRIC_NONE };

MetricKind metricKindOf(const RegMetric* m) {
  if (!m)
    return METRIC_NONE;
  const std::type_info& t = typeid(*m);
  if (t == typeid(RegNormMutualInformation) || t == typeid(RegSimpleMutualInformation))
    return METRIC_HISTOGRAM;
  if (t == typeid(RegMeanSquaredDifference))
    return METRIC_SQUARED;
  if (t == typeid(RegCorrelationRatio))
    return METRIC_CORRELATION;
  return METRIC_NONE;
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
  table.resize(nr * nm + nm);
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
  // The model's marginal, in the last row of the table while it is built.
  double* column = table.data() + (size_t)nr * nm;
  for (int i = 0; i < nr; i++)
    for (int j = 0; j < nm; j++)
      column[j] += h[(size_t)i * nm + j];
  for (int j = 0; j + 1 < nm; j++)
    column[j] = alpha * (logEntry(column[j + 1]) - logEntry(column[j]));
  for (int i = 0; i < nr; i++)
    for (int j = 0; j + 1 < nm; j++) {
      const double* e = h + (size_t)i * nm + j;
      table[i * nm + j] = column[j] - beta * (logEntry(e[1]) - logEntry(e[0]));
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

// The reference's bins by voxel value, for voxel types of at most 16 bits;
// false (no table) for the others.
template <class T>
const RegAnalyticRefBin* refBinTable(const RegMutualInformation* mi, bool refAsFloat,
                                     std::vector<RegAnalyticRefBin>& table, int& base) {
  if constexpr (sizeof(T) > 2 || !std::is_integral<T>::value) {
    return nullptr;
  } else {
    const int lo = (int)std::numeric_limits<T>::lowest(), hi = (int)std::numeric_limits<T>::max();
    table.resize(hi - lo + 1);
    for (int v = lo; v <= hi; v++) {
      const double r = refAsFloat ? (double)(float)v : (double)v;
      RegAnalyticRefBin& b = table[v - lo];
      RegMutualInformation::binOf(r, mi->refMin, mi->refScale, mi->numBinsRef, b.bin, b.w0, b.w1);
    }
    base = lo;
    return table.data();
  }
}

bool isRegularized(const RegElasticFunctional& f) {
  return f.regularizerMode >= 1 && f.regularizerMode <= 3;
}

// What the passes read of the functional and its transform.
RegAnalyticPass passOf(RegElasticFunctional& f, int stride) {
  RegVoxelCubicSplineTransform* t = static_cast<RegVoxelCubicSplineTransform*>(f.splineTransform);
  RegElasticFunctionalRegular* regular = dynamic_cast<RegElasticFunctionalRegular*>(&f);
  const bool regularized = isRegularized(f);
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
  P.ncx = t->gridSize[0];
  P.ncy = t->gridSize[1];
  P.is2D = f.is2D;
  P.wantE = regularized && f.energyWeight > 0;
  P.wantJ = regularized && f.jacobianWeight > 0;
  const int64_t count = regular ? regular->regularNumVoxels : f.numVoxels;
  if (regularized && count > 0) {
    P.energyFactor = -(double)f.energyWeight / (double)count;
    P.jacobianFactor = -(double)f.jacobianWeight / (double)count;
  }
  P.refAsFloat = regular != nullptr;
  if (!f.is2D)
    P.stride = std::max(1, stride);
  return P;
}

// Runs fn(ref, model) with the reference's voxels and the model as the
// functional samples it: raw voxels through the metric's sampler (regular
// class) or the field evaluator's interpolation (general class).
template <class F> void withModel(RegElasticFunctional& f, F&& fn) {
  RegElasticFunctionalRegular* regular = dynamic_cast<RegElasticFunctionalRegular*>(&f);
  if (!qbDispatchVoxelType(f.primType, [&](auto tag) {
        typedef decltype(tag) T;
        const T* ref = (const T*)f.referenceVoxels;
        if (regular) {
          RegAnalyticVoxelModel<T> m;
          m.data = (const T*)f.modelVoxels;
          for (int a = 0; a < 6; a++)
            m.box[a] = regular->modelBox[a];
          for (int a = 0; a < 3; a++)
            m.dims[a] = regular->modelDims[a];
          m.scale[0] = regular->scaleX;
          m.scale[1] = regular->scaleY;
          m.scale[2] = regular->scaleZ;
          fn(ref, m);
        } else {
          const ZrRegScalarField3* model = static_cast<const ZrRegScalarField3*>(f.models[0]);
          RegAnalyticFieldModel<T> m;
          m.data = (const T*)model->lattice.dataPtr();
          model->getBoundingBox(m.box);
          for (int a = 0; a < 3; a++) {
            const int d = model->getDims()[a];
            m.dims[a] = d;
            const double extent = (double)m.box[2 * a + 1] - (double)m.box[2 * a];
            m.inv[a] = (d > 1 && extent > 0.0) ? (double)(d - 1) / extent : 0.0;
            m.lastCell[a] = d > 1 ? d - 2 : 0;
          }
          m.step[0] = m.dims[0] > 1 ? 1 : 0;
          m.step[1] = m.dims[1] > 1 ? m.dims[0] : 0;
          m.step[2] = m.dims[2] > 1 ? (int64_t)m.dims[0] * m.dims[1] : 0;
          fn(ref, m);
        }
      }))
    abort();
}

// Maps the transform's parameters into the model's local coordinates while
// it lives, when the model has a transformation, for the passes that compute
// positions from the parameters.
class LocalFrame {
public:
  explicit LocalFrame(RegSplineTransform* t) : t(t->modelTransformed ? t : nullptr) {
    if (this->t)
      this->t->applyModelTransformInv();
  }
  ~LocalFrame() {
    if (t)
      t->applyModelTransform();
  }
  LocalFrame(const LocalFrame&) = delete;
  LocalFrame& operator=(const LocalFrame&) = delete;

private:
  RegSplineTransform* t;
};

// Carves each thread's scratch out of one array: the column and row sums of
// the gradient pass, and a line of positions with nine of derivatives.
class ScratchLayout {
public:
  size_t columns, rows, zplane, phi, line, perThread;
  int nx;
  ScratchLayout(const RegAnalyticPass& P, int threads, QbDArray<double>& store) {
    nx = P.dims[0];
    columns = (size_t)REG_GROUPS * 3 * P.ncx;
    rows = (size_t)3 * P.ncy * 3 * P.ncx;
    zplane = (size_t)P.ncy * 3 * P.ncx;
    phi = (size_t)3 * P.ncx;
    // Positions take 3 floats each, rounded up to 2 doubles.
    line = (size_t)nx * 2 + (size_t)9 * 3 * nx;
    perThread = columns + rows + zplane + phi + line;
    store.resize((int)(perThread * threads));
    base = store.data();
  }
  RegAnalyticScratch of(int thread) const {
    double* mine = base + perThread * (size_t)thread;
    RegAnalyticScratch s;
    s.columns = mine;
    s.rows = mine + columns;
    s.zplane = s.rows + rows;
    s.phi = s.zplane + zplane;
    double* l = s.phi + phi;
    s.line = reinterpret_cast<QbVec3f*>(l);
    QbVec3d* d = reinterpret_cast<QbVec3d*>(l + (size_t)nx * 2);
    QbVec3d** all[9] = {&s.dx, &s.dy, &s.dz, &s.dxx, &s.dyy, &s.dzz, &s.dxy, &s.dxz, &s.dyz};
    for (int k = 0; k < 9; k++)
      *all[k] = d + (size_t)k * nx;
    return s;
  }

private:
  double* base;
};

// One of the threads of a pass: it runs its share of the items.
class PassThread : public ZrThread {
public:
  std::function<void()> work;

protected:
  void run() override { work(); }
};

// Runs body(thread, item) for the items 0 .. n - 1 on `threads` threads, the
// caller and threads - 1 of the host's, each taking the next item from a
// shared counter. The host's threads block when they are done, where an
// OpenMP team would spin, which on a machine shared with other work costs
// the others (and, time-sliced, this pass) a core. A thread that cannot be
// made leaves its share to the others.
template <class F> void forEachItem(int threads, int n, F&& body) {
  threads = std::max(1, std::min(threads, n));
  std::atomic<int> next(0);
  auto share = [&](int thread) {
    for (int i = next.fetch_add(1); i < n; i = next.fetch_add(1))
      body(thread, i);
  };
  std::vector<std::unique_ptr<PassThread>> helpers;
  for (int t = 1; t < threads; t++) {
    helpers.emplace_back(new PassThread);
    helpers.back()->work = [&share, t] { share(t); };
    if (!helpers.back()->start())
      helpers.pop_back();
  }
  share(0);
  for (auto& h : helpers)
    h->wait();
}

// Runs the gradient's work units over the threads.
template <class T, bool Regularized, class Slope, class Model>
void runUnits(const RegAnalyticPass& P, const T* ref, const Slope& slope, const Model& model,
              int threads, const ScratchLayout& layout, double* out, size_t unitBlock) {
  const int units = P.is2D ? P.dims[1] : P.dims[2];
  std::vector<RegAnalyticScratch> scratch(std::max(1, threads));
  for (int t = 0; t < (int)scratch.size(); t++)
    scratch[t] = layout.of(t);
  forEachItem(threads, units, [&](int thread, int u) {
    reg_evaluateAnalyticUnit<T, Regularized>(P, ref, slope, model, u, scratch[thread],
                                             out + unitBlock * (size_t)u);
  });
}

// The blocks of slices of a value pass: a number that depends on the size of
// the data and of the metric's statistics, never on the threads, so that the
// sums are added in the same order whatever the thread count. Each block's
// statistics cost their size to clear and to add up.
// A block takes at least 16384 voxels, and at least two thirds of its
// statistics' size, so that clearing and adding up the statistics costs a
// small part of the pass.
int blockCount(const RegElasticFunctional& f, int stride, size_t statistics) {
  auto taken = [stride](int d) { return (size_t)((d + stride - 1) / stride); };
  const size_t n = taken(f.dims[0]) * taken(f.dims[1]) * taken(f.dims[2]);
  const size_t per = std::max((size_t)16384, statistics * 3 / 2);
  return (int)std::max((size_t)1, std::min({taken(f.dims[2]), (size_t)64, n / per}));
}

} // namespace

RegElasticAnalyticGradient::RegElasticAnalyticGradient() {}

RegElasticAnalyticGradient::~RegElasticAnalyticGradient() {}

bool RegElasticAnalyticGradient::isAvailable(const RegElasticFunctional& f, const char** why) {
  const char* reason = nullptr;
  const ZrRegScalarField3* model =
      f.models.size() > 0 ? dynamic_cast<const ZrRegScalarField3*>(f.models[0]) : nullptr;
  if (metricKindOf(f.metric) == METRIC_NONE)
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

double RegElasticAnalyticGradient::value(RegElasticFunctional& f, bool cache) {
  if (f.is2D) {
    // Flat lattices keep the serial passes of the functional.
    f.metric->reset();
    if (!cache)
      return f.evaluate();
    return isRegularized(f) ? f.evaluateAndCacheWithRegularizer() : f.evaluateAndCache();
  }
  RegElasticFunctionalRegular* regular = dynamic_cast<RegElasticFunctionalRegular*>(&f);
  const bool regularized = isRegularized(f);
  RegAnalyticPass P = passOf(f, sampleStride);
  const size_t N = (size_t)f.dims[0] * f.dims[1] * f.dims[2];
  const int nz = f.dims[2];
  if (cache && !f.cachedSamples)
    f.cachedSamples = (float*)qbmalloc(sizeof(float) * N);
  float* samples = cache ? f.cachedSamples : nullptr;

  RegMetric* metric = f.metric;
  const MetricKind kind = metricKindOf(metric);
  RegMutualInformation* mi =
      kind == METRIC_HISTOGRAM ? static_cast<RegMutualInformation*>(metric) : nullptr;
  const size_t histSize = mi ? (size_t)mi->histogram.size() : 0;
  const int blocks = blockCount(f, P.stride, histSize);
  const int threads = std::max(1, std::min(threadsToUse(), blocks));
  // Per block: penalty sums, fold, counts and the metric's sums (5 for the
  // correlation, 1 for squared difference, the histogram for mutual
  // information).
  blockSums.resize(blocks * 10);
  if (mi)
    blockHist.resize((int)(histSize * blocks));
  ScratchLayout layout(P, threads, scratch);
  double* sums = blockSums.data();
  double* hists = mi ? blockHist.data() : nullptr;
  RegCorrelationRatio* corr =
      kind == METRIC_CORRELATION ? static_cast<RegCorrelationRatio*>(metric) : nullptr;

  {
    const LocalFrame frame(f.splineTransform);
    withModel(f, [&](const auto* ref, const auto& model) {
      typedef std::remove_cv_t<std::remove_pointer_t<decltype(ref)>> T;
      auto run = [&](auto makeStats, auto store) {
        std::vector<RegAnalyticScratch> scratches(threads);
        for (int t = 0; t < threads; t++)
          scratches[t] = layout.of(t);
        forEachItem(threads, blocks, [&](int thread, int b) {
          {
            RegAnalyticScratch& s = scratches[thread];
            auto stats = makeStats(b);
            double E = 0.0, J = 0.0;
            bool fine = true;
            // The block's share of the slices taken.
            const int taken = (nz + P.stride - 1) / P.stride;
            const int z0 = P.stride * (int)((int64_t)b * taken / blocks),
                      z1 = P.stride * (int)((int64_t)(b + 1) * taken / blocks);
            for (int z = z0; z < z1 && z < nz && fine; z += P.stride)
              fine = regularized ? reg_evaluateAnalyticValueSlice<T, true>(P, ref, model, stats, z,
                                                                           s, samples, E, J)
                                 : reg_evaluateAnalyticValueSlice<T, false>(P, ref, model, stats, z,
                                                                            s, samples, E, J);
            double* out = sums + 10 * (size_t)b;
            out[0] = E;
            out[1] = J;
            out[2] = fine ? 0.0 : 1.0;
            out[3] = (double)stats.inside;
            out[4] = (double)stats.total;
            store(stats, out + 5);
          }
        });
      };
      if (mi) {
        int refBase = 0;
        const RegAnalyticRefBin* refTable = refBinTable<T>(mi, P.refAsFloat, refBins, refBase);
        run(
            [&](int b) {
              RegAnalyticHistogramSum h;
              h.hist = hists + histSize * (size_t)b;
              std::fill(h.hist, h.hist + histSize, 0.0);
              h.refMin = mi->refMin;
              h.refScale = mi->refScale;
              h.modelMin = mi->modelMin;
              h.modelScale = mi->modelScale;
              h.nRef = mi->numBinsRef;
              h.nMod = mi->numBinsMod;
              h.refTable = refTable;
              h.refBase = refBase;
              return h;
            },
            [](const RegAnalyticHistogramSum&, double*) {});
      } else if (corr) {
        run(
            [&](int) {
              RegAnalyticCorrelationSum c;
              c.refLow = corr->refLow;
              c.refHigh = corr->refHigh;
              c.modelLow = corr->modelLow;
              c.modelHigh = corr->modelHigh;
              c.refOffset = corr->refOffset;
              c.modelOffset = corr->modelOffset;
              return c;
            },
            [](const RegAnalyticCorrelationSum& c, double* o) {
              o[0] = c.aa, o[1] = c.bb, o[2] = c.ab, o[3] = c.a, o[4] = c.b;
            });
      } else {
        run([](int) { return RegAnalyticSquaredSum(); },
            [](const RegAnalyticSquaredSum& q, double* o) { o[0] = q.sum; });
      }
    });
  }

  // The blocks' sums, in block order.
  metric->reset();
  double E = 0.0, J = 0.0;
  bool fold = false;
  int64_t inside = 0, total = 0;
  for (int b = 0; b < blocks; b++) {
    const double* in = sums + 10 * (size_t)b;
    E += in[0];
    J += in[1];
    fold |= in[2] != 0.0;
    inside += (int64_t)in[3];
    total += (int64_t)in[4];
  }
  metric->numInside = inside;
  metric->numTotal = total;
  if (mi) {
    // In pieces over the threads; each entry adds its blocks in order.
    double* h = mi->histogram.data();
    const int all = threadsToUse();
    const int pieces = std::max(1, std::min(all * 4, (int)(histSize / 4096) + 1));
    forEachItem(all, pieces, [&](int, int piece) {
      const size_t k0 = histSize * piece / pieces, k1 = histSize * (piece + 1) / pieces;
      for (int b = 0; b < blocks; b++) {
        const double* src = hists + histSize * (size_t)b;
        for (size_t k = k0; k < k1; k++)
          h[k] += src[k];
      }
    });
  } else if (corr) {
    for (int b = 0; b < blocks; b++) {
      const double* in = sums + 10 * (size_t)b + 5;
      corr->sumRefSq += in[0];
      corr->sumModelSq += in[1];
      corr->sumProduct += in[2];
      corr->sumRef += in[3];
      corr->sumModel += in[4];
    }
  } else {
    RegMeanSquaredDifference* msd = static_cast<RegMeanSquaredDifference*>(metric);
    for (int b = 0; b < blocks; b++)
      msd->sum += sums[10 * (size_t)b + 5];
  }

  if (!regularized) {
    // getResult() of the correlation changes its sums; the cache keeps them.
    return f.getWeightedResult(cache ? reg_cachedResult(metric, f.metricWork)
                                     : metric->getResult());
  }
  if (fold) {
    if (cache)
      f.jacobianSum = REG_INVALID_VALUE;
    return REG_INVALID_VALUE;
  }
  auto taken = [&](int d) { return (int64_t)((d + P.stride - 1) / P.stride); };
  const int64_t n = taken(f.dims[0]) * taken(f.dims[1]) * taken(nz);
  if (!cache)
    return reg_elasticObjective(&f, metric, E, f.energyWeight, J, f.jacobianWeight, (double)n);
  f.energySum = E;
  f.jacobianSum = J;
  if (regular)
    regular->regularNumVoxels = n;
  else
    f.numVoxels = n;
  reg_restoreCachedState(metric, f.metricWork);
  return reg_elasticObjective(&f, f.metricWork, E, f.energyWeight, J, f.jacobianWeight, (double)n);
}

double RegElasticAnalyticGradient::evaluate(RegElasticFunctional& f, QbDVector<double>& gradient) {
  const double base = value(f, true);
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

void RegElasticAnalyticGradient::compute(RegElasticFunctional& f, QbDVector<double>& gradient) {
  RegVoxelCubicSplineTransform* t = static_cast<RegVoxelCubicSplineTransform*>(f.splineTransform);
  const bool regularized = isRegularized(f);
  const int numParams = t->getParamVectorDim();
  const int ncx = t->gridSize[0], ncy = t->gridSize[1], ncz = t->gridSize[2];
  RegAnalyticPass P = passOf(f, sampleStride);

  const size_t plane = P.is2D ? (size_t)3 * ncx : (size_t)3 * ncx * ncy;
  const size_t unitBlock = 4 * plane;
  const int units = P.is2D ? f.dims[1] : f.dims[2];
  const int threads = std::max(1, std::min(threadsToUse(), units));
  ScratchLayout layout(P, threads, scratch);
  unitOut.resize((int)(unitBlock * units));
  double* out = unitOut.data();

  {
    // Three-dimensional passes compute the positions from the parameters, in
    // the model's local coordinates as the caching pass did.
    const LocalFrame frame(f.splineTransform);
    withModel(f, [&](const auto* ref, const auto& model) {
      typedef std::remove_cv_t<std::remove_pointer_t<decltype(ref)>> T;
      auto run = [&](const auto& slope) {
        if (regularized)
          runUnits<T, true>(P, ref, slope, model, threads, layout, out, unitBlock);
        else
          runUnits<T, false>(P, ref, slope, model, threads, layout, out, unitBlock);
      };
      switch (metricKindOf(f.metric)) {
      case METRIC_HISTOGRAM: {
        RegMutualInformation* mi = static_cast<RegMutualInformation*>(f.metric);
        RegAnalyticHistogramSlope slope = histogramSlope(mi, slopeTable);
        slope.refTable = refBinTable<T>(mi, P.refAsFloat, refBins, slope.refBase);
        run(slope);
        break;
      }
      case METRIC_SQUARED:
        run(squaredSlope(static_cast<RegMeanSquaredDifference*>(f.metric)));
        break;
      case METRIC_CORRELATION:
        run(correlationSlope(static_cast<RegCorrelationRatio*>(f.metric)));
        break;
      case METRIC_NONE:
        abort();
      }
    });
  }

  // The units' blocks, added per lattice plane (z layer, or y row in two
  // dimensions) in the order of the units, whatever thread made them.
  sums.resize(numParams);
  double* g = sums.data();
  const int planes = P.is2D ? ncy : ncz;
  const RegSplineInterpolant* cells = P.is2D ? t->interpolantsY : t->interpolantsZ;
  forEachItem(threads, planes, [&](int, int k) {
    double* dst = g + (size_t)k * plane;
    for (size_t e = 0; e < plane; e++)
      dst[e] = 0.0;
    for (int u = 0; u < units; u++) {
      const int c = cells[u].cell;
      if (k < c || k > c + 3)
        continue;
      const double* src = out + unitBlock * (size_t)u + (size_t)(k - c) * plane;
      for (size_t e = 0; e < plane; e++)
        dst[e] += src[e];
    }
  });

  // From the model's local coordinates to the world's: a local coordinate c
  // of a control point moves with its world coordinate a at the rate
  // modelInverseMatrix[a][c]. A flat lattice's positions do not depend on
  // its z coordinates.
  const int local = f.is2D ? 2 : 3;
  for (int p = 0; p < numParams; p += 3) {
    const double l[3] = {g[p], g[p + 1], local == 3 ? g[p + 2] : 0.0};
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
  // parameters in world coordinates, so its derivative needs no mapping. A
  // flat lattice has one layer, of weight 1, and no z entries.
  if (f.numLandmarks != 0 && f.landmarkWeight > 0) {
    const int layers = f.is2D ? 1 : 4;
    const double k = 2.0 * (double)f.landmarkWeight / (double)f.numLandmarks;
    for (int i = 0; i < f.numLandmarks; i++) {
      int li = i;
      QbVec3f p;
      t->getTransformedGridLandmark(&li, p, t->paramVector);
      const QbVec3f& m = (*f.landmarksModel)[i];
      const double d[3] = {k * (double)(m.x - p.x), k * (double)(m.y - p.y),
                           f.is2D ? 0.0 : k * (double)(m.z - p.z)};
      const RegSplineInterpolant& bx = t->landmarkInterpolantsX[i];
      const RegSplineInterpolant& by = t->landmarkInterpolantsY[i];
      const RegSplineInterpolant& bz = t->landmarkInterpolantsZ[i];
      const int base = bx.cell * t->strideX + by.cell * t->strideY + bz.cell * t->strideZ;
      for (int nz = 0; nz < layers; nz++)
        for (int my = 0; my < 4; my++)
          for (int lx = 0; lx < 4; lx++) {
            const double w = bx.weight[lx] * by.weight[my] * (f.is2D ? 1.0 : bz.weight[nz]);
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
