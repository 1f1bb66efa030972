// The registration driver: ports and their defaults, update(), the bin rule,
// lattice classification, voxel sizes and coverage, the planning of the
// pyramid, the step schedule, the gradient switch, releasing levels, and an
// interrupted run.
#include "RegTestModule.h"

#include "QbPrimType.h"
#include "ZrBestNeighbourOptimizer.h"
#include "ZrMessage.h"
#include "ZrObjectPool.h"
#include "ZrStackedScalarField3.h"
#include "ZrUniformLabelField3.h"
#include "ZrUniformScalarField3.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// Keeps the test's own reference on data objects, so that connections may
// take and drop theirs.
class Held {
public:
  ~Held() {
    for (ZrObject* o : objects)
      o->unref();
  }
  template <class T> T* operator()(T* o) {
    o->ref();
    objects.push_back(o);
    return o;
  }

private:
  std::vector<ZrObject*> objects;
};

// A uniform field of nx x ny x nz nodes with voxel size (vx, vy, vz), its
// first node at the origin. Values 0..255 where there is room for them.
ZrUniformScalarField3* makeField(int nx, int ny, int nz, float vx = 1, float vy = 1, float vz = 1,
                                 int type = QB_UINT8) {
  const int dims[3] = {nx, ny, nz};
  const float box[6] = {0, (nx - 1) * vx, 0, (ny - 1) * vy, 0, (nz - 1) * vz};
  ZrUniformScalarField3* f = new ZrUniformScalarField3(dims, type, box);
  const size_t n = f->lattice.numNodes();
  for (size_t i = 0; i < n; i++)
    f->lattice.setValue(i, double(i % 256));
  return f;
}

ZrUniformLabelField3* makeLabels(int n) {
  const int dims[3] = {n, n, n};
  const float box[6] = {0, float(n - 1), 0, float(n - 1), 0, float(n - 1)};
  ZrUniformLabelField3* f = new ZrUniformLabelField3(dims, QB_UINT8, box);
  for (size_t i = 0; i < f->lattice.numNodes(); i++)
    f->lattice.setValue(i, double(i % 4));
  return f;
}

// Collects the message window's text.
class MessageLog {
public:
  MessageLog() {
    old = ZrMessage::getTheMsg()->setSink([this](const std::string& t) { lines.push_back(t); });
  }
  ~MessageLog() { ZrMessage::getTheMsg()->setSink(old); }
  int count(const char* prefix) const {
    int n = 0;
    for (const std::string& l : lines)
      n += l.compare(0, std::strlen(prefix), prefix) == 0;
    return n;
  }
  std::vector<std::string> lines;

private:
  ZrMessage::Sink old;
};

QbVec3i v3(int a, int b, int c) { return QbVec3i(a, b, c); }

class VoxelRegistrationTest : public ::testing::Test {
protected:
  // The planning's messages are not shown; tests that read them install their
  // own log.
  void SetUp() override {
    old = ZrMessage::getTheMsg()->setSink([](const std::string&) {});
  }
  void TearDown() override {
    ZrMessage::getTheMsg()->setSink(old);
    ZrWorkArea::getTheWorkArea()->clearInterrupt();
  }

  // Connects the inputs and lets the module react.
  void connect(ZrSpatialData* reference, ZrSpatialData* model) {
    m.portReference.connect(reference);
    m.portData.connect(model);
    m.update();
    m.untouchPorts(true);
  }
  // Plans and records a run without optimising: the pyramid is planned but
  // not resampled.
  void plan(ZrSpatialData* reference, ZrSpatialData* model, QbVec3i coarsest, int factor = 2) {
    connect(reference, model);
    m.fakeResampling = true;
    m.samplingFactor = factor;
    for (int i = 0; i < 3; i++)
      m.portCoarsestResolution.setValue(i, coarsest[i]);
  }
  void configureRun(float initial, float final, int finestLevels, int ignoreFinest) {
    m.portStep.setValue(0, initial);
    m.portStep.setValue(1, final);
    m.portNLevelsGradient.setValue(0, float(finestLevels));
    m.portOptimizer.setIndex(0, 1); // best neighbour
    m.ignoreFinest = ignoreFinest;
  }

  ZrMessage::Sink old;
  Held held;
  RegTestModule m;
};

} // namespace

