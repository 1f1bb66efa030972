#pragma once
// Inner loops shared by the elastic template families: the two ways of
// sampling the model (field evaluator, or raw voxels through the metric's
// sampler), the per-voxel penalty terms, and the walks of a full pass and of
// one box. The named families (reg_evaluate, reg_evaluateRegular, their
// regularised and _thread forms) are thin instantiations of these walks, so
// that the serial functionals and the workers run literally the same loop.
//
// Nothing here allocates, and the voxel type and the sampler are template
// parameters: the per-voxel work is one sampler call (one virtual increment of
// the metric) and, with a regulariser, a few products.
#include "QbDVector.h"
#include "QbVec3d.h"
#include "QbVec3f.h"
#include "RegCorrelationRatio.h"
#include "RegElasticFunctional.h"
#include "RegElasticPointProbes.h"
#include "RegLabelDifference.h"
#include "RegMeanSquaredDifference.h"
#include "RegMetric.h"
#include "RegNormMutualInformation.h"
#include "RegSimpleMutualInformation.h"
#include "RegVoxelCubicSplineTransform.h"
#include "ZrFieldEvaluator.h"
#include "ZrLocation3.h"
#include "reg_evaluateElasticSimd.h"
#include "reg_evaluateElasticStill.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <typeinfo>

// Restores `work` to the statistics that `cache` holds. The correlation
// metric keeps its sums relative to running offsets, which its getResult()
// moves; its offsets are copied as well, so that a probe decrements exactly
// what the caching pass incremented.
inline void reg_restoreCachedState(const RegMetric* cache, RegMetric* work) {
  cache->getState(work);
  if (const RegCorrelationRatio* c = dynamic_cast<const RegCorrelationRatio*>(cache)) {
    RegCorrelationRatio* w = static_cast<RegCorrelationRatio*>(work);
    w->refOffset = c->refOffset;
    w->modelOffset = c->modelOffset;
  }
}

// The value of a caching pass, taken on the work copy. A metric's
// getResult() may change the metric (the correlation turns two sums into
// means in place), and `metric` must keep the pure statistics of the pass
// for the probes that follow.
inline double reg_cachedResult(RegMetric* metric, RegMetric* work) {
  reg_restoreCachedState(metric, work);
  return work->getResult();
}

// Samples the model through a field evaluator: set the location, evaluate,
// increment. The result of setting the location is not looked at; the
// evaluator delivers 0 outside the field. drop() takes a cached sample out.
struct RegElasticFieldSampler {
  RegMetric* metric;
  ZrLocation3* location;
  ZrFieldEvaluator* evaluator;
  inline void operator()(double ref, float& sample, QbVec3f& p) const {
    location->set(p.x, p.y, p.z);
    evaluator->eval(location, &sample);
    metric->increment(ref, sample);
  }
  // Takes the cached sample out, then samples and adds the new one.
  inline void replace(double ref, double cached, float& sample, QbVec3f& p) const {
    metric->decrement(ref, cached);
    (*this)(ref, sample, p);
  }
  // The halves of replace() for probes that share one taking out.
  inline void remove(double ref, double cached) const { metric->decrement(ref, cached); }
  inline void addCached(double ref, double cached) const { metric->increment(ref, cached); }
};

// The metric's increment and decrement as the walks call them. For a class
// named here the calls are qualified, so they bind at compile time and inline
// into the walk; for RegMetric itself they go through the virtual slots.
// swap() is decrement(rOut, out) followed by increment(rIn, in).
template <class M> struct RegElasticMetricCalls {
  static inline void add(RegMetric* m, double r, double s) {
    static_cast<M*>(m)->M::increment(r, s);
  }
  static inline void remove(RegMetric* m, double r, double s) {
    static_cast<M*>(m)->M::decrement(r, s);
  }
  static inline void swap(RegMetric* m, double rOut, double out, double rIn, double in) {
    static_cast<M*>(m)->M::decrement(rOut, out);
    static_cast<M*>(m)->M::increment(rIn, in);
  }
};
template <> struct RegElasticMetricCalls<RegMetric> {
  static inline void add(RegMetric* m, double r, double s) { m->increment(r, s); }
  static inline void remove(RegMetric* m, double r, double s) { m->decrement(r, s); }
  static inline void swap(RegMetric* m, double rOut, double out, double rIn, double in) {
    m->decrement(rOut, out);
    m->increment(rIn, in);
  }
};
// Mutual information swaps a sample in one call, which bins the reference
// value once for both halves when the two reference values agree.
template <> struct RegElasticMetricCalls<RegMutualInformation> {
  static inline void add(RegMetric* m, double r, double s) {
    static_cast<RegMutualInformation*>(m)->RegMutualInformation::increment(r, s);
  }
  static inline void remove(RegMetric* m, double r, double s) {
    static_cast<RegMutualInformation*>(m)->RegMutualInformation::decrement(r, s);
  }
  static inline void swap(RegMetric* m, double rOut, double out, double rIn, double in) {
    static_cast<RegMutualInformation*>(m)->replace(rOut, out, rIn, in);
  }
};

