#pragma once
// Template families of RegElasticFunctionalRegular, one member per pair of
// reference and model voxel types (both of one type). The model's raw voxels
// are read by the metric's sampler, which interpolates (or takes the nearest
// voxel for labels), clamps into the lattice and increments in one call.
//
// The model box, dimensions, scales and box flags travel along for the
// sampler's sake; the sampling state on the metric already holds them.
// Besides the three-dimensional regularised forms (line by line) there is the
// two-dimensional one, which keeps whole derivative images so that a probe
// costs a box, and whose third Jacobian column is the constant (1, 1, 1).
#include "RegElasticFunctional.h"
#include "qbmalloc.h"
#include "reg_evaluate.h"

// Full two-dimensional regularised pass over whole images. l holds the images
// dX, dY, dXX, dYY, dXY and the constant column dZ; dxz, dyz, dzz are not used.
template <class T, bool Cache, class S>
inline bool reg_evaluateElasticRegularizedPass2D(
    const T* ref, const int* dims, const S& sampler, RegVoxelCubicSplineTransform* transform,
    QbVec3f* grid, QbVec3f* gridPartialY, QbVec3d* derivPartialY, QbVec3d* derivPartialZ,
    const RegElasticLines& l, float energyWeight, float jacobianWeight, float* cachedSamples,
    float* cachedEnergy, float* cachedJacobian, double& E, double& J, int64_t& n) {
  const RegElasticPenalty pen(transform->invGridSpacing, transform->modelVolumeScale, true);
  const bool wantE = energyWeight > 0, wantJ = jacobianWeight > 0;
  const RegModelFrameScope frame(transform);
  transform->getTransformedGridCompleteWithRegularization2D(
      gridPartialY, derivPartialY, grid, l.dx, l.dy, derivPartialZ, l.dxx, l.dyy, l.dxy);
  const size_t N = (size_t)dims[0] * dims[1] * dims[2];
  float sample = 0.0f;
  for (size_t v = 0; v < N; v++) {
    sampler((double)ref[v], sample, grid[v]);
    if (Cache)
      cachedSamples[v] = sample;
    n++;
    if (wantE) {
      const double e = pen.energy(l.dxx[v], l.dyy[v], l.dz[v], l.dxy[v], l.dz[v], l.dz[v]);
      E -= e;
      if (Cache)
        cachedEnergy[v] = (float)e;
    }
    if (wantJ) {
      const double d = pen.determinant(l.dx[v], l.dy[v], l.dz[v]);
      if (d <= 0.0)
        return false;
      const double j = pen.jacobian(d);
      J -= j;
      if (Cache)
        cachedJacobian[v] = (float)j;
    }
  }
  return true;
}

// One two-dimensional regularised probe: the new positions and derivatives
// of the box come from the full images and delta; `inc` receives them in
// walking order. dz holds (1, 1, 1) in at least as many entries as the box.
// bufs: the six plane and three line buffers of the incremental routine.
template <class T, class S>
inline bool reg_evaluateElasticRegularizedBox2D(
    const T* ref, const int* dims, int index, const int* box, const float* cachedSamples,
    const float* cachedEnergy, const float* cachedJacobian, RegMetric* metric, const S& sampler,
    RegVoxelCubicSplineTransform* transform, QbDVector<double>& params, const QbVec3f* grid,
    QbVec3f* incGrid, const RegElasticLines& l, const RegElasticLines& inc, float* const* bufs,
    float delta, float energyWeight, float jacobianWeight, double& E, double& J) {
  if (reg_boxIsEmpty(box))
    return true;
  const RegElasticPenalty pen(transform->invGridSpacing, transform->modelVolumeScale, true);
  const bool wantE = energyWeight > 0, wantJ = jacobianWeight > 0;
  const int nx = dims[0], ny = dims[1];
  const int x0 = box[0], x1 = box[1], y0 = box[2], y1 = box[3], z0 = box[4], z1 = box[5];
  // From the cached images and delta alone, along the local direction of the
  // world parameter: the parameters are not read.
  transform->getTransformedGridIncrementalWithRegularization2D(
      params, index, grid, incGrid, l.dx, inc.dx, l.dy, inc.dy, l.dxx, inc.dxx, l.dyy, inc.dyy,
      l.dxy, inc.dxy, box, bufs[0], bufs[1], bufs[2], bufs[3], bufs[4], bufs[5], bufs[6], bufs[7],
      bufs[8], delta);
  size_t v = ((size_t)z0 * ny + y0) * nx + x0;
  const size_t rowSkip = (size_t)(nx - 1 + x0 - x1);
  const size_t planeSkip = (size_t)(ny - 1 + y0 - y1) * nx;
  size_t k = 0;
  float sample = 0.0f;
  for (int z = z0; z <= z1; z++, v += planeSkip)
    for (int y = y0; y <= y1; y++, v += rowSkip)
      for (int x = x0; x <= x1; x++, v++, k++) {
        const double r = (double)ref[v];
        sampler.replace(r, (double)cachedSamples[v], sample, incGrid[k]);
        if (wantE)
          E = ((double)cachedEnergy[v] + E) -
              pen.energy(inc.dxx[k], inc.dyy[k], l.dz[k], inc.dxy[k], l.dz[k], l.dz[k]);
        if (wantJ) {
          const double d = pen.determinant(inc.dx[k], inc.dy[k], l.dz[k]);
          if (d <= 0.0)
            return false;
          J = ((double)cachedJacobian[v] + J) - pen.jacobian(d);
        }
      }
  return true;
}

