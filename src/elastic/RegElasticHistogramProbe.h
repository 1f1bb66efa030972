#pragma once
// The mutual information metrics' side of the gradient's probes. A probe adds
// the samples of one box to a histogram from which that box was taken out,
// and a histogram of 256 x 256 bins is far larger than what one box touches;
// so instead of copying the histogram for every probe and taking the
// logarithm of every bin, this notes the 2 x 2 blocks of bins that the adds
// touch, works out the sums of h log h over the joint bins and over the
// model's marginal from those of the taken-out state corrected over the
// touched bins, and puts only those bins back.
//
// For each control point: beginPoint() once the box is taken out (one scan of
// the bins), then per probe add() for each new sample and finishProbe(). The
// reference's marginal is that of the caching pass in every probe (a probe
// gives each voxel its reference value back), so its entropy is taken once
// per caching pass by beginCache(). The result is the metric's own formula and
// equals getResult() in the same state up to rounding: the sums are taken in
// another order.
#include "RegMutualInformation.h"

#include <cmath>
#include <cstdint>
#include <vector>

class RegElasticHistogramProbe {
public:
  // The entropy of the reference's marginal of `cached`.
  void beginCache(const RegMutualInformation* cached);
  // `boxOut` holds the statistics with the point's box taken out, and `work`
  // a copy of them, to which the probes add.
  void beginPoint(const RegMutualInformation* boxOut, RegMutualInformation* work);
  // What increment() of the metric does to `work`, noting the bins.
  inline void add(double ref, double model) {
    int i, j;
    double a0, a1, b0, b1;
    RegMutualInformation::binOf(ref, work->refMin, work->refScale, nRef, i, a0, a1);
    RegMutualInformation::binOf(model, work->modelMin, work->modelScale, nMod, j, b0, b1);
    const int k = i * nMod + j;
    if (blockStamp[k] != blockCurrent) {
      blockStamp[k] = blockCurrent;
      blocks.push_back(k);
    }
    RegMutualInformation::addWeights(h, nMod, i, j, a0, a1, b0, b1, 1.0);
    work->numTotal++;
    work->numInside++;
  }
  // The metric's value for `work`, which then goes back to the taken-out
  // state.
  double finishProbe();

private:
  static inline double xlogx(double x) { return x > 0 ? x * std::log(x) : 0.0; }
  // Makes every stamp of `stamps` look old.
  static void advance(std::vector<uint32_t>& stamps, uint32_t& current);

  const RegMutualInformation* boxOut = nullptr;
  RegMutualInformation* work = nullptr;
  double* h = nullptr;
  int nRef = 0, nMod = 0;
  double hRef = 0.0;
  // Of the taken-out state: the model's marginal (column sums), the sums of
  // h log h over the joint bins and the columns, and the total mass.
  std::vector<double> columns;
  double sJoint = 0.0, sModel = 0.0, mass = 0.0;
  // Blocks touched since the last probe, by their first bin, each once.
  std::vector<uint32_t> blockStamp;
  uint32_t blockCurrent = 1;
  std::vector<int> blocks;
  // Scratch of finishProbe(): bins and columns, each once.
  std::vector<uint32_t> binStamp, columnStamp;
  uint32_t collectCurrent = 1;
  std::vector<int> bins, touchedColumns;
  std::vector<double> columnChange;
};
