#include "RegElasticFunctional.h"

#include "RegElasticAnalyticGradient.h"
#include "RegElasticFunctionalRegular.h"
#include "RegElasticFunctionalThread.h"
#include "RegMetric.h"
#include "RegVoxelCubicSplineTransform.h"
#include "RegVoxelEvaluator.h"
#include "RegVoxelLinearSplineTransform.h"
#include "ZrLandmarkSet.h"
#include "ZrMessage.h"
#include "ZrRegScalarField3.h"
#include "ZrSettingsMgr.h"
#include "ZrWorkArea.h"
#include "qbmalloc.h"
#include "reg_evaluate.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>

namespace {

// Frees what p holds, then gives it n fresh elements.
template <class P> void reallocBuffer(P*& p, size_t n) {
  qbfree(p);
  p = nullptr;
  p = (P*)qbmalloc(n * sizeof(P));
}

void freeBuffer(void* p) { qbfree(p); }

// Copies one marker set; a set with a single point set serves both sides.
QbDArray<QbVec3f>* copyMarkers(ZrLandmarkSet* set, int which) {
  const int n = set->getNumMarkers();
  QbDArray<QbVec3f>* out = new QbDArray<QbVec3f>(n);
  if (which >= set->getNumSets())
    which = set->getNumSets() - 1;
  const QbVec3f* c = set->getCoords(which);
  for (int i = 0; i < n; i++)
    (*out)[i] = c[i];
  return out;
}

} // namespace

RegElasticFunctional::RegElasticFunctional(const QbDArray<ZrSpatialData*>& references,
                                           QbDArray<ZrSpatialData*>& models,
                                           RegInterpolator interpolator,
                                           RegParametricTransform* transform, RegMetric* metric,
                                           RegOptimizerCallback* callback, RegDataClass dataClass,
                                           ZrLandmarkSet* landmarks, bool fixLowEntropy)
    : RegFunctional(references, models, transform, metric, callback), dataClass(dataClass),
      landmarks(landmarks), interpolator(interpolator) {
  ZrRegScalarField3* reference = static_cast<ZrRegScalarField3*>(references[0]);
  for (int a = 0; a < 3; a++)
    dims[a] = reference->getDims()[a];
  is2D = dims[2] == 1;
  if (landmarks) {
    numLandmarks = landmarks->getNumMarkers();
    landmarksReference = copyMarkers(landmarks, 1);
    landmarksModel = copyMarkers(landmarks, 0);
  }
  this->fixLowEntropy = fixLowEntropy;
  numThreads = getNumberOfProcessors();
  if (usesWorkers())
    ZrMessage::getTheMsg()->printf("using %d threads\n", numThreads);

  if (transform) {
    RegSplineTransform* linear = dynamic_cast<RegVoxelLinearSplineTransform*>(transform);
    splineTransform = linear ? linear : dynamic_cast<RegVoxelCubicSplineTransform*>(transform);
  }

  // The spline must cover the reference and every reference landmark.
  float box[6];
  reference->getBoundingBox(box);
  if (landmarksReference)
    for (int i = 0; i < landmarksReference->size(); i++)
      for (int a = 0; a < 3; a++) {
        const float v = (*landmarksReference)[i][a];
        if (v < box[2 * a])
          box[2 * a] = v;
        if (v > box[2 * a + 1])
          box[2 * a + 1] = v;
      }
  if (splineTransform)
    splineTransform->updateInterpolatedSpaceBoundary(QbBox3f(box));

  primType = (QbPrimType)reference->primType();
  if (!qbPrimTypeIsVoxelType(primType))
    abort();
  referenceVoxels = reference->lattice.dataPtr();
  modelVoxels = static_cast<ZrRegScalarField3*>(models[0])->lattice.dataPtr();
  fixPending = true;
}