// Samples a uniform model's raw voxels with the metric's own sampler, which
// interpolates and clamps to the lattice, and adds the pair to the metric:
// the nearest voxel for label difference, trilinear for every other metric
// (and for a null one). The choice is made once, before any loop. M is the
// class whose increment and decrement are called (RegMetric: the virtual
// ones); the values passed are those of evalAndIncrementGrey/Label. The
// walks read nothing of the metric's sampling state, so it is not stored.
template <class T, class M = RegMetric> struct RegElasticVoxelSampler {
  RegMetric* metric;
  const T* model;
  bool label;
  RegElasticVoxelSampler(RegMetric* metric, const T* model)
      : metric(metric), model(model), label(dynamic_cast<RegLabelDifference*>(metric) != nullptr) {}
  inline float sample(QbVec3f& p) const {
    return label ? metric->sampleLabel<T, false>(model, &p)
                 : metric->sampleGrey<T, false>(model, &p);
  }
  // The reference value reaches the sampler in single precision.
  inline void operator()(double ref, float& value, QbVec3f& p) const {
    const float r = (float)ref;
    value = sample(p);
    RegElasticMetricCalls<M>::add(metric, (double)r, (double)value);
  }
  // Takes the cached sample out and adds the new one. Sampling changes no
  // statistic, so it may come first and both changes go in one call.
  inline void replace(double ref, double cached, float& value, QbVec3f& p) const {
    const float r = (float)ref;
    value = sample(p);
    RegElasticMetricCalls<M>::swap(metric, ref, cached, (double)r, (double)value);
  }
  // The halves of replace() for probes that share one taking out.
  inline void remove(double ref, double cached) const {
    RegElasticMetricCalls<M>::remove(metric, ref, cached);
  }
  inline void addCached(double ref, double cached) const {
    RegElasticMetricCalls<M>::add(metric, (double)(float)ref, cached);
  }
};

// Runs `walk` with the voxel sampler whose calls bind to the metric's class,
// where that class is one of those whose increment and decrement are known
// here (exactly: a subclass may override them); any other metric gets the
// virtual calls. One type test per call, none per voxel.
template <class T, class F>
inline auto reg_withElasticVoxelSampler(RegMetric* metric, const T* model, F&& walk) {
  if (metric) {
    const std::type_info& t = typeid(*metric);
    if (t == typeid(RegNormMutualInformation) || t == typeid(RegSimpleMutualInformation))
      return walk(RegElasticVoxelSampler<T, RegMutualInformation>(metric, model));
    if (t == typeid(RegMeanSquaredDifference))
      return walk(RegElasticVoxelSampler<T, RegMeanSquaredDifference>(metric, model));
    if (t == typeid(RegLabelDifference))
      return walk(RegElasticVoxelSampler<T, RegLabelDifference>(metric, model));
  }
  return walk(RegElasticVoxelSampler<T, RegMetric>(metric, model));
}

// Bending energy density and Jacobian determinant of the deformation at one
// voxel, from the spline's derivatives per lattice cell. The inverse spacings
// scale them to world units; their products are formed in single precision.
class RegElasticPenalty {
public:
  double sxx, syy, szz, sxy, sxz, syz;
  double detScale;
  double volumeScale;
  double detFactor;

