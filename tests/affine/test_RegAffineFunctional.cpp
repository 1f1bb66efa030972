// The general affine functional with the squared-difference metric, on
// synthetic volumes with a known shift: the value, the overlap bookkeeping,
// the central-difference gradient, and the evaluator holder.
#include "QbPrimType.h"
#include "RegAffineFunctional.h"
#include "RegAffineTransform.h"
#include "RegMeanSquaredDifference.h"
#include "RegOptimizerCallback.h"
#include "SbMatrix.h"
#include "ZrUniformScalarField3.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace {

const int N = 24;
const float kBox[6] = {0, N - 1, 0, N - 1, 0, N - 1}; // voxel size 1

// A smooth blob, anisotropic so that every axis has its own profile.
double blob(double x, double y, double z) {
  const double dx = x - 11.3, dy = y - 12.1, dz = z - 10.7;
  return 100.0 * std::exp(-(dx * dx / 30.0 + dy * dy / 20.0 + dz * dz / 40.0));
}

// A float field over `box` with dims n^3 holding blob(p + shift).
std::unique_ptr<ZrUniformScalarField3> makeBlob(const int dims[3], const float box[6],
                                                double sx = 0, double sy = 0, double sz = 0) {
  auto f = std::make_unique<ZrUniformScalarField3>(dims, QB_FLOAT, box);
  float* data = static_cast<float*>(f->lattice.dataPtr());
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++) {
        float p[3];
        f->lattice.coords()->pos(i, j, k, p);
        data[(size_t(k) * dims[1] + j) * dims[0] + i] =
            (float)blob(p[0] + sx, p[1] + sy, p[2] + sz);
      }
  return f;
}

class Callback : public RegOptimizerCallback {
public:
  bool applyTransform(RegParametricTransform*) override { return false; }
  bool checkForInterrupt() override { return false; }
  void trace(const char*) override {}
};

// Reference: the blob on the grid. Model: the blob displaced by `shift`, so
// that translating the model by `shift` aligns the two exactly.
class AffineFunctionalTest : public ::testing::Test {
protected:
  void SetUp() override {
    const int dims[3] = {N, N, N};
    reference = makeBlob(dims, kBox);
    model = makeBlob(dims, kBox, shift[0], shift[1], shift[2]);
    refs.append(reference.get());
    models.append(model.get());
    transform = std::make_unique<RegAffineTransform>(refs, model.get(), 12);
  }
  std::unique_ptr<RegAffineFunctional>
  makeFunctional(int clip = 0, int flatAxis = 3, RegInterpolator ip = RegInterpolatorStandard) {
    return std::make_unique<RegAffineFunctional>(refs, models, ip, transform.get(),
                                                 new RegMeanSquaredDifference(1.0), &callback, clip,
                                                 flatAxis);
  }
  void setTranslation(double x, double y, double z) {
    transform->paramVector[0] = x;
    transform->paramVector[1] = y;
    transform->paramVector[2] = z;
  }

  const double shift[3] = {2, -3, 1};
  std::unique_ptr<ZrUniformScalarField3> reference, model;
  QbDArray<ZrSpatialData*> refs, models;
  std::unique_ptr<RegAffineTransform> transform;
  Callback callback;
};

} // namespace

TEST_F(AffineFunctionalTest, ValueIsBestAtTheTrueShift) {
  auto f = makeFunctional();
  EXPECT_EQ(f->size, QbVec3f(N - 1, N - 1, N - 1));

  setTranslation(shift[0], shift[1], shift[2]);
  const double best = f->evaluate();
  // Every sample inside lands on a model voxel with the reference's value.
  EXPECT_NEAR(best, 0.0, 1e-9);
  // The part of the reference that maps into the model, faces included.
  EXPECT_EQ(f->metric->numTotal, N * N * N);
  EXPECT_EQ(f->metric->numInside, (N - 2) * (N - 3) * (N - 1));

  // The model object carries the evaluated transform.
  SbMatrix m;
  model->getTransform(m);
  EXPECT_FLOAT_EQ(m[3][0], 2.0f);
  EXPECT_FLOAT_EQ(m[3][1], -3.0f);
  EXPECT_FLOAT_EQ(m[3][2], 1.0f);

  // Any displacement from there is worse, and more so further away.
  for (int axis = 0; axis < 3; axis++)
    for (double d : {-0.5, 0.5}) {
      setTranslation(shift[0], shift[1], shift[2]);
      transform->paramVector[axis] += d;
      const double near = f->evaluate();
      transform->paramVector[axis] += d;
      const double far = f->evaluate();
      EXPECT_LT(near, best - 1e-3) << axis << " " << d;
      EXPECT_LT(far, near) << axis << " " << d;
    }
  // A small rotation is worse too.
  setTranslation(shift[0], shift[1], shift[2]);
  transform->paramVector[5] = 3.0;
  EXPECT_LT(f->evaluate(), best - 1e-3);
}

