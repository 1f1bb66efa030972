#pragma once
// Template families of RegElasticFunctional, one member per voxel type,
// reached by the dispatch on the reference's QbPrimType. The model is sampled
// through a field evaluator and location.
//
// - reg_evaluate / reg_evaluateAndCache: a full pass over the reference,
//   the latter keeping every model sample as the cache of the probes.
// - reg_evaluateIncremental: one probe, parameter `index` moved by `delta`.
// - ...WithRegularizer: the same with the bending energy and the Jacobian
//   penalty, three-dimensional, line by line.
#include "RegElasticFunctional.h"
#include "qbmalloc.h"
#include "reg_evaluateElastic.h"

// Positions of the whole reference lattice. In two dimensions the transform
// skips its third pass and leaves the result in the buffer of the second, so
// the grid itself is handed over in that place.
inline void reg_elasticCompleteGrid(RegSplineTransform* transform, bool is2D, QbVec3f* grid,
                                    QbVec3f* partialY, QbVec3f* partialZ) {
  if (is2D)
    transform->getTransformedGridComplete(nullptr, partialY, grid);
  else
    transform->getTransformedGridComplete(grid, partialY, partialZ);
}

template <class T>
double reg_evaluate(T* ref, int* dims, RegMetric* metric, RegSplineTransform* transform,
                    ZrLocation3* location, ZrFieldEvaluator* evaluator,
                    RegElasticFunctional* functional, QbVec3f* grid, QbVec3f* partialY,
                    QbVec3f* partialZ) {
  const RegElasticFieldSampler sampler{metric, location, evaluator};
  if (transform->modelTransformed)
    transform->applyModelTransformInv();
  reg_elasticCompleteGrid(transform, functional->is2D, grid, partialY, partialZ);
  reg_evaluateElasticWalk<T, false>(ref, dims, sampler, grid, nullptr);
  if (transform->modelTransformed)
    transform->applyModelTransform();
  return functional->getWeightedResult(metric->getResult());
}

template <class T>
double reg_evaluateAndCache(T* ref, int* dims, float*& cachedSamples, RegMetric* metric,
                            RegSplineTransform* transform, ZrLocation3* location,
                            ZrFieldEvaluator* evaluator, RegElasticFunctional* functional,
                            QbVec3f* grid, QbVec3f* partialY, QbVec3f* partialZ) {
  qbfree(cachedSamples);
  cachedSamples = nullptr;
  cachedSamples = (float*)qbmalloc(sizeof(float) * (size_t)dims[0] * dims[1] * dims[2]);
  const RegElasticFieldSampler sampler{metric, location, evaluator};
  if (transform->modelTransformed)
    transform->applyModelTransformInv();
  reg_elasticCompleteGrid(transform, functional->is2D, grid, partialY, partialZ);
  reg_evaluateElasticWalk<T, true>(ref, dims, sampler, grid, cachedSamples);
  if (transform->modelTransformed)
    transform->applyModelTransform();
  return functional->getWeightedResult(reg_cachedResult(metric, functional->metricWork));
}

template <class T>
double reg_evaluateIncremental(T* ref, int* dims, int index, int (*boxes)[6], float* cachedSamples,
                               RegMetric* metric, RegSplineTransform* transform,
                               ZrLocation3* location, ZrFieldEvaluator* evaluator,
                               RegElasticFunctional* functional, QbVec3f* grid, QbVec3f* incGrid,
                               float* plane, float* line, float delta) {
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(transform);
  const RegElasticFieldSampler sampler{metric, location, evaluator};
  reg_evaluateElasticBox(ref, dims, index, boxes[index], cachedSamples, metric, sampler, cubic,
                         cubic->paramVector, grid, line, delta);
  return functional->getWeightedResult(metric->getResult());
}

// The objective with the penalty sums over n voxels; the landmark term stands
// outside the division.
inline double reg_elasticObjective(const RegElasticFunctional* functional, RegMetric* metric,
                                   double E, float energyWeight, double J, float jacobianWeight,
                                   double n) {
  return functional->getWeightedResult(metric->getResult() +
                                       ((double)energyWeight * E + (double)jacobianWeight * J) / n);
}