  // In two dimensions the determinant takes sx * sy only.
  RegElasticPenalty(const float* inv, double modelVolumeScale, bool twoD)
      : volumeScale(modelVolumeScale) {
    const float sx = inv[0], sy = inv[1], sz = inv[2];
    sxx = (double)(sx * sx);
    syy = (double)(sy * sy);
    szz = (double)(sz * sz);
    sxy = (double)(sx * sy);
    sxz = (double)(sx * sz);
    syz = (double)(sy * sz);
    detScale = twoD ? (double)(sx * sy) : (double)(sx * sy * sz);
    detFactor = detScale / volumeScale;
  }
  static inline double sq(const QbVec3d& v) { return v.x * v.x + v.y * v.y + v.z * v.z; }
  inline double energy(const QbVec3d& xx, const QbVec3d& yy, const QbVec3d& zz, const QbVec3d& xy,
                       const QbVec3d& xz, const QbVec3d& yz) const {
    return sxx * sq(xx) + syy * sq(yy) + szz * sq(zz) +
           2.0 * (sxy * sq(xy) + sxz * sq(xz) + syz * sq(yz));
  }
  // Scaled determinant of the columns a = Tx, b = Ty, c = Tz, relative to
  // the determinant of the lattice at rest (modelVolumeScale): 1 where the
  // deformation keeps the volume, and not above 0 where it folds. Taken
  // relative, a model transformation that reflects (negative rest
  // determinant) is not mistaken for a fold.
  inline double determinant(const QbVec3d& a, const QbVec3d& b, const QbVec3d& c) const {
    return detFactor * (a.x * b.y * c.z + a.y * b.z * c.x + a.z * b.x * c.y - c.x * b.y * a.z -
                        c.y * a.x * b.z - c.z * a.y * b.x);
  }
  // 0 where the volume change matches the model's own scale.
  inline double jacobian(double ratio) const { return std::fabs(std::log(ratio)); }
};

// The nine one-line derivative buffers of the three-dimensional regularised
// forms, in the order of getTransformedGridSequence.
struct RegElasticLines {
  QbVec3d *dxx, *dyy, *dzz, *dxy, *dxz, *dyz, *dx, *dy, *dz;
};

inline bool reg_boxIsEmpty(const int* box) {
  return box[1] < box[0] || box[3] < box[2] || box[5] < box[4];
}

// Maps the transform's parameters into the model's local coordinates for the
// life of the object, when the model has a transformation, and back on every
// way out: a pass that finds a fold returns early, and the optimizer and the
// displays must never see local coordinates.
class RegModelFrameScope {
public:
  explicit RegModelFrameScope(RegSplineTransform* t)
      : transform(t->modelTransformed ? t : nullptr) {
    if (transform)
      transform->applyModelTransformInv();
  }
  ~RegModelFrameScope() {
    if (transform)
      transform->applyModelTransform();
  }
  RegModelFrameScope(const RegModelFrameScope&) = delete;
  RegModelFrameScope& operator=(const RegModelFrameScope&) = delete;

private:
  RegSplineTransform* transform;
};

// The parameters that a regularised probe reads, in the frame of the cached
// grid. Without a model transformation these are `world` themselves. With
// one, they are `local`, the world parameters of the caching pass mapped once
// into local coordinates, in which the probed control point is mapped anew
// from `world` for the life of the object: a probe costs the same whatever
// the number of parameters, and the transform itself is not written, so that
// workers may probe at the same time.
class RegProbeParams {
public:
  RegProbeParams(const RegSplineTransform* t, QbDVector<double>& world, QbDVector<double>& local,
                 int index)
      : params(t->modelTransformed ? local : world) {
    if (!t->modelTransformed)
      return;
    // Not yet mapped (a probe without a caching pass): map all once.
    if (local.size() != world.size())
      t->mapToLocal(world, local);
    point = 3 * (index / 3);
    for (int a = 0; a < 3; a++)
      saved[a] = local[point + a];
    t->mapToLocal(world.data() + point, local.data() + point);
  }
  ~RegProbeParams() {
    if (point >= 0)
      for (int a = 0; a < 3; a++)
        params[point + a] = saved[a];
  }
  RegProbeParams(const RegProbeParams&) = delete;
  RegProbeParams& operator=(const RegProbeParams&) = delete;

  QbDVector<double>& params;

private:
  int point = -1;
  double saved[3] = {0, 0, 0};
};

// Samples every reference voxel at `grid` (voxel order), optionally keeping
// the samples in `cache`.
template <class T, bool Cache, class S>
inline void reg_evaluateElasticWalk(const T* ref, const int* dims, const S& sampler, QbVec3f* grid,
                                    float* cache) {
  const size_t n = (size_t)dims[0] * dims[1] * dims[2];
  float sample = 0.0f;
  for (size_t v = 0; v < n; v++) {
    sampler((double)ref[v], sample, grid[v]);
    if (Cache)
      cache[v] = sample;
  }
}

// What a walk over the box of one control point does to each voxel of it
// that the point's spline weight reaches.
enum RegElasticBoxMode {
  // One probe: the cached sample out, the new one in.
  RegElasticBoxSwap,
  // The cached samples out, once for all probes of the point.
  RegElasticBoxTakeOut,
  // The probes of the point after RegElasticBoxTakeOut: their new samples
  // in only.
  RegElasticBoxAdd
};

