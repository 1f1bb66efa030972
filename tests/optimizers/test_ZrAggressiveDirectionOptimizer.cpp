// The search with its own two-probe gradient: maxima of analytic objectives,
// the parameters a flat registration leaves alone, the step schedule, the
// passes of one sweep, the copy of the best probe, invalid values and stops.
#include "OptimizerTestSupport.h"
#include "ZrAggressiveDirectionOptimizer.h"

#include <cmath>
#include <set>
#include <vector>

using namespace zrtest;

namespace {

class AggressiveDirectionTest : public OptimizerTest {};

} // namespace

TEST_F(AggressiveDirectionTest, FindsTheMaximumOfAnalyticObjectives) {
  const double b = 1.0 / 256;
  for (int n : {7, 60}) {
    std::vector<double> c, w;
    quadraticProblem(n, c, w);
    TestTransform t(n);
    AnalyticFunctional f(&t, coupledQuadratic(c, w));
    f.logCalls = false;
    TestCallback cb;
    ZrAggressiveDirectionOptimizer opt(&cb, 0.5, 0.1, 0, 3);
    opt.setFunctional(&f);
    opt.optimize(1.0, b);
    EXPECT_LT(maxDeviation(t.paramVector, c), 2 * b) << "n " << n;
    EXPECT_EQ(cb.numApply, 9); // one report per step size
    EXPECT_EQ(f.numCache, 1);
  }
  // Far along a valley of condition 20, just off its floor.
  TestTransform t(2);
  t.paramVector[0] = -1.0;
  t.paramVector[1] = -1.1;
  AnalyticFunctional f(&t, narrowValley(20.0));
  ZrAggressiveDirectionOptimizer opt(nullptr, 0.5, 0.1, 0, 3);
  opt.setFunctional(&f);
  opt.optimize(1.0, b);
  EXPECT_LT(std::fabs(t.paramVector[0] + t.paramVector[1] - 2.0), 0.06);
  EXPECT_LT(std::fabs(t.paramVector[0] - t.paramVector[1]), 3e-3);

  // A natural step of 0 freezes a parameter.
  const std::vector<double> c = {0.4, -0.8, 1.2, 0.6, -0.3, 0.9, 0.2};
  TestTransform t7(7);
  t7.steps[3] = 0.0;
  AnalyticFunctional f7(&t7, separable(c));
  ZrAggressiveDirectionOptimizer opt7(nullptr, 0.5, 0.1, 0, 3);
  opt7.setFunctional(&f7);
  opt7.optimize(1.0, b);
  for (int i = 0; i < 7; i++)
    EXPECT_NEAR(t7.paramVector[i], i == 3 ? 0.0 : c[i], i == 3 ? 0.0 : 2 * b) << i;
}

TEST_F(AggressiveDirectionTest, FlatRegistrationsLeaveTheirParametersAlone) {
  const std::vector<std::set<int>> skipped = {
      {0, 4, 5, 6, 9, 10}, {1, 3, 5, 7, 9, 11}, {2, 3, 4, 8, 10, 11}, {}, {3, 4, 8, 10, 11}};
  std::vector<double> c(12);
  for (int i = 0; i < 12; i++)
    c[i] = 0.3 + 0.05 * i;
  for (int mode = 0; mode <= 4; mode++) {
    TestTransform t(12);
    AnalyticFunctional f(&t, separable(c));
    ZrAggressiveDirectionOptimizer opt(nullptr, 0.5, 0.1, 0, mode);
    opt.setFunctional(&f);
    opt.optimize(0.5, 1.0 / 64);
    std::set<int> probed(f.probedIndices.begin(), f.probedIndices.end());
    for (int i = 0; i < 12; i++) {
      const bool skip = skipped[mode].count(i) != 0;
      EXPECT_EQ(probed.count(i), skip ? 0u : 1u) << "mode " << mode << ", parameter " << i;
      EXPECT_NEAR(t.paramVector[i], skip ? 0.0 : c[i], skip ? 0.0 : 2.0 / 64)
          << "mode " << mode << ", parameter " << i;
    }
  }
}

