#include "ZrGradientOptimizer.h"

#include "RegAffineTransform.h"
#include "RegFunctional.h"
#include "RegOptimizerCallback.h"
#include "RegParametricTransform.h"
#include "SbVec3d.h"
#include "ZrMessage.h"
#include "ZrWorkArea.h"

#include <algorithm>
#include <cmath>

namespace {

const double GOLD = 1.618034;
const double GLIMIT = 100.0;
const double TINY = 1e-20;
const double CGOLD = 0.381966;
const double ZEPS = 1e-10;
const int BRENT_ITMAX = 100;

// |a| with the sign of b.
inline double withSign(double a, double b) { return b >= 0.0 ? std::fabs(a) : -std::fabs(a); }

// The bar as a fraction of the present stage: `slice` is the width of one
// stage and `base` where the present one begins.
void progressSlice(int progressStep, int progressSteps, float& slice, float& base) {
  slice = 1.0f;
  base = 0.0f;
  if (progressSteps >= 2) {
    slice = 1.0f / progressSteps;
    base = std::max(0.0f, (progressStep - 1) * slice);
  }
}

// Closeness to convergence on a logarithmic scale, 0 far away, 1 converged:
// one unit per decade of the relative change above the tolerance.
float convergenceFraction(double fret, double f0, double tol) {
  float x = (float)((std::log((std::fabs(fret) + std::fabs(f0) + 0.001) * tol) -
                     std::log(2.0 * std::fabs(fret - f0))) /
                        10.0 +
                    1.0);
  if (x < 0.0f)
    x = 0.0f;
  if (x > 1.0f)
    x = 1.0f;
  return x;
}

// The relative convergence test of all three methods.
inline bool converged(double fret, double f0, double tol) {
  return 2.0 * std::fabs(fret - f0) <= (std::fabs(fret) + std::fabs(f0) + 0.001) * tol;
}

// h0 x + sum_k w_k (v_k . x) v_k: the inverse Hessian applied to x.
void applyInverseHessian(double h0, const QbDArray<QbDVector<double>>& vectors,
                         const QbDArray<double>& weights, const QbDVector<double>& x,
                         QbDVector<double>& out) {
  const int n = x.size();
  for (int i = 0; i < n; i++)
    out[i] = h0 * x[i];
  for (int k = 0; k < vectors.size(); k++) {
    const QbDVector<double>& v = vectors[k];
    out.addScaled(v, weights[k] * v.dot(x));
  }
}

} // namespace

ZrGradientOptimizer::ZrGradientOptimizer(RegOptimizerCallback* callback, double tolerance,
                                         double stepFactor)
    : ZrOptimizer(callback), tolerance(tolerance), stepFactor(stepFactor) {}

ZrGradientOptimizer::~ZrGradientOptimizer() { lineSamples.clearAndFree(); }

bool ZrGradientOptimizer::stopRequested() const {
  if (callback && callback->checkForInterrupt())
    return true;
  return ZrWorkArea::getTheWorkArea()->wasInterrupted(1) != 0;
}

double ZrGradientOptimizer::scaleBound(bool affine, int n, const QbDVector<double>& p,
                                       const QbDVector<double>& direction) const {
  if (affine && n == 7 && direction[6] != 0.0)
    return std::fabs(p[6] * 0.5 / direction[6]);
  return 0.0;
}

int ZrGradientOptimizer::optimize(double a, double b) {
  double value = 0.0;
  int iterations = 0;
  switch (method) {
  case 0:
    steepestDescent(a, b);
    break;
  case 1:
    conjugateGradients(a, b, tolerance, &value, &iterations);
    break;
  case 2:
    quasiNewton(a, b, tolerance, &value, &iterations);
    break;
  default:
    break;
  }
  return 1;
}

// ---------------------------------------------------------------------------
// Line machinery

