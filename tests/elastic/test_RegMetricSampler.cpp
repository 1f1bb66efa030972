// The metric's sampler: nearest-voxel rounding, trilinear interpolation,
// clamping at the lattice border, the inside flag, an axis of no extent.
#include "RegMeanSquaredDifference.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// A 5 x 4 x 3 lattice over [0, 8] x [0, 3] x [0, 4]: voxel sizes 2, 1, 2. The
// voxel (i, j, k) holds i + 10 j + 100 k, a linear function that trilinear
// interpolation reproduces.
class SamplerTest : public ::testing::Test {
protected:
  void SetUp() override {
    for (int k = 0; k < dims[2]; k++)
      for (int j = 0; j < dims[1]; j++)
        for (int i = 0; i < dims[0]; i++)
          data.push_back((float)(i + 10 * j + 100 * k));
    prepare(metric);
  }
  void prepare(RegMetric& m) {
    m.box = box;
    m.dims = dims;
    for (int a = 0; a < 3; a++) {
      m.boxSize[a] = box[2 * a + 1] - box[2 * a];
      m.scale[a] = m.boxSize[a] > 0 ? (dims[a] - 1) / m.boxSize[a] : 0.0f;
    }
    m.inside = 1;
    m.reset();
  }
  float grey(float x, float y, float z) {
    QbVec3f p(x, y, z);
    float v = -1;
    metric.evalAndIncrementGrey<float>(0.0f, v, data.data(), &p);
    return v;
  }
  float label(float x, float y, float z) {
    QbVec3f p(x, y, z);
    float v = -1;
    metric.evalAndIncrementLabel<float>(0.0f, v, data.data(), &p);
    return v;
  }

  float box[6] = {0, 8, 0, 3, 0, 4};
  int dims[3] = {5, 4, 3};
  std::vector<float> data;
  RegMeanSquaredDifference metric{0.0};
};

TEST_F(SamplerTest, KnownSamples) {
  // 2.4 and 2.6 voxels along x (voxel size 2).
  EXPECT_EQ(2.0f, label(4.8f, 0, 0));
  EXPECT_EQ(3.0f, label(5.2f, 0, 0));
  EXPECT_EQ(12.0f, label(4.8f, 0.6f, 0)); // y rounds up to 1
  EXPECT_EQ(0.0f, label(-5.0f, -1.0f, -3.0f));
  EXPECT_EQ(4.0f + 30.0f + 200.0f, label(50.0f, 9.0f, 11.0f));
  // The flag belongs to the trilinear sampler only.
  EXPECT_EQ(1, metric.inside);
  EXPECT_EQ(5, metric.numInside);
  // Trilinear inside: the linear function is reproduced.
  EXPECT_NEAR(1.25 + 10 * 2.5 + 100 * 1.5, grey(2.5f, 2.5f, 3.0f), 1e-4);
  EXPECT_NEAR(3.5 + 10 * 0.25 + 100 * 0.75, grey(7.0f, 0.25f, 1.5f), 1e-4);
  // Exactly on the last voxel centre of every axis.
  EXPECT_EQ(4.0f + 30.0f + 200.0f, grey(8.0f, 3.0f, 4.0f));
  // The sample pair reaches the metric: ref 0 against the value.
  metric.reset();
  const float v = grey(2.0f, 1.0f, 2.0f);
  EXPECT_EQ(1, metric.numInside);
  EXPECT_DOUBLE_EQ(-(double)v * v, metric.sum);
  // 0.4 voxel beyond either end: clamped, still inside; 0.6 voxel: cleared,
  // the border value all the same.
  const float cases[][5] = {
      {-0.8f, 0, 0, 1}, {8.8f, 4, 0, 1}, {-1.2f, 0, 0, 0}, {9.2f, 4, 0, 0}, {0, 30, 3.6f, 0}};
  for (const auto& c : cases) {
    metric.inside = 1;
    EXPECT_EQ(c[1], grey(c[0], c[2], 0)) << c[0] << " " << c[2];
    EXPECT_EQ((int)c[3], metric.inside) << c[0] << " " << c[2];
  }
}

TEST_F(SamplerTest, AxisWithoutExtent) {
  box[4] = box[5] = 2.0f;
  dims[2] = 1;
  prepare(metric);
  EXPECT_NEAR(2.5f + 10.0f, grey(5.0f, 1.0f, -40.0f), 1e-5);
  EXPECT_NEAR(2.5f + 10.0f, grey(5.0f, 1.0f, 40.0f), 1e-5);
  EXPECT_EQ(1, metric.inside);
  EXPECT_EQ(3.0f, label(5.2f, 0.0f, 17.0f));
}

} // namespace

// The walks' sampler that keeps nothing in the metric gives the same value
// and the same inside flag as the one that keeps its state, at points inside,
// on and beyond the border.
TEST_F(SamplerTest, StatelessSamplingGivesTheSameValues) {
  RegMeanSquaredDifference other{0.0};
  prepare(other);
  const float pts[][3] = {{2.5f, 2.5f, 3.0f}, {7.0f, 0.25f, 1.5f}, {8.0f, 3.0f, 4.0f},
                          {-0.8f, 0, 0},      {-1.2f, 0, 0},       {9.2f, 3.6f, 4.4f},
                          {4.8f, 0.6f, 2.2f}, {0.3f, -7.0f, 2.0f}};
  for (const auto& q : pts) {
    const QbVec3f p(q[0], q[1], q[2]);
    metric.inside = other.inside = 1;
    EXPECT_EQ(metric.sampleGrey<float>(data.data(), &p),
              (other.sampleGrey<float, false>(data.data(), &p)))
        << q[0] << " " << q[1] << " " << q[2];
    EXPECT_EQ(metric.inside, other.inside);
    EXPECT_EQ(metric.sampleLabel<float>(data.data(), &p),
              (other.sampleLabel<float, false>(data.data(), &p)));
  }
}
