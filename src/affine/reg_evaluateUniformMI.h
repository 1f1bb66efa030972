#pragma once
// Mutual information over a uniform model: the parallel row walk, each thread
// binning into a private joint histogram, so the inner loop needs no atomics.
#include "QbDArray.h"
#include "RegMutualInformation.h"
#include "RegUniformJointHistogram.h"
#include "reg_evaluateUniformRow.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <type_traits>

// The per-thread histograms of the calling thread's evaluations. They are
// kept from one evaluation to the next, so that an optimizer's thousands of
// evaluations do not each allocate (and fault in) numThreads histograms;
// every evaluation zeroes what it uses before binning, so nothing of an
// earlier evaluation reaches a later one.
inline QbDArray<QbDArray<double>>& reg_evaluateUniformMIScratch() {
  static thread_local QbDArray<QbDArray<double>> scratch;
  return scratch;
}

// Bins and weight pairs of n values: bin[m], and w[2m], w[2m + 1] the weights
// of bin[m] and the next bin, as RegMutualInformation::binOf gives them.
inline void reg_evaluateUniformBins(const double* values, int n, double min, double scale, int bins,
                                    bool simd, int* bin, double* w) {
  auto scalar = [&](int m) {
    RegMutualInformation::binOf(values[m], min, scale, bins, bin[m], w[2 * m], w[2 * m + 1]);
  };
#ifdef ZR_UNIFORM_AVX2
  if (simd) {
    reg_evaluateUniformBinBlockAvx2(values, n, min, scale, bins, bin, w, scalar);
    return;
  }
#endif
  for (int m = 0; m < n; m++)
    scalar(m);
}

