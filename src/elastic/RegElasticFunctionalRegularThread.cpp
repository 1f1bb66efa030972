#include "RegElasticFunctionalRegularThread.h"

#include "RegElasticFunctionalRegular.h"
#include "RegMetric.h"
#include "RegVoxelCubicSplineTransform.h"
#include "ZrMessage.h"
#include "ZrWorkArea.h"
#include "qbmalloc.h"
#include "reg_evaluate_thread.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <type_traits>

RegElasticFunctionalRegularThread::RegElasticFunctionalRegularThread(
    RegElasticFunctionalRegular* functional, int threadIndex, float* paramSteps,
    QbPrimType primType, void* referenceVoxels, void* modelVoxels, float* modelBox,
    unsigned char boxFlags, int* dims, int* modelDims, int (*influenceBoxes)[6],
    RegSplineTransform* transform, float scaleX, float scaleY, float scaleZ,
    QbDArray<QbVec3f>* landmarks, int numLandmarks, float landmarkWeight)
    : functional(functional), threadIndex((short)threadIndex), landmarksModel(landmarks),
      numLandmarks(numLandmarks), landmarkWeight(landmarkWeight), primType(primType),
      paramSteps(paramSteps), dims(dims), is2D(dims[2] == 1), referenceVoxels(referenceVoxels),
      modelVoxels(modelVoxels), influenceBoxes(influenceBoxes), transform(transform),
      modelBox(modelBox), modelDims(modelDims), boxFlags(boxFlags), scaleX(scaleX), scaleY(scaleY),
      scaleZ(scaleZ) {}

RegElasticFunctionalRegularThread::~RegElasticFunctionalRegularThread() {
  try {
    wait();
  } catch (...) {
  }
  delete metric;
  delete metricBoxOut;
  freeBuffers();
}

void RegElasticFunctionalRegularThread::freeBuffers() {
  for (QbVec3d*& l : lineBuffers) {
    qbfree(l);
    l = nullptr;
  }
  if (ownsGrid)
    qbfree(grid);
  grid = nullptr;
  ownsGrid = false;
  QbVec3d** own[6] = {&incDx, &incDy, &incDxx, &incDyy, &incDxy, &dZ};
  for (QbVec3d** p : own) {
    qbfree(*p);
    *p = nullptr;
  }
  for (float*& p : incPlanes) {
    qbfree(p);
    p = nullptr;
  }
  for (float*& p : incLines) {
    qbfree(p);
    p = nullptr;
  }
  qbfree(incGrid);
  incGrid = nullptr;
  qbfree(incPlane);
  incPlane = nullptr;
  qbfree(incLine);
  incLine = nullptr;
}

