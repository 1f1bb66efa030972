// The elastic functionals on synthetic volumes: the cache and the incremental
// probe against full evaluations, the gradient against central differences,
// the keepAll rule, the landmark term, and the refusal of a two-dimensional
// regularised run on the general class.
#include "ElasticTestSupport.h"
#include "reg_evaluateElasticStill.h"
#include "reg_evaluateUniformSimd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cfloat>
#include <cmath>
#include <vector>

using namespace elastictest;

namespace {

struct Case {
  bool twoD;
  bool regular;
  MetricKind kind;
};

std::string caseName(const ::testing::TestParamInfo<Case>& info) {
  return std::string(info.param.regular ? "Regular" : "General") + (info.param.twoD ? "2D" : "3D") +
         metricName(info.param.kind);
}

// Relative closeness for objective values, which differ only by the float
// rounding of incrementally updated positions.
void expectClose(double expected, double actual, double rel, const std::string& what) {
  EXPECT_NEAR(expected, actual, rel * std::max(1.0, std::fabs(expected))) << what;
}

class ElasticConsistency : public ::testing::TestWithParam<Case> {};

// After a caching pass, a probe of one moved parameter equals a full
// evaluation at the moved parameters; each probe starts from the cache, not
// from the previous probe.
TEST_P(ElasticConsistency, ProbeEqualsFullEvaluation) {
  const Case c = GetParam();
  ElasticSetup s;
  s.build(c.twoD, c.regular, c.kind);
  RegElasticFunctional& f = *s.functional;
  QbDVector<double>& p = s.transform->paramVector;
  const double cached = f.evaluateAndCache();
  EXPECT_NEAR(cached, f.evaluate(), 1e-12 * std::max(1.0, std::fabs(cached)));

  // Control points inside the lattice, with boxes of influence full of voxels.
  const int n = s.transform->gridSize[0];
  const int cp = c.twoD ? 2 * n + 2 : (2 * n + 2) * n + 3;
  // Labels change only where a sample crosses to another voxel: a larger move.
  const float d = c.kind == LABEL ? 3.0f : 0.375f;
  int changed = 0;
  for (int axis = 0; axis < (c.twoD ? 2 : 3); axis++) {
    const int i = 3 * cp + axis;
    f.evaluateAndCache();
    // A probe of another parameter first: it must leave no trace.
    const int other = 3 * (cp + 1) + axis;
    p[other] += d;
    f.evaluateIncremental(other, d);
    f.evaluateProbe(other, d);
    p[other] -= d;

    p[i] += d;
    const double probe = f.evaluateIncremental(i, d);
    // The gradient's probe, which shares one taking out of the box among the
    // probes of a control point, gives the same up to rounding.
    expectClose(probe, f.evaluateProbe(i, d), 1e-12, "shared, axis " + std::to_string(axis));
    expectClose(probe, f.evaluateProbe(i, d), 1e-12, "again, axis " + std::to_string(axis));
    const double full = f.evaluate();
    p[i] -= d;
    expectClose(full, probe, 2e-5, "axis " + std::to_string(axis));
    changed += cached != full;
  }
  // The moves changed something, so the comparisons mean something.
  EXPECT_GT(changed, 0);
}

// Entry = (f(p + d) - f(p - d)) / d with d in single precision; parameters
// come back unchanged, and the value is the caching pass's.
TEST_P(ElasticConsistency, GradientMatchesCentralDifferences) {
  const Case c = GetParam();
  ElasticSetup s;
  s.build(c.twoD, c.regular, c.kind);
  RegElasticFunctional& f = *s.functional;
  QbDVector<double>& p = s.transform->paramVector;
  const QbDVector<double> before = p;
  const double step = c.kind == LABEL ? 3.0 : 0.3;
  const float d = (float)step;
  QbDVector<double> g(p.size());
  const double value = f.evaluate(g, step, 1);
  EXPECT_EQ(before, p);
  EXPECT_NEAR(value, f.evaluate(), 1e-12 * std::max(1.0, std::fabs(value)));

  int nonZero = 0;
  double scale = 0;
  for (int i = 0; i < p.size(); i++)
    scale = std::max(scale, std::fabs(g[i]));
  ASSERT_GT(scale, 0.0);
  for (int i = 0; i < p.size(); i++) {
    if (c.twoD && i % 3 == 2) {
      EXPECT_EQ(0.0, g[i]) << "z parameter " << i;
      continue;
    }
    p[i] = before[i] + d;
    const double up = f.evaluate();
    p[i] = (double)((float)before[i] - d);
    const double down = f.evaluate();
    p[i] = before[i];
    const double expected = (up - down) / d;
    EXPECT_NEAR(expected, g[i], 1e-4 * scale + 1e-6) << "parameter " << i;
    nonZero += g[i] != 0.0;
  }
  EXPECT_GT(nonZero, p.size() / 4);
}

std::vector<Case> allCases() {
  std::vector<Case> cases;
  for (bool twoD : {false, true}) {
    for (MetricKind k : {MSD, NMI, MI, LABEL})
      cases.push_back({twoD, true, k});
    cases.push_back({twoD, false, CORR});
    cases.push_back({twoD, false, MSD});
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(AllMetrics, ElasticConsistency, ::testing::ValuesIn(allCases()), caseName);

// At the optimum (model equals reference, lattice at rest) no probe improves
// on the base: keepAll 0 gives exact zeros, keepAll 1 the raw differences.
// (The regular class clamps into the model; the general one would read 0 for
// border voxels that the rest lattice puts a rounding error outside.)
TEST(ElasticGradient, KeepAllZeroAtOptimumGivesZeros) {
  for (bool regular : {true}) {
    ElasticSetup s;
    s.makeData(false, MSD);
    s.models[0] = s.reference.get();
    s.makeTransform(6, false);
    s.makeFunctional(regular, MSD);
    QbDVector<double> g0(s.transform->paramVector.size()), g1(g0.size());
    const double v0 = s.functional->evaluate(g0, 0.4, 0);
    const double v1 = s.functional->evaluate(g1, 0.4, 1);
    EXPECT_NEAR(0.0, v0, 1e-6);
    EXPECT_EQ(v0, v1);
    int nonZero = 0;
    for (int i = 0; i < g0.size(); i++) {
      EXPECT_EQ(0.0, g0[i]) << i;
      nonZero += g1[i] != 0.0;
    }
    EXPECT_GT(nonZero, 0) << "keepAll 1 keeps the differences";
  }
}

// A frozen coordinate gets 0 without any probe (a stop: see the threads test).
TEST(ElasticGradient, FrozenParameters) {
  ElasticSetup s;
  s.build(false, true, MSD);
  s.transform->setControlPointInactive(3 * 40);
  s.functional->init();
  QbDVector<double> g(s.transform->paramVector.size(), 7.0);
  s.functional->evaluate(g, 0.3, 1);
  for (int i = 120; i < 123; i++)
    EXPECT_EQ(0.0, g[i]);
}

// Landmarks: the term is minus the mean squared distance between transformed
// reference markers and model markers. The general class's gradient returns
// the caching value with the term added once more; the regular class does not.
TEST(ElasticLandmarks, TermCountedTwiceByGeneralOnceByRegular) {
  for (bool regular : {false, true}) {
    ElasticSetup s;
    s.makeData(false, MSD);
    s.landmarks = std::make_unique<ZrLandmarkSet>(2);
    const QbVec3f pairs[3][2] = {
        {{4, 5, 6}, {4.5f, 5, 6}}, {{10, 3, 7}, {10, 4, 7}}, {{8, 9, 2}, {8, 9, 3.5f}}};
    for (auto& pr : pairs)
      s.landmarks->appendLandmark(pr, 2);
    s.makeTransform(6, false);
    s.transform->setLandmarks(s.landmarks.get());
    s.makeFunctional(regular, MSD, 0, 0, RegDataClassGrey, false, 0.25f);
    RegElasticFunctional& f = *s.functional;
    // At rest the transformed reference markers (set 1) stay where they are,
    // and the model markers are set 0.
    const double expectedTerm = -(0.25 + 1.0 + 2.25) / 3.0;
    EXPECT_NEAR(expectedTerm, f.evaluateLandmarks(), 1e-5);

    f.landmarkWeight = 0.0f;
    const double metricOnly = f.evaluate();
    f.landmarkWeight = 0.25f;
    const double withTerm = f.evaluate();
    EXPECT_NEAR(metricOnly + 0.25 * expectedTerm, withTerm, 1e-6);
    EXPECT_NEAR(withTerm, f.evaluateAndCache(), 1e-6);
    QbDVector<double> g(s.transform->paramVector.size());
    const double gradValue = f.evaluate(g, 0.3, 1);
    const double times = regular ? 1.0 : 2.0;
    EXPECT_NEAR(metricOnly + times * 0.25 * expectedTerm, gradValue, 1e-6)
        << (regular ? "regular" : "general");
  }
}

// resetEval sets the sampling state on both metrics of the regular class; an
// axis without extent gets scale 0. Bit 0 of the box flags looks at the low
// eight bits of the truncated x extent only, so 256 leaves it clear.
TEST(ElasticRegular, SamplingStateAndBoxFlags) {
  ElasticSetup s;
  s.build(true, true, MSD);
  auto* r = static_cast<RegElasticFunctionalRegular*>(s.functional.get());
  EXPECT_EQ(0.0f, r->scaleZ);
  EXPECT_FLOAT_EQ(1.0f, r->scaleX);
  EXPECT_EQ(3, r->boxFlags);
  for (RegMetric* m : {r->metric, r->metricWork}) {
    EXPECT_EQ(r->modelBox, m->box);
    EXPECT_EQ(r->modelDims, m->dims);
    EXPECT_EQ(0.0f, m->boxSize[2]);
    EXPECT_EQ(1, m->inside);
  }

  ElasticSetup w;
  w.makeData(false, MSD);
  const int dims[3] = {5, 5, 5};
  const float box[6] = {0, 256, 0, 13, 0, 11};
  auto wide = std::make_unique<ZrUniformScalarField3>(dims, QB_FLOAT, box);
  w.models[0] = wide.get();
  w.makeTransform(4, false);
  w.makeFunctional(true, MSD);
  auto* rw = static_cast<RegElasticFunctionalRegular*>(w.functional.get());
  EXPECT_EQ(6, rw->boxFlags);
  EXPECT_FLOAT_EQ(4.0f / 256.0f, rw->scaleX);
  w.functional.reset();
}

// The general class has no two-dimensional regularised form: the check
// refuses it with a message, and init drops the weights as a last guard.
TEST(ElasticRefusal, TwoDimensionalRegularizerOnGeneralClass) {
  ElasticSetup s;
  s.makeData(true, CORR);
  s.makeTransform(6, true);
  EXPECT_TRUE(RegElasticFunctional::checkRegularizer(s.reference.get(), 0.5f, 0.0f, true));
  EXPECT_TRUE(RegElasticFunctional::checkRegularizer(s.reference.get(), 0.0f, 0.0f, false));
  s.messages.text.clear();
  EXPECT_FALSE(RegElasticFunctional::checkRegularizer(s.reference.get(), 0.5f, 0.0f, false));
  EXPECT_NE(std::string::npos, s.messages.text.find("two-dimensional"));
  s.makeFunctional(false, CORR, 0.5f, 0.5f);
  EXPECT_EQ(0, s.functional->regularizerMode);
  EXPECT_TRUE(std::isfinite(s.functional->evaluate()));
}

} // namespace

namespace {

// A metric class the probes do not know: its increment and decrement reach
// the walks through the virtual slots. Every other bit of it is its base's.
template <class Base> class Opaque : public Base {
public:
  using Base::Base;
  RegMetric* clone() const override { return new Opaque(*this); }
};

RegMetric* makeOpaque(MetricKind k) {
  switch (k) {
  case MSD:
    return new Opaque<RegMeanSquaredDifference>(1.0);
  case NMI:
    return new Opaque<RegNormMutualInformation>(QB_FLOAT, QB_FLOAT, 0, 130, 0, 130, 24, 24, 1.0);
  case MI:
    return new Opaque<RegSimpleMutualInformation>(QB_FLOAT, QB_FLOAT, 0, 130, 0, 130, 24, 24, 1.0);
  case LABEL:
    return new Opaque<RegLabelDifference>(1.0);
  default:
    return nullptr;
  }
}

} // namespace

// Probes bound at compile time (for mutual information in 3-D, the walk whose
// probes share the model cell) give the gradient and value of the virtual
// calls to the last bit, with and without penalties, in 3-D and 2-D.
TEST(ElasticRegular, BoundMetricCallsChangeNoBit) {
  struct Run {
    bool twoD;
    MetricKind kind;
    float energy, jacobian;
  };
  const Run runs[] = {{false, NMI, 0, 0},      {false, MI, 0, 0},      {false, MSD, 0, 0},
                      {false, LABEL, 0, 0},    {true, NMI, 0, 0},      {false, NMI, 0.5f, 0.1f},
                      {true, MSD, 0.5f, 0.1f}, {false, LABEL, 0.2f, 0}};
  // The bound walk in its AVX2 form (where the processor has it) and in
  // its scalar form.
  const bool simd = reg_evaluateUniformSimd();
  for (int form = 0; form < (simd ? 2 : 1); form++)
    for (const Run& r : runs) {
      reg_evaluateUniformSimd() = simd && form == 0;
      const std::string what = std::string(metricName(r.kind)) + (r.twoD ? " 2D" : " 3D") +
                               (r.energy > 0 ? " penalised" : "") + (form ? " scalar" : "");
      QbDVector<double> g[2];
      double value[2];
      for (int opaque = 0; opaque < 2; opaque++) {
        ElasticSetup s;
        s.makeData(r.twoD, r.kind);
        s.makeTransform(6, r.twoD);
        s.perturb(0.2);
        s.makeFunctional(true, r.kind, r.energy, r.jacobian, RegDataClassGrey, false, 0,
                         opaque ? makeOpaque(r.kind) : makeMetric(r.kind));
        g[opaque].resize(s.transform->paramVector.size());
        value[opaque] = s.functional->evaluate(g[opaque], r.kind == LABEL ? 3.0 : 0.3, 1);
      }
      EXPECT_EQ(value[0], value[1]) << what;
      int nonZero = 0;
      for (int i = 0; i < g[0].size(); i++) {
        ASSERT_EQ(g[0][i], g[1][i]) << what << " parameter " << i;
        nonZero += g[0][i] != 0.0;
      }
      EXPECT_GT(nonZero, g[0].size() / 4) << what;
    }
  reg_evaluateUniformSimd() = simd;
}

// Still voxels (one model value wherever a probe may move them) are left out
// of both halves of a point's probes. Against the virtual-call walk, which
// takes every voxel out and puts it back, the gradient agrees to 1e-9 of its
// largest entry (measured: below 1e-12); the AVX2 and scalar forms skip
// alike and agree to the last bit. The constant blocks the map is read from
// match a brute-force search.
TEST(ElasticRegular, StillVoxelsChangeTheGradientOnlyByRounding) {
  const bool simd = reg_evaluateUniformSimd();
  for (MetricKind kind : {NMI, MI}) {
    QbDVector<double> g[3];
    double value[3];
    size_t still = 0, total = 0;
    for (int run = 0; run < 3; run++) {
      // 0: bound walk, AVX2 where there is; 1: bound walk, scalar; 2: virtual
      // calls.
      reg_evaluateUniformSimd() = simd && run == 0;
      ElasticSetup s;
      s.makeData(false, kind);
      s.clearBackground();
      s.makeTransform(6, false);
      s.perturb(0.2);
      s.makeFunctional(true, kind, 0, 0, RegDataClassGrey, false, 0,
                       run == 2 ? makeOpaque(kind) : makeMetric(kind));
      g[run].resize(s.transform->paramVector.size());
      value[run] = s.functional->evaluate(g[run], 0.3, 1);
      auto* r = static_cast<RegElasticFunctionalRegular*>(s.functional.get());
      if (run == 0) {
        ASSERT_NE(nullptr, r->stillVoxels) << metricName(kind);
        total = r->stillMap.size();
        still = std::count(r->stillMap.begin(), r->stillMap.end(), 1);
      } else if (run == 2) {
        EXPECT_EQ(nullptr, r->stillVoxels);
      }
    }
    reg_evaluateUniformSimd() = simd;
    EXPECT_GT(still, total / 4) << metricName(kind);
    EXPECT_LT(still, total * 3 / 4) << metricName(kind);
    EXPECT_EQ(value[0], value[2]);
    double largest = 0, off = 0;
    for (int i = 0; i < g[2].size(); i++) {
      ASSERT_EQ(g[0][i], g[1][i]) << metricName(kind) << " parameter " << i;
      largest = std::max(largest, std::fabs(g[2][i]));
      off = std::max(off, std::fabs(g[0][i] - g[2][i]));
    }
    EXPECT_GT(largest, 0.0);
    EXPECT_LE(off, 1e-9 * largest) << metricName(kind);
  }

  // Plateaus of five voxels a side, single odd voxels and a NaN.
  for (const std::array<int, 3> d : {std::array<int, 3>{13, 12, 11}, {1, 14, 9}, {17, 1, 1}}) {
    const size_t n = (size_t)d[0] * d[1] * d[2];
    std::vector<float> model(n);
    unsigned seed = 7;
    size_t v = 0;
    for (int k = 0; k < d[2]; k++)
      for (int j = 0; j < d[1]; j++)
        for (int i = 0; i < d[0]; i++, v++) {
          seed = seed * 1103515245u + 12345u;
          model[v] = (seed >> 16) % 17 == 0 ? 2.0f : (float)((i / 5 + j / 5 + k / 5) % 2);
        }
    model[n / 3] = NAN;
    std::vector<uint8_t> blocks(n), scratch(n);
    reg_evaluateElasticConstantBlocks(model.data(), d.data(), blocks.data(), scratch.data());
    size_t found = 0;
    for (int k = 0; k < d[2]; k++)
      for (int j = 0; j < d[1]; j++)
        for (int i = 0; i < d[0]; i++) {
          const size_t v = ((size_t)k * d[1] + j) * d[0] + i;
          bool same = !std::isnan(model[v]);
          for (int c = std::max(k - 1, 0); c <= std::min(k + 2, d[2] - 1); c++)
            for (int b = std::max(j - 1, 0); b <= std::min(j + 2, d[1] - 1); b++)
              for (int a = std::max(i - 1, 0); a <= std::min(i + 2, d[0] - 1); a++)
                same = same && model[((size_t)c * d[1] + b) * d[0] + a] == model[v];
          ASSERT_EQ(same, blocks[v] == 1) << d[0] << "x" << d[1] << "x" << d[2] << " voxel " << v;
          found += same;
        }
    EXPECT_GT(found, 0u);
    EXPECT_LT(found, n);
  }
}

// A float reference with a byte model (a pair a script may connect): the
// regular class samples both as float, so value and gradient are those of
// the same pair with the model converted to float first.
TEST(ElasticRegular, ModelOfAnotherVoxelTypeIsSampledAsFloat) {
  auto asFloat = [](const ZrUniformScalarField3& f) {
    float box[6];
    f.getBoundingBox(box);
    auto out = std::make_unique<ZrUniformScalarField3>(f.getDims(), QB_FLOAT, box);
    for (size_t i = 0; i < f.lattice.numNodes(); i++)
      out->lattice.setValue(i, f.lattice.getValueAsFloat(i));
    return out;
  };
  QbDVector<double> g[2];
  double value[2];
  for (int converted = 0; converted < 2; converted++) {
    ElasticSetup s;
    s.makeData(false, NMI, QB_UINT8);
    s.reference = asFloat(*s.reference);
    s.refs[0] = s.reference.get();
    if (converted) {
      s.model = asFloat(*s.model);
      s.models[0] = s.model.get();
    }
    s.makeTransform(6, false);
    s.perturb(0.2);
    s.makeFunctional(true, NMI, 0.5f, 0.1f);
    EXPECT_EQ(converted == 0, s.messages.text.find("sampled as float") != std::string::npos);
    g[converted].resize(s.transform->paramVector.size());
    value[converted] = s.functional->evaluate(g[converted], 0.3, 1);
  }
  EXPECT_EQ(value[0], value[1]);
  EXPECT_EQ(g[0], g[1]);
}
