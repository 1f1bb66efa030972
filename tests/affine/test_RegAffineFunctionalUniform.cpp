// The uniform-grid functional: exact answers on volumes with a known
// transform, agreement with the general walk for every metric and a range of
// voxel type pairs, independence from the thread count, the row clipping at
// its edges, and the quiet failures.
#include "QbPrimType.h"
#include "RegAffineFunctional.h"
#include "RegAffineFunctionalUniform.h"
#include "RegAffineTransform.h"
#include "RegCorrelationRatio.h"
#include "RegLabelDifference.h"
#include "RegMeanSquaredDifference.h"
#include "RegNormMutualInformation.h"
#include "RegSimpleMutualInformation.h"
#include "ZrMessage.h"
#include "ZrUniformScalarField3.h"
#include "reg_evaluateUniformRow.h"
#include "reg_evaluateUniformSimd.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <functional>
#include <memory>
#include <string>

namespace {

using Field = std::unique_ptr<ZrUniformScalarField3>;
using Fn = std::function<double(double, double, double)>;

// A smooth test pattern in 0 .. 200 that varies along every axis.
double pattern(double x, double y, double z) {
  return 100.0 + 60.0 * std::sin(0.35 * x + 0.2) * std::cos(0.28 * y - 0.1) + 2.5 * z;
}

// A field of voxel type `type` over `box` holding f at the node positions
// (rounded for integer types).
Field makeField(int type, const int dims[3], const float box[6], const Fn& f = pattern) {
  Field field = std::make_unique<ZrUniformScalarField3>(dims, type, box);
  size_t idx = 0;
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++, idx++) {
        float p[3];
        field->lattice.coords()->pos(i, j, k, p);
        if (qbPrimTypeIsVoxelType(type))
          field->lattice.setValue(idx, f(p[0], p[1], p[2]));
      }
  return field;
}

// NARROW: the correlation with windows that cut into the data (0 .. 200).
enum MetricKind { MSD, NMI, SMI, CORR, LABEL, NARROW };
const char* kMetricName[] = {"MSD", "NMI", "SMI", "Corr", "Label", "Corr narrow"};

RegMetric* makeMetric(MetricKind kind, int refType, int modelType) {
  switch (kind) {
  case MSD:
    return new RegMeanSquaredDifference(1.0);
  case NMI:
    return new RegNormMutualInformation((QbPrimType)refType, (QbPrimType)modelType, 0, 200, 0, 200,
                                        64, 64, 1.0);
  case SMI:
    return new RegSimpleMutualInformation((QbPrimType)refType, (QbPrimType)modelType, 0, 200, 0,
                                          200, 64, 64, 1.0);
  case CORR:
    return new RegCorrelationRatio(-1000, 1000, -1000, 1000, 1.0);
  case NARROW:
    return new RegCorrelationRatio(70, 150, 60, 140, 1.0);
  default:
    return new RegLabelDifference(1.0);
  }
}

const int kModelDims[3] = {20, 18, 16};
const float kModelBox[6] = {0, 19, 0, 17, 0, 15};
// A reference of another voxel size, well inside the model under the small
// transforms used here.
const int kRefDims[3] = {12, 10, 9};
const float kRefBox[6] = {4.2f, 4.2f + 11 * 0.9f, 3.9f, 3.9f + 9 * 0.9f, 3.3f, 3.3f + 8 * 0.9f};

// One reference/model pair with its transform; builds either functional.
struct Pair {
  Field reference, model;
  QbDArray<ZrSpatialData*> refs, models;
  std::unique_ptr<RegAffineTransform> transform;
  double start[15];