TEST_F(VoxelRegistrationTest, PortsTheirTextsAndDefaults) {
  const char* names[] = {"model",         "optimizer",         "extensiveSearch",
                         "step",          "nLevelsGradient",   "coarsestResolution",
                         "metric",        "histogramRangeRef", "histogramRangeMod",
                         "histogramBins", "reference",         "options",
                         "options2",      "extendedOptions",   "action"};
  ASSERT_EQ(m.getNumPorts(), 15);
  for (int i = 0; i < 15; i++)
    EXPECT_STREQ(m.getPort(i)->getName(), names[i]);

  const char* optimizers[] = {"Extensive direction", "Best neighbor", "Quasi Newton",
                              "Conjugated Gradients", "Line search"};
  ASSERT_EQ(m.portOptimizer.getNum(0), 5);
  for (int i = 0; i < 5; i++)
    EXPECT_STREQ(m.portOptimizer.getLabel(0, i), optimizers[i]);
  EXPECT_STREQ(m.portOptimizer.getLabel(1, 0), "Ramp");
  EXPECT_STREQ(m.portOptimizer.getLabel(1, 1), "Cycles");
  EXPECT_EQ(m.portOptimizer.getIndex(0), 0);
  EXPECT_FALSE(m.portOptimizer.isSensitive(1));

  EXPECT_STREQ(m.portStep.getLabel(), "Optimizer step:");
  EXPECT_STREQ(m.portStep.getLabel(0), "initial:");
  EXPECT_STREQ(m.portStep.getLabel(1), "final:");
  EXPECT_EQ(m.portStep.getValue(0), 50.0f);
  EXPECT_EQ(m.portStep.getValue(1), 100.0f / 1024.0f); // exact, not 0.1
  EXPECT_STREQ(m.portNLevelsGradient.getLabel(), "Gradient optimizer:");
  EXPECT_STREQ(m.portNLevelsGradient.getLabel(0), "Finest levels:");
  EXPECT_STREQ(m.portNLevelsGradient.getLabel(1), "Tolerance:");
  EXPECT_EQ(m.portNLevelsGradient.getValue(0), 1.0f);
  EXPECT_EQ(m.portNLevelsGradient.getValue(1), 0.0001f);
  EXPECT_STREQ(m.portCoarsestResolution.getLabel(), "Coarsest resampling:");
  EXPECT_STREQ(m.portCoarsestResolution.getLabel(2), "z");
  EXPECT_EQ(m.portCoarsestResolution.getValue(1), 1);

  const char* metrics[] = {"Normalized Mutual Information", "Mutual Information", "Euclidean",
                           "Correlation"};
  ASSERT_EQ(m.portMetric.getNum(0), 4);
  for (int i = 0; i < 4; i++)
    EXPECT_STREQ(m.portMetric.getLabel(0, i), metrics[i]);
  EXPECT_STREQ(m.portHistogramRangeRef.getLabel(), "Histogram range reference:");
  EXPECT_STREQ(m.portHistogramRangeMod.getLabel(1), "max");
  EXPECT_STREQ(m.portHistogramBins.getLabel(0), "reference:");
  EXPECT_EQ(m.portHistogramBins.getValue(1), 256);
  EXPECT_STREQ(m.portOptions.getLabel(0), "Ignore finest resolution");
  EXPECT_EQ(m.portOptions.getValue(0), 1);
  EXPECT_STREQ(m.portOptions2.getLabel(0), "Localizer");
  EXPECT_EQ(m.portOptions2.getValue(0), 0);
  EXPECT_EQ(m.portAction.getNum(), 3);

  // Shown and hidden at start.
  EXPECT_TRUE(m.portOptimizer.isVisible());
  EXPECT_FALSE(m.portExtensiveSearch.isVisible());
  EXPECT_TRUE(m.portStep.isVisible());
  EXPECT_FALSE(m.portCoarsestResolution.isVisible());
  EXPECT_FALSE(m.portHistogramBins.isVisible());
  EXPECT_TRUE(m.portExtendedOptions.isVisible());

  // Run-time fields at rest.
  EXPECT_EQ(m.computing, 0);
  EXPECT_EQ(m.maxCoverage, 1.0);
  EXPECT_EQ(m.dimensionMode, -1);
  EXPECT_EQ(m.samplingFactor, 3);
  EXPECT_EQ(m.stepFactor, 0.5);
  EXPECT_EQ(m.parameterSource, 1);
  EXPECT_EQ(m.ignoreFinest, 0);
  EXPECT_EQ(m.functionals, nullptr);
  EXPECT_EQ(m.optimizer, nullptr);
  EXPECT_EQ(m.transform, nullptr);
}

TEST_F(VoxelRegistrationTest, ReferenceDefaultsOfCoarsestFactorsAndSteps) {
  struct Case {
    int nx, ny, nz;
    float vx, vy, vz;
    QbVec3i factors;
    float initial, final;
  } cases[] = {
      // About 30 voxels per axis at the coarsest level.
      {64, 64, 64, 1, 1, 1, v3(2, 2, 2), 64 / 5.0f, float(1 / 6.0)},
      // Too small for a second level.
      {20, 20, 20, 1, 1, 1, v3(1, 1, 1), 4.0f, float(1 / 6.0)},
      // Thick slices: x and y by 8, z by the truncation of 4 / 1.5.
      {256, 256, 32, 1, 1, 4, v3(8, 8, 2), 51.2f, float(1 / 6.0)},
      // Slices twice as thick: z by the truncation of 8 / 1.5.
      {128, 128, 64, 1, 1, 2, v3(8, 8, 5), 25.6f, float(1 / 6.0)},
      // Nearly isotropic voxels count as isotropic.
      {90, 60, 60, 1, 1.05f, 1.05f, v3(3, 2, 2), 18.0f, float(1 / 6.0)},
      // The longest axis (y) sets the initial step, the finest voxel the final.
      {40, 80, 20, 0.5f, 2, 1, v3(8, 0 + 2, 4), 32.0f, float(0.5 / 6.0)},
  };
  for (const Case& c : cases) {
    RegTestModule mod;
    ZrUniformScalarField3* r = held(makeField(c.nx, c.ny, c.nz, c.vx, c.vy, c.vz));
    mod.portReference.connect(r);
    mod.update();
    SCOPED_TRACE(testing::Message() << c.nx << "x" << c.ny << "x" << c.nz);
    for (int i = 0; i < 3; i++)
      EXPECT_EQ(mod.portCoarsestResolution.getValue(i), c.factors[i]) << i;
    EXPECT_EQ(mod.portStep.getValue(0), c.initial);
    EXPECT_EQ(mod.portStep.getValue(1), c.final);
    const int dims[3] = {c.nx, c.ny, c.nz};
    for (int i = 0; i < 3; i++) {
      EXPECT_EQ(mod.portCoarsestResolution.getMinValue(i), 1);
      EXPECT_EQ(mod.portCoarsestResolution.getMaxValue(i), dims[i] / 2);
    }
  }
  // The anisotropic case orders the axes finest first, the thick one last.
  RegTestModule mod;
  mod.references.append(held(makeField(256, 256, 32, 1, 1, 4)));
  QbVec3d delta;
  QbVec3i order;
  mod.getMinDelta(delta, order, 0, 3);
  EXPECT_EQ(order, v3(0, 1, 2));
  EXPECT_EQ(delta, QbVec3d(1, 1, 4));
}

TEST_F(VoxelRegistrationTest, ModelDefaultsWhenParametersFollowTheModel) {
  m.parameterSource = 0;
  // Thick slices in z: x and y by the truncation of 1.5 times the ratio.
  m.portData.connect(held(makeField(64, 64, 16, 1, 1, 3)));
  m.update();
  EXPECT_EQ(m.portCoarsestResolution.getValue(0), 4);
  EXPECT_EQ(m.portCoarsestResolution.getValue(1), 4);
  EXPECT_EQ(m.portCoarsestResolution.getValue(2), 2);
  EXPECT_EQ(m.portCoarsestResolution.getMaxValue(2), 8);
  EXPECT_EQ(m.portStep.getValue(0), 64 / 5.0f);
  // Isotropic model: about 30 voxels per axis.
  RegTestModule iso;
  iso.parameterSource = 0;
  iso.portData.connect(held(makeField(100, 70, 40)));
  iso.update();
  EXPECT_EQ(iso.portCoarsestResolution.getValue(0), 3);
  EXPECT_EQ(iso.portCoarsestResolution.getValue(1), 2);
  EXPECT_EQ(iso.portCoarsestResolution.getValue(2), 1);
}

