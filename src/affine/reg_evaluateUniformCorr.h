#pragma once
// Correlation over a uniform model: the parallel row walk with five
// thread-private sums of offset values, merged once per thread.
#include "RegCorrelationRatio.h"
#include "reg_evaluateUniformRow.h"

#include <omp.h>

// Adds the samples of one reference lattice to `metric`. Each thread takes one
// contiguous block of slices. A voxel counts in the statistic when the
// reference value lies in the reference window and the interpolated model
// value in the model window (both inclusive; NaN lies in neither). The
// windows and running offsets are read once; the sums and counts are merged
// in a guarded section at each thread's end, so their summation order depends
// on the thread count and the order in which the threads finish. The
// runtime's thread count is restored.
template <class RefT, class ModelT>
void reg_evaluateUniformCorr(const RefT* ref, const ModelT* model, const QbVec3i& refDims,
                             const ZrCoord3* coords, const SbMatrixd& matrix, const QbVec3i& flags,
                             const SbVec3d& step, RegCorrelationRatio* metric, const double* clip,
                             const int* modelDims, unsigned int numThreads) {
  if (numThreads < 1)
    numThreads = 1;
  const int nz = refDims.z;
  const double refLow = metric->refLow, refHigh = metric->refHigh;
  const double modelLow = metric->modelLow, modelHigh = metric->modelHigh;
  const double refOffset = metric->refOffset, modelOffset = metric->modelOffset;
  // One block of slices per thread; at least 1 so that the schedule is valid
  // for an empty lattice too.
  int chunk = (nz - 1 + (int)numThreads) / (int)numThreads;
  if (chunk < 1)
    chunk = 1;
  int64_t sharedInside = 0, sharedTotal = 0;
  double sharedRefSq = 0.0, sharedModelSq = 0.0, sharedProduct = 0.0, sharedRef = 0.0,
         sharedModel = 0.0;

  const int savedThreads = omp_get_max_threads();
  omp_set_num_threads((int)numThreads);
#pragma omp parallel
  {
    int64_t inside = 0, total = 0;
    double sRefSq = 0.0, sModelSq = 0.0, sProduct = 0.0, sRef = 0.0, sModel = 0.0;
#pragma omp for schedule(static, chunk)
    for (int k = 0; k < nz; k++) {
      reg_evaluateUniformSlice(
          ref, model, refDims, modelDims, coords, matrix, flags, step, clip, k, total,
          [&](const RefT* raw, const double* value, int n) {
            for (int m = 0; m < n; m++) {
              const double r = (double)raw[m];
              // Within both limits, so that NaN is out.
              if (!(r >= refLow && r <= refHigh && value[m] >= modelLow && value[m] <= modelHigh))
                continue;
              const double a = r - refOffset, b = value[m] - modelOffset;
              sRefSq += a * a;
              sModelSq += b * b;
              sProduct += a * b;
              sRef += a;
              sModel += b;
              inside++;
            }
          });
    }
#pragma omp critical(reg_evaluateUniformMerge)
    {
      sharedInside += inside;
      sharedTotal += total;
      sharedRefSq += sRefSq;
      sharedModelSq += sModelSq;
      sharedProduct += sProduct;
      sharedRef += sRef;
      sharedModel += sModel;
    }
  }
  omp_set_num_threads(savedThreads);

  metric->numInside += sharedInside;
  metric->numTotal += sharedTotal;
  metric->sumRefSq += sharedRefSq;
  metric->sumModelSq += sharedModelSq;
  metric->sumProduct += sharedProduct;
  metric->sumRef += sharedRef;
  metric->sumModel += sharedModel;
}
