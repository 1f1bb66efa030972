// Fixing control points over regions with nothing to match: labels (only
// background), grey values (low entropy), metrics without histograms (all).
#include "ElasticTestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

using namespace elastictest;

namespace {

// 12^3 voxels, an 8^3 lattice: boxes of influence cover up to four of the
// five cells per axis, so points far from a corner see nothing of it.
struct FixSetup : ElasticSetup {
  void make(std::function<double(double, double, double)> ref,
            std::function<double(double, double, double)> mod, int nx = 12) {
    const int dims[3] = {nx, 12, 12};
    reference = makeVolume<float>(dims, QB_FLOAT, ref);
    model = makeVolume<float>(dims, QB_FLOAT, mod);
    refs.append(reference.get());
    models.append(model.get());
    makeTransform(8, false);
  }
  bool boxContains(int c, const int* v) const {
    float from[3], to[3];
    transform->getVolumeOfInfluence(3 * c, from, to, 0);
    for (int a = 0; a < 3; a++)
      if (v[a] < (int)from[a] || v[a] > (int)to[a])
        return false;
    return true;
  }
  void runGradient() {
    QbDVector<double> g(transform->paramVector.size());
    functional->evaluate(g, 0.3, 0);
  }
  std::string expectedMessage(int count) const {
    char buf[100];
    snprintf(buf, sizeof buf, "Deactivated %d out of %d control points.\n", count,
             transform->getParamVectorDim() / 3);
    return buf;
  }
};

double zero(double, double, double) { return 0.0; }

TEST(ElasticFixedPoints, LabelsFixPointsThatSeeOnlyBackground) {
  const int seen[2][3] = {{1, 1, 1}, {10, 9, 10}};
  for (int which = 0; which < 2; which++) {
    // One labelled voxel, in the reference near one corner or in the model
    // near the other.
    const int* v = seen[which];
    auto dot = [v](double x, double y, double z) {
      return x == v[0] && y == v[1] && z == v[2] ? 3.0 : 0.0;
    };
    FixSetup s;
    if (which == 0)
      s.make(dot, zero);
    else
      s.make(zero, dot);
    // A point that would be fixed but is not new is not examined.
    const int points = s.transform->getParamVectorDim() / 3;
    int skipped = -1;
    for (int c = 0; c < points && skipped < 0; c++)
      if (!s.boxContains(c, v))
        skipped = c;
    s.transform->newControlPoints[skipped] = 0;
    s.makeFunctional(true, LABEL, 0, 0, RegDataClassLabel, true);
    s.messages.text.clear();
    s.runGradient();
    int expected = 0;
    for (int c = 0; c < points; c++) {
      const bool fixed = c != skipped && !s.boxContains(c, v);
      expected += fixed;
      EXPECT_EQ(fixed ? 0 : 1, (int)s.transform->activeControlPoints[c]) << c;
      if (fixed) {
        for (int p = 3 * c; p < 3 * c + 3; p++)
          EXPECT_EQ(0.0f, s.functional->paramSteps[p]);
      }
    }
    EXPECT_GT(expected, 0);
    EXPECT_LT(expected, points - 1);
    EXPECT_EQ(s.expectedMessage(expected), s.messages.text);
    // It runs once per functional.
    s.messages.text.clear();
    s.runGradient();
    EXPECT_EQ("", s.messages.text);
  }
}

// Squared difference writes 0 for both entropies: both ranges are 0 to the
// smallest normal float, both midpoints lie above 0, and every point goes.
TEST(ElasticFixedPoints, MetricsWithoutHistogramsFixAllPoints) {
  for (MetricKind k : {MSD, CORR}) {
    FixSetup s;
    s.make(pattern, pattern);
    s.makeFunctional(k == MSD, k, 0, 0, RegDataClassGrey, true);
    s.messages.text.clear();
    s.runGradient();
    const int points = s.transform->getParamVectorDim() / 3;
    EXPECT_EQ(s.expectedMessage(points), s.messages.text);
    QbDVector<double> g(s.transform->paramVector.size(), 1.0);
    s.functional->evaluate(g, 0.3, 1);
    EXPECT_EQ(0.0, g.maxAbs()) << "no parameter is probed any more";
  }
}

// Grey values with mutual information: a point over the flat half (entropy 0
// in both images) is fixed, a point over the textured half is kept.
TEST(ElasticFixedPoints, GreyFixesLowEntropyInBothImages) {
  FixSetup s;
  auto halves = [](double x, double y, double z) { return x < 8 ? 20.0 : pattern(x, y, z); };
  s.make(halves, halves, 24);
  s.makeFunctional(true, NMI, 0, 0, RegDataClassGrey, true);
  s.runGradient();
  const int points = s.transform->getParamVectorDim() / 3;
  int fixedFlat = 0, keptTextured = 0;
  for (int c = 0; c < points; c++) {
    float from[3], to[3];
    s.transform->getVolumeOfInfluence(3 * c, from, to, 0);
    if ((int)to[0] < 8) {
      EXPECT_EQ(0, (int)s.transform->activeControlPoints[c]) << "flat " << c;
      fixedFlat++;
    }
    // Rim points see a sliver of little entropy: judge well-filled boxes.
    bool large = true;
    for (int a = 0; a < 3; a++)
      large = large && (int)to[a] - (int)from[a] >= 4;
    if ((int)from[0] >= 8 && large) {
      EXPECT_EQ(1, (int)s.transform->activeControlPoints[c]) << "textured " << c;
      keptTextured++;
    }
  }
  EXPECT_GT(fixedFlat, 0);
  EXPECT_GT(keptTextured, 0);
}

} // namespace
