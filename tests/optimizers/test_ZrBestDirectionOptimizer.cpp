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
  // The step sizes printed by one call, in order.
  std::vector<std::string> stepLines() const { return lines("Setting step size to "); }
};

} // namespace

TEST_F(BestDirectionTest, FindsTheMaximumOfAnalyticObjectives) {
  for (int extensive = 0; extensive <= 1; extensive++) {
    for (int n : {7, 60}) {
      std::vector<double> c, w;
      quadraticProblem(n, c, w);
      TestTransform t(n);
      AnalyticFunctional f(&t, coupledQuadratic(c, w));
      f.logCalls = false;
      ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, extensive != 0);
      opt.setFunctional(&f);
      opt.setProgressLevel(0, 1);
      opt.optimize(1.0, 1.0 / 256);
      // Within about the end step of the optimum.
      EXPECT_LT(maxDeviation(t.paramVector, c), 2.0 / 256)
          << "n " << n << ", extensive " << extensive;
    }
    {
      // Far along a valley of condition 20, just off its floor: the search
      // must follow the floor. Across the valley the value is steep, along
      // it flat, and the precision differs accordingly.
      TestTransform t(2);
      t.paramVector[0] = -1.0;
      t.paramVector[1] = -1.1;
      AnalyticFunctional f(&t, narrowValley(20.0));
      ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, extensive != 0);
      opt.setFunctional(&f);
      opt.setProgressLevel(0, 1);
      opt.optimize(1.0, 1.0 / 256);
      EXPECT_LT(std::fabs(t.paramVector[0] + t.paramVector[1] - 2.0), 0.06) << extensive;
      EXPECT_LT(std::fabs(t.paramVector[0] - t.paramVector[1]), 3e-3) << extensive;
    }
    {
      // A parameter whose natural step is 0 never moves; the others reach
      // their (separable) optimum.
      const std::vector<double> c = {0.4, -0.8, 1.2, 0.6, -0.3, 0.9, 0.2};
      TestTransform t(7);
      t.steps[3] = 0.0;
      AnalyticFunctional f(&t, [c](const QbDVector<double>& p) {
        double v = 0.0;
        for (int i = 0; i < 7; i++)
          v -= (1.0 + i) * (p[i] - c[i]) * (p[i] - c[i]);
        return v;
      });
      ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, extensive != 0);
      opt.setFunctional(&f);
      opt.setProgressLevel(0, 1);
      opt.optimize(1.0, 1.0 / 256);
      EXPECT_EQ(t.paramVector[3], 0.0);
      for (int i = 0; i < 7; i++) {
        if (i == 3)
          continue;
        EXPECT_NEAR(t.paramVector[i], c[i], 2.0 / 256) << "parameter " << i;
      }
    }
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

TEST_F(BestDirectionTest, ShrinkingScheduleEndsOnTheEndStep) {
  // No parameters: each step size evaluates a zero gradient and reports.
  TestTransform t(0);
  AnalyticFunctional f(&t, [](const QbDVector<double>&) { return -2.5; });

  // Coarsest level: the ratio stays 0.5. Eight steps are counted; the sixth,
  // 0.25, lies below three times the end step and is replaced by it.
  {
    ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, false);
    opt.setFunctional(&f);
    opt.setProgressLevel(0, 3);
    opt.optimize(8.0, 0.1);
    const std::vector<std::string> expected = {
        "Setting step size to    8\n", "Setting step size to    4\n",
        "Setting step size to    2\n", "Setting step size to    1\n",
        "Setting step size to  0.5\n", "Setting step size to  0.1\n"};
    EXPECT_EQ(stepLines(), expected);
    // Every step size reports, also with a zero gradient.
    EXPECT_EQ(lines(" Metric result = ").size(), 6u);
    EXPECT_EQ(messages.back(), " Metric result = -2.500000\n");
    EXPECT_EQ(f.numGradient, 6);
  }
  // Finest level of three: the ratio shrinks by 0.1 per step, 0.5, 0.4, 0.3,
  // 0.2, and the step shrinks by the ratio as it stands.
  {
    messages.clear();
    ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, false);
    opt.setFunctional(&f);
    opt.setProgressLevel(2, 3);
    opt.optimize(8.0, 0.1);
    const std::vector<std::string> expected = {
        "Setting step size to    8\n", "Setting step size to    4\n", "Setting step size to  1.6\n",
        "Setting step size to 0.48\n", "Setting step size to  0.1\n"};
    EXPECT_EQ(stepLines(), expected);
    EXPECT_DOUBLE_EQ(opt.stepFactor, 0.5); // the shrinking is local
  }
  // A start below three end steps goes straight to the end step.
  {
    messages.clear();
    ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, false);
    opt.setFunctional(&f);
    opt.setProgressLevel(0, 3);
    opt.optimize(0.25, 0.1);
    EXPECT_EQ(stepLines(), std::vector<std::string>{"Setting step size to  0.1\n"});
  }
}

TEST_F(BestDirectionTest, ExtensiveScheduleIsGeometric) {
  TestTransform t(0);
  AnalyticFunctional f(&t, [](const QbDVector<double>&) { return 0.0; });
  {
    ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, true);
    opt.setFunctional(&f);
    opt.setProgressLevel(2, 3);
    opt.optimize(8.0, 1.0);
    const std::vector<std::string> expected = {
        "Setting step size to    8\n", "Setting step size to    4\n", "Setting step size to    2\n",
        "Setting step size to    1\n"};
    EXPECT_EQ(stepLines(), expected);
  }
  {
    // The ratio is fitted to the range and kept for the next call.
    messages.clear();
    ZrBestDirectionOptimizer opt(nullptr, 0.6, 1e-8, 0, true);
    opt.setFunctional(&f);
    opt.optimize(2.0, 1.0 / 64);
    // log(1/128) / log(0.6) = 9.5: nine ratios of (1/128)^(1/9).
    EXPECT_DOUBLE_EQ(opt.stepFactor, std::pow(1.0 / 128, 1.0 / 9));
    std::vector<std::string> steps = stepLines();
    ASSERT_EQ(steps.size(), 10u);
    EXPECT_EQ(steps.front(), "Setting step size to    2\n");
    EXPECT_EQ(steps.back(), "Setting step size to 0.015625\n");
  }
  {
    // Equal steps: one step, the end step, and the ratio becomes 0.5.
    messages.clear();
    ZrBestDirectionOptimizer opt(nullptr, 0.7, 1e-8, 0, true);
    opt.setFunctional(&f);
    opt.optimize(0.3, 0.3);
    EXPECT_EQ(stepLines(), std::vector<std::string>{"Setting step size to  0.3\n"});
    EXPECT_EQ(opt.stepFactor, 0.5);
  }
}

TEST_F(BestDirectionTest, WalkingStepsCountOverAllGradientsOfAStepSize) {
  // The optimum lies far away, so every walk would go on; the limit of the finest level (2) ends
  // the first walk after three steps, and the second gradient's walk at once, as the count is not
  // reset.
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
  f.calls.clear();
  f.numGradient = 0;
  f.gradientOverride = [&](int call, QbDVector<double>&) {
    if (call == 2)
      wa->requestInterrupt();
    return false;
  };
  messages.clear();
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
