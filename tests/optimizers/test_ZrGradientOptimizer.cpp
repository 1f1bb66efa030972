// The gradient optimizer: its line machinery (samples along a line, the
// bracket, Brent's and the golden-section search, the bounded line search)
// and its three methods on analytic objectives with known maxima.
#include "OptimizerTestSupport.h"
#include "RegAffineTransform.h"
#include "ZrGradientOptimizer.h"

#include <cmath>
#include <vector>

using namespace zrtest;

namespace {

class GradientOptimizerTest : public OptimizerTest {};

const char* methodName(int method) {
  return method == 0 ? "steepest descent" : method == 1 ? "conjugate gradients" : "quasi-Newton";
}

// One parameter line: f(p) = -F(p[0]) with F given.
Objective alongFirst(std::function<double(double)> F) {
  return [F](const QbDVector<double>& p) { return -F(p[0]); };
}

} // namespace

TEST_F(GradientOptimizerTest, EachMethodFindsTheMaximumOfAnalyticObjectives) {
  const std::vector<double> sep = {0.4, -0.8, 1.2, 0.6, -0.3, 0.9, 0.2};
  for (int method = 0; method <= 2; method++) {
    // Steepest descent stops on short moves, well before the others.
    const bool sd = method == 0;
    for (int n : {7, 60}) {
      std::vector<double> c, w;
      quadraticProblem(n, c, w);
      TestTransform t(n);
      AnalyticFunctional f(&t, coupledQuadratic(c, w));
      ZrGradientOptimizer opt(nullptr, 1e-10, 0.5);
      opt.method = method;
      opt.setFunctional(&f);
      opt.optimize(0.5, 0.01);
      EXPECT_LT(maxDeviation(t.paramVector, c), sd ? 1e-2 : 3e-5) << methodName(method) << n;
    }
    // Along a narrow valley.
    TestTransform v(2);
    v.paramVector[0] = -1.5;
    v.paramVector[1] = -0.7;
    AnalyticFunctional fv(&v, narrowValley(100.0));
    ZrGradientOptimizer ov(nullptr, 1e-12, 0.5);
    ov.method = method;
    ov.setFunctional(&fv);
    ov.optimize(1.0, 0.001);
    EXPECT_LT(maxDeviation(v.paramVector, {1.0, 1.0}), sd ? 5e-3 : 1e-4) << methodName(method);
    // A frozen parameter never moves; separable, so that the others'
    // optimum does not depend on it.
    TestTransform t(7);
    t.steps[3] = 0.0;
    AnalyticFunctional f(&t, separable(sep));
    ZrGradientOptimizer opt(nullptr, 1e-10, 0.5);
    opt.method = method;
    opt.setFunctional(&f);
    opt.optimize(0.5, 0.01);
    for (int i = 0; i < 7; i++)
      EXPECT_NEAR(t.paramVector[i], i == 3 ? 0.0 : sep[i],
                  i == 3 ? 0.0
                  : sd   ? 2e-2
                         : 1e-4)
          << methodName(method) << ", parameter " << i;
  }
}

TEST_F(GradientOptimizerTest, LineSamplesMoveTheParametersWithoutEvaluating) {
  TestTransform t(2);
  AnalyticFunctional f(&t, [](const QbDVector<double>& p) { return p[0] + 10.0 * p[1]; });
  ZrGradientOptimizer opt(nullptr, 1e-4, 0.5);
  opt.setFunctional(&f);
  QbDVector<double> p(2), d(2);
  p[0] = 1.0;
  p[1] = 2.0;
  d[0] = 1.0;
  d[1] = -1.0;

  // The value is negated; the sample keeps the functional's own value.
  EXPECT_DOUBLE_EQ(opt.f1dim(2, p, d, 0.5), -(1.5 + 15.0));
  EXPECT_EQ(f.numEvaluate, 1);
  ASSERT_EQ(opt.lineSamples.size(), 1);
  EXPECT_DOUBLE_EQ(opt.lineSamples[0].value, 16.5);

  // Within 1e-06 of a sample: no evaluation, the sample's value, but the
  // parameters move to the asked point.
  const double near = 0.5 + 9e-7;
  EXPECT_DOUBLE_EQ(opt.f1dim(2, p, d, near), -16.5);
  EXPECT_EQ(f.numEvaluate, 1);
  EXPECT_DOUBLE_EQ(t.paramVector[0], 1.0 + near);
  EXPECT_DOUBLE_EQ(t.paramVector[1], 2.0 - near);

  // Farther away: a new sample.
  opt.f1dim(2, p, d, 0.5 + 2e-6);
  EXPECT_EQ(f.numEvaluate, 2);
  EXPECT_EQ(opt.lineSamples.size(), 2);
  EXPECT_EQ(wa->getProgressInfo(), "line minimization, step 2");
}

