// Applying a saved control lattice as the registration module does.
#include "ElasticTestSupport.h"
#include "RegVoxelCubicSplineTransform.h"
#include "ZrApplyBSplineTransform.h"
#include "ZrElasticRegistration.h"
#include "ZrEvalLanczos.h"
#include "ZrLandmarkSet.h"
#include "ZrLocation3.h"
#include "ZrMessage.h"
#include "ZrRegVectorField3.h"

#include <cmath>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <string>

using namespace elastic_test;

namespace {

// A linear displacement: the cubic spline reproduces it exactly.
QbVec3f linearDisplacement(const QbVec3f& p) {
  return QbVec3f(0.03f * (p.y - 15.0f), -0.02f * (p.x - 15.0f) + 0.5f, 0.04f * (p.z - 11.0f));
}

class ApplySplineTest : public ::testing::Test {
protected:
  void SetUp() override {
    oldSink = ZrMessage::getTheMsg()->setSink([this](const std::string& t) { messages += t; });
  }
  void TearDown() override {
    ZrMessage::getTheMsg()->setSink(oldSink);
    ZrObjectPool::getTheObjectPool()->clear();
  }

  // A registration module on (reference, model) whose lattice is moved by
  // `displace` from rest and saved: returns the saved "ControlGridVectors".
  ZrRegVectorField3* saveDisplacedGrid(ZrRegScalarField3* reference, ZrRegScalarField3* model,
                                       QbVec3f (*displace)(const QbVec3f&)) {
    reg = new ZrElasticRegistration;
    addToPool(reg, "ElasticRegistration");
    EXPECT_TRUE(reg->portReference.connect(reference));
    EXPECT_TRUE(reg->portData.connect(model));
    reg->fire(1);
    EXPECT_TRUE(reg->portResult.hit(0)); // "Save transform" makes the transform at rest
    reg->fire(1);
    EXPECT_NE(reg->splineTransform, nullptr);
    if (!reg->splineTransform)
      return nullptr;
    QbDVector<double>& p = reg->splineTransform->paramVector;
    for (int i = 0; i + 2 < p.size(); i += 3) {
      const QbVec3f d = displace(QbVec3f((float)p[i], (float)p[i + 1], (float)p[i + 2]));
      p[i] += d.x, p[i + 1] += d.y, p[i + 2] += d.z;
    }
    EXPECT_TRUE(reg->portResult.hit(0));
    reg->fire(1);
    ZrRegVectorField3* grid = dynamic_cast<ZrRegVectorField3*>(reg->getResult(1));
    EXPECT_NE(grid, nullptr);
    if (grid) {
      EXPECT_STREQ(grid->getName(), "ControlGridVectors");
    }
    return grid;
  }

  ZrApplyBSplineTransform* makeApply(ZrRegScalarField3* model, ZrRegVectorField3* grid,
                                     ZrRegScalarField3* reference) {
    ZrApplyBSplineTransform* app = new ZrApplyBSplineTransform;
    addToPool(app, "ApplyBSplineTransform");
    EXPECT_TRUE(app->portData.connect(model));
    EXPECT_TRUE(app->portControlPoints.connect(grid));
    if (reference) {
      EXPECT_TRUE(app->portReference.connect(reference));
    }
    app->fire(1);
    return app;
  }

  ZrElasticRegistration* reg = nullptr;
  ZrMessage::Sink oldSink;
  std::string messages;
};

} // namespace

