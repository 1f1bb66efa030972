// The gradient-driven searches on analytic objectives with known maxima.
#include "MessageCapture.h"
#include "QbDVector.h"
#include "RegAffineTransform.h"
#include "RegFunctional.h"
#include "RegOptimizerCallback.h"
#include "ZrAggressiveDirectionOptimizer.h"
#include "ZrBestDirectionOptimizer.h"
#include "ZrGradientOptimizer.h"
#include "ZrLimitedMemoryOptimizer.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

typedef std::function<double(const QbDVector<double>&)> Objective;
typedef std::vector<double> Point;

// The functional's value for a folding deformation or a stop.
const double INVALID_VALUE = -3.4028234663852886e+38;

// n parameters, all variable, each with its own natural step (0 freezes one).
class TestTransform : public RegParametricTransform {
public:
  explicit TestTransform(int n) : steps(n, 1.0) { paramVector.resize(n); }
  void update() override {}
  int getParamVectorDim() const override { return paramVector.size(); }
  int getVariableParamVectorDim() const override { return paramVector.size(); }
  double getParamStep(int index, SbVec3d*) const override { return steps[index]; }
  std::vector<double> steps;
};

// `objective` of the parameters; the gradient by central differences with the
// keepAll rule (or `forged`). Calls are logged: 'E' evaluate(), 'I'
// evaluateIncremental(), 'G' the gradient form.
class AnalyticFunctional : public RegFunctional {
public:
  AnalyticFunctional(RegParametricTransform* t, Objective objective)
      : RegFunctional(QbDArray<ZrSpatialData*>(), QbDArray<ZrSpatialData*>(), t, nullptr, nullptr),
        objective(std::move(objective)) {
    size = QbVec3f(10.0f, 10.0f, 10.0f);
  }
  double value() const { return objective(transform->paramVector); }
  double evaluateAndCache() override { return value(); }
  double evaluate() override { return logged('E'); }
  double evaluateIncremental(int index, double) override {
    probed.insert(index);
    return logged('I');
  }
  double evaluate(QbDVector<double>& gradient, double step, int keepAll) override {
    logged('G');
    const double f0 = value();
    gradient.fill(0.0);
    if (forged && forged(count('G'), gradient))
      return f0;
    SbVec3d extent(size.x, size.y, size.z);
    QbDVector<double>& p = transform->paramVector;
    for (int i = 0; i < transform->getVariableParamVectorDim(); i++) {
      const double s = transform->getParamStep(i, &extent), old = p[i];
      p[i] = old + step * s;
      const double up = value();
      p[i] = old - step * s;
      const double down = value();
      p[i] = old;
      if (keepAll || f0 < up || f0 < down)
        gradient[i] = up - down;
    }
    return f0;
  }
  int count(char kind) const {
    int n = 0;
    for (const auto& c : calls)
      n += c.first == kind;
    return n;
  }
  std::vector<Point> pointsOf(char kind) const {
    std::vector<Point> r;
    for (const auto& c : calls)
      if (c.first == kind)
        r.push_back(c.second);
    return r;
  }
  Point last() const { return calls.back().second; }

  Objective objective;
  std::vector<std::pair<char, Point>> calls;
  std::set<int> probed;
  std::function<void()> onCall; // after each logged call is recorded
  std::function<bool(int call, QbDVector<double>& gradient)> forged;

private:
  double logged(char kind) {
    const QbDVector<double>& p = transform->paramVector;
    calls.emplace_back(kind, Point(p.data(), p.data() + p.size()));
    if (onCall)
      onCall();
    return value();
  }
};

class TestCallback : public RegOptimizerCallback {
public:
  bool applyTransform(RegParametricTransform*) override { return ++numApply < 0; }
  bool checkForInterrupt() override { return stop; }
  void trace(const char*) override {}
  int numApply = 0;
  bool stop = false;
};

// f(p) = -(p - c)^T A (p - c) with A = D^1/2 (I + 0.3 T) D^1/2, T the
// tridiagonal of ones, D = diag(w = 1 + i % 4): concave, coupled, maximum 0
// at c.
struct Coupled {
  Point c, w;
  explicit Coupled(int n) {
    for (int i = 0; i < n; i++) {
      c.push_back(0.9 * std::sin(1.7 * i + 0.3) + 0.05 * i / n);
      w.push_back(1.0 + (i % 4));
    }
  }
  Objective objective() const {
    return [c = c, w = w](const QbDVector<double>& p) {
      double f = 0.0;
      for (size_t i = 0; i < c.size(); i++) {
        const double di = (p[i] - c[i]) * std::sqrt(w[i]);
        f -= di * di;
        if (i + 1 < c.size())
          f -= 0.6 * di * (p[i + 1] - c[i + 1]) * std::sqrt(w[i + 1]);
      }
      return f;
    };
  }
};