// The new position of a voxel at `g` when component `c` of its control point
// moves by `inc` times the point's y weight, and `fz` its z weight, along the
// local direction `dir` (only read when not `along` the axis).
inline QbVec3f reg_elasticProbePosition(const QbVec3f& g, float inc, double fz, int c,
                                        const double* dir, bool along, bool flat) {
  QbVec3f p = g;
  if (!flat) {
    if (along) {
      p[c] = (float)(p[c] + inc * fz);
    } else {
      const double m = inc * fz;
      p.x = (float)(p.x + m * dir[0]);
      p.y = (float)(p.y + m * dir[1]);
      p.z = (float)(p.z + m * dir[2]);
    }
  } else if (along) {
    // z is not deformed in two dimensions.
    if (c < 2)
      p[c] += inc;
  } else {
    p.x = (float)(p.x + inc * dir[0]);
    p.y = (float)(p.y + inc * dir[1]);
  }
  if (flat)
    p.z = 0.0f;
  return p;
}

// The per-voxel bodies of the box walks are lambdas that the compiler must
// inline into the walk's loop: a call per voxel costs a fifth of a probe.
#if defined(__GNUC__)
#define REG_ALWAYS_INLINE __attribute__((always_inline))
#else
#define REG_ALWAYS_INLINE
#endif

// Calls row(v, fy, fz) for every row of `box`, the box of control point `cp`,
// where the point's y and z weights fy and fz are not 0, in voxel order: v is
// the voxel of the row's first column.
template <class Row>
inline void reg_forElasticBoxRows(const int* dims, const int* box, int cp,
                                  const RegVoxelCubicSplineTransform* transform, Row&& row) {
  const int nx = dims[0], ny = dims[1];
  const int x0 = box[0], y0 = box[2], y1 = box[3], z0 = box[4], z1 = box[5];
  const int gx = transform->gridSize[0], gy = transform->gridSize[1];
  const int firstY = std::min(3, (cp / gx) % gy), firstZ = std::min(3, cp / (gx * gy));
  const bool flat = transform->is2D;
  const RegSplineInterpolant* iy = transform->interpolantsY;
  const RegSplineInterpolant* iz = transform->interpolantsZ;
  size_t v = ((size_t)z0 * ny + y0) * nx + x0;
  const size_t planeSkip = (size_t)(ny - 1 + y0 - y1) * nx;
  int columnZ = firstZ;
  for (int z = z0; z <= z1; z++, v += planeSkip) {
    const double fz =
        flat ? 1.0 : RegVoxelCubicSplineTransform::incrementalWeight(iz, z, z0, columnZ);
    int columnY = firstY;
    for (int y = y0; y <= y1; y++, v += nx) {
      const double fy = RegVoxelCubicSplineTransform::incrementalWeight(iy, y, y0, columnY);
      if (fy * fz != 0.0)
        row(v, fy, fz);
    }
  }
}

// Calls visit(v, x, fy, fz) for every voxel v of `box`, the box of control
// point `cp`, where the point's weight is not 0, in voxel order: x is the
// voxel's column in the box, unit[x] the point's x weight, fy and fz its y
// and z weights.
template <class Visit>
inline void reg_forElasticBoxVoxels(const int* dims, const int* box, int cp,
                                    const RegVoxelCubicSplineTransform* transform,
                                    const float* unit, Visit&& visit) {
  const int w = box[1] - box[0] + 1;
  reg_forElasticBoxRows(dims, box, cp, transform, [&](size_t v, double fy, double fz) {
    for (int x = 0; x < w; x++, v++)
      if (unit[x] != 0.0f)
        visit(v, x, fy, fz);
  });
}

