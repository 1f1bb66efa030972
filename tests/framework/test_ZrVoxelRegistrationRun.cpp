// A whole registration through the driver: a smooth volume and a copy of it
// under a known rigid motion, two pyramid levels made by the host's
// resampling, the squared-difference metric and the best-neighbour search.
// The motion must come back to a tenth of a voxel and a tenth of a degree.
#include "RegTestModule.h"

#include "ZrMessage.h"
#include "ZrObjectPool.h"
#include "ZrUniformLabelField3.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

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

} // namespace

TEST(ZrVoxelRegistrationRun, RecoversARigidMotion) {
  const int dims[3] = {N, N, N};
  const float box[6] = {0, N - 1, 0, N - 1, 0, N - 1};
  // The model's node at p shows the image at p * M: moved by M, it covers
  // the reference exactly.
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

    // Two levels, each running the best-neighbour search on its own.
    m.samplingFactor = 2;
    m.portCoarsestResolution.setValue(2);
    m.portOptimizer.setIndex(0, 1);
    m.portNLevelsGradient.setValue(0, 0.0f);
    m.portStep.setValue(0, 4.0f);
    m.portStep.setValue(1, 0.005f);
    m.ignoreFinest = 0;

    ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
    const int poolSize = pool->getNumObjects();
    MessageLog log;
    m.doRegistration();

    EXPECT_EQ(m.numDoneRegistration, 1);
    ASSERT_EQ(m.resolutions.size(), 2u);
    EXPECT_EQ(log.count("Sampling reference to: (2, 2, 2)\n"), 1);
    EXPECT_EQ(log.count("Sampling model to: (2, 2, 2)\n"), 1);
    EXPECT_GT(log.count(" Metric result = "), 4);
    EXPECT_EQ(log.count("elapsed time: "), 1);
    // The resampled level left the pool with its level.
    EXPECT_EQ(pool->getNumObjects(), poolSize);

    auto* t = dynamic_cast<RegAffineTransform*>(m.transform);
    ASSERT_NE(t, nullptr);
    for (int i = 0; i < 3; i++)
      EXPECT_NEAR(t->paramVector[i], kTruth[i], 0.1) << "translation " << i;
    for (int i = 3; i < 6; i++)
      EXPECT_NEAR(t->paramVector[i], kTruth[i], 0.1) << "rotation " << i;
    // Held parameters stay as they were read.
    for (int i = 6; i < 9; i++)
      EXPECT_NEAR(t->paramVector[i], 1.0, 1e-9);

    // The model object carries the found motion: its nodes land where the
    // true motion puts them, to a tenth of a voxel.
    SbMatrixd found;
    model->getTransform(found);
    const SbMatrixd truth = trueMatrix();
    for (int corner = 0; corner < 8; corner++) {
      const SbVec3d p(corner & 1 ? N - 1 : 0, corner & 2 ? N - 1 : 0, corner & 4 ? N - 1 : 0);
      SbVec3d a, b;
      found.multVecMatrix(p, a);
      truth.multVecMatrix(p, b);
      EXPECT_LT((a - b).length(), 0.1) << "corner " << corner;
    }
  }
  reference->unref();
  model->unref();
}

TEST(ZrVoxelRegistrationRun, DownsampleThroughTheHostResampler) {
  const int dims[3] = {32, 20, 9};
  const float box[6] = {-3, 28, 0, 19, 5, 13};
  ZrUniformScalarField3* grey = makeRegTestField(dims, box);
  ZrUniformLabelField3* labels = new ZrUniformLabelField3(dims, QB_UINT8, box);
  for (size_t i = 0; i < labels->lattice.numNodes(); i++)
    labels->lattice.setValue(i, double(3 * ((i / 7) % 3)));
  grey->ref();
  labels->ref();
  SbMatrixd moved = trueMatrix();
  grey->setTransform(moved);
  labels->setTransform(moved);
  {
    RegTestModule m;
    ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
    const int poolSize = pool->getNumObjects();

    // All factors 1: the field itself.
    QbVec3i ones(1, 1, 1);
    ZrRegScalarField3* result = nullptr;
    m.downsample(grey, result, ones, RegDataClassGrey);
    EXPECT_EQ(result, grey);

    // Grey values: dimensions divided by the factors, rounded up; the box
    // and the transform stay; a hidden object of the pool.
    QbVec3i factors(2, 3, 4);
    m.downsample(grey, result, factors, RegDataClassGrey);
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->getDims()[0], 16);
    EXPECT_EQ(result->getDims()[1], 7);
    EXPECT_EQ(result->getDims()[2], 3);
    EXPECT_EQ(result->primType(), QB_FLOAT);
    EXPECT_EQ(result->getBoundingBox(), grey->getBoundingBox());
    EXPECT_FALSE(result->isIconVisible());
    EXPECT_TRUE(pool->contains(result));
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
    EXPECT_EQ(result->getDims()[0], 16);
    EXPECT_EQ(result->getDims()[1], 7);
    EXPECT_EQ(result->getDims()[2], 3);
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

TEST(ZrVoxelRegistrationRun, AStopLeavesNoResampledFields) {
  const int dims[3] = {24, 24, 24};
  const float box[6] = {0, 23, 0, 23, 0, 23};
  ZrUniformScalarField3* reference = makeRegTestField(dims, box);
  ZrUniformScalarField3* model = makeRegTestField(dims, box, trueMatrix());
  reference->ref();
  model->ref();
  {
    RegTestModule m;
    m.portReference.connect(reference);
    m.portData.connect(model);
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
    EXPECT_EQ(m.optimizer, nullptr);
  }
  reference->unref();
  model->unref();
}