// -sum (1 + i) (p_i - c_i)^2, maximum 0 at kSeparable; parameter 3 is frozen
// where it is used.
const Point kSeparable = {0.4, -0.8, 1.2, 0.6, -0.3, 0.9, 0.2};
double separable(const QbDVector<double>& p) {
  double v = 0.0;
  for (size_t i = 0; i < kSeparable.size(); i++)
    v -= (1.0 + i) * (p[i] - kSeparable[i]) * (p[i] - kSeparable[i]);
  return v;
}

// A narrow straight valley along the diagonal, f = -(u^2 + K v^2) / 2 with
// u = x + y - 2 along the floor and v = x - y across: maximum 0 at (1, 1).
Objective valley(double K) {
  return [K](const QbDVector<double>& p) {
    const double u = p[0] + p[1] - 2.0, v = p[0] - p[1];
    return -0.5 * (u * u + K * v * v);
  };
}

double maxDeviation(const QbDVector<double>& p, const Point& c) {
  double m = 0.0;
  for (size_t i = 0; i < c.size(); i++)
    m = std::max(m, std::fabs(p[i] - c[i]));
  return m;
}

// The searches of the tests: 0 aggressive, 1 line search, 2 extensive line
// search, 3 steepest descent, 4 conjugate gradients, 5 quasi-Newton.
std::unique_ptr<ZrOptimizer> makeSearch(int kind, RegOptimizerCallback* cb = nullptr) {
  if (kind == 0)
    return std::make_unique<ZrAggressiveDirectionOptimizer>(cb, 0.5, 0.1, 0, 3);
  if (kind <= 2) {
    auto o = std::make_unique<ZrBestDirectionOptimizer>(cb, 0.5, 1e-8, 0, kind == 2);
    o->setProgressLevel(0, 1);
    return o;
  }
  auto o = std::make_unique<ZrGradientOptimizer>(cb, 1e-10, 0.5);
  o->method = kind - 3;
  return o;
}

class OptimizerTest : public ::testing::Test {
protected:
  void SetUp() override { wa->clearInterrupt(); }
  void TearDown() override { wa->clearInterrupt(); }
  // Maximises from start with the optimizer made by make; checks the maximum
  // c within tol (parameters whose natural step is 0 must not move at all).
  void expectMaximum(int kind, Objective objective, Point start, const Point& c, double tol,
                     double a, double b, std::vector<double> steps = {}) {
    TestTransform t(int(start.size()));
    for (size_t i = 0; i < start.size(); i++)
      t.paramVector[i] = start[i];
    for (size_t i = 0; i < steps.size(); i++)
      t.steps[i] = steps[i];
    AnalyticFunctional f(&t, objective);
    auto opt = makeSearch(kind);
    opt->setFunctional(&f);
    opt->optimize(a, b);
    for (size_t i = 0; i < c.size(); i++)
      EXPECT_NEAR(t.paramVector[i], c[i], t.steps[i] == 0 ? 0.0 : tol) << "parameter " << i;
  }

  ZrWorkArea* wa = ZrWorkArea::getTheWorkArea();
  MessageCapture log;
  std::vector<std::string>& messages = log.messages;
};

} // namespace

