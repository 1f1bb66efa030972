// Control-lattice bookkeeping of the spline base: parameter flags, the model
// bracket and the vector-field form.
#include "SplineTestSupport.h"
#include "ZrRegVectorField3.h"
#include <gtest/gtest.h>

namespace {

ZrLandmarkSet* modelWith(const SbMatrix& m) {
  ZrLandmarkSet* s = new ZrLandmarkSet(1);
  s->setTransform(m);
  return s;
}

RegVoxelCubicSplineTransform* lattice(int dim, int n) {
  RegVoxelCubicSplineTransform* t = new RegVoxelCubicSplineTransform(dim, false);
  t->setControlGridSize(n, n, dim == 3 ? n : 1);
  for (int i = 0; i < t->paramVector.size(); i++)
    t->paramVector[i] = 0.37 * i - 3.1 + 1e-9 * i * i;
  return t;
}

} // namespace

TEST(RegSplineTransform, ParameterFlags) {
  std::unique_ptr<RegVoxelCubicSplineTransform> t(lattice(3, 5));
  t->setControlGridSize(5, 6, 7);

  // Disabling through any parameter index freezes all three of the point.
  t->setControlPointInactive(7);
  for (int i = 0; i < 12; i++)
    EXPECT_EQ(t->getParamStep(i, nullptr), (i >= 6 && i <= 8) ? 0.0 : 1.0) << i;
  EXPECT_EQ(t->getVariableParamVectorDim(), t->getParamVectorDim());
  // A new grid size reactivates everything.
  t->setControlGridSize(4, 4, 4);
  EXPECT_EQ(t->getParamStep(7, nullptr), 1.0);

  std::unique_ptr<RegVoxelCubicSplineTransform> t2(lattice(2, 5));
  for (int i = 0; i < t2->getParamVectorDim(); i++)
    EXPECT_EQ(t2->getParamStep(i, nullptr), (i + 1) % 3 == 0 ? 0.0 : 1.0);
}

TEST(RegSplineTransform, ModelBracketRoundTripIsBitExact) {
  // Any entry off the identity, however small, marks the model transformed; a
  // model without a transform node leaves the mark as it was.
  std::unique_ptr<RegVoxelCubicSplineTransform> f(lattice(3, 4));
  std::unique_ptr<ZrLandmarkSet> plain(new ZrLandmarkSet(1)), ident(modelWith(SbMatrix()));
  f->setModel(ident.get());
  EXPECT_FALSE(f->modelTransformed);
  SbMatrix tinyShear;
  tinyShear[1][2] = 1e-30f;
  std::unique_ptr<ZrLandmarkSet> tiny(modelWith(tinyShear));
  f->setModel(tiny.get());
  EXPECT_TRUE(f->modelTransformed);
  f->setModel(plain.get());
  EXPECT_TRUE(f->modelTransformed);
  SbMatrix affine(0.9f, 0.1f, -0.2f, 0, -0.05f, 1.1f, 0.3f, 0, 0.2f, -0.1f, 0.8f, 0, 5.5f, -3.25f,
                  7.0f, 1);
  SbMatrix projective = affine;
  projective[0][3] = 0.01f;
  projective[3][3] = 1.3f;
  SbMatrix singular(1, 2, 3, 0, 2, 4, 6, 0, 0, 0, 0, 0, 1, 1, 1, 1);
  for (const SbMatrix& m : {affine, projective, singular})
    for (int dim : {2, 3}) {
      std::unique_ptr<RegVoxelCubicSplineTransform> t(lattice(dim, 5));
      std::unique_ptr<ZrLandmarkSet> model(modelWith(m));
      t->setModel(model.get());
      EXPECT_TRUE(t->modelTransformed);
      const QbDVector<double> before = t->paramVector;
      t->applyModelTransformInv();
      EXPECT_TRUE(t->modelInverseApplied);
      EXPECT_NE(t->paramVector, before);
      if (dim == 2) {
        for (int i = 2; i < before.size(); i += 3)
          EXPECT_EQ(t->paramVector[i], before[i]); // z stays in world coordinates
      }
      t->applyModelTransform();
      EXPECT_FALSE(t->modelInverseApplied);
      EXPECT_TRUE(t->paramVector == before);
    }
}

TEST(RegSplineTransform, ForwardMapWithoutInverseIncludesZ) {
  SbMatrix m;
  m.setTranslate(SbVec3f(1, 2, 3));
  m[0][0] = 2;
  std::unique_ptr<RegVoxelCubicSplineTransform> t(lattice(2, 4));
  std::unique_ptr<ZrLandmarkSet> model(modelWith(m));
  t->setModel(model.get());
  QbDVector<double> v(6);
  for (int i = 0; i < 6; i++)
    v[i] = i + 0.5;
  t->applyModelTransform(v);
  EXPECT_DOUBLE_EQ(v[0], 2 * 0.5 + 1);
  EXPECT_DOUBLE_EQ(v[1], 1.5 + 2);
  EXPECT_DOUBLE_EQ(v[2], 2.5 + 3);
  EXPECT_DOUBLE_EQ(v[3], 2 * 3.5 + 1);
  // The inverse mapped in 3-D: inverse of scale x 2 and translation.
  std::unique_ptr<RegVoxelCubicSplineTransform> t3(lattice(3, 4));
  t3->setModel(model.get());
  QbDVector<double> w = v;
  t3->applyModelTransformInv(w);
  EXPECT_NEAR(w[0], 0.5, 1e-6);
  EXPECT_NEAR(w[2], 2.5, 1e-6);
}
