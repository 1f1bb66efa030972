// The affine transform: parameters to matrices and back, the frame of the two
// bounding boxes, the centre and the inverse mirror.
#include "QbPrimType.h"
#include "RegAffineTransform.h"
#include "SbMatrix.h"
#include "ZrUniformScalarField3.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <random>
#include <string>

namespace {

std::unique_ptr<ZrUniformScalarField3> makeField(const float box[6]) {
  const int dims[3] = {4, 5, 6};
  return std::make_unique<ZrUniformScalarField3>(dims, QB_FLOAT, box);
}

double maxDifference(const SbMatrixd& a, const SbMatrixd& b) {
  double d = 0.0;
  for (int i = 0; i < 4; i++)
    for (int j = 0; j < 4; j++)
      d = std::max(d, std::fabs(a[i][j] - b[i][j]));
  return d;
}

// Matrix of a parameter set, composed without any data.
SbMatrixd compose(const double p[15]) {
  RegAffineTransform t;
  for (int i = 0; i < 15; i++)
    t.paramVector[i] = p[i];
  t.composeMatrix();
  return t.matrix;
}

// Random shear-free parameters with |ry| < 90 degrees.
void randomParameters(std::mt19937& rng, double p[15], bool withShear = false) {
  std::uniform_real_distribution<double> t(-20, 20), r(-179, 179), ry(-89, 89), s(0.5, 2.0),
      sh(-0.3, 0.3);
  p[0] = t(rng), p[1] = t(rng), p[2] = t(rng);
  p[3] = r(rng), p[4] = ry(rng), p[5] = r(rng);
  p[6] = s(rng), p[7] = s(rng), p[8] = s(rng);
  p[9] = withShear ? sh(rng) : 0.0;
  p[10] = withShear ? sh(rng) : 0.0;
  p[11] = withShear ? sh(rng) : 0.0;
  p[12] = t(rng), p[13] = t(rng), p[14] = t(rng);
}

const float kReferenceBox[6] = {0, 10, 0, 20, 0, 30};
const float kModelBox[6] = {5, 25, -3, 17, 2, 12}; // origin (5, -3, 2), half size (10, 10, 5)

} // namespace

// Hand-computed matrices (rows are images of the axes, p' = p * M): the
// scales act on rows, the turns compose as Rx * Ry * Rz, the shears act in
// the order z from x, y from z, x from y, and the translation keeps the
// centre fixed. A flipped sign or order in any of these fails here while
// the round trips still pass.
TEST(RegAffineTransform, ComposeMatrixKnownMatrices) {
  const double a = 0.1, b = 0.2, c = 0.3;
  const struct {
    double p[15];
    double m[4][3];
  } cases[] = {
      {{0, 0, 0, 0, 0, 90, 2, 3, 4}, {{0, -2, 0}, {3, 0, 0}, {0, 0, 4}, {0, 0, 0}}},
      {{0, 0, 0, 90}, {{1, 0, 0}, {0, 0, 1}, {0, -1, 0}, {0, 0, 0}}},
      {{0, 0, 0, 0, 90}, {{0, 0, -1}, {0, 1, 0}, {1, 0, 0}, {0, 0, 0}}},
      {{0, 0, 0, 90, 0, 90}, {{0, -1, 0}, {0, 0, 1}, {-1, 0, 0}, {0, 0, 0}}},
      {{0, 0, 0, 0, 0, 0, 1, 1, 1, a, b, c},
       {{1 + a * b * c, a, a * b}, {b * c, 1, b}, {c, 0, 1}, {0, 0, 0}}},
      {{10, 20, 30, 0, 0, 90, 1, 1, 1, 0, 0, 0, 1, 2, 3},
       {{0, -1, 0}, {1, 0, 0}, {0, 0, 1}, {9, 23, 30}}},
  };
  for (const auto& k : cases) {
    double p[15];
    std::copy(k.p, k.p + 15, p);
    for (int i = 6; i < 9; i++)
      p[i] = p[i] == 0 ? 1 : p[i];
    const SbMatrixd m = compose(p);
    for (int r = 0; r < 4; r++)
      for (int col = 0; col < 3; col++)
        EXPECT_NEAR(m[r][col], k.m[r][col], 1e-12)
            << "case " << (&k - cases) << " at " << r << ", " << col;
  }
  // Generic angles: the product of the elementary turns, built here.
  const double rx = 0.3, ry = -0.7, rz = 1.1;
  const double Rx[3][3] = {{1, 0, 0}, {0, cos(rx), sin(rx)}, {0, -sin(rx), cos(rx)}};
  const double Ry[3][3] = {{cos(ry), 0, -sin(ry)}, {0, 1, 0}, {sin(ry), 0, cos(ry)}};
  const double Rz[3][3] = {{cos(rz), -sin(rz), 0}, {sin(rz), cos(rz), 0}, {0, 0, 1}};
  const double deg = 180 / M_PI;
  const double p[15] = {0, 0, 0, rx * deg, ry * deg, rz * deg, 1, 1, 1};
  const SbMatrixd m = compose(p);
  for (int r = 0; r < 3; r++)
    for (int col = 0; col < 3; col++) {
      double v = 0;
      for (int i = 0; i < 3; i++)
        for (int j = 0; j < 3; j++)
          v += Rx[r][i] * Ry[i][j] * Rz[j][col];
      EXPECT_NEAR(m[r][col], v, 1e-12) << r << ", " << col;
    }
}

