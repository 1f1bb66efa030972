#include "RegElasticFunctionalThread.h"

#include "RegElasticFunctional.h"
#include "RegMetric.h"
#include "RegVoxelCubicSplineTransform.h"
#include "ZrMessage.h"
#include "ZrWorkArea.h"
#include "qbmalloc.h"
#include "reg_evaluate_thread.h"

#include <cmath>
#include <cstdlib>

RegElasticFunctionalThread::RegElasticFunctionalThread(
    RegElasticFunctional* functional, int threadIndex, float* paramSteps,
    ZrFieldEvaluator* evaluator, ZrLocation3* location, QbPrimType primType, void* voxels,
    int* dims, QbDArray<QbVec3f>* landmarksModel, int numLandmarks, float landmarkWeight)
    : functional(functional), threadIndex((short)threadIndex), landmarksModel(landmarksModel),
      numLandmarks(numLandmarks), landmarkWeight(landmarkWeight), voxels(voxels),
      primType(primType), paramSteps(paramSteps), evaluator(evaluator), location(location),
      dims(dims) {}

RegElasticFunctionalThread::~RegElasticFunctionalThread() {
  try {
    wait();
  } catch (...) {
  }
  delete metric;
  delete metricBoxOut;
  freeBuffers();
}

void RegElasticFunctionalThread::freeBuffers() {
  for (QbVec3d*& l : lineBuffers) {
    qbfree(l);
    l = nullptr;
  }
  if (ownsGrid)
    qbfree(grid);
  grid = nullptr;
  ownsGrid = false;
  qbfree(incGrid);
  incGrid = nullptr;
  qbfree(incPlane);
  incPlane = nullptr;
  qbfree(incLine);
  incLine = nullptr;
}

void RegElasticFunctionalThread::init(QbDVector<double> params, double* gradient, double step,
                                      int keepAll, double base, long numVoxels, float* cachedEnergy,
                                      float* cachedJacobian, int* maxInfluence, QbVec3f* grid,
                                      double energySum, double jacobianSum, float energyWeight,
                                      float jacobianWeight) {
  // The clone of the previous gradient is released before it is replaced.
  delete metric;
  metric = nullptr;
  metric = functional->metric->clone();
  delete metricBoxOut;
  metricBoxOut = nullptr;
  metricBoxOut = functional->metric->clone();
  probeMetrics.reset(functional->metric);
  boxOutPoint = -1;
  this->params = params;
  localParams = functional->localParams;
  this->gradient = gradient;
  this->step = (float)step;
  this->keepAll = keepAll;
  this->base = base;
  this->numVoxels = numVoxels;
  this->cachedEnergy = cachedEnergy;
  this->cachedJacobian = cachedJacobian;
  this->maxInfluence = maxInfluence;
  this->energySum = energySum;
  this->jacobianSum = jacobianSum;
  this->energyWeight = energyWeight;
  this->jacobianWeight = jacobianWeight;
  regularizerMode = 0;
  if (energyWeight > 0)
    regularizerMode = 1;
  if (jacobianWeight > 0)
    regularizerMode = energyWeight > 0 ? 3 : 2;

  freeBuffers();
  // A failed allocation is reported and the worker runs on: its probes then
  // find null buffers, which is not tested for.
  try {
    const size_t nx = (size_t)dims[0];
    if (energyWeight > 0 || jacobianWeight > 0) {
      for (QbVec3d*& l : lineBuffers)
        l = (QbVec3d*)qbmalloc(nx * sizeof(QbVec3d));
      this->grid = (QbVec3f*)qbmalloc(nx * sizeof(QbVec3f));
      ownsGrid = true;
    } else {
      // The probes form the box's positions in their walk: no incGrid.
      this->grid = grid;
      incPlane = (float*)qbmalloc(3 * sizeof(float) * maxInfluence[0] * maxInfluence[1]);
      // Also the rows of the probes of one point.
      incLine =
          (float*)qbmalloc(RegElasticPointProbes::kRowFloats * sizeof(float) * maxInfluence[0]);
    }
  } catch (QbMemoryException& e) {
    ZrMessage::getTheMsg()->printf("Error: Allocation of %d bytes failed!", (int)e.getNumBytes());
  }
}

#define REG_THREAD_DISPATCH(call)                                                                  \
  do {                                                                                             \
    if (!qbDispatchVoxelType(primType, [&](auto tag) {                                             \
          typedef decltype(tag) T;                                                                 \
          T* ref = (T*)voxels;                                                                     \
          result = call;                                                                           \
        }))                                                                                        \
      abort();                                                                                     \
  } while (0)