TEST(ZrVoxelRegistrationBins, OneBinPerIntegerValueUpTo256) {
  struct Case {
    float min, max;
    int type, bins;
  } cases[] = {{0, 1, QB_UINT8, 1},     {0, 100, QB_UINT8, 100},    {0, 255, QB_UINT8, 255},
               {0, 256, QB_INT16, 256}, {0, 1000, QB_INT16, 250},   {0, 4095, QB_UINT16, 255},
               {7, 7, QB_INT32, 1},     {-0.4f, 0.4f, QB_INT16, 1}, {-50, 49.6f, QB_INT16, 100},
               {0, 255, QB_INT8, 255},  {0, 1000, QB_INT64, 250},   {0, 1000, QB_UINT32, 250},
               {0, 100, QB_FLOAT, 256}, {0, 1, QB_DOUBLE, 256},     {-1000, 3000, 5, 256}};
  for (const Case& c : cases)
    EXPECT_EQ(ZrVoxelRegistration::computeNumBins(c.min, c.max, c.type), c.bins)
        << c.min << " " << c.max << " type " << c.type;
}

TEST_F(VoxelRegistrationTest, UpdateWithBothInputs) {
  ZrUniformScalarField3* r = held(makeField(40, 40, 40));
  ZrUniformScalarField3* model = held(makeField(30, 30, 30, 1, 1, 1, QB_FLOAT));
  for (size_t i = 0; i < model->lattice.numNodes(); i++)
    model->lattice.setValue(i, 0.5 * double(i % 1000));
  m.portReference.connect(r);
  m.portData.connect(model);
  m.portNLevelsGradient.setValue(0, 3.0f);
  m.update();

  EXPECT_EQ(m.dimensionMode, 3);
  EXPECT_EQ(m.references.size(), 1);
  EXPECT_EQ(m.models.size(), 1);
  EXPECT_EQ(m.modelClass, RegDataClassGrey);
  EXPECT_EQ(m.interpolator, RegInterpolatorStandard);
  // A new input resets the gradient optimizer's settings.
  EXPECT_EQ(m.portNLevelsGradient.getValue(0), 1.0f);
  EXPECT_EQ(m.portNLevelsGradient.getValue(1), 0.0001f);
  // Ranges from the data; bins by the bin rule for the integer reference,
  // 256 for the float model.
  EXPECT_EQ(m.portHistogramRangeRef.getValue(0), 0.0f);
  EXPECT_EQ(m.portHistogramRangeRef.getValue(1), 255.0f);
  EXPECT_EQ(m.portHistogramBins.getValue(0), 255);
  EXPECT_EQ(m.portHistogramRangeMod.getValue(1), 499.5f);
  EXPECT_EQ(m.portHistogramBins.getValue(1), 256);
  EXPECT_EQ(m.ignoreFinest, 1);
  // Without extended options the expert ports are hidden.
  EXPECT_FALSE(m.portOptimizer.isVisible());
  EXPECT_FALSE(m.portStep.isVisible());
  EXPECT_FALSE(m.portOptions.isVisible());
  EXPECT_TRUE(m.portMetric.isVisible());
  m.untouchPorts(true);

  // A changed range gives new bins.
  m.portHistogramRangeRef.setValue(1, 1000.0f);
  m.update();
  EXPECT_EQ(m.portHistogramBins.getValue(0), 250);
  m.untouchPorts(true);

  // Extended options show them; the range ports follow the metric.
  m.portExtendedOptions.setValue(0, 1);
  m.update();
  EXPECT_TRUE(m.portOptimizer.isVisible());
  EXPECT_TRUE(m.portCoarsestResolution.isVisible());
  EXPECT_TRUE(m.portOptions2.isVisible());
  EXPECT_FALSE(m.portExtensiveSearch.isVisible());
  EXPECT_TRUE(m.portHistogramBins.isVisible());
  m.portMetric.setIndex(0, 3);
  m.update();
  EXPECT_STREQ(m.portHistogramRangeRef.getLabel(), "Range reference:");
  EXPECT_STREQ(m.portHistogramRangeMod.getLabel(), "Range model:");
  EXPECT_TRUE(m.portHistogramRangeRef.isVisible());
  EXPECT_FALSE(m.portHistogramBins.isVisible());
  m.portMetric.setIndex(0, 2);
  m.update();
  EXPECT_FALSE(m.portHistogramRangeRef.isVisible());
  m.portMetric.setIndex(0, 1);
  m.update();
  EXPECT_STREQ(m.portHistogramRangeRef.getLabel(), "Histogram range reference:");
  EXPECT_TRUE(m.portHistogramBins.isVisible());
  m.untouchPorts(true);

  // The optimizer menu and the gradient optimizer's entries.
  m.portOptimizer.setIndex(0, 4);
  m.update();
  EXPECT_EQ(m.portExtensiveSearch.getValue(0), 1);
  EXPECT_TRUE(m.portExtensiveSearch.isVisible());
  EXPECT_EQ(m.portNLevelsGradient.getValue(0), 2.0f);
  EXPECT_TRUE(m.portNLevelsGradient.isSensitive(0));
  EXPECT_TRUE(m.portNLevelsGradient.isSensitive(1));
  m.untouchPorts(true);
  m.portOptimizer.setIndex(0, 2);
  m.update();
  EXPECT_EQ(m.portExtensiveSearch.getValue(0), 0);
  EXPECT_FALSE(m.portExtensiveSearch.isVisible());
  EXPECT_EQ(m.portNLevelsGradient.getValue(0), 0.0f);
  EXPECT_FALSE(m.portNLevelsGradient.isSensitive(0));
  EXPECT_TRUE(m.portNLevelsGradient.isSensitive(1));
  m.untouchPorts(true);
  m.portOptimizer.setIndex(0, 1);
  m.update();
  m.untouchPorts(true);
  // "Finest levels:" is a whole number; at 0 its tolerance does not matter.
  m.portNLevelsGradient.setValue(0, 2.7f);
  m.update();
  EXPECT_EQ(m.portNLevelsGradient.getValue(0), 2.0f);
  EXPECT_TRUE(m.portNLevelsGradient.isSensitive(1));
  m.untouchPorts(true);
  m.portNLevelsGradient.setValue(0, 0.5f);
  m.update();
  EXPECT_EQ(m.portNLevelsGradient.getValue(0), 0.0f);
  EXPECT_FALSE(m.portNLevelsGradient.isSensitive(1));
  m.untouchPorts(true);

  m.portOptions.setValue(0, 0);
  m.update();
  EXPECT_EQ(m.ignoreFinest, 0);
}

