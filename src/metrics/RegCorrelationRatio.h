#pragma once
// Absolute Pearson correlation of the reference and model samples, restricted
// to two inclusive grey-value windows: 1 for data related linearly, whether
// rising or falling, 0 for uncorrelated data.
//
// The sums are taken of values less running offsets, which keeps them small
// and the cancellation in the formula harmless. Every getResult() moves the
// offsets on to the means it found, so the next evaluation subtracts nearly
// the true means; the result changes only in rounding.
#include "RegMetric.h"

class RegCorrelationRatio : public RegMetric {
public:
  // Sums of offset values a = ref - refOffset and b = model - modelOffset:
  // a*a, b*b, a*b, a, b. After getResult(), sumRef and sumModel hold the means
  // until the next reset().
  double sumRefSq = 0.0, sumModelSq = 0.0, sumProduct = 0.0, sumRef = 0.0, sumModel = 0.0;
  // Inclusive windows; a sample outside either one only counts in numTotal.
  double refLow, refHigh, modelLow, modelHigh;
  // Running means, 0 at the start.
  double refOffset = 0.0, modelOffset = 0.0;

  // The counts are left for reset(), which every evaluation runs first.
  RegCorrelationRatio(double refLow, double refHigh, double modelLow, double modelHigh,
                      double maxCoverage);
  ~RegCorrelationRatio() override;

  RegMetric* clone() const override;
  // Zeroes the sums and counts; the offsets stay.
  void reset() override;
  // |correlation| with the overlap factor, -1000.0 without samples. Turns
  // sumRef and sumModel into means and moves the offsets on, so it is meant
  // to be called once per evaluation.
  double getResult() override;
  // Copies counts and sums; windows and offsets of `other` stay.
  void getState(RegMetric* other) const override;
  void increment(double ref, double model) override;
  void decrement(double ref, double model) override;
  void getMarginalEntropies(double& ref, double& model) override;

  bool inRefWindow(double ref) const { return ref >= refLow && ref <= refHigh; }
  bool inModelWindow(double model) const { return model >= modelLow && model <= modelHigh; }

protected:
  // Copy for clone(): counts, maxCoverage, sums, windows and offsets; the
  // sampling state is not copied.
  RegCorrelationRatio(const RegCorrelationRatio& other);
};