TEST_F(GradientOptimizerTest, BracketBrentAndGoldenFindAParabolasMinimum) {
  TestTransform t(1);
  // Along d = 1 from p = 0: F(x) = (x - 1.3)^2 + 0.25 (x - 1.3)^4.
  auto F = [](double x) { return (x - 1.3) * (x - 1.3) + 0.25 * std::pow(x - 1.3, 4); };
  AnalyticFunctional f(&t, alongFirst(F));
  ZrGradientOptimizer opt(nullptr, 1e-4, 0.5);
  opt.setFunctional(&f);
  QbDVector<double> p(1), d(1, 1.0);

  double ax = 0.0, bx = 0.1, cx = 0.0, fa, fb, fc;
  opt.mnbrak(1, p, d, &ax, &bx, &cx, &fa, &fb, &fc);
  EXPECT_GT((bx - ax) * (cx - bx), 0.0); // b between a and c
  EXPECT_LT(fb, fa);
  EXPECT_LE(fb, fc);
  EXPECT_DOUBLE_EQ(fb, F(bx)); // f1dim negates the functional, -F

  double xmin = 0.0;
  const double fmin = opt.brent(1, p, d, ax, bx, cx, 1e-6, &xmin);
  EXPECT_NEAR(xmin, 1.3, 1e-5);
  EXPECT_NEAR(fmin, 0.0, 1e-10);

  // Brent's lands back on the point within its tolerance of the minimum;
  // golden section on a fresh line gets there too.
  opt.lineSamples.clear();
  double gmin = 0.0;
  const double fg = opt.golden(p, d, ax, bx, cx, 1e-7, gmin);
  EXPECT_NEAR(gmin, 1.3, 1e-4);
  EXPECT_NEAR(fg, 0.0, 1e-8);
}

TEST_F(GradientOptimizerTest, LineSearchBoundsItsStep) {
  // F(x) = (x - 3)^2 - 9 along d = 1 from 0: the line minimum lies beyond a
  // bound of 0.5.
  auto F = [](double x) { return (x - 3.0) * (x - 3.0) - 9.0; };
  struct Line {
    double p, d, fret, step, secondSample;
  };
  auto line = [](std::function<double(double)> G, double bound, double step) {
    TestTransform t(1);
    AnalyticFunctional f(&t, alongFirst(G));
    ZrGradientOptimizer opt(nullptr, 1e-4, 0.5);
    opt.setFunctional(&f);
    QbDVector<double> p(1), d(1, 1.0);
    Line r{0, 0, 0, step, 0};
    opt.linmin(p, d, bound, 1, &r.fret, &r.step);
    EXPECT_EQ(t.paramVector[0], p[0]);
    r.p = p[0], r.d = d[0];
    r.secondSample = opt.lineSamples.size() >= 2 ? opt.lineSamples[1].t : -1;
    return r;
  };
  // The trial step is cut to half the bound and the move stops at the bound;
  // p is the new point and d the move.
  Line r = line(F, 0.5, 10.0);
  EXPECT_DOUBLE_EQ(r.secondSample, 0.25);
  EXPECT_DOUBLE_EQ(r.step, 0.5);
  EXPECT_DOUBLE_EQ(r.p, 0.5);
  EXPECT_DOUBLE_EQ(r.d, 0.5);
  EXPECT_DOUBLE_EQ(r.fret, F(0.5));
  // Mirrored: the move stops at -0.5, and the step comes back as a length.
  r = line([F](double x) { return F(-x); }, 0.5, 0.1);
  EXPECT_DOUBLE_EQ(r.step, 0.5);
  EXPECT_DOUBLE_EQ(r.p, -0.5);
  EXPECT_DOUBLE_EQ(r.d, -0.5);
  // A bound of 0 turns both limits off.
  r = line(F, 0.0, 10.0);
  EXPECT_NEAR(r.p, 3.0, 0.05);
  EXPECT_NEAR(r.fret, -9.0, 1e-2);
  // A narrow bump at the bound makes that point worse than the start: the
  // step is halved until it is not.
  auto bumpy = [F](double x) { return F(x) + 5.0 * std::exp(-std::pow((x - 0.5) / 0.05, 2)); };
  r = line(bumpy, 0.5, 10.0);
  EXPECT_DOUBLE_EQ(r.step, 0.25);
  EXPECT_DOUBLE_EQ(r.p, 0.25);
  EXPECT_DOUBLE_EQ(r.fret, bumpy(0.25));
}