TEST_F(AffineFunctionalTest, AModelOutsideCountsNoSample) {
  auto f = makeFunctional();
  setTranslation(1000, 0, 0);
  EXPECT_EQ(f->evaluate(), -1000.0);
  EXPECT_EQ(f->metric->numTotal, N * N * N);
  EXPECT_EQ(f->metric->numInside, 0);
}

TEST_F(AffineFunctionalTest, SmallOverlapIsWeighted) {
  auto f = makeFunctional();
  // Moved by 21 voxels in x: 3 of 24 columns overlap, and of those only part
  // in y and z, about 10% in all. The value is the mean over the overlap
  // divided by 5 times that fraction.
  setTranslation(21, shift[1], shift[2]);
  const double value = f->evaluate();
  RegMeanSquaredDifference* msd = static_cast<RegMeanSquaredDifference*>(f->metric);
  ASSERT_GT(msd->numInside, 0);
  const double fraction = double(msd->numInside) / double(msd->numTotal);
  EXPECT_LT(fraction, 0.2);
  EXPECT_NEAR(value, msd->sum / msd->numInside / (fraction * 5.0), 1e-9 * std::fabs(value));
}

TEST_F(AffineFunctionalTest, ClipEvaluatesNothing) {
  auto f = makeFunctional(1);
  setTranslation(7, 8, 9);
  EXPECT_EQ(f->evaluate(), 0.0);
  // The transform was still composed and applied.
  SbMatrix m;
  model->getTransform(m);
  EXPECT_FLOAT_EQ(m[3][0], 7.0f);
  EXPECT_FLOAT_EQ(m[3][2], 9.0f);
}

TEST_F(AffineFunctionalTest, GradientIsTheRawCentralDifference) {
  auto f = makeFunctional();
  // Off the optimum by +0.6 in x and -0.4 in z.
  setTranslation(shift[0] + 0.6, shift[1], shift[2] - 0.4);
  const std::vector<double> start(transform->paramVector.data(),
                                  transform->paramVector.data() + 15);
  const double step = 0.2;
  QbDVector<double> gradient(15);
  const double f0 = f->evaluate(gradient, step, 1);
  // The parameters are back where they were, and f0 is the unshifted value.
  for (int i = 0; i < 15; i++)
    EXPECT_EQ(transform->paramVector[i], start[i]) << i;
  EXPECT_EQ(f0, f->evaluate());

  // Moving towards the optimum raises the value: x must fall, z must rise.
  EXPECT_LT(gradient[0], 0.0);
  EXPECT_GT(gradient[2], 0.0);
  // Magnitude: the value is about -c * d^2 near the optimum, so the raw
  // difference for an offset d is about -c * ((d + step)^2 - (d - step)^2) =
  // -4 c d step, with c taken from the values at two offsets.
  setTranslation(shift[0], shift[1], shift[2]);
  const double atOptimum = f->evaluate();
  setTranslation(shift[0] + 0.6, shift[1], shift[2]);
  const double c = -(f->evaluate() - atOptimum) / (0.6 * 0.6);
  EXPECT_NEAR(gradient[0], -4.0 * c * 0.6 * step, 0.15 * std::fabs(gradient[0]));
}

TEST_F(AffineFunctionalTest, FlatAxisHoldsItsParameters) {
  const int held[5][6] = {{0, 4, 5, 6, 9, 10},
                          {1, 3, 5, 7, 9, 11},
                          {2, 3, 4, 8, 10, 11},
                          {-1, -1, -1, -1, -1, -1},
                          {3, 4, 8, 10, 11, -1}};
  for (int axis = 0; axis < 5; axis++) {
    auto f = makeFunctional(0, axis);
    setTranslation(shift[0] + 0.6, shift[1] + 0.5, shift[2] - 0.4);
    transform->paramVector[3] = 2.0;
    transform->paramVector[4] = -2.0;
    transform->paramVector[5] = 1.5;
    QbDVector<double> gradient(15);
    f->evaluate(gradient, 0.2, 1);
    for (int i = 0; i < 12; i++) {
      bool isHeld = false;
      for (int h : held[axis])
        isHeld = isHeld || h == i;
      EXPECT_EQ(RegAffineFunctional::isHeldParameter(axis, i), isHeld);
      if (isHeld) {
        EXPECT_EQ(gradient[i], 0.0) << axis << " " << i;
      } else {
        EXPECT_NE(gradient[i], 0.0) << axis << " " << i;
      }
    }
  }
}

TEST_F(AffineFunctionalTest, NearestNeighbourReadsWholeVoxels) {
  // Off the voxel grid by 0.3 in x: nearest-neighbour sampling still reads
  // the matching voxels exactly, standard interpolation blends them.
  setTranslation(shift[0] + 0.3, shift[1], shift[2]);
  auto nearest = makeFunctional(0, 3, RegInterpolatorNearest);
  EXPECT_NEAR(nearest->evaluate(), 0.0, 1e-9);
  auto standard = makeFunctional(0, 3, RegInterpolatorStandard);
  EXPECT_LT(standard->evaluate(), -1e-3);
}
