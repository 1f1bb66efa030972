// The registration driver through an affine module of its own scored by
// squared differences: defaults, pyramid, steps, downsampling, a stop.
#include "MessageCapture.h"
#include "QbPrimType.h"
#include "RegAffineFunctional.h"
#include "RegAffineTransform.h"
#include "RegMeanSquaredDifference.h"
#include "ZrBestNeighbourOptimizer.h"
#include "ZrGradientOptimizer.h"
#include "ZrObjectPool.h"
#include "ZrStackedScalarField3.h"
#include "ZrUniformLabelField3.h"
#include "ZrVoxelRegistration.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

// Records what the driver hands to its virtual operations, and can plan the
// pyramid without resampling (each level then holds the inputs) or record
// the levels without optimising.
class RegTestModule : public ZrVoxelRegistration {
public:
  struct Resolution {
    int level, numLevels;
    double start, end;
    bool hasOptimizer, gradient;
    double tolerance; // a gradient optimizer's
  };
  bool recordOnly = false, fakeResampling = false;
  std::vector<Resolution> resolutions;
  std::vector<QbVec3i> referenceFactors, modelFactors;
  int numDoneRegistration = 0;
  std::function<void(int level)> onEnterResolution;

  // What the constructor gave the ports are defaults, as for a module that
  // enters the object pool.
  RegTestModule() { untouchPorts(false); }
  void compute() override {}
  void update() override {
    updateReference();
    ZrVoxelRegistration::update();
  }
  void createTransform() override {
    transform = new RegAffineTransform(references, models.isEmpty() ? nullptr : models[0], 6);
  }
  int initRegistration() override {
    if (!transform)
      createTransform();
    return dimensionMode < 0 ? 0 : ZrVoxelRegistration::initRegistration();
  }
  RegFunctional* createFunctional(FieldArray& refs, FieldArray& mods, int, int) override {
    return new RegAffineFunctional(refs, mods, interpolator, transform,
                                   new RegMeanSquaredDifference(1.0), this, 0, dimensionMode);
  }
  void downsample(ZrRegScalarField3* field, ZrRegScalarField3*& result, QbVec3i& factors,
                  RegDataClass dataClass) override {
    if (!fakeResampling)
      return ZrVoxelRegistration::downsample(field, result, factors, dataClass);
    (!models.isEmpty() && field == models[0] ? modelFactors : referenceFactors).push_back(factors);
    result = field;
  }
  void enterResolution(int level, int, RegFunctional*) override {
    if (onEnterResolution)
      onEnterResolution(level);
  }
  void doResolution(int level, int numLevels, RegFunctional* functional, double startStep,
                    double endStep) override {
    auto* g = dynamic_cast<ZrGradientOptimizer*>(optimizer);
    resolutions.push_back({level, numLevels, startStep, endStep, optimizer != nullptr, g != nullptr,
                           g ? g->tolerance : 0.0});
    if (!recordOnly)
      ZrVoxelRegistration::doResolution(level, numLevels, functional, startStep, endStep);
  }
  void doneRegistration() override {
    numDoneRegistration++;
    ZrVoxelRegistration::doneRegistration();
  }
  bool applyTransform(RegParametricTransform*) override { return checkForInterrupt(); }
};

typedef std::vector<QbVec3i> Factors;

std::vector<double> numbers(std::string text) {
  for (char& c : text)
    c = c == ',' ? ' ' : c;
  std::vector<double> v;
  std::istringstream in(text);
  for (double x; in >> x;)
    v.push_back(x);
  return v;
}

// "1 1 1, 2 2 2": factor triples.
Factors factors(const char* text) {
  const std::vector<double> v = numbers(text);
  Factors f;
  for (size_t i = 0; i + 2 < v.size(); i += 3)
    f.emplace_back(int(v[i]), int(v[i + 1]), int(v[i + 2]));
  return f;
}

// A smooth, asymmetric image: a sum of anisotropic Gaussian blobs.
double blobs(double x, double y, double z) {
  static const double b[4][7] = {{12, 14, 15, 6, 4, 5, 100},
                                 {21, 11, 12, 3, 5, 4, 70},
                                 {15, 22, 20, 4, 3, 6, 50},
                                 {9, 9, 22, 3, 3, 3, 40}};
  double v = 0;
  for (const auto& k : b) {
    const double dx = (x - k[0]) / k[3], dy = (y - k[1]) / k[4], dz = (z - k[2]) / k[5];
    v += k[6] * std::exp(-0.5 * (dx * dx + dy * dy + dz * dz));
  }
  return v;
}

