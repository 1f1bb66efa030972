#include "RegSplineInterpolant.h"

void RegSplineInterpolant::setWeights(double t) {
  const double u = 1.0 - t;
  weight[0] = u * u * u / 6.0;
  weight[1] = (t * t * (3.0 * t - 6.0) + 4.0) / 6.0;
  weight[2] = (((3.0 - 3.0 * t) * t + 3.0) * t + 1.0) / 6.0;
  weight[3] = t * t * t / 6.0;
  weight1[0] = -u * u / 2.0;
  weight1[1] = 1.5 * t * t - 2.0 * t;
  weight1[2] = (2.0 * t + 1.0 - 3.0 * t * t) / 2.0;
  weight1[3] = t * t / 2.0;
  weight2[0] = 1.0 - t;
  weight2[1] = 3.0 * t - 2.0;
  weight2[2] = 1.0 - 3.0 * t;
  weight2[3] = t;
}
