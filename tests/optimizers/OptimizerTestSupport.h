#pragma once
// Analytic objectives for the optimizer tests: a transform that is nothing but
// a parameter vector with chosen natural steps, a functional that evaluates a
// closed-form function of it (with the central-difference gradient of the
// registration functionals), a module view that counts, and a fixture that
// captures the message stream and resets the work area.
#include "QbDVector.h"
#include "RegFunctional.h"
#include "RegOptimizerCallback.h"
#include "RegParametricTransform.h"
#include "ZrMessage.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace zrtest {

typedef std::function<double(const QbDVector<double>&)> Objective;

// The functional's value for a folding deformation or a stop.
const double INVALID_VALUE = -3.4028234663852886e+38;

// n parameters, all variable, each with its own natural step (0 freezes one).
class TestTransform : public RegParametricTransform {
public:
  explicit TestTransform(int n, double step = 1.0) : steps(n, step) { paramVector.resize(n); }
  void update() override {}
  int getParamVectorDim() const override { return paramVector.size(); }
  int getVariableParamVectorDim() const override { return paramVector.size(); }
  double getParamStep(int index, SbVec3d*) const override { return steps[index]; }
  std::vector<double> steps;
};

// Evaluates `objective` on the transform's parameters. The gradient form
// probes each variable parameter by plus and minus step times its natural
// step and returns raw differences, with the keepAll rule of the
// registration functionals. `gradientOverride`, when set and returning true,
// replaces that gradient. Every call is logged with the parameters it saw.
class AnalyticFunctional : public RegFunctional {
public:
  AnalyticFunctional(RegParametricTransform* t, Objective objective)
      : RegFunctional(QbDArray<ZrSpatialData*>(), QbDArray<ZrSpatialData*>(), t, nullptr, nullptr),
        objective(std::move(objective)) {
    size = QbVec3f(10.0f, 10.0f, 10.0f);
  }

  double value() const { return objective(transform->paramVector); }

  double evaluate() override {
    numEvaluate++;
    record('E');
    if (onEvaluate)
      onEvaluate();
    return value();
  }
  double evaluateAndCache() override {
    numCache++;
    return value();
  }
  double evaluateIncremental(int index, double) override {
    numIncremental++;
    probedIndices.push_back(index);
    record('I');
    if (onEvaluate)
      onEvaluate();
    return value();
  }
  double evaluate(QbDVector<double>& gradient, double step, int keepAll) override {
    numGradient++;
    record('G');
    const double f0 = value();
    const int n = transform->getVariableParamVectorDim();
    gradient.fill(0.0);
    if (gradientOverride && gradientOverride(numGradient, gradient))
      return f0;
    SbVec3d extent(size.x, size.y, size.z);
    QbDVector<double>& p = transform->paramVector;
    for (int i = 0; i < n; i++) {
      const double s = transform->getParamStep(i, &extent);
      const double old = p[i];
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

  // The parameters of every call, and the kind of call: 'E' evaluate(),
  // 'I' evaluateIncremental(), 'G' the gradient form.
  struct Call {
    char kind;
    QbDVector<double> params;
  };
  void record(char kind) {
    if (logCalls)
      calls.push_back(Call{kind, transform->paramVector});
  }
  std::vector<QbDVector<double>> positionsOf(char kind) const {
    std::vector<QbDVector<double>> r;
    for (const Call& c : calls)
      if (c.kind == kind)
        r.push_back(c.params);
    return r;
  }

  Objective objective;
  int numEvaluate = 0, numCache = 0, numIncremental = 0, numGradient = 0;
  std::vector<int> probedIndices;
  bool logCalls = true;
  std::vector<Call> calls;
  // Called on evaluate() and evaluateIncremental(), after the call is counted.
  std::function<void()> onEvaluate;
  std::function<bool(int call, QbDVector<double>& gradient)> gradientOverride;
};

class TestCallback : public RegOptimizerCallback {
public:
  bool applyTransform(RegParametricTransform*) override {
    numApply++;
    return stopOnApply;
  }
  bool checkForInterrupt() override { return stop; }
  void trace(const char*) override {}
  int numApply = 0;
  bool stopOnApply = false;
  bool stop = false;
};

// f(p) = -(p - c)^T A (p - c) with A = D^1/2 (I + 0.3 T) D^1/2, T the
// tridiagonal of ones, D = diag(w): concave, coupled, maximum 0 at c.
inline Objective coupledQuadratic(const std::vector<double>& c, const std::vector<double>& w) {
  return [c, w](const QbDVector<double>& p) {
    const int n = (int)c.size();
    double f = 0.0;
    for (int i = 0; i < n; i++) {
      const double di = (p[i] - c[i]) * std::sqrt(w[i]);
      f -= di * di;
      if (i + 1 < n)
        f -= 2.0 * 0.3 * di * (p[i + 1] - c[i + 1]) * std::sqrt(w[i + 1]);
    }
    return f;
  };
}

// -sum (1 + i) (p_i - c_i)^2: separable, maximum 0 at c.
inline Objective separable(const std::vector<double>& c) {
  return [c](const QbDVector<double>& p) {
    double v = 0.0;
    for (size_t i = 0; i < c.size(); i++)
      v -= (1.0 + i) * (p[(int)i] - c[i]) * (p[(int)i] - c[i]);
    return v;
  };
}

// Optimum and weights of a coupled quadratic in n parameters.
inline void quadraticProblem(int n, std::vector<double>& c, std::vector<double>& w) {
  c.resize(n);
  w.resize(n);
  for (int i = 0; i < n; i++) {
    c[i] = 0.9 * std::sin(1.7 * i + 0.3) + 0.05 * i / n;
    w[i] = 1.0 + (i % 4);
  }
}

// A narrow straight valley along the diagonal: f = -(u^2 + K v^2) / 2 with
// u = x + y - 2 along the floor and v = x - y across it; condition number K,
// maximum 0 at (1, 1).
inline Objective narrowValley(double K) {
  return [K](const QbDVector<double>& p) {
    const double u = p[0] + p[1] - 2.0;
    const double v = p[0] - p[1];
    return -0.5 * (u * u + K * v * v);
  };
}

// Largest deviation of p from c over the first c.size() entries.
inline double maxDeviation(const QbDVector<double>& p, const std::vector<double>& c) {
  double m = 0.0;
  for (size_t i = 0; i < c.size(); i++)
    m = std::max(m, std::fabs(p[(int)i] - c[i]));
  return m;
}

class OptimizerTest : public ::testing::Test {
protected:
  void SetUp() override {
    msg = ZrMessage::getTheMsg();
    oldSink = msg->setSink([this](const std::string& t) { messages.push_back(t); });
    wa->clearInterrupt();
  }
  void TearDown() override {
    msg->setSink(oldSink);
    wa->clearInterrupt();
    wa->setProgressValue(0.0f);
  }
  std::vector<std::string> lines(const std::string& prefix) const {
    std::vector<std::string> r;
    for (const std::string& m : messages)
      if (m.compare(0, prefix.size(), prefix) == 0)
        r.push_back(m);
    return r;
  }
  static std::string format(const char* f, double v) {
    char buf[128];
    std::snprintf(buf, sizeof buf, f, v);
    return buf;
  }

  ZrWorkArea* wa = ZrWorkArea::getTheWorkArea();
  ZrMessage* msg = nullptr;
  ZrMessage::Sink oldSink;
  std::vector<std::string> messages;
};

} // namespace zrtest