// Fields that the test holds a reference on until it ends.
class Fields {
public:
  ~Fields() {
    for (ZrObject* o : held)
      o->unref();
  }
  template <class T> T* hold(T* o) {
    o->ref();
    held.push_back(o);
    return o;
  }
  // nx x ny x nz nodes of voxel size (vx, vy, vz), the first at the origin;
  // values 0..255 where there is room for them.
  ZrUniformScalarField3* operator()(int nx, int ny, int nz, float vx = 1, float vy = 1,
                                    float vz = 1, int type = QB_UINT8) {
    const int dims[3] = {nx, ny, nz};
    const float box[6] = {0, (nx - 1) * vx, 0, (ny - 1) * vy, 0, (nz - 1) * vz};
    ZrUniformScalarField3* f = new ZrUniformScalarField3(dims, type, box);
    for (size_t i = 0; i < f->lattice.numNodes(); i++)
      f->lattice.setValue(i, double(i % 256));
    return hold(f);
  }
  // "nx ny nz [vx vy vz]"
  ZrUniformScalarField3* operator()(const char* dims) {
    std::vector<double> v = numbers(dims);
    v.resize(6, 1.0);
    return (*this)(int(v[0]), int(v[1]), int(v[2]), float(v[3]), float(v[4]), float(v[5]));
  }
  // n^3 float nodes over [0, n - 1]^3; node p holds blobs(p * m).
  ZrUniformScalarField3* blobbed(int n, const SbMatrixd& m = SbMatrixd()) {
    ZrUniformScalarField3* f = (*this)(n, n, n, 1, 1, 1, QB_FLOAT);
    for (int k = 0; k < n; k++)
      for (int j = 0; j < n; j++)
        for (int i = 0; i < n; i++) {
          SbVec3d w;
          m.multVecMatrix(SbVec3d(i, j, k), w);
          f->lattice.setValue(i + size_t(n) * (j + size_t(n) * k), blobs(w.x, w.y, w.z));
        }
    return f;
  }

private:
  std::vector<ZrObject*> held;
};

class VoxelRegistrationTest : public ::testing::Test {
protected:
  // Connects the inputs; with coarsest factors, plans a pyramid without
  // resampling.
  void connect(RegTestModule& mod, ZrSpatialData* reference, ZrSpatialData* model,
               QbVec3i coarsest = QbVec3i(0, 0, 0), int factor = 2) {
    mod.portReference.connect(reference);
    mod.portData.connect(model);
    mod.update();
    mod.untouchPorts(true);
    mod.samplingFactor = factor;
    mod.fakeResampling = coarsest[0] > 0;
    for (int i = 0; i < 3 && coarsest[0] > 0; i++)
      mod.portCoarsestResolution.setValue(i, coarsest[i]);
  }
  // A recorded run with the best-neighbour search.
  void record(RegTestModule& mod, float initial, float final, int finestLevels, int ignoreFinest) {
    mod.resolutions.clear();
    mod.portStep.setValue(0, initial);
    mod.portStep.setValue(1, final);
    mod.portNLevelsGradient.setValue(0, float(finestLevels));
    mod.portOptimizer.setIndex(0, 1);
    mod.ignoreFinest = ignoreFinest;
    mod.recordOnly = true;
    mod.doRegistration();
  }

  MessageCapture log;
  Fields field;
  RegTestModule m;
};

} // namespace

