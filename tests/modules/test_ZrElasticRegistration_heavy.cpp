// Whole elastic registrations driven through the module's ports, as a script
// would, against known smooth deformations.
#include "ElasticTestSupport.h"
#include "RegVoxelCubicSplineTransform.h"
#include "ZrElasticRegistration.h"
#include "ZrLandmarkSet.h"
#include "ZrMessage.h"
#include "ZrRegVectorField3.h"

#include "SbMatrix.h"
#include "SbRotationd.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <string>
#include <vector>

using namespace elastic_test;

namespace {

struct Outcome {
  double ssdBefore = 0, ssdAfter = 0;
  // Mean distance of the transformed positions from p + u(p) over the
  // object, in voxels.
  double meanError = 0;
  ZrElasticRegistration* module = nullptr;
};

class ElasticRunTest : public ::testing::Test {
protected:
  void SetUp() override {
    oldSink = ZrMessage::getTheMsg()->setSink([this](const std::string& t) { messages += t; });
  }
  void TearDown() override {
    ZrMessage::getTheMsg()->setSink(oldSink);
    ZrObjectPool::getTheObjectPool()->clear();
  }

  // Registers model to reference through the ports; `configure` sets ports
  // after the inputs are connected.
  Outcome run(ZrRegScalarField3* reference, ZrRegScalarField3* model, const Deformation& u,
              double spacing, const std::function<void(ZrElasticRegistration*)>& configure,
              double zShift = 0.0) {
    Outcome o;
    ZrElasticRegistration* m = new ZrElasticRegistration;
    o.module = m;
    addToPool(m, "ElasticRegistration");
    addToPool(reference, "reference");
    addToPool(model, "model");
    EXPECT_TRUE(m->portReference.connect(reference));
    EXPECT_TRUE(m->portData.connect(model));
    m->fire(1);
    if (configure) {
      configure(m);
      m->fire(1);
    }
    EXPECT_TRUE(m->portAction.hit(0));
    m->fire(1);
    ZrRegScalarField3* warp = dynamic_cast<ZrRegScalarField3*>(m->getResult(0));
    EXPECT_NE(warp, nullptr);
    if (!warp)
      return o;
    EXPECT_TRUE(m->portResult.hit(1)); // "Vector field"
    m->fire(1);
    ZrRegVectorField3* field = dynamic_cast<ZrRegVectorField3*>(m->getResult(1));
    EXPECT_NE(field, nullptr);

    const int* d = reference->getDims();
    // The object: the blobs, two voxels or more inside the lattice (nearer to
    // a face a transformed position may leave the model, which then reads 0).
    auto inside = [&](int i, int j, int k) {
      const int idx[3] = {i, j, k};
      for (int a = 0; a < 3; a++)
        if (d[a] > 1 && (idx[a] < 2 || idx[a] > d[a] - 3))
          return false;
      return blobImage(i * spacing, j * spacing, k * spacing + zShift) > 70.0;
    };
    // (A model on another lattice than the reference has no voxelwise
    // difference before the run.)
    const int* md = model->getDims();
    if (md[0] == d[0] && md[1] == d[1] && md[2] == d[2])
      o.ssdBefore = squaredDifference(*model, *reference, inside);
    o.ssdAfter = squaredDifference(*warp, *reference, inside);
    double sum = 0;
    long count = 0;
    size_t n = 0;
    for (int k = 0; k < d[2]; k++)
      for (int j = 0; j < d[1]; j++)
        for (int i = 0; i < d[0]; i++, n++) {
          if (!field || !inside(i, j, k))
            continue;
          const double p[3] = {i * spacing, j * spacing, k * spacing};
          double want[3];
          u(p, want);
          float q[3];
          field->lattice.coords()->pos(i, j, k, q);
          double e = 0;
          for (int c = 0; c < 3; c++)
            e += (q[c] - p[c] - want[c]) * (q[c] - p[c] - want[c]);
          sum += std::sqrt(e);
          count++;
        }
    o.meanError = count ? sum / count / spacing : 0.0;
    std::printf("ssd %.4g -> %.4g (%.1f %%), mean position error %.3f voxels\n", o.ssdBefore,
                o.ssdAfter, 100.0 * o.ssdAfter / o.ssdBefore, o.meanError);
    return o;
  }

  ZrMessage::Sink oldSink;
  std::string messages;
};

Deformation deformationFor(const int dims[3], double spacing) {
  Deformation u;
  for (int a = 0; a < 3; a++)
    u.extent[a] = (dims[a] - 1) * spacing;
  return u;
}

// Two pyramid levels of which the coarser is optimised.
void twoLevels(ZrElasticRegistration* m) {
  for (int a = 0; a < 3; a++)
    m->portCoarsestResolution.setValue(a, 2);
}

} // namespace