  Pair(Field r, Field m) : reference(std::move(r)), model(std::move(m)) {
    refs.append(reference.get());
    models.append(model.get());
    transform = std::make_unique<RegAffineTransform>(refs, model.get(), 12);
    for (int i = 0; i < 15; i++)
      start[i] = transform->paramVector[i];
  }
  // A small affine motion from the present placement: translation, rotation
  // in degrees, scale.
  void setSmallAffine() {
    const double d[9] = {0.3, -0.7, 0.45, 2.0, -1.5, 3.0, 1.02, 0.98, 1.01};
    for (int i = 0; i < 6; i++)
      transform->paramVector[i] = start[i] + d[i];
    for (int i = 6; i < 9; i++)
      transform->paramVector[i] = start[i] * d[i];
  }
  // The model moved by (x, y, z) from its present placement.
  void setTranslation(double x, double y, double z) {
    transform->paramVector[0] = start[0] + x;
    transform->paramVector[1] = start[1] + y;
    transform->paramVector[2] = start[2] + z;
  }
  // With every thread in the walk, however small the lattice.
  std::unique_ptr<RegAffineFunctionalUniform> uniform(RegMetric* metric, unsigned threads = 1) {
    auto f = std::make_unique<RegAffineFunctionalUniform>(
        refs, models, RegInterpolatorStandard, transform.get(), metric, nullptr, 3, threads);
    f->minVoxelsPerThread = 1;
    return f;
  }
  std::unique_ptr<RegAffineFunctional> general(RegMetric* metric) {
    return std::make_unique<RegAffineFunctional>(refs, models, RegInterpolatorStandard,
                                                 transform.get(), metric, nullptr, 0, 3);
  }
  RegMetric* newMetric(MetricKind kind) {
    return makeMetric(kind, reference->primType(), model->primType());
  }
};

// The metrics print their bin counts; the tests need a quiet stream.
class Quiet : public ::testing::Environment {
  void SetUp() override { ZrMessage::getTheMsg()->setQuiet(true); }
};
const auto* const kQuiet = ::testing::AddGlobalTestEnvironment(new Quiet);

const int kTypes[6] = {QB_UINT8, QB_INT16, QB_INT32, QB_FLOAT, QB_DOUBLE, QB_UINT16};

} // namespace

TEST(RegAffineFunctionalUniform, IdentityIsExactForEveryTypePair) {
  // Identical small volumes of whole grey values under the identity: every
  // position lands on a voxel, all samples are inside and squared difference
  // is exactly 0. The histogram walk agrees with the general one to
  // summation order. This touches all 36 instantiations.
  const int dims[3] = {7, 6, 5};
  const float box[6] = {1, 7, 2, 7, -3, 1};
  const Fn whole = [](double x, double y, double z) { return std::round(pattern(x, y, z)); };
  for (int rt : kTypes)
    for (int mt : kTypes) {
      Pair s(makeField(rt, dims, box, whole), makeField(mt, dims, box, whole));
      auto f = s.uniform(s.newMetric(MSD));
      EXPECT_EQ(f->evaluate(), 0.0) << rt << " " << mt;
      EXPECT_EQ(f->metric->numTotal, 7 * 6 * 5);
      EXPECT_EQ(f->metric->numInside, 7 * 6 * 5);

      auto u = s.uniform(s.newMetric(NMI));
      auto g = s.general(s.newMetric(NMI));
      const double gv = g->evaluate();
      EXPECT_NEAR(u->evaluate(), gv, 1e-12) << rt << " " << mt;
      EXPECT_GT(gv, 1.5);
    }
}