TEST_F(VoxelRegistrationTest, DefaultsOfCoarsestFactorsAndStepsFollowTheInput) {
  struct Case {
    int parameterSource;
    const char* input;
    QbVec3i factors;
    float initial, final;
  } cases[] = {
      // About 30 voxels per axis at the coarsest level.
      {1, "64 64 64", {2, 2, 2}, 64 / 5.0f, float(1 / 6.0)},
      {1, "20 20 20", {1, 1, 1}, 4.0f, float(1 / 6.0)}, // too small for a second level
      // Thick slices: x and y by 8, z by the truncation of 4 / 1.5 (8 / 1.5).
      {1, "256 256 32 1 1 4", {8, 8, 2}, 51.2f, float(1 / 6.0)},
      {1, "128 128 64 1 1 2", {8, 8, 5}, 25.6f, float(1 / 6.0)},
      // Nearly isotropic voxels count as isotropic.
      {1, "90 60 60 1 1.05 1.05", {3, 2, 2}, 18.0f, float(1 / 6.0)},
      // The longest axis (y) sets the initial step, the finest voxel the final.
      {1, "40 80 20 0.5 2 1", {8, 2, 4}, 32.0f, float(0.5 / 6.0)},
      // Parameters that follow the model: thick slices in z, then isotropic.
      {0, "64 64 16 1 1 3", {4, 4, 2}, 64 / 5.0f, 0},
      {0, "100 70 40", {3, 2, 1}, 20.0f, 0},
  };
  for (const Case& c : cases) {
    RegTestModule mod;
    mod.parameterSource = c.parameterSource;
    ZrUniformScalarField3* f = field(c.input);
    (c.parameterSource ? mod.portReference : mod.portData).connect(f);
    mod.update();
    for (int i = 0; i < 3; i++) {
      EXPECT_EQ(mod.portCoarsestResolution.getValue(i), c.factors[i]) << c.input << " axis " << i;
      EXPECT_EQ(mod.portCoarsestResolution.getMaxValue(i), f->getDims()[i] / 2) << c.input;
    }
    EXPECT_EQ(mod.portStep.getValue(0), c.initial) << c.input;
    if (c.final > 0) {
      EXPECT_EQ(mod.portStep.getValue(1), c.final) << c.input;
    }
  }
}

TEST(ZrVoxelRegistrationBins, OneBinPerIntegerValueUpTo256) {
  struct Case {
    float min, max;
    int type, bins;
  } cases[] = {{0, 1, QB_UINT8, 1},
               {0, 100, QB_UINT8, 100},
               {0, 255, QB_UINT8, 255},
               {0, 256, QB_INT16, 256},
               {0, 1000, QB_INT16, 250},
               {0, 4095, QB_UINT16, 255},
               {7, 7, QB_INT32, 1},
               {-0.4f, 0.4f, QB_INT16, 1},
               {-50, 49.6f, QB_INT16, 100},
               {0, 255, QB_INT8, 255},
               {0, 1000, QB_INT64, 250},
               {0, 1000, QB_UINT32, 250},
               {0, 100, QB_FLOAT, 256},
               {0, 1, QB_DOUBLE, 256},
               {-1000, 3000, 5, 256},
               // Bin widths are whole numbers: 600 / 256 rounds to 2, leaving 300 bins.
               {0, 600, QB_INT16, 300}};
  for (const Case& c : cases)
    EXPECT_EQ(ZrVoxelRegistration::computeNumBins(c.min, c.max, c.type), c.bins)
        << c.min << " " << c.max << " type " << c.type;
}
TEST_F(VoxelRegistrationTest, MaxCoverageIsTheExtentRatio) {
  m.references.append(field(21, 21, 41));      // 20 x 20 x 40
  m.models.append(field(11, 11, 11, 1, 1, 2)); // 10 x 10 x 20
  const double coverage[4] = {200.0 / 800.0, -1, 100.0 / 400.0, 2000.0 / 16000.0};
  for (int mode : {0, 2, 3}) {
    m.dimensionMode = mode;
    m.calculateMaxCoverage();
    EXPECT_DOUBLE_EQ(m.maxCoverage, coverage[mode]) << mode;
  }
  // A reference smaller than the model leaves the value as it was.
  m.maxCoverage = 0.7;
  m.models[0] = field(31, 31, 51);
  m.calculateMaxCoverage();
  EXPECT_EQ(m.maxCoverage, 0.7);
  m.models[0] = m.references[0];
  m.calculateMaxCoverage();
  EXPECT_EQ(m.maxCoverage, 1.0);
}