void RegElasticFunctionalRegularThread::init(
    QbDVector<double> params, double* gradient, double& step, int& keepAll, double& base,
    long numVoxels, float* cachedSamples, float* cachedEnergy, float* cachedJacobian,
    int* maxInfluence, QbVec3f* grid, double energySum, double jacobianSum, float energyWeight,
    float jacobianWeight, QbVec3d* dX, QbVec3d* dY, QbVec3d* dXX, QbVec3d* dYY, QbVec3d* dXY) {
  // The clone of the previous gradient is released before it is replaced. A
  // clone carries no sampling state, so it is set here.
  delete metric;
  metric = nullptr;
  metric = functional->metric->clone();
  delete metricBoxOut;
  metricBoxOut = nullptr;
  metricBoxOut = functional->metric->clone();
  boxOutPoint = -1;
  metric->box = modelBox;
  metric->dims = modelDims;
  metric->scale[0] = scaleX;
  metric->scale[1] = scaleY;
  metric->scale[2] = scaleZ;
  for (int a = 0; a < 3; a++)
    metric->boxSize[a] = modelBox[2 * a + 1] - modelBox[2 * a];
  metric->inside = 1;
  functional->setSamplingState(metricBoxOut);
  probeMetrics.reset(functional->metric);
  for (RegMetric* m : probeMetrics)
    functional->setSamplingState(m);

  this->params = params;
  localParams = functional->localParams;
  this->gradient = gradient;
  this->step = (float)step;
  this->keepAll = keepAll;
  this->base = base;
  this->numVoxels = numVoxels;
  this->cachedSamples = cachedSamples;
  this->cachedEnergy = cachedEnergy;
  this->cachedJacobian = cachedJacobian;
  this->maxInfluence = maxInfluence;
  this->energySum = energySum;
  this->jacobianSum = jacobianSum;
  this->energyWeight = energyWeight;
  this->jacobianWeight = jacobianWeight;
  this->dX = dX;
  this->dY = dY;
  this->dXX = dXX;
  this->dYY = dYY;
  this->dXY = dXY;
  regularizerMode = 0;
  if (energyWeight > 0)
    regularizerMode = 1;
  if (jacobianWeight > 0)
    regularizerMode = energyWeight > 0 ? 3 : 2;

  freeBuffers();
  // A failed allocation is reported and the worker runs on.
  try {
    const size_t nx = (size_t)dims[0];
    const size_t M = (size_t)maxInfluence[0] * maxInfluence[1] * maxInfluence[2];
    const size_t planeBytes = 3 * sizeof(float) * maxInfluence[0] * maxInfluence[1];
    const size_t lineBytes = 3 * sizeof(float) * maxInfluence[0];
    const bool regularized = energyWeight > 0 || jacobianWeight > 0;
    if (regularized && !is2D) {
      for (QbVec3d*& l : lineBuffers)
        l = (QbVec3d*)qbmalloc(nx * sizeof(QbVec3d));
      this->grid = (QbVec3f*)qbmalloc(nx * sizeof(QbVec3f));
      ownsGrid = true;
    } else {
      this->grid = grid;
      incPlane = (float*)qbmalloc(planeBytes);
      // Also the rows of the unregularised probes of one point.
      incLine = (float*)qbmalloc(
          std::max(lineBytes, RegElasticPointProbes::kRowFloats * sizeof(float) * maxInfluence[0]));
      // Only the two-dimensional regularised probe keeps the box's positions
      // in a buffer; the others form them in their walk.
      if (regularized) {
        incGrid = (QbVec3f*)qbmalloc(M * sizeof(QbVec3f));
        for (size_t k = 0; k < M; k++)
          incGrid[k].z = 0.0f;
        QbVec3d** own[5] = {&incDx, &incDy, &incDxx, &incDyy, &incDxy};
        for (QbVec3d** p : own) {
          *p = (QbVec3d*)qbmalloc(M * sizeof(QbVec3d));
          for (size_t k = 0; k < M; k++)
            (*p)[k].z = 0.0;
        }
        dZ = (QbVec3d*)qbmalloc(M * sizeof(QbVec3d));
        for (size_t k = 0; k < M; k++)
          dZ[k] = QbVec3d(1.0, 1.0, 1.0);
        for (float*& p : incPlanes)
          p = (float*)qbmalloc(planeBytes);
        for (float*& p : incLines)
          p = (float*)qbmalloc(lineBytes);
      }
    }
  } catch (QbMemoryException& e) {
    ZrMessage::getTheMsg()->printf("Error: Allocation of %d bytes failed!", (int)e.getNumBytes());
  }
}

#define REG_REGULAR_THREAD_DISPATCH(call)                                                          \
  do {                                                                                             \
    if (!qbDispatchVoxelType(primType, [&](auto tag) {                                             \
          typedef decltype(tag) T;                                                                 \
          T* ref = (T*)referenceVoxels;                                                            \
          T* model = (T*)modelVoxels;                                                              \
          result = call;                                                                           \
        }))                                                                                        \
      abort();                                                                                     \
  } while (0)

double RegElasticFunctionalRegularThread::evaluateIncremental(int index, float delta) {
  reg_restoreCachedState(functional->metric, metric);
  double result = 0.0;
  REG_REGULAR_THREAD_DISPATCH(reg_evaluateIncrementalRegular_thread<T>(
      ref, params, model, modelBox, boxFlags, dims, modelDims, index, influenceBoxes, cachedSamples,
      metric, transform, scaleX, scaleY, scaleZ, this, grid, incGrid, incPlane, incLine, delta));
  return result;
}