TEST(RegAffineFunctionalUniform, AgreesWithTheGeneralWalk) {
  // The same objective on both walks, the whole reference inside the model.
  // They differ only by single against double precision in positions,
  // samples and the reference value.
  const int pairs[][2] = {{QB_UINT8, QB_UINT8},  {QB_INT16, QB_FLOAT},  {QB_FLOAT, QB_DOUBLE},
                          {QB_UINT16, QB_INT32}, {QB_DOUBLE, QB_UINT8}, {QB_INT32, QB_UINT16}};
  const double tolerance[] = {1e-5, 1e-6, 1e-6, 1e-6, 0, 1e-6};
  for (auto& pair : pairs) {
    Pair s(makeField(pair[0], kRefDims, kRefBox), makeField(pair[1], kModelDims, kModelBox));
    s.setSmallAffine();
    for (MetricKind kind : {MSD, NMI, SMI, CORR, NARROW}) {
      auto g = s.general(s.newMetric(kind));
      auto u = s.uniform(s.newMetric(kind), 2);
      const double gv = g->evaluate();
      const double uv = u->evaluate();
      const std::string what = std::string(kMetricName[kind]) + " " + qbPrimTypeName(pair[0]) +
                               "/" + qbPrimTypeName(pair[1]);
      EXPECT_EQ(u->metric->numTotal, 12 * 10 * 9) << what;
      EXPECT_EQ(u->metric->numInside, g->metric->numInside) << what;
      // Only the narrow windows leave samples out, and then many.
      if (kind == NARROW)
        EXPECT_LT(u->metric->numInside, u->metric->numTotal * 3 / 4) << what;
      else
        EXPECT_EQ(u->metric->numInside, u->metric->numTotal) << what;
      EXPECT_NEAR(uv, gv, tolerance[kind] * std::fabs(gv)) << what;
      // The transform is not the identity: the values are not trivial.
      if (kind == MSD) {
        EXPECT_LT(uv, -1.0) << what;
      }
    }
  }
}

TEST(RegAffineFunctionalUniform, ThreadCountChangesOnlyTheSummationOrder) {
  Pair s(makeField(QB_INT16, kRefDims, kRefBox), makeField(QB_FLOAT, kModelDims, kModelBox));
  s.setSmallAffine();
  // The reference has 9 slices: 16 threads leave some without work.
  for (MetricKind kind : {MSD, NMI, SMI, CORR}) {
    auto one = s.uniform(s.newMetric(kind), 1);
    const double v1 = one->evaluate();
    for (unsigned threads : {2u, 3u, 4u, 16u}) {
      omp_set_num_threads(5);
      auto f = s.uniform(s.newMetric(kind), threads);
      const double v = f->evaluate();
      // The runtime's setting is restored after the walk.
      EXPECT_EQ(omp_get_max_threads(), 5);
      EXPECT_NEAR(v, v1, 1e-12 * std::fabs(v1)) << kMetricName[kind] << " " << threads;
      EXPECT_EQ(f->metric->numInside, one->metric->numInside);
      EXPECT_EQ(f->metric->numTotal, one->metric->numTotal);
    }
  }
  // A thread count of 0 counts as 1.
  auto zero = s.uniform(s.newMetric(MSD), 0);
  EXPECT_EQ(zero->numThreads, 1u);
}

TEST(RegAffineFunctionalUniform, HistogramsOfEarlierEvaluationsDoNotLeakIn) {
  // The per-thread histograms are kept between evaluations. Values must not
  // depend on what an earlier evaluation left in them: neither after a walk
  // with more threads and other bin counts, nor when the runtime gives a
  // walk fewer threads than asked for (inside an enclosing parallel region
  // without nesting it runs alone).
  Pair s(makeField(QB_INT16, kRefDims, kRefBox), makeField(QB_FLOAT, kModelDims, kModelBox));
  s.setSmallAffine();
  auto reference = s.uniform(s.newMetric(NMI), 1);
  const double expected = reference->evaluate();

  auto coarse =
      s.uniform(new RegNormMutualInformation(QB_INT16, QB_FLOAT, 0, 200, 0, 200, 16, 16, 1.0), 4);
  coarse->evaluate();
  auto many = s.uniform(s.newMetric(NMI), 4);
  EXPECT_NEAR(many->evaluate(), expected, 1e-12 * std::fabs(expected));

  const int savedLevels = omp_get_max_active_levels();
  omp_set_max_active_levels(1);
  double alone = 0.0;
  int team = 0;
#pragma omp parallel num_threads(2)
  {
#pragma omp master
    {
      team = omp_get_num_threads();
      alone = many->evaluate();
    }
  }
  omp_set_max_active_levels(savedLevels);
  if (team < 2)
    GTEST_SKIP() << "no second thread for the enclosing region";
  EXPECT_NEAR(alone, expected, 1e-12 * std::fabs(expected));
}

