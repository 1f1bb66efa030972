// Whole registrations through the driver: a smooth volume and a copy of it
// under a known rigid motion, two pyramid levels made by the host's
// resampling, the squared-difference metric, and a search of the optimizer
// menu. The motion must come back to a tenth of a voxel and a tenth of a
// degree. Then the host resampling of a level, and a run stopped midway.
#include "RegTestModule.h"

#include "ZrMessage.h"
#include "ZrObjectPool.h"
#include "ZrUniformLabelField3.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

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

const int N = 32;
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

// A reference and a model moved by the true motion, n^3 nodes, owned here.
struct Pair {
  ZrUniformScalarField3 *reference, *model;
  explicit Pair(int n) {
    const int dims[3] = {n, n, n};
    const float box[6] = {0, float(n - 1), 0, float(n - 1), 0, float(n - 1)};
    // The model's node at p shows the image at p * M: moved by M, it covers
    // the reference exactly.
    reference = makeRegTestField(dims, box);
    model = makeRegTestField(dims, box, trueMatrix());
    reference->ref();
    model->ref();
  }
  ~Pair() {
    reference->unref();
    model->unref();
  }
};

struct MenuCase {
  int index;
  bool extensiveSearch;
  // The number of finest levels that switch to quasi-Newton.
  float finestLevels;
  const char* name;
};

class ZrVoxelRegistrationRun : public ::testing::TestWithParam<MenuCase> {};

} // namespace

TEST_P(ZrVoxelRegistrationRun, RecoversARigidMotion) {
  const MenuCase& c = GetParam();
  Pair pair(N);
  {
    RegTestModule m;
    m.portReference.connect(pair.reference);
    m.portData.connect(pair.model);
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
    ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
    const int poolSize = pool->getNumObjects();
    MessageLog log;
    m.doRegistration();

    EXPECT_EQ(m.numDoneRegistration, 1);
    ASSERT_EQ(m.resolutions.size(), 2u);
    EXPECT_TRUE(m.resolutions[0].hasOptimizer);
    EXPECT_EQ(m.resolutions[1].gradient, c.finestLevels > 0);
    EXPECT_EQ(log.count("Sampling reference to: (2, 2, 2)\n"), 1);
    EXPECT_EQ(log.count("Sampling model to: (2, 2, 2)\n"), 1);
    EXPECT_EQ(log.count("elapsed time: "), 1);
    // The resampled level left the pool with its level.
    EXPECT_EQ(pool->getNumObjects(), poolSize);

    auto* t = dynamic_cast<RegAffineTransform*>(m.transform);
    ASSERT_NE(t, nullptr);
    for (int i = 0; i < 6; i++)
      EXPECT_NEAR(t->paramVector[i], kTruth[i], 0.1) << c.name << ", parameter " << i;
    // Held parameters stay as they were read.
    for (int i = 6; i < 9; i++)
      EXPECT_NEAR(t->paramVector[i], 1.0, 1e-9) << c.name;

    // The model object carries the found motion: its nodes land where the
    // true motion puts them, to a tenth of a voxel.
    SbMatrixd found;
    pair.model->getTransform(found);
    const SbMatrixd truth = trueMatrix();
    for (int corner = 0; corner < 8; corner++) {
      const SbVec3d p(corner & 1 ? N - 1 : 0, corner & 2 ? N - 1 : 0, corner & 4 ? N - 1 : 0);
      SbVec3d a, b;
      found.multVecMatrix(p, a);
      truth.multVecMatrix(p, b);
      EXPECT_LT((a - b).length(), 0.1) << c.name << ", corner " << corner;
    }
  }
}

// One run per kind of search: the best neighbour, the aggressive direction
// search handing the finest level to quasi-Newton, and the line search.
INSTANTIATE_TEST_SUITE_P(
    Menu, ZrVoxelRegistrationRun,
    ::testing::Values(MenuCase{1, false, 0.0f, "BestNeighbour"},
                      MenuCase{0, false, 1.0f, "ExtensiveDirectionThenQuasiNewton"},
                      MenuCase{4, true, 0.0f, "LineSearchExtensive"}),
    [](const ::testing::TestParamInfo<MenuCase>& info) { return std::string(info.param.name); });