void RegElasticFunctionalRegularThread::runProbes(const RegElasticPointProbes& probes) {
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(transform);
  const int index = probes.index[0];
  const int* box = influenceBoxes[index];
  double result = 0.0;
  if (boxOutPoint != index / 3 || boxOutStill != probes.still) {
    reg_restoreCachedState(functional->metric, metricBoxOut);
    REG_REGULAR_THREAD_DISPATCH(
        reg_withElasticVoxelSampler(metricBoxOut, model, [&](const auto& out) {
          reg_walkElasticBox<RegElasticBoxTakeOut>(ref, dims, probes, box, cachedSamples, &out,
                                                   cubic, grid, incLine);
          return 0.0;
        }));
    boxOutPoint = index / 3;
    boxOutStill = probes.still;
  }
  probeMetrics.restore(metricBoxOut, probes.count);
  REG_REGULAR_THREAD_DISPATCH(
      reg_withElasticVoxelSampler(probeMetrics[0], model, [&](const auto& in) {
        std::decay_t<decltype(in)> samplers[RegElasticPointProbes::kMax] = {in, in, in, in, in, in};
        reg_probeSamplers(in, probeMetrics, probes.count, samplers);
        reg_walkElasticBox<RegElasticBoxAdd>(ref, dims, probes, box, cachedSamples, samplers, cubic,
                                             grid, incLine);
        return 0.0;
      }));
}

double RegElasticFunctionalRegularThread::evaluateIncrementalWithRegularizer(int index,
                                                                             float delta) {
  reg_restoreCachedState(functional->metric, metric);
  RegElasticLines images, inc;
  if (is2D) {
    images = RegElasticLines{dXX, dYY, nullptr, dXY, nullptr, nullptr, dX, dY, dZ};
    inc = RegElasticLines{incDxx, incDyy, nullptr, incDxy, nullptr, nullptr, incDx, incDy, nullptr};
  } else {
    images = RegElasticLines{lineBuffers[0], lineBuffers[1], lineBuffers[2],
                             lineBuffers[3], lineBuffers[4], lineBuffers[5],
                             lineBuffers[6], lineBuffers[7], lineBuffers[8]};
    inc = images;
  }
  float* const bufs[9] = {incPlane,     incPlanes[0], incPlanes[1], incPlanes[2], incPlanes[3],
                          incPlanes[4], incLine,      incLines[0],  incLines[1]};
  double result = 0.0;
  REG_REGULAR_THREAD_DISPATCH(reg_evaluateIncrementalRegular_threadWithRegularizer<T>(
      ref, params, model, modelBox, dims, modelDims, index, influenceBoxes, cachedSamples, metric,
      cachedEnergy, cachedJacobian, transform, scaleX, scaleY, scaleZ, this, grid, incGrid, images,
      inc, numVoxels, energySum, energyWeight, jacobianSum, jacobianWeight, bufs, delta, is2D));
  return result;
}

double RegElasticFunctionalRegularThread::getWeightedResult(double result) const {
  if (numLandmarks != 0 && landmarkWeight > 0)
    return result + (double)landmarkWeight * evaluateLandmarks();
  return result;
}

double RegElasticFunctionalRegularThread::evaluateLandmarks() const {
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(transform);
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

void RegElasticFunctionalRegularThread::run() {
  const int n = transform->getParamVectorDim();
  const bool regularized = regularizerMode >= 1 && regularizerMode <= 3;
  probeMetrics.setBase(regularized ? nullptr : functional->metric);
  // The parameters of one control point go to one worker, which takes
  // their box out once for all their probes; the points are dealt
  // round-robin.
  for (int point = threadIndex; 3 * point < n; point += functional->numThreads) {
    // A stop ends every worker; the caller sees it after the join.
    if (ZrWorkArea::getTheWorkArea()->wasInterrupted(1))
      return;
    // A folded probe leaves the invalid value, which the functional replaces
    // after the join as the serial loop does.
    reg_centralDifferencesOfPoint(
        point, n, paramSteps, step, keepAll, base, REG_INVALID_VALUE, params, gradient,
        [&](const RegElasticPointProbes& probes) {
          if (!regularized) {
            RegElasticPointProbes p = probes;
            p.still = functional->stillVoxels;
            runProbes(p);
          }
        },
        [&](int k, int index, float delta) {
          return regularized ? evaluateIncrementalWithRegularizer(index, delta)
                             : getWeightedResult(probeMetrics.result(k));
        });
  }
}
