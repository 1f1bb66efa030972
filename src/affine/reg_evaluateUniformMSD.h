#pragma once
// Squared difference over a uniform model: the parallel row walk with a
// thread-private sum, merged once per thread.
#include "RegMeanSquaredDifference.h"
#include "reg_evaluateUniformRow.h"

#include <omp.h>

// Adds the samples of one reference lattice to `metric`. Slices are dealt to
// the threads round-robin; each thread sums privately and adds its sum and
// counts to the shared totals in one guarded section at its end, so the
// summation order depends on the thread count and on the order in which the
// threads finish. The runtime's thread count is restored afterwards.
template <class RefT, class ModelT>
void reg_evaluateUniformMSD(const RefT* ref, const ModelT* model, const QbVec3i& refDims,
                            const ZrCoord3* coords, const SbMatrixd& matrix, const QbVec3i& flags,
                            const SbVec3d& step, RegMeanSquaredDifference* metric,
                            const double* clip, const int* modelDims, unsigned int numThreads) {
  if (numThreads < 1)
    numThreads = 1;
  const int nz = refDims.z;
  int64_t sharedInside = 0, sharedTotal = 0;
  double sharedSum = 0.0;

  const int savedThreads = omp_get_max_threads();
  omp_set_num_threads((int)numThreads);
#pragma omp parallel
  {
    int64_t inside = 0, total = 0;
    double sum = 0.0;
#pragma omp for schedule(static, 1)
    for (int k = 0; k < nz; k++) {
      reg_evaluateUniformSlice(ref, model, refDims, modelDims, coords, matrix, flags, step, clip, k,
                               total, [&](const RefT* raw, const double* value, int n) {
                                 for (int m = 0; m < n; m++) {
                                   const double diff = value[m] - (double)raw[m];
                                   sum -= diff * diff;
                                 }
                                 inside += n;
                               });
    }
#pragma omp critical(reg_evaluateUniformMerge)
    {
      sharedInside += inside;
      sharedTotal += total;
      sharedSum += sum;
    }
  }
  omp_set_num_threads(savedThreads);

  metric->numInside += sharedInside;
  metric->numTotal += sharedTotal;
  metric->sum += sharedSum;
}