// The probes of a RegElasticBoxAdd walk (see reg_walkElasticBox) for mutual
// information in three dimensions on a model without a transformation, where
// a probe moves one coordinate of the position: the reference bin, the model
// cell, its corners and interpolation steps are found once per voxel for all
// probes, and a probe that stays in the cell redoes only the steps along its
// axis and after it. The steps are those of sampleGrey() and increment(), so
// every metric ends as in the general walk, to the last bit.
template <class T>
inline void reg_walkElasticBoxAddMI(const T* ref, const int* dims,
                                    const RegElasticPointProbes& probes, const int* box,
                                    const float* cachedSamples,
                                    const RegElasticVoxelSampler<T, RegMutualInformation>* samplers,
                                    RegVoxelCubicSplineTransform* transform, const QbVec3f* grid,
                                    const float* unit, const float* const* row, const int* c,
                                    const uint8_t* still) {
  const int count = probes.count;
  RegMutualInformation* mi[RegElasticPointProbes::kMax];
  double* hist[RegElasticPointProbes::kMax];
  int64_t added[RegElasticPointProbes::kMax] = {};
  for (int k = 0; k < count; k++) {
    mi[k] = static_cast<RegMutualInformation*>(samplers[k].metric);
    hist[k] = mi[k]->histogram.data();
  }
  // The bin parameters, alike in every clone, are read once: the histogram
  // stores could otherwise alias them.
  const RegMutualInformation* m = mi[0];
  const double refMin = m->refMin, refScale = m->refScale;
  const double modelMin = m->modelMin, modelScale = m->modelScale;
  const int nRef = m->numBinsRef, nMod = m->numBinsMod;
  const T* model = samplers[0].model;
  auto voxel = [&](size_t v, int x, double fy, double fz) REG_ALWAYS_INLINE {
    int i, j;
    double a0, a1, b0, b1;
    RegMutualInformation::binOf((double)(float)ref[v], refMin, refScale, nRef, i, a0, a1);
    // increment(ref, value) of probe k with the reference bin found above.
    auto add = [&](int k, double value) {
      RegMutualInformation::binOf(value, modelMin, modelScale, nMod, j, b0, b1);
      RegMutualInformation::addWeights(hist[k], nMod, i, j, a0, a1, b0, b1, 1.0);
      added[k]++;
    };
    const double cached = (double)cachedSamples[v];
    const QbVec3f& g = grid[v];
    int vs[3];
    float fr[3], ps[3];
    for (int a = 0; a < 3; a++)
      m->locateGrey(a, g[a], vs[a], fr[a], ps[a]);
    int64_t sx, sy, sz;
    const int64_t off = m->greyCorners(vs, sx, sy, sz);
    float corners[8], e[6];
    RegMetric::loadCorners(model + off, sx, sy, sz, corners);
    RegMetric::lerpX(corners, fr[0], e);
    RegMetric::lerpY(e, fr[1]);
    for (int k = 0; k < count; k++) {
      const int a = c[k];
      const float inc = (float)(row[k][x] * fy);
      const float pa = (float)(g[a] + inc * fz);
      if (pa == g[a]) {
        add(k, cached);
        continue;
      }
      int va;
      float fa, unused;
      m->locateGrey(a, pa, va, fa, unused);
      float value;
      if (va != vs[a]) {
        QbVec3f p = g;
        p[a] = pa;
        value = mi[k]->sampleGrey<T, false>(model, &p);
      } else if (a == 2) {
        value = RegMetric::lerpZ(e, fa);
      } else {
        float f[6] = {e[0], e[1], e[2], e[3], e[4], e[5]};
        if (a == 0)
          RegMetric::lerpX(corners, fa, f);
        RegMetric::lerpY(f, a == 1 ? fa : fr[1]);
        value = RegMetric::lerpZ(f, fr[2]);
      }
      add(k, (double)value);
    }
  };
  const int cp = probes.index[0] / 3;
#ifdef ZR_UNIFORM_AVX2
  // The columns of non-zero weight, which the AVX2 form takes eight at a
  // time.
  int xa, xb;
  if (reg_evaluateUniformSimd() && reg_elasticBoxRun(unit, box[1] - box[0] + 1, 8, xa, xb)) {
    const RegElasticMIProbes shared = {m,      mi,       hist,     row,        c,    count,
                                       refMin, refScale, modelMin, modelScale, nRef, nMod};
    reg_forElasticBoxRows(dims, box, cp, transform, [&](size_t v, double fy, double fz) {
      reg_forElasticLiveRuns(still ? still + v : nullptr, xa, xb, [&](int a, int b) {
        int x = a;
        for (; x + 8 <= b + 1; x += 8)
          reg_evaluateElasticProbesAvx2<T>(shared, ref, model, cachedSamples, grid, v + x, x, fy,
                                           fz, added);
        for (; x <= b; x++)
          voxel(v + x, x, fy, fz);
      });
    });
  } else
#endif
    reg_forElasticBoxVoxels(dims, box, cp, transform, unit,
                            [&](size_t v, int x, double fy, double fz) REG_ALWAYS_INLINE {
                              if (!(still && still[v]))
                                voxel(v, x, fy, fz);
                            });
  for (int k = 0; k < count; k++) {
    mi[k]->numTotal += added[k];
    mi[k]->numInside += added[k];
  }
}

