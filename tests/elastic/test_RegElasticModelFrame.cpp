// The elastic functionals with a model whose header carries a rotation and
// scale: the probes must follow that map, a fold must not leave the parameters
// in local coordinates, and the Jacobian penalty must be 0 at rest.
#include "ElasticTestSupport.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace elastictest;

namespace {

// Local to world, row vectors: an oblique rotation, an anisotropic scale and
// a shift; in 2-D a rotation about z with a scale in x and y.
SbMatrix headerMatrix(bool twoD) {
  SbMatrix m;
  if (twoD)
    m.setTransform(SbVec3f(2.5f, -1.5f, 0.0f), SbRotationd(SbVec3d(0, 0, 1), 0.6),
                   SbVec3f(1.2f, 0.85f, 1.0f));
  else
    m.setTransform(SbVec3f(3.0f, -2.0f, 1.5f), SbRotationd(SbVec3d(1, 2, 3), 0.7),
                   SbVec3f(1.25f, 0.8f, 1.1f));
  return m;
}

struct FrameCase {
  bool twoD, regular;
  MetricKind kind;
  float energyWeight, jacobianWeight;
  int workers; // 1: the serial loop
};

class ElasticModelFrame : public ::testing::TestWithParam<FrameCase> {};

// Every gradient entry equals (f(p + d) - f(p - d)) / d of whole
// evaluations, and the parameters come back in world coordinates.
TEST_P(ElasticModelFrame, GradientMatchesCentralDifferences) {
  const FrameCase c = GetParam();
  ElasticSetup s;
  s.makeData(c.twoD, c.kind);
  s.moveModelHeader(headerMatrix(c.twoD), c.kind);
  s.makeTransform(6, c.twoD);
  ASSERT_TRUE(s.transform->modelTransformed);
  s.perturb(0.15);
  s.makeFunctional(c.regular, c.kind, c.energyWeight, c.jacobianWeight);
  RegElasticFunctional& f = *s.functional;
  if (c.workers > 1) {
    f.numThreads = (short)c.workers;
    f.createThreads();
  }
  QbDVector<double>& p = s.transform->paramVector;
  const QbDVector<double> before = p;
  const double step = 0.3;
  const float d = (float)step;
  QbDVector<double> g(p.size());
  f.evaluate(g, step, 1);
  ASSERT_EQ(before, p) << "the parameters stay in world coordinates";

  const double scale = g.maxAbs();
  int nonZero = 0;
  for (int i = 0; i < p.size(); i++) {
    if (c.twoD && i % 3 == 2)
      continue;
    p[i] = before[i] + d;
    const double up = f.evaluate();
    p[i] = (double)((float)before[i] - d);
    const double down = f.evaluate();
    p[i] = before[i];
    EXPECT_NEAR((up - down) / d, g[i], 1e-4 * scale + 1e-6) << "parameter " << i;
    nonZero += g[i] != 0.0;
  }
  EXPECT_GT(nonZero, p.size() / 4);
}

INSTANTIATE_TEST_SUITE_P(Forms, ElasticModelFrame,
                         ::testing::Values(FrameCase{false, true, NMI, 0, 0, 1},
                                           FrameCase{false, true, MSD, 1.0f, 0.5f, 3},
                                           FrameCase{false, false, MSD, 0, 0, 1},
                                           FrameCase{false, false, NMI, 1.0f, 0.5f, 3},
                                           FrameCase{true, true, MSD, 0, 0, 1},
                                           FrameCase{true, true, NMI, 1.0f, 0.5f, 3},
                                           FrameCase{true, false, MSD, 0, 0, 3}));

// A fold, in a probe or in the caching pass itself, ends that evaluation
// early; the parameters must still come back in world coordinates.
TEST(ElasticModelFrameFold, FoldLeavesParametersInWorldCoordinates) {
  for (bool regular : {true, false}) {
    ElasticSetup s;
    s.makeData(false, MSD);
    s.moveModelHeader(headerMatrix(false), MSD);
    s.makeTransform(6, false);
    s.perturb(0.1);
    s.makeFunctional(regular, MSD, 0, 1.0f);
    RegElasticFunctional& f = *s.functional;
    QbDVector<double>& p = s.transform->paramVector;
    const QbDVector<double> before = p;
    // dT/dx changes by at most d * 0.5 * (2/3)^2 per spacing: six fold.
    const double step = 6.0 * s.transform->gridSpacing[0];
    f.evaluateAndCacheWithRegularizer();
    const int i = 3 * ((2 * 6 + 2) * 6 + 2);
    p[i] += step;
    RegElasticFunctionalRegular* r = dynamic_cast<RegElasticFunctionalRegular*>(&f);
    EXPECT_EQ(REG_INVALID_VALUE, r ? r->evaluateIncrementalWithRegularizer(i, (float)step)
                                   : f.evaluateIncrementalWithRegularizer(i));
    p[i] = before[i];
    EXPECT_EQ(before, p) << "after a folding probe";

    QbDVector<double> g(p.size());
    EXPECT_NE(REG_INVALID_VALUE, f.evaluate(g, step, 0));
    EXPECT_EQ(before, p) << (regular ? "regular" : "general") << ": after folded probes";

    p[i] += 3.0 * step;
    const QbDVector<double> folded = p;
    EXPECT_EQ(REG_INVALID_VALUE, f.evaluate(g, 0.3, 0));
    EXPECT_EQ(folded, p) << "after a folded caching pass";
    EXPECT_EQ(REG_INVALID_VALUE, f.evaluate());
    EXPECT_EQ(folded, p) << "after a folded full pass";
  }
}

// At rest the Jacobian penalty is 0 whatever the model's header holds: an
// anisotropic scale with a rotation, or a reflection (which must not count
// as a fold).
TEST(ElasticModelFrameRest, JacobianPenaltyIsZeroAtRest) {
  struct Header {
    bool twoD;
    SbMatrix m;
  };
  SbMatrix mirror, flatMirror;
  mirror.setTransform(SbVec3f(14, 0, 0), SbRotationd(SbVec3d(0, 1, 1), 0.3),
                      SbVec3f(-1.0f, 1.1f, 0.9f));
  flatMirror.setTransform(SbVec3f(0, 16, 0), SbRotationd(SbVec3d(0, 0, 1), -0.4),
                          SbVec3f(0.9f, -1.0f, 1.0f));
  for (const Header& h : {Header{false, headerMatrix(false)}, Header{false, mirror},
                          Header{true, headerMatrix(true)}, Header{true, flatMirror}}) {
    ElasticSetup s;
    s.makeData(h.twoD, MSD);
    s.moveModelHeader(h.m, MSD);
    s.makeTransform(5, h.twoD);
    s.makeFunctional(true, MSD, 0, 1.0f);
    const double v = s.functional->evaluateAndCacheWithRegularizer();
    ASSERT_NE(REG_INVALID_VALUE, v) << "the rest state is no fold";
    const double n = (double)s.reference->lattice.numNodes();
    EXPECT_NEAR(0.0, s.functional->jacobianSum / n, 1e-5)
        << (h.twoD ? "2-D" : "3-D") << " rest volume scale " << s.transform->modelVolumeScale;
  }
}

} // namespace