TEST_F(ApplySplineTest, SavedGridRoundTripAndWarp) {
  const int dims[3] = {32, 32, 24};
  ZrUniformScalarField3* model = makeModel(dims);
  ZrUniformScalarField3* reference = makeModel(dims);
  addToPool(model, "model");
  addToPool(reference, "reference");
  ZrRegVectorField3* grid = saveDisplacedGrid(reference, model, linearDisplacement);
  ASSERT_NE(grid, nullptr);
  RegVoxelCubicSplineTransform* saved = reg->splineTransform;
  EXPECT_EQ(grid->getDims()[0], 4);
  EXPECT_EQ(grid->getDims()[2], 4);

  // The registration module's own warp and dense field.
  ASSERT_TRUE(reg->portAction.hit(1)); // "Apply transform"
  reg->fire(1);
  ZrRegScalarField3* regWarp = dynamic_cast<ZrRegScalarField3*>(reg->getResult(0));
  ASSERT_NE(regWarp, nullptr);
  EXPECT_STREQ(regWarp->getName(), "reformat");
  regWarp->ref();

  ZrApplyBSplineTransform* app = makeApply(model, grid, reference);
  EXPECT_EQ(app->dimension, 3);

  ASSERT_TRUE(app->portAction.hit(0)); // "Apply warpTransform"
  app->fire(1);
  RegVoxelCubicSplineTransform* t = app->splineTransform;
  ASSERT_NE(t, nullptr);
  for (int i = 0; i < 6; i++)
    EXPECT_NEAR(t->interpolatedSpaceBoundary[i], saved->interpolatedSpaceBoundary[i],
                1e-5 * (1.0 + std::fabs(saved->interpolatedSpaceBoundary[i])))
        << "boundary entry " << i;
  ASSERT_EQ(t->paramVector.size(), saved->paramVector.size());
  for (int i = 0; i < t->paramVector.size(); i++)
    EXPECT_NEAR(t->paramVector[i], saved->paramVector[i],
                2e-6 * (1.0 + std::fabs(saved->paramVector[i])))
        << "parameter " << i;

  ZrRegScalarField3* warp = dynamic_cast<ZrRegScalarField3*>(app->getResult(0));
  ASSERT_NE(warp, nullptr);
  EXPECT_NE(warp, regWarp);
  double maxDiff = 0.0, maxValue = 0.0;
  for (size_t i = 0; i < warp->lattice.numNodes(); i++) {
    maxDiff = std::max(maxDiff, std::fabs(warp->lattice.getValueAsDouble(i) -
                                          regWarp->lattice.getValueAsDouble(i)));
    maxValue = std::max(maxValue, regWarp->lattice.getValueAsDouble(i));
  }
  EXPECT_LT(maxDiff, 1e-3 * maxValue) << "both modules warp alike";
  // The warp samples the model at p + d(p): check a node well inside.
  {
    const int i = 14, j = 17, k = 12;
    const QbVec3f p((float)i, (float)j, (float)k);
    const QbVec3f q = p + linearDisplacement(p);
    const double want = blobImage(q.x, q.y, q.z);
    EXPECT_NEAR(warp->getValue(i, j, k), want, 0.01 * want);
  }

  // Dense fields: coordinates q = p + d(p), vectors p - q or q - p.
  ASSERT_TRUE(app->portResult.hit(0));
  app->fire(1);
  ZrRegVectorField3* forward = dynamic_cast<ZrRegVectorField3*>(app->getResult(1));
  ASSERT_NE(forward, nullptr);
  EXPECT_EQ(forward->coordType(), ZR_COORD_CURVILINEAR);
  forward->ref();
  ASSERT_TRUE(app->portResult.hit(1));
  app->fire(1);
  ZrRegVectorField3* backward = dynamic_cast<ZrRegVectorField3*>(app->getResult(1));
  ASSERT_NE(backward, nullptr);
  EXPECT_NE(backward, forward);
  ASSERT_TRUE(reg->portResult.hit(1)); // the registration module's "Vector field"
  reg->fire(1);
  ZrRegVectorField3* regField = dynamic_cast<ZrRegVectorField3*>(reg->getResult(1));
  ASSERT_NE(regField, nullptr);

  double worst = 0.0;
  size_t n = 0;
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++, n++) {
        const QbVec3f p((float)i, (float)j, (float)k);
        const QbVec3f d = linearDisplacement(p);
        float qf[3], qb[3];
        forward->lattice.coords()->pos(i, j, k, qf);
        backward->lattice.coords()->pos(i, j, k, qb);
        for (int c = 0; c < 3; c++) {
          worst = std::max(worst, (double)std::fabs(qf[c] - (p[c] + d[c])));
          worst = std::max(worst, (double)std::fabs(qb[c] - qf[c]));
          worst = std::max(worst,
                           (double)std::fabs(forward->floatData()[3 * n + c] + d[c])); // p - q = -d
          worst = std::max(worst,
                           (double)std::fabs(backward->floatData()[3 * n + c] - d[c])); // q - p = d
          worst = std::max(worst, (double)std::fabs(regField->floatData()[3 * n + c] -
                                                    forward->floatData()[3 * n + c]));
        }
      }
  EXPECT_LT(worst, 2e-4);
  forward->unref();
  regWarp->unref();
}

