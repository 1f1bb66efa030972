#include "ZrLimitedMemoryOptimizer.h"

#include "RegFunctional.h"
#include "RegOptimizerCallback.h"
#include "RegParametricTransform.h"
#include "RegSplineTransform.h"
#include "ZrMessage.h"
#include "ZrWorkArea.h"

#include <algorithm>
#include <chrono>
#include <cmath>

namespace {

// The value a functional gives for a transform it rejects (a fold) or when
// the run was stopped during a gradient.
const double INVALID_VALUE = -3.4028234663852886e+38;

// Sufficient decrease and flattening of the slope of a trial.
const double ARMIJO = 1e-4;
const double WOLFE = 0.9;

} // namespace

ZrLimitedMemoryOptimizer::ZrLimitedMemoryOptimizer(RegOptimizerCallback* callback, double tolerance)
    : ZrOptimizer(callback), tolerance(tolerance) {}

ZrLimitedMemoryOptimizer::~ZrLimitedMemoryOptimizer() {}

bool ZrLimitedMemoryOptimizer::stopRequested() const {
  if (callback && callback->checkForInterrupt())
    return true;
  return ZrWorkArea::getTheWorkArea()->wasInterrupted(1) != 0;
}

void ZrLimitedMemoryOptimizer::direction(const QbDVector<double>& g, QbDVector<double>& d) const {
  const int k = moves.size();
  d = g;
  QbDArray<double> a(k);
  for (int i = k - 1; i >= 0; i--) {
    a[i] = curvatures[i] * moves[i].dot(d);
    d.addScaled(changes[i], -a[i]);
  }
  if (k > 0) {
    const QbDVector<double>& y = changes[k - 1];
    d *= moves[k - 1].dot(y) / y.dot(y);
  }
  for (int i = 0; i < k; i++) {
    const double b = curvatures[i] * changes[i].dot(d);
    d.addScaled(moves[i], a[i] - b);
  }
  d *= -1.0;
}

