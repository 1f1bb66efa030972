#pragma once
// Mutual information over a uniform model: the parallel row walk, each thread
// binning into a private joint histogram, so the inner loop needs no atomics.
#include "QbDArray.h"
#include "RegMutualInformation.h"
#include "reg_evaluateUniformRow.h"

#include <omp.h>

#include <algorithm>

// The per-thread histograms of the calling thread's evaluations. They are
// kept from one evaluation to the next, so that an optimizer's thousands of
// evaluations do not each allocate (and fault in) numThreads histograms;
// every evaluation zeroes what it uses before binning, so nothing of an
// earlier evaluation reaches a later one.
inline QbDArray<QbDArray<double>>& reg_evaluateUniformMIScratch() {
  static thread_local QbDArray<QbDArray<double>> scratch;
  return scratch;
}

// Adds the samples of one reference lattice to `metric`. Slices are dealt to
// the threads round-robin. One histogram per thread is made ready before the
// parallel region (numThreads of them, which is why the region may not run
// more threads) and zeroed by its thread; the counts are merged in a guarded
// section at each thread's end, and the histograms are added to the metric's
// afterwards, entry by entry, in rising thread order. The runtime's thread
// count is restored.
template <class RefT, class ModelT>
void reg_evaluateUniformMI(const RefT* ref, const ModelT* model, const QbVec3i& refDims,
                           const ZrCoord3* coords, const SbMatrixd& matrix, const QbVec3i& flags,
                           const SbVec3d& step, RegMutualInformation* metric, const double* clip,
                           const int* modelDims, unsigned int numThreads) {
  if (numThreads < 1)
    numThreads = 1;
  const int nz = refDims.z;
  const int mx = modelDims[0], my = modelDims[1], mz = modelDims[2];
  // The bin parameters, copied once for all threads.
  const double refMin = metric->refMin, refScale = metric->refScale;
  const double modelMin = metric->modelMin, modelScale = metric->modelScale;
  const int nRef = metric->numBinsRef, nMod = metric->numBinsMod;
  const int histSize = metric->histogram.size();

  QbDArray<QbDArray<double>>& histograms = reg_evaluateUniformMIScratch();
  if (histograms.size() < (int)numThreads)
    histograms.resize((int)numThreads);
  for (int t = 0; t < (int)numThreads; t++)
    histograms[t].resize(histSize);
  int64_t sharedInside = 0, sharedTotal = 0;
  // The runtime may start fewer threads than asked for; the histograms of
  // threads that did not run were not zeroed and are not merged.
  int team = 1;

  const int savedThreads = omp_get_max_threads();
  omp_set_num_threads((int)numThreads);
#pragma omp parallel
  {
    double* hist = histograms[omp_get_thread_num()].data();
    std::fill(hist, hist + histSize, 0.0);
#pragma omp master
    team = omp_get_num_threads();
    int64_t inside = 0, total = 0;
#pragma omp for schedule(static, 1)
    for (int k = 0; k < nz; k++) {
      reg_evaluateUniformSlice(
          ref, refDims, coords, matrix, flags, step, clip, k, total,
          [&](double r, const SbVec3d& v) {
            const double value = reg_evaluateUniformSample(model, v, mx, my, mz);
            RegMutualInformation::addToHistogram(hist, r, value, refMin, refScale, nRef, modelMin,
                                                 modelScale, nMod, 1.0);
            inside++;
          });
    }
#pragma omp critical(reg_evaluateUniformMerge)
    {
      sharedInside += inside;
      sharedTotal += total;
    }
  }
  omp_set_num_threads(savedThreads);

  metric->numInside += sharedInside;
  metric->numTotal += sharedTotal;
  double* target = metric->histogram.data();
  for (int t = 0; t < team && t < (int)numThreads; t++) {
    const double* h = histograms[t].data();
    for (int e = 0; e < histSize; e++)
      target[e] += h[e];
  }
}
