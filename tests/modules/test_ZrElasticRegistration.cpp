// The elastic module without optimising: refinement plan, final grid size,
// and the schedule of refinements and penalty weights over a run.
#include "ElasticTestSupport.h"
#include "RegElasticFunctional.h"
#include "RegVoxelCubicSplineTransform.h"
#include "ZrElasticRegistration.h"
#include "ZrLandmarkSet.h"
#include "ZrMessage.h"
#include "ZrRegVectorField3.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace elastic_test;

namespace {

std::vector<int> plan(int levels, int refinements) {
  QbDArray<int> p;
  ZrElasticRegistration::planRefinements(p, levels, refinements);
  return std::vector<int>(p.begin(), p.end());
}

// Enters and leaves each level as the driver does, without optimising, and
// records what the schedule set.
class ScheduleModule : public ZrElasticRegistration {
public:
  struct Pass {
    int level, refinementsDone, grid[3];
    float energy, jacobian, landmark;
  };
  std::vector<Pass> passes;

  void doResolution(int level, int numLevels, RegFunctional* functional, double, double) override {
    for (;;) {
      enterResolution(level, numLevels, functional);
      RegElasticFunctional* f = dynamic_cast<RegElasticFunctional*>(functional);
      passes.push_back({level,
                        refinementsDone,
                        {splineTransform->gridSize[0], splineTransform->gridSize[1],
                         splineTransform->gridSize[2]},
                        f ? f->energyWeight : -1.0f,
                        f ? f->jacobianWeight : -1.0f,
                        f ? f->landmarkWeight : -1.0f});
      if (doneResolution(level, numLevels))
        return;
    }
  }
};

class ElasticModuleTest : public ::testing::Test {
protected:
  void SetUp() override {
    oldSink = ZrMessage::getTheMsg()->setSink([this](const std::string& t) { messages += t; });
  }
  void TearDown() override {
    ZrMessage::getTheMsg()->setSink(oldSink);
    ZrObjectPool::getTheObjectPool()->clear();
  }
  template <class M = ZrElasticRegistration> M* makeModule(const int dims[3]) {
    M* m = new M;
    addToPool(m, "ElasticRegistration");
    ZrUniformScalarField3* model = makeModel(dims);
    ZrUniformScalarField3* reference = makeModel(dims);
    addToPool(model, "model");
    addToPool(reference, "reference");
    EXPECT_TRUE(m->portReference.connect(reference));
    EXPECT_TRUE(m->portData.connect(model));
    m->fire(1);
    return m;
  }
  ZrMessage::Sink oldSink;
  std::string messages;
};

} // namespace

TEST(ElasticPlanning, RefinementPlansAndFinalGridSize) {
  EXPECT_EQ(plan(3, 3), (std::vector<int>{2, 1, 0}));
  EXPECT_EQ(plan(3, 4), (std::vector<int>{2, 1, 1}));
  EXPECT_EQ(plan(1, 2), (std::vector<int>{2})) << "the first round leaves out the finest";
  EXPECT_EQ(plan(2, 0), (std::vector<int>{0, 0}));
  EXPECT_EQ(plan(2, 3), (std::vector<int>{3, 0}));
  EXPECT_EQ(plan(3, 6), (std::vector<int>{3, 1, 2}));
  EXPECT_TRUE(plan(0, 3).empty()) << "no level takes nothing and does not hang";

  ZrElasticRegistration m;
  EXPECT_EQ(m.computeFinalGridSize(0), 11) << "4 refined 3 times: 5, 7, 11";
  m.portRefineGrid.setValue(0, 4);
  EXPECT_EQ(m.computeFinalGridSize(1), 19);
  m.portInitialGridSize.setValue(2, 6);
  m.portRefineGrid.setValue(0, 0);
  EXPECT_EQ(m.computeFinalGridSize(2), 6);
}

