// The best-neighbour search: maximising an analytic objective over an affine
// transform, the schedule of step sizes, the parameters a flat registration
// leaves alone, the choice within a sweep, and the isotropic scale stage.
#include "MessageCapture.h"
#include "RegAffineTransform.h"
#include "RegFunctional.h"
#include "ZrBestNeighbourOptimizer.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace {

// f(p) = -sum_i w_i (p_i - target_i)^2 over the first 12 parameters: a
// separable paraboloid whose maximum 0 lies at `target`.
class QuadraticFunctional : public RegFunctional {
public:
  explicit QuadraticFunctional(RegAffineTransform* t)
      : RegFunctional(QbDArray<ZrSpatialData*>(), QbDArray<ZrSpatialData*>(), t, nullptr, nullptr) {
    size = QbVec3f(10.0f, 10.0f, 10.0f);
    for (int i = 0; i < 12; i++)
      target[i] = t->paramVector[i];
  }

  double value() const {
    double f = 0.0;
    for (int i = 0; i < 12; i++) {
      const double d = transform->paramVector[i] - target[i];
      f -= weight[i] * d * d;
    }
    return f;
  }
  double evaluate() override { return value(); }
  double evaluate(QbDVector<double>&, double, int) override { return value(); }
  double evaluateAndCache() override { return value(); }
  double evaluateIncremental(int index, double) override {
    probed.insert(index);
    numIncremental++;
    if (onIncremental)
      onIncremental(index);
    return value();
  }

  double target[12];
  double weight[12] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
  std::set<int> probed;
  int numIncremental = 0;
  std::function<void(int)> onIncremental;
};

class BestNeighbourTest : public ::testing::Test {
protected:
  void SetUp() override { wa->clearInterrupt(); }
  void TearDown() override {
    wa->clearInterrupt();
    wa->setProgressValue(0.0f);
  }
  static std::string format(const char* f, double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, f, v);
    return buf;
  }

  ZrWorkArea* wa = ZrWorkArea::getTheWorkArea();
  MessageCapture log;
  std::vector<std::string>& messages = log.messages;
};

} // namespace

TEST_F(BestNeighbourTest, FindsTheMaximumOfASeparableParaboloid) {
  RegAffineTransform t;
  QuadraticFunctional f(&t);
  const double target[12] = {3.3, -2.2, 1.7, 12.0, -30.0, 7.5, 1.3, 0.8, 1.1, 0.1, -0.05, 0.2};
  for (int i = 0; i < 12; i++)
    f.target[i] = target[i];

  ZrBestNeighbourOptimizer opt(nullptr, 0.5, 3);
  opt.setFunctional(&f);
  const double a = 2.0, b = 1.0 / 64.0;
  opt.optimize(a, b);

  // Coordinate steps of size b * scale_i leave each parameter within half a
  // final step of its optimum.
  SbVec3d extent(10, 10, 10);
  for (int i = 0; i < 12; i++) {
    const double finalStep = b * t.getParamStep(i, &extent);
    EXPECT_LE(std::fabs(t.paramVector[i] - target[i]), 0.5 * finalStep + 1e-12) << "param " << i;
  }
  // The centre is never varied.
  for (int i = 12; i < 15; i++)
    EXPECT_EQ(t.paramVector[i], 0.0);
  EXPECT_EQ(f.probed.size(), 12u);

  // The last message reports the value that was reached.
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), format(" Metric result = %f\n", f.value()));
}

TEST_F(BestNeighbourTest, StepSchedule) {
  RegAffineTransform t;
  QuadraticFunctional f(&t);
  t.setDegreesOfFreedomDirect(0); // no parameters: only the schedule runs
  ZrBestNeighbourOptimizer opt(nullptr, 0.5, 3);
  opt.setFunctional(&f);
  const double q = std::cbrt(0.1);
  struct Case {
    double a, b, factorAfter;
    std::vector<double> steps;
  } cases[] = {
      // log(1/8) / log(0.5) = 3: four steps, the factor stays 0.5.
      {8.0, 1.0, 0.5, {8, 4, 2, 1}},
      // From 10 to 1: k = trunc(3.32) = 3, and the factor is adjusted to the
      // cube root of 0.1 so that the last step is exactly 1; it is kept.
      {10.0, 1.0, q, {10, 10 * q, 10 * q * q, 1}},
      // The next call starts from the adjusted factor: log(1 / 1.5) / log(q)
      // = 0.53, so k = 0, the factor is forced to 0.5, and the single step
      // is the end step.
      {1.5, 1.0, 0.5, {1}},
      {1.0, 0.8, 0.5, {0.8}},
  };
  for (const Case& c : cases) {
    messages.clear();
    opt.optimize(c.a, c.b);
    std::vector<std::string> expected;
    for (double s : c.steps)
      expected.push_back(format("Setting step size to %4g\n", s));
    EXPECT_EQ(log.starting("Setting step size"), expected) << c.a << " to " << c.b;
    EXPECT_NEAR(opt.stepFactor, c.factorAfter, 1e-15);
    // With no parameters each step prints only its two lines.
    EXPECT_EQ(messages.size(), 2 * expected.size());
  }
  EXPECT_EQ(f.numIncremental, 0);
}

