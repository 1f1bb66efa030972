// The squared-difference metric (value, overlap rule, no-sample value,
// incremental updates, copies) and the sampler every metric carries
// (trilinear and nearest-voxel sampling with their border rules).
#include "RegMeanSquaredDifference.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <random>
#include <vector>

TEST(RegMeanSquaredDifference, MeanOfSquaredDifferences) {
  RegMeanSquaredDifference m(1.0);
  m.reset();
  m.increment(1.0, 2.0);
  m.increment(3.0, 1.0);
  m.increment(-2.0, -2.0);
  m.increment(0.5, 3.0);
  // -(1 + 4 + 0 + 6.25) / 4
  EXPECT_DOUBLE_EQ(m.getResult(), -11.25 / 4.0);
  // No sample inside, however many were looked at: -1000.
  m.reset();
  EXPECT_EQ(m.getResult(), -1000.0);
  m.numTotal = 500;
  EXPECT_EQ(m.getResult(), -1000.0);
}

// n samples inside, each with squared difference 4, among `total`.
static double resultWithOverlap(double maxCoverage, int inside, int total) {
  RegMeanSquaredDifference m(maxCoverage);
  m.reset();
  for (int i = 0; i < inside; i++)
    m.increment(2.0, 0.0);
  m.numTotal += total - inside;
  return m.getResult();
}

TEST(RegMeanSquaredDifference, OverlapRuleDividesByTheWeight) {
  // 10% covered with maxCoverage 1: weight 0.5, so the value doubles.
  EXPECT_DOUBLE_EQ(resultWithOverlap(1.0, 10, 100), -8.0);
  // 5% covered: weight 0.25.
  EXPECT_DOUBLE_EQ(resultWithOverlap(1.0, 5, 100), -16.0);
  // 20% and more: unchanged.
  EXPECT_DOUBLE_EQ(resultWithOverlap(1.0, 20, 100), -4.0);
  EXPECT_DOUBLE_EQ(resultWithOverlap(1.0, 90, 100), -4.0);
  // Just below a fifth: weight 0.19 * 5 = 0.95.
  EXPECT_DOUBLE_EQ(resultWithOverlap(1.0, 19, 100), -4.0 / 0.95);
  // The threshold is relative to maxCoverage: with 0.5, 5% is a tenth of what
  // can be covered, so the weight is 0.05 * 5 / 0.5 = 0.5.
  EXPECT_DOUBLE_EQ(resultWithOverlap(0.5, 5, 100), -8.0);
  EXPECT_DOUBLE_EQ(resultWithOverlap(0.5, 10, 100), -4.0);
  // maxCoverage 0 or below: no weight at any overlap.
  EXPECT_DOUBLE_EQ(resultWithOverlap(0.0, 1, 100), -4.0);
  EXPECT_DOUBLE_EQ(resultWithOverlap(-1.0, 1, 100), -4.0);
}

TEST(RegMeanSquaredDifference, DecrementCancelsIncrement) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> u(-100.0, 100.0);
  std::vector<std::pair<double, double>> samples(200);
  for (auto& s : samples)
    s = {u(rng), u(rng)};

  RegMeanSquaredDifference all(1.0), kept(1.0);
  all.reset();
  kept.reset();
  for (size_t i = 0; i < samples.size(); i++) {
    all.increment(samples[i].first, samples[i].second);
    if (i % 3 != 0)
      kept.increment(samples[i].first, samples[i].second);
  }
  // Taking out every third sample leaves the statistic of the others.
  for (size_t i = 0; i < samples.size(); i += 3)
    all.decrement(samples[i].first, samples[i].second);
  EXPECT_EQ(all.numInside, kept.numInside);
  EXPECT_EQ(all.numTotal, kept.numTotal);
  EXPECT_NEAR(all.getResult(), kept.getResult(), 1e-9 * std::fabs(kept.getResult()));

  // Taking out everything returns to the empty state.
  RegMeanSquaredDifference m(1.0);
  m.reset();
  m.increment(3.0, 1.0);
  m.increment(2.0, 7.0);
  m.decrement(2.0, 7.0);
  m.decrement(3.0, 1.0);
  EXPECT_EQ(m.numInside, 0);
  EXPECT_EQ(m.numTotal, 0);
  EXPECT_EQ(m.sum, 0.0);
  EXPECT_EQ(m.getResult(), -1000.0);
}