TEST(RegAffineFunctionalUniform, KnownShiftAndCorrelation) {
  // Model = pattern displaced by whole voxels; translating the model back
  // aligns the overlap exactly.
  Pair s(makeField(QB_FLOAT, kModelDims, kModelBox),
         makeField(QB_FLOAT, kModelDims, kModelBox,
                   [](double x, double y, double z) { return pattern(x + 2, y - 3, z + 1); }));
  s.setTranslation(2, -3, 1);
  auto f = s.uniform(s.newMetric(MSD), 2);
  EXPECT_NEAR(f->evaluate(), 0.0, 1e-9);
  // Overlap: 18 of 20 columns, 15 of 18 rows, 15 of 16 slices, with the
  // half-voxel margin adding nothing on whole-voxel shifts.
  EXPECT_EQ(f->metric->numInside, 18 * 15 * 15);
  EXPECT_EQ(f->metric->numTotal, 20 * 18 * 16);

  // An anti-correlated model scores 1 with the correlation, on both walks.
  Pair a(makeField(QB_UINT8, kRefDims, kRefBox),
         makeField(QB_INT16, kModelDims, kModelBox,
                   [](double x, double y, double z) { return 500 - 3 * pattern(x, y, z); }));
  for (unsigned threads : {1u, 2u}) {
    auto c = a.uniform(new RegCorrelationRatio(-1e4, 1e4, -1e4, 1e4, 1.0), threads);
    // uint8 rounding of the reference keeps it a little off 1.
    EXPECT_NEAR(c->evaluate(), 1.0, 1e-4);
    // The running offsets leave a second evaluation where it was.
    const double first = c->evaluate();
    EXPECT_NEAR(c->evaluate(), first, 1e-12);
  }
}

namespace {

// Switches the AVX2 forms of the walk on or off for one scope.
class SimdSetting {
public:
  explicit SimdSetting(bool on) : saved(reg_evaluateUniformSimd()) {
    reg_evaluateUniformSimd() = on;
  }
  ~SimdSetting() { reg_evaluateUniformSimd() = saved; }

private:
  bool saved;
};

} // namespace