TEST_F(BestNeighbourTest, FlatRegistrationsKeepTheirParameters) {
  const std::set<int> skipped[5] = {
      {0, 4, 5, 6, 9, 10}, {1, 3, 5, 7, 9, 11}, {2, 3, 4, 8, 10, 11}, {}, {3, 4, 8, 10, 11}};
  for (int mode = 0; mode < 5; mode++) {
    RegAffineTransform t;
    QuadraticFunctional f(&t);
    // Every parameter would like to move: by 0.3 units, or 10 degrees.
    for (int i = 0; i < 12; i++)
      f.target[i] += (i >= 3 && i <= 5) ? 10.0 : 0.3;
    ZrBestNeighbourOptimizer opt(nullptr, 0.5, mode);
    opt.setFunctional(&f);
    opt.optimize(1.0, 0.25);

    std::set<int> expected;
    for (int i = 0; i < 12; i++)
      if (!skipped[mode].count(i))
        expected.insert(i);
    EXPECT_EQ(f.probed, expected) << "mode " << mode;
    for (int i = 0; i < 12; i++) {
      EXPECT_EQ(ZrOptimizer::isSkippedParameter(mode, i), skipped[mode].count(i) == 1);
      if (skipped[mode].count(i))
        EXPECT_EQ(t.paramVector[i], i >= 6 && i <= 8 ? 1.0 : 0.0) << "mode " << mode;
      else
        EXPECT_NE(t.paramVector[i], i >= 6 && i <= 8 ? 1.0 : 0.0) << "mode " << mode;
    }
  }
}

TEST_F(BestNeighbourTest, OnlyTheBestNeighbourOfASweepIsTaken) {
  RegAffineTransform t;
  QuadraticFunctional f(&t);
  t.setDegreesOfFreedomDirect(3);
  // Parameters 0 and 2 both improve by a step of 1; parameter 2 improves
  // more. One sweep moves only parameter 2; the next sweep then moves 0.
  f.target[0] = 1.0;
  f.target[2] = 1.0;
  f.weight[2] = 4.0;
  std::vector<std::vector<double>> seen;
  f.onIncremental = [&](int) {
    seen.push_back({t.paramVector[0], t.paramVector[1], t.paramVector[2]});
  };
  ZrBestNeighbourOptimizer opt(nullptr, 0.5, 3);
  opt.setFunctional(&f);
  opt.optimize(1.0, 1.0);
  // Three sweeps of six probes: the first finds parameter 2, the second
  // parameter 0, the third nothing.
  ASSERT_EQ(seen.size(), 18u);
  EXPECT_EQ(seen[0], (std::vector<double>{1, 0, 0}));
  EXPECT_EQ(seen[4], (std::vector<double>{0, 0, 1}));
  EXPECT_EQ(seen[6], (std::vector<double>{1, 0, 1}));  // sweep 2 starts from (0, 0, 1)
  EXPECT_EQ(seen[12], (std::vector<double>{2, 0, 1})); // sweep 3 from (1, 0, 1)
  EXPECT_EQ(t.paramVector[0], 1.0);
  EXPECT_EQ(t.paramVector[2], 1.0);
}

namespace {

// An objective of the composed matrix (isotropic follow-up of entries 7, 8
// included), best for a uniform scale of 1.25 about the centre and (2, -1, 0.5).
class ComposingFunctional : public RegFunctional {
public:
  explicit ComposingFunctional(RegAffineTransform* t)
      : RegFunctional(QbDArray<ZrSpatialData*>(), QbDArray<ZrSpatialData*>(), t, nullptr, nullptr),
        affine(t) {
    size = QbVec3f(10.0f, 10.0f, 10.0f);
  }
  double evaluate() override {
    affine->composeMatrix();
    const SbMatrixd& m = affine->matrix;
    double f = 0.0;
    for (int k = 0; k < 3; k++)
      for (int c = 0; c < 3; c++) {
        const double d = m[k][c] - (k == c ? 1.25 : 0.0);
        f -= 100.0 * d * d;
      }
    const double shift[3] = {2.0, -1.0, 0.5};
    for (int c = 0; c < 3; c++) {
      const double d = affine->paramVector[c] - shift[c];
      f -= d * d;
    }
    return f;
  }
  double evaluate(QbDVector<double>&, double, int) override { return evaluate(); }
  RegAffineTransform* affine;
};

} // namespace

TEST_F(BestNeighbourTest, IsotropicScaleStageKeepsTheScalesTogether) {
  RegAffineTransform t;
  ComposingFunctional f(&t);
  t.setDegreesOfFreedom(7);
  ZrBestNeighbourOptimizer opt(nullptr, 0.5, 3);
  opt.setFunctional(&f);
  // Probes of entry 6 stay positive (1 +- 0.4 at the first step).
  opt.optimize(1.0, 1.0 / 64.0);
  t.composeMatrix();
  // Entries 7 and 8 follow entry 6 and were never varied on their own, so a
  // start at 1, 1, 1 stays a uniform scale; the best point taken back after
  // a sweep must not scale them a second time.
  EXPECT_NEAR(t.paramVector[7], t.paramVector[6], 1e-12);
  EXPECT_NEAR(t.paramVector[8], t.paramVector[6], 1e-12);
  const double finalScaleStep = 1.0 / 64.0 * 0.4; // b * 4 / max extent
  EXPECT_NEAR(t.paramVector[6], 1.25, finalScaleStep);
  for (int k = 0; k < 3; k++)
    EXPECT_NEAR(t.matrix[k][k], 1.25, finalScaleStep) << k;
}
