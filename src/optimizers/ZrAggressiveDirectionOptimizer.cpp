#include "ZrAggressiveDirectionOptimizer.h"

#include "QbDVector.h"
#include "RegFunctional.h"
#include "RegOptimizerCallback.h"
#include "RegParametricTransform.h"
#include "SbVec3d.h"
#include "ZrMessage.h"
#include "ZrWorkArea.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace {

// The functional's value for a folding deformation or a stop during a
// gradient: the most negative single-precision number.
const double INVALID_VALUE = -3.4028234663852886e+38;

// Truncation to int with the processor's answer for what does not fit: NaN,
// infinities and values beyond the range of int give INT_MIN, and the search
// then takes no step.
int truncateToInt(double x) {
  if (!(x > -2147483649.0 && x < 2147483648.0))
    return INT_MIN;
  return (int)x;
}

} // namespace

ZrAggressiveDirectionOptimizer::ZrAggressiveDirectionOptimizer(RegOptimizerCallback* callback,
                                                               double stepFactor,
                                                               double thresholdStep,
                                                               int fullRefinement,
                                                               int dimensionMode)
    : ZrOptimizer(callback), stepFactor(stepFactor), thresholdStep(thresholdStep),
      fullRefinement(fullRefinement), dimensionMode(dimensionMode) {}

bool ZrAggressiveDirectionOptimizer::stopRequested() const {
  if (callback && callback->checkForInterrupt())
    return true;
  return ZrWorkArea::getTheWorkArea()->wasInterrupted(1) != 0;
}

int ZrAggressiveDirectionOptimizer::optimize(double a, double b) {
  ZrWorkArea* workArea = ZrWorkArea::getTheWorkArea();
  ZrMessage* msg = ZrMessage::getTheMsg();

  const int n = transform->getVariableParamVectorDim();
  QbDVector<double>& params = transform->paramVector;
  double best = functional->evaluateAndCache();
  QbDVector<double> bestParams = params;

  const int k = truncateToInt(std::log(b / a) / std::log(stepFactor));
  const int numSteps = k + 1;
  if (numSteps == 1)
    stepFactor = 0.5;
  else
    stepFactor = std::pow(b / a, 1.0 / k);

  SbVec3d size(functional->size.x, functional->size.y, functional->size.z);
  QbDVector<double> scale(n), grad(n), dir(n);
  for (int i = 0; i < n; i++)
    scale[i] = transform->getParamStep(i, &size);

  float slice = 1.0f, base = 0.0f;
  if (progressSteps >= 2) {
    slice = 1.0f / progressSteps;
    base = std::max(0.0f, (progressStep - 1) * slice);
  }
  workArea->setProgressValue(slice / 100 + base);
  int percent = 1;
  const int perStep = 99 / std::max(numSteps, 1);
  if (stopRequested())
    return 0;
  if (numSteps < 1)
    return 0;

  double step = b * std::pow(stepFactor, 1 - numSteps);
  // The value of the present parameters, as far as the search knows it.
  double shown = best;
  for (int stepIndex = 0;;) {
    msg->printf("Setting step size to %4g\n", step);
    bool improved = true;
    while (improved) {
      // Gradient from two probes per parameter. Only parameters with a probe
      // better than the present value take part.
      double maxG = 0.0;
      for (int i = 0; i < n; i++) {
        if (isSkippedParameter(dimensionMode, i)) {
          grad[i] = 0.0;
          continue;
        }
        const double old = params[i];
        if (stopRequested())
          return 0;
        params[i] = old + step * scale[i];
        const double fUp = functional->evaluateIncremental(i, 0.0);
        if (stopRequested())
          return 0;
        params[i] = old - step * scale[i];
        const double fDown = functional->evaluateIncremental(i, 0.0);
        if (fUp == INVALID_VALUE || fDown == INVALID_VALUE) {
          grad[i] = 0.0;
          params[i] = old;
          continue;
        }
        // Both copies are taken with the parameter at its lower probe, also
        // the one that records the upper probe's value.
        if (best < fUp) {
          best = fUp;
          bestParams = params;
        }
        if (best < fDown) {
          best = fDown;
          bestParams = params;
        }
        if (shown < fUp || shown < fDown) {
          grad[i] = fUp - fDown;
          maxG = std::max(maxG, std::fabs(grad[i]));
        } else {
          grad[i] = 0.0;
        }
        params[i] = old;
      }

      improved = false;
      if (maxG > 0.0) {
        // Passes with a rising threshold: each leaves out the parameters
        // whose gradient is weakest, and runs only if the direction changed.
        double threshold = 0.0;
        bool first = true;
        for (;;) {
          bool nonZero = false, changed = false;
          for (int i = 0; i < n; i++) {
            if (threshold <= std::fabs(grad[i])) {
              dir[i] = (step * scale[i] / maxG) * grad[i];
              if (dir[i] != 0.0)
                nonZero = true;
            } else {
              if (dir[i] != 0.0)
                changed = true;
              dir[i] = 0.0;
            }
          }
          if ((first || changed) && nonZero) {
            // Walk along the direction while the value rises.
            for (int i = 0; i < n; i++)
              params[i] += dir[i];
            double v = functional->evaluate();
            if (v > shown) {
              double prev;
              do {
                prev = v;
                if (stopRequested())
                  return 0;
                for (int i = 0; i < n; i++)
                  params[i] += dir[i];
                v = functional->evaluate();
              } while (prev < v);
              shown = prev;
              improved = true;
            }
            for (int i = 0; i < n; i++)
              params[i] -= dir[i];
            dir *= stepFactor;

            // Refinement along the direction with shrinking moves.
            for (int r = fullRefinement ? 0 : stepIndex; r < numSteps; r++) {
              for (int i = 0; i < n; i++)
                params[i] += dir[i];
              const double fUp = functional->evaluate();
              for (int i = 0; i < n; i++)
                params[i] -= 2.0 * dir[i];
              const double fDown = functional->evaluate();
              if (shown < fUp) {
                for (int i = 0; i < n; i++)
                  params[i] += 2.0 * dir[i];
                shown = fUp;
                improved = true;
              } else if (shown < fDown) {
                shown = fDown;
                improved = true;
              } else {
                for (int i = 0; i < n; i++)
                  params[i] += dir[i];
              }
              dir *= stepFactor;
            }
          }
          first = false;
          if (thresholdStep <= 0.0)
            break;
          threshold += thresholdStep * maxG;
          if (maxG < threshold)
            break;
        }
      }

      // A single probe may have beaten everything the walk found.
      if (shown < best) {
        // Only the variable entries: the held ones belong to the transform
        // (an isotropic scale keeps entries 7 and 8 in step with entry 6).
        for (int i = 0; i < n; i++)
          params[i] = bestParams[i];
        shown = best;
        improved = true;
      }
      workArea->setProgressValue((percent * slice) / 100 + base);
      if (stopRequested())
        return 0;
    }
    msg->printf(" Metric result = %f", shown);
    if (callback)
      callback->applyTransform(nullptr);
    if (stepIndex == k)
      return 1;
    step = stepFactor * step;
    percent += perStep;
    stepIndex += 1;
  }
}