TEST(RegAffineTransform, ComposeDecomposeRoundTrip) {
  auto reference = makeField(kReferenceBox);
  auto model = makeField(kModelBox);
  // The reference frame must not matter for `matrix`.
  SbMatrixd R = compose(std::array<double, 15>{3, -4, 5, 10, 20, 30, 1, 1, 1}.data());
  reference->setTransform(SbMatrix(R));
  QbDArray<ZrSpatialData*> refs;
  refs.append(reference.get());
  RegAffineTransform t(refs, model.get(), 12);

  std::mt19937 rng(11);
  for (int n = 0; n < 50; n++) {
    double p[15];
    randomParameters(rng, p);
    // The decomposition puts the centre at the middle of the model box.
    p[12] = 10, p[13] = 10, p[14] = 5;
    for (int i = 0; i < 15; i++)
      t.paramVector[i] = p[i];
    t.composeMatrix();
    const SbMatrixd composed = t.matrix;
    t.paramVector.fill(99.0);
    ASSERT_EQ(t.decomposeMatrix(), 1);
    for (int i = 0; i < 15; i++)
      EXPECT_NEAR(t.paramVector[i], p[i], 1e-8) << "set " << n << " param " << i;
    EXPECT_DOUBLE_EQ(t.lastScaleX, p[6]);
    t.composeMatrix();
    EXPECT_LT(maxDifference(t.matrix, composed), 1e-10);
  }
}

TEST(RegAffineTransform, InitReadsTheDataAndApplyWritesItBack) {
  auto reference = makeField(kReferenceBox);
  auto model = makeField(kModelBox);
  SbMatrixd R = compose(std::array<double, 15>{1, 2, 3, -15, 25, 40, 1, 1, 1}.data());
  SbMatrixd M0 = compose(std::array<double, 15>{-7, 3, 12, 30, -20, 75, 1.2, 0.8, 1.5}.data());
  reference->setTransform(SbMatrix(R));
  model->setTransform(SbMatrix(M0));
  QbDArray<ZrSpatialData*> refs;
  refs.append(reference.get());
  RegAffineTransform t(refs, model.get(), 12);
  EXPECT_EQ(t.dof, 12);

  SbMatrix M0f(M0);
  SbMatrixd M0fd;
  M0fd.setValue(M0f);
  EXPECT_LT(maxDifference(t.modelMatrix, M0fd), 1e-12);
  // Centre at the middle of the model box.
  EXPECT_DOUBLE_EQ(t.paramVector[12], 10.0);
  EXPECT_DOUBLE_EQ(t.paramVector[13], 10.0);
  EXPECT_DOUBLE_EQ(t.paramVector[14], 5.0);
  // The scales of the model matrix survive the change of frame.
  EXPECT_NEAR(t.paramVector[6], 1.2, 1e-6);
  EXPECT_NEAR(t.paramVector[7], 0.8, 1e-6);
  EXPECT_NEAR(t.paramVector[8], 1.5, 1e-6);

  // Composing the parameters read gives the model its matrix back.
  t.apply();
  SbMatrix after;
  model->getTransform(after);
  SbMatrixd afterd;
  afterd.setValue(after);
  EXPECT_LT(maxDifference(afterd, M0fd), 1e-4);

  // A model-local point goes through the box frames: relative to the model
  // origin (5, -3, 2), through `matrix`, to the reference origin (0, 0, 0),
  // then through R.
  SbVec3d p(3, 4, 5), viaModel, local, world;
  t.modelMatrix.multVecMatrix(p, viaModel);
  t.matrix.multVecMatrix(SbVec3d(p.x - 5, p.y + 3, p.z - 2), local);
  SbMatrixd Rf;
  Rf.setValue(SbMatrix(R));
  Rf.multVecMatrix(local, world);
  EXPECT_NEAR(viaModel.x, world.x, 1e-9);
  EXPECT_NEAR(viaModel.y, world.y, 1e-9);
  EXPECT_NEAR(viaModel.z, world.z, 1e-9);
}

TEST(RegAffineTransform, NinetyDegreesAboutY) {
  // Gimbal lock: the turn about z is folded into the turn about x.
  const double p[15] = {1, 2, 3, 30, 90, 20, 1.5, 2.0, 0.5, 0, 0, 0, 0, 0, 0};
  RegAffineTransform t;
  for (int i = 0; i < 15; i++)
    t.paramVector[i] = p[i];
  t.composeMatrix();
  const SbMatrixd composed = t.matrix;
  ASSERT_EQ(t.decomposeMatrix(), 1);
  EXPECT_EQ(t.paramVector[5], 0.0);
  EXPECT_NEAR(t.paramVector[4], 90.0, 1e-9);
  EXPECT_NEAR(t.paramVector[3], 50.0, 1e-9);
  EXPECT_NEAR(t.paramVector[6], 1.5, 1e-12);
  EXPECT_NEAR(t.paramVector[7], 2.0, 1e-12);
  EXPECT_NEAR(t.paramVector[8], 0.5, 1e-12);
  t.composeMatrix();
  EXPECT_LT(maxDifference(t.matrix, composed), 1e-12);
}