double ZrGradientOptimizer::f1dim(int n, const QbDVector<double>& p, const QbDVector<double>& d,
                                  double t) {
  QbDVector<double>& params = transform->paramVector;
  for (int i = 0; i < n; i++)
    params[i] = t * d[i] + p[i];
  // Brent's method and the bracketing revisit their points; the newest
  // samples are the likeliest matches.
  for (int j = lineSamples.size() - 1; j >= 0; j--)
    if (std::fabs(t - lineSamples[j].t) < 1e-06)
      return -lineSamples[j].value;
  ZrWorkArea::getTheWorkArea()->setProgressInfo("line minimization, step %d",
                                                lineSamples.size() + 1);
  LineSample sample;
  sample.t = t;
  sample.value = functional->evaluate();
  lineSamples.append(sample);
  return -sample.value;
}

void ZrGradientOptimizer::mnbrak(int n, const QbDVector<double>& p, const QbDVector<double>& d,
                                 double* ax, double* bx, double* cx, double* fa, double* fb,
                                 double* fc) {
  *fa = f1dim(n, p, d, *ax);
  if (stopRequested())
    return;
  *fb = f1dim(n, p, d, *bx);
  if (stopRequested())
    return;
  // Walk downhill from a to b.
  if (*fa < *fb) {
    std::swap(*ax, *bx);
    std::swap(*fa, *fb);
  }
  *cx = *bx + GOLD * (*bx - *ax);
  *fc = f1dim(n, p, d, *cx);
  if (stopRequested())
    return;
  while (*fb > *fc) {
    // Parabolic extrapolation through a, b, c; TINY keeps the denominator off
    // zero, and a zero difference counts as negative.
    const double r = (*bx - *ax) * (*fb - *fc);
    const double q = (*bx - *cx) * (*fb - *fa);
    const double diff = q - r;
    const double denom =
        diff > 0.0 ? 2.0 * std::max(std::fabs(diff), TINY) : -2.0 * std::max(std::fabs(diff), TINY);
    double u = *bx - ((*bx - *cx) * q - (*bx - *ax) * r) / denom;
    const double ulim = *bx + GLIMIT * (*cx - *bx);
    double fu;
    if ((*bx - u) * (u - *cx) > 0.0) {
      // u between b and c.
      fu = f1dim(n, p, d, u);
      if (stopRequested())
        return;
      if (fu < *fc) {
        *ax = *bx;
        *bx = u;
        *fa = *fb;
        *fb = fu;
        return;
      }
      if (fu > *fb) {
        *cx = u;
        *fc = fu;
        return;
      }
      // The parabola was no use: magnify by the golden ratio.
      u = *cx + GOLD * (*cx - *bx);
      fu = f1dim(n, p, d, u);
      if (stopRequested())
        return;
    } else if ((*cx - u) * (u - ulim) > 0.0) {
      // u between c and the farthest allowed point.
      fu = f1dim(n, p, d, u);
      if (stopRequested())
        return;
      if (fu < *fc) {
        *bx = *cx;
        *cx = u;
        u = u + GOLD * (u - *bx);
        *fb = *fc;
        *fc = fu;
        fu = f1dim(n, p, d, u);
        if (stopRequested())
          return;
      }
    } else if ((u - ulim) * (ulim - *cx) >= 0.0) {
      // The parabola overshoots: clamp to the limit.
      u = ulim;
      fu = f1dim(n, p, d, u);
      if (stopRequested())
        return;
    } else {
      u = *cx + GOLD * (*cx - *bx);
      fu = f1dim(n, p, d, u);
      if (stopRequested())
        return;
    }
    *ax = *bx;
    *bx = *cx;
    *cx = u;
    *fa = *fb;
    *fb = *fc;
    *fc = fu;
  }
}