// The sparse finest level's stride: every second voxel of a 1 mm head, every
// third of a 0.5 mm one, every voxel of a small image, and for a very large
// one the first stride that leaves at most 2^21 samples.
TEST(ElasticPlanning, FinestStrideFollowsTheSamples) {
  struct Case {
    int dims[3];
    int64_t points;
    int stride;
  };
  const Case cases[] = {{{181, 217, 181}, 14 * 14 * 14, 2},
                        {{301, 370, 316}, 14 * 14 * 14, 3},
                        {{40, 40, 40}, 11 * 11 * 11, 1},
                        {{600, 600, 600}, 20 * 20 * 20, 5},
                        // 64 samples a point bound the stride first.
                        {{600, 600, 600}, 31 * 31 * 31, 4}};
  for (const Case& c : cases)
    EXPECT_EQ(c.stride, ZrElasticRegistration::finestStride(c.dims, c.points))
        << c.dims[0] << " x " << c.dims[1] << " x " << c.dims[2] << ", " << c.points << " points";
}

TEST_F(ElasticModuleTest, ScheduleOfRefinementsAndWeights) {
  const int dims[3] = {32, 32, 24};
  for (int refinements : {3, 4}) {
    ScheduleModule* m = makeModule<ScheduleModule>(dims);
    // Three levels, all optimised.
    m->portCoarsestResolution.setValue(0, 4);
    m->portCoarsestResolution.setValue(1, 4);
    m->portCoarsestResolution.setValue(2, 4);
    m->portOptions.setValue(0, 0);
    m->portRefineGrid.setValue(0, refinements);
    m->portRegularization.setValue(0, 2.0f); // Jacobian
    m->portRegularization.setValue(1, 5.0f); // grid energy
    ZrLandmarkSet* lm = new ZrLandmarkSet(2);
    lm->setNumMarkers(2);
    lm->setPosition(QbVec3f(10, 12, 8), 0, 0);
    lm->setPosition(QbVec3f(10, 12, 8), 0, 1);
    lm->setPosition(QbVec3f(20, 15, 14), 1, 0);
    lm->setPosition(QbVec3f(20, 15, 14), 1, 1);
    addToPool(lm, "landmarks");
    ASSERT_TRUE(m->portLandmarks.connect(lm));
    m->fire(1);
    m->portRegularization.setValue(2, 3.0f); // landmarks
    ASSERT_TRUE(m->portAction.hit(0));
    m->fire(1);

    const std::vector<int> wantPlan =
        refinements == 3 ? std::vector<int>{2, 1, 0} : std::vector<int>{2, 1, 1};
    ASSERT_EQ(m->refinePlan.size(), 3);
    EXPECT_EQ(std::vector<int>(m->refinePlan.begin(), m->refinePlan.end()), wantPlan);
    // Levels 0 and 1 run once per refinement; the last level with a
    // refinement runs once more after it.
    const std::vector<int> wantLevels =
        refinements == 3 ? std::vector<int>{0, 0, 1, 2} : std::vector<int>{0, 0, 1, 2, 2};
    ASSERT_EQ(m->passes.size(), wantLevels.size()) << "refinements " << refinements;
    // Weights by hand: grid energy 5 from the third refinement before the
    // end, a fifth per refinement still to come; Jacobian 2 falling by 0.9
    // over three levels; landmarks 3 divided by 1, 3, 5, ... per refinement
    // done, and off once all are done.
    const int sizes[] = {4, 5, 7, 11, 19};
    const float want[2][3][5] = {
        {{0, 0.2f, 1, 5}, {2, 2, 1.4f, 0.8f}, {3, 1, 0.2f, 0}},
        {{0, 0, 0.2f, 1, 5}, {2, 2, 1.4f, 0.8f, 0.8f}, {3, 1, 0.2f, 3.0f / 105, 0}}};
    const auto& w = want[refinements - 3];
    for (size_t i = 0; i < m->passes.size(); i++) {
      const ScheduleModule::Pass& p = m->passes[i];
      SCOPED_TRACE(testing::Message() << "refinements " << refinements << " pass " << i);
      EXPECT_EQ(p.level, wantLevels[i]);
      EXPECT_EQ(p.refinementsDone, (int)i);
      EXPECT_EQ(p.grid[0], sizes[i]);
      EXPECT_EQ(p.grid[2], sizes[i]);
      EXPECT_NEAR(p.energy, w[0][i], 1e-6);
      EXPECT_NEAR(p.jacobian, w[1][i], 1e-6);
      EXPECT_NEAR(p.landmark, w[2][i], 1e-6);
    }
    EXPECT_EQ(m->gridSize[0], m->computeFinalGridSize(0));
    EXPECT_EQ(m->splineTransform->gridSize[1], m->computeFinalGridSize(1));
    EXPECT_EQ(m->refinementsDone, refinements);
    // Every level left a visible result, and the run its warp and grid.
    EXPECT_NE(ZrObjectPool::getTheObjectPool()->findObject("result"), nullptr);
    EXPECT_NE(m->getResult(0), nullptr);
    // With landmarks the run ends by mapping them through the dense field of
    // the final lattice, which then stands in result 1.
    ZrRegVectorField3* field = dynamic_cast<ZrRegVectorField3*>(m->getResult(1));
    ASSERT_NE(field, nullptr);
    EXPECT_STREQ(field->getName(), "VectorField");
    EXPECT_EQ(field->getDims()[0], dims[0]);
    EXPECT_TRUE(m->portResult.isVisible());
    EXPECT_TRUE(m->portResult.isSensitive(2)) << "landmarks are connected";
    ZrObjectPool::getTheObjectPool()->clear();
  }
}

