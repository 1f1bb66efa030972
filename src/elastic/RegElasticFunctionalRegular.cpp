#include "RegElasticFunctionalRegular.h"

#include "RegElasticAnalyticGradient.h"
#include "RegElasticFunctionalRegularThread.h"
#include "RegMetric.h"
#include "ZrMessage.h"
#include "ZrRegScalarField3.h"
#include "ZrWorkArea.h"
#include "qbmalloc.h"
#include "reg_evaluateRegular.h"

#include <cmath>
#include <cstdlib>
#include <type_traits>

RegElasticFunctionalRegular::RegElasticFunctionalRegular(
    QbDArray<ZrSpatialData*>& references, QbDArray<ZrSpatialData*>& models,
    RegInterpolator interpolator, RegParametricTransform* transform, RegMetric* metric,
    RegOptimizerCallback* callback, RegDataClass dataClass, ZrLandmarkSet* landmarks,
    bool fixLowEntropy)
    : RegElasticFunctional(references, models, interpolator, transform, metric, callback, dataClass,
                           landmarks, fixLowEntropy) {
  // The templates read reference and model as one voxel type. A model of
  // another type than the reference (a script may pair them) would be read
  // past its end, so both are sampled from float copies instead: exact for
  // every type up to 16 bits, and a model that the reference's type could not
  // hold keeps its values.
  ZrRegScalarField3* reference = static_cast<ZrRegScalarField3*>(references[0]);
  ZrRegScalarField3* model = static_cast<ZrRegScalarField3*>(models[0]);
  if ((QbPrimType)model->primType() != primType) {
    auto toFloat = [](const ZrRegScalarField3* f) {
      const size_t n = f->lattice.numNodes();
      float* out = (float*)qbmalloc(sizeof(float) * (n > 0 ? n : 1));
      for (size_t i = 0; i < n; i++)
        out[i] = f->lattice.getValueAsFloat(i);
      return out;
    };
    floatReference = toFloat(reference);
    try {
      floatModel = toFloat(model);
    } catch (...) {
      qbfree(floatReference);
      throw;
    }
    ZrMessage::getTheMsg()->printf("The model's voxels (%s) differ in type from the reference's "
                                   "(%s): both are sampled as float.\n",
                                   qbPrimTypeName(model->primType()), qbPrimTypeName(primType));
    referenceVoxels = floatReference;
    modelVoxels = floatModel;
    primType = QB_FLOAT;
  }
}

RegElasticFunctionalRegular::~RegElasticFunctionalRegular() {
  for (int i = 0; i < regularThreads.size(); i++)
    delete regularThreads[i];
  regularThreads.clearAndFree();
  qbfree(floatReference);
  qbfree(floatModel);
}

void RegElasticFunctionalRegular::setSamplingState(RegMetric* m) const {
  if (!m)
    return;
  m->box = modelBox;
  m->dims = modelDims;
  m->scale[0] = scaleX;
  m->scale[1] = scaleY;
  m->scale[2] = scaleZ;
  for (int a = 0; a < 3; a++)
    m->boxSize[a] = modelBox[2 * a + 1] - modelBox[2 * a];
  m->inside = 1;
}

void RegElasticFunctionalRegular::resetEval() {
  ZrRegScalarField3* model = static_cast<ZrRegScalarField3*>(models[0]);
  for (int a = 0; a < 3; a++)
    modelDims[a] = model->getDims()[a];
  model->getBoundingBox(modelBox);
  float scale[3], extent[3];
  for (int a = 0; a < 3; a++) {
    extent[a] = modelBox[2 * a + 1] - modelBox[2 * a];
    scale[a] = extent[a] == 0.0f ? 0.0f : (float)(modelDims[a] - 1) / extent[a];
  }
  scaleX = scale[0];
  scaleY = scale[1];
  scaleZ = scale[2];
  // Bit 0 looks at the low eight bits of the truncated x extent only, so an
  // x extent below 1 or a multiple of 256 leaves it clear. Nothing reads the
  // flags; they are kept as they are computed.
  const int b0 = (((int)extent[0]) & 0xff) > 0 ? 1 : 0;
  const int b1 = extent[1] > 0 ? 1 : 0;
  const int b2 = extent[2] > 0 ? 1 : 0;
  boxFlags = (unsigned char)(b0 + 2 * b1 + 4 * b2);
  // The model may be another now: its constant blocks are found again.
  blocksModel = nullptr;
  setSamplingState(metric);
  setSamplingState(metricWork);
  setSamplingState(metricBoxOut);
  for (RegMetric* m : probeMetrics)
    setSamplingState(m);
}

