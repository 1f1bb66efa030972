#pragma once
// A thread's joint histogram during a uniform walk with mutual information.
// The four weights of a sample stay together: slot (i, j), at
// 4 * (i * (nMod - 1) + j), holds what goes to bins (i, j), (i, j + 1),
// (i + 1, j) and (i + 1, j + 1), so one sample updates one slot, and samples
// of neighbouring bins touch separate slots instead of sharing cells.
//
// With many samples per slot there are two sets of slots, one for the even
// and one for the odd samples of a block. Neighbouring voxels often fall into
// one slot (a background of zeros on both sides, a smooth region); with one
// set each addition would wait for the one before it to be stored. With few
// samples (a coarse level, many bins) one set is used: zeroing and folding
// the second would cost more than it saves. Every sample takes the same path,
// whole weights included, so the loop has no branch to mispredict.
// foldRow() spreads the slots over one row of bins.
//
// A bin's weight thus comes in up to eight partial sums: it equals the
// sample-by-sample sum up to rounding only.
#include "reg_evaluateUniformSimd.h"

#include <cstddef>

class RegUniformJointHistogram {
public:
  // slotCount(nRef, nMod) doubles for each set, zeroed by the caller: the
  // even set, then the odd one. Not owned.
  double* slots;
  // The odd set; `slots` where there is one set.
  double* odd;
  // nMod - 1: slots per reference bin.
  size_t stride;

  static size_t slotCount(int nRef, int nMod) { return 4 * size_t(nRef - 1) * size_t(nMod - 1); }
  // Whether a walk of about `samples` samples a thread takes two sets.
  static bool twoSets(double samples, int nRef, int nMod) {
    return samples >= 8.0 * (double)slotCount(nRef, nMod);
  }

  RegUniformJointHistogram(double* slots, int nRef, int nMod, bool two)
      : slots(slots), odd(two ? slots + slotCount(nRef, nMod) : slots), stride((size_t)nMod - 1) {}

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
      double* q = ((m & 1) ? odd : slots) + 4 * ((size_t)i[m] * stride + j[m]);
      const double a0 = a[2 * m], a1 = a[2 * m + 1], b0 = b[2 * m], b1 = b[2 * m + 1];
      q[0] += a0 * b0;
      q[1] += a0 * b1;
      q[2] += a1 * b0;
      q[3] += a1 * b1;
    }
  }

  // Adds what the slots hold for reference bin i to `row`, that bin's row of
  // nMod bins: the second half of the slots of row i - 1, then the first half
  // of those of row i.
  void foldRow(int i, int nRef, double* row) const {
    const int nMod = (int)stride + 1;
    const bool two = odd != slots;
    for (int part = 1; part >= 0; part--) {
      const int r = i - part;
      if (r < 0 || r + 1 >= nRef)
        continue;
      const double* q = slots + 4 * (size_t)r * stride + 2 * part;
      const double* p = odd + 4 * (size_t)r * stride + 2 * part;
      for (int j = 0; j + 1 < nMod; j++, q += 4, p += 4) {
        row[j] += two ? q[0] + p[0] : q[0];
        row[j + 1] += two ? q[1] + p[1] : q[1];
      }
    }
  }
};