TEST_F(OptimizerTest, EachSearchFindsTheMaximaOfAnalyticObjectives) {
  const Coupled c7(7), c60(60);
  const Point frozen = {1, 1, 1, 0, 1, 1, 1};
  struct Search {
    const char* name;
    int kind;
    double a, b, coupledTol, valleyTol, separableTol;
  } searches[] = {
      {"aggressive", 0, 1.0, 1.0 / 256, 2.0 / 256, 3e-3, 2.0 / 256},
      {"line search", 1, 1.0, 1.0 / 256, 2.0 / 256, 3e-3, 2.0 / 256},
      {"extensive line search", 2, 1.0, 1.0 / 256, 2.0 / 256, 3e-3, 2.0 / 256},
      // Steepest descent stops on short moves, well before the others.
      {"steepest descent", 3, 0.5, 0.01, 1e-2, 5e-3, 2e-2},
      {"conjugate gradients", 4, 0.5, 0.01, 3e-5, 1e-4, 1e-4},
      {"quasi-Newton", 5, 0.5, 0.01, 3e-5, 1e-4, 1e-4},
  };
  for (const Search& s : searches) {
    SCOPED_TRACE(s.name);
    expectMaximum(s.kind, c7.objective(), Point(7), c7.c, s.coupledTol, s.a, s.b);
    expectMaximum(s.kind, c60.objective(), Point(60), c60.c, s.coupledTol, s.a, s.b);
    expectMaximum(s.kind, separable, Point(7), {0.4, -0.8, 1.2, 0.0, -0.3, 0.9, 0.2},
                  s.separableTol, s.a, s.b, frozen);
    // Far along a valley of condition 20 (100 for the gradient methods), just
    // off its floor: across the floor the value is steep, along it flat.
    const bool gradient = s.b == 0.01;
    TestTransform t(2);
    t.paramVector[0] = gradient ? -1.5 : -1.0;
    t.paramVector[1] = gradient ? -0.7 : -1.1;
    AnalyticFunctional f(&t, valley(gradient ? 100.0 : 20.0));
    auto opt = makeSearch(s.kind);
    opt->setFunctional(&f);
    opt->optimize(gradient ? 1.0 : s.a, gradient ? 0.001 : s.b);
    if (gradient) {
      EXPECT_LT(maxDeviation(t.paramVector, {1.0, 1.0}), s.valleyTol);
    } else {
      EXPECT_LT(std::fabs(t.paramVector[0] + t.paramVector[1] - 2.0), 0.06);
      EXPECT_LT(std::fabs(t.paramVector[0] - t.paramVector[1]), s.valleyTol);
    }
  }
}

TEST_F(OptimizerTest, AggressivePassesRaiseTheThresholdAndSkipUnchangedDirections) {
  // Probes of parameter i by +-1 give +-g_i, g = (8, 4, 2, 1), every other
  // point -1: the walks and refinements never gain, so each point they try
  // is recorded in turn. Steps 2 then 1: the first step's probes gain
  // nothing. At the second the gradient is 2 g = (16, 8, 4, 2); a threshold
  // rising by 0.3 * 16 per pass keeps all four, then the first two, then the
  // first; the fourth pass (14.4) would not change the direction and is left
  // out. Each pass tries one walking step along its direction and, from the
  // second step size on, one refinement pair at half of it (all rounds with
  // full refinement).
  const Point d1 = {1, 0.5, 0.25, 0.125}, d2 = {1, 0.5, 0, 0}, d3 = {1, 0, 0, 0};
  struct Case {
    double thresholdStep;
    int fullRefinement;
    std::vector<Point> directions;
    Point moves;
  } cases[] = {{0.3, 0, {d1, d2, d3}, {1, 0.5, -0.5}},
               {0.3, 1, {d1, d2, d3}, {1, 0.5, -0.5, 0.25, -0.25}},
               {0.0, 0, {d1}, {1, 0.5, -0.5}},
               {0.6, 0, {d1, d3}, {1, 0.5, -0.5}}};
  for (const Case& k : cases) {
    TestTransform t(4);
    TestCallback cb;
    const double g[4] = {8, 4, 2, 1};
    AnalyticFunctional f(&t, [&](const QbDVector<double>& p) {
      if (f.calls.empty() || f.calls.back().first != 'I')
        return f.calls.empty() ? 0.0 : -1.0;
      for (int i = 0; i < 4; i++)
        if (p[i] != 0)
          return std::fabs(p[i]) < 1.5 ? g[i] * p[i] : -1.0;
      return -1.0;
    });
    f.onCall = [&] { cb.stop = cb.stop || f.calls.back().first == 'E'; }; // seen after the passes
    ZrAggressiveDirectionOptimizer opt(&cb, 0.5, k.thresholdStep, k.fullRefinement, 3);
    opt.setFunctional(&f);
    opt.optimize(2.0, 1.0);
    std::vector<Point> expected;
    for (const Point& d : k.directions)
      for (double m : k.moves)
        expected.push_back({d[0] * m, d[1] * m, d[2] * m, d[3] * m});
    EXPECT_EQ(f.pointsOf('E'), expected) << k.thresholdStep << ", full " << k.fullRefinement;
  }
}

