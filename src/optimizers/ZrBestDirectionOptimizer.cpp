#include "ZrBestDirectionOptimizer.h"

#include "RegFunctional.h"
#include "RegParametricTransform.h"
#include "SbVec3d.h"
#include "ZrMessage.h"
#include "ZrWorkArea.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>

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

ZrBestDirectionOptimizer::ZrBestDirectionOptimizer(RegOptimizerCallback* callback,
                                                   double stepFactor, double tolerance,
                                                   int maxLineSteps, bool extensive)
    : ZrOptimizer(callback), stepFactor(stepFactor), tolerance(tolerance),
      maxLineSteps(maxLineSteps), extensive(extensive) {}

double ZrBestDirectionOptimizer::maxNorm(QbDVector<double>& v) {
  double m = 0.0;
  for (int i = 0; i < v.size(); i++)
    m = std::max(m, std::fabs(v[i]));
  return m;
}

void ZrBestDirectionOptimizer::makeComment(QbDVector<double> v, char* text) const {
  // Entries beyond the end of a short vector show as 0.
  double e[15];
  for (int i = 0; i < 15; i++)
    e[i] = i < v.size() ? v[i] : 0.0;
  std::sprintf(text, "pV: (%f ,%f ,%f ,%f ,%f ,%f ,%f ,%f ,%f ,%f ,%f ,%f ,%f ,%f ,%f )", e[0],
               e[1], e[2], e[3], e[4], e[5], e[6], e[7], e[8], e[9], e[10], e[11], e[12], e[13],
               e[14]);
}

int ZrBestDirectionOptimizer::optimize(double a, double b) {
  ZrWorkArea* workArea = ZrWorkArea::getTheWorkArea();
  ZrMessage* msg = ZrMessage::getTheMsg();

  const int n = transform->getVariableParamVectorDim();
  QbDVector<double>& params = transform->paramVector;
  QbDVector<double> g(n);

  // 8 walking steps on the coarsest level down to 2 on the finest.
  maxLineSteps =
      (int)(8.0f - ((float)(currentLevel - 1) / (float)(std::max(numLevels, 2) - 1)) * 6.0f);

  // The schedule of step sizes.
  double d = 0.1;
  int count;
  double step;
  if (!extensive) {
    // The ratio shrinks by d per step, and d grows towards the finest level.
    // With one level the quotient is undefined (NaN) and the ratio stays.
    if (numLevels >= 1)
      d = ((double)(currentLevel - 1) / (double)(numLevels - 1)) * 0.1;
    // Before any level is set (currentLevel 0) d would be negative and let
    // the ratio grow without bound; it then stays fixed.
    if (d < 0.0)
      d = 0.0;
    count = 1;
    double s = a;
    double ratio = stepFactor;
    while (b <= s) {
      const double next = s * ratio;
      count += 1;
      if (d < ratio)
        ratio -= d;
      // A ratio of 1 or more, or an end step of 0, would never end the count.
      if (!(next < s))
        break;
      s = next;
    }
    step = a;
  } else {
    const int k = truncateToInt(std::log(b / a) / std::log(stepFactor));
    count = k + 1;
    if (count == 1)
      stepFactor = 0.5;
    else
      stepFactor = std::pow(b / a, 1.0 / k);
    step = b * std::pow(stepFactor, 1 - count);
  }

  float slice = 1.0f, base = 0.0f;
  if (progressSteps >= 2) {
    slice = 1.0f / progressSteps;
    base = std::max(0.0f, (progressStep - 1) * slice);
  }

  if (count >= 1) {
    SbVec3d size(functional->size.x, functional->size.y, functional->size.z);
    double f = stepFactor;
    for (int stepIndex = 0;;) {
      if (!extensive) {
        if (step < 3.0 * b) {
          // Close to the end: jump to the end step, and make this the last
          // pass.
          step = b;
          stepIndex = count;
          if (d < f)
            f -= d;
        } else if (stepIndex >= 1 && d < f) {
          f -= d;
        }
      }
      workArea->setProgressValue(slice * ((float)stepIndex / (float)std::max(count, 1)) + base);
      if (workArea->wasInterrupted(1))
        return 0;
      msg->printf("Setting step size to %4g\n", step);

      // lineSteps counts over all gradients of this step size.
      int lineSteps = 0;
      double f0;
      for (;;) {
        f0 = functional->evaluate(g, step, 0);
        if (f0 == INVALID_VALUE)
          return 0;
        const double m = maxNorm(g);
        if (workArea->wasInterrupted(1))
          return 0;
        if (m <= 0.0)
          break;
        for (int i = 0; i < n; i++)
          g[i] = transform->getParamStep(i, &size) * (step / m) * g[i];

        for (int i = 0; i < n; i++)
          params[i] += g[i];
        double f1 = functional->evaluate();
        bool moved = false;
        if (!(f1 <= f0 || lineSteps > maxLineSteps ||
              2.0 * std::fabs(f1 - f0) <= (std::fabs(f1) + std::fabs(f0) + 0.001) * tolerance)) {
          moved = true;
          double prev;
          do {
            prev = f1;
            for (int i = 0; i < n; i++)
              params[i] += g[i];
            f1 = functional->evaluate();
            lineSteps += 1;
          } while (prev < f1 && lineSteps <= maxLineSteps &&
                   (std::fabs(f1) + std::fabs(prev) + 0.001) * tolerance <
                       2.0 * std::fabs(f1 - prev));
          f0 = prev;
        }
        // Back to the best point of the walk, and a shorter move.
        for (int i = 0; i < n; i++)
          params[i] -= g[i];
        g *= 0.6667;

        // Refinement: try both sides; on success stay there with the same
        // move, otherwise shrink it.
        for (int r = 0; r < count; r++) {
          if (workArea->wasInterrupted(1))
            return 0;
          for (int i = 0; i < n; i++)
            params[i] += g[i];
          const double fUp = functional->evaluate();
          for (int i = 0; i < n; i++)
            params[i] -= 2.0 * g[i];
          const double fDown = functional->evaluate();
          if (f0 < fUp || f0 < fDown) {
            f0 = fDown;
            if (fDown < fUp) {
              f0 = fUp;
              for (int i = 0; i < n; i++)
                params[i] += 2.0 * g[i];
            }
          } else {
            for (int i = 0; i < n; i++)
              params[i] += g[i];
            g *= 0.6667;
          }
        }
        if (!moved)
          break;
      }
      msg->printf(" Metric result = %f\n", f0);

      stepIndex += 1;
      if (count <= stepIndex)
        break;
      // The non-extensive schedule shrinks with the ratio as it now stands.
      step *= f;
    }
  }
  tolerance *= 10.0;
  return 1;
}