TEST(RegAffineFunctionalUniform, HalfVoxelShiftsGiveTheKnownHistogram) {
  // A reference on the model's grid, the model moved by half a voxel along
  // every axis: each sample is the mean of 8 whole grey values, exact in
  // double precision, so the joint histogram must be the one that
  // increment() builds from the reference values and those means. The walk
  // adds each bin's weight in up to four partial sums, so entries and value
  // agree to rounding; 1e-12 is far below what a misplaced weight costs.
  const Fn whole = [](double x, double y, double z) { return std::round(pattern(x, y, z)); };
  const Fn other = [](double x, double y, double z) {
    return std::round(120 + 70 * std::cos(0.3 * x - 0.25 * y + 0.2 * z));
  };
  const int refDims[3] = {12, 10, 9};
  const float refBox[6] = {3, 14, 4, 13, 2, 10};
  const int pairs[][2] = {{QB_UINT8, QB_UINT8},
                          {QB_INT16, QB_UINT16},
                          {QB_INT16, QB_FLOAT},
                          {QB_FLOAT, QB_UINT16},
                          {QB_DOUBLE, QB_INT32}};
  // By partial volume each of the 8 voxels adds its own value with weight
  // 1/8; a blocky model of whole values gives samples of one value and
  // samples of two, three and more, some above the bins' range.
  const Fn blocks = [](double x, double y, double z) {
    return 10.0 * (std::floor(x / 3) + 2 * std::floor(y / 4) + 3 * std::floor(z / 5));
  };
  // 256 bins asked for over 0..200: integer images get one bin per value,
  // as label pairs do, and take their own walk.
  for (int bins : {64, 256})
    for (bool partialVolume : {false, true})
      for (auto& pair : pairs)
        for (bool simd : {false, true}) {
          SimdSetting setting(simd);
          Pair s(makeField(pair[0], refDims, refBox, other),
                 makeField(pair[1], kModelDims, kModelBox, partialVolume ? blocks : whole));
          s.setTranslation(-0.5, -0.5, -0.5);
          auto newMetric = [&] {
            return new RegNormMutualInformation((QbPrimType)pair[0], (QbPrimType)pair[1], 0, 200, 0,
                                                200, bins, bins, 1.0);
          };
          RegMutualInformation* metric = newMetric();
          metric->partialVolume = partialVolume;
          auto f = s.uniform(metric, 2);
          const double value = f->evaluate();
          ASSERT_EQ(metric->numInside, 12 * 10 * 9);

          std::unique_ptr<RegMutualInformation> expected(newMetric());
          const ZrUniformScalarField3& m = *s.model;
          auto at = [&](int i, int j, int k) {
            return m.lattice.getValueAsDouble((size_t(k) * kModelDims[1] + j) * kModelDims[0] + i);
          };
          for (int k = 0; k < refDims[2]; k++)
            for (int j = 0; j < refDims[1]; j++)
              for (int i = 0; i < refDims[0]; i++) {
                // Reference voxel (i, j, k) lies at model voxel (3 + i, 4 + j, 2 + k) + 0.5.
                const double r = s.reference->lattice.getValueAsDouble(
                    (size_t(k) * refDims[1] + j) * refDims[0] + i);
                double mean = 0;
                for (int c = 0; c < 8; c++) {
                  const double v = at(3 + i + (c & 1), 4 + j + (c >> 1 & 1), 2 + k + (c >> 2 & 1));
                  mean += v;
                  if (partialVolume) {
                    int a, b;
                    double a0, a1, b0, b1;
                    RegMutualInformation::binOf(r, expected->refMin, expected->refScale,
                                                expected->numBinsRef, a, a0, a1);
                    RegMutualInformation::binOf(v, expected->modelMin, expected->modelScale,
                                                expected->numBinsMod, b, b0, b1);
                    RegMutualInformation::addWeights(expected->histogram.data(),
                                                     expected->numBinsMod, a, b, a0, a1, b0, b1,
                                                     0.125);
                  }
                }
                if (partialVolume) {
                  expected->numInside++;
                  expected->numTotal++;
                } else {
                  expected->increment(r, mean / 8);
                }
              }
          const std::string what = std::string(qbPrimTypeName(pair[0])) + "/" +
                                   qbPrimTypeName(pair[1]) + (simd ? " simd" : " scalar") +
                                   (partialVolume ? " partial volume " : " ") +
                                   std::to_string(bins);
          ASSERT_EQ(metric->histogram.size(), expected->histogram.size());
          for (int e = 0; e < metric->histogram.size(); e++)
            ASSERT_NEAR(metric->histogram[e], expected->histogram[e], 1e-12 * 12 * 10 * 9)
                << what << " entry " << e;
          EXPECT_NEAR(value, expected->getResult(), 1e-12) << what;
        }
}
TEST(RegAffineFunctionalUniform, SimdAndScalarFormsAgreeBitForBit) {
  // A reference that sticks out of the model on every side, turned a little:
  // rows enter and leave at odd voxels, run longer than one block, and pass
  // the model's top border on every axis, where the samples of a last,
  // partial group of four and the clamp to the lattice come in; and bins
  // that leave samples out at both ends. The AVX2 forms do the same
  // operations in the same order, so every value and count must be equal to
  // the last bit.
  const int refDims[3] = {70, 9, 8};
  const float refBox[6] = {-1.3f, -1.3f + 69 * 0.3f, -0.8f, -0.8f + 8 * 2.4f,
                           -0.6f, -0.6f + 7 * 2.3f};
  for (int rt : {QB_UINT8, QB_FLOAT})
    for (int mt : kTypes) {
      Pair s(makeField(rt, refDims, refBox), makeField(mt, kModelDims, kModelBox));
      s.setSmallAffine();
      // -1: bins over part of the values, samples below and above them; -2:
      // sampled by partial volume; -3: the same with one bin per value, as
      // label pairs of integer voxels are binned.
      for (int kind : {int(MSD), int(NMI), int(CORR), -1, -2, -3}) {
        double value[2];
        int64_t inside[2];
        for (bool simd : {false, true}) {
          SimdSetting setting(simd);
          RegMetric* metric =
              kind >= 0
                  ? s.newMetric(MetricKind(kind))
                  : new RegNormMutualInformation((QbPrimType)rt, (QbPrimType)mt, 70, 150, 70, 150,
                                                 kind == -3 ? 256 : 32, kind == -3 ? 256 : 32, 1.0);
          if (kind <= -2)
            static_cast<RegMutualInformation*>(metric)->partialVolume = true;
          auto f = s.uniform(metric, 2);
          value[simd] = f->evaluate();
          inside[simd] = f->metric->numInside;
        }
        const std::string what = std::string(kind >= 0    ? kMetricName[kind]
                                             : kind == -1 ? "NMI narrow"
                                             : kind == -2 ? "NMI PV"
                                                          : "NMI PV labels") +
                                 " " + qbPrimTypeName(rt) + "/" + qbPrimTypeName(mt);
        EXPECT_EQ(value[1], value[0]) << what;
        EXPECT_EQ(inside[1], inside[0]) << what;
        EXPECT_GT(inside[0], 70 * 9 * 8 / 2) << what;
        EXPECT_LT(inside[0], 70 * 9 * 8) << what;
      }
    }
}

