// The registration driver: defaults computed from the inputs, the bin rule,
// lattice classification, voxel sizes and coverage, the planning of the
// pyramid, the step schedule, the gradient switch and releasing levels.
#include "RegTestModule.h"

#include "ZrMessage.h"
#include "ZrObjectPool.h"
#include "ZrStackedScalarField3.h"
#include "ZrUniformLabelField3.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace {

typedef std::vector<QbVec3i> Factors;

std::vector<double> numbers(const char* text) {
  std::vector<double> v;
  std::istringstream in(text);
  for (double x; in >> x;)
    v.push_back(x);
  return v;
}

// "1 1 1, 2 2 2": factor triples.
Factors factors(const char* text) {
  std::string s(text);
  for (char& c : s)
    c = c == ',' ? ' ' : c;
  const std::vector<double> v = numbers(s.c_str());
  Factors f;
  for (size_t i = 0; i + 2 < v.size(); i += 3)
    f.emplace_back(int(v[i]), int(v[i + 1]), int(v[i + 2]));
  return f;
}

// A uniform field of nx x ny x nz nodes with voxel size (vx, vy, vz), its
// first node at the origin; values 0..255 where there is room for them. The
// test holds a reference until it ends.
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
  ZrUniformScalarField3* operator()(const char* spec) {
    std::vector<double> v = numbers(spec);
    v.resize(6, 1.0);
    return (*this)(int(v[0]), int(v[1]), int(v[2]), float(v[3]), float(v[4]), float(v[5]));
  }
  ZrUniformLabelField3* labels(int n) {
    const int dims[3] = {n, n, n};
    const float box[6] = {0, float(n - 1), 0, float(n - 1), 0, float(n - 1)};
    ZrUniformLabelField3* f = new ZrUniformLabelField3(dims, QB_UINT8, box);
    for (size_t i = 0; i < f->lattice.numNodes(); i++)
      f->lattice.setValue(i, double(i % 4));
    return hold(f);
  }

private:
  std::vector<ZrObject*> held;
};

class MessageLog {
public:
  MessageLog() {
    old = ZrMessage::getTheMsg()->setSink([this](const std::string& t) { lines.push_back(t); });
  }
  ~MessageLog() { ZrMessage::getTheMsg()->setSink(old); }
  int count(const std::string& prefix) const {
    int n = 0;
    for (const std::string& l : lines)
      n += l.rfind(prefix, 0) == 0;
    return n;
  }
  std::vector<std::string> lines;

private:
  ZrMessage::Sink old;
};