TEST(RegAffineTransform, SingularMatrixIsReported) {
  RegAffineTransform t;
  const double p[15] = {1, 2, 3, 10, 20, 30, 2.0, 3.0, 0.0005, 0, 0, 0, 0, 0, 0};
  for (int i = 0; i < 15; i++)
    t.paramVector[i] = p[i];
  t.composeMatrix();
  t.lastScaleX = 123.0;

  testing::internal::CaptureStderr();
  const int ok = t.decomposeMatrix();
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(ok, 0);
  EXPECT_EQ(err, "\nRegAffineTransform::decomposeMatrix encountered singular matrix.");
  // What was found before the short row stays; rotation and centre stay 0.
  EXPECT_NEAR(t.paramVector[0], 1.0, 1e-12);
  EXPECT_NEAR(t.paramVector[6], 2.0, 1e-12);
  EXPECT_NEAR(t.paramVector[7], 3.0, 1e-12);
  EXPECT_NEAR(t.paramVector[8], 0.0005, 1e-12);
  for (int i : {3, 4, 5, 12, 13, 14})
    EXPECT_EQ(t.paramVector[i], 0.0) << i;
  EXPECT_EQ(t.lastScaleX, 123.0);
}

TEST(RegAffineTransform, ChangeCenterKeepsTheMapping) {
  std::mt19937 rng(5);
  for (int n = 0; n < 20; n++) {
    double p[15];
    randomParameters(rng, p, true);
    RegAffineTransform t;
    for (int i = 0; i < 15; i++)
      t.paramVector[i] = p[i];
    t.composeMatrix();
    const SbMatrixd before = t.matrix;
    const double c[3] = {p[0] * 0.5 + 3, -p[1], 17.0};
    t.changeCenter(c);
    EXPECT_EQ(t.paramVector[12], c[0]);
    EXPECT_EQ(t.paramVector[13], c[1]);
    EXPECT_EQ(t.paramVector[14], c[2]);
    for (int i = 3; i < 12; i++)
      EXPECT_EQ(t.paramVector[i], p[i]);
    t.composeMatrix();
    EXPECT_LT(maxDifference(t.matrix, before), 1e-10) << n;
  }
}

TEST(RegAffineTransform, InverseMirrorMapsBack) {
  auto reference = makeField(kReferenceBox);
  auto model = makeField(kModelBox);
  SbMatrixd R = compose(std::array<double, 15>{1, 2, 3, -15, 25, 40, 1, 1, 1}.data());
  reference->setTransform(SbMatrix(R));
  QbDArray<ZrSpatialData*> refs;
  refs.append(reference.get());
  RegAffineTransform t(refs, model.get(), 12);

  // Isotropic scale without shear, so that the mirror's parameters describe
  // its matrix exactly.
  const double p[15] = {4, -6, 2, 20, -35, 60, 1.25, 1.25, 1.25, 0, 0, 0, 10, 10, 5};
  for (int i = 0; i < 15; i++)
    t.paramVector[i] = p[i];
  t.apply();
  RegAffineTransform* inv = t.getInverse();
  ASSERT_NE(inv, nullptr);
  EXPECT_EQ(inv->inverse, nullptr);
  EXPECT_EQ(inv->dof, 12);
  EXPECT_LT(maxDifference(t.matrix * inv->matrix, SbMatrixd()), 1e-12);
  EXPECT_LT(maxDifference(t.modelMatrix * inv->modelMatrix, SbMatrixd()), 1e-12);
  EXPECT_NEAR(inv->paramVector[6], 0.8, 1e-12);
  // The mirror's parameters compose to its matrix.
  RegAffineTransform check;
  for (int i = 0; i < 15; i++)
    check.paramVector[i] = inv->paramVector[i];
  check.composeMatrix();
  EXPECT_LT(maxDifference(check.matrix, inv->matrix), 1e-10);

  // The mirror does not compose: without apply() it keeps the old matrices.
  t.paramVector[0] += 10.0;
  EXPECT_EQ(t.getInverse(), inv);
  EXPECT_LT(maxDifference(t.matrix * inv->matrix, SbMatrixd()), 1e-12);
  t.apply();
  t.setDegreesOfFreedomDirect(6);
  EXPECT_EQ(t.getInverse(), inv);
  EXPECT_EQ(inv->dof, 6);
  EXPECT_LT(maxDifference(t.matrix * inv->matrix, SbMatrixd()), 1e-12);
  EXPECT_LT(maxDifference(t.modelMatrix * inv->modelMatrix, SbMatrixd()), 1e-12);
}