TEST(RegAffineFunctionalUniform, HalfVoxelMarginAtTheEdge) {
  // Reference and model on the same grid, the model moved along x by just
  // under or just over half a voxel. Within the margin every reference voxel
  // counts; beyond it the edge column of each row drops out. The general walk
  // tests against the model's box and loses the edge column either way.
  Pair s(makeField(QB_UINT8, kModelDims, kModelBox), makeField(QB_UINT8, kModelDims, kModelBox));
  const int64_t all = 20 * 18 * 16, column = 18 * 16;
  for (double sign : {1.0, -1.0}) {
    s.setTranslation(sign * (0.5 - 1e-4), 0, 0);
    auto f = s.uniform(s.newMetric(MSD), 2);
    f->evaluate();
    EXPECT_EQ(f->metric->numInside, all) << sign;
    EXPECT_EQ(f->metric->numTotal, all);
    auto g = s.general(s.newMetric(MSD));
    g->evaluate();
    EXPECT_EQ(g->metric->numInside, all - column) << sign;

    s.setTranslation(sign * (0.5 + 1e-4), 0, 0);
    f->evaluate();
    EXPECT_EQ(f->metric->numInside, all - column) << sign;
    EXPECT_EQ(f->metric->numTotal, all);
  }
}

TEST(RegAffineFunctionalUniform, RowsParallelToAnAxisPlane) {
  // Rows run along x, so y and z do not change along a row. Moving the model
  // up by 3.7 voxels in y leaves rows 0 to 3 of every slice outside (row 3
  // maps to -0.7): they count in the total, not in the statistic.
  Pair s(makeField(QB_FLOAT, kModelDims, kModelBox), makeField(QB_FLOAT, kModelDims, kModelBox));
  s.setTranslation(0, 3.7, 0);
  auto f = s.uniform(s.newMetric(MSD), 2);
  f->evaluate();
  EXPECT_EQ(f->metric->numTotal, 20 * 18 * 16);
  EXPECT_EQ(f->metric->numInside, 20 * (18 - 4) * 16);
  // Entirely outside: no sample at all.
  s.setTranslation(0, 30, 0);
  EXPECT_EQ(f->evaluate(), -1000.0);
  EXPECT_EQ(f->metric->numTotal, 20 * 18 * 16);
  EXPECT_EQ(f->metric->numInside, 0);
}