TEST_F(OptimizerTest, AggressiveSearchCopiesTheBestProbeWithItsParameterAtTheLowerProbe) {
  // f = x + y - 10 x y: each single probe up by 1 gains, every move along
  // the combined direction loses. The search falls back on the copy of its
  // best probe, taken when parameter 0 probed upwards, but holding that
  // parameter at its lower probe, -1: the second sweep's upper probe of
  // parameter 0 is at 0.
  TestTransform t(2);
  AnalyticFunctional f(&t,
                       [](const QbDVector<double>& p) { return p[0] + p[1] - 10.0 * p[0] * p[1]; });
  TestCallback cb;
  f.onCall = [&] { cb.stop = f.count('I') == 5; };
  ZrAggressiveDirectionOptimizer opt(&cb, 0.5, 0.1, 0, 3);
  opt.setFunctional(&f);
  opt.optimize(1.0, 1.0);
  EXPECT_EQ(f.pointsOf('I'), (std::vector<Point>{{1, 0}, {-1, 0}, {0, 1}, {0, -1}, {0, 0}}));
  EXPECT_EQ(Point(&t.paramVector[0], &t.paramVector[0] + 2), Point({0, 0}));
  // Any upward probe of parameter 1 is invalid: it never moves, the other
  // one still reaches its optimum.
  TestTransform u(2);
  AnalyticFunctional h(&u, [](const QbDVector<double>& p) {
    return p[1] > 1e-9 ? INVALID_VALUE : -(p[0] - 0.7) * (p[0] - 0.7) - (p[1] - 0.5) * (p[1] - 0.5);
  });
  ZrAggressiveDirectionOptimizer o2(nullptr, 0.5, 0.1, 0, 3);
  o2.setFunctional(&h);
  o2.optimize(1.0, 1.0 / 64);
  EXPECT_EQ(u.paramVector[1], 0.0);
  EXPECT_NEAR(u.paramVector[0], 0.7, 2.0 / 64);
}

TEST_F(OptimizerTest, StopsLeaveTheParametersAtTheLastPointEvaluated) {
  const Coupled c(7);
  struct Case {
    const char* name;
    int search;
    char kind;
    int stopAt;
    bool viaCallback;
  } cases[] = {
      // Upward probes: parameter 0 of the first sweep, 6 as its last probe
      // pair, and parameter 0 of the second sweep.
      {"aggressive", 0, 'I', 1, false},
      {"aggressive", 0, 'I', 13, true},
      {"aggressive", 0, 'I', 15, false},
      // The gradient methods, during the first bracket; the line search at
      // the poll after its second gradient.
      {"conjugate gradients", 4, 'E', 3, true},
      {"quasi-Newton", 5, 'E', 3, false},
      {"steepest descent", 3, 'E', 3, false},
      {"line search", 2, 'G', 2, false},
  };
  for (const Case& k : cases) {
    wa->clearInterrupt();
    messages.clear();
    TestTransform t(7);
    AnalyticFunctional f(&t, c.objective());
    TestCallback cb;
    f.onCall = [&] {
      if (f.calls.back().first == k.kind && f.count(k.kind) == k.stopAt)
        k.viaCallback ? void(cb.stop = true) : wa->requestInterrupt();
    };
    auto opt = makeSearch(k.search, &cb);
    opt->setFunctional(&f);
    opt->optimize(1.0, 1.0 / 64);
    EXPECT_EQ(f.count(k.kind), k.stopAt) << k.name;
    ASSERT_EQ(f.calls.back().first, k.kind) << k.name;
    EXPECT_EQ(Point(&t.paramVector[0], &t.paramVector[0] + 7), f.last()) << k.name;
    EXPECT_EQ(log.starting("step size    :").size(), 0u) << k.name;
  }
  // A stop before the search begins changes nothing.
  messages.clear();
  wa->requestInterrupt();
  TestTransform t(7);
  AnalyticFunctional f(&t, c.objective());
  ZrAggressiveDirectionOptimizer opt(nullptr, 0.5, 0.1, 0, 3);
  opt.setFunctional(&f);
  opt.optimize(1.0, 1.0 / 64);
  EXPECT_TRUE(f.calls.empty());
  EXPECT_TRUE(messages.empty());
}

