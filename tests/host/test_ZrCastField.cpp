// The cast: labels to numbers and back without a change of value, type or
// place; conversions with rounding and clamping.
#include "QbPrimType.h"
#include "ZrCastField.h"
#include "ZrCurvilinearCoord3.h"
#include "ZrObjectPool.h"
#include "ZrStackedLabelField3.h"
#include "ZrUniformLabelField3.h"

#include <gtest/gtest.h>
#include <memory>

namespace {
using FieldPtr = std::unique_ptr<ZrRegScalarField3>;
const int kDims[3] = {5, 4, 3};
const float kBox[6] = {0, 4, -1, 1, 2, 8};

void fillRamp(ZrRegScalarField3& f, double scale, double offset) {
  for (size_t i = 0; i < f.lattice.numNodes(); i++)
    f.lattice.setValue(i, offset + scale * double(i));
}

void expectSameValues(const ZrRegScalarField3& a, const ZrRegScalarField3& b) {
  ASSERT_EQ(a.lattice.numNodes(), b.lattice.numNodes());
  for (size_t i = 0; i < a.lattice.numNodes(); i++)
    ASSERT_EQ(a.lattice.getValueAsDouble(i), b.lattice.getValueAsDouble(i)) << "node " << i;
}

bool isLabel(ZrRegScalarField3* f) {
  return f->getInterface(ZrUniformLabelField3::getClassTypeId()) != nullptr;
}
} // namespace

TEST(ZrCastField, LabelsRoundTripThroughNumbers) {
  for (int type : {QB_UINT8, QB_INT16, QB_UINT16, QB_INT32}) {
    ZrUniformLabelField3 labels(kDims, type, kBox);
    fillRamp(labels, 3.0, 1.0);
    SbMatrixd m;
    m.setTranslate(SbVec3d(4, 5, 6));
    labels.setTransform(m);
    FieldPtr numeric(ZrCastField::cast(&labels, ZrCastField::OUT_SCALAR));
    ASSERT_NE(numeric, nullptr);
    EXPECT_FALSE(isLabel(numeric.get()));
    EXPECT_EQ(numeric->primType(), type);
    expectSameValues(*numeric, labels);
    FieldPtr back(ZrCastField::cast(numeric.get(), ZrCastField::OUT_LABEL));
    ASSERT_NE(back, nullptr);
    EXPECT_TRUE(isLabel(back.get()));
    EXPECT_EQ(back->primType(), type);
    expectSameValues(*back, labels);
    EXPECT_EQ(back->getBoundingBox(), labels.getBoundingBox());
    SbMatrixd mb;
    back->getTransform(mb);
    EXPECT_EQ(mb, m);
  }
  // Stacked fields stay stacked, with their slices.
  const float z[3] = {0.0f, 0.5f, 3.0f};
  ZrStackedLabelField3 st(kDims, QB_UINT8, kBox, z);
  fillRamp(st, 1.0, 0.0);
  FieldPtr sn(ZrCastField::cast(&st, ZrCastField::OUT_SCALAR));
  FieldPtr sb(ZrCastField::cast(sn.get(), ZrCastField::OUT_LABEL));
  auto* sl = dynamic_cast<ZrStackedLabelField3*>(sb.get());
  ASSERT_NE(sl, nullptr);
  EXPECT_EQ(sl->stackedCoords()->getZ()[2], 3.0f);
  expectSameValues(*sb, st);
}

TEST(ZrCastField, NumericConversionsRoundAndClamp) {
  ZrUniformScalarField3 f(kDims, QB_DOUBLE, kBox);
  fillRamp(f, 1000.25, -30000.0); // -30000 .. 29014.75, quarter steps
  struct Case {
    int entry, type, node;
    double value;
  } cases[] = {{ZrCastField::OUT_UINT8, QB_UINT8, 0, 0.0},        // clamped below
               {ZrCastField::OUT_UINT8, QB_UINT8, 30, 8.0},       // 7.5: a tie, to even
               {ZrCastField::OUT_UINT8, QB_UINT8, 59, 255.0},     // clamped above
               {ZrCastField::OUT_INT16, QB_INT16, 1, -29000.0},   // -28999.75
               {ZrCastField::OUT_INT16, QB_INT16, 59, 29015.0},   // 29014.75
               {ZrCastField::OUT_UINT16, QB_UINT16, 59, 29015.0}, //
               {ZrCastField::OUT_INT32, QB_INT32, 2, -28000.0},   // -27999.5: to even
               {ZrCastField::OUT_FLOAT, QB_FLOAT, 1, -28999.75},
               {ZrCastField::OUT_DOUBLE, QB_DOUBLE, 59, 29014.75}};
  for (const Case& c : cases) {
    FieldPtr out(ZrCastField::cast(&f, c.entry));
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->primType(), c.type);
    EXPECT_EQ(out->lattice.getValueAsDouble(c.node), c.value) << c.entry << " node " << c.node;
  }
  // Integer to narrower integer clamps exactly.
  FieldPtr i16(ZrCastField::cast(&f, ZrCastField::OUT_INT16));
  FieldPtr back(ZrCastField::cast(i16.get(), ZrCastField::OUT_UINT8));
  EXPECT_EQ(back->lattice.getValueAsDouble(0), 0.0);
  EXPECT_EQ(back->lattice.getValueAsDouble(59), 255.0);
  EXPECT_EQ(ZrCastField::cast(&f, 99), nullptr);
}
