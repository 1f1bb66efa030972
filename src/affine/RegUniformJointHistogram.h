#pragma once
// A thread's joint histogram during a uniform walk with mutual information.
// The four weights of a sample stay together: slot (i, j), at
// 4 * (i * (nMod - 1) + j), holds what goes to bins (i, j), (i, j + 1),
// (i + 1, j) and (i + 1, j + 1), so one sample updates one slot, and samples
// of neighbouring bins touch separate slots instead of sharing cells. Samples
// with their whole weight in one bin (both values on a bin centre, as in a
// background of zeros on both sides) are counted while they come in a run
// into the same bin, so that a long run is one addition rather than a chain
// of additions to one memory cell. fold() spreads the slots over the bins.
//
// A bin's weight thus comes in up to four partial sums and the runs' counts:
// it equals the sample-by-sample sum up to rounding only.
#include "reg_evaluateUniformSimd.h"

#include <cstddef>

class RegUniformJointHistogram {
public:
  // 4 * (nRef - 1) * (nMod - 1) doubles, zeroed by the caller. Not owned.
  double* slots;
  // nMod - 1: slots per reference bin.
  size_t stride;
  // The slot of the present run of whole-weight samples, and their count.
  size_t runSlot = 0;
  double runCount = 0.0;

  RegUniformJointHistogram(double* slots, int nMod) : slots(slots), stride((size_t)nMod - 1) {}

  // Adds n sample pairs: bins i[m], j[m] and the weight pairs a[2m], a[2m + 1]
  // and b[2m], b[2m + 1] of each bin and the next (RegMutualInformation::binOf).
  void add(int n, const int* i, const int* j, const double* a, const double* b, bool simd) {
#ifdef ZR_UNIFORM_AVX2
    if (simd) {
      reg_evaluateUniformAddAvx2(*this, n, i, j, a, b);
      return;
    }
#endif
    (void)simd;
    for (int m = 0; m < n; m++) {
      const size_t slot = 4 * ((size_t)i[m] * stride + j[m]);
      if (a[2 * m + 1] == 0.0 && b[2 * m + 1] == 0.0) {
        addWhole(slot);
        continue;
      }
      double* q = slots + slot;
      const double a0 = a[2 * m], a1 = a[2 * m + 1], b0 = b[2 * m], b1 = b[2 * m + 1];
      q[0] += a0 * b0;
      q[1] += a0 * b1;
      q[2] += a1 * b0;
      q[3] += a1 * b1;
    }
  }

  // One sample with its whole weight in the first bin of `slot`.
  void addWhole(size_t slot) {
    if (slot != runSlot) {
      flushRun();
      runSlot = slot;
    }
    runCount += 1.0;
  }

  // Adds the count of the present run to its bin.
  void flushRun() {
    slots[runSlot] += runCount;
    runCount = 0.0;
  }

  // Adds the slots to the bins of `hist` (nRef x nMod, reference bin slowest).
  // The run must have been flushed.
  void fold(int nRef, double* hist) const {
    const int nMod = (int)stride + 1;
    for (int i = 0; i + 1 < nRef; i++) {
      double* row = hist + (size_t)i * nMod;
      double* next = row + nMod;
      const double* q = slots + 4 * (size_t)i * stride;
      for (int j = 0; j + 1 < nMod; j++, q += 4) {
        row[j] += q[0];
        row[j + 1] += q[1];
        next[j] += q[2];
        next[j + 1] += q[3];
      }
    }
  }
};