template <class T>
double reg_evaluateRegular(T* ref, T* model, float* modelBox, unsigned char boxFlags, int* dims,
                           RegMetric* metric, int* modelDims, RegSplineTransform* transform,
                           float scaleX, float scaleY, float scaleZ,
                           RegElasticFunctional* functional, QbVec3f* grid, QbVec3f* partialY,
                           QbVec3f* partialZ, bool is2D) {
  const RegElasticVoxelSampler<T> sampler(metric, model);
  if (transform->modelTransformed)
    transform->applyModelTransformInv();
  reg_elasticCompleteGrid(transform, is2D, grid, partialY, partialZ);
  reg_evaluateElasticWalk<T, false>(ref, dims, sampler, grid, nullptr);
  if (transform->modelTransformed)
    transform->applyModelTransform();
  return functional->getWeightedResult(metric->getResult());
}

template <class T>
double reg_evaluateAndCacheRegular(T* ref, T* model, float* modelBox, unsigned char boxFlags,
                                   int* dims, int* modelDims, float*& cachedSamples,
                                   RegMetric* metric, RegSplineTransform* transform, float scaleX,
                                   float scaleY, float scaleZ, RegElasticFunctional* functional,
                                   QbVec3f* grid, QbVec3f* partialY, QbVec3f* partialZ, bool is2D) {
  qbfree(cachedSamples);
  cachedSamples = nullptr;
  cachedSamples = (float*)qbmalloc(sizeof(float) * (size_t)dims[0] * dims[1] * dims[2]);
  const RegElasticVoxelSampler<T> sampler(metric, model);
  if (transform->modelTransformed)
    transform->applyModelTransformInv();
  reg_elasticCompleteGrid(transform, is2D, grid, partialY, partialZ);
  reg_evaluateElasticWalk<T, true>(ref, dims, sampler, grid, cachedSamples);
  if (transform->modelTransformed)
    transform->applyModelTransform();
  return functional->getWeightedResult(reg_cachedResult(metric, functional->metricWork));
}

template <class T>
double reg_evaluateIncrementalRegular(T* ref, T* model, float* modelBox, unsigned char boxFlags,
                                      int* dims, int* modelDims, int index, int (*boxes)[6],
                                      float* cachedSamples, RegMetric* metric,
                                      RegSplineTransform* transform, float scaleX, float scaleY,
                                      float scaleZ, RegElasticFunctional* functional, QbVec3f* grid,
                                      QbVec3f* incGrid, float* plane, float* line, float delta) {
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(transform);
  reg_withElasticVoxelSampler(metric, model, [&](const auto& sampler) {
    reg_evaluateElasticBox(ref, dims, index, boxes[index], cachedSamples, metric, sampler, cubic,
                           cubic->paramVector, grid, line, delta);
    return 0;
  });
  return functional->getWeightedResult(metric->getResult());
}

template <class T>
double reg_evaluateRegular_WithRegularizer(
    T* ref, T* model, float* modelBox, int* dims, RegMetric* metric, int* modelDims,
    RegSplineTransform* transform, float scaleX, float scaleY, float scaleZ,
    RegElasticFunctional* functional, QbVec3f* grid, QbVec3f* gridPartialY, QbVec3d* derivPartialY,
    QbVec3d* derivPartialZ, QbVec3d* dXX, QbVec3d* dYY, QbVec3d* dZZ, QbVec3d* dXY, QbVec3d* dXZ,
    QbVec3d* dYZ, QbVec3d* dX, QbVec3d* dY, QbVec3d* dZ, float energyWeight, float jacobianWeight,
    bool is2D) {
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(transform);
  const RegElasticVoxelSampler<T> sampler(metric, model);
  const RegElasticLines lines{dXX, dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ};
  double E = 0.0, J = 0.0;
  int64_t n = 0;
  const bool ok =
      is2D ? reg_evaluateElasticRegularizedPass2D<T, false>(
                 ref, dims, sampler, cubic, grid, gridPartialY, derivPartialY, derivPartialZ, lines,
                 energyWeight, jacobianWeight, nullptr, nullptr, nullptr, E, J, n)
           : reg_evaluateElasticRegularizedPass<T, false>(ref, dims, sampler, cubic, grid, lines,
                                                          energyWeight, jacobianWeight, nullptr,
                                                          nullptr, nullptr, E, J, n);
  if (!ok)
    return REG_INVALID_VALUE;
  return reg_elasticObjective(functional, metric, E, energyWeight, J, jacobianWeight, (double)n);
}