namespace {
// Asks for a stop as soon as the first level is entered.
class InterruptedModule : public ZrElasticRegistration {
public:
  int entered = 0;
  void enterResolution(int level, int numLevels, RegFunctional* functional) override {
    ZrElasticRegistration::enterResolution(level, numLevels, functional);
    if (entered++ == 0)
      ZrWorkArea::getTheWorkArea()->requestInterrupt();
  }
};
} // namespace

TEST_F(ElasticModuleTest, StopDuringRunLeavesResults) {
  const int dims[3] = {24, 24, 16};
  InterruptedModule* m = makeModule<InterruptedModule>(dims);
  for (int a = 0; a < 3; a++)
    m->portCoarsestResolution.setValue(a, 2);
  m->portMetric.setIndex(0, 2);
  m->fire(1);
  ASSERT_TRUE(m->portAction.hit(0));
  m->fire(1);
  ZrWorkArea::getTheWorkArea()->clearInterrupt();
  EXPECT_EQ(m->entered, 1) << "no level after the stop";
  EXPECT_EQ(m->functionals, nullptr);
  EXPECT_EQ(m->currentFunctional, nullptr);
  EXPECT_EQ(m->optimizer, nullptr);
  ZrRegScalarField3* warp = dynamic_cast<ZrRegScalarField3*>(m->getResult(0));
  ASSERT_NE(warp, nullptr);
  EXPECT_EQ(warp->getDims()[0], 24) << "the result is shown on the full reference";
  EXPECT_NE(m->transform, nullptr) << "a later run continues from here";
  EXPECT_TRUE(m->portResult.isVisible());
}

TEST_F(ElasticModuleTest, FlatRunWithPenaltiesNeedsTheRegularGridPath) {
  const int dims[3] = {24, 24, 1};
  ZrElasticRegistration* m = makeModule(dims);
  for (int a = 0; a < 3; a++)
    m->portCoarsestResolution.setValue(a, 2);
  m->portMetric.setIndex(0, 3); // the correlation ratio has no regular-grid path
  m->portRegularization.setValue(1, 0.5f);
  m->fire(1);
  messages.clear();
  ASSERT_TRUE(m->portAction.hit(0));
  m->fire(1);
  EXPECT_NE(messages.find("not available for two-dimensional data"), std::string::npos) << messages;
  EXPECT_EQ(m->getResult(0), nullptr) << "the run was refused";
  EXPECT_EQ(m->functionals, nullptr);
}