template <class T>
double reg_evaluateWithRegularizer(T* ref, int* dims, RegMetric* metric,
                                   RegSplineTransform* transform, ZrLocation3* location,
                                   ZrFieldEvaluator* evaluator, RegElasticFunctional* functional,
                                   QbVec3f* grid, QbVec3d* dXX, QbVec3d* dYY, QbVec3d* dZZ,
                                   QbVec3d* dXY, QbVec3d* dXZ, QbVec3d* dYZ, QbVec3d* dX,
                                   QbVec3d* dY, QbVec3d* dZ, float energyWeight,
                                   float jacobianWeight) {
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(transform);
  const RegElasticFieldSampler sampler{metric, location, evaluator};
  const RegElasticLines lines{dXX, dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ};
  double E = 0.0, J = 0.0;
  int64_t n = 0;
  if (!reg_evaluateElasticRegularizedPass<T, false>(ref, dims, sampler, cubic, grid, lines,
                                                    energyWeight, jacobianWeight, nullptr, nullptr,
                                                    nullptr, E, J, n))
    return REG_INVALID_VALUE;
  return reg_elasticObjective(functional, metric, E, energyWeight, J, jacobianWeight, (double)n);
}

template <class T>
double reg_evaluateAndCacheWithRegularizer(
    T* ref, int* dims, float*& cachedSamples, float*& cachedEnergy, float*& cachedJacobian,
    RegMetric* metric, RegSplineTransform* transform, ZrLocation3* location,
    ZrFieldEvaluator* evaluator, RegElasticFunctional* functional, QbVec3f* grid, QbVec3d* dXX,
    QbVec3d* dYY, QbVec3d* dZZ, QbVec3d* dXY, QbVec3d* dXZ, QbVec3d* dYZ, QbVec3d* dX, QbVec3d* dY,
    QbVec3d* dZ, int64_t& count, double& energySum, float energyWeight, double& jacobianSum,
    float jacobianWeight) {
  count = 0;
  energySum = 0.0;
  jacobianSum = 0.0;
  const size_t n = (size_t)dims[0] * dims[1] * dims[2];
  qbfree(cachedSamples);
  cachedSamples = nullptr;
  cachedSamples = (float*)qbmalloc(sizeof(float) * n);
  qbfree(cachedEnergy);
  cachedEnergy = nullptr;
  cachedEnergy = (float*)qbmalloc(sizeof(float) * n);
  qbfree(cachedJacobian);
  cachedJacobian = nullptr;
  cachedJacobian = (float*)qbmalloc(sizeof(float) * n);
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(transform);
  const RegElasticFieldSampler sampler{metric, location, evaluator};
  const RegElasticLines lines{dXX, dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ};
  if (!reg_evaluateElasticRegularizedPass<T, true>(
          ref, dims, sampler, cubic, grid, lines, energyWeight, jacobianWeight, cachedSamples,
          cachedEnergy, cachedJacobian, energySum, jacobianSum, count)) {
    jacobianSum = REG_INVALID_VALUE;
    return REG_INVALID_VALUE;
  }
  if (count == 0)
    return REG_NO_VOXELS_VALUE;
  reg_restoreCachedState(metric, functional->metricWork);
  return reg_elasticObjective(functional, functional->metricWork, energySum, energyWeight,
                              jacobianSum, jacobianWeight, (double)count);
}

template <class T>
double reg_evaluateIncrementalWithRegularizer(
    T* ref, int* dims, int index, int (*boxes)[6], float* cachedSamples, float* cachedEnergy,
    float* cachedJacobian, RegMetric* metric, RegSplineTransform* transform, ZrLocation3* location,
    ZrFieldEvaluator* evaluator, RegElasticFunctional* functional, QbVec3f* grid, QbVec3d* dXX,
    QbVec3d* dYY, QbVec3d* dZZ, QbVec3d* dXY, QbVec3d* dXZ, QbVec3d* dYZ, QbVec3d* dX, QbVec3d* dY,
    QbVec3d* dZ, int64_t count, double energySum, float energyWeight, double jacobianSum,
    float jacobianWeight) {
  if (count == 0)
    return REG_NO_VOXELS_VALUE;
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(transform);
  const RegElasticFieldSampler sampler{metric, location, evaluator};
  const RegElasticLines lines{dXX, dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ};
  double E = energySum, J = jacobianSum;
  const RegProbeParams probe(cubic, cubic->paramVector, functional->localParams, index);
  if (!reg_evaluateElasticRegularizedBox(
          ref, dims, index, boxes[index], cachedSamples, cachedEnergy, cachedJacobian, metric,
          sampler, cubic, probe.params, grid, lines, energyWeight, jacobianWeight, E, J))
    return REG_INVALID_VALUE;
  return reg_elasticObjective(functional, metric, E, energyWeight, J, jacobianWeight,
                              (double)count);
}