RegElasticFunctional::~RegElasticFunctional() {
  for (int i = 0; i < threads.size(); i++)
    delete threads[i];
  for (int i = 0; i < threadEvaluators.size(); i++)
    delete threadEvaluators[i];
  for (int i = 0; i < threadLocations.size(); i++)
    delete threadLocations[i];
  delete metricWork;
  delete metricBoxOut;
  delete evaluator;
  delete analyticGradient;
  delete landmarksReference;
  delete landmarksModel;
  void* buffers[] = {cachedSamples,
                     cachedJacobian,
                     cachedEnergy,
                     influenceBoxes,
                     paramSteps,
                     grid,
                     incGrid,
                     incPlane0,
                     incLine0,
                     incPlane1,
                     incPlane2,
                     incLine1,
                     incPlane3,
                     incPlane4,
                     incLine2,
                     incPlane5,
                     gridPartialY,
                     gridPartialZ,
                     derivPartialY,
                     derivPartialZ,
                     dX,
                     dY,
                     dZ,
                     incDx,
                     incDy,
                     dXX,
                     dYY,
                     dZZ,
                     dXY,
                     dXZ,
                     dYZ,
                     incDxx,
                     incDyy,
                     incDxy};
  for (void* b : buffers)
    freeBuffer(b);
}

short RegElasticFunctional::getNumberOfProcessors() {
  // The host's thread count (--threads, ZR_NUM_THREADS, else the machine's
  // cores), so that the gradient uses what the user gave the whole run.
  const int n = ZrSettingsMgr::getInstance()->getNumThreads();
  return (short)std::max(1, std::min(n, (int)SHRT_MAX));
}

bool RegElasticFunctional::checkRegularizer(ZrSpatialData* reference, float energyWeight,
                                            float jacobianWeight, bool regularClass) {
  ZrRegScalarField3* field = dynamic_cast<ZrRegScalarField3*>(reference);
  const bool flat = field && field->getDims()[2] == 1;
  if (!flat || regularClass || (energyWeight <= 0 && jacobianWeight <= 0))
    return true;
  ZrMessage::getTheMsg()->printf(
      "Error: grid energy and Jacobian constraint are not available for two-dimensional data "
      "with non-uniform coordinates or the correlation metric. Set both weights to 0.\n");
  return false;
}

void RegElasticFunctional::resetEval() { evaluator->resetEval(); }