TEST_F(ElasticRunTest, DefaultsRecoverKnownDeformation) {
  // 8-bit data of a modest range, so that the default histogram is small.
  // Apart from the coarsest factors (48 voxels would give one level, which
  // "Ignore finest resolution" leaves out) everything is as the module sets
  // it: normalized mutual information, line search, 4 control points
  // refined 3 times.
  const int dims[3] = {48, 48, 36};
  const double spacing = 2.0 / 3.0;
  const Deformation u = deformationFor(dims, spacing);
  Outcome o = run(makeReference(dims, u, QB_UINT8, spacing, 0.33),
                  makeModel(dims, QB_UINT8, spacing, 0.33), u, spacing, twoLevels);
  EXPECT_EQ(o.module->portMetric.getIndex(0), 0);
  EXPECT_EQ(o.module->portOptimizer.getIndex(0), 4);
  EXPECT_LT(o.ssdAfter, 0.1 * o.ssdBefore);
  EXPECT_LT(o.meanError, 0.5);
  EXPECT_EQ(o.module->gridSize[0], 11);
  EXPECT_EQ(o.module->splineTransform->gridSize[2], 11);
  EXPECT_NE(messages.find("elapsed time:"), std::string::npos);
}

TEST_F(ElasticRunTest, AnalyticGradientReachesTheAccuracyOfFiniteDifferences) {
  // Normalised mutual information, registered once by each gradient: the
  // analytic one (with its own search on every level and the finest level on
  // a sub-lattice) must do as well; and by it the flat pair with both penalties.
  const int dims[3] = {32, 32, 24};
  const Deformation u = deformationFor(dims, 1.0);
  double error[2];
  for (int gradient = 0; gradient < 2; gradient++) {
    SCOPED_TRACE(testing::Message() << "gradient " << gradient);
    Outcome o = run(makeReference(dims, u), makeModel(dims), u, 1.0, [&](ZrElasticRegistration* m) {
      twoLevels(m);
      m->portHistogramBins.setValue(32);
      m->portGradient.setIndex(0, gradient);
    });
    EXPECT_LT(o.ssdAfter, 0.1 * o.ssdBefore);
    error[gradient] = o.meanError;
    ZrObjectPool::getTheObjectPool()->clear();
  }
  EXPECT_LT(error[1], 0.5);
  EXPECT_LT(error[1], error[0] + 0.05);
  const int flat[3] = {64, 64, 1};
  const Deformation v = deformationFor(flat, 1.0);
  Outcome o = run(
      makeReference(flat, v, QB_FLOAT, 1.0, 1.0, 12.0), makeModel(flat, QB_FLOAT, 1.0, 1.0, 12.0),
      v, 1.0,
      [&](ZrElasticRegistration* m) {
        twoLevels(m);
        m->portHistogramBins.setValue(32);
        m->portRegularization.setValue(0, 0.01f);
        m->portRegularization.setValue(1, 0.01f);
        m->portGradient.setIndex(0, 1);
      },
      12.0);
  EXPECT_EQ(o.module->dimensionMode, 2);
  EXPECT_EQ(o.module->splineTransform->gridSize[2], 1);
  EXPECT_EQ(o.module->splineTransform->gridSize[0], 11);
  EXPECT_LT(o.ssdAfter, 0.1 * o.ssdBefore);
  EXPECT_LT(o.meanError, 0.5);
}

TEST_F(ElasticRunTest, LandmarksChangeTheResult) {
  const int dims[3] = {32, 32, 24};
  const Deformation u = deformationFor(dims, 1.0);
  auto configure = [](ZrElasticRegistration* m) {
    twoLevels(m);
    m->portMetric.setIndex(0, 2);
  };
  Outcome plain = run(makeReference(dims, u), makeModel(dims), u, 1.0, configure);
  const QbDVector<double> withoutLandmarks = plain.module->splineTransform->paramVector;
  ZrObjectPool::getTheObjectPool()->clear();

  // Pairs of the known correspondence: set 1 in the reference, set 0 where
  // the deformation takes it in the model.
  ZrLandmarkSet* lm = new ZrLandmarkSet(2);
  const double at[5][3] = {{11, 13, 11}, {21, 10, 13}, {15, 22, 10}, {20, 20, 16}, {8, 20, 8}};
  for (const auto& p : at) {
    double d[3];
    u(p, d);
    const QbVec3f pos[2] = {
        QbVec3f((float)(p[0] + d[0]), (float)(p[1] + d[1]), (float)(p[2] + d[2])),
        QbVec3f((float)p[0], (float)p[1], (float)p[2])};
    lm->appendLandmark(pos, 2);
  }
  addToPool(lm, "landmarks");
  Outcome o = run(makeReference(dims, u), makeModel(dims), u, 1.0, [&](ZrElasticRegistration* m) {
    configure(m);
    ASSERT_TRUE(m->portLandmarks.connect(lm));
    m->fire(1);
    EXPECT_FLOAT_EQ(m->portRegularization.getValue(2), 0.5f);
  });
  ZrElasticRegistration* m = o.module;
  EXPECT_LT(o.meanError, 0.5);
  ASSERT_EQ(m->splineTransform->paramVector.size(), withoutLandmarks.size());
  double change = 0.0;
  for (int i = 0; i < withoutLandmarks.size(); i++)
    change = std::max(change, std::fabs(m->splineTransform->paramVector[i] - withoutLandmarks[i]));
  EXPECT_GT(change, 1e-3) << "the landmark term takes part in the search";

  // The run offers the check (its figures are tested on known lattices).
  EXPECT_TRUE(m->portResult.isSensitive(2));
}

