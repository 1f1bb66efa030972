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