TEST_F(GradientOptimizerTest, UnusedBoundedMoveAddsTheMoveOneEntryOff) {
  TestTransform t(3);
  // Along d = (1, 2, 3) the sum s rises by 6 per unit; the line minimum of
  // (s - 3)^2 at 0.5 lies beyond the upper bound 0.25.
  AnalyticFunctional f(&t, [](const QbDVector<double>& p) {
    const double s = p[0] + p[1] + p[2] - 3.0;
    return -s * s;
  });
  ZrGradientOptimizer opt(nullptr, 1e-4, 0.5);
  opt.setFunctional(&f);
  QbDVector<double> p(3), d(3);
  double fret = 0.0, step = 0.1;
  auto search = [&](double start) {
    p.fill(0.0);
    for (int i = 0; i < 3; i++)
      d[i] = i + 1.0;
    step = start;
    opt.dlinmin(p, d, 3, &fret, &step, 0.25, 0.0);
  };
  // The step is not taken from the bracket: 0.1 stays, within the bound.
  search(0.1);
  EXPECT_DOUBLE_EQ(step, 0.1);
  search(1.0);
  EXPECT_DOUBLE_EQ(step, 0.25);
  EXPECT_DOUBLE_EQ(fret, 2.25); // (1.5 - 3)^2
  EXPECT_DOUBLE_EQ(d[0], 0.25);
  EXPECT_DOUBLE_EQ(p[0], 0.5);  // d[1]
  EXPECT_DOUBLE_EQ(p[1], 0.75); // d[2]
  EXPECT_DOUBLE_EQ(p[2], 0.0);  // nothing beyond the end
}

TEST_F(GradientOptimizerTest, RoundsAndIterationLimitsFollowTheParameterCount) {
  // A negative tolerance never converges, so every round runs to its limit:
  // one gradient per round start and one per iteration.
  struct Case {
    int method, n, rounds, maxIter;
    const char* warning;
  } cases[] = {
      {2, 7, 7, 14, "Warning: Too many iterations in quasi-Newton optimization."},
      {2, 60, 1, 120, "Warning: Too many iterations in quasi-Newton optimization."},
      {1, 7, 14, 7, "Warning: Too many iterations in optimization (CG Polak-Ribiere)"},
      {1, 60, 1, 60, "Warning: Too many iterations in optimization (CG Polak-Ribiere)"},
  };
  for (const Case& k : cases) {
    messages.clear();
    std::vector<double> c, w;
    quadraticProblem(k.n, c, w);
    Objective quartic = [q = coupledQuadratic(c, w), c](const QbDVector<double>& p) {
      double f = q(p);
      for (size_t i = 0; i < c.size(); i++)
        f -= 0.1 * std::pow(p[(int)i] - c[i], 4);
      return f;
    };
    TestTransform t(k.n);
    AnalyticFunctional f(&t, quartic);
    f.logCalls = false;
    TestCallback cb;
    ZrGradientOptimizer opt(&cb, -1.0, 0.5);
    opt.method = k.method;
    opt.setFunctional(&f);
    opt.optimize(0.5, 0.01);
    EXPECT_EQ(f.numGradient, k.rounds * (1 + k.maxIter)) << "method " << k.method << ", n " << k.n;
    EXPECT_EQ(cb.numApply, k.rounds * k.maxIter);
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(), k.warning);
    // The start value is reported once, in the first round only.
    EXPECT_EQ(messages.front(), format("Metric result: %g", quartic(QbDVector<double>(k.n))));
    EXPECT_EQ(lines("step size    : ").size(), (size_t)(k.rounds * k.maxIter));
  }
}