double ZrGradientOptimizer::brent(int n, const QbDVector<double>& p, const QbDVector<double>& d,
                                  double ax, double bx, double cx, double tol, double* xmin) {
  double a = std::min(ax, cx);
  double b = std::max(ax, cx);
  double x = bx, w = bx, v = bx;
  double e = 0.0, dd = 0.0;
  double fx = f1dim(n, p, d, x);
  if (stopRequested())
    return fx;
  double fw = fx, fv = fx;

  for (int iter = 1; iter <= BRENT_ITMAX; iter++) {
    const double xm = 0.5 * (a + b);
    const double tol1 = tol * std::fabs(x) + ZEPS;
    const double tol2 = 2.0 * tol1;
    if (std::fabs(x - xm) <= tol2 - 0.5 * (b - a)) {
      *xmin = x;
      return fx;
    }
    if (std::fabs(e) > tol1) {
      // Trial parabolic fit through x, v, w.
      const double r = (x - w) * (fx - fv);
      double q = (x - v) * (fx - fw);
      double pp = (x - v) * q - (x - w) * r;
      q = 2.0 * (q - r);
      if (q > 0.0)
        pp = -pp;
      q = std::fabs(q);
      const double etemp = e;
      e = dd;
      if (std::fabs(pp) >= std::fabs(0.5 * q * etemp) || pp <= q * (a - x) || pp >= q * (b - x)) {
        // Not acceptable: golden section into the larger segment.
        e = x >= xm ? a - x : b - x;
        dd = CGOLD * e;
      } else {
        dd = pp / q;
        const double u = x + dd;
        if (u - a < tol2 || b - u < tol2)
          dd = withSign(tol1, xm - x);
      }
    } else {
      e = x >= xm ? a - x : b - x;
      dd = CGOLD * e;
    }
    // Never nearer than tol1 to x.
    const double u = std::fabs(dd) >= tol1 ? x + dd : x + withSign(tol1, dd);
    const double fu = f1dim(n, p, d, u);
    if (stopRequested())
      return fu;
    if (fu <= fx) {
      if (u >= x)
        a = x;
      else
        b = x;
      v = w;
      w = x;
      x = u;
      fv = fw;
      fw = fx;
      fx = fu;
    } else {
      if (u < x)
        a = u;
      else
        b = u;
      if (fu <= fw || w == x) {
        v = w;
        w = u;
        fv = fw;
        fw = fu;
      } else if (fu <= fv || v == x || v == w) {
        v = u;
        fv = fu;
      }
    }
  }
  ZrMessage::getTheMsg()->printf("Too many iterations in BRENT");
  *xmin = x;
  return fx;
}

double ZrGradientOptimizer::golden(const QbDVector<double>& p, const QbDVector<double>& d,
                                   double ax, double bx, double cx, double tol, double& xmin) {
  const double R = 0.61803399;
  const double C = 0.38196600999999997;
  const int n = transform->getVariableParamVectorDim();
  double x0 = ax, x1, x2, x3 = cx;
  // The first interior point goes into the larger of the two intervals.
  if (std::fabs(cx - bx) > std::fabs(bx - ax)) {
    x1 = bx;
    x2 = bx + C * (cx - bx);
  } else {
    x2 = bx;
    x1 = bx - C * (bx - ax);
  }
  double f1 = f1dim(n, p, d, x1);
  double f2 = f1dim(n, p, d, x2);
  while (std::fabs(x3 - x0) > tol * (std::fabs(x1) + std::fabs(x2))) {
    if (f2 < f1) {
      x0 = x1;
      x1 = x2;
      x2 = R * x1 + C * x3;
      f1 = f2;
      f2 = f1dim(n, p, d, x2);
    } else {
      x3 = x2;
      x2 = x1;
      x1 = R * x2 + C * x0;
      f2 = f1;
      f1 = f1dim(n, p, d, x1);
    }
  }
  if (f1 < f2) {
    xmin = x1;
    return f1;
  }
  xmin = x2;
  return f2;
}