TEST_F(OptimizerTest, LineSearchWalkingLimitAndStepSchedules) {
  // 8 walking steps on the coarsest level down to 2 on the finest.
  struct Limit {
    int level, numLevels, expected;
  } limits[] = {{0, 4, 8}, {1, 4, 6}, {2, 4, 4}, {3, 4, 2}, {1, 3, 5},
                {2, 3, 2}, {0, 1, 8}, {1, 2, 2}, {4, 6, 3}};
  for (const Limit& k : limits) {
    TestTransform t(0);
    AnalyticFunctional f(&t, [](const QbDVector<double>&) { return 0.0; });
    ZrBestDirectionOptimizer opt(nullptr, 0.5, 1e-8, 0, false);
    opt.setFunctional(&f);
    opt.setProgressLevel(k.level, k.numLevels);
    opt.optimize(1.0, 0.5);
    EXPECT_EQ(opt.maxLineSteps, k.expected) << "level " << k.level << " of " << k.numLevels;
  }
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
      // 0.3, 0.2; a start below three end steps goes straight to the end.
      {false, 0.5, 8.0, 0.1, 2, 3, {"   8", "   4", " 1.6", "0.48", " 0.1"}},
      {false, 0.5, 0.25, 0.1, 0, 3, {" 0.1"}},
      // Extensive: geometric, the ratio fitted to the range and kept for the
      // next call (log(1/128) / log(0.6) = 9.5: nine ratios of
      // (1/128)^(1/9)); equal steps make one step and the ratio 0.5.
      {true, 0.5, 8.0, 1.0, 2, 3, {"   8", "   4", "   2", "   1"}},
      {true, 0.6, 2.0, 1.0 / 64, 0, 1, {"   2", "...", "0.015625"}},
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
    // "..." stands for the steps between the first and the last: ten in all.
    std::vector<std::string> expected, steps = log.starting("Setting step size to ");
    for (const char* s : k.steps)
      expected.push_back(std::string("Setting step size to ") + s + "\n");
    if (expected.size() > 1 && expected[1] == "Setting step size to ...\n") {
      ASSERT_EQ(steps.size(), 10u);
      steps.erase(steps.begin() + 1, steps.end() - 1);
      expected.erase(expected.begin() + 1);
    }
    EXPECT_EQ(steps, expected) << k.extensive << " " << k.a;
    // Every step size reports, also with a zero gradient.
    EXPECT_EQ(log.starting(" Metric result = -2.500000\n").size(),
              log.starting("Setting step").size());
    EXPECT_DOUBLE_EQ(opt.stepFactor, k.factor == 0.6 ? std::pow(1.0 / 128, 1.0 / 9) : 0.5);
  }
}

TEST_F(OptimizerTest, GradientLineSearchBoundsItsStep) {
  // F(x) = (x - 3)^2 - 9 along d = 1 from 0: the line minimum lies beyond a
  // bound of 0.5; the trial step is cut to half the bound and the move stops
  // at the bound (p the new point, d the move, the step a length). A bound
  // of 0 turns the limits off; a narrow bump at the bound makes that point
  // worse than the start, and the step is halved until it is not.
  auto F = [](double x) { return (x - 3.0) * (x - 3.0) - 9.0; };
  auto bumpy = [F](double x) { return F(x) + 5.0 * std::exp(-std::pow((x - 0.5) / 0.05, 2)); };
  struct Case {
    std::function<double(double)> G;
    double bound, step0, p, d, step, fret, tol, secondSample;
  } cases[] = {{F, 0.5, 10.0, 0.5, 0.5, 0.5, F(0.5), 0, 0.25},
               {[F](double x) { return F(-x); }, 0.5, 0.1, -0.5, -0.5, 0.5, F(0.5), 0, -1},
               {F, 0.0, 10.0, 3.0, -1, -1, -9.0, 0.05, -1},
               {bumpy, 0.5, 10.0, 0.25, 0.25, 0.25, bumpy(0.25), 0, -1}};
  for (const Case& c : cases) {
    TestTransform t(1);
    AnalyticFunctional f(&t, [G = c.G](const QbDVector<double>& p) { return -G(p[0]); });
    ZrGradientOptimizer opt(nullptr, 1e-4, 0.5);
    opt.setFunctional(&f);
    QbDVector<double> p(1), d(1, 1.0);
    double fret = 0.0, step = c.step0;
    opt.linmin(p, d, c.bound, 1, &fret, &step);
    SCOPED_TRACE(testing::Message() << "bound " << c.bound << ", start step " << c.step0);
    EXPECT_EQ(t.paramVector[0], p[0]);
    if (c.tol > 0) {
      EXPECT_NEAR(p[0], c.p, c.tol);
      EXPECT_NEAR(fret, c.fret, 1e-2);
      continue;
    }
    if (c.secondSample > 0) {
      ASSERT_GE(opt.lineSamples.size(), 2);
      EXPECT_DOUBLE_EQ(opt.lineSamples[1].t, c.secondSample);
    }
    EXPECT_DOUBLE_EQ(p[0], c.p);
    EXPECT_DOUBLE_EQ(d[0], c.d);
    EXPECT_DOUBLE_EQ(step, c.step);
    EXPECT_DOUBLE_EQ(fret, c.fret);
  }
}

