#include "ZrBestNeighbourOptimizer.h"

#include "QbDVector.h"
#include "RegFunctional.h"
#include "RegParametricTransform.h"
#include "SbVec3d.h"
#include "ZrMessage.h"
#include "ZrWorkArea.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace {

// Truncation to int with the processor's answer for what does not fit: NaN,
// infinities and values beyond the range of int all give INT_MIN. A step of 0,
// or two steps of opposite sign, land here, and the search then takes no step.
int truncateToInt(double x) {
  if (!(x > -2147483649.0 && x < 2147483648.0))
    return INT_MIN;
  return (int)x;
}

} // namespace

ZrBestNeighbourOptimizer::ZrBestNeighbourOptimizer(RegOptimizerCallback* callback,
                                                   double stepFactor, int dimensionMode)
    : ZrOptimizer(callback), stepFactor(stepFactor), dimensionMode(dimensionMode) {}

int ZrBestNeighbourOptimizer::optimize(double a, double b) {
  ZrWorkArea* workArea = ZrWorkArea::getTheWorkArea();
  ZrMessage* msg = ZrMessage::getTheMsg();

  const int n = transform->getVariableParamVectorDim();
  double best = functional->evaluateAndCache();
  QbDVector<double>& params = transform->paramVector;
  QbDVector<double> bestVector = params;

  const int k = truncateToInt(std::log(b / a) / std::log(stepFactor));
  const int numSteps = k + 1;
  if (numSteps == 1)
    stepFactor = 0.5;
  else
    stepFactor = std::pow(b / a, 1.0 / k);

  SbVec3d extent(functional->size.x, functional->size.y, functional->size.z);
  QbDVector<double> scale(n);
  for (int i = 0; i < n; i++)
    scale[i] = transform->getParamStep(i, &extent);

  float slice = 1.0f, base = 0.0f;
  if (progressSteps >= 2) {
    slice = 1.0f / progressSteps;
    base = std::max(0.0f, (progressStep - 1) * slice);
  }
  workArea->setProgressValue(slice / 100 + base);
  int percent = 1;
  const int perStep = 99 / std::max(numSteps, 1);

  if (numSteps < 1)
    return 1;

  double step = b * std::pow(stepFactor, 1 - numSteps);
  for (int stepIndex = 0;; stepIndex++) {
    msg->printf("Setting step size to %4g\n", step);
    if (n > 0) {
      for (;;) {
        bool found = false;
        for (int i = 0; i < n; i++) {
          if (isSkippedParameter(dimensionMode, i))
            continue;
          const double old = params[i];
          // A stop leaves the parameters as they are at this moment.
          if (workArea->wasInterrupted(1))
            return 0;
          params[i] = old + step * scale[i];
          double value = functional->evaluateIncremental(i, 0.0);
          if (value > best) {
            best = value;
            bestVector = params;
            found = true;
          }
          if (workArea->wasInterrupted(1))
            return 0;
          params[i] = old - step * scale[i];
          value = functional->evaluateIncremental(i, 0.0);
          if (value > best) {
            best = value;
            bestVector = params;
            found = true;
          }
          params[i] = old;
        }
        if (!found)
          break;
        // Only the variable entries are taken back. The held ones may have
        // been changed by the transform itself since the best point was
        // seen (with an isotropic scale, entries 7 and 8 follow entry 6 on
        // every evaluation), and the transform's own record of that change
        // belongs to the values it holds now, not to those of the copy.
        for (int i = 0; i < n; i++)
          params[i] = bestVector[i];
        workArea->setProgressValue((percent * slice) / 100 + base);
        if (workArea->wasInterrupted(1))
          return 0;
        if (refreshSteps)
          for (int i = 0; i < n; i++)
            scale[i] = transform->getParamStep(i, &extent);
      }
    }
    msg->printf(" Metric result = %f\n", best);
    if (stepIndex == k)
      break;
    step *= stepFactor;
    percent += perStep;
  }
  return 1;
}