// The unregularised probes of one control point, or the taking out that they
// share (see the modes): each voxel of the box swaps or adds its sample at
// its new position, through samplers[k] for probe k. The move is separable,
// delta times the product of the point's x, y and z weights along the
// parameter's local direction, so the new positions are formed in the walk
// from the cached grid, with the arithmetic of getTransformedGridIncremental
// and without a buffer of the box. `rows` holds kRowFloats times the box's
// width. The parameters are not read, and with a model transformation the
// move follows the local direction of the world parameter: no mapping into
// local coordinates is needed.
//
// The walk visits the box once for all its probes, and each probe's sampler
// sees its voxels in the same order as in a walk of its own, so every metric
// ends as that walk would leave it, to the last bit; the voxel's reference
// value, cached position and weights are read once for all. For mutual
// information without a model transformation in three dimensions the probes
// also share the model cell (reg_walkElasticBoxAddMI).
//
// Voxels where the point's weight is 0 (on the faces of its box) are not
// touched in any mode; in a swap, voxels that the move leaves in place (tiny
// moves vanish in single precision) keep their samples, and after a taking
// out they get their cached sample back without sampling.
template <int Mode, class T, class S>
inline void reg_walkElasticBox(const T* ref, const int* dims, const RegElasticPointProbes& probes,
                               const int* box, const float* cachedSamples, const S* samplers,
                               RegVoxelCubicSplineTransform* transform, const QbVec3f* grid,
                               float* rows) {
  // A control point whose cells hold no voxel changes nothing.
  if (reg_boxIsEmpty(box) || probes.count < 1)
    return;
  const int w = box[1] - box[0] + 1;
  const int count = Mode == RegElasticBoxTakeOut ? 0 : probes.count;
  // The voxels reached are those of a non-zero x weight in `unit`, the same
  // for every probe of the point whatever its delta.
  float* unit = rows;
  transform->getIncrementalRow(probes.index[0], box, 1.0f, unit);
  const float* row[RegElasticPointProbes::kMax];
  int c[RegElasticPointProbes::kMax];
  double dir[RegElasticPointProbes::kMax][3];
  for (int k = 0; k < count; k++) {
    float* r = rows + (size_t)(k + 1) * w;
    transform->getIncrementalRow(probes.index[k], box, probes.delta[k], r);
    row[k] = r;
    c[k] = probes.index[k] % 3;
    transform->getLocalDirection(c[k], dir[k]);
  }
  const bool along = !transform->modelTransformed;
  const bool flat = transform->is2D;
  // The still voxels are skipped by the taking out and by the probes of
  // mutual information that share the model cell, and only there: both
  // halves of a point decide alike.
  constexpr bool sharedCellMI =
      Mode != RegElasticBoxSwap &&
      std::is_same<S, RegElasticVoxelSampler<T, RegMutualInformation>>::value;
  const uint8_t* still = nullptr;
  if constexpr (sharedCellMI)
    if (along && !flat && !samplers[0].label)
      still = probes.still;
#ifdef ZR_UNIFORM_AVX2
  // Taking a box out of mutual information: four voxels at a time.
  if constexpr (Mode == RegElasticBoxTakeOut && sharedCellMI) {
    int xa, xb;
    if (reg_evaluateUniformSimd() && reg_elasticBoxRun(unit, w, 4, xa, xb)) {
      RegMutualInformation* mi = static_cast<RegMutualInformation*>(samplers[0].metric);
      reg_forElasticBoxRows(
          dims, box, probes.index[0] / 3, transform, [&](size_t v, double, double) {
            reg_forElasticLiveRuns(still ? still + v : nullptr, xa, xb, [&](int a, int b) {
              int x = a;
              for (; x + 4 <= b + 1; x += 4)
                reg_evaluateElasticTakeOutAvx2<T>(mi, ref, cachedSamples, v + x);
              mi->numTotal -= x - a;
              mi->numInside -= x - a;
              for (; x <= b; x++)
                samplers[0].remove((double)ref[v + x], (double)cachedSamples[v + x]);
            });
          });
      return;
    }
  }
#endif
  if constexpr (Mode == RegElasticBoxAdd && sharedCellMI) {
    if (along && !flat && !samplers[0].label) {
      reg_walkElasticBoxAddMI(ref, dims, probes, box, cachedSamples, samplers, transform, grid,
                              unit, row, c, still);
      return;
    }
  }
  float sample = 0.0f;
  const float* row0 = count > 0 ? row[0] : nullptr;
  const int c0 = count > 0 ? c[0] : 0;
  const double dir0[3] = {count > 0 ? dir[0][0] : 0.0, count > 0 ? dir[0][1] : 0.0,
                          count > 0 ? dir[0][2] : 0.0};
  reg_forElasticBoxVoxels(
      dims, box, probes.index[0] / 3, transform, unit,
      [&](size_t v, int x, double fy, double fz) REG_ALWAYS_INLINE {
        const double r = (double)ref[v];
        if (Mode == RegElasticBoxTakeOut) {
          if (!(still && still[v]))
            samplers[0].remove(r, (double)cachedSamples[v]);
          return;
        }
        const QbVec3f& g = grid[v];
        if (Mode == RegElasticBoxSwap) {
          // One probe, its row, axis and direction in registers.
          QbVec3f p = reg_elasticProbePosition(g, (float)(row0[x] * fy), fz, c0, dir0, along, flat);
          if (!(p.x == g.x && p.y == g.y && p.z == g.z))
            samplers[0].replace(r, (double)cachedSamples[v], sample, p);
          return;
        }
        const double cached = (double)cachedSamples[v];
        for (int k = 0; k < count; k++) {
          const float inc = (float)(row[k][x] * fy);
          QbVec3f p = reg_elasticProbePosition(g, inc, fz, c[k], dir[k], along, flat);
          const bool moved = !(p.x == g.x && p.y == g.y && p.z == g.z);
          if (Mode == RegElasticBoxSwap) {
            if (moved)
              samplers[k].replace(r, cached, sample, p);
          } else if (moved) {
            samplers[k](r, sample, p);
          } else {
            samplers[k].addCached(r, cached);
          }
        }
      });
}