void ZrGradientOptimizer::linmin(QbDVector<double>& p, QbDVector<double>& d, double maxStep, int n,
                                 double* fret, double* step) {
  ZrWorkArea::getTheWorkArea()->setProgressInfo("line minimization ...");
  lineSamples.clear();
  if (maxStep > 0.0)
    *step = std::min(*step, 0.5 * maxStep);

  double ax = 0.0, xx = *step, bx = 2.0 * *step;
  double fa = 0.0, fx = 0.0, fb = 0.0;
  mnbrak(n, p, d, &ax, &xx, &bx, &fa, &fx, &fb);
  if (stopRequested()) {
    // The parameters stay at the last probe; the caller ends its method.
    *fret = fx;
    return;
  }
  *fret = brent(n, p, d, ax, xx, bx, 0.01, step);
  QbDVector<double>& params = transform->paramVector;
  for (int i = 0; i < n; i++)
    params[i] = *step * d[i] + p[i];

  if (maxStep > 0.0) {
    // A minimum beyond the bound is cut back to it, and halved while that
    // point is worse than the start.
    if (*step > maxStep) {
      const double f0 = f1dim(n, p, d, 0.0);
      xx = maxStep;
      fx = f1dim(n, p, d, xx);
      while (f0 < fx && xx > 0.001 * maxStep) {
        xx *= 0.5;
        fx = f1dim(n, p, d, xx);
      }
      *step = xx;
      *fret = fx;
    } else if (*step < -maxStep) {
      const double f0 = f1dim(n, p, d, 0.0);
      xx = -maxStep;
      fx = f1dim(n, p, d, xx);
      while (f0 < fx && xx < -0.001 * maxStep) {
        xx *= 0.5;
        fx = f1dim(n, p, d, xx);
      }
      *step = xx;
      *fret = fx;
    }
  }

  // p becomes the new point and d the move.
  for (int i = 0; i < d.size(); i++)
    d[i] *= *step;
  for (int i = 0; i < std::min(p.size(), d.size()); i++)
    p[i] += d[i];
  *step = std::fabs(*step);
}

void ZrGradientOptimizer::dlinmin(QbDVector<double>& p, QbDVector<double>& d, int n, double* fret,
                                  double* step, double maxUp, double maxDown) {
  // Samples belong to one line; those of an earlier line would answer for
  // the wrong points.
  lineSamples.clear();
  double ax = 0.0, xx = *step, bx = 2.0 * *step;
  double fa = 0.0, fx = 0.0, fb = 0.0;
  mnbrak(n, p, d, &ax, &xx, &bx, &fa, &fx, &fb);
  if (maxUp > 0.0 && *step > maxUp) {
    *step = maxUp;
    *fret = f1dim(n, p, d, *step);
  }
  if (maxDown < 0.0 && *step < maxDown) {
    *step = maxDown;
    *fret = f1dim(n, p, d, *step);
  }
  for (int i = 0; i < d.size(); i++)
    d[i] *= *step;
  // The update is shifted by one entry. Beyond the end of d nothing is added.
  for (int i = 0; i < n; i++)
    p[i] += i + 1 < d.size() ? d[i + 1] : 0.0;
  *step = std::fabs(*step);
}

// ---------------------------------------------------------------------------
// Directions and methods

int ZrGradientOptimizer::getDirection(double step, QbDVector<double>& g, double& value) {
  const int n = transform->getVariableParamVectorDim();
  QbDVector<double> raw(n);
  g = QbDVector<double>(n);
  value = functional->evaluate(raw, step, 1);
  const double m = raw.maxAbs();
  if (m <= 0.0)
    return 0;
  SbVec3d size(functional->size.x, functional->size.y, functional->size.z);
  for (int i = 0; i < n; i++)
    raw[i] = transform->getParamStep(i, &size) * (1.0 / m) * raw[i];
  g = raw;
  return 1;
}