TEST_F(AggressiveDirectionTest, StepScheduleAndReports) {
  TestTransform t(1);
  AnalyticFunctional f(&t, [](const QbDVector<double>& p) { return -(p[0] - 0.3) * (p[0] - 0.3); });
  TestCallback cb;
  ZrAggressiveDirectionOptimizer opt(&cb, 0.6, 0.1, 0, 3);
  opt.setFunctional(&f);
  opt.optimize(2.0, 1.0 / 64);
  // log(1/128) / log(0.6) = 9.5: ten steps with the fitted ratio, which the
  // optimizer keeps.
  EXPECT_DOUBLE_EQ(opt.stepFactor, std::pow(1.0 / 128, 1.0 / 9));
  std::vector<std::string> steps = lines("Setting step size to ");
  ASSERT_EQ(steps.size(), 10u);
  EXPECT_EQ(steps.front(), "Setting step size to    2\n");
  EXPECT_EQ(steps.back(), "Setting step size to 0.015625\n");
  EXPECT_EQ(cb.numApply, 10);
  // The result line has no line end.
  EXPECT_EQ(messages.back(), format(" Metric result = %f", f.value()));

  // Equal steps: a single step of that size, and the ratio becomes 0.5.
  messages.clear();
  opt.optimize(0.25, 0.25);
  EXPECT_EQ(lines("Setting step size to "),
            std::vector<std::string>{"Setting step size to 0.25\n"});
  EXPECT_EQ(opt.stepFactor, 0.5);
  // A step of 0 makes no step at all.
  messages.clear();
  const int before = f.numIncremental;
  opt.optimize(0.0, 0.25);
  EXPECT_TRUE(messages.empty());
  EXPECT_EQ(f.numIncremental, before);
}

namespace {

// Probes of parameter i by +-1 give +-g_i, all other points -1: the walk and
// the refinement never gain, so every point they try is recorded in turn.
class PassFunctional : public RegFunctional {
public:
  PassFunctional(TestTransform* t, TestCallback* cb)
      : RegFunctional(QbDArray<ZrSpatialData*>(), QbDArray<ZrSpatialData*>(), t, nullptr, nullptr),
        cb(cb) {
    size = QbVec3f(10.0f, 10.0f, 10.0f);
  }
  double evaluateAndCache() override { return 0.0; }
  double evaluateIncremental(int i, double) override {
    const double d = transform->paramVector[i];
    return std::fabs(d) < 1.5 ? g[i] * d : -1.0;
  }
  double evaluate() override {
    tried.push_back(
        std::vector<double>(&transform->paramVector[0], &transform->paramVector[0] + 4));
    cb->stop = true; // seen after the passes of this sweep
    return -1.0;
  }
  double evaluate(QbDVector<double>&, double, int) override { return -1.0; }
  const double g[4] = {8, 4, 2, 1};
  std::vector<std::vector<double>> tried;
  TestCallback* cb;
};

} // namespace

TEST_F(AggressiveDirectionTest, PassesRaiseTheThresholdAndSkipUnchangedDirections) {
  // Steps 2 then 1: the first step's probes gain nothing. At the second the
  // gradient is 2 g = (16, 8, 4, 2), and a threshold rising by 0.3 * 16 per
  // pass keeps all four, then the first two, then the first; the fourth pass
  // (threshold 14.4) would not change the direction and is left out. Each
  // pass tries one walking step along the direction and, from the second
  // step size on, one refinement pair at half of it (all rounds with full
  // refinement).
  const std::vector<double> d1 = {1, 0.5, 0.25, 0.125}, d2 = {1, 0.5, 0, 0}, d3 = {1, 0, 0, 0};
  auto scaled = [](const std::vector<double>& d, double s) {
    std::vector<double> r(d);
    for (double& x : r)
      x *= s;
    return r;
  };
  struct Case {
    double thresholdStep;
    int fullRefinement;
    std::vector<std::vector<double>> directions;
    std::vector<double> moves;
  } cases[] = {{0.3, 0, {d1, d2, d3}, {1, 0.5, -0.5}},
               {0.3, 1, {d1, d2, d3}, {1, 0.5, -0.5, 0.25, -0.25}},
               {0.0, 0, {d1}, {1, 0.5, -0.5}},
               {0.6, 0, {d1, d3}, {1, 0.5, -0.5}}};
  for (const Case& k : cases) {
    TestTransform t(4);
    TestCallback cb;
    PassFunctional f(&t, &cb);
    ZrAggressiveDirectionOptimizer opt(&cb, 0.5, k.thresholdStep, k.fullRefinement, 3);
    opt.setFunctional(&f);
    opt.optimize(2.0, 1.0);
    std::vector<std::vector<double>> expected;
    for (const auto& d : k.directions)
      for (double m : k.moves)
        expected.push_back(scaled(d, m));
    EXPECT_EQ(f.tried, expected) << "threshold step " << k.thresholdStep << ", full refinement "
                                 << k.fullRefinement;
  }
}