// Samplers for the probes of one point: copies of `sampler` that add to
// metrics[k] instead.
template <class S, class Metrics>
inline void reg_probeSamplers(const S& sampler, const Metrics& metrics, int count, S* out) {
  for (int k = 0; k < count; k++) {
    out[k] = sampler;
    out[k].metric = metrics[k];
  }
}

// Central differences over the free parameters of control point `point`,
// formed as the loop of one probe at a time forms them: each parameter is
// moved by +d and then -d (d its step times `step`, in single precision),
// left at its former value rounded to float, and its entry is
// (upper - lower) / d; 0 where keepAll is 0 and neither probe rises above
// `base`, `invalidEntry` where a probe gives the invalid value, and 0 for a
// fixed parameter. `walk(probes)` runs the walks that the point's probes
// share (none for the regularised probes); `value(k, index, delta)` gives
// the value of probe k, parameter `index` moved by `delta`, with the
// parameters as they stand.
template <class Walk, class Value>
inline void reg_centralDifferencesOfPoint(int point, int n, const float* paramSteps, double step,
                                          int keepAll, double base, double invalidEntry,
                                          QbDVector<double>& params, double* gradient, Walk&& walk,
                                          Value&& value) {
  RegElasticPointProbes probes;
  for (int i = 3 * point; i < 3 * point + 3 && i < n; i++) {
    const float s = paramSteps[i];
    if (!(s > 0) && !std::isnan(s)) {
      gradient[i] = 0.0;
      continue;
    }
    const float d = (float)((double)s * step);
    probes.add(i, d);
    probes.add(i, -d);
  }
  if (probes.count == 0)
    return;
  walk(probes);
  for (int k = 0; k < probes.count; k += 2) {
    const int i = probes.index[k];
    const float d = probes.delta[k];
    const float saved = (float)params[i];
    params[i] += (double)d;
    const double upper = value(k, i, d);
    params[i] = (double)(saved - d);
    const double lower = value(k + 1, i, -d);
    params[i] = (double)saved;
    if (lower == REG_INVALID_VALUE || upper == REG_INVALID_VALUE)
      gradient[i] = invalidEntry;
    else if (keepAll == 0 && !(upper > base) && !(lower > base))
      gradient[i] = 0.0;
    else
      // Divided by d, not 2 d: the entry is twice the central difference
      // quotient, which is the scale the optimizers are tuned to.
      gradient[i] = (upper - lower) / d;
  }
}

// One probe by a swap of the box's samples (see reg_walkElasticBox).
template <class T, class S>
inline void reg_evaluateElasticBox(const T* ref, const int* dims, int index, const int* box,
                                   const float* cachedSamples, RegMetric* metric, const S& sampler,
                                   RegVoxelCubicSplineTransform* transform,
                                   QbDVector<double>& params, const QbVec3f* grid, float* row,
                                   float delta) {
  reg_walkElasticBox<RegElasticBoxSwap>(ref, dims, RegElasticPointProbes(index, delta), box,
                                        cachedSamples, &sampler, transform, grid, row);
}