// The plain model resampled under a header of a ~90 degree turn, anisotropic
// scale and shift gives the plain model's deformation: within 0.25 voxel of
// it, both within 0.3 of the truth (probes ignoring the header: 0.65).
TEST_F(ElasticRunTest, HeaderMovedModelGivesTheSameDeformation) {
  const int dims[3] = {32, 32, 24};
  const Deformation u = deformationFor(dims, 1.0);
  SbMatrix header;
  header.setTransform(SbVec3f(2.0f, -3.0f, 1.5f), SbRotationd(SbVec3d(0.3, 0.2, 1), 1.6),
                      SbVec3f(1.15f, 0.9f, 1.05f));
  const SbMatrix inv = header.inverse();
  // The local lattice: unit voxels over the reference box widened by four
  // voxels, seen through the inverse header.
  float lo[3] = {1e30f, 1e30f, 1e30f}, hi[3] = {-1e30f, -1e30f, -1e30f};
  for (int corner = 0; corner < 8; corner++) {
    float w[3];
    for (int a = 0; a < 3; a++)
      w[a] = (corner >> a) & 1 ? (float)(dims[a] - 1) + 4.0f : -4.0f;
    for (int a = 0; a < 3; a++) {
      const float l = w[0] * inv[0][a] + w[1] * inv[1][a] + w[2] * inv[2][a] + inv[3][a];
      lo[a] = std::min(lo[a], std::floor(l));
      hi[a] = std::max(hi[a], std::ceil(l));
    }
  }
  int local[3];
  float box[6];
  for (int a = 0; a < 3; a++) {
    local[a] = (int)(hi[a] - lo[a]) + 1;
    box[2 * a] = lo[a];
    box[2 * a + 1] = hi[a];
  }
  ZrUniformScalarField3* moved = new ZrUniformScalarField3(local, QB_FLOAT, box);
  size_t idx = 0;
  for (int k = 0; k < local[2]; k++)
    for (int j = 0; j < local[1]; j++)
      for (int i = 0; i < local[0]; i++, idx++) {
        const float l[3] = {lo[0] + i, lo[1] + j, lo[2] + k};
        double w[3];
        for (int a = 0; a < 3; a++)
          w[a] = l[0] * header[0][a] + l[1] * header[1][a] + l[2] * header[2][a] + header[3][a];
        moved->lattice.setValue(idx, blobImage(w[0], w[1], w[2]));
      }
  moved->setTransform(header);

  auto configure = [](ZrElasticRegistration* m) {
    twoLevels(m);
    m->portMetric.setIndex(0, 2);
  };
  Outcome plain = run(makeReference(dims, u), makeModel(dims), u, 1.0, configure);
  Outcome shifted = run(makeReference(dims, u), moved, u, 1.0, configure);
  ASSERT_TRUE(shifted.module->splineTransform->modelTransformed);
  EXPECT_LT(plain.meanError, 0.3);
  EXPECT_LT(shifted.meanError, 0.3);
  auto* a = dynamic_cast<ZrRegVectorField3*>(plain.module->getResult(1));
  auto* b = dynamic_cast<ZrRegVectorField3*>(shifted.module->getResult(1));
  ASSERT_TRUE(a && b);
  double sum = 0;
  long count = 0;
  idx = 0;
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++, idx++) {
        if (i < 2 || j < 2 || k < 2 || i > dims[0] - 3 || j > dims[1] - 3 || k > dims[2] - 3 ||
            blobImage(i, j, k) <= 70.0)
          continue;
        float qa[3], qb[3];
        a->lattice.coords()->pos(i, j, k, qa);
        b->lattice.coords()->pos(i, j, k, qb);
        sum += std::sqrt((qa[0] - qb[0]) * (qa[0] - qb[0]) + (qa[1] - qb[1]) * (qa[1] - qb[1]) +
                         (qa[2] - qb[2]) * (qa[2] - qb[2]));
        count++;
      }
  ASSERT_GT(count, 0);
  std::printf("mean distance of the two results %.4f voxels\n", sum / count);
  EXPECT_LT(sum / count, 0.25);
}