template <class T>
double reg_evaluateAndCacheRegular_WithRegularizer(
    T* ref, T* model, float* modelBox, int* dims, int* modelDims, float*& cachedSamples,
    RegMetric* metric, float*& cachedEnergy, float*& cachedJacobian, RegSplineTransform* transform,
    float scaleX, float scaleY, float scaleZ, RegElasticFunctional* functional, QbVec3f* grid,
    QbVec3f* gridPartialY, QbVec3d* derivPartialY, QbVec3d* derivPartialZ, QbVec3d* dXX,
    QbVec3d* dYY, QbVec3d* dZZ, QbVec3d* dXY, QbVec3d* dXZ, QbVec3d* dYZ, QbVec3d* dX, QbVec3d* dY,
    QbVec3d* dZ, int64_t& count, double& energySum, float energyWeight, double& jacobianSum,
    float jacobianWeight, bool is2D) {
  count = 0;
  energySum = 0.0;
  jacobianSum = 0.0;
  const size_t N = (size_t)dims[0] * dims[1] * dims[2];
  qbfree(cachedSamples);
  cachedSamples = nullptr;
  cachedSamples = (float*)qbmalloc(sizeof(float) * N);
  qbfree(cachedEnergy);
  cachedEnergy = nullptr;
  cachedEnergy = (float*)qbmalloc(sizeof(float) * N);
  qbfree(cachedJacobian);
  cachedJacobian = nullptr;
  cachedJacobian = (float*)qbmalloc(sizeof(float) * N);
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(transform);
  const RegElasticVoxelSampler<T> sampler(metric, model);
  const RegElasticLines lines{dXX, dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ};
  const bool ok =
      is2D ? reg_evaluateElasticRegularizedPass2D<T, true>(
                 ref, dims, sampler, cubic, grid, gridPartialY, derivPartialY, derivPartialZ, lines,
                 energyWeight, jacobianWeight, cachedSamples, cachedEnergy, cachedJacobian,
                 energySum, jacobianSum, count)
           : reg_evaluateElasticRegularizedPass<T, true>(
                 ref, dims, sampler, cubic, grid, lines, energyWeight, jacobianWeight,
                 cachedSamples, cachedEnergy, cachedJacobian, energySum, jacobianSum, count);
  if (!ok) {
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
double reg_evaluateIncrementalRegular_WithRegularizer(
    T* ref, T* model, float* modelBox, int* dims, int* modelDims, int index, int (*boxes)[6],
    float* cachedSamples, RegMetric* metric, float* cachedEnergy, float* cachedJacobian,
    RegSplineTransform* transform, float scaleX, float scaleY, float scaleZ,
    RegElasticFunctional* functional, QbVec3f* grid, QbVec3f* incGrid, QbVec3d* dXX, QbVec3d* dYY,
    QbVec3d* dZZ, QbVec3d* dXY, QbVec3d* dXZ, QbVec3d* dYZ, QbVec3d* dX, QbVec3d* dY, QbVec3d* dZ,
    QbVec3d* incDx, QbVec3d* incDy, QbVec3d* incDxx, QbVec3d* incDyy, QbVec3d* incDxy,
    int64_t count, double energySum, float energyWeight, double jacobianSum, float jacobianWeight,
    float* plane0, float* plane1, float* plane2, float* plane3, float* plane4, float* plane5,
    float* line0, float* line1, float* line2, float delta, bool is2D) {
  if (count == 0)
    return REG_NO_VOXELS_VALUE;
  RegVoxelCubicSplineTransform* cubic = static_cast<RegVoxelCubicSplineTransform*>(transform);
  double E = energySum, J = jacobianSum;
  const bool ok = reg_withElasticVoxelSampler(metric, model, [&](const auto& sampler) {
    bool fine;
    const RegElasticLines lines{dXX, dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ};
    if (is2D) {
      const RegElasticLines inc{incDxx,  incDyy, nullptr, incDxy, nullptr,
                                nullptr, incDx,  incDy,   nullptr};
      float* const bufs[9] = {plane0, plane1, plane2, plane3, plane4, plane5, line0, line1, line2};
      fine = reg_evaluateElasticRegularizedBox2D(
          ref, dims, index, boxes[index], cachedSamples, cachedEnergy, cachedJacobian, metric,
          sampler, cubic, cubic->paramVector, grid, incGrid, lines, inc, bufs, delta, energyWeight,
          jacobianWeight, E, J);
    } else {
      const RegProbeParams probe(cubic, cubic->paramVector, functional->localParams, index);
      fine = reg_evaluateElasticRegularizedBox(
          ref, dims, index, boxes[index], cachedSamples, cachedEnergy, cachedJacobian, metric,
          sampler, cubic, probe.params, grid, lines, energyWeight, jacobianWeight, E, J);
    }
    return fine;
  });
  if (!ok)
    return REG_INVALID_VALUE;
  return reg_elasticObjective(functional, metric, E, energyWeight, J, jacobianWeight,
                              (double)count);
}