void RegElasticFunctional::init() {
  splineTransform->setReference(references[0]);
  // A clone of an earlier init is released here rather than left behind.
  delete metricWork;
  metricWork = nullptr;
  metricWork = metric->clone();
  delete metricBoxOut;
  metricBoxOut = nullptr;
  metricBoxOut = metric->clone();
  probeMetrics.reset(metric);
  boxOutPoint = -1;
  delete evaluator;
  evaluator = nullptr;
  evaluator = new RegVoxelEvaluator(static_cast<ZrRegScalarField3*>(models[0]), interpolator);
  resetEval();
  splineTransform->precomputeInterpolants();
  if (numLandmarks != 0)
    static_cast<RegVoxelCubicSplineTransform*>(splineTransform)->precomputeInterpolantsLandmarks();

  // Last guard of the refusal that the module makes before a run: the general
  // class has no two-dimensional regularised form, so its weights are dropped
  // here instead of reaching three-dimensional spline sums on a flat lattice.
  if (is2D && !dynamic_cast<RegElasticFunctionalRegular*>(this) &&
      !checkRegularizer(references[0], energyWeight, jacobianWeight, false)) {
    energyWeight = 0.0f;
    jacobianWeight = 0.0f;
  }

  regularizerMode = 0;
  if (energyWeight > 0)
    regularizerMode = 1;
  if (jacobianWeight > 0)
    regularizerMode = energyWeight > 0 ? 3 : 2;

  const int nx = dims[0], ny = dims[1];
  const size_t N = (size_t)dims[0] * dims[1] * dims[2];
  if (regularizerMode == 0 || is2D) {
    reallocBuffer(grid, N);
    for (size_t v = 0; v < N; v++)
      grid[v].z = 0.0f;
  } else {
    reallocBuffer(grid, (size_t)nx);
  }

  const int numParams = splineTransform->getParamVectorDim();
  reallocBuffer(paramSteps, (size_t)numParams);
  reallocBuffer(influenceBoxes, (size_t)numParams);
  maxInfluence[0] = maxInfluence[1] = maxInfluence[2] = 1;
  for (int i = 0; i < numParams; i++) {
    paramSteps[i] = (float)splineTransform->getParamStep(i, nullptr);
    float from[3], to[3];
    splineTransform->getVolumeOfInfluence(i, from, to, -1);
    for (int a = 0; a < 3; a++) {
      influenceBoxes[i][2 * a] = (int)from[a];
      influenceBoxes[i][2 * a + 1] = (int)to[a];
      const int extent = (int)((to[a] - from[a]) + 1.0);
      if (extent > maxInfluence[a])
        maxInfluence[a] = extent;
    }
  }
  const size_t M = (size_t)maxInfluence[0] * maxInfluence[1] * maxInfluence[2];
  const size_t planeFloats = 3 * (size_t)maxInfluence[0] * maxInfluence[1];
  const size_t lineFloats = 3 * (size_t)maxInfluence[0];
  const int* cp = splineTransform->gridSize;

  if (energyWeight > 0 || jacobianWeight > 0) {
    if (!is2D) {
      QbVec3d** lines[9] = {&dX, &dY, &dZ, &dXX, &dYY, &dZZ, &dXY, &dXZ, &dYZ};
      for (QbVec3d** l : lines)
        reallocBuffer(*l, (size_t)nx);
    } else {
      QbVec3d** images[6] = {&dX, &dY, &dZ, &dXX, &dYY, &dXY};
      for (QbVec3d** l : images)
        reallocBuffer(*l, N);
      // The third column of a flat deformation is taken as (1, 1, 1).
      for (size_t v = 0; v < N; v++)
        dZ[v] = QbVec3d(1.0, 1.0, 1.0);
      QbVec3d** incs[5] = {&incDx, &incDy, &incDxx, &incDyy, &incDxy};
      for (QbVec3d** l : incs) {
        reallocBuffer(*l, M);
        for (size_t k = 0; k < M; k++)
          (*l)[k].z = 0.0;
      }
      const size_t partial = (size_t)nx * cp[1] * cp[2];
      reallocBuffer(derivPartialY, partial);
      reallocBuffer(derivPartialZ, partial);
      float** planes[5] = {&incPlane1, &incPlane2, &incPlane3, &incPlane4, &incPlane5};
      for (float** p : planes)
        reallocBuffer(*p, planeFloats);
      reallocBuffer(incLine1, lineFloats);
      reallocBuffer(incLine2, lineFloats);
    }
  }
  if (regularizerMode == 0 || is2D) {
    reallocBuffer(gridPartialY, (size_t)nx * cp[1] * cp[2]);
    reallocBuffer(gridPartialZ, (size_t)nx * ny * cp[2]);
    reallocBuffer(incPlane0, planeFloats);
    // Also the rows of the unregularised probes of one point.
    reallocBuffer(incLine0, std::max(lineFloats,
                                     RegElasticPointProbes::kRowFloats * (size_t)maxInfluence[0]));
    // The unregularised probes form the box's positions in their walk; only
    // the two-dimensional regularised probe keeps them in a buffer.
    if (is2D && regularizerMode != 0) {
      reallocBuffer(incGrid, M);
      for (size_t k = 0; k < M; k++)
        incGrid[k].z = 0.0f;
    }
  }
  if (usesWorkers())
    createThreads();

  delete analyticGradient;
  analyticGradient = nullptr;
  const char* why = nullptr;
  if (gradientMethod == 1) {
    if (RegElasticAnalyticGradient::isAvailable(*this, &why))
      analyticGradient = new RegElasticAnalyticGradient;
    else
      ZrMessage::getTheMsg()->printf(
          "No analytic gradient: %s. The gradient is taken by finite differences.\n", why);
  }
}

// Runs `call` with the C++ type of the reference's voxel type; any other type
// ends the process.
#define REG_ELASTIC_DISPATCH(call)                                                                 \
  do {                                                                                             \
    if (!qbDispatchVoxelType(primType, [&](auto tag) {                                             \
          typedef decltype(tag) T;                                                                 \
          T* ref = (T*)referenceVoxels;                                                            \
          result = call;                                                                           \
        }))                                                                                        \
      abort();                                                                                     \
  } while (0)

double RegElasticFunctional::evaluate() {
  if (analyticGradient && !is2D)
    return analyticGradient->value(*this, false);
  metric->reset();
  if (regularizerMode >= 1 && regularizerMode <= 3)
    return evaluateWithRegularizer();
  double result = 0.0;
  REG_ELASTIC_DISPATCH(reg_evaluate<T>(ref, dims, metric, splineTransform, evaluator->location,
                                       evaluator->eval, this, grid, gridPartialY, gridPartialZ));
  return result;
}

double RegElasticFunctional::evaluateAndCache() {
  metric->reset();
  boxOutPoint = -1;
  double result = 0.0;
  REG_ELASTIC_DISPATCH(reg_evaluateAndCache<T>(ref, dims, cachedSamples, metric, splineTransform,
                                               evaluator->location, evaluator->eval, this, grid,
                                               gridPartialY, gridPartialZ));
  return result;
}

