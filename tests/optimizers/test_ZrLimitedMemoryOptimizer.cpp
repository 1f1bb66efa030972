// The limited-memory quasi-Newton search on objectives with exact gradients:
// it reaches known maxima with about one evaluation per iteration, backs off
// from trials the functional rejects, and leaves frozen parameters alone.
#include "OptimizerTestSupport.h"
#include "ZrLimitedMemoryOptimizer.h"

#include <cmath>
#include <vector>

using namespace zrtest;

namespace {

class LimitedMemoryTest : public OptimizerTest {};

// Gives the functional the exact gradient on the scale of its central
// differences (twice the derivative), by differences small enough for the
// objectives here, which are at most quartic.
void exactGradient(AnalyticFunctional& f) {
  f.gradientOverride = [&f](int, QbDVector<double>& g) {
    QbDVector<double>& p = f.transform->paramVector;
    const double h = 1e-6;
    for (int i = 0; i < p.size(); i++) {
      if (f.transform->getParamStep(i, nullptr) == 0.0)
        continue;
      const double old = p[i];
      p[i] = old + h;
      const double up = f.value();
      p[i] = old - h;
      const double down = f.value();
      p[i] = old;
      g[i] = (up - down) / h;
    }
    return true;
  };
}

} // namespace

TEST_F(LimitedMemoryTest, ReachesKnownMaximaWithAboutOneEvaluationPerIteration) {
  struct Case {
    const char* name;
    int n;
    Objective objective;
    std::vector<double> start, optimum;
  };
  std::vector<double> c, w;
  quadraticProblem(60, c, w);
  // The Rosenbrock valley, negated: maximum 0 at (1, 1).
  Objective banana = [](const QbDVector<double>& p) {
    const double a = 1.0 - p[0], b = p[1] - p[0] * p[0];
    return -(a * a + 100.0 * b * b);
  };
  const std::vector<Case> cases = {
      {"coupled quadratic", 60, coupledQuadratic(c, w), std::vector<double>(60, 0.0), c},
      {"narrow valley", 2, narrowValley(1000.0), {-1.5, -0.7}, {1.0, 1.0}},
      {"banana", 2, banana, {-1.2, 1.0}, {1.0, 1.0}}};
  for (const Case& k : cases) {
    TestTransform t(k.n);
    for (int i = 0; i < k.n; i++)
      t.paramVector[i] = k.start[i];
    AnalyticFunctional f(&t, k.objective);
    exactGradient(f);
    TestCallback cb;
    ZrLimitedMemoryOptimizer opt(&cb, 1e-14);
    opt.firstMove = 0.5;
    opt.setFunctional(&f);
    opt.optimize(1.0, 0.01);
    EXPECT_LT(maxDeviation(t.paramVector, k.optimum), 1e-5) << k.name;
    EXPECT_LT(opt.iterations, opt.maxIterations) << k.name;
    EXPECT_LE(opt.evaluations, 2 * opt.iterations + 10) << k.name;
    // The gradient form is the only one it calls.
    EXPECT_EQ(0, f.numEvaluate) << k.name;
    EXPECT_EQ(opt.evaluations, f.numGradient) << k.name;
  }
}

TEST_F(LimitedMemoryTest, BacksOffFromRejectedTrialsAndKeepsFrozenParameters) {
  // The maximum lies at (1.5, 1.5, 0.3); beyond p0 = 1.6 the functional
  // rejects the transform, as an elastic one does a fold. The third
  // parameter is frozen.
  std::vector<double> steps = {1.0, 1.0, 0.0};
  TestTransform t(3);
  t.steps = steps;
  t.paramVector[2] = 0.3;
  Objective folded = [](const QbDVector<double>& p) {
    if (p[0] > 1.6)
      return INVALID_VALUE;
    return -((p[0] - 1.5) * (p[0] - 1.5) + 2.0 * (p[1] - 1.5) * (p[1] - 1.5) + p[2] * p[2]);
  };
  AnalyticFunctional f(&t, folded);
  exactGradient(f);
  TestCallback cb;
  ZrLimitedMemoryOptimizer opt(&cb, 1e-14);
  // A first trial far into the rejected region.
  opt.firstMove = 10.0;
  opt.setFunctional(&f);
  opt.optimize(1.0, 0.01);
  EXPECT_NEAR(1.5, t.paramVector[0], 1e-5);
  EXPECT_NEAR(1.5, t.paramVector[1], 1e-5);
  EXPECT_EQ(0.3, t.paramVector[2]);
  EXPECT_NE(INVALID_VALUE, f.value());
}

TEST_F(LimitedMemoryTest, StopsWhenAskedAndShowsTheResult) {
  std::vector<double> c, w;
  quadraticProblem(20, c, w);
  TestTransform t(20);
  AnalyticFunctional f(&t, coupledQuadratic(c, w));
  exactGradient(f);
  TestCallback cb;
  ZrLimitedMemoryOptimizer opt(&cb, 1e-14);
  opt.setFunctional(&f);
  f.gradientOverride = [&, inner = f.gradientOverride](int call, QbDVector<double>& g) {
    if (call == 4)
      cb.stop = true;
    return inner(call, g);
  };
  const double before = f.value();
  opt.optimize(1.0, 0.01);
  EXPECT_EQ(4, f.numGradient);
  // It stopped at a point it had evaluated, no worse than the start.
  EXPECT_GE(f.value(), before);
  // A search that ends is shown once at least, whatever the clock says.
  cb.stop = false;
  TestTransform t2(20);
  AnalyticFunctional f2(&t2, coupledQuadratic(c, w));
  exactGradient(f2);
  TestCallback cb2;
  ZrLimitedMemoryOptimizer opt2(&cb2, 1e-14);
  opt2.setFunctional(&f2);
  opt2.optimize(1.0, 0.01);
  EXPECT_GE(cb2.numApply, 1);
}