double RegElasticFunctionalThread::evaluateIncremental(int index, float delta) {
  // The functional's metric holds the cached statistics and is only read.
  reg_restoreCachedState(functional->metric, metric);
  double result = 0.0;
  REG_THREAD_DISPATCH(reg_evaluateIncremental_thread<T>(
      ref, params, dims, index, functional->influenceBoxes, functional->cachedSamples, metric,
      functional->splineTransform, location, evaluator, this, grid, incGrid, incPlane, incLine,
      delta));
  return result;
}

void RegElasticFunctionalThread::runProbes(const RegElasticPointProbes& probes) {
  RegVoxelCubicSplineTransform* cubic =
      static_cast<RegVoxelCubicSplineTransform*>(functional->splineTransform);
  const int index = probes.index[0];
  const int* box = functional->influenceBoxes[index];
  const float* cached = functional->cachedSamples;
  double result = 0.0;
  if (boxOutPoint != index / 3) {
    reg_restoreCachedState(functional->metric, metricBoxOut);
    const RegElasticFieldSampler out{metricBoxOut, location, evaluator};
    REG_THREAD_DISPATCH((reg_walkElasticBox<RegElasticBoxTakeOut>(ref, dims, probes, box, cached,
                                                                  &out, cubic, grid, incLine),
                         0.0));
    boxOutPoint = index / 3;
  }
  probeMetrics.restore(metricBoxOut, probes.count);
  RegElasticFieldSampler in[RegElasticPointProbes::kMax];
  reg_probeSamplers(RegElasticFieldSampler{nullptr, location, evaluator}, probeMetrics,
                    probes.count, in);
  REG_THREAD_DISPATCH((reg_walkElasticBox<RegElasticBoxAdd>(ref, dims, probes, box, cached, in,
                                                            cubic, grid, incLine),
                       0.0));
}

double RegElasticFunctionalThread::evaluateIncrementalWithRegularizer(int index) {
  reg_restoreCachedState(functional->metric, metric);
  double result = 0.0;
  REG_THREAD_DISPATCH(reg_evaluateIncremental_threadWithRegularizer<T>(
      ref, params, dims, index, functional->influenceBoxes, functional->cachedSamples, cachedEnergy,
      cachedJacobian, metric, functional->splineTransform, location, evaluator, this, grid,
      lineBuffers, numVoxels, energySum, energyWeight, jacobianSum, jacobianWeight));
  return result;
}

double RegElasticFunctionalThread::getWeightedResult(double result) const {
  if (numLandmarks != 0 && landmarkWeight > 0)
    return result + (double)landmarkWeight * evaluateLandmarks();
  return result;
}

double RegElasticFunctionalThread::evaluateLandmarks() const {
  RegVoxelCubicSplineTransform* cubic =
      static_cast<RegVoxelCubicSplineTransform*>(functional->splineTransform);
  double s = 0.0;
  for (int i = 0; i < numLandmarks; i++) {
    int l = i;
    QbVec3f p;
    cubic->getTransformedGridLandmark(&l, p, params);
    const QbVec3f& m = (*landmarksModel)[i];
    const float dx = m.x - p.x, dy = m.y - p.y, dz = m.z - p.z;
    s -= dx * dx + dy * dy + dz * dz;
  }
  return s / numLandmarks;
}

void RegElasticFunctionalThread::run() {
  const int n = functional->transform->getParamVectorDim();
  const bool regularized = regularizerMode >= 1 && regularizerMode <= 3;
  probeMetrics.setBase(regularized ? nullptr : functional->metric);
  // The parameters of one control point go to one worker, which takes
  // their box out once for all their probes; the points are dealt
  // round-robin.
  for (int point = threadIndex; 3 * point < n; point += functional->numThreads) {
    // A stop ends every worker; the caller sees it after the join.
    if (ZrWorkArea::getTheWorkArea()->wasInterrupted(1))
      return;
    // A folded probe leaves its entry at 0.
    reg_centralDifferencesOfPoint(
        point, n, paramSteps, step, keepAll, base, 0.0, params, gradient,
        [&](const RegElasticPointProbes& probes) {
          if (!regularized)
            runProbes(probes);
        },
        [&](int k, int index, float) {
          return regularized ? evaluateIncrementalWithRegularizer(index)
                             : getWeightedResult(probeMetrics.result(k));
        });
  }
}