int ZrLimitedMemoryOptimizer::optimize(double startStep, double endStep) {
  ZrWorkArea* workArea = ZrWorkArea::getTheWorkArea();
  ZrMessage* msg = ZrMessage::getTheMsg();
  evaluations = 0;
  iterations = 0;
  moves.clear();
  changes.clear();
  curvatures.clear();
  if (!functional || !transform)
    return 0;
  const int n = transform->getVariableParamVectorDim();
  QbDVector<double>& params = transform->paramVector;

  double first = firstMove;
  if (!(first > 0)) {
    first = 1.0;
    if (const RegSplineTransform* s = dynamic_cast<const RegSplineTransform*>(transform)) {
      first = 0.0;
      for (int a = 0; a < s->dimension; a++)
        if (s->gridSpacing[a] > 0 && (first == 0.0 || s->gridSpacing[a] < first))
          first = s->gridSpacing[a];
      first = first > 0 ? 0.1 * first : 1.0;
    }
  }

  // The negated functional and its gradient: the functional's entries are
  // twice the derivative.
  QbDVector<double> raw(n);
  auto evaluateAt = [&](QbDVector<double>& g) {
    const double v = functional->evaluate(raw, endStep, 1);
    evaluations++;
    if (v == INVALID_VALUE || !std::isfinite(v))
      return HUGE_VAL;
    for (int i = 0; i < n; i++)
      g[i] = -0.5 * raw[i];
    return -v;
  };

  float slice = 1.0f, base = 0.0f;
  if (progressSteps >= 2) {
    slice = 1.0f / progressSteps;
    base = std::max(0.0f, (progressStep - 1) * slice);
  }

  // The transform is shown after an iteration when both a second and ten
  // times as long as the last showing took have passed, and at the end:
  // showing warps the model, which can take longer than an iteration, and
  // should not take more than a tenth of the search.
  typedef std::chrono::steady_clock Clock;
  Clock::time_point shown = Clock::now();
  Clock::duration showing = Clock::duration::zero();
  bool pending = false;
  auto show = [&](bool always) {
    pending = true;
    const Clock::duration since = Clock::now() - shown;
    if (!always && (since < std::chrono::seconds(1) || since < 10 * showing))
      return false;
    pending = false;
    const Clock::time_point start = Clock::now();
    const bool stop = callback && callback->applyTransform(nullptr);
    shown = Clock::now();
    showing = shown - start;
    return stop;
  };

  QbDVector<double> x(n), g(n), gt(n), d(n), kept(n);
  for (int i = 0; i < n; i++)
    x[i] = params[i];
  double f = evaluateAt(g);
  if (!std::isfinite(f))
    return 0;
  msg->printf("Metric result: %g", -f);

  for (iterations = 1; iterations <= maxIterations; iterations++) {
    direction(g, d);
    double gd = g.dot(d);
    if (!(gd < 0.0)) {
      // The pairs lost the way downhill: start afresh from the gradient.
      moves.clear();
      changes.clear();
      curvatures.clear();
      for (int i = 0; i < n; i++)
        d[i] = -g[i];
      gd = g.dot(d);
      if (!(gd < 0.0))
        break;
    }
    const bool fresh = moves.size() == 0;
    double alpha = fresh ? first / d.maxAbs() : 1.0;
    // No parameter moves farther than maxMove in one iteration: far from
    // the optimum the pairs' curvature can promise long moves that a
    // rugged objective does not keep.
    const double longest = maxMove > 0 ? maxMove : HUGE_VAL;
    if (alpha * d.maxAbs() > longest)
      alpha = longest / d.maxAbs();

    // Trials along d. A fresh direction has no scale yet: while a trial is
    // good and the slope still steep, the next one goes three times as far.
    bool accepted = false, haveKept = false;
    double ft = HUGE_VAL, keptAlpha = 0.0, keptF = HUGE_VAL;
    for (int trial = 0; trial < 20 && !accepted; trial++) {
      for (int i = 0; i < n; i++)
        params[i] = x[i] + alpha * d[i];
      ft = evaluateAt(gt);
      if (stopRequested()) {
        for (int i = 0; i < n; i++)
          params[i] = ft < f ? x[i] + alpha * d[i] : x[i];
        return 1;
      }
      if (ft <= f + ARMIJO * alpha * gd) {
        if (fresh && gt.dot(d) < WOLFE * gd && trial < 6 && 3.0 * alpha * d.maxAbs() <= longest) {
          haveKept = true;
          keptAlpha = alpha;
          keptF = ft;
          kept = gt;
          alpha *= 3.0;
          continue;
        }
        accepted = true;
        break;
      }
      if (haveKept) {
        alpha = keptAlpha;
        ft = keptF;
        gt = kept;
        accepted = true;
        break;
      }
      // Too far: the minimum of the parabola through f, its slope and ft,
      // kept within a tenth and a half of the trial.
      double next = 0.25 * alpha;
      if (std::isfinite(ft)) {
        const double curve = ft - f - gd * alpha;
        if (curve > 0.0)
          next = -gd * alpha * alpha / (2.0 * curve);
      }
      alpha = std::max(0.1 * alpha, std::min(0.5 * alpha, next));
    }
    if (!accepted) {
      for (int i = 0; i < n; i++)
        params[i] = x[i];
      break;
    }

    // The pair of this move, when the curvature along it is positive.
    QbDVector<double> s(n), y(n);
    for (int i = 0; i < n; i++) {
      s[i] = alpha * d[i];
      y[i] = gt[i] - g[i];
    }
    const double sy = s.dot(y);
    if (sy > 1e-12 * std::sqrt(s.dot(s) * y.dot(y))) {
      if (moves.size() >= memory) {
        for (int k = 1; k < moves.size(); k++) {
          moves[k - 1] = moves[k];
          changes[k - 1] = changes[k];
          curvatures[k - 1] = curvatures[k];
        }
        moves.resize(moves.size() - 1);
        changes.resize(changes.size() - 1);
        curvatures.resize(curvatures.size() - 1);
      }
      moves.append(s);
      changes.append(y);
      curvatures.append(1.0 / sy);
    }
    for (int i = 0; i < n; i++) {
      x[i] += s[i];
      params[i] = x[i];
    }
    const double f0 = f;
    f = ft;
    g = gt;
    msg->printf("step size    : %g", s.maxAbs());
    msg->printf("Metric result: %g", -f);
    workArea->setProgressValue(base + slice * (float)iterations / (float)maxIterations);
    if (show(false) || stopRequested() ||
        2.0 * std::fabs(f - f0) <= (std::fabs(f) + std::fabs(f0) + 0.001) * tolerance)
      break;
  }
  if (pending)
    show(true);
  return 1;
}