TEST_F(VoxelRegistrationTest, PyramidPlans) {
  struct Case {
    const char *reference, *model;
    QbVec3i coarsest;
    int factor;
    bool localizer;
    const char *referenceFactors, *modelFactors; // null: as the reference's
  } cases[] = {
      {"32 32 32", "32 32 32", {8, 8, 8}, 2, false, "1 1 1, 2 2 2, 4 4 4, 8 8 8", nullptr},
      {"32 32 32", "32 32 32", {9, 9, 9}, 3, false, "1 1 1, 3 3 3, 9 9 9", nullptr},
      // Thick slices: x and y alone until the voxels are nearly cubic; the
      // model keeps the reference's voxel size (its own are twice as large).
      {"256 256 32 1 1 4",
       "128 128 32 2 2 4",
       {8, 8, 2},
       2,
       false,
       "1 1 1, 2 2 1, 4 4 2, 8 8 2",
       "1 1 1, 1 1 1, 2 2 2, 4 4 2"},
      // 1 x 1.5 x 6: x first, y follows with the count of its voxels nearest
      // to x's new size (2.67 rounds to 3), then all together.
      {"64 64 16 1 1.5 6",
       "64 64 16 1 1.5 6",
       {8, 8, 2},
       2,
       false,
       "1 1 1, 2 1 1, 4 3 1, 8 6 2, 8 8 2",
       nullptr},
      // A flat pair asked for (4, 4, 9) behaves as (4, 4, 1).
      {"64 64 1", "64 64 1", {4, 4, 9}, 2, false, "1 1 1, 2 2 1, 4 4 1", nullptr},
      // A localizer keeps its slice direction at 1; the model's slice axis
      // follows the reference's finest axis instead.
      {"32 32 16 1 1 2",
       "32 32 16 1 1 2",
       {4, 4, 4},
       2,
       true,
       "1 1 1, 2 2 1, 4 4 1",
       "1 1 1, 2 2 1, 4 4 2"},
      // All factors 1: one level holding the inputs.
      {"32 32 32", "32 32 32", {1, 1, 1}, 2, false, "1 1 1", nullptr},
  };
  for (const Case& c : cases) {
    RegTestModule mod;
    connect(mod, field(c.reference), field(c.model), c.coarsest, c.factor);
    mod.portOptions2.setValue(0, c.localizer ? 1 : 0);
    ZrVoxelRegistration::LevelArray refLevels, modLevels;
    QbVec3i coarsest = c.coarsest;
    mod.doResampling(&refLevels, coarsest, &modLevels);
    const Factors expected = factors(c.referenceFactors);
    EXPECT_EQ(mod.referenceFactors, expected) << c.reference;
    EXPECT_EQ(mod.modelFactors, c.modelFactors ? factors(c.modelFactors) : expected) << c.model;
    ASSERT_EQ(refLevels.size(), int(expected.size()));
    EXPECT_EQ(modLevels.size(), refLevels.size());
    EXPECT_EQ(refLevels[0][0], mod.references[0]);
    EXPECT_EQ(modLevels[0][0], mod.models[0]);
  }
  // The planning reports each reduction.
  connect(m, field(32, 32, 32), field(32, 32, 32), QbVec3i(8, 8, 8));
  ZrVoxelRegistration::LevelArray r, mo;
  QbVec3i coarsest(8, 8, 8);
  log.messages.clear();
  m.doResampling(&r, coarsest, &mo);
  EXPECT_EQ(log.count("Sampling reference to: (4, 4, 4)\n"), 1);
  EXPECT_EQ(log.count("Sampling model to: (8, 8, 8)\n"), 1);
}