TEST(RegMeanSquaredDifference, CloneAndStateCopyTheStatistic) {
  RegMeanSquaredDifference m(0.7);
  m.reset();
  m.increment(1.0, 4.0);
  m.increment(2.0, 2.5);
  m.numTotal += 30;
  std::unique_ptr<RegMetric> c(m.clone());
  auto* copy = dynamic_cast<RegMeanSquaredDifference*>(c.get());
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->maxCoverage, 0.7);
  EXPECT_EQ(copy->getResult(), m.getResult());
  // getState overwrites, it does not merge.
  RegMeanSquaredDifference other(0.3);
  other.reset();
  for (int i = 0; i < 5; i++)
    other.increment(9.0, 0.0);
  m.getState(&other);
  EXPECT_EQ(other.numInside, 2);
  EXPECT_EQ(other.numTotal, 32);
  EXPECT_EQ(other.sum, m.sum);
  EXPECT_EQ(other.maxCoverage, 0.3); // a parameter, not state
}

namespace {

// A metric that records the pairs it is given, for the sampler tests.
class RecordingMetric : public RegMeanSquaredDifference {
public:
  RecordingMetric() : RegMeanSquaredDifference(0.0) { reset(); }
  void increment(double ref, double model) override {
    RegMeanSquaredDifference::increment(ref, model);
    lastRef = ref;
    lastModel = model;
  }
  double lastRef = 0, lastModel = 0;
};

// A model lattice over a box, with the sampling state set up as an owner does.
template <class T> struct Lattice {
  int dims[3];
  float box[6];
  std::vector<T> data;
  Lattice(int nx, int ny, int nz, const float b[6]) : dims{nx, ny, nz} {
    for (int i = 0; i < 6; i++)
      box[i] = b[i];
    data.resize(size_t(nx) * ny * nz);
  }
  T& at(int i, int j, int k) { return data[(size_t(k) * dims[1] + j) * dims[0] + i]; }
  void attach(RegMetric& m) const {
    m.box = box;
    m.dims = dims;
    for (int a = 0; a < 3; a++) {
      const float extent = box[2 * a + 1] - box[2 * a];
      m.boxSize[a] = extent;
      m.scale[a] = extent > 0 ? (dims[a] - 1) / extent : 0.0f;
    }
    m.inside = 1;
  }
};

const float kBox[6] = {-1.0f, 3.0f, 0.0f, 10.0f, 2.0f, 5.0f}; // voxel sizes 1, 2, 1.5

} // namespace

template <class T> class RegMetricSampling : public ::testing::Test {};
typedef ::testing::Types<unsigned char, short, unsigned short, int, float, double> VoxelTypes;
TYPED_TEST_SUITE(RegMetricSampling, VoxelTypes);

TYPED_TEST(RegMetricSampling, TrilinearIsExactForALinearFunction) {
  Lattice<TypeParam> lat(5, 6, 3, kBox);
  // f = 2i + 3j + 5k + 1 on the voxel indices: exact in every type.
  for (int k = 0; k < 3; k++)
    for (int j = 0; j < 6; j++)
      for (int i = 0; i < 5; i++)
        lat.at(i, j, k) = TypeParam(2 * i + 3 * j + 5 * k + 1);
  RecordingMetric m;
  lat.attach(m);

  std::mt19937 rng(3);
  for (int n = 0; n < 200; n++) {
    // Voxel coordinates inside the lattice, and the world point there.
    const float u = std::uniform_real_distribution<float>(0.0f, 4.0f)(rng);
    const float v = std::uniform_real_distribution<float>(0.0f, 5.0f)(rng);
    const float w = std::uniform_real_distribution<float>(0.0f, 2.0f)(rng);
    QbVec3f p(kBox[0] + u * 1.0f, kBox[2] + v * 2.0f, kBox[4] + w * 1.5f);
    float value = -1.0f;
    m.evalAndIncrementGrey<TypeParam>(7.0f, value, lat.data.data(), &p);
    EXPECT_NEAR(value, 2 * u + 3 * v + 5 * w + 1, 1e-4) << u << " " << v << " " << w;
    EXPECT_EQ(m.lastModel, (double)value);
    EXPECT_EQ(m.lastRef, 7.0);
    EXPECT_EQ(m.inside, 1);
  }
  EXPECT_EQ(m.numInside, 200);
}

