// The line search along the functional's gradient: maxima of analytic
// objectives under both step schedules, the walking limit per level, the
// schedules themselves, the tolerance that loosens per call, and stops.
#include "OptimizerTestSupport.h"
#include "ZrBestDirectionOptimizer.h"

#include <cmath>
#include <vector>

using namespace zrtest;

namespace {

class BestDirectionTest : public OptimizerTest {
protected:
  // Runs one search on objective from start with the given level.
  void search(TestTransform& t, const Objective& objective, bool extensive, double a, double b,
              int level = 0, int numLevels = 1) {
    AnalyticFunctional f(&t, objective);
    f.logCalls = false;
    ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, extensive);
    opt.setFunctional(&f);
    opt.setProgressLevel(level, numLevels);
    opt.optimize(a, b);
  }
  std::vector<std::string> stepLines() const { return lines("Setting step size to "); }
};

} // namespace

TEST_F(BestDirectionTest, FindsTheMaximumOfAnalyticObjectives) {
  const double b = 1.0 / 256;
  for (bool extensive : {false, true}) {
    for (int n : {7, 60}) {
      std::vector<double> c, w;
      quadraticProblem(n, c, w);
      TestTransform t(n);
      search(t, coupledQuadratic(c, w), extensive, 1.0, b);
      EXPECT_LT(maxDeviation(t.paramVector, c), 2 * b) << "n " << n << ", extensive " << extensive;
    }
    // Far along a valley of condition 20, just off its floor: the search
    // must follow the floor.
    TestTransform v(2);
    v.paramVector[0] = -1.0;
    v.paramVector[1] = -1.1;
    search(v, narrowValley(20.0), extensive, 1.0, b);
    EXPECT_LT(std::fabs(v.paramVector[0] + v.paramVector[1] - 2.0), 0.06) << extensive;
    EXPECT_LT(std::fabs(v.paramVector[0] - v.paramVector[1]), 3e-3) << extensive;
    // A parameter whose natural step is 0 never moves.
    const std::vector<double> c = {0.4, -0.8, 1.2, 0.6, -0.3, 0.9, 0.2};
    TestTransform t(7);
    t.steps[3] = 0.0;
    search(t, separable(c), extensive, 1.0, b);
    for (int i = 0; i < 7; i++)
      EXPECT_NEAR(t.paramVector[i], i == 3 ? 0.0 : c[i], i == 3 ? 0.0 : 2 * b) << i;
  }
}

TEST_F(BestDirectionTest, WalkingLimitFallsFromEightToTwoOverTheLevels) {
  struct Case {
    int level, numLevels, expected;
  } cases[] = {{0, 4, 8}, {1, 4, 6}, {2, 4, 4}, {3, 4, 2}, {0, 3, 8}, {1, 3, 5},
               {2, 3, 2}, {0, 1, 8}, {0, 2, 8}, {1, 2, 2}, {4, 6, 3}};
  for (const Case& k : cases) {
    TestTransform t(0);
    AnalyticFunctional f(&t, [](const QbDVector<double>&) { return 0.0; });
    ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, false);
    opt.setFunctional(&f);
    opt.setProgressLevel(k.level, k.numLevels);
    opt.optimize(1.0, 0.5);
    EXPECT_EQ(opt.maxLineSteps, k.expected) << "level " << k.level << " of " << k.numLevels;
  }
}