TEST_F(VoxelRegistrationTest, StepSchedules) {
  const double f1 = 0.1f * 1.0f * 3.0f, f2 = double(0.1f);
  struct Case {
    int n, coarsest, factor;
    float initial, final;
    std::vector<double> starts, ends;
  } cases[] = {
      // Coarsest first. The end step walks down to the final step exactly;
      // the start step shrinks by 0.6, then 0.55, 0.5.
      {32, 8, 2, 10.0f, 0.5f, {10, 6, 3.3, 1.65}, {2.0, 1.5, 1.0, 0.5}},
      // The first end step is 0.1f * 1 * 3 formed in float, and each level
      // subtracts 0.1f formed in float.
      {16, 4, 2, 10.0f, 0.1f, {}, {f1, f1 - f2, f1 - f2 - f2}},
      // Factor 3 ends at twice the final step.
      {32, 9, 3, 10.0f, 0.5f, {}, {3.0, 2.0, 1.0}},
      // A final step above the initial one: both steps are the initial one.
      {32, 8, 2, 1.0f, 2.0f, {1, 1, 1, 1}, {1, 1, 1, 1}},
      // A ramp that would start above the initial step: fixed steps.
      {32, 8, 2, 1.0f, 0.5f, {1, 1, 1, 1}, {0.5, 0.5, 0.5, 0.5}},
  };
  for (const Case& c : cases) {
    RegTestModule mod;
    connect(mod, field(c.n, c.n, c.n), field(c.n, c.n, c.n),
            QbVec3i(c.coarsest, c.coarsest, c.coarsest), c.factor);
    record(mod, c.initial, c.final, 0, 0);
    SCOPED_TRACE(testing::Message() << c.initial << " to " << c.final << ", factor " << c.factor);
    ASSERT_EQ(mod.resolutions.size(), c.ends.size());
    for (size_t i = 0; i < c.ends.size(); i++) {
      const auto& r = mod.resolutions[i];
      EXPECT_EQ(r.level, int(i));
      EXPECT_EQ(r.numLevels, int(c.ends.size()));
      EXPECT_DOUBLE_EQ(r.end, c.ends[i]) << i;
      if (!c.starts.empty()) {
        EXPECT_NEAR(r.start, c.starts[i], 1e-12) << i;
      }
      EXPECT_TRUE(r.hasOptimizer && !r.gradient);
    }
    EXPECT_EQ(mod.numDoneRegistration, 1);
    EXPECT_EQ(mod.functionals, nullptr);
    EXPECT_EQ(mod.optimizer, nullptr);
    EXPECT_EQ(mod.currentFunctional, nullptr);
    EXPECT_TRUE(mod.watch.isStopped());
  }
  // The ramp's factor stops at one fifth: twelve levels of a flat 2048 x 2048.
  connect(m, field(2048, 2048, 1), field(2048, 2048, 1), QbVec3i(2048, 2048, 1));
  record(m, 1000.0f, 0.001f, 0, 0);
  ASSERT_EQ(m.resolutions.size(), 12u);
  const double ratios[11] = {0.6, 0.55, 0.5, 0.45, 0.4, 0.35, 0.3, 0.25, 0.2, 0.2, 0.2};
  for (int i = 0; i < 11; i++)
    EXPECT_NEAR(m.resolutions[i + 1].start / m.resolutions[i].start, ratios[i], 1e-12) << i;
}

TEST_F(VoxelRegistrationTest, GradientSwitchAtTheFinestLevels) {
  connect(m, field(32, 32, 32), field(32, 32, 32), QbVec3i(8, 8, 8));
  m.portNLevelsGradient.setValue(1, 0.001f);
  const double tol = double(0.001f);
  // The tolerance grows tenfold towards the finest level (0: the search of
  // the menu); level 0 never switches, even when all levels are asked for.
  struct Case {
    int finestLevels, ignoreFinest;
    std::vector<double> tolerances;
  } cases[] = {{2, 0, {0, 0, tol, 10 * tol}},
               {1, 1, {0, 0, tol}},
               {0, 0, {0, 0, 0, 0}},
               {0, 1, {0, 0, 0}},
               {10, 0, {0, tol, 10 * tol, 100 * tol}}};
  for (const Case& c : cases) {
    record(m, 1024.0f, 0.5f, c.finestLevels, c.ignoreFinest);
    ASSERT_EQ(m.resolutions.size(), c.tolerances.size());
    for (size_t i = 0; i < c.tolerances.size(); i++) {
      const auto& r = m.resolutions[i];
      EXPECT_EQ(r.gradient, c.tolerances[i] > 0) << c.finestLevels << " level " << i;
      EXPECT_DOUBLE_EQ(r.tolerance, c.tolerances[i]) << c.finestLevels << " level " << i;
      // The gradient's start step is the initial one over 1024, but not
      // below the final one; the end steps keep their ramp.
      if (r.gradient) {
        EXPECT_EQ(r.start, 1.0);
      }
    }
    if (!c.ignoreFinest) {
      EXPECT_DOUBLE_EQ(m.resolutions.back().end, 0.5);
    }
  }
}