double RegElasticFunctional::evaluateIncremental(int index, float delta) {
  // Every probe starts from the cached statistics, never from the last probe.
  reg_restoreCachedState(metric, metricWork);
  double result = 0.0;
  REG_ELASTIC_DISPATCH(reg_evaluateIncremental<T>(
      ref, dims, index, influenceBoxes, cachedSamples, metricWork, splineTransform,
      evaluator->location, evaluator->eval, this, grid, incGrid, incPlane0, incLine0, delta));
  return result;
}

double RegElasticFunctional::evaluateProbe(int index, float delta) {
  runProbes(RegElasticPointProbes(index, delta));
  return getWeightedResult(probeMetrics[0]->getResult());
}

void RegElasticFunctional::runProbes(const RegElasticPointProbes& probes) {
  const int index = probes.index[0];
  if (boxOutPoint != index / 3 || boxOutStill != probes.still) {
    reg_restoreCachedState(metric, metricBoxOut);
    takeOutBox(probes);
    boxOutPoint = index / 3;
    boxOutStill = probes.still;
  }
  probeMetrics.restore(metricBoxOut, probes.count);
  addProbes(probes);
}

void RegElasticFunctional::takeOutBox(const RegElasticPointProbes& probes) {
  const int index = probes.index[0];
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(splineTransform);
  const RegElasticFieldSampler sampler{metricBoxOut, evaluator->location, evaluator->eval};
  double result = 0.0;
  REG_ELASTIC_DISPATCH((reg_walkElasticBox<RegElasticBoxTakeOut>(
                            ref, dims, RegElasticPointProbes(index, 0.0f), influenceBoxes[index],
                            cachedSamples, &sampler, cubic, grid, incLine0),
                        0.0));
}

void RegElasticFunctional::addProbes(const RegElasticPointProbes& probes) {
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(splineTransform);
  RegElasticFieldSampler samplers[RegElasticPointProbes::kMax];
  reg_probeSamplers(RegElasticFieldSampler{nullptr, evaluator->location, evaluator->eval},
                    probeMetrics, probes.count, samplers);
  const int index = probes.index[0];
  double result = 0.0;
  REG_ELASTIC_DISPATCH(
      (reg_walkElasticBox<RegElasticBoxAdd>(ref, dims, probes, influenceBoxes[index], cachedSamples,
                                            samplers, cubic, grid, incLine0),
       0.0));
}

double RegElasticFunctional::evaluateWithRegularizer() {
  double result = 0.0;
  REG_ELASTIC_DISPATCH(reg_evaluateWithRegularizer<T>(
      ref, dims, metric, splineTransform, evaluator->location, evaluator->eval, this, grid, dXX,
      dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ, energyWeight, jacobianWeight));
  return result;
}

double RegElasticFunctional::evaluateAndCacheWithRegularizer() {
  metric->reset();
  double result = 0.0;
  REG_ELASTIC_DISPATCH(reg_evaluateAndCacheWithRegularizer<T>(
      ref, dims, cachedSamples, cachedEnergy, cachedJacobian, metric, splineTransform,
      evaluator->location, evaluator->eval, this, grid, dXX, dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ,
      numVoxels, energySum, energyWeight, jacobianSum, jacobianWeight));
  cacheLocalParams();
  return result;
}

void RegElasticFunctional::cacheLocalParams() {
  if (splineTransform->modelTransformed)
    splineTransform->mapToLocal(transform->paramVector, localParams);
}

double RegElasticFunctional::evaluateIncrementalWithRegularizer(int index) {
  reg_restoreCachedState(metric, metricWork);
  savedNumVoxels = numVoxels;
  savedEnergySum = energySum;
  savedJacobianSum = jacobianSum;
  double result = 0.0;
  REG_ELASTIC_DISPATCH(reg_evaluateIncrementalWithRegularizer<T>(
      ref, dims, index, influenceBoxes, cachedSamples, cachedEnergy, cachedJacobian, metricWork,
      splineTransform, evaluator->location, evaluator->eval, this, grid, dXX, dYY, dZZ, dXY, dXZ,
      dYZ, dX, dY, dZ, savedNumVoxels, savedEnergySum, energyWeight, savedJacobianSum,
      jacobianWeight));
  return result;
}