// Runs `call` with the C++ type of the voxel type of reference and model;
// any other type ends the process.
#define REG_REGULAR_DISPATCH(call)                                                                 \
  do {                                                                                             \
    if (!qbDispatchVoxelType(primType, [&](auto tag) {                                             \
          typedef decltype(tag) T;                                                                 \
          T* ref = (T*)referenceVoxels;                                                            \
          T* model = (T*)modelVoxels;                                                              \
          result = call;                                                                           \
        }))                                                                                        \
      abort();                                                                                     \
  } while (0)

double RegElasticFunctionalRegular::evaluate() {
  if (analyticGradient && !is2D)
    return analyticGradient->value(*this, false);
  metric->reset();
  if (regularizerMode >= 1 && regularizerMode <= 3)
    return evaluateWithRegularizer();
  double result = 0.0;
  REG_REGULAR_DISPATCH(reg_evaluateRegular<T>(ref, model, modelBox, boxFlags, dims, metric,
                                              modelDims, splineTransform, scaleX, scaleY, scaleZ,
                                              this, grid, gridPartialY, gridPartialZ, is2D));
  return result;
}

double RegElasticFunctionalRegular::evaluateAndCache() {
  metric->reset();
  boxOutPoint = -1;
  double result = 0.0;
  REG_REGULAR_DISPATCH(reg_evaluateAndCacheRegular<T>(
      ref, model, modelBox, boxFlags, dims, modelDims, cachedSamples, metric, splineTransform,
      scaleX, scaleY, scaleZ, this, grid, gridPartialY, gridPartialZ, is2D));
  return result;
}

double RegElasticFunctionalRegular::evaluateIncremental(int index, float delta) {
  reg_restoreCachedState(metric, metricWork);
  double result = 0.0;
  REG_REGULAR_DISPATCH(reg_evaluateIncrementalRegular<T>(
      ref, model, modelBox, boxFlags, dims, modelDims, index, influenceBoxes, cachedSamples,
      metricWork, splineTransform, scaleX, scaleY, scaleZ, this, grid, incGrid, incPlane0, incLine0,
      delta));
  return result;
}

void RegElasticFunctionalRegular::takeOutBox(const RegElasticPointProbes& probes) {
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(splineTransform);
  double result = 0.0;
  REG_REGULAR_DISPATCH(reg_withElasticVoxelSampler(metricBoxOut, model, [&](const auto& sampler) {
    reg_walkElasticBox<RegElasticBoxTakeOut>(ref, dims, probes, influenceBoxes[probes.index[0]],
                                             cachedSamples, &sampler, cubic, grid, incLine0);
    return 0.0;
  }));
}

void RegElasticFunctionalRegular::addProbes(const RegElasticPointProbes& probes) {
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(splineTransform);
  const int index = probes.index[0];
  double result = 0.0;
  REG_REGULAR_DISPATCH(reg_withElasticVoxelSampler(probeMetrics[0], model, [&](const auto& in) {
    std::decay_t<decltype(in)> samplers[RegElasticPointProbes::kMax] = {in, in, in, in, in, in};
    reg_probeSamplers(in, probeMetrics, probes.count, samplers);
    reg_walkElasticBox<RegElasticBoxAdd>(ref, dims, probes, influenceBoxes[index], cachedSamples,
                                         samplers, cubic, grid, incLine0);
    return 0.0;
  }));
}