TEST(RegAffineFunctionalUniform, SingleSliceAndSingleColumn) {
  // A model of one slice, flat or with extent along z: that axis never
  // clips, and every reference slice samples the one model slice.
  const Fn planar = [](double x, double y, double) { return pattern(x, y, 0); };
  const int dims2[3] = {20, 18, 1};
  const int refDims[3] = {20, 18, 4};
  const float refBox[6] = {0, 19, 0, 17, -10, 20};
  for (float zmax : {5.0f, 6.0f}) {
    const float box2[6] = {0, 19, 0, 17, 5, zmax};
    Pair s(makeField(QB_DOUBLE, refDims, refBox, planar), makeField(QB_FLOAT, dims2, box2, planar));
    auto f = s.uniform(s.newMetric(MSD), 2);
    EXPECT_NEAR(f->evaluate(), 0.0, 1e-9) << zmax;
    EXPECT_EQ(f->metric->numInside, 20 * 18 * 4) << zmax;
  }

  // A reference one voxel wide: no step along the row, every axis tested as
  // a plane; it samples the model where it lies.
  const int colDims[3] = {1, 6, 5};
  const float colBox[6] = {7.25f, 7.25f, 2, 7, 3, 7};
  Pair c(makeField(QB_DOUBLE, colDims, colBox), makeField(QB_DOUBLE, kModelDims, kModelBox));
  auto f = c.uniform(c.newMetric(MSD), 2);
  // Linear interpolation of a smooth pattern a quarter voxel off the grid.
  EXPECT_GT(f->evaluate(), -0.05);
  EXPECT_EQ(f->metric->numInside, 30);
  EXPECT_EQ(f->metric->numTotal, 30);
}

TEST(RegAffineFunctionalUniform, RowInterval) {
  const double clip[6] = {-0.5, 9.5, -0.5, 3.5, -0.5, 0.5};
  const SbVec3d up(1, 0, 0), down(-1, 0, 0);
  int first, last;
  // Entering with a whole number of steps skips the voxel on the bound.
  ASSERT_TRUE(reg_evaluateUniformRowInterval(SbVec3d(-3.5, 0, 0), QbVec3i(1, 2, 2), up, clip, 20,
                                             first, last));
  EXPECT_EQ(first, 4);
  EXPECT_EQ(last, 13);
  // Leaving with a whole number of steps keeps it.
  ASSERT_TRUE(reg_evaluateUniformRowInterval(SbVec3d(6.5, 0, 0), QbVec3i(1, 2, 2), up, clip, 20,
                                             first, last));
  EXPECT_EQ(first, 0);
  EXPECT_EQ(last, 3);
  // Downwards: entry at the upper bound, exit at the lower.
  ASSERT_TRUE(reg_evaluateUniformRowInterval(SbVec3d(14.5, 0, 0), QbVec3i(-1, 2, 2), down, clip, 20,
                                             first, last));
  EXPECT_EQ(first, 6); // 5 steps to 9.5: skipped
  EXPECT_EQ(last, 15); // 15 steps to -0.5: kept
  // Starting beyond the exit by a whole number of steps: t = -2 gives -3,
  // an empty row.
  EXPECT_FALSE(reg_evaluateUniformRowInterval(SbVec3d(11.5, 0, 0), QbVec3i(1, 2, 2), up, clip, 20,
                                              first, last));
  EXPECT_EQ(last, -3);
  // A plane row: in or out as a whole, bounds inclusive.
  EXPECT_TRUE(reg_evaluateUniformRowInterval(SbVec3d(0, 3.5, -0.5), QbVec3i(1, 2, 2), up, clip, 20,
                                             first, last));
  EXPECT_FALSE(reg_evaluateUniformRowInterval(SbVec3d(0, 3.5001, 0), QbVec3i(1, 2, 2), up, clip, 20,
                                              first, last));
  // An axis with flag 0 does not clip, wherever the row lies.
  EXPECT_TRUE(reg_evaluateUniformRowInterval(SbVec3d(0, 0, 99), QbVec3i(1, 2, 0), up, clip, 20,
                                             first, last));
  // A slanted row is cut by both axes; far-off and NaN rows are empty.
  const SbVec3d slant(1, 0.25, 0);
  ASSERT_TRUE(reg_evaluateUniformRowInterval(SbVec3d(-2.25, -1.25, 0), QbVec3i(1, 1, 2), slant,
                                             clip, 40, first, last));
  EXPECT_EQ(first, 4); // x enters after 1.75 steps, y after exactly 3
  EXPECT_EQ(last, 11); // x leaves after 11.75 steps, y after 19
  EXPECT_FALSE(reg_evaluateUniformRowInterval(SbVec3d(1e300, 0, 0), QbVec3i(1, 2, 2), up, clip, 20,
                                              first, last));
  EXPECT_FALSE(reg_evaluateUniformRowInterval(SbVec3d(std::nan(""), 0, 0), QbVec3i(1, 2, 2), up,
                                              clip, 20, first, last));
}