TEST(ZrVoxelRegistrationLevels, DownsampleThroughTheHostResampler) {
  const int dims[3] = {32, 20, 9};
  const float box[6] = {-3, 28, 0, 19, 5, 13};
  ZrUniformScalarField3* grey = makeRegTestField(dims, box);
  ZrUniformLabelField3* labels = new ZrUniformLabelField3(dims, QB_UINT8, box);
  for (size_t i = 0; i < labels->lattice.numNodes(); i++)
    labels->lattice.setValue(i, double(3 * ((i / 7) % 3)));
  grey->ref();
  labels->ref();
  const SbMatrixd moved = trueMatrix();
  grey->setTransform(moved);
  labels->setTransform(moved);
  {
    RegTestModule m;
    ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
    const int poolSize = pool->getNumObjects();
    // All factors 1: the field itself.
    QbVec3i ones(1, 1, 1), factors(2, 3, 4);
    ZrRegScalarField3* result = nullptr;
    m.downsample(grey, result, ones, RegDataClassGrey);
    EXPECT_EQ(result, grey);

    // Grey values: dimensions divided by the factors, rounded up; the box
    // and the transform stay; a hidden object of the pool.
    m.downsample(grey, result, factors, RegDataClassGrey);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(QbVec3i(result->getDims()), QbVec3i(16, 7, 3));
    EXPECT_EQ(result->primType(), QB_FLOAT);
    EXPECT_EQ(result->getBoundingBox(), grey->getBoundingBox());
    EXPECT_FALSE(result->isIconVisible());
    EXPECT_EQ(pool->getNumObjects(), poolSize + 1); // the resampler left
    SbMatrixd t;
    result->getTransform(t);
    EXPECT_TRUE(t.equals(SbMatrixd(SbMatrix(moved)), 1e-12));
    // A smooth image keeps its values at the coarse nodes, roughly.
    float p[3];
    result->lattice.coords()->pos(8, 3, 1, p);
    EXPECT_NEAR(result->getValue(8, 3, 1), regTestImage(p[0], p[1], p[2]), 5.0);
    pool->removeObject(result);

    // Labels: reduced by whole factors; no new label value appears.
    m.downsample(labels, result, factors, RegDataClassLabel);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(QbVec3i(result->getDims()), QbVec3i(16, 7, 3));
    for (size_t i = 0; i < result->lattice.numNodes(); i++) {
      const double v = result->lattice.getValueAsDouble(i);
      EXPECT_TRUE(v == 0 || v == 3 || v == 6) << v;
    }
    pool->removeObject(result);
    EXPECT_EQ(pool->getNumObjects(), poolSize);
  }
  grey->unref();
  labels->unref();
}

TEST(ZrVoxelRegistrationLevels, AStopLeavesNoResampledFieldsAndReportsTwice) {
  Pair pair(24);
  {
    RegTestModule m;
    m.portReference.connect(pair.reference);
    m.portData.connect(pair.model);
    m.update();
    m.samplingFactor = 2;
    m.portCoarsestResolution.setValue(4);
    m.portOptimizer.setIndex(0, 1);
    m.portNLevelsGradient.setValue(0, 0.0f);
    m.ignoreFinest = 0;
    // Stopped during the middle level: the coarsest level is done, the
    // middle one ends at the stop, the finest never starts.
    m.onEnterResolution = [](int level) {
      if (level == 1)
        ZrWorkArea::getTheWorkArea()->requestInterrupt();
    };
    ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
    const int poolSize = pool->getNumObjects();
    MessageLog log;
    m.doRegistration();
    ZrWorkArea::getTheWorkArea()->clearInterrupt();

    EXPECT_EQ(m.resolutions.size(), 2u);
    EXPECT_EQ(m.numDoneRegistration, 2);
    EXPECT_EQ(log.count("elapsed time: "), 2);
    EXPECT_EQ(log.count("Sampling reference to: "), 2);
    EXPECT_EQ(pool->getNumObjects(), poolSize);
    EXPECT_EQ(m.functionals, nullptr);
    EXPECT_EQ(m.currentFunctional, nullptr);
    EXPECT_EQ(m.optimizer, nullptr);
    EXPECT_NE(m.transform, nullptr);
    EXPECT_TRUE(m.watch.isStopped());
  }
}