class VoxelRegistrationTest : public ::testing::Test {
protected:
  // Connects the inputs; the pyramid is then planned, not resampled.
  void connect(RegTestModule& mod, ZrSpatialData* reference, ZrSpatialData* model,
               QbVec3i coarsest = QbVec3i(0, 0, 0), int factor = 2) {
    mod.portReference.connect(reference);
    mod.portData.connect(model);
    mod.update();
    mod.untouchPorts(true);
    mod.fakeResampling = true;
    mod.samplingFactor = factor;
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

  MessageLog log;
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
  ZrUniformScalarField3* model = field(30, 30, 30, 1, 1, 1, QB_FLOAT);
  for (size_t i = 0; i < model->lattice.numNodes(); i++)
    model->lattice.setValue(i, 0.5 * double(i % 1000));
  m.portNLevelsGradient.setValue(0, 3.0f);
  connect(m, field(40, 40, 40), model);
  EXPECT_EQ(m.dimensionMode, 3);
  EXPECT_EQ(m.interpolator, RegInterpolatorStandard);
  // A new input resets the gradient optimizer's levels.
  EXPECT_EQ(m.portNLevelsGradient.getValue(0), 1.0f);
  // Ranges from the data; bins by the bin rule for the integer reference,
  // 256 for the float model.
  EXPECT_EQ(m.portHistogramRangeRef.getValue(1), 255.0f);
  EXPECT_EQ(m.portHistogramBins.getValue(0), 255);
  EXPECT_EQ(m.portHistogramRangeMod.getValue(1), 499.5f);
  EXPECT_EQ(m.portHistogramBins.getValue(1), 256);
  // A changed range gives new bins.
  m.portHistogramRangeRef.setValue(1, 1000.0f);
  m.update();
  EXPECT_EQ(m.portHistogramBins.getValue(0), 250);
  m.untouchPorts(true);

  // The optimizer menu sets the search and the gradient optimizer's levels:
  // line search searches extensively on two levels, quasi-Newton alone on
  // none; "Finest levels:" is a whole number, whose tolerance matters only
  // above 0.
  struct Step {
    int optimizer;
    float finestLevels; // < 0: left as it is
    int extensive;
    float levels;
    bool levelsSensitive, toleranceSensitive;
  } steps[] = {{4, -1, 1, 2, true, true},
               {2, -1, 0, 0, false, true},
               {1, 2.7f, 0, 2, true, true},
               {1, 0.5f, 0, 0, true, false}};
  for (const Step& s : steps) {
    if (m.portOptimizer.getIndex(0) != s.optimizer) {
      m.portOptimizer.setIndex(0, s.optimizer);
      m.update();
      m.untouchPorts(true);
    }
    if (s.finestLevels >= 0) {
      m.portNLevelsGradient.setValue(0, s.finestLevels);
      m.update();
      m.untouchPorts(true);
    }
    EXPECT_EQ(m.portExtensiveSearch.getValue(0), s.extensive) << s.optimizer;
    EXPECT_EQ(m.portNLevelsGradient.getValue(0), s.levels) << s.optimizer;
    EXPECT_EQ(m.portNLevelsGradient.isSensitive(0), s.levelsSensitive) << s.optimizer;
    EXPECT_EQ(m.portNLevelsGradient.isSensitive(1), s.toleranceSensitive) << s.optimizer;
  }
}

TEST_F(VoxelRegistrationTest, FlatPairsAndLabelInputs) {
  connect(m, field(64, 64, 1), field(50, 50, 1));
  EXPECT_EQ(m.dimensionMode, 2);
  // The flat axis is never reduced, whatever the user asks for.
  m.portCoarsestResolution.setValue(2, 5);
  m.update();
  EXPECT_EQ(m.portCoarsestResolution.getValue(2), 1);

  // Two label fields offer (and select) the label metric; a grey model takes
  // it away again, and is interpolated.
  RegTestModule l;
  ZrUniformLabelField3* a = field.labels(8);
  connect(l, a, field.labels(6));
  EXPECT_EQ(l.interpolator, RegInterpolatorNearest);
  ASSERT_EQ(l.portMetric.getNum(0), 5);
  EXPECT_STREQ(l.portMetric.getLabel(0, 4), "Label difference");
  EXPECT_EQ(l.portMetric.getIndex(0), 4);
  l.portReference.disconnect();
  l.update();
  EXPECT_EQ(l.portMetric.getNum(0), 4);
  EXPECT_EQ(l.portMetric.getIndex(0), 0);
  connect(l, a, field(6, 6, 6));
  EXPECT_EQ(l.portMetric.getNum(0), 4);
  EXPECT_EQ(l.interpolator, RegInterpolatorStandard);
}

TEST_F(VoxelRegistrationTest, GetDimensionClassifiesThePair) {
  const std::string noTwoD = "Can't do even 2D registration\n";
  const std::string twoAxes = "Lattice has dimension 1 in more than one direction.\n" + noTwoD;
  const std::string crossed =
      "Model's and reference's lattice have dimension 1\nin different directions.\n" + noTwoD;
  struct Case {
    const char *reference, *model;
    int dimension;
    std::string message;
  } cases[] = {{"5 6 7", "4 4 4", 3, ""},       {"5 6 1", "4 4 1", 2, ""},
               {"1 6 5", "4 4 4", 0, ""},       {"5 6 7", "4 1 4", 1, ""},
               {"1 1 7", "4 4 4", -1, twoAxes}, {"5 6 1", "1 4 4", -1, crossed},
               {"5 6 7", "1 4 1", -1, crossed}};
  for (const Case& c : cases) {
    m.references.clear();
    m.models.clear();
    m.references.append(field(c.reference));
    m.models.append(field(c.model));
    log.lines.clear();
    EXPECT_EQ(m.getDimension(0), c.dimension) << c.reference << " / " << c.model;
    std::string all;
    for (const std::string& l : log.lines)
      all += l;
    EXPECT_EQ(all, c.message);
  }
  // The index is clamped to the references there are.
  m.models[0] = field(4, 4, 4);
  m.references.append(field(3, 1, 3));
  EXPECT_EQ(m.getDimension(7), 1);
}

TEST_F(VoxelRegistrationTest, VoxelSizesAndAxisOrder) {
  struct Case {
    const char* input;
    int skip;
    QbVec3i order;
  } cases[] = {
      {"5 5 5 1 1 1", 3, {1, 2, 0}}, // equal sizes: L 0 and S 0
      {"5 5 5 1 1 4", 3, {0, 1, 2}},
      {"5 5 5 1 2 0.5", 3, {2, 0, 1}},
      {"5 5 5 4 1 1", 3, {1, 2, 0}},
      {"5 5 5 4 2 1", 3, {2, 1, 0}},
      {"5 5 5 1 3 2", 3, {0, 2, 1}},
      {"5 5 5 2 1 3", 3, {1, 0, 2}},
      {"5 5 5 3 1 2", 3, {1, 2, 0}},
      // A flat axis always comes last.
      {"5 5 5 1 1 1", 2, {0, 1, 2}},
      {"5 5 5 2 1 1", 2, {1, 0, 2}},
      {"5 5 5 1 1 1", 0, {1, 2, 0}},
      {"5 5 5 1 3 2", 0, {2, 1, 0}},
  };
  QbVec3d delta;
  QbVec3i order;
  for (const Case& c : cases) {
    m.references.clear();
    m.references.append(field(c.input));
    m.getMinDelta(delta, order, 0, c.skip);
    EXPECT_EQ(order, c.order) << c.input << " skip " << c.skip;
    const std::vector<double> v = numbers(c.input);
    EXPECT_EQ(delta, QbVec3d(v[3], v[4], v[5])) << c.input;
  }
  // `which`: above 0 the model, otherwise reference -which, clamped.
  m.models.append(field("3 3 9 2 2 0.5"));
  m.references.append(field("5 1 5 3 1 3"));
  m.getMinDelta(delta, order, 1, 3);
  EXPECT_EQ(delta, QbVec3d(2, 2, 0.5));
  m.getMinDelta(delta, order, -5, 3);
  EXPECT_EQ(delta, QbVec3d(3, 0, 3)); // a flat axis has no extent
  // Slices: the gap between the last two slices stands for z.
  const int dims[3] = {4, 5, 4}, single[3] = {4, 1, 1};
  const float xy[4] = {0, 6, 0, 2};
  const float z[4] = {0, 1, 3, 3.5f};
  m.references.clear();
  m.references.append(field.hold(new ZrStackedScalarField3(dims, QB_UINT8, xy, z)));
  m.getMinDelta(delta, order, 0, 3);
  EXPECT_EQ(delta, QbVec3d(2, 0.5, 0.5));
  m.references.clear();
  m.references.append(field.hold(new ZrStackedScalarField3(single, QB_UINT8, xy, z)));
  m.getMinDelta(delta, order, 0, 3);
  EXPECT_EQ(delta, QbVec3d(2, 1e20, 1e20));
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
  log.lines.clear();
  m.doResampling(&r, coarsest, &mo);
  EXPECT_EQ(log.count("Sampling reference to: (4, 4, 4)\n"), 1);
  EXPECT_EQ(log.count("Sampling model to: (8, 8, 8)\n"), 1);
}

TEST_F(VoxelRegistrationTest, LaterReferenceChannelsFollowTheirOwnPlan) {
  // Channel 1 has thick voxels in y and z: its first pass changes nothing but
  // still counts as a level, so it runs one level behind, and its last
  // reduction has no level to go to.
  connect(m, field(16, 16, 16), field(16, 16, 16), QbVec3i(1, 4, 4));
  m.references.append(field(16, 4, 4, 1, 4, 4));
  ZrVoxelRegistration::LevelArray refLevels, modLevels;
  QbVec3i coarsest(1, 4, 4);
  const int poolSize = ZrObjectPool::getTheObjectPool()->getNumObjects();
  m.doResampling(&refLevels, coarsest, &modLevels);
  EXPECT_EQ(m.referenceFactors, factors("1 1 1, 1 2 2, 1 4 4, 1 1 1, 1 1 1, 1 2 2, 1 4 4"));
  ASSERT_EQ(refLevels.size(), 3);
  for (int i = 0; i < 3; i++) {
    ASSERT_EQ(refLevels[i].size(), 2) << i;
    EXPECT_EQ(refLevels[i][1], m.references[1]);
  }
  EXPECT_EQ(modLevels.size(), 3);
  EXPECT_EQ(ZrObjectPool::getTheObjectPool()->getNumObjects(), poolSize);

  // Lattices flat on different axes make no level at all.
  RegTestModule bad;
  bad.references.append(field(8, 1, 8));
  bad.models.append(field(8, 8, 1));
  bad.fakeResampling = true;
  ZrVoxelRegistration::LevelArray br, bm;
  coarsest = QbVec3i(2, 2, 2);
  bad.doResampling(&br, coarsest, &bm);
  EXPECT_EQ(br.size(), 0);
  EXPECT_EQ(bm.size(), 0);
  EXPECT_TRUE(bad.referenceFactors.empty());
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
    EXPECT_EQ(mod.numCreateFunctional, int(c.ends.size()));
    EXPECT_EQ(mod.numDoneRegistration, 1);
    EXPECT_EQ(mod.functionals, nullptr);
    EXPECT_EQ(mod.optimizer, nullptr);
    EXPECT_EQ(mod.currentFunctional, nullptr);
    EXPECT_TRUE(mod.watch.isStopped());
  }
  // The ramp's factor stops at one fifth: ten levels of a flat 1024 x 1024.
  connect(m, field(1024, 1024, 1), field(1024, 1024, 1), QbVec3i(512, 512, 1));
  record(m, 1000.0f, 0.001f, 0, 0);
  ASSERT_EQ(m.resolutions.size(), 10u);
  const double ratios[9] = {0.6, 0.55, 0.5, 0.45, 0.4, 0.35, 0.3, 0.25, 0.2};
  for (int i = 0; i < 9; i++)
    EXPECT_NEAR(m.resolutions[i + 1].start / m.resolutions[i].start, ratios[i], 1e-12) << i;
}