TEST_F(ApplySplineTest, ReferenceByResampling) {
  const int dims[3] = {32, 32, 24};
  ZrUniformScalarField3* model = makeModel(dims);
  ZrUniformScalarField3* reference = makeModel(dims);
  addToPool(model, "model");
  addToPool(reference, "reference");
  ZrRegVectorField3* grid = saveDisplacedGrid(reference, model, linearDisplacement);
  ASSERT_NE(grid, nullptr);

  ZrApplyBSplineTransform* app = makeApply(model, grid, nullptr);
  const int res[3] = {10, 12, 8};
  app->portResolution.setValues(res);
  ASSERT_TRUE(app->portAction.hit(0));
  app->fire(1);
  ZrRegScalarField3* warp = dynamic_cast<ZrRegScalarField3*>(app->getResult(0));
  ASSERT_NE(warp, nullptr);
  for (int a = 0; a < 3; a++)
    EXPECT_EQ(warp->getDims()[a], res[a]);
  // The lattice fills the inner box of the control lattice: the box that the
  // registration interpolated.
  float box[6];
  warp->getBoundingBox(box);
  for (int i = 0; i < 6; i++)
    EXPECT_NEAR(box[i], reg->splineTransform->interpolatedSpaceBoundary[i], 1e-4) << i;
  // The warp still samples the model at p + d(p).
  {
    float p[3];
    warp->lattice.coords()->pos(5, 6, 4, p);
    const QbVec3f q = QbVec3f(p) + linearDisplacement(QbVec3f(p));
    const double want = blobImage(q.x, q.y, q.z);
    EXPECT_NEAR(warp->getValue(5, 6, 4), want, 0.02 * want);
  }
}

TEST_F(ApplySplineTest, LabelModelKeepsLabels) {
  const int dims[3] = {32, 32, 24};
  ZrUniformScalarField3* model = makeField(
      dims, QB_UINT8, [](double x, double y, double z) { return labelOf(blobImage(x, y, z)); },
      true);
  ZrUniformScalarField3* reference = makeField(
      dims, QB_UINT8, [](double x, double y, double z) { return labelOf(blobImage(x, y, z)); },
      true);
  addToPool(model, "labels");
  addToPool(reference, "referenceLabels");
  ZrRegVectorField3* grid = saveDisplacedGrid(reference, model, linearDisplacement);
  ASSERT_NE(grid, nullptr);
  ZrApplyBSplineTransform* app = makeApply(model, grid, nullptr);
  EXPECT_EQ(app->modelClass, 2);
  EXPECT_EQ(app->interpolator, 1);
  const int res[3] = {20, 20, 16};
  app->portResolution.setValues(res);
  ASSERT_TRUE(app->portAction.hit(0));
  app->fire(1);
  ZrRegScalarField3* warp = dynamic_cast<ZrRegScalarField3*>(app->getResult(0));
  ASSERT_NE(warp, nullptr);
  EXPECT_NE(warp->getInterface(ZrUniformLabelField3::getClassTypeId()), nullptr);
  std::set<double> seen;
  for (size_t i = 0; i < warp->lattice.numNodes(); i++)
    seen.insert(warp->lattice.getValueAsDouble(i));
  for (double v : seen)
    EXPECT_TRUE(v == 0.0 || v == 1.0 || v == 2.0) << "invented label " << v;
  EXPECT_EQ(seen.size(), 3u);
}

