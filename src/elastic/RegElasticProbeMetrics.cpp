#include "RegElasticProbeMetrics.h"

#include "reg_evaluateElastic.h"

void RegElasticProbeMetrics::restore(const RegMetric* boxOut, int count) {
  for (int k = 0; k < count; k++)
    reg_restoreCachedState(boxOut, metrics[k]);
}
