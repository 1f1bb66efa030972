// The gradient by finite differences on 1, 2, 3 and 7 threads: the host's
// thread count reaches the functional, 2 and more run the workers, and every
// entry and the value equal the serial loop's bit for bit, for both classes,
// with a model transformation, penalties, landmarks, folds, and a stop.
#include "ElasticTestSupport.h"

#include "RegElasticFunctionalRegularThread.h"
#include "RegElasticFunctionalThread.h"
#include "ZrSettingsMgr.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

using namespace elastictest;

namespace {

struct ThreadCase {
  const char* name;
  bool twoD;
  bool regular;
  MetricKind kind;
  float energyWeight, jacobianWeight;
  bool modelHeader;
  bool landmarks;
  // Probe step in voxels: a large one folds the grid in some probes.
  double step;
  // 0 outside an ellipsoid: the probes skip their still voxels.
  bool background = false;
};

class ElasticThreads : public ::testing::TestWithParam<ThreadCase> {};

TEST_P(ElasticThreads, EveryThreadCountGivesTheSerialGradient) {
  const ThreadCase c = GetParam();
  ZrSettingsMgr* settings = ZrSettingsMgr::getInstance();
  const int oldThreads = settings->getNumThreads();
  QbDVector<double> serial[2];
  double serialValue[2] = {0, 0};
  for (int threads : {1, 2, 3, 7}) {
    SCOPED_TRACE(threads);
    settings->setNumThreads(threads);
    ElasticSetup s;
    s.makeData(c.twoD, c.kind);
    if (c.background)
      s.clearBackground();
    if (c.modelHeader) {
      SbMatrix m;
      m.setTransform(SbVec3f(1.5f, -1.0f, c.twoD ? 0.0f : 0.5f),
                     SbRotationd(SbVec3d(0, 0.3, 1), 0.4), SbVec3f(1.1f, 0.9f, 1.0f));
      s.moveModelHeader(m, c.kind);
    }
    if (c.landmarks) {
      // Model markers near their reference markers, spread over the volume.
      s.landmarks = std::make_unique<ZrLandmarkSet>(2);
      s.landmarks->setNumMarkers(9);
      for (int i = 0; i < 9; i++) {
        const QbVec3f r(2.0f + 1.5f * i, 3.0f + (i % 4) * 2.5f, c.twoD ? 0.0f : 1.0f + i);
        s.landmarks->setPosition(r + QbVec3f(0.4f, -0.3f, c.twoD ? 0.0f : 0.2f), i, 0);
        s.landmarks->setPosition(r, i, 1);
      }
    }
    s.makeTransform(6, c.twoD);
    ASSERT_EQ(c.modelHeader, s.transform->modelTransformed);
    if (c.landmarks)
      s.transform->setLandmarks(s.landmarks.get());
    s.perturb(0.2);
    s.makeFunctional(c.regular, c.kind, c.energyWeight, c.jacobianWeight, RegDataClassGrey, false,
                     c.landmarks ? 0.05f : 0.0f);
    RegElasticFunctional& f = *s.functional;
    ASSERT_EQ(threads, f.getNumberOfProcessors());
    RegElasticFunctionalRegular* r = dynamic_cast<RegElasticFunctionalRegular*>(&f);
    EXPECT_EQ(threads > 1 ? threads : 0, r ? r->regularThreads.size() : f.threads.size());
    // One frozen control point: its entries stay 0.
    s.transform->setControlPointInactive(3 * 20);
    for (int i = 60; i < 63; i++)
      f.paramSteps[i] = 0.0f;

    QbDVector<double>& p = s.transform->paramVector;
    const QbDVector<double> start = p;
    for (int keepAll : {1, 0}) {
      QbDVector<double> g(p.size(), 99.0);
      const double value = f.evaluate(g, c.step, keepAll);
      EXPECT_EQ(start, p);
      if (c.background) {
        ASSERT_NE(nullptr, r->stillVoxels);
      }
      if (threads == 1) {
        serial[keepAll] = g;
        serialValue[keepAll] = value;
        int nonZero = 0;
        for (int i = 0; i < p.size(); i++)
          nonZero += g[i] != 0.0;
        EXPECT_GT(nonZero, p.size() / 4) << "keepAll " << keepAll;
        EXPECT_EQ(0.0, g[61]);
        continue;
      }
      EXPECT_EQ(serialValue[keepAll], value);
      for (int i = 0; i < p.size(); i++)
        EXPECT_EQ(serial[keepAll][i], g[i]) << "entry " << i << " keepAll " << keepAll;
    }
    // A stop ends the gradient with the invalid value.
    ZrWorkArea::getTheWorkArea()->requestInterrupt();
    QbDVector<double> g(p.size());
    EXPECT_EQ(REG_INVALID_VALUE, f.evaluate(g, c.step, 1));
    ZrWorkArea::getTheWorkArea()->clearInterrupt();
    EXPECT_EQ(start, p);
  }
  settings->setNumThreads(oldThreads);
}

std::string caseName(const ::testing::TestParamInfo<ThreadCase>& info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(
    Forms, ElasticThreads,
    ::testing::Values(
        ThreadCase{"GeneralMSD", false, false, MSD, 0, 0, false, false, 0.3},
        ThreadCase{"GeneralCorrFrame", false, false, CORR, 0, 0, true, false, 0.3},
        ThreadCase{"GeneralPenalisedFrameLandmarks", false, false, NMI, 1.0f, 0.5f, true, true,
                   0.3},
        ThreadCase{"RegularNMILandmarks", false, true, NMI, 0, 0, false, true, 0.3},
        ThreadCase{"RegularPenalisedFrame", false, true, MSD, 1.0f, 0.5f, true, false, 0.3},
        ThreadCase{"RegularFolds", false, true, NMI, 0, 0.5f, false, false, 16.0},
        ThreadCase{"RegularNMIBackground", false, true, NMI, 0, 0, false, false, 0.3, true},
        ThreadCase{"Regular2DLabelFrame", true, true, LABEL, 0, 0, true, false, 0.3},
        ThreadCase{"Regular2DPenalisedLandmarks", true, true, MI, 1.0f, 0.5f, false, true, 0.3},
        ThreadCase{"Regular2DFolds", true, true, MSD, 0, 0.5f, false, false, 16.0}),
    caseName);

} // namespace