TEST_F(VoxelRegistrationTest, IgnoreFinestResolution) {
  connect(m, field(32, 32, 32), field(32, 32, 32), QbVec3i(8, 8, 8));
  record(m, 10.0f, 0.5f, 0, 1);
  ASSERT_EQ(m.resolutions.size(), 3u);
  EXPECT_EQ(m.resolutions.back().level, 2);
  EXPECT_EQ(m.numDoneRegistration, 1);

  // A single level is skipped altogether: the transform stays as it was.
  RegTestModule one;
  one.portReference.connect(field(20, 20, 20));
  one.portData.connect(field(20, 20, 20));
  one.update();
  EXPECT_EQ(one.ignoreFinest, 1);
  one.portOptimizer.setIndex(0, 1);
  log.lines.clear();
  one.doRegistration();
  EXPECT_TRUE(one.resolutions.empty());
  EXPECT_EQ(one.numDoneRegistration, 1);
  EXPECT_EQ(log.count("elapsed time: "), 1);
  ASSERT_NE(one.transform, nullptr);
  for (int i = 0; i < 6; i++)
    EXPECT_NEAR(static_cast<RegAffineTransform*>(one.transform)->paramVector[i], 0.0, 1e-9);
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

TEST_F(VoxelRegistrationTest, ReleasingALevelRemovesOnlyResampledCopies) {
  ZrUniformScalarField3* r = field(8, 8, 8);
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  pool->addObject(r);
  // Two copies that live in the pool only.
  ZrUniformScalarField3 *refCopy = field(4, 4, 4), *modCopy = field(4, 4, 4);
  pool->addObject(refCopy);
  pool->addObject(modCopy);
  m.references.append(r);
  m.models.append(field(8, 8, 8));
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
