#pragma once
// Minus the mean squared difference of the sample pairs: 0 for a perfect
// match, never positive. The overlap weight divides the value here, since a
// negative value must fall when the overlap shrinks.
#include "RegMetric.h"

class RegMeanSquaredDifference : public RegMetric {
public:
  // Negated sum of squared differences.
  double sum = 0.0;

  explicit RegMeanSquaredDifference(double maxCoverage);

  RegMetric* clone() const override;
  void reset() override;
  double getResult() override;
  void getState(RegMetric* other) const override;
  void increment(double ref, double model) override;
  void decrement(double ref, double model) override;
  void getMarginalEntropies(double& ref, double& model) override;
};

// Inline, so that walks which bind these calls at compile time can inline them.
inline void RegMeanSquaredDifference::increment(double ref, double model) {
  numTotal++;
  numInside++;
  const double d = ref - model;
  sum -= d * d;
}

inline void RegMeanSquaredDifference::decrement(double ref, double model) {
  numTotal--;
  numInside--;
  const double d = ref - model;
  sum += d * d;
}