namespace {

// Translation (voxels), rotation (degrees); unit scale; the centre in the
// middle of the box, where the transform puts it after reading a matrix.
const double kTruth[15] = {1.7, -2.3, 1.2, 3.0, -2.0, 4.0, 1, 1, 1, 0, 0, 0, 15.5, 15.5, 15.5};

SbMatrixd trueMatrix() {
  RegAffineTransform t;
  for (int i = 0; i < 15; i++)
    t.paramVector[i] = kTruth[i];
  t.composeMatrix();
  return t.matrix;
}

} // namespace

TEST_F(VoxelRegistrationTest, AStopLeavesNoResampledFieldsAndReportsTwice) {
  // Stopped during the middle of three levels: the coarsest is done, the
  // middle one ends at the stop, the finest never starts.
  connect(m, field.blobbed(24), field.blobbed(24, trueMatrix()));
  m.portCoarsestResolution.setValue(4);
  m.portOptimizer.setIndex(0, 1);
  m.portNLevelsGradient.setValue(0, 0.0f);
  m.ignoreFinest = 0;
  m.onEnterResolution = [](int level) {
    if (level == 1)
      ZrWorkArea::getTheWorkArea()->requestInterrupt();
  };
  const int poolSize = ZrObjectPool::getTheObjectPool()->getNumObjects();
  m.doRegistration();
  ZrWorkArea::getTheWorkArea()->clearInterrupt();
  EXPECT_EQ(m.resolutions.size(), 2u);
  EXPECT_EQ(m.numDoneRegistration, 2);
  EXPECT_EQ(log.count("elapsed time: "), 2);
  EXPECT_EQ(log.count("Sampling reference to: "), 2);
  EXPECT_EQ(ZrObjectPool::getTheObjectPool()->getNumObjects(), poolSize);
  EXPECT_EQ(m.functionals, nullptr);
  EXPECT_EQ(m.currentFunctional, nullptr);
  EXPECT_EQ(m.optimizer, nullptr);
  EXPECT_NE(m.transform, nullptr);
  EXPECT_TRUE(m.watch.isStopped());
}

TEST_F(VoxelRegistrationTest, DownsampleThroughTheHostResampler) {
  // Dimensions divided by the factors, rounded up; the box and the transform
  // stay; a hidden object of the pool; labels gain no new value.
  ZrUniformScalarField3* grey = field(32, 20, 9, 1, 1, 1, QB_FLOAT);
  ZrUniformLabelField3* labels =
      field.hold(new ZrUniformLabelField3(grey->getDims(), QB_UINT8, [&] {
        static float b[6];
        grey->getBoundingBox(b);
        return b;
      }()));
  for (size_t i = 0; i < labels->lattice.numNodes(); i++)
    labels->lattice.setValue(i, double(3 * ((i / 7) % 3)));
  const SbMatrixd moved = trueMatrix();
  grey->setTransform(moved);
  labels->setTransform(moved);
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  const int poolSize = pool->getNumObjects();
  QbVec3i ones(1, 1, 1), factors(2, 3, 4);
  ZrRegScalarField3* result = nullptr;
  m.downsample(grey, result, ones, RegDataClassGrey);
  EXPECT_EQ(result, grey);
  for (ZrRegScalarField3* in :
       {static_cast<ZrRegScalarField3*>(grey), static_cast<ZrRegScalarField3*>(labels)}) {
    const bool isLabel = in == labels;
    m.downsample(in, result, factors, isLabel ? RegDataClassLabel : RegDataClassGrey);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(QbVec3i(result->getDims()), QbVec3i(16, 7, 3));
    EXPECT_EQ(result->primType(), in->primType());
    EXPECT_EQ(result->getBoundingBox(), in->getBoundingBox());
    EXPECT_FALSE(result->isIconVisible());
    EXPECT_EQ(pool->getNumObjects(), poolSize + 1);
    SbMatrixd t;
    result->getTransform(t);
    EXPECT_TRUE(t.equals(SbMatrixd(SbMatrix(moved)), 1e-12));
    for (size_t i = 0; i < result->lattice.numNodes() && isLabel; i++) {
      const double v = result->lattice.getValueAsDouble(i);
      EXPECT_TRUE(v == 0 || v == 3 || v == 6) << v;
    }
    pool->removeObject(result);
  }
}