TEST_F(VoxelRegistrationTest, FlatPairIsTwoDimensional) {
  connect(held(makeField(64, 64, 1)), held(makeField(50, 50, 1)));
  EXPECT_EQ(m.dimensionMode, 2);
  EXPECT_EQ(m.portCoarsestResolution.getValue(2), 1);
  // The flat axis is never reduced, whatever the user asks for.
  m.portCoarsestResolution.setValue(2, 5);
  m.update();
  EXPECT_EQ(m.portCoarsestResolution.getValue(2), 1);
  // A full 3-D reference against a model flat in y.
  RegTestModule mod;
  mod.portReference.connect(held(makeField(20, 20, 20)));
  mod.portData.connect(held(makeField(20, 1, 20)));
  mod.update();
  EXPECT_EQ(mod.dimensionMode, 1);
}

TEST_F(VoxelRegistrationTest, LabelInputsOfferTheLabelMetric) {
  ZrUniformLabelField3* a = held(makeLabels(8));
  ZrUniformLabelField3* b = held(makeLabels(6));
  m.portReference.connect(a);
  m.update();
  m.untouchPorts(true);
  EXPECT_EQ(m.referenceClass, RegDataClassLabel);
  EXPECT_EQ(m.portMetric.getNum(0), 4);
  m.portData.connect(b);
  m.update();
  m.untouchPorts(true);
  EXPECT_EQ(m.modelClass, RegDataClassLabel);
  EXPECT_EQ(m.interpolator, RegInterpolatorNearest);
  ASSERT_EQ(m.portMetric.getNum(0), 5);
  EXPECT_STREQ(m.portMetric.getLabel(0, 4), "Label difference");
  EXPECT_EQ(m.portMetric.getIndex(0), 4);
  // Disconnecting one input takes the entry away again.
  m.portReference.disconnect();
  m.update();
  m.untouchPorts(true);
  EXPECT_EQ(m.portMetric.getNum(0), 4);
  EXPECT_EQ(m.portMetric.getIndex(0), 0);
  // A grey model against a label reference: no label metric, interpolation.
  m.portReference.connect(a);
  m.portData.connect(held(makeField(6, 6, 6)));
  m.update();
  EXPECT_EQ(m.portMetric.getNum(0), 4);
  EXPECT_EQ(m.interpolator, RegInterpolatorStandard);
  EXPECT_EQ(m.modelClass, RegDataClassGrey);
}

TEST_F(VoxelRegistrationTest, GetDimensionClassifiesThePair) {
  auto dimension = [this](ZrSpatialData* r, ZrSpatialData* mod, std::vector<std::string>* out) {
    m.references.clear();
    m.models.clear();
    m.references.append(r);
    m.models.append(mod);
    MessageLog log;
    const int d = m.getDimension(0);
    if (out)
      *out = log.lines;
    return d;
  };
  std::vector<std::string> lines;
  EXPECT_EQ(dimension(held(makeField(5, 6, 7)), held(makeField(4, 4, 4)), &lines), 3);
  EXPECT_TRUE(lines.empty());
  EXPECT_EQ(dimension(held(makeField(5, 6, 1)), held(makeField(4, 4, 1)), nullptr), 2);
  EXPECT_EQ(dimension(held(makeField(1, 6, 5)), held(makeField(4, 4, 4)), nullptr), 0);
  EXPECT_EQ(dimension(held(makeField(5, 6, 7)), held(makeField(4, 1, 4)), nullptr), 1);

  EXPECT_EQ(dimension(held(makeField(1, 1, 7)), held(makeField(4, 4, 4)), &lines), -1);
  EXPECT_EQ(lines,
            (std::vector<std::string>{"Lattice has dimension 1 in more than one direction.\n",
                                      "Can't do even 2D registration\n"}));
  EXPECT_EQ(dimension(held(makeField(5, 6, 1)), held(makeField(1, 4, 4)), &lines), -1);
  EXPECT_EQ(lines, (std::vector<std::string>{"Model's and reference's lattice have dimension 1\n",
                                             "in different directions.\n",
                                             "Can't do even 2D registration\n"}));
  // A model flat on two axes always fails.
  EXPECT_EQ(dimension(held(makeField(5, 6, 7)), held(makeField(1, 4, 1)), nullptr), -1);

  // The index is clamped to the references there are.
  m.models[0] = held(makeField(4, 4, 4));
  m.references.append(held(makeField(3, 1, 3)));
  EXPECT_EQ(m.getDimension(7), 1);
}

TEST_F(VoxelRegistrationTest, VoxelSizesAndAxisOrder) {
  struct Case {
    float vx, vy, vz;
    int skip;
    QbVec3i order;
  } cases[] = {
      {1, 1, 1, 3, v3(1, 2, 0)}, // equal sizes: L 0 and S 0
      {1, 1, 4, 3, v3(0, 1, 2)},
      {1, 2, 0.5f, 3, v3(2, 0, 1)},
      {4, 1, 1, 3, v3(1, 2, 0)},
      {4, 2, 1, 3, v3(2, 1, 0)},
      {1, 3, 2, 3, v3(0, 2, 1)},
      {2, 1, 3, 3, v3(1, 0, 2)},
      {3, 1, 2, 3, v3(1, 2, 0)},
      // A flat axis always comes last.
      {1, 1, 1, 2, v3(0, 1, 2)},
      {2, 1, 1, 2, v3(1, 0, 2)},
      {1, 1, 1, 0, v3(1, 2, 0)},
      {1, 3, 2, 0, v3(2, 1, 0)},
  };
  for (const Case& c : cases) {
    m.references.clear();
    m.references.append(held(makeField(5, 5, 5, c.vx, c.vy, c.vz)));
    QbVec3d delta;
    QbVec3i order;
    m.getMinDelta(delta, order, 0, c.skip);
    EXPECT_EQ(order, c.order) << c.vx << " " << c.vy << " " << c.vz << " skip " << c.skip;
    EXPECT_EQ(delta, QbVec3d(c.vx, c.vy, c.vz));
  }

  // `which`: above 0 the model, otherwise reference -which, clamped.
  m.models.append(held(makeField(3, 3, 9, 2, 2, 0.5f)));
  m.references.append(held(makeField(5, 1, 5, 3, 1, 3)));
  QbVec3d delta;
  QbVec3i order;
  m.getMinDelta(delta, order, 1, 3);
  EXPECT_EQ(delta, QbVec3d(2, 2, 0.5));
  m.getMinDelta(delta, order, -5, 3);
  EXPECT_EQ(delta, QbVec3d(3, 0, 3)); // a flat axis has no extent

  // Slices: the gap between the last two slices stands for z.
  const int dims[3] = {4, 5, 4};
  const float xy[4] = {0, 6, 0, 2};
  const float z[4] = {0, 1, 3, 3.5f};
  m.references.clear();
  m.references.append(held(new ZrStackedScalarField3(dims, QB_UINT8, xy, z)));
  m.getMinDelta(delta, order, 0, 3);
  EXPECT_EQ(delta, QbVec3d(2, 0.5, 0.5));
  const int single[3] = {4, 1, 1};
  m.references.clear();
  m.references.append(held(new ZrStackedScalarField3(single, QB_UINT8, xy, z)));
  m.getMinDelta(delta, order, 0, 3);
  EXPECT_EQ(delta, QbVec3d(2, 1e20, 1e20));
}

