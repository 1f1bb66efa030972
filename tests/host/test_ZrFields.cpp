// Lattices, coordinates and the field classes: value access with rounding and
// clamping, node positions, resizing, deep copies and the vector-field factory.
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

std::unique_ptr<ZrLattice3> makeLattice(int type, int nVar = 1) {
  return std::make_unique<ZrLattice3>(kDims, nVar, type, new ZrUniformCoord3(kDims, kBox));
}
} // namespace

TEST(ZrLattice3, SetValueRoundsAndClampsIntegerTypes) {
  struct Case {
    int type;
    double in;
    double expected;
  };
  const Case cases[] = {
      {QB_UINT8, 12.4, 12},
      {QB_UINT8, 12.6, 13},
      {QB_UINT8, -3.0, 0},
      {QB_UINT8, 300.0, 255},
      {QB_UINT8, 254.5, 254}, // ties to even
      {QB_INT16, -12.6, -13},
      {QB_INT16, 40000.0, 32767},
      {QB_INT16, -40000.0, -32768},
      {QB_UINT16, 70000.0, 65535},
      {QB_UINT16, -1.0, 0},
      {QB_UINT16, 1.5, 2},
      {QB_INT32, 3e10, 2147483647.0},
      {QB_INT32, -3e10, -2147483648.0},
      {QB_INT32, -7.5, -8},
      {QB_UINT8, NAN, 0},
  };
  for (const Case& c : cases) {
    auto lat = makeLattice(c.type);
    lat->setValue(5, c.in);
    EXPECT_EQ(lat->getValueAsDouble(5), c.expected) << qbPrimTypeName(c.type) << " " << c.in;
    EXPECT_EQ(lat->getValueAsDouble(4), 0.0); // neighbours untouched, data starts zeroed
    EXPECT_EQ(lat->getValueAsDouble(6), 0.0);
  }
  // Float types store as they are (float narrowed).
  auto f = makeLattice(QB_FLOAT);
  f->setValue(0, 0.1);
  EXPECT_EQ(f->getValueAsDouble(0), double(0.1f));
  EXPECT_EQ(f->getValueAsFloat(0), 0.1f);
  auto d = makeLattice(QB_DOUBLE);
  d->setValue(0, 0.1);
  EXPECT_EQ(d->getValueAsDouble(0), 0.1);
}

TEST(ZrLattice3, ComponentsRangeResizeAndCopy) {
  auto lat = makeLattice(QB_INT16, 3);
  EXPECT_EQ(lat->numNodes(), 24u);
  EXPECT_EQ(lat->numBytes(), 24u * 3 * 2);
  for (size_t i = 0; i < lat->numNodes(); i++)
    for (int c = 0; c < 3; c++)
      lat->setValue(i, double(int(i) * (c == 1 ? -1 : 1) + 100 * c), c);
  // Components are interleaved: node 2, component 1 sits at value index 7.
  EXPECT_EQ(static_cast<const int16_t*>(lat->dataPtr())[7], 98);
  double lo, hi;
  lat->computeRange(lo, hi, 0);
  EXPECT_EQ(lo, 0.0);
  EXPECT_EQ(hi, 23.0);
  lat->computeRange(lo, hi, 1);
  EXPECT_EQ(lo, 100.0 - 23.0);
  EXPECT_EQ(hi, 100.0);

  // A copy is deep: data and coordinates are its own.
  ZrLattice3 copy(*lat);
  EXPECT_NE(copy.dataPtr(), lat->dataPtr());
  EXPECT_NE(copy.coords(), lat->coords());
  copy.setValue(2, 5.0, 1);
  EXPECT_EQ(lat->getValueAsDouble(2, 1), 98.0);
  float p[3];
  copy.coords()->pos(3, 2, 1, p);
  EXPECT_EQ(p[0], 2.0f);
  EXPECT_EQ(p[1], 1.5f);
  EXPECT_EQ(p[2], 12.0f);

  // Resize: new dims, new type, zeroed data, coordinates follow.
  const int nd[3] = {2, 2, 5};
  lat->resize(nd, QB_FLOAT);
  EXPECT_EQ(lat->primType(), QB_FLOAT);
  EXPECT_EQ(lat->numNodes(), 20u);
  EXPECT_EQ(lat->coords()->getDims()[2], 5);
  lat->computeRange(lo, hi, 2);
  EXPECT_EQ(lo, 0.0);
  EXPECT_EQ(hi, 0.0);
  lat->coords()->pos(1, 1, 4, p); // box kept, spacing follows the new dims
  EXPECT_EQ(p[0], 2.0f);
  EXPECT_EQ(p[2], 12.0f);
  lat->coords()->pos(0, 0, 2, p);
  EXPECT_FLOAT_EQ(p[2], 11.0f);
}

