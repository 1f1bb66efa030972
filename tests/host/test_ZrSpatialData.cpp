// Spatial data: transforms set, read back, inverted, copied and dropped; the
// transform node's decomposition; boxes; landmark and vertex sets.
#include "SbRotationd.h"
#include "ZrLandmarkSet.h"
#include "ZrUniformScalarField3.h"
#include "ZrVertexSet.h"

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

TEST(ZrSpatialData, NodeCreationCopyAndDuplicate) {
  ZrUniformScalarField3 a(kDims, 0, kBox);
  ZrUniformScalarField3 b(kDims, 0, kBox);
  EXPECT_EQ(a.getTransform(false), nullptr);
  ZrTransformNode* node = a.getTransform(true);
  ASSERT_NE(node, nullptr);
  EXPECT_TRUE(node->getMatrix().isIdentity());
  EXPECT_EQ(a.getTransform(false), node);

  a.setTransform(someAffine());
  b.copyTransform(a);
  SbMatrixd mb;
  b.getTransform(mb);
  EXPECT_EQ(mb, someAffine());
  EXPECT_NE(b.getTransformNode(), a.getTransformNode());

  // Copying an object without a transform removes the transform.
  ZrUniformScalarField3 c(kDims, 0, kBox);
  b.copyTransform(c);
  EXPECT_EQ(b.getTransformNode(), nullptr);

  // A duplicate's node is its own: changing one leaves the other.
  std::unique_ptr<ZrObject> d(a.duplicate());
  auto* dup = static_cast<ZrUniformScalarField3*>(d.get());
  SbMatrixd t;
  t.setTranslate(SbVec3d(9, 9, 9));
  dup->setTransform(t);
  SbMatrixd ma;
  a.getTransform(ma);
  EXPECT_EQ(ma, someAffine());
}

TEST(ZrPointSets, MarkersSetsBoxesAndDuplicates) {
  ZrLandmarkSet s(2);
  const QbVec3f pair[2] = {QbVec3f(1, 2, 3), QbVec3f(-1, 0, 5)};
  s.appendLandmark(pair, 2);
  s.appendLandmark(QbVec3f(4, 4, 4)); // one position for all sets
  ASSERT_EQ(s.getNumMarkers(), 2);
  EXPECT_EQ(s.getPosition(0, 1), QbVec3f(-1, 0, 5));
  EXPECT_EQ(s.getPosition(1, 1), QbVec3f(4, 4, 4));
  EXPECT_EQ(s.getBoundingBox(), QbBox3f(-1, 4, 0, 4, 3, 5));
  // New sets copy set 0; fewer sets drop the last; at least one remains.
  s.setNumSets(3);
  EXPECT_EQ(s.getPosition(0, 2), QbVec3f(1, 2, 3));
  s.setNumSets(0);
  EXPECT_EQ(s.getNumSets(), 1);
  s.setNumMarkers(4);
  EXPECT_EQ(s.getPosition(3), QbVec3f(0, 0, 0));
  s.setPosition(QbVec3f(7, 8, 9), 3);
  std::unique_ptr<ZrObject> d(s.duplicate());
  s.setPosition(QbVec3f(0, 0, 0), 3);
  EXPECT_EQ(static_cast<ZrLandmarkSet*>(d.get())->getPosition(3), QbVec3f(7, 8, 9));

  ZrVertexSet v;
  EXPECT_EQ(v.getBoundingBox(), QbBox3f(0, 0, 0, 0, 0, 0)); // empty: a point at the origin
  v.appendPoint(QbVec3f(1, -1, 2));
  v.appendPoint(QbVec3f(-3, 5, 0));
  v.triangles.append(0);
  EXPECT_EQ(v.getBoundingBox(), QbBox3f(-3, 1, -1, 5, 0, 2));
  SbMatrixd m;
  m.setScale(2.0);
  v.setTransform(m);
  std::unique_ptr<ZrObject> dv(v.duplicate());
  auto* dup = static_cast<ZrVertexSet*>(dv.get());
  v.getCoords()[1] = QbVec3f(0, 0, 0);
  EXPECT_EQ(dup->getCoords()[1], QbVec3f(-3, 5, 0));
  EXPECT_EQ(dup->triangles.size(), 1);
  SbMatrixd md;
  dup->getTransform(md);
  EXPECT_EQ(md, m);
}