TEST_F(VoxelRegistrationTest, MaxCoverageIsTheExtentRatio) {
  m.references.append(held(makeField(21, 21, 41)));      // 20 x 20 x 40
  m.models.append(held(makeField(11, 11, 11, 1, 1, 2))); // 10 x 10 x 20
  m.dimensionMode = 3;
  m.calculateMaxCoverage();
  EXPECT_DOUBLE_EQ(m.maxCoverage, 2000.0 / 16000.0);
  m.dimensionMode = 0; // the area across x
  m.calculateMaxCoverage();
  EXPECT_DOUBLE_EQ(m.maxCoverage, 200.0 / 800.0);
  m.dimensionMode = 2;
  m.calculateMaxCoverage();
  EXPECT_DOUBLE_EQ(m.maxCoverage, 100.0 / 400.0);
  // A reference smaller than the model leaves the value as it was.
  m.maxCoverage = 0.7;
  m.models[0] = held(makeField(31, 31, 51));
  m.dimensionMode = 3;
  m.calculateMaxCoverage();
  EXPECT_EQ(m.maxCoverage, 0.7);
  // Equal extents cover fully.
  m.models[0] = m.references[0];
  m.calculateMaxCoverage();
  EXPECT_EQ(m.maxCoverage, 1.0);
}

TEST_F(VoxelRegistrationTest, PyramidOfAnIsotropicField) {
  plan(held(makeField(32, 32, 32)), held(makeField(32, 32, 32)), v3(8, 8, 8));
  ZrVoxelRegistration::LevelArray refLevels, modLevels;
  QbVec3i coarsest = v3(8, 8, 8);
  MessageLog log;
  m.doResampling(&refLevels, coarsest, &modLevels);
  EXPECT_EQ(m.referenceFactors,
            (std::vector<QbVec3i>{v3(1, 1, 1), v3(2, 2, 2), v3(4, 4, 4), v3(8, 8, 8)}));
  EXPECT_EQ(m.modelFactors, m.referenceFactors);
  EXPECT_EQ(refLevels.size(), 4);
  EXPECT_EQ(modLevels.size(), 4);
  EXPECT_EQ(refLevels[0][0], m.references[0]);
  EXPECT_EQ(modLevels[0][0], m.models[0]);
  EXPECT_EQ(log.count("Sampling reference to: (4, 4, 4)\n"), 1);
  EXPECT_EQ(log.count("Sampling model to: (8, 8, 8)\n"), 1);

  // With factor 3 the same field takes two steps to (9, 9, 9).
  m.referenceFactors.clear();
  m.samplingFactor = 3;
  ZrVoxelRegistration::LevelArray r3, m3;
  coarsest = v3(9, 9, 9);
  m.doResampling(&r3, coarsest, &m3);
  EXPECT_EQ(m.referenceFactors, (std::vector<QbVec3i>{v3(1, 1, 1), v3(3, 3, 3), v3(9, 9, 9)}));

  // All factors 1: one level holding the inputs.
  m.referenceFactors.clear();
  ZrVoxelRegistration::LevelArray r1, m1;
  coarsest = v3(1, 1, 1);
  m.doResampling(&r1, coarsest, &m1);
  ASSERT_EQ(r1.size(), 1);
  EXPECT_EQ(r1[0][0], m.references[0]);
  EXPECT_EQ(m1[0][0], m.models[0]);
}

TEST_F(VoxelRegistrationTest, PyramidOfThickSlices) {
  // 256 x 256 x 32 voxels of 1 x 1 x 4: x and y are reduced alone until the
  // voxels are nearly cubic, then all axes together.
  plan(held(makeField(256, 256, 32, 1, 1, 4)), held(makeField(128, 128, 32, 2, 2, 4)), v3(8, 8, 2));
  ZrVoxelRegistration::LevelArray refLevels, modLevels;
  QbVec3i coarsest = v3(8, 8, 2);
  m.doResampling(&refLevels, coarsest, &modLevels);
  EXPECT_EQ(m.referenceFactors,
            (std::vector<QbVec3i>{v3(1, 1, 1), v3(2, 2, 1), v3(4, 4, 2), v3(8, 8, 2)}));
  // The model keeps the reference's voxel size: its voxels are twice as
  // large in x and y.
  EXPECT_EQ(m.modelFactors,
            (std::vector<QbVec3i>{v3(1, 1, 1), v3(1, 1, 1), v3(2, 2, 2), v3(4, 4, 2)}));
  EXPECT_EQ(modLevels.size(), 4);
}

TEST_F(VoxelRegistrationTest, PyramidOfThickSlicesWithUnequalInPlaneVoxels) {
  // Voxels of 1 x 1.5 x 6: x is reduced first, y follows with the count of
  // its voxels nearest to x's new size (2.67 rounds to 3), then all together.
  plan(held(makeField(64, 64, 16, 1, 1.5f, 6)), held(makeField(64, 64, 16, 1, 1.5f, 6)),
       v3(8, 8, 2));
  ZrVoxelRegistration::LevelArray refLevels, modLevels;
  QbVec3i coarsest = v3(8, 8, 2);
  m.doResampling(&refLevels, coarsest, &modLevels);
  EXPECT_EQ(m.referenceFactors, (std::vector<QbVec3i>{v3(1, 1, 1), v3(2, 1, 1), v3(4, 3, 1),
                                                      v3(8, 6, 2), v3(8, 8, 2)}));
  EXPECT_EQ(m.modelFactors, m.referenceFactors);
}