TEST(RegAffineFunctionalUniform, ReferencesAccumulateAndFailuresAreQuiet) {
  Pair s(makeField(QB_INT16, kRefDims, kRefBox), makeField(QB_UINT8, kModelDims, kModelBox));
  s.setSmallAffine();
  auto one = s.uniform(s.newMetric(NMI), 2);
  const double single = one->evaluate();
  // The same reference twice: counts double, the value stays.
  s.refs.append(s.reference.get());
  auto two = s.uniform(s.newMetric(NMI), 2);
  EXPECT_NEAR(two->evaluate(), single, 1e-12);
  EXPECT_EQ(two->metric->numTotal, 2 * one->metric->numTotal);

  // A missing reference ends the evaluation with 0.
  s.refs.append(nullptr);
  auto broken = s.uniform(s.newMetric(NMI), 2);
  EXPECT_EQ(broken->evaluate(), 0.0);
}

TEST(RegAffineFunctionalUniform, NotANumberLiesOutsideTheCorrelationWindows) {
  // A sample counts for the correlation only when both values lie within
  // their limits, which NaN never does: a NaN reference voxel, and model
  // samples that a NaN model voxel reaches, are left out as on the general
  // walk, and the value stays finite.
  Pair s(makeField(QB_FLOAT, kRefDims, kRefBox), makeField(QB_FLOAT, kModelDims, kModelBox));
  s.setSmallAffine();
  float* ref = static_cast<float*>(s.reference->lattice.dataPtr());
  float* model = static_cast<float*>(s.model->lattice.dataPtr());
  ref[5 + 12 * (4 + 10 * 3)] = NAN;
  model[10 + 20 * (9 + 18 * 8)] = NAN;
  for (unsigned threads : {1u, 2u}) {
    auto u = s.uniform(s.newMetric(CORR), threads);
    auto g = s.general(s.newMetric(CORR));
    const double uv = u->evaluate(), gv = g->evaluate();
    EXPECT_TRUE(std::isfinite(uv));
    EXPECT_NEAR(uv, gv, 1e-6 * std::fabs(gv));
    EXPECT_EQ(u->metric->numInside, g->metric->numInside);
    // The reference voxel and the up to 8 neighbours of the model voxel.
    EXPECT_LE(u->metric->numInside, 12 * 10 * 9 - 2);
    EXPECT_GE(u->metric->numInside, 12 * 10 * 9 - 9);
  }
}