TEST_F(OptimizerTest, GradientMovesOnASevenParameterAffineTransformKeepTheScale) {
  // The optimum wants the scale (entry 6) at 10, ten times its start, and
  // moves the translations too. No move may change the scale by more than
  // half of its present value; the gradients are taken at the accepted
  // points.
  RegAffineTransform t;
  t.setDegreesOfFreedomDirect(7);
  for (int i = 0; i < t.paramVector.size(); i++)
    t.paramVector[i] = i >= 6 && i <= 8 ? 1.0 : 0.0;
  AnalyticFunctional f(&t, [](const QbDVector<double>& p) {
    const double target[7] = {2.0, -1.0, 0.5, 0.0, 0.0, 0.0, 10.0};
    double v = 0.0;
    for (int i = 0; i < 7; i++)
      v -= (p[i] - target[i]) * (p[i] - target[i]);
    return v;
  });
  ZrGradientOptimizer opt(nullptr, 1e-10, 0.5);
  opt.setFunctional(&f);
  opt.optimize(1.0, 0.01);
  const std::vector<Point> points = f.pointsOf('G');
  ASSERT_GE(points.size(), 3u);
  EXPECT_DOUBLE_EQ(points[1][6], 1.5); // the first move runs into the bound
  for (size_t k = 1; k < points.size(); k++) {
    EXPECT_LE(points[k][6], 1.5 * points[k - 1][6] * (1 + 1e-12)) << "move " << k;
    EXPECT_GE(points[k][6], 0.5 * points[k - 1][6] * (1 - 1e-12)) << "move " << k;
  }
  EXPECT_NEAR(t.paramVector[6], 10.0, 1e-3);
  EXPECT_NEAR(t.paramVector[0], 2.0, 1e-3);
  EXPECT_EQ(t.paramVector[7], 1.0); // beyond the degrees of freedom
}

TEST_F(OptimizerTest, QuasiNewtonFallsBackToTheGradientWhenAnUpdateLosesDescent) {
  // f = -((x - 1)^2 + (y - 0.5)^2) from the origin. The first gradient
  // (1, 0.5) leads straight to the optimum. The second, forged as (1, 1),
  // makes y^T s negative: the updated inverse Hessian turns -H g into
  // (-1/3, -1), an ascent direction of the negated functional, and the
  // search must fall back to the forged gradient's direction (1, 1), with
  // the one move made so far (1 in units of (1, 0.5)) as its trial step,
  // not an average with the start step 0.5.
  TestTransform t(2);
  AnalyticFunctional f(&t, [](const QbDVector<double>& p) {
    return -((p[0] - 1.0) * (p[0] - 1.0) + (p[1] - 0.5) * (p[1] - 0.5));
  });
  f.forged = [](int call, QbDVector<double>& g) {
    g[0] = 1.0;
    g[1] = call == 1 ? 0.5 : 1.0;
    return call <= 2;
  };
  ZrGradientOptimizer opt(nullptr, 1e-10, 0.5);
  opt.setFunctional(&f);
  opt.optimize(0.5, 0.01);
  size_t k = 0;
  for (int gradients = 0; k < f.calls.size() && gradients < 2; k++)
    gradients += f.calls[k].first == 'G';
  ASSERT_LT(k + 1, f.calls.size());
  const Point& start = f.calls[k - 1].second;
  EXPECT_NEAR(start[0], 1.0, 0.02);
  EXPECT_NEAR(start[1], 0.5, 0.01);
  ASSERT_EQ(f.calls[k].first, 'E');
  ASSERT_EQ(f.calls[k + 1].first, 'E');
  const double dx = f.calls[k + 1].second[0] - start[0], dy = f.calls[k + 1].second[1] - start[1];
  EXPECT_GT(dx, 0.0);
  EXPECT_NEAR(dx, dy, 1e-12);
  EXPECT_NEAR(dx, start[0], 1e-12);
}

