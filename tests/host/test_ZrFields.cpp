// Lattices, coordinates and the field classes: value access with rounding and
// clamping, node positions and deep copies.
#include "QbPrimType.h"
#include "ZrCurvilinearCoord3.h"
#include "ZrStackedLabelField3.h"
#include "ZrUniformLabelField3.h"

#include <cmath>
#include <gtest/gtest.h>
#include <memory>

namespace {
const int kDims[3] = {4, 3, 2};
const float kBox[6] = {-1.0f, 2.0f, 0.5f, 1.5f, 10.0f, 12.0f};

QbVec3f pos(const ZrCoord3& c, int i, int j, int k) {
  float p[3];
  c.pos(i, j, k, p);
  return QbVec3f(p);
}
} // namespace

TEST(ZrLattice3, SetValueRoundsAndClampsIntegerTypes) {
  struct Case {
    int type;
    double in, expected;
  } cases[] = {{QB_UINT8, 12.4, 12},
               {QB_UINT8, 12.6, 13},
               {QB_UINT8, -3.0, 0},
               {QB_UINT8, 300.0, 255},
               {QB_UINT8, 254.5, 254},
               {QB_INT16, -12.6, -13},
               {QB_INT16, 40000, 32767},
               {QB_INT16, -40000, -32768},
               {QB_UINT16, 70000, 65535},
               {QB_UINT16, -1.0, 0},
               {QB_UINT16, 1.5, 2},
               {QB_INT32, 3e10, 2147483647.0},
               {QB_INT32, -3e10, -2147483648.0},
               {QB_INT32, -7.5, -8},
               {QB_UINT8, NAN, 0},
               {QB_FLOAT, 0.1, double(0.1f)},
               {QB_DOUBLE, 0.1, 0.1}};
  for (const Case& c : cases) {
    ZrLattice3 lat(kDims, 1, c.type, new ZrUniformCoord3(kDims, kBox));
    lat.setValue(5, c.in);
    EXPECT_EQ(lat.getValueAsDouble(5), c.expected) << qbPrimTypeName(c.type) << " " << c.in;
    EXPECT_EQ(lat.getValueAsDouble(4), 0.0); // neighbours untouched, data starts zeroed
    EXPECT_EQ(lat.getValueAsDouble(6), 0.0);
  }
}

TEST(ZrCoord3, UniformStackedAndCurvilinearNodes) {
  const int dims[3] = {11, 1, 3};
  const float box[6] = {0.0f, 1.0f, 5.0f, 7.0f, -2.0f, 2.0f};
  ZrUniformCoord3 u(dims, box);
  EXPECT_EQ(pos(u, 0, 0, 0), QbVec3f(0.0f, 5.0f, -2.0f));
  EXPECT_EQ(pos(u, 10, 0, 2), QbVec3f(1.0f, 5.0f, 2.0f)); // exactly on the box
  EXPECT_FLOAT_EQ(pos(u, 3, 0, 1).x, 0.3f);
  float vs[3];
  u.getVoxelSize(vs);
  EXPECT_FLOAT_EQ(vs[0], 0.1f);
  EXPECT_EQ(vs[1], 2.0f); // one node: the box size

  // Slices: resizing spreads them over the old z range.
  const int sd[3] = {3, 2, 4}, snd[3] = {3, 2, 3};
  const float xy[4] = {0.0f, 2.0f, 1.0f, 3.0f}, z[4] = {0.0f, 1.0f, 3.0f, 6.0f};
  ZrStackedCoord3 s(sd, xy, z);
  EXPECT_EQ(pos(s, 1, 1, 2), QbVec3f(1.0f, 3.0f, 3.0f));
  s.resize(snd);
  EXPECT_EQ(s.getZ()[1], 3.0f);
  EXPECT_EQ(s.getZ()[2], 6.0f);

  // Curvilinear: the box of the nodes, a copy of its own, resizing to the
  // index grid.
  const int cd[3] = {2, 2, 1}, cnd[3] = {3, 1, 2};
  const float p[12] = {0, 0, 0, 1, -1, 0, 0, 1, 2, 3, 1, 0.5f};
  ZrCurvilinearCoord3 c(cd, p);
  float b[6];
  c.getBoundingBox(b);
  EXPECT_EQ(QbBox3f(b), QbBox3f(0, 3, -1, 1, 0, 2));
  std::unique_ptr<ZrCoord3> dup(c.duplicate());
  c.getPositions()[0] = 99.0f;
  EXPECT_EQ(pos(*dup, 0, 0, 0).x, 0.0f);
  EXPECT_EQ(pos(*dup, 1, 1, 0), QbVec3f(3.0f, 1.0f, 0.5f));
  c.resize(cnd);
  EXPECT_EQ(pos(c, 2, 0, 1), QbVec3f(2.0f, 0.0f, 1.0f));
}

TEST(ZrFieldClasses, DuplicateIsDeepAndKeepsClassAndTransform) {
  ZrUniformLabelField3 f(kDims, QB_UINT8, kBox);
  f.setName("labels");
  f.lattice.setValue(7, 3.0);
  SbMatrixd m;
  m.setTranslate(SbVec3d(1, 2, 3));
  f.setTransform(m);
  std::unique_ptr<ZrObject> dupObj(f.duplicate());
  auto* dup = dynamic_cast<ZrUniformLabelField3*>(dupObj.get());
  ASSERT_NE(dup, nullptr);
  EXPECT_STREQ(dup->getName(), "labels");
  EXPECT_EQ(dup->getValue(3, 1, 0), 3.0f);
  dup->lattice.setValue(7, 9.0);
  EXPECT_EQ(f.getValue(3, 1, 0), 3.0f);
  SbMatrixd back;
  dup->getTransform(back);
  EXPECT_EQ(back, m);
  EXPECT_NE(dup->getTransformNode(), f.getTransformNode());

  const float z[2] = {0.0f, 4.0f};
  ZrStackedLabelField3 s(kDims, QB_INT16, kBox, z);
  std::unique_ptr<ZrObject> sd(s.duplicate());
  auto* sdup = dynamic_cast<ZrStackedLabelField3*>(sd.get());
  ASSERT_NE(sdup, nullptr);
  EXPECT_EQ(sdup->stackedCoords()->getZ()[1], 4.0f);
  // The host creates the concrete classes by name.
  std::unique_ptr<QbInterfaceOwner> made(
      QbTypeInfo::fromName("ZrUniformLabelField3")->createInstance());
  EXPECT_NE(dynamic_cast<ZrUniformLabelField3*>(made.get()), nullptr);
}