double RegElasticFunctionalRegular::evaluateWithRegularizer() {
  metric->reset();
  double result = 0.0;
  REG_REGULAR_DISPATCH(reg_evaluateRegular_WithRegularizer<T>(
      ref, model, modelBox, dims, metric, modelDims, splineTransform, scaleX, scaleY, scaleZ, this,
      grid, gridPartialY, derivPartialY, derivPartialZ, dXX, dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ,
      energyWeight, jacobianWeight, is2D));
  return result;
}

double RegElasticFunctionalRegular::evaluateAndCacheWithRegularizer() {
  metric->reset();
  double result = 0.0;
  REG_REGULAR_DISPATCH(reg_evaluateAndCacheRegular_WithRegularizer<T>(
      ref, model, modelBox, dims, modelDims, cachedSamples, metric, cachedEnergy, cachedJacobian,
      splineTransform, scaleX, scaleY, scaleZ, this, grid, gridPartialY, derivPartialY,
      derivPartialZ, dXX, dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ, regularNumVoxels, energySum,
      energyWeight, jacobianSum, jacobianWeight, is2D));
  cacheLocalParams();
  return result;
}

double RegElasticFunctionalRegular::evaluateIncrementalWithRegularizer(int index, float delta) {
  reg_restoreCachedState(metric, metricWork);
  savedRegularNumVoxels = regularNumVoxels;
  savedEnergySum = energySum;
  savedJacobianSum = jacobianSum;
  double result = 0.0;
  REG_REGULAR_DISPATCH(reg_evaluateIncrementalRegular_WithRegularizer<T>(
      ref, model, modelBox, dims, modelDims, index, influenceBoxes, cachedSamples, metricWork,
      cachedEnergy, cachedJacobian, splineTransform, scaleX, scaleY, scaleZ, this, grid, incGrid,
      dXX, dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ, incDx, incDy, incDxx, incDyy, incDxy,
      savedRegularNumVoxels, savedEnergySum, energyWeight, savedJacobianSum, jacobianWeight,
      incPlane0, incPlane1, incPlane2, incPlane3, incPlane4, incPlane5, incLine0, incLine1,
      incLine2, delta, is2D));
  return result;
}

double RegElasticFunctionalRegular::evaluate(QbDVector<double>& gradient, double step,
                                             int keepAll) {
  if (analyticGradient)
    return analyticGradient->evaluate(*this, gradient);
  const bool regularized = regularizerMode >= 1 && regularizerMode <= 3;
  double base = regularized ? evaluateAndCacheWithRegularizer() : evaluateAndCache();
  if (base == REG_INVALID_VALUE)
    return REG_INVALID_VALUE;
  if (fixLowEntropy && fixPending)
    updateFixedControlPoints();
  stillVoxels = regularized ? nullptr : markStillVoxels(step);
  const int n = transform->getParamVectorDim();
  if (gradient.size() < n)
    gradient.resize(n);
  if (usesWorkers()) {
    if (!runRegularThreads(gradient, step, keepAll, base))
      return REG_INVALID_VALUE;
    replaceFoldedEntries(gradient, keepAll);
    return base;
  }
  QbDVector<double>& params = transform->paramVector;
  boxOutPoint = -1;
  probeMetrics.setBase(regularized ? nullptr : metric);
  for (int point = 0; 3 * point < n; point++) {
    reg_centralDifferencesOfPoint(
        point, n, paramSteps, step, keepAll, base, REG_INVALID_VALUE, params, gradient.data(),
        [&](const RegElasticPointProbes& probes) {
          if (!regularized) {
            RegElasticPointProbes p = probes;
            p.still = stillVoxels;
            runProbes(p);
          }
        },
        [&](int k, int index, float delta) {
          return regularized ? evaluateIncrementalWithRegularizer(index, delta)
                             : getWeightedResult(probeMetrics.result(k));
        });
    if (ZrWorkArea::getTheWorkArea()->wasInterrupted(1))
      return REG_INVALID_VALUE;
  }
  replaceFoldedEntries(gradient, keepAll);
  // No landmark term is added again here: `base` has it once.
  return base;
}