TYPED_TEST(RegMetricSampling, BordersAreClampedAndFlagged) {
  Lattice<TypeParam> lat(5, 6, 3, kBox);
  for (size_t n = 0; n < lat.data.size(); n++)
    lat.data[n] = TypeParam(n % 7 + 1);
  RecordingMetric m;
  lat.attach(m);
  float value = 0;

  // Exactly on the last voxel centre: no neighbours, the voxel's own value.
  QbVec3f last(kBox[1], kBox[3], kBox[5]);
  m.evalAndIncrementGrey<TypeParam>(0.0f, value, lat.data.data(), &last);
  EXPECT_EQ(value, (float)lat.at(4, 5, 2));
  EXPECT_EQ(m.voxel[0], 4);
  EXPECT_EQ(m.voxel[1], 5);
  EXPECT_EQ(m.voxel[2], 2);
  EXPECT_EQ(m.frac[0], 0.0f);
  EXPECT_EQ(m.stepX, 0);
  EXPECT_EQ(m.stepY, 0);
  EXPECT_EQ(m.stepZ, 0);
  EXPECT_EQ(m.inside, 1);

  // 0.4 voxel beyond the top in x: clamped, still inside.
  QbVec3f near(kBox[1] + 0.4f, 4.0f, 3.0f);
  m.evalAndIncrementGrey<TypeParam>(0.0f, value, lat.data.data(), &near);
  EXPECT_EQ(m.voxel[0], 4);
  EXPECT_EQ(m.inside, 1);
  // 0.6 voxel beyond: clamped to the same sample, but flagged outside.
  float nearValue = value;
  QbVec3f beyond(kBox[1] + 0.6f, 4.0f, 3.0f);
  m.evalAndIncrementGrey<TypeParam>(0.0f, value, lat.data.data(), &beyond);
  EXPECT_EQ(value, nearValue);
  EXPECT_EQ(m.inside, 0);

  // Below the lattice: 0.4 voxel stays inside, 0.6 voxel (of y's voxel size 2)
  // does not; both read the border.
  m.inside = 1;
  QbVec3f below(1.0f, kBox[2] - 0.8f, 3.0f);
  m.evalAndIncrementGrey<TypeParam>(0.0f, value, lat.data.data(), &below);
  EXPECT_EQ(m.voxel[1], 0);
  EXPECT_EQ(m.frac[1], 0.0f);
  EXPECT_EQ(m.inside, 1);
  QbVec3f further(1.0f, kBox[2] - 1.2f, 3.0f);
  m.evalAndIncrementGrey<TypeParam>(0.0f, value, lat.data.data(), &further);
  EXPECT_EQ(m.inside, 0);
  // Every call counted a sample, inside or not.
  EXPECT_EQ(m.numInside, 5);
}

TYPED_TEST(RegMetricSampling, AxisWithoutExtentNeverClearsTheFlag) {
  const float flat[6] = {0.0f, 4.0f, 0.0f, 4.0f, 7.0f, 7.0f};
  Lattice<TypeParam> lat(5, 5, 1, flat);
  for (int j = 0; j < 5; j++)
    for (int i = 0; i < 5; i++)
      lat.at(i, j, 0) = TypeParam(i + 10 * j);
  RecordingMetric m;
  lat.attach(m);
  EXPECT_EQ(m.scale[2], 0.0f);
  float value = 0;
  for (float z : {-50.0f, 7.0f, 90.0f}) {
    QbVec3f p(2.5f, 1.0f, z);
    m.evalAndIncrementGrey<TypeParam>(0.0f, value, lat.data.data(), &p);
    EXPECT_EQ(m.pos[2], 0.0f);
    EXPECT_NEAR(value, 12.5f, 1e-5);
    EXPECT_EQ(m.inside, 1);
  }
}

TYPED_TEST(RegMetricSampling, NearestVoxelRoundsByHalfAVoxel) {
  Lattice<TypeParam> lat(5, 6, 3, kBox);
  for (int k = 0; k < 3; k++)
    for (int j = 0; j < 6; j++)
      for (int i = 0; i < 5; i++)
        lat.at(i, j, k) = TypeParam(i + 5 * j + 30 * k);
  RecordingMetric m;
  lat.attach(m);
  float value = 0;
  auto sampleAt = [&](float u, float v, float w) {
    QbVec3f p(kBox[0] + u, kBox[2] + 2.0f * v, kBox[4] + 1.5f * w);
    m.evalAndIncrementLabel<TypeParam>(3.0f, value, lat.data.data(), &p);
    return value;
  };
  EXPECT_EQ(sampleAt(2.4f, 0.0f, 0.0f), 2.0f);
  EXPECT_EQ(sampleAt(2.6f, 0.0f, 0.0f), 3.0f);
  EXPECT_EQ(sampleAt(1.0f, 3.4f, 1.6f), float(1 + 5 * 3 + 30 * 2));
  // Far outside: the nearest border voxel; the flag is not touched.
  m.inside = 1;
  EXPECT_EQ(sampleAt(-7.0f, 40.0f, -3.0f), float(0 + 5 * 5 + 0));
  EXPECT_EQ(m.inside, 1);
  EXPECT_EQ(m.lastRef, 3.0);
  EXPECT_EQ(m.numInside, 4);
}