// Full three-dimensional regularised pass, line by line. With Cache set the
// samples and penalty terms are kept and the sums and count go to the
// functional's fields (E, J, n by reference). Returns false on a fold, with
// the model bracket left open as it stands at that voxel.
template <class T, bool Cache, class S>
inline bool
reg_evaluateElasticRegularizedPass(const T* ref, const int* dims, const S& sampler,
                                   RegVoxelCubicSplineTransform* transform, QbVec3f* grid,
                                   const RegElasticLines& l, float energyWeight,
                                   float jacobianWeight, float* cachedSamples, float* cachedEnergy,
                                   float* cachedJacobian, double& E, double& J, int64_t& n) {
  const RegElasticPenalty pen(transform->invGridSpacing, transform->modelVolumeScale, false);
  const int nx = dims[0], ny = dims[1], nz = dims[2];
  const bool wantE = energyWeight > 0, wantJ = jacobianWeight > 0;
  // Only the derivative groups a term needs are computed; the others are
  // never read.
  QbVec3d* dxx = wantE ? l.dxx : nullptr;
  QbVec3d* dx = wantJ ? l.dx : nullptr;
  const RegModelFrameScope frame(transform);
  float sample = 0.0f;
  size_t v = 0;
  for (int z = 0; z < nz; z++)
    for (int y = 0; y < ny; y++) {
      int start[3] = {0, y, z};
      transform->getTransformedGridSequence(grid, dxx, l.dyy, l.dzz, l.dxy, l.dxz, l.dyz, dx, l.dy,
                                            l.dz, nx, start);
      for (int x = 0; x < nx; x++, v++) {
        sampler((double)ref[v], sample, grid[x]);
        if (Cache)
          cachedSamples[v] = sample;
        n++;
        if (wantE) {
          const double e = pen.energy(l.dxx[x], l.dyy[x], l.dzz[x], l.dxy[x], l.dxz[x], l.dyz[x]);
          E -= e;
          if (Cache)
            cachedEnergy[v] = (float)e;
        }
        if (wantJ) {
          const double d = pen.determinant(l.dx[x], l.dy[x], l.dz[x]);
          if (d <= 0.0)
            return false;
          const double j = pen.jacobian(d);
          J -= j;
          if (Cache)
            cachedJacobian[v] = (float)j;
        }
      }
    }
  return true;
}

// One three-dimensional regularised probe: each line of the box is recomputed
// from `params` (in the frame of the cached grid, see RegProbeParams) with its
// derivatives, and every voxel replaces its cached sample and penalty terms by
// the new ones. E and J start from the sums of the caching pass. Returns false
// on a fold.
template <class T, class S>
inline bool reg_evaluateElasticRegularizedBox(
    const T* ref, const int* dims, int index, const int* box, const float* cachedSamples,
    const float* cachedEnergy, const float* cachedJacobian, RegMetric* metric, const S& sampler,
    RegVoxelCubicSplineTransform* transform, const QbDVector<double>& params, QbVec3f* grid,
    const RegElasticLines& l, float energyWeight, float jacobianWeight, double& E, double& J) {
  if (reg_boxIsEmpty(box))
    return true;
  const RegElasticPenalty pen(transform->invGridSpacing, transform->modelVolumeScale, false);
  const int nx = dims[0], ny = dims[1];
  const int x0 = box[0], x1 = box[1], y0 = box[2], y1 = box[3], z0 = box[4], z1 = box[5];
  const bool wantE = energyWeight > 0, wantJ = jacobianWeight > 0;
  QbVec3d* dxx = wantE ? l.dxx : nullptr;
  QbVec3d* dx = wantJ ? l.dx : nullptr;
  float sample = 0.0f;
  for (int z = z0; z <= z1; z++)
    for (int y = y0; y <= y1; y++) {
      int start[3] = {x0, y, z};
      transform->getTransformedGridSequence(grid, dxx, l.dyy, l.dzz, l.dxy, l.dxz, l.dyz, dx, l.dy,
                                            l.dz, x1 - x0 + 1, start, params);
      size_t v = ((size_t)z * ny + y) * nx + x0;
      for (int i = 0; i <= x1 - x0; i++, v++) {
        const double r = (double)ref[v];
        sampler.replace(r, (double)cachedSamples[v], sample, grid[i]);
        if (wantE)
          E = ((double)cachedEnergy[v] + E) -
              pen.energy(l.dxx[i], l.dyy[i], l.dzz[i], l.dxy[i], l.dxz[i], l.dyz[i]);
        if (wantJ) {
          const double d = pen.determinant(l.dx[i], l.dy[i], l.dz[i]);
          if (d <= 0.0)
            return false;
          J = ((double)cachedJacobian[v] + J) - pen.jacobian(d);
        }
      }
    }
  return true;
}