TEST_F(GradientOptimizerTest, LineMovesOnASevenParameterAffineTransformKeepTheScale) {
  // The optimum wants the scale (entry 6) at 10, ten times its start, and
  // moves the translations too. No move may change the scale by more than
  // half of its present value.
  auto objective = [](const QbDVector<double>& p) {
    const double target[7] = {2.0, -1.0, 0.5, 0.0, 0.0, 0.0, 10.0};
    double f = 0.0;
    for (int i = 0; i < 7; i++)
      f -= (p[i] - target[i]) * (p[i] - target[i]);
    return f;
  };
  RegAffineTransform t;
  t.setDegreesOfFreedomDirect(7);
  for (int i = 0; i < t.paramVector.size(); i++)
    t.paramVector[i] = 0.0;
  t.paramVector[6] = t.paramVector[7] = t.paramVector[8] = 1.0;
  AnalyticFunctional f(&t, objective);
  TestCallback cb;
  ZrGradientOptimizer opt(&cb, 1e-10, 0.5);
  opt.setFunctional(&f);
  opt.optimize(1.0, 0.01);

  // The gradients are taken at the accepted points.
  std::vector<QbDVector<double>> points = f.positionsOf('G');
  ASSERT_GE(points.size(), 3u);
  EXPECT_DOUBLE_EQ(points[1][6], 1.5); // the first move runs into the bound
  for (size_t k = 1; k < points.size(); k++) {
    EXPECT_LE(points[k][6], 1.5 * points[k - 1][6] * (1 + 1e-12)) << "move " << k;
    EXPECT_GE(points[k][6], 0.5 * points[k - 1][6] * (1 - 1e-12)) << "move " << k;
  }
  EXPECT_NEAR(t.paramVector[6], 10.0, 1e-3);
  EXPECT_NEAR(t.paramVector[0], 2.0, 1e-3);
  // Entries beyond the degrees of freedom stay.
  EXPECT_EQ(t.paramVector[7], 1.0);
}

TEST_F(GradientOptimizerTest, AnUpdateThatLosesDescentFallsBackToTheGradient) {
  // f = -((x - 1)^2 + (y - 0.5)^2) from the origin. The first gradient
  // (1, 0.5) leads straight to the optimum. The second, forged as (1, 1),
  // makes y^T s negative: the updated inverse Hessian turns -H g into
  // (-1/3, -1), an ascent direction of the negated functional, and the
  // search must fall back to the forged gradient's direction (1, 1).
  TestTransform t(2);
  AnalyticFunctional f(&t, [](const QbDVector<double>& p) {
    return -((p[0] - 1.0) * (p[0] - 1.0) + (p[1] - 0.5) * (p[1] - 0.5));
  });
  f.gradientOverride = [](int call, QbDVector<double>& g) {
    if (call > 2)
      return false;
    g[0] = 1.0;
    g[1] = call == 1 ? 0.5 : 1.0;
    return true;
  };
  TestCallback cb;
  ZrGradientOptimizer opt(&cb, 1e-10, 0.5);
  opt.setFunctional(&f);
  opt.optimize(0.5, 0.01);

  // After the second gradient the next line starts at the accepted point
  // and probes at one trial step along the new direction.
  int gradients = 0;
  size_t k = 0;
  for (; k < f.calls.size() && gradients < 2; k++)
    if (f.calls[k].kind == 'G')
      gradients++;
  ASSERT_EQ(gradients, 2);
  ASSERT_LT(k + 1, f.calls.size());
  const QbDVector<double>& start = f.calls[k - 1].params;
  EXPECT_NEAR(start[0], 1.0, 0.02);
  EXPECT_NEAR(start[1], 0.5, 0.01);
  ASSERT_EQ(f.calls[k].kind, 'E');
  ASSERT_EQ(f.calls[k + 1].kind, 'E');
  const QbDVector<double>& probe = f.calls[k + 1].params;
  const double dx = probe[0] - start[0], dy = probe[1] - start[1];
  EXPECT_GT(dx, 0.0);
  EXPECT_NEAR(dx, dy, 1e-12);
  // The trial step is the one move made so far (1 in units of (1, 0.5)),
  // not an average with the start step 0.5.
  EXPECT_NEAR(dx, start[0], 1e-12);
}