double RegElasticFunctional::evaluate(QbDVector<double>& gradient, double step, int keepAll) {
  if (analyticGradient) {
    const double value = analyticGradient->evaluate(*this, gradient);
    return value == REG_INVALID_VALUE ? value : getWeightedResult(value);
  }
  const bool regularized = regularizerMode >= 1 && regularizerMode <= 3;
  const double base = regularized ? evaluateAndCacheWithRegularizer() : evaluateAndCache();
  if (base == REG_INVALID_VALUE)
    return REG_INVALID_VALUE;
  if (fixLowEntropy && fixPending)
    updateFixedControlPoints();
  const int n = transform->getParamVectorDim();
  if (gradient.size() < n)
    gradient.resize(n);
  if (usesWorkers()) {
    if (!runThreads(gradient, step, keepAll, base))
      return REG_INVALID_VALUE;
    return getWeightedResult(base);
  }
  QbDVector<double>& params = transform->paramVector;
  boxOutPoint = -1;
  probeMetrics.setBase(regularized ? nullptr : metric);
  for (int point = 0; 3 * point < n; point++) {
    // A folded probe leaves its entry at 0.
    reg_centralDifferencesOfPoint(
        point, n, paramSteps, step, keepAll, base, 0.0, params, gradient.data(),
        [&](const RegElasticPointProbes& probes) {
          if (!regularized)
            runProbes(probes);
        },
        [&](int k, int index, float) {
          return regularized ? evaluateIncrementalWithRegularizer(index)
                             : getWeightedResult(probeMetrics.result(k));
        });
    if (ZrWorkArea::getTheWorkArea()->wasInterrupted(1))
      return REG_INVALID_VALUE;
  }
  // `base` carries the landmark term of the caching pass already, so with
  // landmarks the returned value counts it twice.
  return getWeightedResult(base);
}

double RegElasticFunctional::getWeightedResult(double result) const {
  if (numLandmarks != 0 && landmarkWeight > 0)
    return result + (double)landmarkWeight * evaluateLandmarks();
  return result;
}

double RegElasticFunctional::evaluateLandmarks() const {
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(splineTransform);
  double s = 0.0;
  for (int i = 0; i < numLandmarks; i++) {
    int l = i;
    QbVec3f p;
    cubic->getTransformedGridLandmark(&l, p, transform->paramVector);
    const QbVec3f& m = (*landmarksModel)[i];
    const float dx = m.x - p.x, dy = m.y - p.y, dz = m.z - p.z;
    s -= dx * dx + dy * dy + dz * dz;
  }
  return s / numLandmarks;
}

void RegElasticFunctional::createThreads() {
  // A second call replaces the workers and the evaluators they sampled with.
  for (int i = 0; i < threads.size(); i++)
    delete threads[i];
  for (int i = 0; i < threadEvaluators.size(); i++)
    delete threadEvaluators[i];
  for (int i = 0; i < threadLocations.size(); i++)
    delete threadLocations[i];
  threads.resize(numThreads);
  threadEvaluators.resize(numThreads);
  threadLocations.resize(numThreads);
  for (int i = 0; i < numThreads; i++) {
    threadEvaluators[i] = nullptr;
    threadLocations[i] = nullptr;
  }
  for (int i = 0; i < numThreads; i++) {
    evaluator->createEvalModel(threadEvaluators[i], threadLocations[i]);
    threads[i] = new RegElasticFunctionalThread(this, i, paramSteps, threadEvaluators[i],
                                                threadLocations[i], primType, referenceVoxels, dims,
                                                landmarksModel, numLandmarks, landmarkWeight);
  }
}

bool RegElasticFunctional::runThreads(QbDVector<double>& gradient, double step, int keepAll,
                                      double base) {
  for (int i = 0; i < threads.size(); i++) {
    QbDVector<double> params(transform->paramVector);
    threads[i]->init(params, gradient.data(), step, keepAll, base, (long)numVoxels, cachedEnergy,
                     cachedJacobian, maxInfluence, grid, energySum, jacobianSum, energyWeight,
                     jacobianWeight);
    threads[i]->start();
  }
  for (int i = 0; i < threads.size(); i++)
    threads[i]->wait();
  // The workers stop at the user's request, leaving their entries unset.
  return !ZrWorkArea::getTheWorkArea()->wasInterrupted(1);
}