TEST_F(VoxelRegistrationTest, PyramidOfAFlatPair) {
  // A 2-D pair with coarsest (4, 4, 9) behaves as (4, 4, 1).
  plan(held(makeField(64, 64, 1)), held(makeField(64, 64, 1)), v3(4, 4, 9));
  ZrVoxelRegistration::LevelArray refLevels, modLevels;
  QbVec3i coarsest = v3(4, 4, 9);
  m.doResampling(&refLevels, coarsest, &modLevels);
  EXPECT_EQ(m.referenceFactors, (std::vector<QbVec3i>{v3(1, 1, 1), v3(2, 2, 1), v3(4, 4, 1)}));
  EXPECT_EQ(m.modelFactors, m.referenceFactors);

  // A localizer keeps its slice direction (the coarsest axis) at 1.
  RegTestModule loc;
  loc.fakeResampling = true;
  loc.samplingFactor = 2;
  loc.portOptions2.setValue(0, 1);
  loc.references.append(held(makeField(32, 32, 16, 1, 1, 2)));
  loc.models.append(held(makeField(32, 32, 16, 1, 1, 2)));
  ZrVoxelRegistration::LevelArray lr, lm;
  coarsest = v3(4, 4, 4);
  loc.doResampling(&lr, coarsest, &lm);
  EXPECT_EQ(loc.referenceFactors, (std::vector<QbVec3i>{v3(1, 1, 1), v3(2, 2, 1), v3(4, 4, 1)}));
  // The model's slice axis follows the reference's finest axis instead.
  EXPECT_EQ(loc.modelFactors, (std::vector<QbVec3i>{v3(1, 1, 1), v3(2, 2, 1), v3(4, 4, 2)}));
}

TEST_F(VoxelRegistrationTest, IsotropicStepRoundsAndJumps) {
  // A remainder of less than one and a half steps is taken in one jump, the
  // other axes grow by the same ratio, rounded half to even.
  m.samplingFactor = 2;
  QbVec3i factors = v3(4, 3, 1), coarsest = v3(10, 20, 1);
  bool keepGoing[3] = {true, true, false};
  m.sampleInIsotropy(factors, keepGoing, coarsest, 2);
  EXPECT_EQ(factors, v3(10, 8, 1)); // 3 * 2.5 = 7.5 -> 8
  EXPECT_FALSE(keepGoing[0]);
  EXPECT_TRUE(keepGoing[1]);
  factors = v3(4, 5, 1);
  keepGoing[0] = keepGoing[1] = true;
  m.sampleInIsotropy(factors, keepGoing, coarsest, 2);
  EXPECT_EQ(factors, v3(10, 12, 1)); // 5 * 2.5 = 12.5 -> 12
  // A remainder of one and a half steps or more takes a normal step.
  factors = v3(2, 2, 2);
  coarsest = v3(6, 6, 6);
  bool all[3] = {true, true, true};
  m.sampleInIsotropy(factors, all, coarsest, 3);
  EXPECT_EQ(factors, v3(4, 4, 4));
  m.sampleInIsotropy(factors, all, coarsest, 3);
  EXPECT_EQ(factors, v3(6, 6, 6));
  EXPECT_FALSE(all[0] || all[1] || all[2]);
}

TEST_F(VoxelRegistrationTest, LaterReferenceChannelsFollowTheirOwnPlan) {
  // Channel 1 has thick voxels in y and z: its first pass changes nothing but
  // still counts as a level, so it runs one level behind, and its last
  // reduction has no level to go to.
  plan(held(makeField(16, 16, 16)), held(makeField(16, 16, 16)), v3(1, 4, 4));
  m.references.append(held(makeField(16, 4, 4, 1, 4, 4)));
  ZrVoxelRegistration::LevelArray refLevels, modLevels;
  QbVec3i coarsest = v3(1, 4, 4);
  const int poolSize = ZrObjectPool::getTheObjectPool()->getNumObjects();
  m.doResampling(&refLevels, coarsest, &modLevels);
  EXPECT_EQ(m.referenceFactors,
            (std::vector<QbVec3i>{v3(1, 1, 1), v3(1, 2, 2), v3(1, 4, 4),                 // ref 0
                                  v3(1, 1, 1), v3(1, 1, 1), v3(1, 2, 2), v3(1, 4, 4)})); // ref 1
  ASSERT_EQ(refLevels.size(), 3);
  for (int i = 0; i < 3; i++) {
    ASSERT_EQ(refLevels[i].size(), 2) << i;
    EXPECT_EQ(refLevels[i][1], m.references[1]);
  }
  EXPECT_EQ(modLevels.size(), 3);
  EXPECT_EQ(ZrObjectPool::getTheObjectPool()->getNumObjects(), poolSize);
}

TEST_F(VoxelRegistrationTest, IncompatibleLatticesMakeNoLevel) {
  m.references.append(held(makeField(8, 1, 8)));
  m.models.append(held(makeField(8, 8, 1)));
  m.fakeResampling = true;
  ZrVoxelRegistration::LevelArray refLevels, modLevels;
  QbVec3i coarsest = v3(2, 2, 2);
  MessageLog log;
  m.doResampling(&refLevels, coarsest, &modLevels);
  EXPECT_EQ(refLevels.size(), 0);
  EXPECT_EQ(modLevels.size(), 0);
  EXPECT_TRUE(m.referenceFactors.empty());
}

namespace {
// Four levels of an isotropic pair: (1), (2), (4), (8).
const QbVec3i kFourLevels = v3(8, 8, 8);
} // namespace

TEST_F(VoxelRegistrationTest, StepScheduleWithRamp) {
  plan(held(makeField(32, 32, 32)), held(makeField(32, 32, 32)), kFourLevels);
  configureRun(10.0f, 0.5f, 0, 0);
  m.recordOnly = true;
  m.doRegistration();
  ASSERT_EQ(m.resolutions.size(), 4u);
  // Coarsest first. The end step walks down to the final step exactly; the
  // start step shrinks by 0.6, then 0.55, 0.5.
  const double starts[4] = {10.0, 10.0 * 0.6, 10.0 * 0.6 * 0.55, 10.0 * 0.6 * 0.55 * 0.5};
  const double ends[4] = {2.0, 1.5, 1.0, 0.5};
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(m.resolutions[i].level, i);
    EXPECT_EQ(m.resolutions[i].numLevels, 4);
    EXPECT_NEAR(m.resolutions[i].start, starts[i], 1e-12) << i;
    EXPECT_DOUBLE_EQ(m.resolutions[i].end, ends[i]) << i;
    EXPECT_TRUE(m.resolutions[i].hasOptimizer);
    EXPECT_FALSE(m.resolutions[i].gradient);
  }
  EXPECT_EQ(m.numCreateFunctional, 4);
  EXPECT_EQ(m.numDoneRegistration, 1);
  EXPECT_EQ(m.functionals, nullptr);
  EXPECT_EQ(m.optimizer, nullptr);
  EXPECT_EQ(m.currentFunctional, nullptr);
  EXPECT_TRUE(m.watch.isStopped());
}

