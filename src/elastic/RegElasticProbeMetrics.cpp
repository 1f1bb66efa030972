#include "RegElasticProbeMetrics.h"

#include "reg_evaluateElastic.h"

void RegElasticProbeMetrics::restore(const RegMetric* boxOut, int count) {
  for (int k = 0; k < count; k++)
    reg_restoreCachedState(boxOut, metrics[k]);
}

void RegElasticProbeMetrics::setBase(const RegMetric* metric) {
  base = dynamic_cast<const RegMutualInformation*>(metric);
  if (base)
    base->getEntropySums(sums);
}

double RegElasticProbeMetrics::result(int k) {
  if (base)
    return static_cast<RegMutualInformation*>(metrics[k])->getResultNear(*base, sums);
  return metrics[k]->getResult();
}