TEST_F(BestDirectionTest, StepSchedules) {
  // No parameters: each step size evaluates a zero gradient and reports.
  struct Case {
    bool extensive;
    double factor, a, b;
    int level, numLevels;
    std::vector<const char*> steps;
  } cases[] = {
      // Coarsest level: the ratio stays 0.5; the sixth step, 0.25, lies
      // below three end steps and is replaced by the end step.
      {false, 0.5, 8.0, 0.1, 0, 3, {"   8", "   4", "   2", "   1", " 0.5", " 0.1"}},
      // Finest level of three: the ratio shrinks by 0.1 per step, 0.5, 0.4,
      // 0.3, 0.2.
      {false, 0.5, 8.0, 0.1, 2, 3, {"   8", "   4", " 1.6", "0.48", " 0.1"}},
      // A start below three end steps goes straight to the end step.
      {false, 0.5, 0.25, 0.1, 0, 3, {" 0.1"}},
      {true, 0.5, 8.0, 1.0, 2, 3, {"   8", "   4", "   2", "   1"}},
      // Equal steps: one step, and the ratio becomes 0.5.
      {true, 0.7, 0.3, 0.3, 0, 1, {" 0.3"}},
  };
  for (const Case& k : cases) {
    messages.clear();
    TestTransform t(0);
    AnalyticFunctional f(&t, [](const QbDVector<double>&) { return -2.5; });
    ZrBestDirectionOptimizer opt(nullptr, k.factor, 1e-8, 0, k.extensive);
    opt.setFunctional(&f);
    opt.setProgressLevel(k.level, k.numLevels);
    opt.optimize(k.a, k.b);
    std::vector<std::string> expected;
    for (const char* s : k.steps)
      expected.push_back(std::string("Setting step size to ") + s + "\n");
    EXPECT_EQ(stepLines(), expected) << k.extensive << " " << k.a << " level " << k.level;
    // Every step size reports, also with a zero gradient.
    EXPECT_EQ(f.numGradient, (int)expected.size());
    EXPECT_EQ(lines(" Metric result = ").size(), expected.size());
    EXPECT_EQ(messages.back(), " Metric result = -2.500000\n");
    EXPECT_DOUBLE_EQ(opt.stepFactor, 0.5); // the shrinking is local
  }
  // The extensive ratio is fitted to the range and kept for the next call:
  // log(1/128) / log(0.6) = 9.5 gives nine ratios of (1/128)^(1/9).
  messages.clear();
  TestTransform t(0);
  AnalyticFunctional f(&t, [](const QbDVector<double>&) { return 0.0; });
  ZrBestDirectionOptimizer opt(nullptr, 0.6, 1e-8, 0, true);
  opt.setFunctional(&f);
  opt.optimize(2.0, 1.0 / 64);
  EXPECT_DOUBLE_EQ(opt.stepFactor, std::pow(1.0 / 128, 1.0 / 9));
  ASSERT_EQ(stepLines().size(), 10u);
  EXPECT_EQ(stepLines().back(), "Setting step size to 0.015625\n");
}

TEST_F(BestDirectionTest, WalkingStepsCountOverAllGradientsOfAStepSize) {
  // The optimum lies far away, so every walk would go on; the limit of the
  // finest level (2) ends the first walk after three steps, and the second
  // gradient's walk at once, as the count is not reset.
  TestTransform t(1);
  AnalyticFunctional f(
      &t, [](const QbDVector<double>& p) { return -(p[0] - 1000.0) * (p[0] - 1000.0); });
  ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-12, 0, true);
  opt.setFunctional(&f);
  opt.setProgressLevel(3, 4);
  opt.optimize(0.1, 0.1);
  EXPECT_EQ(opt.maxLineSteps, 2);
  EXPECT_EQ(f.numGradient, 2);
  // First gradient: one move, three walking steps, two refinement probes;
  // second: one move and two refinement probes.
  EXPECT_EQ(f.numEvaluate, 1 + 3 + 2 + 1 + 2);
  // The walk keeps three moves of 0.1 (its last probe is taken back), and
  // each gradient's refinement one move of 0.06667 upwards.
  EXPECT_NEAR(t.paramVector[0], 0.3 + 0.06667 + 0.06667, 1e-9);
}

TEST_F(BestDirectionTest, ToleranceLoosensPerCompletedCallOnly) {
  TestTransform t(2);
  AnalyticFunctional f(&t, narrowValley(100.0));
  ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, true);
  opt.setFunctional(&f);
  opt.optimize(1.0, 0.25);
  EXPECT_DOUBLE_EQ(opt.tolerance, 1e-7);
  opt.optimize(1.0, 0.25);
  EXPECT_DOUBLE_EQ(opt.tolerance, 1e-6);

  // Stopped at the poll after the second gradient: nothing more is
  // evaluated, the parameters stay, and so does the tolerance.
  t.paramVector[0] = -1.5;
  t.paramVector[1] = -0.7;
  f.numGradient = 0;
  f.gradientOverride = [&](int call, QbDVector<double>&) {
    if (call == 2)
      wa->requestInterrupt();
    return false;
  };
  opt.optimize(1.0, 0.25);
  EXPECT_DOUBLE_EQ(opt.tolerance, 1e-6);
  EXPECT_EQ(f.numGradient, 2);
  ASSERT_EQ(f.calls.back().kind, 'G');
  EXPECT_TRUE(t.paramVector == f.calls.back().params);
}

TEST_F(BestDirectionTest, AnInvalidValueEndsTheSearch) {
  TestTransform t(2);
  AnalyticFunctional f(
      &t, [](const QbDVector<double>& p) { return p[0] > 0.5 ? INVALID_VALUE : -p[1] * p[1]; });
  t.paramVector[0] = 0.6;
  ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, true);
  opt.setFunctional(&f);
  opt.optimize(1.0, 0.25);
  EXPECT_EQ(f.numGradient, 1);
  EXPECT_EQ(f.numEvaluate, 0);
  EXPECT_DOUBLE_EQ(opt.tolerance, 1e-8);
  EXPECT_EQ(t.paramVector[0], 0.6);
}
