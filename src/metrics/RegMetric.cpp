#include "RegMetric.h"

RegMetric::~RegMetric() {}

void RegMetric::getState(RegMetric* other) const {
  other->numInside = numInside;
  other->numTotal = numTotal;
}
