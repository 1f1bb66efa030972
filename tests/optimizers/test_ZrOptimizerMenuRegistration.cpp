// Whole registrations with each gradient-driven entry of the optimizer menu:
// a smooth volume and a copy of it under a known rigid motion, two pyramid
// levels, the squared-difference metric. The motion must come back to a
// tenth of a voxel and a tenth of a degree, except with quasi-Newton alone
// (below).
#include "../framework/RegTestModule.h"

#include "ZrAggressiveDirectionOptimizer.h"
#include "ZrBestDirectionOptimizer.h"
#include "ZrMessage.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const int N = 32;
// Translation (voxels), rotation (degrees), unit scale, no shear, the centre
// in the middle of the box.
const double kTruth[15] = {1.7, -2.3, 1.2, 3.0, -2.0, 4.0, 1, 1, 1, 0, 0, 0, 15.5, 15.5, 15.5};

SbMatrixd trueMatrix() {
  RegAffineTransform t;
  for (int i = 0; i < 15; i++)
    t.paramVector[i] = kTruth[i];
  t.composeMatrix();
  return t.matrix;
}

struct MenuCase {
  int index;
  bool extensiveSearch;
  // Value 0 of "Gradient optimizer:": the number of finest levels that switch
  // to quasi-Newton.
  float finestLevels;
  // Accepted error of the rotation angles, in degrees.
  double rotationTolerance;
  const char* name;
};

class OptimizerMenuRegistration : public ::testing::TestWithParam<MenuCase> {
protected:
  void SetUp() override {
    old = ZrMessage::getTheMsg()->setSink([this](const std::string& t) { lines.push_back(t); });
  }
  void TearDown() override { ZrMessage::getTheMsg()->setSink(old); }
  std::vector<std::string> lines;
  ZrMessage::Sink old;
};

} // namespace

TEST_P(OptimizerMenuRegistration, RecoversARigidMotion) {
  const MenuCase& c = GetParam();
  const int dims[3] = {N, N, N};
  const float box[6] = {0, N - 1, 0, N - 1, 0, N - 1};
  ZrUniformScalarField3* reference = makeRegTestField(dims, box);
  ZrUniformScalarField3* model = makeRegTestField(dims, box, trueMatrix());
  reference->ref();
  model->ref();
  {
    RegTestModule m;
    m.portReference.connect(reference);
    m.portData.connect(model);
    m.update();
    ASSERT_EQ(m.dimensionMode, 3);
    m.samplingFactor = 2;
    m.portCoarsestResolution.setValue(2);
    m.portOptimizer.setIndex(0, c.index);
    m.portExtensiveSearch.setValue(0, c.extensiveSearch ? 1 : 0);
    m.portNLevelsGradient.setValue(0, c.finestLevels);
    m.portNLevelsGradient.setValue(1, 0.0001f);
    m.portStep.setValue(0, 4.0f);
    m.portStep.setValue(1, 0.005f);
    m.ignoreFinest = 0;
    m.doRegistration();

    ASSERT_EQ(m.resolutions.size(), 2u);
    EXPECT_TRUE(m.resolutions[0].hasOptimizer);
    // The finest level goes to quasi-Newton when asked to.
    EXPECT_EQ(m.resolutions[1].gradient, c.finestLevels > 0 || c.index == 2 || c.index == 3);

    auto* t = dynamic_cast<RegAffineTransform*>(m.transform);
    ASSERT_NE(t, nullptr);
    for (int i = 0; i < 3; i++)
      EXPECT_NEAR(t->paramVector[i], kTruth[i], 0.1) << c.name << ", translation " << i;
    for (int i = 3; i < 6; i++)
      EXPECT_NEAR(t->paramVector[i], kTruth[i], c.rotationTolerance)
          << c.name << ", rotation " << i;
    for (int i = 6; i < 9; i++)
      EXPECT_NEAR(t->paramVector[i], 1.0, 1e-9) << c.name;
  }
  reference->unref();
  model->unref();
}

INSTANTIATE_TEST_SUITE_P(
    Menu, OptimizerMenuRegistration,
    // Quasi-Newton works with gradients scaled by the squared natural steps
    // and renormalised at every iteration, so its updates are rough, and the
    // first line search without progress ends it. It is meant for the finest
    // levels, after a direction search (second case); alone, from this far
    // start, it stops within about half a degree.
    ::testing::Values(MenuCase{0, false, 0.0f, 0.1, "ExtensiveDirection"},
                      MenuCase{0, false, 1.0f, 0.1, "ExtensiveDirectionThenQuasiNewton"},
                      MenuCase{2, false, 0.0f, 0.75, "QuasiNewton"},
                      MenuCase{3, false, 0.0f, 0.1, "ConjugatedGradients"},
                      MenuCase{4, false, 0.0f, 0.1, "LineSearch"},
                      MenuCase{4, true, 0.0f, 0.1, "LineSearchExtensive"}),
    [](const ::testing::TestParamInfo<MenuCase>& info) { return std::string(info.param.name); });
