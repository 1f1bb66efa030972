// The analytic gradient against central differences of evaluate(), on smooth
// pairs whose model header holds a rotation, a scale and a shift.
#include "ElasticTestSupport.h"

#include "RegElasticAnalyticGradient.h"
#include "SbMatrixd.h"
#include "SbRotationd.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace elastictest;

namespace {

// Rotates the model about its centre (about z in 2-D), scales and moves it.
void moveModel(ElasticSetup& s, bool twoD) {
  float box[6];
  s.model->getBoundingBox(box);
  const SbVec3d centre((box[0] + box[1]) / 2, (box[2] + box[3]) / 2, (box[4] + box[5]) / 2);
  const SbRotationd rotation(twoD ? SbVec3d(0, 0, 1) : SbVec3d(0.3, -0.5, 0.8), 0.2);
  const SbVec3d scale(1.06, 0.93, twoD ? 1.0 : 1.04);
  const SbVec3d shift(0.4, -0.3, twoD ? 0.0 : 0.25);
  SbMatrixd m;
  m.setTransform(shift, rotation, scale, SbRotationd(), centre);
  s.model->setTransform(m);
}

// (f(p + h) - f(p - h)) / h: the scale of the functional's own gradient.
QbDVector<double> centralDifferences(RegElasticFunctional& f, double h) {
  QbDVector<double>& p = f.transform->paramVector;
  QbDVector<double> g(p.size(), 0.0);
  for (int i = 0; i < p.size(); i++) {
    if (f.paramSteps[i] == 0.0f)
      continue;
    const double saved = p[i];
    p[i] = saved + h;
    const double up = f.evaluate();
    p[i] = saved - h;
    const double down = f.evaluate();
    p[i] = saved;
    g[i] = (up - down) / h;
  }
  return g;
}

double relativeDifference(QbDVector<double> a, const QbDVector<double>& b) {
  a -= b;
  return a.norm() / b.norm();
}

struct Case {
  const char* name;
  bool twoD, regular;
  MetricKind kind;
  float energy, jacobian;
  bool landmarks;
};

class AnalyticGradient : public ::testing::TestWithParam<Case> {};

// The pair, a lattice moved off rest, the functional, one point fixed.
void build(ElasticSetup& s, const Case& c) {
  // The model reaches four voxels beyond the reference, so that no moved
  // sample falls outside it and jumps to 0.
  const int d3[3] = {26, 24, 20}, d2[3] = {80, 72, 1};
  const int* dims = c.twoD ? d2 : d3;
  // Stretched: gentler slopes bend less at the voxel faces, where the
  // trilinear sample's gradient jumps.
  auto wide = [](double x, double y, double z) { return pattern(0.45 * x, 0.45 * y, 0.45 * z); };
  s.reference = makeVolume<float>(dims, QB_FLOAT, wide);
  s.model =
      makeVolume<float>(dims, QB_FLOAT, wide, 0.6, -0.45, c.twoD ? 0.0 : 0.35, c.twoD ? 12 : 4);
  s.refs.append(s.reference.get());
  s.models.append(s.model.get());
  moveModel(s, c.twoD);
  if (c.landmarks) {
    // Pairs spread over the reference, each model point near its own.
    const int n = 24;
    s.landmarks = std::make_unique<ZrLandmarkSet>(2);
    s.landmarks->setNumMarkers(n);
    unsigned r = 777;
    auto next = [&r]() {
      r = r * 1103515245u + 12345u;
      return ((r >> 8) & 0xffff) / 65535.0;
    };
    for (int i = 0; i < n; i++) {
      const float z = c.twoD ? 0.0f : 1.0f;
      const QbVec3f ref((float)(1 + next() * (dims[0] - 3)), (float)(1 + next() * (dims[1] - 3)),
                        z * (float)(1 + next() * (dims[2] - 3)));
      const QbVec3f off((float)(next() - 0.5), (float)(next() - 0.5), z * (float)(next() - 0.5));
      s.landmarks->setPosition(ref + off, i, 0);
      s.landmarks->setPosition(ref, i, 1);
    }
  }
  s.makeTransform(c.twoD ? 6 : 5, c.twoD);
  if (c.landmarks)
    s.transform->setLandmarks(s.landmarks.get());
  s.perturb(0.2);
  // Few bins, so that the entropy does not bend within a probe; correlation
  // windows that take every value.
  RegMetric* metric = nullptr;
  if (c.kind == NMI)
    metric = new RegNormMutualInformation(QB_FLOAT, QB_FLOAT, 0, 130, 0, 130, 12, 12, 1.0);
  else if (c.kind == MI)
    metric = new RegSimpleMutualInformation(QB_FLOAT, QB_FLOAT, 0, 130, 0, 130, 12, 12, 1.0);
  else if (c.kind == CORR)
    metric = new RegCorrelationRatio(-1000, 1000, -1000, 1000, 1.0);
  else
    metric = makeMetric(c.kind);
  s.makeFunctional(c.regular, c.kind, c.energy, c.jacobian, RegDataClassGrey, false,
                   c.landmarks ? 0.05f : 0.0f, metric);
  RegElasticFunctional& f = *s.functional;
  s.transform->setControlPointInactive(3 * 10);
  for (int i = 30; i < 33; i++)
    f.paramSteps[i] = (float)s.transform->getParamStep(i, nullptr);
}

TEST_P(AnalyticGradient, AgreesWithCentralDifferencesOfTheObjective) {
  const Case c = GetParam();
  ElasticSetup s;
  build(s, c);
  RegElasticFunctional& f = *s.functional;
  RegElasticAnalyticGradient analytic;
  analytic.numThreads = 2;
  // The parallel pass gives the functional's own objective, up to rounding.
  const double serial = f.evaluate();
  EXPECT_NEAR(serial, analytic.value(f, false), 1e-6 * std::fabs(serial));
  QbDVector<double> g(s.transform->paramVector.size());
  const double value = analytic.evaluate(f, g);
  ASSERT_NE(REG_INVALID_VALUE, value);
  // Work units are summed in a fixed order: the same to the last bit for any
  // number of threads.
  for (int threads : {1, 3, 7}) {
    RegElasticAnalyticGradient other;
    other.numThreads = threads;
    QbDVector<double> h(g.size());
    other.evaluate(f, h);
    EXPECT_TRUE(h == g) << threads << " threads";
  }
  // The step balances float rounding against the kinks of the trilinear
  // sample and the soft bins.
  const QbDVector<double> cd = centralDifferences(f, 4e-3);
  EXPECT_LT(relativeDifference(g, cd), 1e-3);
  for (int i = 30; i < 33; i++)
    EXPECT_EQ(0.0, g[i]);
  if (c.twoD) {
    for (int i = 2; i < g.size(); i += 3)
      EXPECT_EQ(0.0, g[i]);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Forms, AnalyticGradient,
    ::testing::Values(Case{"nmi3", false, true, NMI, 0, 0, false},
                      Case{"mi3", false, true, MI, 0, 0, false},
                      Case{"corr3", false, false, CORR, 0, 0, false},
                      Case{"nmi3penalties", false, true, NMI, 0.5f, 0.5f, false},
                      Case{"msd3jacobian", false, true, MSD, 0, 300.0f, false},
                      Case{"msd3generalpenalties", false, false, MSD, 200.0f, 200.0f, false},
                      Case{"nmi3landmarks", false, true, NMI, 0, 0, true},
                      Case{"nmi2landmarks", true, true, NMI, 0, 0, true},
                      Case{"nmi2penalties", true, true, NMI, 0.5f, 0.5f, false},
                      Case{"corr2", true, false, CORR, 0, 0, false}),
    [](const ::testing::TestParamInfo<Case>& i) { return std::string(i.param.name); });

} // namespace

// Chosen on the functional, the analytic gradient answers evaluate(g, ...)
// with the central differences' value; label difference has none.
TEST(AnalyticGradientChoice, TakenWhereAvailable) {
  for (bool regular : {true, false}) {
    ElasticSetup s;
    build(s, Case{"", false, regular, MSD, 0, 0, true});
    RegElasticFunctional& f = *s.functional;
    QbDVector<double> fd(s.transform->paramVector.size());
    const double fdValue = f.evaluate(fd, 0.01, 1);
    f.gradientMethod = 1;
    f.init();
    ASSERT_NE(nullptr, f.analyticGradient);
    QbDVector<double> g(fd.size()), direct(fd.size());
    EXPECT_NEAR(fdValue, f.evaluate(g, 0.01, 0), 1e-6 * std::fabs(fdValue));
    RegElasticAnalyticGradient analytic;
    analytic.evaluate(f, direct);
    EXPECT_TRUE(g == direct);
  }
  ElasticSetup s;
  s.build(false, true, LABEL);
  s.functional->gradientMethod = 1;
  s.functional->init();
  EXPECT_EQ(nullptr, s.functional->analyticGradient);
  EXPECT_NE(std::string::npos, s.messages.text.find("No analytic gradient"));
}
