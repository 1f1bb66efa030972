// Lattices, coordinates and the field classes: value access with rounding and
// clamping, interleaved components, node positions, resizing, deep copies and
// the vector-field factory.
#include "QbPrimType.h"
#include "ZrCurvilinearCoord3.h"
#include "ZrRegVectorField3.h"
#include "ZrStackedLabelField3.h"
#include "ZrUniformLabelField3.h"
#include "qbmalloc.h"

#include <cmath>
#include <cstdint>
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

TEST(ZrLattice3, ComponentsRangeResizeAndCopy) {
  ZrLattice3 lat(kDims, 3, QB_INT16, new ZrUniformCoord3(kDims, kBox));
  EXPECT_EQ(lat.numBytes(), 24u * 3 * 2);
  for (size_t i = 0; i < lat.numNodes(); i++)
    for (int c = 0; c < 3; c++)
      lat.setValue(i, double(int(i) * (c == 1 ? -1 : 1) + 100 * c), c);
  // Components are interleaved: node 2, component 1 sits at value index 7.
  EXPECT_EQ(static_cast<const int16_t*>(lat.dataPtr())[7], 98);
  double lo, hi;
  lat.computeRange(lo, hi, 1);
  EXPECT_EQ(lo, 100.0 - 23.0);
  EXPECT_EQ(hi, 100.0);
  // A copy is deep: data and coordinates are its own.
  ZrLattice3 copy(lat);
  EXPECT_NE(copy.dataPtr(), lat.dataPtr());
  copy.setValue(2, 5.0, 1);
  EXPECT_EQ(lat.getValueAsDouble(2, 1), 98.0);
  EXPECT_EQ(pos(*copy.coords(), 3, 2, 1), QbVec3f(2.0f, 1.5f, 12.0f));
  // Resize: new dims, new type, zeroed data; the box is kept and the spacing
  // follows the new dims.
  const int nd[3] = {2, 2, 5};
  lat.resize(nd, QB_FLOAT);
  EXPECT_EQ(lat.primType(), QB_FLOAT);
  EXPECT_EQ(lat.numNodes(), 20u);
  lat.computeRange(lo, hi, 2);
  EXPECT_EQ(hi, 0.0);
  EXPECT_EQ(pos(*lat.coords(), 1, 1, 4), QbVec3f(2.0f, 1.5f, 12.0f));
  EXPECT_FLOAT_EQ(pos(*lat.coords(), 0, 0, 2).z, 11.0f);
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

TEST(ZrRegVectorField3, CreateChecksArgumentsAndPlacesNodes) {
  const int dims[3] = {3, 2, 2}, zero[3] = {3, 0, 2};
  EXPECT_EQ(ZrRegVectorField3::create(dims, QB_FLOAT, ZR_COORD_STACKED), nullptr);
  EXPECT_EQ(ZrRegVectorField3::create(dims, 4, QB_FLOAT, ZR_COORD_UNIFORM), nullptr);
  EXPECT_EQ(ZrRegVectorField3::create(dims, 0, QB_FLOAT, ZR_COORD_UNIFORM), nullptr);
  EXPECT_EQ(ZrRegVectorField3::create(dims, QB_INT8, ZR_COORD_UNIFORM), nullptr);
  EXPECT_EQ(ZrRegVectorField3::create(zero, QB_FLOAT, ZR_COORD_UNIFORM), nullptr);
  std::unique_ptr<ZrRegVectorField3> u(ZrRegVectorField3::create(dims, QB_FLOAT, ZR_COORD_UNIFORM));
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(u->nDataVar(), 3);
  EXPECT_EQ(u->getBoundingBox(), QbBox3f(0, 2, 0, 1, 0, 1));
  std::unique_ptr<ZrRegVectorField3> c(
      ZrRegVectorField3::create(dims, 2, QB_DOUBLE, ZR_COORD_CURVILINEAR));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->nDataVar(), 2);
  EXPECT_EQ(pos(*c->lattice.coords(), 2, 1, 1), QbVec3f(2.0f, 1.0f, 1.0f));

  // Given data is adopted and used as it is; a duplicate has its own.
  float* data = static_cast<float*>(qbmalloc(3 * 12 * sizeof(float)));
  for (int i = 0; i < 36; i++)
    data[i] = float(i);
  std::unique_ptr<ZrRegVectorField3> d(
      ZrRegVectorField3::create(dims, QB_FLOAT, ZR_COORD_UNIFORM, data));
  ASSERT_NE(d, nullptr);
  EXPECT_EQ(d->floatData(), data);
  std::unique_ptr<ZrObject> copy(d->duplicate());
  auto* dc = dynamic_cast<ZrRegVectorField3*>(copy.get());
  ASSERT_NE(dc, nullptr);
  EXPECT_NE(dc->floatData(), data);
  EXPECT_EQ(dc->lattice.getValueAsFloat(11, 2), 35.0f);
}
