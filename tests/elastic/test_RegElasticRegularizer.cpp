// The regularised elastic objective: the penalties at rest, regularised
// probes, and folding lattices.
#include "ElasticTestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

using namespace elastictest;

namespace {

// Index of the x parameter of control point (i, j, k).
int param(const ElasticSetup& s, int i, int j, int k) {
  const int* n = s.transform->gridSize;
  return 3 * ((k * n[1] + j) * n[0] + i);
}

// At rest the deformation is the identity: no bending, and the volume kept,
// so the regularised value equals the metric's.
TEST(ElasticRegularizer, RestValueEqualsMetricIn3D) {
  for (bool regular : {false, true}) {
    ElasticSetup s;
    s.makeData(false, MSD);
    s.makeTransform(6, false);
    s.makeFunctional(regular, MSD);
    const double metricOnly = s.functional->evaluate();
    s.makeFunctional(regular, MSD, 2.0f, 3.0f);
    // The rest lattice is built by float additions: zero to float accuracy.
    EXPECT_NEAR(metricOnly, s.functional->evaluate(), 1e-4);
    EXPECT_NEAR(metricOnly, s.functional->evaluateAndCacheWithRegularizer(), 1e-4);
    EXPECT_NEAR(0.0, s.functional->energySum, 1e-6);
    EXPECT_NEAR(0.0, s.functional->jacobianSum / (16.0 * 14.0 * 12.0), 1e-4);
  }
}

// The flat case takes the third Jacobian column and the z second derivatives
// as (1, 1, 1): the energy holds 3 (sz sz + 2 sx sz + 2 sy sz) at every
// voxel, and the determinant of (Tx, Ty, (1, 1, 1)) times sx sy is 1 at rest.
TEST(ElasticRegularizer, FlatRestValueHoldsConstantEnergyTerm) {
  ElasticSetup s;
  s.makeData(true, MSD);
  s.makeTransform(6, true);
  s.makeFunctional(true, MSD);
  const double metricOnly = s.functional->evaluate();
  // A flat lattice has inverse z spacing 0; one is set to see the column.
  s.transform->invGridSpacing[2] = 0.25f;
  const float* inv = s.transform->invGridSpacing;
  const double constant = 3.0 * ((double)(inv[2] * inv[2]) + 2.0 * (double)(inv[0] * inv[2]) +
                                 2.0 * (double)(inv[1] * inv[2]));
  for (float ew : {0.5f, 2.0f}) {
    s.makeFunctional(true, MSD, ew, 1.0f);
    const double v = s.functional->evaluate();
    EXPECT_NEAR(metricOnly - ew * constant, v, 1e-4) << ew;
    s.functional->evaluateAndCacheWithRegularizer();
    const double n =
        (double)static_cast<RegElasticFunctionalRegular*>(s.functional.get())->regularNumVoxels;
    EXPECT_EQ(22.0 * 18.0, n);
    EXPECT_NEAR(-constant * n, s.functional->energySum, 1e-6 * n * (1 + constant));
    EXPECT_NEAR(0.0, s.functional->jacobianSum, 1e-3);
  }
}

struct RegCase {
  bool twoD, regular;
  float energyWeight, jacobianWeight;
};

class RegularizedConsistency : public ::testing::TestWithParam<RegCase> {};

// A regularised probe after one moved parameter equals a full regularised
// evaluation there (the gradient is checked with the model frame).
TEST_P(RegularizedConsistency, ProbeEqualsFullEvaluation) {
  const RegCase c = GetParam();
  ElasticSetup s;
  s.build(c.twoD, c.regular, MSD, 6, 0.25, c.energyWeight, c.jacobianWeight);
  RegElasticFunctional& f = *s.functional;
  RegElasticFunctionalRegular* r = dynamic_cast<RegElasticFunctionalRegular*>(&f);
  QbDVector<double>& p = s.transform->paramVector;
  const double base = f.evaluateAndCacheWithRegularizer();
  EXPECT_NEAR(base, f.evaluate(), 1e-9 * std::max(1.0, std::fabs(base)));
  if (c.energyWeight > 0) {
    EXPECT_NE(0.0, f.energySum);
  }
  const int cp = c.twoD ? param(s, 2, 2, 0) : param(s, 3, 2, 2);
  const float d = 0.4f;
  for (int axis = 0; axis < (c.twoD ? 2 : 3); axis++) {
    const int i = cp + axis;
    f.evaluateAndCacheWithRegularizer();
    p[i] += d;
    const double inc =
        r ? r->evaluateIncrementalWithRegularizer(i, d) : f.evaluateIncrementalWithRegularizer(i);
    const double full = f.evaluate();
    p[i] -= d;
    EXPECT_NEAR(full, inc, 2e-5 * std::max(1.0, std::fabs(full))) << axis;
    EXPECT_NE(base, full);
  }
}

INSTANTIATE_TEST_SUITE_P(Forms, RegularizedConsistency,
                         ::testing::Values(RegCase{false, false, 1.0f, 0.5f},
                                           RegCase{false, true, 1.0f, 0.5f},
                                           RegCase{false, true, 0.0f, 2.0f},
                                           RegCase{true, true, 1.0f, 0.5f},
                                           RegCase{true, true, 3.0f, 0.0f}));

// One control point pushed several spacings over its neighbours folds the
// deformation: the Jacobian term rejects it, the energy term alone does not.
TEST(ElasticRegularizer, FoldGivesInvalidValue) {
  // The flat case has the regular class only.
  for (int form = 0; form < 3; form++) {
    const bool twoD = form == 2, regular = form > 0;
    ElasticSetup s;
    s.makeData(twoD, MSD);
    s.makeTransform(6, twoD);
    const int i = twoD ? param(s, 2, 2, 0) : param(s, 2, 2, 2);
    s.transform->paramVector[i] += 7.0 * s.transform->gridSpacing[0];
    s.makeFunctional(regular, MSD, 0.0f, 1.0f);
    EXPECT_EQ(REG_INVALID_VALUE, s.functional->evaluate());
    QbDVector<double> g(s.transform->paramVector.size(), 5.0);
    EXPECT_EQ(REG_INVALID_VALUE, s.functional->evaluate(g, 0.3, 0));
    EXPECT_EQ(5.0, g[0]) << "the gradient stays as it was";
    s.makeFunctional(regular, MSD, 1.0f, 0.0f);
    EXPECT_TRUE(std::isfinite(s.functional->evaluate()));
  }
}

// Probes that fold: the general class writes 0 for them, the regular class
// one common replacement taken from the entries that did not fold.
TEST(ElasticRegularizer, FoldedProbesInGradient) {
  for (bool regular : {false, true}) {
    ElasticSetup s;
    s.makeData(false, MSD);
    s.makeTransform(6, false);
    QbDVector<double>& p = s.transform->paramVector;
    const int fold = param(s, 2, 2, 2);
    const float d = s.transform->gridSpacing[0];
    p[fold] = (double)(float)(p[fold] + 3.0 * d);
    s.makeFunctional(regular, MSD, 0.0f, 1.0f);
    RegElasticFunctional& f = *s.functional;
    RegElasticFunctionalRegular* r = dynamic_cast<RegElasticFunctionalRegular*>(&f);
    ASSERT_NE(REG_INVALID_VALUE, f.evaluateAndCacheWithRegularizer());
    std::vector<bool> folded(p.size(), false);
    int numFolded = 0;
    for (int i = 0; i < p.size(); i++) {
      const double saved = p[i];
      p[i] = saved + d;
      const double up =
          r ? r->evaluateIncrementalWithRegularizer(i, d) : f.evaluateIncrementalWithRegularizer(i);
      p[i] = (double)((float)saved - d);
      const double down = r ? r->evaluateIncrementalWithRegularizer(i, -d)
                            : f.evaluateIncrementalWithRegularizer(i);
      folded[i] = up == REG_INVALID_VALUE || down == REG_INVALID_VALUE;
      p[i] = saved;
      numFolded += folded[i];
    }
    ASSERT_GT(numFolded, 0);
    ASSERT_LT(numFolded, p.size() / 2);
    EXPECT_TRUE(folded[fold]);

    QbDVector<double> g(p.size());
    f.evaluate(g, d, 0);
    std::set<double> unfolded, replacements;
    for (int i = 0; i < p.size(); i++)
      (folded[i] ? replacements : unfolded).insert(g[i]);
    ASSERT_EQ(1u, replacements.size());
    const double v = *replacements.begin();
    if (regular) {
      EXPECT_NE(0.0, v);
      EXPECT_EQ(1u, unfolded.count(v)) << v;
    } else {
      EXPECT_EQ(0.0, v);
    }
  }
}

} // namespace