void ZrGradientOptimizer::quasiNewton(double a, double b, double tol, double* fret,
                                      int* iterations) {
  ZrWorkArea* workArea = ZrWorkArea::getTheWorkArea();
  ZrMessage* msg = ZrMessage::getTheMsg();

  const double gs = std::min(a, b);
  const int n = transform->getVariableParamVectorDim();
  const bool affine = dynamic_cast<RegAffineTransform*>(transform) != nullptr;

  double stepHistory[3] = {a, a, a};
  const int maxIter = 2 * n;
  // Without variable parameters there is nothing to search; one round finds
  // the zero gradient and ends.
  const int rounds = n > 0 ? std::max(1, 100 / (2 * n)) : 1;

  float slice, base;
  progressSlice(progressStep, progressSteps, slice, base);
  workArea->setProgressValue(base);

  QbDVector<double> direction(n), grad(n), gradDiff(n), hessGradDiff(n), u(n);
  QbDVector<double> p;
  QbDArray<QbDVector<double>> updateVectors;
  QbDArray<double> updateWeights;
  double h0 = 1.0;

  for (int round = 0; round < rounds; round++) {
    double t0 = stepHistory[2];
    grad.fill(0.0);
    double f0 = 0.0;
    if (!getDirection(gs, grad, f0))
      return;
    grad *= -1.0;
    f0 = -f0;
    *fret = f0;
    if (round == 0)
      msg->printf("Metric result: %g", -f0);

    updateVectors.clear();
    updateWeights.clear();
    h0 = 1.0;

    for (int i = 0; i < n; i++)
      direction[i] = -grad[i];
    if (direction.dot(grad) > 0.0)
      direction *= -1.0;

    for (int iter = 1; iter <= maxIter; iter++) {
      *iterations = iter;
      double step = t0;
      p = transform->paramVector;
      const double maxStep = scaleBound(affine, n, p, direction);
      linmin(p, direction, maxStep, n, fret, &step);
      if (stopRequested())
        return;

      msg->printf("step size    : %g", step);
      msg->printf("Metric result: %g", -*fret);
      workArea->setProgressValue(slice * convergenceFraction(*fret, f0, tol) + base);

      const bool stop = callback && callback->applyTransform(nullptr);
      if (stop || converged(*fret, f0, tol))
        return;

      gradDiff = grad;
      f0 = *fret;
      if (!getDirection(gs, grad, *fret))
        return;
      grad *= -1.0;
      *fret = -*fret;

      // The next trial step is the mean of up to the last three moves.
      stepHistory[0] = stepHistory[1];
      stepHistory[1] = stepHistory[2];
      stepHistory[2] = step;
      const int m = std::max(0, 3 - iter);
      double sum = 0.0;
      for (int k = m; k < 3; k++)
        sum += stepHistory[k];
      t0 = sum / (3 - m);

      if (stopRequested())
        return;

      // BFGS update of H = h0 I + sum w v v^T with s = direction (the move)
      // and y = gradDiff:
      //   H + s s^T / (y^T s) - (H y)(H y)^T / (y^T H y) + (y^T H y) u u^T,
      //   u = s / (y^T s) - H y / (y^T H y).
      for (int i = 0; i < n; i++)
        gradDiff[i] = grad[i] - gradDiff[i];
      applyInverseHessian(h0, updateVectors, updateWeights, gradDiff, hessGradDiff);
      const double ys = gradDiff.dot(direction);
      const double yhy = gradDiff.dot(hessGradDiff);
      const double c1 = ys != 0.0 ? 1.0 / ys : 0.0;
      const double c2 = yhy != 0.0 ? 1.0 / yhy : 1.0;
      for (int i = 0; i < n; i++)
        u[i] = c1 * direction[i] - c2 * hessGradDiff[i];
      updateVectors.append(direction);
      updateWeights.append(c1);
      updateVectors.append(hessGradDiff);
      updateWeights.append(-c2);
      updateVectors.append(u);
      updateWeights.append(yhy);

      applyInverseHessian(h0, updateVectors, updateWeights, grad, direction);
      direction *= -1.0;
      const double largest = direction.maxAbs();
      if (largest > 0.0)
        direction *= 1.0 / largest;
      // An update that lost descent falls back to the gradient; the list
      // stays as it is.
      if (direction.dot(grad) >= 0.0)
        for (int i = 0; i < n; i++)
          direction[i] = -grad[i];
    }
    if (round == rounds - 1 && *iterations == maxIter)
      msg->printf("Warning: Too many iterations in quasi-Newton optimization.");
  }
}