namespace {
QbVec3f halfVoxelShift(const QbVec3f&) { return QbVec3f(0.5f, 0.0f, 0.0f); }
QbVec3f constantShift(const QbVec3f&) { return QbVec3f(0.5f, -0.25f, 1.0f); }
} // namespace

TEST_F(ApplySplineTest, IntegerResultsAreRoundedAndClamped) {
  // A step from 0 to 255 rings under the windowed sinc: the float values
  // overshoot the 8-bit range near the edge, and must be clamped, not
  // wrapped.
  const int dims[3] = {24, 8, 6};
  auto step = [](double x, double, double) { return x < 11.5 ? 0.0 : 255.0; };
  ZrUniformScalarField3* model = makeField(dims, QB_UINT8, step);
  ZrUniformScalarField3* reference = makeField(dims, QB_UINT8, step);
  addToPool(model, "step");
  addToPool(reference, "stepReference");
  ZrRegVectorField3* grid = saveDisplacedGrid(reference, model, halfVoxelShift);
  ASSERT_NE(grid, nullptr);
  ZrApplyBSplineTransform* app = makeApply(model, grid, reference);
  ASSERT_TRUE(app->portAction.hit(0));
  app->fire(1);
  ZrRegScalarField3* warp = dynamic_cast<ZrRegScalarField3*>(app->getResult(0));
  ASSERT_NE(warp, nullptr);
  ASSERT_EQ(warp->primType(), QB_UINT8);

  std::unique_ptr<ZrFieldEvaluator> lanczos(ZrEvalLanczos::createEval(model));
  std::unique_ptr<ZrLocation3> loc(lanczos->createLocation());
  bool overshoot = false, undershoot = false;
  for (int i = 0; i + 1 < dims[0]; i++) {
    loc->set((float)i + 0.5f, 3.0f, 2.0f);
    float v = 0.0f;
    lanczos->eval(loc.get(), &v);
    overshoot = overshoot || v > 255.5f;
    undershoot = undershoot || v < -0.5f;
    const double want = std::min(255.0, std::max(0.0, (double)std::nearbyint(v)));
    EXPECT_NEAR(warp->getValue(i, 3, 2), want, 1.0) << "x " << i << " float " << v;
  }
  EXPECT_TRUE(overshoot && undershoot) << "the step must ring for this test to mean anything";
}

