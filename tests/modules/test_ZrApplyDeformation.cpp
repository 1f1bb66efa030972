// Moving a vertex set by a vector field through the module's ports: exact
// displacement by a linear field and recomputation from the input on a second
// press.
#include "QbPrimType.h"
#include "ZrApplyDeformation.h"
#include "ZrMessage.h"
#include "ZrObjectPool.h"
#include "ZrRegVectorField3.h"
#include "ZrUniformCoord3.h"
#include "ZrVertexSet.h"

#include <gtest/gtest.h>
#include <string>

namespace {

// v(x, y, z) = (0.1 x + 1, 2 - 0.05 y, -0.5 z): linear, so the trilinear
// interpolation of the field reproduces it exactly between nodes.
QbVec3f displacement(const QbVec3f& p) {
  return QbVec3f(0.1f * p.x + 1.0f, 2.0f - 0.05f * p.y, -0.5f * p.z);
}

ZrRegVectorField3* makeLinearField() {
  const int dims[3] = {11, 9, 7};
  ZrRegVectorField3* f = ZrRegVectorField3::create(dims, 3, QB_FLOAT, ZR_COORD_UNIFORM);
  const float box[6] = {-5.0f, 5.0f, 0.0f, 8.0f, 2.0f, 8.0f};
  static_cast<ZrUniformCoord3*>(f->lattice.coords())->setBoundingBox(box);
  float* v = f->floatData();
  size_t n = 0;
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++, n++) {
        float p[3];
        f->lattice.coords()->pos(i, j, k, p);
        const QbVec3f d = displacement(QbVec3f(p));
        v[3 * n] = d.x, v[3 * n + 1] = d.y, v[3 * n + 2] = d.z;
      }
  f->setName("VectorField");
  return f;
}

class ApplyDeformationTest : public ::testing::Test {
protected:
  void SetUp() override {
    oldSink = ZrMessage::getTheMsg()->setSink([this](const std::string& t) { messages += t; });
    module = new ZrApplyDeformation;
    pool->addObject(module);
  }
  void TearDown() override {
    ZrMessage::getTheMsg()->setSink(oldSink);
    pool->clear();
  }
  void press() {
    ASSERT_TRUE(module->portAction.hit());
    module->fire(1);
  }
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  ZrApplyDeformation* module = nullptr;
  ZrMessage::Sink oldSink;
  std::string messages;
};

} // namespace

TEST_F(ApplyDeformationTest, MovesPointsAndRecomputesFromInput) {
  ZrVertexSet* input = new ZrVertexSet;
  input->setName("surface");
  const QbVec3f points[] = {
      {0.0f, 4.0f, 5.0f}, {-3.3f, 1.7f, 2.5f}, {4.9f, 7.9f, 7.5f}, {1.25f, 0.5f, 3.0f}};
  for (const QbVec3f& p : points)
    input->appendPoint(p);
  pool->addObject(input);
  ZrRegVectorField3* field = makeLinearField();
  pool->addObject(field);
  ASSERT_TRUE(module->portData.connect(input));
  ASSERT_TRUE(module->portVectorField.connect(field));

  // "DoIt" starts snapped: connecting the inputs is enough.
  EXPECT_TRUE(module->portAction.isSnapped());
  module->fire(1);
  ZrVertexSet* result = dynamic_cast<ZrVertexSet*>(module->getResult(0));
  ASSERT_NE(result, nullptr);
  EXPECT_NE(result, input);
  EXPECT_STREQ(result->getName(), "result");
  ASSERT_EQ(result->getNumPoints(), 4);
  for (int i = 0; i < 4; i++) {
    const QbVec3f want = points[i] + displacement(points[i]);
    for (int c = 0; c < 3; c++) {
      EXPECT_NEAR(result->getCoords()[i][c], want[c], 1e-4f) << "point " << i << " axis " << c;
      EXPECT_EQ(input->getCoords()[i][c], points[i][c]) << "the input stays";
    }
  }

  // A second press starts again from the input: the same result object,
  // and the points are moved once, not twice. A changed input is followed.
  input->getCoords()[0] = QbVec3f(2.0f, 2.0f, 4.0f);
  input->appendPoint(QbVec3f(-1.0f, 6.0f, 6.0f));
  press();
  EXPECT_EQ(module->getResult(0), result);
  ASSERT_EQ(result->getNumPoints(), 5);
  const QbVec3f p0(2.0f, 2.0f, 4.0f), p4(-1.0f, 6.0f, 6.0f);
  for (int c = 0; c < 3; c++) {
    EXPECT_NEAR(result->getCoords()[0][c], (p0 + displacement(p0))[c], 1e-4f);
    EXPECT_NEAR(result->getCoords()[1][c], (points[1] + displacement(points[1]))[c], 1e-4f);
    EXPECT_NEAR(result->getCoords()[4][c], (p4 + displacement(p4))[c], 1e-4f);
  }
  EXPECT_TRUE(messages.empty()) << messages;
}