const uint8_t* RegElasticFunctionalRegular::markStillVoxels(double step) {
  const RegVoxelCubicSplineTransform* cubic =
      static_cast<const RegVoxelCubicSplineTransform*>(splineTransform);
  const std::type_info& t = typeid(*metric);
  if (is2D || cubic->modelTransformed ||
      !(t == typeid(RegNormMutualInformation) || t == typeid(RegSimpleMutualInformation)))
    return nullptr;
  const float scale[3] = {scaleX, scaleY, scaleZ};
  const int n = transform->getParamVectorDim();
  for (int i = 0; i < n; i++) {
    const float s = paramSteps[i];
    if (!(s > 0) && !std::isnan(s))
      continue;
    const float d = (float)((double)s * step);
    if (!(std::fabs((double)d) * scale[i % 3] <= kRegElasticStillReach))
      return nullptr;
  }
  const size_t numModel = (size_t)modelDims[0] * modelDims[1] * modelDims[2];
  const size_t numRef = (size_t)dims[0] * dims[1] * dims[2];
  const bool known = qbDispatchVoxelType(primType, [&](auto tag) {
    typedef decltype(tag) T;
    const T* model = (const T*)modelVoxels;
    if (blocksModel != modelVoxels || modelBlocks.size() != numModel) {
      modelBlocks.resize(numModel);
      std::vector<uint8_t> scratch(numModel);
      reg_evaluateElasticConstantBlocks(model, modelDims, modelBlocks.data(), scratch.data());
      blocksModel = modelVoxels;
    }
    stillMap.resize(numRef);
    reg_evaluateElasticStillVoxels(*metric, model, modelBlocks.data(), grid, cachedSamples, numRef,
                                   stillMap.data());
  });
  if (!known)
    return nullptr;
  return stillMap.data();
}

void RegElasticFunctionalRegular::replaceFoldedEntries(QbDVector<double>& gradient,
                                                       int keepAll) const {
  // The entry of largest magnitude, with its sign, taken in parameter order
  // over the free parameters whose probes did not fold (keepAll 0 only): it
  // replaces the folded entries, so that such a parameter is pushed hard
  // rather than ignored. A negative `largest` gives way to the next entry,
  // since no magnitude lies below it.
  const int n = transform->getParamVectorDim();
  double largest = 0.0;
  for (int i = 0; i < n; i++) {
    const float s = paramSteps[i];
    if (!(s > 0) && !std::isnan(s))
      continue;
    if (gradient[i] != REG_INVALID_VALUE && keepAll == 0 && !(std::fabs(gradient[i]) <= largest))
      largest = gradient[i];
  }
  for (int i = 0; i < n; i++)
    if (gradient[i] == REG_INVALID_VALUE)
      gradient[i] = largest;
}

void RegElasticFunctionalRegular::createThreads() {
  for (int i = 0; i < regularThreads.size(); i++)
    delete regularThreads[i];
  regularThreads.resize(numThreads);
  for (int i = 0; i < numThreads; i++)
    regularThreads[i] = new RegElasticFunctionalRegularThread(
        this, i, paramSteps, primType, referenceVoxels, modelVoxels, modelBox, boxFlags, dims,
        modelDims, influenceBoxes, splineTransform, scaleX, scaleY, scaleZ, landmarksModel,
        numLandmarks, landmarkWeight);
}

bool RegElasticFunctionalRegular::runRegularThreads(QbDVector<double>& gradient, double& step,
                                                    int& keepAll, double& base) {
  for (int i = 0; i < regularThreads.size(); i++) {
    QbDVector<double> params(transform->paramVector);
    regularThreads[i]->init(params, gradient.data(), step, keepAll, base, (long)regularNumVoxels,
                            cachedSamples, cachedEnergy, cachedJacobian, maxInfluence, grid,
                            energySum, jacobianSum, energyWeight, jacobianWeight, dX, dY, dXX, dYY,
                            dXY);
    regularThreads[i]->start();
  }
  for (int i = 0; i < regularThreads.size(); i++)
    regularThreads[i]->wait();
  return !ZrWorkArea::getTheWorkArea()->wasInterrupted(1);
}

void RegElasticFunctionalRegular::updateFixedControlPoints() {
  RegElasticFunctional::updateFixedControlPoints();
}