void RegElasticFunctional::updateFixedControlPoints() {
  const int numPoints = splineTransform->getParamVectorDim() / 3;
  int* box = (int*)qbmalloc(6 * sizeof(int));
  float* from = nullptr;
  float* to = nullptr;
  try {
    from = (float*)qbmalloc(3 * sizeof(float));
    to = (float*)qbmalloc(3 * sizeof(float));
  } catch (...) {
    qbfree(box);
    qbfree(from);
    throw;
  }
  ZrRegScalarField3* reference = static_cast<ZrRegScalarField3*>(references[0]);
  const ZrLattice3& lattice = reference->lattice;
  const int nx = dims[0], ny = dims[1];
  const float invalid = -FLT_MAX;

  // The box of control point c: the full support of its x parameter.
  auto boxOf = [&](int c) {
    splineTransform->getVolumeOfInfluence(3 * c, from, to, 0);
    for (int a = 0; a < 3; a++) {
      box[2 * a] = (int)from[a];
      box[2 * a + 1] = (int)to[a];
    }
  };
  int count = 0;
  auto fix = [&](int c) {
    for (int p = 3 * c; p < 3 * c + 3; p++) {
      splineTransform->setControlPointInactive(p);
      paramSteps[p] = (float)splineTransform->getParamStep(p, nullptr);
    }
    count++;
  };

  if (dataClass == 1 || dataClass == RegDataClassLabel) {
    // Labels: a point that sees only background in both images is fixed.
    splineTransform->setControlPointActive();
    for (int c = 0; c < numPoints; c++) {
      if (!splineTransform->newControlPoints[c])
        continue;
      boxOf(c);
      bool occupied = false;
      for (int z = box[4]; z <= box[5] && !occupied; z++)
        for (int y = box[2]; y <= box[3] && !occupied; y++)
          for (int x = box[0]; x <= box[1]; x++) {
            const size_t v = ((size_t)z * ny + y) * nx + x;
            const float r = lattice.getValueAsFloat(v);
            const float s = cachedSamples[v];
            // A NaN reference counts as occupied.
            if (!(r == 0.0f) || (s != 0.0f && s != invalid)) {
              occupied = true;
              break;
            }
          }
      if (!occupied)
        fix(c);
    }
  } else {
    // Grey values: a point whose box lies in the lower half of the entropy
    // range in both images is fixed.
    QbDVector<double> refEntropy(numPoints, 0.0), modelEntropy(numPoints, 0.0);
    for (int c = 0; c < numPoints; c++) {
      metricWork->reset();
      boxOf(c);
      for (int z = box[4]; z <= box[5]; z++)
        for (int y = box[2]; y <= box[3]; y++)
          for (int x = box[0]; x <= box[1]; x++) {
            const size_t v = ((size_t)z * ny + y) * nx + x;
            const float s = cachedSamples[v];
            if (s == invalid) {
              // Seen, but in no statistic.
              metricWork->numTotal++;
              continue;
            }
            metricWork->increment((double)lattice.getValueAsFloat(v), (double)s);
          }
      metricWork->getMarginalEntropies(refEntropy[c], modelEntropy[c]);
    }
    float refMin = FLT_MAX, refMax = FLT_MIN, modelMin = FLT_MAX, modelMax = FLT_MIN;
    for (int c = 0; c < numPoints; c++) {
      if (refEntropy[c] < refMin)
        refMin = (float)refEntropy[c];
      if (refEntropy[c] > refMax)
        refMax = (float)refEntropy[c];
      if (modelEntropy[c] < modelMin)
        modelMin = (float)modelEntropy[c];
      if (modelEntropy[c] > modelMax)
        modelMax = (float)modelEntropy[c];
    }
    // The midpoint of each range, not its mean or median.
    const float refThreshold = (refMax + refMin) * 0.5f;
    const float modelThreshold = (modelMax + modelMin) * 0.5f;
    splineTransform->setControlPointActive();
    for (int c = 0; c < numPoints; c++)
      if (refEntropy[c] < (double)refThreshold && modelEntropy[c] < (double)modelThreshold)
        fix(c);
  }
  ZrMessage::getTheMsg()->printf("Deactivated %d out of %d control points.\n", count,
                                 splineTransform->getParamVectorDim() / 3);
  fixPending = false;
  qbfree(box);
  qbfree(from);
  qbfree(to);
}