TEST_F(VoxelRegistrationTest, StepScheduleInSinglePrecision) {
  // Three levels; the first end step is 0.1f * 1 * 3 formed in float, and
  // each level subtracts 0.1f * 1 formed in float.
  plan(held(makeField(16, 16, 16)), held(makeField(16, 16, 16)), v3(4, 4, 4));
  configureRun(10.0f, 0.1f, 0, 0);
  m.recordOnly = true;
  m.doRegistration();
  ASSERT_EQ(m.resolutions.size(), 3u);
  const double first = 0.1f * 1.0f * 3.0f;
  EXPECT_NE(first, double(0.1f) * 3.0);
  EXPECT_EQ(m.resolutions[0].end, first);
  EXPECT_EQ(m.resolutions[1].end, first - double(0.1f));
  EXPECT_EQ(m.resolutions[2].end, first - double(0.1f) - double(0.1f));
}

TEST_F(VoxelRegistrationTest, StepScheduleWithSamplingFactorThree) {
  // Factor 3 ends at twice the final step.
  plan(held(makeField(32, 32, 32)), held(makeField(32, 32, 32)), v3(9, 9, 9), 3);
  configureRun(10.0f, 0.5f, 0, 0);
  m.recordOnly = true;
  m.doRegistration();
  ASSERT_EQ(m.resolutions.size(), 3u);
  EXPECT_DOUBLE_EQ(m.resolutions[0].end, 3.0);
  EXPECT_DOUBLE_EQ(m.resolutions[1].end, 2.0);
  EXPECT_DOUBLE_EQ(m.resolutions[2].end, 1.0);
}

TEST_F(VoxelRegistrationTest, StepScheduleWithoutRamp) {
  plan(held(makeField(32, 32, 32)), held(makeField(32, 32, 32)), kFourLevels);
  m.recordOnly = true;
  // A final step above the initial one: both steps are the initial one.
  configureRun(1.0f, 2.0f, 0, 0);
  m.doRegistration();
  ASSERT_EQ(m.resolutions.size(), 4u);
  for (const auto& r : m.resolutions) {
    EXPECT_EQ(r.start, 1.0);
    EXPECT_EQ(r.end, 1.0);
  }
  // A ramp that would start above the initial step: fixed steps.
  m.resolutions.clear();
  configureRun(1.0f, 0.5f, 0, 0);
  m.doRegistration();
  ASSERT_EQ(m.resolutions.size(), 4u);
  for (const auto& r : m.resolutions) {
    EXPECT_EQ(r.start, 1.0);
    EXPECT_EQ(r.end, 0.5);
  }
}

TEST_F(VoxelRegistrationTest, RampFactorStopsAtOneFifth) {
  // Ten levels of a flat 1024 x 1024 field.
  plan(held(makeField(1024, 1024, 1)), held(makeField(1024, 1024, 1)), v3(512, 512, 1));
  configureRun(1000.0f, 0.001f, 0, 0);
  m.recordOnly = true;
  m.doRegistration();
  ASSERT_EQ(m.resolutions.size(), 10u);
  const double factors[9] = {0.6, 0.55, 0.5, 0.45, 0.4, 0.35, 0.3, 0.25, 0.2};
  for (int i = 0; i < 9; i++)
    EXPECT_NEAR(m.resolutions[i + 1].start / m.resolutions[i].start, factors[i], 1e-12) << i;
}

TEST_F(VoxelRegistrationTest, IgnoreFinestResolution) {
  plan(held(makeField(32, 32, 32)), held(makeField(32, 32, 32)), kFourLevels);
  configureRun(10.0f, 0.5f, 0, 1);
  m.recordOnly = true;
  m.doRegistration();
  ASSERT_EQ(m.resolutions.size(), 3u);
  EXPECT_EQ(m.resolutions.back().level, 2);
  EXPECT_EQ(m.numDoneRegistration, 1);
  EXPECT_EQ(m.functionals, nullptr);

  // A single level is skipped altogether: the transform stays as it was.
  RegTestModule one;
  one.portReference.connect(held(makeField(20, 20, 20)));
  one.portData.connect(held(makeField(20, 20, 20)));
  one.update();
  EXPECT_EQ(one.ignoreFinest, 1);
  one.portOptimizer.setIndex(0, 1);
  MessageLog log;
  one.doRegistration();
  EXPECT_TRUE(one.resolutions.empty());
  EXPECT_EQ(one.numDoneRegistration, 1);
  EXPECT_EQ(log.count("elapsed time: "), 1);
  ASSERT_NE(one.transform, nullptr);
  auto* t = static_cast<RegAffineTransform*>(one.transform);
  for (int i = 0; i < 6; i++)
    EXPECT_NEAR(t->paramVector[i], 0.0, 1e-9);
}