void ZrGradientOptimizer::steepestDescent(double a, double b) {
  ZrWorkArea* workArea = ZrWorkArea::getTheWorkArea();
  ZrMessage* msg = ZrMessage::getTheMsg();

  const double gs = std::min(a, b);
  const int n = transform->getVariableParamVectorDim();
  const bool affine = dynamic_cast<RegAffineTransform*>(transform) != nullptr;
  double history[3] = {a, a, a};

  QbDVector<double> d(n), p;
  for (int search = 0; search < 100; search++) {
    double value = 0.0;
    if (!getDirection(gs, d, value))
      return;
    if (workArea->wasInterrupted(1))
      return;
    p = transform->paramVector;
    // The factor is this constant, not an exact third.
    double step = (history[0] + history[1] + history[2]) * 0.33333;
    const double maxStep = scaleBound(affine, n, p, d);
    linmin(p, d, maxStep, n, &value, &step);
    if (workArea->wasInterrupted(1))
      return;
    msg->printf("step size    : %g", step);
    msg->printf("Metric result: %g", -value);
    // Stop once the moves are small against the final step.
    if (!(0.2 * b <= step))
      return;
    history[0] = history[1];
    history[1] = history[2];
    history[2] = step;
  }
}

void ZrGradientOptimizer::conjugateGradients(double a, double b, double tol, double* fret,
                                             int* iterations) {
  ZrWorkArea* workArea = ZrWorkArea::getTheWorkArea();
  ZrMessage* msg = ZrMessage::getTheMsg();

  const double gs = std::min(a, b);
  const int n = transform->getVariableParamVectorDim();
  const bool affine = dynamic_cast<RegAffineTransform*>(transform) != nullptr;
  double history[5] = {a, a, a, a, a};
  const int rounds = n > 0 ? std::max(1, 100 / n) : 1;
  const int maxIter = n;

  float slice, base;
  progressSlice(progressStep, progressSteps, slice, base);
  workArea->setProgressValue(base);

  // xi: the present search direction (in the loop, the negated gradient
  // first); g: the negated gradient of the last point; h: the conjugate
  // direction.
  QbDVector<double> xi(n), g(n), h(n), p;
  for (int round = 0; round < rounds; round++) {
    double t0 = history[4];
    double f0 = 0.0;
    if (!getDirection(gs, xi, f0))
      return;
    xi *= -1.0;
    f0 = -f0;
    *fret = f0;
    if (round == 0)
      msg->printf("Metric result: %g", -f0);
    for (int i = 0; i < n; i++) {
      g[i] = -xi[i];
      h[i] = g[i];
      xi[i] = h[i];
    }

    for (int iter = 1; iter <= maxIter; iter++) {
      *iterations = iter;
      p = transform->paramVector;
      double step = t0;
      const double maxStep = scaleBound(affine, n, p, xi);
      linmin(p, xi, maxStep, n, fret, &step);
      if (stopRequested())
        return;
      msg->printf("step size    : %g", step);
      msg->printf("Metric result: %g", -*fret);
      workArea->setProgressValue(slice * convergenceFraction(*fret, f0, tol) + base);

      const bool stop = callback && callback->applyTransform(nullptr);
      if (converged(*fret, f0, tol) || stop || workArea->wasInterrupted(1))
        return;

      if (!getDirection(gs, xi, f0))
        return;
      xi *= -1.0;
      f0 = -f0;

      // The next trial step is the mean of the last moves, up to five.
      for (int k = 0; k < 4; k++)
        history[k] = history[k + 1];
      history[4] = step;
      const int m = std::max(0, 5 - iter);
      double sum = 0.0;
      for (int k = m; k < 5; k++)
        sum += history[k];
      t0 = sum / (5 - m);

      // Polak-Ribiere: gam = (grad_new - grad_old) . grad_new / |grad_old|^2.
      double gg = 0.0, dgg = 0.0;
      for (int i = 0; i < n; i++) {
        gg += g[i] * g[i];
        dgg += xi[i] * (xi[i] + g[i]);
      }
      if (gg == 0.0)
        break;
      const double gam = dgg / gg;
      for (int i = 0; i < n; i++) {
        g[i] = -xi[i];
        h[i] = g[i] + gam * h[i];
        xi[i] = h[i];
      }
      const double largest = xi.maxAbs();
      if (largest > 0.0)
        xi *= 1.0 / largest;
    }
    if (round == rounds - 1 && *iterations == maxIter)
      msg->printf("Warning: Too many iterations in optimization (CG Polak-Ribiere)");
  }
}