// Adds the samples of one reference lattice to `metric`. Slices are dealt to
// the threads round-robin. One histogram per thread is made ready before the
// parallel region (numThreads of them, which is why the region may not run
// more threads) and zeroed by its thread; the counts are merged in a guarded
// section at each thread's end. The histograms are added to the metric's
// entry by entry in rising thread order, the rows of bins shared out among
// the threads. The runtime's thread count is restored.
// The histogram entries agree with a sample-by-sample increment() to
// rounding (see RegUniformJointHistogram), about 1e-15 of their size.
// Label pairs keep plain histograms instead of slots (see labelCells).
template <class RefT, class ModelT>
void reg_evaluateUniformMI(const RefT* ref, const ModelT* model, const QbVec3i& refDims,
                           const ZrCoord3* coords, const SbMatrixd& matrix, const QbVec3i& flags,
                           const SbVec3d& step, RegMutualInformation* metric, const double* clip,
                           const int* modelDims, unsigned int numThreads) {
  if (numThreads < 1)
    numThreads = 1;
  const int nz = refDims.z;
  // The bin parameters, copied once for all threads.
  const double refMin = metric->refMin, refScale = metric->refScale;
  const double modelMin = metric->modelMin, modelScale = metric->modelScale;
  const int nRef = metric->numBinsRef, nMod = metric->numBinsMod;
  if (nRef < 2 || nMod < 2 || metric->histogram.size() < nRef * nMod)
    return;
  const size_t slotCount = RegUniformJointHistogram::slotCount(nRef, nMod);

  // Label pairs (integer voxels on both sides, one bin per value) bin every
  // reference voxel whole into one bin, and every model voxel too: a thread
  // then keeps a plain nRef x nMod histogram, a quarter of the slots, and a
  // sample adds to one or two of its cells instead of four products to a
  // slot. A model value between two labels (the interpolating walk) splits
  // over two neighbouring cells of the reference bin's row.
  const bool labelCells = std::is_integral_v<RefT> && std::is_integral_v<ModelT> &&
                          refScale == 1.0 && modelScale == 1.0 && refMin == std::floor(refMin) &&
                          modelMin == std::floor(modelMin);
  const size_t cellCount = (size_t)nRef * nMod;

  QbDArray<QbDArray<double>>& histograms = reg_evaluateUniformMIScratch();
  if (histograms.size() < (int)numThreads)
    histograms.resize((int)numThreads);
  for (int t = 0; t < (int)numThreads; t++)
    histograms[t].resize(int(std::max(2 * slotCount, cellCount)));
  const bool two = RegUniformJointHistogram::twoSets(
      (double)refDims.x * refDims.y * refDims.z / numThreads, nRef, nMod);
  int64_t sharedInside = 0, sharedTotal = 0;
  // The runtime may start fewer threads than asked for; the histograms of
  // threads that did not run were not zeroed and are not merged.
  int team = 1;

  // A reference of bytes takes its bins and weights from a table of its 256
  // values, made by the same binOf, so the results are those of binning each
  // voxel.
  struct ByteBins {
    int bin[256];
    double w[512];
  } byteBins;
  if constexpr (std::is_same_v<RefT, uint8_t>)
    for (int v = 0; v < 256; v++)
      RegMutualInformation::binOf((double)v, refMin, refScale, nRef, byteBins.bin[v],
                                  byteBins.w[2 * v], byteBins.w[2 * v + 1]);

  const int savedThreads = omp_get_max_threads();
  omp_set_num_threads((int)numThreads);
  const bool simd = reg_evaluateUniformSimd();
  const bool partialVolume = metric->partialVolume;
#pragma omp parallel
  {
    double* mine = histograms[omp_get_thread_num()].data();
    RegUniformJointHistogram hist(mine, nRef, nMod, two);
    std::fill(mine, mine + (labelCells ? cellCount : (two ? 2 : 1) * slotCount), 0.0);
#pragma omp master
    team = omp_get_num_threads();
    int64_t inside = 0, total = 0;
    // The voxels of a block's mixed samples in a walk by partial volume,
    // eight a sample: reference bin and weight pair, value, model bin and
    // weight pair. Kept per thread, as the histograms are, so that no
    // evaluation allocates.
    struct Corners {
      int i[8 * kUniformBlock], j[8 * kUniformBlock];
      double a[16 * kUniformBlock], b[16 * kUniformBlock], value[8 * kUniformBlock];
    };
    static thread_local Corners corner;
    (void)corner;
    // Bins and weight pairs of a block's reference voxels (i, a) and model
    // samples (j, b), as the histogram adds take them.
    auto binBlock = [&](const RefT* r, const double* value, int n, int* i, int* j, double* a,
                        double* b) {
      if constexpr (std::is_same_v<RefT, uint8_t>) {
        for (int m = 0; m < n; m++) {
          const int v = r[m];
          i[m] = byteBins.bin[v];
          a[2 * m] = byteBins.w[2 * v];
          a[2 * m + 1] = byteBins.w[2 * v + 1];
        }
      } else {
        double rv[kUniformBlock];
        for (int m = 0; m < n; m++)
          rv[m] = (double)r[m];
        reg_evaluateUniformBins(rv, n, refMin, refScale, nRef, simd, i, a);
      }
      reg_evaluateUniformBins(value, n, modelMin, modelScale, nMod, simd, j, b);
    };
    // The bin of a label, clamped as binOf clamps: a reference voxel's, and a
    // model value's (whole for a voxel, cut down for an interpolated sample).
    // Captured by value: the loops below store ints and doubles, which the
    // compiler would otherwise have to assume might change them. Worked in
    // integers, the clamps take no branch; a model value between two labels
    // (a sample the partial volume takes apart) is cut down to the lower.
    const int64_t refLow = (int64_t)refMin, modelLow = (int64_t)modelMin;
    const int64_t refTop = nRef - 1, modelTop = nMod - 1;
    auto clampCell = [](int64_t t, int64_t top) -> int {
      t = t > 0 ? t : 0;
      return (int)(t < top ? t : top);
    };
    auto refCell = [=](RefT v) -> int { return clampCell((int64_t)v - refLow, refTop); };
    auto modelCell = [=](double v) -> int { return clampCell((int64_t)v - modelLow, modelTop); };
#pragma omp for schedule(static, 1)
    for (int k = 0; k < nz; k++) {
      if (labelCells && partialVolume) {
        // A pure sample is its label: one whole count. A mixed one adds each
        // of its eight voxels with its trilinear weight.
        auto consume = [&](const RefT* r, const double* value, const bool* pure, int n,
                           auto&& corners) {
          double* const cells = mine;
          const int stride = nMod;
          int row[kUniformBlock], cell[kUniformBlock];
          for (int m = 0; m < n; m++) {
            row[m] = refCell(r[m]) * stride;
            cell[m] = row[m] + modelCell(value[m]);
          }
          // A block of one cell throughout (the background, a large label)
          // is one add.
          bool uniform = true;
          for (int m = 0; m < n; m++)
            uniform &= pure[m] & (cell[m] == cell[0]);
          inside += n;
          if (uniform) {
            cells[cell[0]] += n;
            return;
          }
          // Neighbouring samples mostly fall into one cell (the background,
          // a label's inside): they are counted in a register and added
          // once, so that each add does not wait for the one before it. A
          // mixed sample counts nothing here and stays in the run it
          // interrupts; the branch is taken where one label meets another.
          int mixed[kUniformBlock], numMixed = 0;
          int cur = cell[0], run = 0;
          for (int m = 0; m < n; m++) {
            mixed[numMixed] = m;
            numMixed += !pure[m];
            const int at = pure[m] ? cell[m] : cur;
            if (at != cur) {
              cells[cur] += run;
              cur = at;
              run = 0;
            }
            run += pure[m];
          }
          cells[cur] += run;
          // Most mixed samples straddle two labels: their voxels' weights
          // are summed first and added in two.
          for (int e = 0; e < numMixed; e++) {
            const int m = mixed[e];
            double* across = cells + row[m];
            int j0, j1;
            double w0, w1;
            if (corners.pair(m, (double)modelLow, (double)modelTop, j0, j1, w0, w1)) {
              across[j0] += w0;
              // Labels beyond the bins' range share the border bin.
              if (j1 != j0)
                across[j1] += w1;
              continue;
            }
            double c[8], w[8];
            corners(m, c, w);
            for (int u = 0; u < 8; u++)
              across[modelCell(c[u])] += w[u];
          }
        };
        reg_evaluateUniformSlice<RefT, ModelT, decltype(consume)&, true>(
            ref, model, refDims, modelDims, coords, matrix, flags, step, clip, k, total, consume);
        continue;
      }
      if (labelCells) {
        // Runs of samples in one cell (the background, a label's inside)
        // are summed in registers, as by partial volume.
        auto consume = [&](const RefT* r, const double* value, int n) {
          int j[kUniformBlock];
          double b[2 * kUniformBlock];
          reg_evaluateUniformBins(value, n, modelMin, modelScale, nMod, simd, j, b);
          double* const cells = mine;
          const int stride = nMod;
          int cur = refCell(r[0]) * stride + j[0];
          double w0 = 0.0, w1 = 0.0;
          for (int m = 0; m < n; m++) {
            const int at = refCell(r[m]) * stride + j[m];
            if (at != cur) {
              cells[cur] += w0;
              cells[cur + 1] += w1;
              cur = at;
              w0 = w1 = 0.0;
            }
            w0 += b[2 * m];
            w1 += b[2 * m + 1];
          }
          cells[cur] += w0;
          cells[cur + 1] += w1;
          inside += n;
        };
        reg_evaluateUniformSlice(ref, model, refDims, modelDims, coords, matrix, flags, step, clip,
                                 k, total, consume);
        continue;
      }
      if (partialVolume) {
        // Pure samples (eight equal voxels) are their value and go as in the
        // interpolating walk; the others go there with no weight and add each
        // of their eight voxels with its own instead.
        auto consume = [&](const RefT* r, const double* value, const bool* pure, int n,
                           auto&& corners) {
          int i[kUniformBlock], j[kUniformBlock];
          double a[2 * kUniformBlock], b[2 * kUniformBlock];
          binBlock(r, value, n, i, j, a, b);
          int mixed[kUniformBlock], numMixed = 0;
          for (int m = 0; m < n; m++) {
            mixed[numMixed] = m;
            numMixed += !pure[m];
          }
          for (int e = 0; e < numMixed; e++) {
            const int m = mixed[e];
            for (int u = 0; u < 8; u++) {
              const int q = 8 * e + u;
              corner.i[q] = i[m];
              corner.a[2 * q] = a[2 * m];
              corner.a[2 * q + 1] = a[2 * m + 1];
            }
            a[2 * m] = a[2 * m + 1] = 0.0;
          }
          hist.add(n, i, j, a, b, simd);
          inside += n;
          if (!numMixed)
            return;
          double w[8 * kUniformBlock];
          for (int e = 0; e < numMixed; e++)
            corners(mixed[e], corner.value + 8 * e, w + 8 * e);
          const int q = 8 * numMixed;
          reg_evaluateUniformBins(corner.value, q, modelMin, modelScale, nMod, simd, corner.j,
                                  corner.b);
          for (int e = 0; e < q; e++) {
            corner.a[2 * e] *= w[e];
            corner.a[2 * e + 1] *= w[e];
          }
          hist.add(q, corner.i, corner.j, corner.a, corner.b, simd);
        };
        reg_evaluateUniformSlice<RefT, ModelT, decltype(consume)&, true>(
            ref, model, refDims, modelDims, coords, matrix, flags, step, clip, k, total, consume);
        continue;
      }
      reg_evaluateUniformSlice(ref, model, refDims, modelDims, coords, matrix, flags, step, clip, k,
                               total, [&](const RefT* r, const double* value, int n) {
                                 int i[kUniformBlock], j[kUniformBlock];
                                 double a[2 * kUniformBlock], b[2 * kUniformBlock];
                                 binBlock(r, value, n, i, j, a, b);
                                 hist.add(n, i, j, a, b, simd);
                                 inside += n;
                               });
    }
#pragma omp critical(reg_evaluateUniformMerge)
    {
      sharedInside += inside;
      sharedTotal += total;
    }
    // The rows of bins are shared out; each adds the threads' slots in rising
    // thread order, so the sums do not depend on which thread folds a row.
    // The loop above ended in a barrier: every thread's slots are complete.
    double* bins = metric->histogram.data();
#pragma omp for schedule(static)
    for (int i = 0; i < nRef; i++)
      for (int t = 0; t < team && t < (int)numThreads; t++) {
        if (labelCells) {
          const double* cells = histograms[t].data() + (size_t)i * nMod;
          double* row = bins + (size_t)i * nMod;
          for (int j = 0; j < nMod; j++)
            row[j] += cells[j];
          continue;
        }
        RegUniformJointHistogram(histograms[t].data(), nRef, nMod, two)
            .foldRow(i, nRef, bins + (size_t)i * nMod);
      }
  }
  omp_set_num_threads(savedThreads);

  metric->numInside += sharedInside;
  metric->numTotal += sharedTotal;
}
