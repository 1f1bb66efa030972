#include "RegMeanSquaredDifference.h"

RegMeanSquaredDifference::RegMeanSquaredDifference(double maxCoverage) : RegMetric(maxCoverage) {
  sum = 0.0;
}

RegMetric* RegMeanSquaredDifference::clone() const {
  RegMeanSquaredDifference* copy = new RegMeanSquaredDifference(maxCoverage);
  copy->copyStatistics(*this);
  copy->sum = sum;
  return copy;
}

void RegMeanSquaredDifference::reset() {
  sum = 0.0;
  numInside = 0;
  numTotal = 0;
}

double RegMeanSquaredDifference::getResult() {
  const int64_t n = numInside;
  if (n == 0)
    return -1000.0;
  double w = 1.0;
  const double f = (double)n / (double)numTotal;
  if (maxCoverage > 0 && f / maxCoverage < 0.2)
    w = 1.0 / (f * 5.0 / maxCoverage);
  return w * sum / (double)n;
}

void RegMeanSquaredDifference::getState(RegMetric* other) const {
  RegMetric::getState(other);
  static_cast<RegMeanSquaredDifference*>(other)->sum = sum;
}

void RegMeanSquaredDifference::getMarginalEntropies(double& ref, double& model) {
  ref = 0.0;
  model = 0.0;
}