TEST(ZrCoord3, UniformNodesSpanTheBoxAndVoxelSize) {
  const int dims[3] = {11, 1, 3};
  const float box[6] = {0.0f, 1.0f, 5.0f, 7.0f, -2.0f, 2.0f};
  ZrUniformCoord3 c(dims, box);
  float p[3];
  c.pos(0, 0, 0, p);
  EXPECT_EQ(p[0], 0.0f);
  EXPECT_EQ(p[1], 5.0f);
  EXPECT_EQ(p[2], -2.0f);
  c.pos(10, 0, 2, p);
  EXPECT_EQ(p[0], 1.0f); // the last node lies exactly on the box
  EXPECT_EQ(p[2], 2.0f);
  c.pos(3, 0, 1, p);
  EXPECT_FLOAT_EQ(p[0], 0.3f);
  EXPECT_EQ(p[2], 0.0f);
  float vs[3];
  c.getVoxelSize(vs);
  EXPECT_FLOAT_EQ(vs[0], 0.1f);
  EXPECT_EQ(vs[1], 2.0f); // one node: the box size
  EXPECT_EQ(vs[2], 2.0f);
  float b[6];
  std::unique_ptr<ZrCoord3> dup(c.duplicate());
  dup->getBoundingBox(b);
  for (int a = 0; a < 6; a++)
    EXPECT_EQ(b[a], box[a]);
}

TEST(ZrCoord3, StackedSlicesBoxAndResize) {
  const int dims[3] = {3, 2, 4};
  const float xy[4] = {0.0f, 2.0f, 1.0f, 3.0f};
  const float z[4] = {0.0f, 1.0f, 3.0f, 6.0f};
  ZrStackedCoord3 c(dims, xy, z);
  float p[3];
  c.pos(1, 1, 2, p);
  EXPECT_EQ(p[0], 1.0f);
  EXPECT_EQ(p[1], 3.0f);
  EXPECT_EQ(p[2], 3.0f);
  float b[6];
  c.getBoundingBox(b);
  EXPECT_EQ(b[4], 0.0f);
  EXPECT_EQ(b[5], 6.0f);
  // Resizing spreads the slices over the old z range.
  const int nd[3] = {3, 2, 3};
  c.resize(nd);
  EXPECT_EQ(c.getZ()[0], 0.0f);
  EXPECT_EQ(c.getZ()[1], 3.0f);
  EXPECT_EQ(c.getZ()[2], 6.0f);
  EXPECT_EQ(c.getDims()[2], 3);
}

TEST(ZrCoord3, CurvilinearBoxCopyAndResize) {
  const int dims[3] = {2, 2, 1};
  const float pos[12] = {0, 0, 0, 1, -1, 0, 0, 1, 2, 3, 1, 0.5f};
  ZrCurvilinearCoord3 c(dims, pos);
  float b[6];
  c.getBoundingBox(b);
  const float expected[6] = {0, 3, -1, 1, 0, 2};
  for (int a = 0; a < 6; a++)
    EXPECT_EQ(b[a], expected[a]);
  std::unique_ptr<ZrCoord3> dup(c.duplicate());
  c.getPositions()[0] = 99.0f; // the copy has its own positions
  float p[3];
  dup->pos(0, 0, 0, p);
  EXPECT_EQ(p[0], 0.0f);
  dup->pos(1, 1, 0, p);
  EXPECT_EQ(p[0], 3.0f);
  EXPECT_EQ(p[2], 0.5f);
  const int nd[3] = {3, 1, 2};
  c.resize(nd);
  c.pos(2, 0, 1, p);
  EXPECT_EQ(p[0], 2.0f);
  EXPECT_EQ(p[1], 0.0f);
  EXPECT_EQ(p[2], 1.0f);
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
  EXPECT_NE(dup->lattice.dataPtr(), f.lattice.dataPtr());
  dup->lattice.setValue(7, 9.0);
  EXPECT_EQ(f.getValue(3, 1, 0), 3.0f);
  SbMatrixd back;
  dup->getTransform(back);
  EXPECT_EQ(back, m);
  EXPECT_NE(dup->getTransformNode(), f.getTransformNode());

  const float z[2] = {0.0f, 4.0f};
  ZrStackedLabelField3 s(kDims, QB_INT16, kBox, z);
  std::unique_ptr<ZrObject> sd(s.duplicate());
  ASSERT_NE(dynamic_cast<ZrStackedLabelField3*>(sd.get()), nullptr);
  EXPECT_EQ(static_cast<ZrStackedLabelField3*>(sd.get())->stackedCoords()->getZ()[1], 4.0f);
}

