#include "RegLabelDifference.h"

RegLabelDifference::RegLabelDifference(double maxCoverage)
    : RegMeanSquaredDifference(maxCoverage) {}

RegLabelDifference::~RegLabelDifference() {}

RegMetric* RegLabelDifference::clone() const {
  RegLabelDifference* copy = new RegLabelDifference(maxCoverage);
  copy->numInside = numInside;
  copy->numTotal = numTotal;
  copy->sum = sum;
  return copy;
}

void RegLabelDifference::increment(double ref, double model) {
  numInside++;
  numTotal++;
  if (ref != model)
    sum -= 1.0;
}

void RegLabelDifference::decrement(double ref, double model) {
  numInside--;
  numTotal--;
  if (ref != model)
    sum += 1.0;
}
