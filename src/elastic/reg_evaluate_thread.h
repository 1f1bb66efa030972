#pragma once
// Template families of the gradient workers. They are the probes of the
// serial functionals with the worker's own parameter copy, metric clone and
// scratch: the transform is asked through its forms with an explicit
// parameter vector, and the result goes through the worker's own landmark
// term. The first argument is the reference voxel pointer, the second the
// worker's parameters.
#include "RegElasticFunctionalRegularThread.h"
#include "RegElasticFunctionalThread.h"
#include "reg_evaluateRegular.h"

template <class T>
double reg_evaluateIncremental_thread(T* ref, QbDVector<double>& params, int* dims, int index,
                                      int (*boxes)[6], float* cachedSamples, RegMetric* metric,
                                      RegSplineTransform* transform, ZrLocation3* location,
                                      ZrFieldEvaluator* evaluator,
                                      RegElasticFunctionalThread* worker, QbVec3f* grid,
                                      QbVec3f* incGrid, float* plane, float* line, float delta) {
  const RegElasticFieldSampler sampler{metric, location, evaluator};
  reg_evaluateElasticBox(ref, dims, index, boxes[index], cachedSamples, metric, sampler,
                         static_cast<RegVoxelCubicSplineTransform*>(transform), params, grid, line,
                         delta);
  return worker->getWeightedResult(metric->getResult());
}

template <class T>
double reg_evaluateIncremental_threadWithRegularizer(
    T* ref, QbDVector<double>& params, int* dims, int index, int (*boxes)[6], float* cachedSamples,
    float* cachedEnergy, float* cachedJacobian, RegMetric* metric, RegSplineTransform* transform,
    ZrLocation3* location, ZrFieldEvaluator* evaluator, RegElasticFunctionalThread* worker,
    QbVec3f* grid, QbVec3d* const* lineBuffers, int64_t count, double energySum, float energyWeight,
    double jacobianSum, float jacobianWeight) {
  if (count == 0)
    return REG_NO_VOXELS_VALUE;
  const RegElasticFieldSampler sampler{metric, location, evaluator};
  const RegElasticLines lines{lineBuffers[0], lineBuffers[1], lineBuffers[2],
                              lineBuffers[3], lineBuffers[4], lineBuffers[5],
                              lineBuffers[6], lineBuffers[7], lineBuffers[8]};
  double E = energySum, J = jacobianSum;
  const RegProbeParams probe(transform, params, worker->localParams, index);
  if (!reg_evaluateElasticRegularizedBox(
          ref, dims, index, boxes[index], cachedSamples, cachedEnergy, cachedJacobian, metric,
          sampler, static_cast<RegVoxelCubicSplineTransform*>(transform), probe.params, grid, lines,
          energyWeight, jacobianWeight, E, J))
    return REG_INVALID_VALUE;
  return worker->getWeightedResult(metric->getResult() +
                                   ((double)energyWeight * E + (double)jacobianWeight * J) /
                                       (double)count);
}

template <class T>
double reg_evaluateIncrementalRegular_thread(
    T* ref, QbDVector<double>& params, T* model, float* modelBox, unsigned char boxFlags, int* dims,
    int* modelDims, int index, int (*boxes)[6], float* cachedSamples, RegMetric* metric,
    RegSplineTransform* transform, float scaleX, float scaleY, float scaleZ,
    RegElasticFunctionalRegularThread* worker, QbVec3f* grid, QbVec3f* incGrid, float* plane,
    float* line, float delta) {
  reg_withElasticVoxelSampler(metric, model, [&](const auto& sampler) {
    reg_evaluateElasticBox(ref, dims, index, boxes[index], cachedSamples, metric, sampler,
                           static_cast<RegVoxelCubicSplineTransform*>(transform), params, grid,
                           line, delta);
    return 0;
  });
  return worker->getWeightedResult(metric->getResult());
}

template <class T>
double reg_evaluateIncrementalRegular_threadWithRegularizer(
    T* ref, QbDVector<double>& params, T* model, float* modelBox, int* dims, int* modelDims,
    int index, int (*boxes)[6], float* cachedSamples, RegMetric* metric, float* cachedEnergy,
    float* cachedJacobian, RegSplineTransform* transform, float scaleX, float scaleY, float scaleZ,
    RegElasticFunctionalRegularThread* worker, QbVec3f* grid, QbVec3f* incGrid,
    const RegElasticLines& images, const RegElasticLines& inc, int64_t count, double energySum,
    float energyWeight, double jacobianSum, float jacobianWeight, float* const* bufs, float delta,
    bool is2D) {
  if (count == 0)
    return REG_NO_VOXELS_VALUE;
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(transform);
  double E = energySum, J = jacobianSum;
  const bool ok = reg_withElasticVoxelSampler(metric, model, [&](const auto& sampler) {
    if (is2D)
      return reg_evaluateElasticRegularizedBox2D(ref, dims, index, boxes[index], cachedSamples,
                                                 cachedEnergy, cachedJacobian, metric, sampler,
                                                 cubic, params, grid, incGrid, images, inc, bufs,
                                                 delta, energyWeight, jacobianWeight, E, J);
    const RegProbeParams probe(transform, params, worker->localParams, index);
    return reg_evaluateElasticRegularizedBox(
        ref, dims, index, boxes[index], cachedSamples, cachedEnergy, cachedJacobian, metric,
        sampler, cubic, probe.params, grid, images, energyWeight, jacobianWeight, E, J);
  });
  if (!ok)
    return REG_INVALID_VALUE;
  return worker->getWeightedResult(metric->getResult() +
                                   ((double)energyWeight * E + (double)jacobianWeight * J) /
                                       (double)count);
}
