// Spatial data: transforms set, read back, inverted, copied and dropped; the
// transform node's decomposition.
#include "SbRotationd.h"
#include "ZrUniformScalarField3.h"

#include <gtest/gtest.h>
#include <memory>

namespace {
// A general affine matrix: rotation, anisotropic scale, shear, translation.
SbMatrixd someAffine() {
  SbMatrixd m;
  m.setTransform(SbVec3d(1.5, -2.25, 3.0), SbRotationd(SbVec3d(1, 2, 3), 0.7),
                 SbVec3d(1.2, 0.8, 2.5), SbRotationd(SbVec3d(0, 1, 1), 0.3),
                 SbVec3d(0.5, 0.5, 0.5));
  return m;
}

const int kDims[3] = {3, 3, 3};
const float kBox[6] = {-1, 1, 0, 4, 2, 3};
} // namespace

TEST(ZrSpatialData, TransformRoundTripsExactly) {
  ZrUniformScalarField3 f(kDims, 0, kBox);
  EXPECT_EQ(f.getTransformNode(), nullptr);
  SbMatrixd id;
  f.getTransform(id);
  EXPECT_TRUE(id.isIdentity());

  const SbMatrixd m = someAffine();
  f.setTransform(m);
  ASSERT_NE(f.getTransformNode(), nullptr);
  SbMatrixd back;
  f.getTransform(back);
  EXPECT_EQ(back, m); // kept as set, not recomposed

  // The single-precision view is the narrowed matrix; setting it widens.
  SbMatrix mf;
  f.getTransform(mf);
  EXPECT_EQ(mf, SbMatrix(m));
  f.setTransform(mf);
  f.getTransform(back);
  EXPECT_EQ(back, SbMatrixd(mf));

  // Inverse times matrix is the identity.
  f.setTransform(m);
  SbMatrixd inv;
  f.getInverseTransform(inv);
  EXPECT_TRUE((m * inv).equals(SbMatrixd::identity(), 1e-12));

  f.removeTransform();
  EXPECT_EQ(f.getTransformNode(), nullptr);
  f.getInverseTransform(inv);
  EXPECT_TRUE(inv.isIdentity());
}