TEST_F(VoxelRegistrationTest, GradientSwitchAtTheFinestLevels) {
  plan(held(makeField(32, 32, 32)), held(makeField(32, 32, 32)), kFourLevels);
  configureRun(1024.0f, 0.5f, 2, 0);
  m.portNLevelsGradient.setValue(1, 0.001f);
  m.recordOnly = true;
  m.doRegistration();
  ASSERT_EQ(m.resolutions.size(), 4u);
  EXPECT_FALSE(m.resolutions[0].gradient);
  EXPECT_FALSE(m.resolutions[1].gradient);
  // The tolerance grows tenfold towards the finest level; the start step is
  // the initial one over 1024, but not below the final one.
  EXPECT_TRUE(m.resolutions[2].gradient);
  EXPECT_DOUBLE_EQ(m.resolutions[2].tolerance, double(0.001f));
  EXPECT_TRUE(m.resolutions[3].gradient);
  EXPECT_DOUBLE_EQ(m.resolutions[3].tolerance, 10.0 * double(0.001f));
  EXPECT_EQ(m.resolutions[2].start, 1.0);
  EXPECT_EQ(m.resolutions[3].start, 1.0);
  // The end steps keep their ramp.
  EXPECT_DOUBLE_EQ(m.resolutions[3].end, 0.5);

  // With the finest level ignored the switch moves down with it.
  m.resolutions.clear();
  configureRun(1024.0f, 0.5f, 1, 1);
  m.doRegistration();
  ASSERT_EQ(m.resolutions.size(), 3u);
  EXPECT_FALSE(m.resolutions[1].gradient);
  EXPECT_TRUE(m.resolutions[2].gradient);
  EXPECT_DOUBLE_EQ(m.resolutions[2].tolerance, double(0.001f));

  // "Finest levels:" 0 never switches, ignored finest level or not.
  for (int ignore : {0, 1}) {
    m.resolutions.clear();
    configureRun(1024.0f, 0.5f, 0, ignore);
    m.doRegistration();
    for (const auto& r : m.resolutions)
      EXPECT_FALSE(r.gradient);
  }
  // Level 0 never switches, even when all levels are asked for.
  m.resolutions.clear();
  configureRun(1024.0f, 0.5f, 10, 0);
  m.doRegistration();
  ASSERT_EQ(m.resolutions.size(), 4u);
  EXPECT_FALSE(m.resolutions[0].gradient);
  EXPECT_TRUE(m.resolutions[1].gradient);
  EXPECT_DOUBLE_EQ(m.resolutions[3].tolerance, 100.0 * double(0.001f));
}

TEST_F(VoxelRegistrationTest, OptimizerMenu) {
  plan(held(makeField(16, 16, 16)), held(makeField(16, 16, 16)), v3(1, 1, 1));
  m.portNLevelsGradient.setValue(1, 0.01f);
  for (int index = 0; index < 6; index++) {
    ZrOptimizer* o = m.createOptimizer(index, 0.5);
    if (index == 5) {
      EXPECT_EQ(o, nullptr);
      continue;
    }
    ASSERT_NE(o, nullptr) << index;
    EXPECT_EQ(o->callback, static_cast<RegOptimizerCallback*>(&m));
    auto* g = dynamic_cast<ZrGradientOptimizer*>(o);
    EXPECT_EQ(g != nullptr, index == 2 || index == 3) << index;
    if (g) {
      EXPECT_EQ(g->tolerance, 0.5);
      EXPECT_EQ(g->method, index == 2 ? 2 : 1);
    }
    if (index == 1) {
      auto* b = dynamic_cast<ZrBestNeighbourOptimizer*>(o);
      ASSERT_NE(b, nullptr);
      EXPECT_EQ(b->stepFactor, m.stepFactor);
      EXPECT_EQ(b->dimensionMode, 3);
    }
    delete o;
  }
  // An index outside the table skips every level.
  configureRun(1.0f, 0.5f, 0, 0);
  m.portOptimizer.setIndex(0, 7);
  m.recordOnly = true;
  m.doRegistration();
  EXPECT_TRUE(m.resolutions.empty());
  EXPECT_EQ(m.numDoneRegistration, 1);
}

TEST_F(VoxelRegistrationTest, InterruptedRunReportsTwice) {
  const int n = 12;
  const int dims[3] = {n, n, n};
  const float box[6] = {0, n - 1, 0, n - 1, 0, n - 1};
  plan(held(makeRegTestField(dims, box)), held(makeRegTestField(dims, box)), v3(2, 2, 2));
  configureRun(2.0f, 0.5f, 0, 0);
  // The user stops during the coarsest level.
  m.onEnterResolution = [](int) { ZrWorkArea::getTheWorkArea()->requestInterrupt(); };
  MessageLog log;
  m.doRegistration();
  ZrWorkArea::getTheWorkArea()->clearInterrupt();

  ASSERT_EQ(m.resolutions.size(), 1u);
  EXPECT_EQ(m.numDoneRegistration, 2);
  EXPECT_EQ(log.count("elapsed time: "), 2);
  EXPECT_EQ(m.functionals, nullptr);
  EXPECT_EQ(m.currentFunctional, nullptr);
  EXPECT_EQ(m.optimizer, nullptr);
  EXPECT_NE(m.transform, nullptr);
  EXPECT_TRUE(m.watch.isStopped());
}

TEST_F(VoxelRegistrationTest, ReleasingALevelRemovesOnlyResampledCopies) {
  ZrUniformScalarField3* r = held(makeField(8, 8, 8));
  ZrUniformScalarField3* mod = held(makeField(8, 8, 8));
  m.references.append(r);
  m.models.append(mod);
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  pool->addObject(r);
  // Two copies that live in the pool only.
  ZrUniformScalarField3* refCopy = makeField(4, 4, 4);
  ZrUniformScalarField3* modCopy = makeField(4, 4, 4);
  pool->addObject(refCopy);
  pool->addObject(modCopy);

  ZrVoxelRegistration::FieldArray refs, mods;
  refs.append(r);
  refs.append(refCopy);
  mods.append(modCopy);
  RegAffineTransform t;
  RegAffineFunctional f(refs, mods, RegInterpolatorStandard, &t, new RegMeanSquaredDifference(1),
                        nullptr, 0, 3);
  m.releaseLevel(&f);
  EXPECT_EQ(f.references[0], r);
  EXPECT_EQ(f.references[1], nullptr);
  EXPECT_EQ(f.models[0], nullptr);
  EXPECT_TRUE(pool->contains(r));
  EXPECT_FALSE(pool->contains(refCopy));
  EXPECT_FALSE(pool->contains(modCopy));
  pool->removeObject(r);
}

TEST_F(VoxelRegistrationTest, FunctionalStack) {
  m.functionals = new ZrVoxelRegistration::FunctionalStack;
  EXPECT_EQ(m.popFunctional(), nullptr);
  RegFunctional* a = reinterpret_cast<RegFunctional*>(0x10);
  RegFunctional* b = reinterpret_cast<RegFunctional*>(0x20);
  m.pushFunctional(a);
  m.pushFunctional(b);
  EXPECT_EQ(m.functionals->size(), 2);
  EXPECT_EQ(m.popFunctional(), b);
  EXPECT_EQ(m.popFunctional(), a);
  EXPECT_EQ(m.popFunctional(), nullptr);
  delete m.functionals;
  m.functionals = nullptr;
}