namespace {
// Runs the schedule without optimising: records, when the first level is
// entered, how far the lattice lies from rest, then moves every control
// point by `shift`.
class ShiftModule : public ZrElasticRegistration {
public:
  QbVec3f shift{0.0f, 0.0f, 0.0f};
  double startDeviation = -1.0;
  void doResolution(int level, int numLevels, RegFunctional* functional, double, double) override {
    for (;;) {
      enterResolution(level, numLevels, functional);
      QbDVector<double>& p = splineTransform->paramVector;
      if (startDeviation < 0) {
        QbDVector<double> rest;
        splineTransform->getRestPositions(rest);
        startDeviation = 0.0;
        for (int i = 0; i < p.size(); i++)
          startDeviation = std::max(startDeviation, std::fabs(p[i] - rest[i]));
      }
      for (int i = 0; i < p.size(); i++)
        p[i] += shift[i % 3];
      if (doneResolution(level, numLevels))
        return;
    }
  }
};

ZrLandmarkSet* addLandmarks(const std::vector<QbVec3f>& model, const std::vector<QbVec3f>& ref) {
  ZrLandmarkSet* lm = new ZrLandmarkSet(2);
  lm->setNumMarkers((int)model.size());
  for (size_t k = 0; k < model.size(); k++) {
    lm->setPosition(model[k], (int)k, 0);
    lm->setPosition(ref[k], (int)k, 1);
  }
  addToPool(lm, "landmarks");
  return lm;
}
} // namespace

// Level 0 starts at the identity (also when landmarks widened the box), and
// the landmark check after a run sees the final lattice: shift s maps q to q - s.
TEST_F(ElasticModuleTest, RunStartsAtRestAndValidatesItsResult) {
  const int dims[3] = {32, 32, 24};
  for (bool madeBefore : {false, true}) {
    SCOPED_TRACE(madeBefore ? "lattice made before the landmarks" : "lattice made by the run");
    ShiftModule* m = makeModule<ShiftModule>(dims);
    for (int a = 0; a < 3; a++)
      m->portCoarsestResolution.setValue(a, 2);
    m->portRefineGrid.setValue(0, 0);
    m->fire(1);
    if (madeBefore) {
      ASSERT_TRUE(m->portResult.hit(0)); // makes the lattice at rest
      m->fire(1);
    }
    m->shift = QbVec3f(1.5f, -1.0f, 0.75f);
    std::vector<QbVec3f> model = {{10, 12, 8}, {20, 15, 14}, {15, 22, 10}, {22, 9, 16}}, ref;
    for (const QbVec3f& q : model)
      ref.push_back(q - m->shift);
    // A reference marker beyond the reference widens the run's box.
    if (madeBefore) {
      model.push_back(QbVec3f(38, 10, 10));
      ref.push_back(QbVec3f(38, 10, 10));
    }
    ASSERT_TRUE(m->portLandmarks.connect(addLandmarks(model, ref)));
    m->fire(1);
    ASSERT_TRUE(m->portAction.hit(0));
    m->fire(1);
    EXPECT_NEAR(m->startDeviation, 0.0, 1e-4);
    EXPECT_GE(m->splineTransform->interpolatedSpaceBoundary[1], madeBefore ? 38.0f : 31.0f);
    if (madeBefore)
      continue;
    ASSERT_TRUE(m->portResult.hit(2)); // "Validate"
    m->fire(1);
    float mean, dev, rms, max;
    ASSERT_EQ(std::sscanf(m->portStatistics.getValue(), "mean %g dev %g rms %g max %g", &mean, &dev,
                          &rms, &max),
              4);
    EXPECT_NEAR(max, 0.0f, 1e-3f) << m->portStatistics.getValue();
    ZrObjectPool::getTheObjectPool()->clear();
  }
}

// A connected set of control points whose size is not that of the lattice
// is refused with a message; nothing is registered.
TEST_F(ElasticModuleTest, ControlPointSetOfAnotherSizeIsRefused) {
  const int dims[3] = {24, 24, 16};
  ZrElasticRegistration* m = makeModule(dims);
  ZrLandmarkSet* set = new ZrLandmarkSet(1);
  set->setNumMarkers(27);
  addToPool(set, "points");
  ASSERT_TRUE(m->portControlPoints.connect(set));
  m->fire(1);
  messages.clear();
  ASSERT_TRUE(m->portAction.hit(0));
  m->fire(1);
  EXPECT_NE(messages.find("hold 27 points, but the lattice of 4x4x4 has 64"), std::string::npos)
      << messages;
  EXPECT_EQ(m->transform, nullptr);
  EXPECT_EQ(m->getResult(0), nullptr);
}