TEST_F(AggressiveDirectionTest, TheBestProbeIsCopiedWithTheParameterAtItsLowerProbe) {
  // f = x + y - 10 x y: each single probe up by 1 gains, every move along
  // the combined direction (and its refinements) loses. The search then
  // falls back on the copy of its best probe, taken when parameter 0 probed
  // upwards, but holding that parameter at its lower probe, -1.
  TestTransform t(2);
  AnalyticFunctional f(&t,
                       [](const QbDVector<double>& p) { return p[0] + p[1] - 10.0 * p[0] * p[1]; });
  TestCallback cb;
  // Stop after the first probe of the second sweep, to see where it stands.
  f.onEvaluate = [&]() {
    if (f.numIncremental == 5)
      cb.stop = true;
  };
  ZrAggressiveDirectionOptimizer opt(&cb, 0.5, 0.1, 0, 3);
  opt.setFunctional(&f);
  opt.optimize(1.0, 1.0);
  std::vector<QbDVector<double>> probes = f.positionsOf('I');
  ASSERT_EQ(probes.size(), 5u);
  EXPECT_EQ(probes[0][0], 1.0);
  EXPECT_EQ(probes[1][0], -1.0);
  EXPECT_EQ(probes[2][1], 1.0);
  EXPECT_EQ(probes[3][1], -1.0);
  // Second sweep around (-1, 0): its upper probe of parameter 0 is at 0.
  EXPECT_EQ(probes[4][0], 0.0);
  EXPECT_EQ(probes[4][1], 0.0);
  EXPECT_TRUE(t.paramVector == probes[4]);
}

TEST_F(AggressiveDirectionTest, InvalidProbesZeroTheGradient) {
  // Any upward probe of parameter 1 is invalid: that parameter never moves,
  // the other one still reaches its optimum.
  TestTransform t(2);
  AnalyticFunctional f(&t, [](const QbDVector<double>& p) {
    if (p[1] > 1e-9)
      return INVALID_VALUE;
    return -(p[0] - 0.7) * (p[0] - 0.7) - (p[1] - 0.5) * (p[1] - 0.5);
  });
  ZrAggressiveDirectionOptimizer opt(nullptr, 0.5, 0.1, 0, 3);
  opt.setFunctional(&f);
  opt.optimize(1.0, 1.0 / 64);
  EXPECT_EQ(t.paramVector[1], 0.0);
  EXPECT_NEAR(t.paramVector[0], 0.7, 2.0 / 64);
}

TEST_F(AggressiveDirectionTest, InterruptionLeavesTheParametersAtTheLastProbe) {
  std::vector<double> c, w;
  quadraticProblem(7, c, w);
  for (int viaCallback = 0; viaCallback <= 1; viaCallback++) {
    // Upward probes: parameters 0 and 2 of the first sweep, 6 as its last
    // probe pair, and parameter 0 of the second sweep.
    for (int stopAt : {1, 5, 13, 15}) {
      wa->clearInterrupt();
      TestTransform t(7);
      AnalyticFunctional f(&t, coupledQuadratic(c, w));
      TestCallback cb;
      f.onEvaluate = [&]() {
        if (f.calls.back().kind == 'I' && f.numIncremental == stopAt)
          viaCallback ? void(cb.stop = true) : wa->requestInterrupt();
      };
      ZrAggressiveDirectionOptimizer opt(&cb, 0.5, 0.1, 0, 3);
      opt.setFunctional(&f);
      opt.optimize(1.0, 1.0 / 64);
      EXPECT_EQ(f.numIncremental, stopAt);
      ASSERT_EQ(f.calls.back().kind, 'I');
      EXPECT_TRUE(t.paramVector == f.calls.back().params) << "stop at " << stopAt;
    }
  }
  // A stop before the search begins changes nothing.
  messages.clear();
  wa->requestInterrupt();
  TestTransform t(7);
  AnalyticFunctional f(&t, coupledQuadratic(c, w));
  ZrAggressiveDirectionOptimizer opt(nullptr, 0.5, 0.1, 0, 3);
  opt.setFunctional(&f);
  opt.optimize(1.0, 1.0 / 64);
  EXPECT_EQ(f.numCache, 1);
  EXPECT_EQ(f.numIncremental + f.numEvaluate, 0);
  EXPECT_TRUE(messages.empty());
}
