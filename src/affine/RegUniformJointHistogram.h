#pragma once
// A thread's joint histogram during a uniform walk with mutual information.
// The four weights of a sample stay together: slot (i, j), at
// 4 * (i * (nMod - 1) + j), holds what goes to bins (i, j), (i, j + 1),
// (i + 1, j) and (i + 1, j + 1), so one sample updates one slot, and samples
// of neighbouring bins touch separate slots instead of sharing cells.
//
// There are two sets of slots, one for the even and one for the odd samples
// of a block. Neighbouring voxels often fall into one slot (a background of
// zeros on both sides, a smooth region); with one set each addition would
// wait for the one before it to be stored. Every sample takes the same path,
// whole weights included, so the loop has no branch to mispredict.
// fold() adds the odd set to the even one and spreads the slots over the
// bins.
//
// A bin's weight thus comes in up to eight partial sums: it equals the
// sample-by-sample sum up to rounding only.
#include "reg_evaluateUniformSimd.h"

#include <cstddef>

class RegUniformJointHistogram {
public:
  // 2 * slotCount(nRef, nMod) doubles, zeroed by the caller: the even set,
  // then the odd one. Not owned.
  double* slots;
  double* odd;
  // nMod - 1: slots per reference bin.
  size_t stride;

  static size_t slotCount(int nRef, int nMod) { return 4 * size_t(nRef - 1) * size_t(nMod - 1); }

  RegUniformJointHistogram(double* slots, int nRef, int nMod)
      : slots(slots), odd(slots + slotCount(nRef, nMod)), stride((size_t)nMod - 1) {}

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

  // Adds the slots to the bins of `hist` (nRef x nMod, reference bin slowest).
  // The odd set is added to the even one on the way.
  void fold(int nRef, double* hist) {
    const int nMod = (int)stride + 1;
    const size_t count = slotCount(nRef, nMod);
    for (size_t s = 0; s < count; s++)
      slots[s] += odd[s];
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