TEST_F(GradientOptimizerTest, InterruptionLeavesTheParametersAtTheLastProbe) {
  std::vector<double> c, w;
  quadraticProblem(7, c, w);
  for (int viaCallback = 0; viaCallback <= 1; viaCallback++) {
    for (int method = 0; method <= 2; method++) {
      wa->clearInterrupt();
      messages.clear();
      TestTransform t(7);
      AnalyticFunctional f(&t, coupledQuadratic(c, w));
      TestCallback cb;
      // Stop during the first bracket, at its third probe.
      f.onEvaluate = [&]() {
        if (f.numEvaluate == 3) {
          if (viaCallback)
            cb.stop = true;
          else
            wa->requestInterrupt();
        }
      };
      ZrGradientOptimizer opt(&cb, 1e-10, 0.5);
      opt.method = method;
      opt.setFunctional(&f);
      opt.optimize(0.5, 0.01);
      if (viaCallback && method == 0) {
        // Steepest descent itself polls only the work area; the bracket ends
        // at once, but the search goes on.
        EXPECT_GT(f.numEvaluate, 3);
        continue;
      }
      EXPECT_EQ(f.numEvaluate, 3) << methodName(method);
      EXPECT_EQ(f.numGradient, 1) << methodName(method);
      ASSERT_EQ(f.calls.back().kind, 'E');
      EXPECT_TRUE(t.paramVector == f.calls.back().params) << methodName(method);
      EXPECT_EQ(lines("step size").size(), 0u);
    }
  }
}

TEST_F(GradientOptimizerTest, NothingHappensAtAZeroGradientOrForAnUnknownMethod) {
  std::vector<double> c, w;
  quadraticProblem(7, c, w);
  for (int method : {0, 1, 2, 5}) {
    TestTransform t(7);
    for (int i = 0; i < 7; i++)
      t.paramVector[i] = c[i];
    AnalyticFunctional f(&t, coupledQuadratic(c, w));
    ZrGradientOptimizer opt(nullptr, 1e-4, 0.5);
    opt.method = method;
    opt.setFunctional(&f);
    opt.optimize(0.5, 0.01);
    EXPECT_EQ(f.numGradient, method == 5 ? 0 : 1) << method;
    EXPECT_EQ(f.numEvaluate, 0) << method;
    EXPECT_TRUE(messages.empty()) << method;
  }
}

TEST_F(GradientOptimizerTest, SteepestDescentStopsOnShortMovesOrAfterAHundredSearches) {
  std::vector<double> c, w;
  quadraticProblem(7, c, w);
  {
    TestTransform t(7);
    AnalyticFunctional f(&t, coupledQuadratic(c, w));
    ZrGradientOptimizer opt(nullptr, 1e-4, 0.5);
    opt.method = 0;
    opt.setFunctional(&f);
    const double b = 0.01;
    opt.optimize(0.5, b);
    std::vector<std::string> steps = lines("step size    : ");
    ASSERT_GE(steps.size(), 2u);
    EXPECT_EQ((int)steps.size(), f.numGradient);
    for (size_t k = 0; k < steps.size(); k++) {
      const double step = std::atof(steps[k].c_str() + 15);
      if (k + 1 < steps.size())
        EXPECT_GE(step, 0.2 * b * 0.9999) << "search " << k;
      else
        EXPECT_LT(step, 0.2 * b * 1.0001);
    }
  }
  {
    // Started where steepest descent zigzags worst across the narrow valley
    // (x + y - 2 = 100 (x - y)), the moves shrink by only about 2% per
    // search and stay long against the end step.
    TestTransform t(2);
    t.paramVector[0] = 1.505;
    t.paramVector[1] = 1.495;
    AnalyticFunctional f(&t, narrowValley(100.0));
    f.logCalls = false;
    ZrGradientOptimizer opt(nullptr, 1e-4, 0.5);
    opt.method = 0;
    opt.setFunctional(&f);
    opt.optimize(1.0, 1e-3);
    EXPECT_EQ(f.numGradient, 100);
  }
}