// The exact gradient on the scale of the elastic functionals' (twice the
// derivative), by differences small enough for the objectives here.
void exactGradient(AnalyticFunctional& f) {
  f.forged = [&f](int, QbDVector<double>& g) {
    QbDVector<double>& p = f.transform->paramVector;
    for (int i = 0; i < p.size(); i++) {
      if (f.transform->getParamStep(i, nullptr) == 0.0)
        continue;
      const double old = p[i], h = 1e-6;
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

TEST_F(OptimizerTest, LimitedMemorySearchTakesAboutOneEvaluationPerIteration) {
  const Coupled c60(60);
  // The Rosenbrock valley, negated: maximum 0 at (1, 1).
  Objective banana = [](const QbDVector<double>& p) {
    const double a = 1.0 - p[0], b = p[1] - p[0] * p[0];
    return -(a * a + 100.0 * b * b);
  };
  // Beyond p0 = 1.6 the functional rejects the transform, as an elastic one
  // does a fold; the maximum lies at (1.5, 1.5), and a first trial of 10
  // goes deep into the rejected side. Parameter 2 is frozen.
  Objective folded = [](const QbDVector<double>& p) {
    if (p[0] > 1.6)
      return INVALID_VALUE;
    return -((p[0] - 1.5) * (p[0] - 1.5) + 2.0 * (p[1] - 1.5) * (p[1] - 1.5) + p[2] * p[2]);
  };
  struct Case {
    const char* name;
    Objective objective;
    Point start, optimum;
    double firstMove;
    std::vector<double> steps;
  } cases[] = {{"coupled quadratic", c60.objective(), Point(60), c60.c, 0.5, {}},
               {"narrow valley", valley(1000.0), {-1.5, -0.7}, {1.0, 1.0}, 0.5, {}},
               {"banana", banana, {-1.2, 1.0}, {1.0, 1.0}, 0.5, {}},
               {"rejected trials", folded, {0.0, 0.0, 0.3}, {1.5, 1.5, 0.3}, 10.0, {1, 1, 0}}};
  for (const Case& k : cases) {
    TestTransform t(int(k.start.size()));
    for (size_t i = 0; i < k.start.size(); i++)
      t.paramVector[i] = k.start[i];
    for (size_t i = 0; i < k.steps.size(); i++)
      t.steps[i] = k.steps[i];
    AnalyticFunctional f(&t, k.objective);
    exactGradient(f);
    TestCallback cb;
    ZrLimitedMemoryOptimizer opt(&cb, 1e-14);
    opt.firstMove = k.firstMove;
    opt.setFunctional(&f);
    opt.optimize(1.0, 0.01);
    for (size_t i = 0; i < k.optimum.size(); i++)
      EXPECT_NEAR(t.paramVector[i], k.optimum[i], t.steps[i] == 0 ? 0.0 : 1e-5) << k.name;
    EXPECT_LT(opt.iterations, opt.maxIterations) << k.name;
    EXPECT_LE(opt.evaluations, 2 * opt.iterations + 10) << k.name;
    // The gradient form is all it calls, and a search that ends is shown.
    EXPECT_EQ(f.count('E') + f.count('I'), 0) << k.name;
    EXPECT_EQ(opt.evaluations, f.count('G')) << k.name;
    EXPECT_GE(cb.numApply, 1) << k.name;
  }
  // A bound on the move per iteration holds from the first trial on.
  TestTransform t(1);
  AnalyticFunctional f(&t, [](const QbDVector<double>& p) { return -(p[0] - 5) * (p[0] - 5); });
  exactGradient(f);
  ZrLimitedMemoryOptimizer opt(nullptr, 1e-14);
  opt.firstMove = 4.0;
  opt.maxMove = 0.5;
  opt.setFunctional(&f);
  opt.optimize(1.0, 0.01);
  EXPECT_NEAR(t.paramVector[0], 5.0, 1e-6);
  for (const Point& p : f.pointsOf('G'))
    EXPECT_LE(p[0], 5.5 + 1e-9);
  EXPECT_GE(opt.iterations, 10);
}