TEST_F(ApplySplineTest, LandmarkValidation) {
  const int dims[3] = {32, 32, 24};
  ZrUniformScalarField3* model = makeModel(dims);
  ZrUniformScalarField3* reference = makeModel(dims);
  addToPool(model, "model");
  addToPool(reference, "reference");
  ZrRegVectorField3* grid = saveDisplacedGrid(reference, model, constantShift);
  ASSERT_NE(grid, nullptr);
  ZrApplyBSplineTransform* app = makeApply(model, grid, reference);

  // Markers whose mapped position p - d misses its target by 0.1, 0.3, 0.6
  // and 1.0: the dense field holds p - q = -d everywhere.
  const QbVec3f d = constantShift(QbVec3f());
  const float miss[4] = {0.1f, 0.3f, 0.6f, 1.0f};
  ZrLandmarkSet* lm = new ZrLandmarkSet(2);
  lm->setNumMarkers(4);
  for (int m = 0; m < 4; m++) {
    const QbVec3f p(10.0f + 3.0f * m, 12.0f + m, 9.0f + 2.0f * m);
    lm->setPosition(p, m, 0);
    lm->setPosition(p - d + QbVec3f(0.0f, miss[m], 0.0f), m, 1);
  }
  addToPool(lm, "landmarks");
  ASSERT_TRUE(app->portLandmarks.connect(lm));
  app->fire(1);

  // The first check measures the fresh set: all markers at the origin.
  ASSERT_TRUE(app->portResult.hit(2));
  app->fire(1);
  EXPECT_STREQ(app->portStatistics.getValue(), "mean 0 dev 0 rms 0 max 0");
  EXPECT_STREQ(app->portStatistics2.getValue(), "median 0 aboveThresh 0 %");
  ZrLandmarkSet* mapped = dynamic_cast<ZrLandmarkSet*>(
      ZrObjectPool::getTheObjectPool()->findObject("transformedLandmarks"));
  ASSERT_NE(mapped, nullptr);
  EXPECT_EQ(mapped->getNumSets(), 2);

  // The second one the mapping of the first.
  ASSERT_TRUE(app->portResult.hit(2));
  app->fire(1);
  const float mean = 0.5f, rms = std::sqrt((0.01f + 0.09f + 0.36f + 1.0f) / 4.0f);
  float readMean, readDev, readRms, readMax, readMedian, readAbove;
  ASSERT_EQ(std::sscanf(app->portStatistics.getValue(), "mean %g dev %g rms %g max %g", &readMean,
                        &readDev, &readRms, &readMax),
            4)
      << app->portStatistics.getValue();
  ASSERT_EQ(std::sscanf(app->portStatistics2.getValue(), "median %g aboveThresh %g", &readMedian,
                        &readAbove),
            2);
  EXPECT_NEAR(readMean, mean, 1e-4);
  EXPECT_NEAR(readDev, std::sqrt((0.16f + 0.04f + 0.01f + 0.25f) / 3.0f), 1e-4);
  EXPECT_NEAR(readRms, rms, 1e-4);
  EXPECT_NEAR(readMax, 1.0f, 1e-4);
  EXPECT_NEAR(readMedian, 0.6f, 1e-4) << "entry n / 2 of the sorted list";
  EXPECT_NEAR(readAbove, 50.0f, 1e-3) << "two of four above 0.5";
}

namespace {
QbVec3f noDisplacement(const QbVec3f&) { return QbVec3f(0.0f, 0.0f, 0.0f); }
} // namespace

TEST_F(ApplySplineTest, TransformedModelIsSampledInItsOwnCoordinates) {
  // The model is moved by +2 in x: at rest the warp shows it where it stands
  // in the world, model(p - (2, 0, 0)) in its own coordinates.
  const int dims[3] = {32, 32, 24};
  ZrUniformScalarField3* model = makeModel(dims);
  SbMatrix shift;
  shift.setTranslate(SbVec3f(2.0f, 0.0f, 0.0f));
  model->setTransform(shift);
  ZrUniformScalarField3* reference = makeModel(dims);
  addToPool(model, "model");
  addToPool(reference, "reference");
  ZrRegVectorField3* grid = saveDisplacedGrid(reference, model, noDisplacement);
  ASSERT_NE(grid, nullptr);
  EXPECT_TRUE(reg->splineTransform->modelTransformed);
  SbMatrix saved;
  grid->getTransform(saved);
  EXPECT_EQ(saved[3][0], 2.0f) << "the saved lattice carries the model's transform";

  ZrApplyBSplineTransform* app = makeApply(model, grid, reference);
  ASSERT_TRUE(app->portAction.hit(0));
  app->fire(1);
  ZrRegScalarField3* warp = dynamic_cast<ZrRegScalarField3*>(app->getResult(0));
  ASSERT_NE(warp, nullptr);
  for (int i = 4; i < 28; i += 5) {
    const double want = blobImage(i - 2.0, 14.0, 11.0);
    EXPECT_NEAR(warp->getValue(i, 14, 11), want, 1e-3 * want) << "x " << i;
  }
  // The parameters are world positions again after the warp.
  const float* box = app->splineTransform->interpolatedSpaceBoundary;
  EXPECT_NEAR(app->splineTransform->paramVector[3 * (1 + 4 + 16)], box[0], 1e-4);
}