TEST(ZrFieldClasses, LabelInterfaceAndTypeTests) {
  ZrUniformLabelField3 ul(kDims, QB_UINT8, kBox);
  ZrUniformScalarField3 us(kDims, QB_FLOAT, kBox);
  const float z[2] = {0.0f, 1.0f};
  ZrStackedLabelField3 sl(kDims, QB_UINT8, kBox, z);
  const QbTypeInfo* uLabel = ZrUniformLabelField3::getClassTypeId();
  const QbTypeInfo* sLabel = ZrStackedLabelField3::getClassTypeId();
  EXPECT_EQ(ul.getInterface(uLabel), &ul);
  EXPECT_EQ(ul.getInterface(sLabel), nullptr);
  EXPECT_EQ(sl.getInterface(sLabel), &sl);
  EXPECT_EQ(us.getInterface(uLabel), nullptr);
  EXPECT_TRUE(ul.isOfType(ZrUniformScalarField3::getClassTypeId()));
  EXPECT_TRUE(sl.isOfType(ZrStackedScalarField3::getClassTypeId()));
  EXPECT_FALSE(sl.isOfType(ZrUniformScalarField3::getClassTypeId()));
  // The host creates the concrete classes by name.
  std::unique_ptr<QbInterfaceOwner> made(
      QbTypeInfo::fromName("ZrUniformLabelField3")->createInstance());
  EXPECT_NE(dynamic_cast<ZrUniformLabelField3*>(made.get()), nullptr);
  EXPECT_FALSE(ZrRegScalarField3::getClassTypeId()->canCreate());
}

TEST(ZrFieldClasses, ScalarRangeAndNodeValues) {
  ZrUniformScalarField3 f(kDims, QB_FLOAT, kBox);
  for (int k = 0; k < 2; k++)
    for (int j = 0; j < 3; j++)
      for (int i = 0; i < 4; i++)
        f.lattice.setValue(i + 4 * (j + 3 * k), i - 2.0 * j + 10.0 * k);
  EXPECT_EQ(f.getValue(3, 0, 1), 13.0f);
  EXPECT_EQ(f.getValue(0, 2, 0), -4.0f);
  float lo, hi;
  f.getRange(lo, hi, 0);
  EXPECT_EQ(lo, -4.0f);
  EXPECT_EQ(hi, 13.0f);
  float b[6];
  f.getBoundingBox(b);
  for (int a = 0; a < 6; a++)
    EXPECT_EQ(b[a], kBox[a]);
}

TEST(ZrRegVectorField3, CreateChecksArgumentsAndPlacesNodes) {
  const int dims[3] = {3, 2, 2};
  EXPECT_EQ(ZrRegVectorField3::create(dims, QB_FLOAT, ZR_COORD_STACKED), nullptr);
  EXPECT_EQ(ZrRegVectorField3::create(dims, 4, QB_FLOAT, ZR_COORD_UNIFORM), nullptr);
  EXPECT_EQ(ZrRegVectorField3::create(dims, 0, QB_FLOAT, ZR_COORD_UNIFORM), nullptr);
  EXPECT_EQ(ZrRegVectorField3::create(dims, QB_INT8, ZR_COORD_UNIFORM), nullptr);
  const int zero[3] = {3, 0, 2};
  EXPECT_EQ(ZrRegVectorField3::create(zero, QB_FLOAT, ZR_COORD_UNIFORM), nullptr);

  std::unique_ptr<ZrRegVectorField3> u(ZrRegVectorField3::create(dims, QB_FLOAT, ZR_COORD_UNIFORM));
  ASSERT_NE(u, nullptr);
  EXPECT_EQ(u->nDataVar(), 3);
  float b[6];
  u->getBoundingBox(b);
  const float expected[6] = {0, 2, 0, 1, 0, 1};
  for (int a = 0; a < 6; a++)
    EXPECT_EQ(b[a], expected[a]);
  EXPECT_EQ(u->floatData()[3 * 12 - 1], 0.0f);

  std::unique_ptr<ZrRegVectorField3> c(
      ZrRegVectorField3::create(dims, 2, QB_DOUBLE, ZR_COORD_CURVILINEAR));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->coordType(), ZR_COORD_CURVILINEAR);
  EXPECT_EQ(c->nDataVar(), 2);
  float p[3];
  c->lattice.coords()->pos(2, 1, 1, p);
  EXPECT_EQ(p[0], 2.0f);
  EXPECT_EQ(p[1], 1.0f);
  EXPECT_EQ(p[2], 1.0f);

  // Given data is adopted and used as it is.
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
