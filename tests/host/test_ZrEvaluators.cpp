// Field evaluators on uniform and stacked lattices: trilinear values against
// known functions, the inside test at the box, nearest-node picks.
#include "QbPrimType.h"
#include "ZrEvalCubic.h"
#include "ZrEvalLanczos.h"
#include "ZrEvalNN.h"
#include "ZrEvalStandard.h"
#include "ZrLocation3.h"
#include "ZrRegVectorField3.h"
#include "ZrStackedScalarField3.h"
#include "ZrUniformCoord3.h"
#include "ZrUniformScalarField3.h"
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <vector>

namespace {

typedef std::function<double(double, double, double)> Fn3;

double linear(double x, double y, double z) { return 2.0 + 0.5 * x - 1.5 * y + 0.25 * z; }

// Sets every node of component c to f at the node's position.
void fill(ZrField3& field, const Fn3& f, int c = 0) {
  const int* d = field.getDims();
  size_t idx = 0;
  for (int k = 0; k < d[2]; k++)
    for (int j = 0; j < d[1]; j++)
      for (int i = 0; i < d[0]; i++, idx++) {
        float p[3];
        field.lattice.coords()->pos(i, j, k, p);
        field.lattice.setValue(idx, f(p[0], p[1], p[2]), c);
      }
}

std::unique_ptr<ZrUniformScalarField3> uniformField(const int dims[3], int type, const float box[6],
                                                    const Fn3& f) {
  auto field = std::make_unique<ZrUniformScalarField3>(dims, type, box);
  fill(*field, f);
  return field;
}

// Evaluates through the evaluator at (x, y, z); returns the inside flag.
int evalAt(ZrFieldEvaluator& ev, ZrLocation3& loc, float x, float y, float z, float* out) {
  const int in = loc.set(x, y, z);
  ev.eval(&loc, out);
  return in;
}

} // namespace

TEST(ZrEvalStandard, UniformTrilinearReproducesTrilinearFunctions) {
  // A linear function plus x*y*z is trilinear in every cell, so the
  // interpolant must give it exactly at any point, nodes and bounds included.
  const int dims[3] = {7, 5, 6};
  const float box[6] = {-1.0f, 2.0f, 0.5f, 4.5f, 10.0f, 12.5f};
  const Fn3 f = [](double x, double y, double z) { return linear(x, y, z) + 0.1 * x * y * z; };
  for (int type : {QB_FLOAT, QB_DOUBLE}) {
    auto field = uniformField(dims, type, box, f);
    ZrEvalStandard ev(field.get());
    std::unique_ptr<ZrLocation3> loc(ev.createLocation());
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> ux(-1.0f, 2.0f), uy(0.5f, 4.5f), uz(10.0f, 12.5f);
    for (int n = 0; n < 2000; n++) {
      float x = ux(rng), y = uy(rng), z = uz(rng);
      if (n < 8) { // the box corners
        x = box[n & 1];
        y = box[2 + ((n >> 1) & 1)];
        z = box[4 + ((n >> 2) & 1)];
      }
      float v = -1.0f;
      ASSERT_NE(evalAt(ev, *loc, x, y, z, &v), 0);
      EXPECT_NEAR(v, f(x, y, z), 5e-5) << x << " " << y << " " << z;
    }
  }
}

TEST(ZrEvalStandard, StackedTrilinearWithUnevenSlicesInAnyOrder) {
  const int dims[3] = {5, 4, 6};
  const float xy[4] = {0.0f, 8.0f, -2.0f, 1.0f};
  const float ascending[6] = {0.0f, 0.5f, 2.0f, 2.25f, 5.0f, 9.0f};
  const float descending[6] = {9.0f, 5.0f, 2.25f, 2.0f, 0.5f, 0.0f};
  const float unsorted[6] = {2.0f, 9.0f, 0.0f, 5.0f, 0.5f, 2.25f};
  for (const float* z : {ascending, descending, unsorted}) {
    ZrStackedScalarField3 field(dims, QB_FLOAT, xy, z);
    fill(field, linear);
    ZrEvalStandard ev(&field);
    std::unique_ptr<ZrLocation3> loc(ev.createLocation());
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> ux(0.0f, 8.0f), uy(-2.0f, 1.0f), uz(0.0f, 9.0f);
    for (int n = 0; n < 1000; n++) {
      const float x = ux(rng), y = uy(rng), zz = uz(rng);
      float v = 0;
      ASSERT_NE(evalAt(ev, *loc, x, y, zz, &v), 0);
      EXPECT_NEAR(v, linear(x, y, zz), 2e-5);
    }
    // On the slices themselves, including the first and the last.
    for (int k = 0; k < 6; k++) {
      float v = 0;
      ASSERT_NE(evalAt(ev, *loc, 3.0f, 0.0f, z[k], &v), 0);
      EXPECT_NEAR(v, linear(3.0, 0.0, z[k]), 2e-5);
    }
  }
}

TEST(ZrLocation3, InsideIsTheBoxOfTheNodesWithBoundsIncluded) {
  const int dims[3] = {4, 4, 4};
  const float box[6] = {1.0f, 4.0f, -3.0f, 0.0f, 2.0f, 2.5f};
  auto field = uniformField(dims, QB_FLOAT, box, [](double, double, double) { return 5.0; });
  const float zs[4] = {2.0f, 2.1f, 2.2f, 2.5f};
  ZrStackedScalarField3 stacked(dims, QB_FLOAT, box, zs);
  fill(stacked, [](double, double, double) { return 5.0; });
  for (ZrField3* f : {static_cast<ZrField3*>(field.get()), static_cast<ZrField3*>(&stacked)}) {
    ZrEvalStandard ev(f);
    std::unique_ptr<ZrLocation3> loc(ev.createLocation());
    const float mid[3] = {2.5f, -1.5f, 2.25f};
    for (int a = 0; a < 3; a++)
      for (int side = 0; side < 2; side++) {
        const float bound = box[2 * a + side];
        const float beyond = std::nextafter(bound, side ? FLT_MAX : -FLT_MAX);
        float p[3] = {mid[0], mid[1], mid[2]};
        p[a] = bound;
        float v = 0;
        EXPECT_NE(evalAt(ev, *loc, p[0], p[1], p[2], &v), 0) << a << side;
        EXPECT_FLOAT_EQ(v, 5.0f);
        p[a] = beyond;
        EXPECT_EQ(evalAt(ev, *loc, p[0], p[1], p[2], &v), 0) << a << side;
        EXPECT_EQ(v, 0.0f); // outside gives 0
      }
    // The box corners are inside, a NaN is not.
    EXPECT_NE(loc->set(box[0], box[2], box[4]), 0);
    EXPECT_NE(loc->set(box[1], box[3], box[5]), 0);
    EXPECT_EQ(loc->set(NAN, -1.0f, 2.2f), 0);
    const float p[3] = {4.0f, 0.0f, 2.5f};
    EXPECT_NE(loc->set(p), 0);
  }
}

TEST(ZrEvalNN, PicksTheNearestNode) {
  // Node value = its flat index, so the pick names the node.
  const int dims[3] = {5, 4, 3};
  const float box[6] = {0, 8, 0, 3, 0, 1};
  ZrUniformScalarField3 field(dims, QB_INT32, box);
  for (size_t n = 0; n < field.lattice.numNodes(); n++)
    field.lattice.setValue(n, double(n));
  std::unique_ptr<ZrFieldEvaluator> ev(ZrEvalNN::createEval(&field));
  ASSERT_TRUE(ev);
  std::unique_ptr<ZrLocation3> loc(ev->createLocation());
  auto pick = [&](float x, float y, float z) {
    float v = -1;
    EXPECT_NE(evalAt(*ev, *loc, x, y, z, &v), 0);
    return int(v);
  };
  auto index = [&](int i, int j, int k) { return i + 5 * (j + 4 * k); };
  EXPECT_EQ(pick(0.0f, 0.0f, 0.0f), index(0, 0, 0));
  EXPECT_EQ(pick(0.9f, 0.4f, 0.2f), index(0, 0, 0));
  EXPECT_EQ(pick(1.1f, 0.6f, 0.26f), index(1, 1, 1));
  EXPECT_EQ(pick(7.9f, 2.6f, 0.74f), index(4, 3, 1));
  EXPECT_EQ(pick(8.0f, 3.0f, 1.0f), index(4, 3, 2));
  EXPECT_EQ(pick(5.0f, 1.5f, 0.75f), index(3, 2, 2)); // ties go up
  // Outside: zeros.
  float v = 9;
  EXPECT_EQ(evalAt(*ev, *loc, 8.01f, 1, 0.5f, &v), 0);
  EXPECT_EQ(v, 0.0f);
}

TEST(ZrEvalNN, NearestSliceOfAStackAndExactLabels) {
  const int dims[3] = {2, 2, 4};
  const float xy[4] = {0, 1, 0, 1};
  const float z[4] = {0.0f, 1.0f, 5.0f, 6.0f};
  ZrStackedScalarField3 field(dims, QB_INT32, xy, z);
  // Labels beyond float precision: the native value must pass unchanged.
  const int32_t big = 16777217;
  for (int k = 0; k < 4; k++)
    for (int n = 0; n < 4; n++)
      field.lattice.setValue(size_t(k * 4 + n), double(big + k));
  std::unique_ptr<ZrFieldEvaluator> ev(ZrEvalNN::createEval(&field));
  ASSERT_TRUE(ev);
  std::unique_ptr<ZrLocation3> loc(ev->createLocation());
  const float zq[] = {0.4f, 2.9f, 3.1f, 5.6f, 6.0f};
  const int32_t expect[] = {big, big + 1, big + 2, big + 3, big + 3};
  for (int q = 0; q < 5; q++) {
    int32_t label = 0;
    ASSERT_NE(loc->set(0.3f, 0.8f, zq[q]), 0);
    ev->evalNative(loc.get(), &label);
    EXPECT_EQ(label, expect[q]) << zq[q];
  }
  // No field, no evaluator.
  EXPECT_EQ(ZrEvalNN::createEval(nullptr), nullptr);
}

TEST(ZrEvalLanczos, ReproducesNodeValuesAndServesUniformFieldsOnly) {
  const int dims[3] = {6, 7, 5};
  const float box[6] = {-2.0f, 3.0f, 0.0f, 1.2f, 4.0f, 8.0f};
  ZrUniformScalarField3 field(dims, QB_FLOAT, box);
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> val(-50.0f, 50.0f);
  for (size_t n = 0; n < field.lattice.numNodes(); n++)
    field.lattice.setValue(n, val(rng));
  std::unique_ptr<ZrFieldEvaluator> ev(ZrEvalLanczos::createEval(&field));
  ASSERT_TRUE(ev);
  std::unique_ptr<ZrLocation3> loc(ev->createLocation());
  size_t idx = 0;
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++, idx++) {
        float p[3], v = 0;
        field.lattice.coords()->pos(i, j, k, p);
        ASSERT_NE(evalAt(*ev, *loc, p[0], p[1], p[2], &v), 0);
        EXPECT_NEAR(v, field.lattice.getValueAsFloat(idx), 1e-4) << i << " " << j << " " << k;
      }
  // A constant stays constant between nodes, edges included.
  ZrUniformScalarField3 flat(dims, QB_DOUBLE, box);
  fill(flat, [](double, double, double) { return 3.5; });
  std::unique_ptr<ZrFieldEvaluator> evc(ZrEvalLanczos::createEval(&flat));
  std::unique_ptr<ZrLocation3> locc(evc->createLocation());
  std::uniform_real_distribution<float> ux(-2.0f, 3.0f), uy(0.0f, 1.2f), uz(4.0f, 8.0f);
  for (int n = 0; n < 200; n++) {
    float v = 0;
    ASSERT_NE(evalAt(*evc, *locc, ux(rng), uy(rng), uz(rng), &v), 0);
    EXPECT_NEAR(v, 3.5f, 1e-5);
  }
  // Stacked and curvilinear fields are not served.
  const float z[5] = {0, 1, 2, 3, 4};
  ZrStackedScalarField3 stacked(dims, QB_FLOAT, box, z);
  EXPECT_EQ(ZrEvalLanczos::createEval(&stacked), nullptr);
  std::unique_ptr<ZrRegVectorField3> curvi(
      ZrRegVectorField3::create(dims, QB_FLOAT, ZR_COORD_CURVILINEAR));
  EXPECT_EQ(ZrEvalLanczos::createEval(curvi.get()), nullptr);
  EXPECT_EQ(ZrEvalLanczos::createEval(nullptr), nullptr);
}

TEST(ZrEvalLanczos, IntegerResultsAreRoundedAndClamped) {
  // A hard step 0 | 255 rings: the float result overshoots the range, the
  // native one is clamped to it.
  const int dims[3] = {12, 1, 1};
  const float box[6] = {0, 11, 0, 0, 0, 0};
  auto field = uniformField(dims, QB_UINT8, box,
                            [](double x, double, double) { return x < 5.5 ? 0.0 : 255.0; });
  std::unique_ptr<ZrFieldEvaluator> ev(ZrEvalLanczos::createEval(field.get()));
  std::unique_ptr<ZrLocation3> loc(ev->createLocation());
  float hi = 0, lo = 0;
  uint8_t nHi = 0, nLo = 1;
  ASSERT_NE(loc->set(6.5f, 0, 0), 0);
  ev->eval(loc.get(), &hi);
  ev->evalNative(loc.get(), &nHi);
  ASSERT_NE(loc->set(4.5f, 0, 0), 0);
  ev->eval(loc.get(), &lo);
  ev->evalNative(loc.get(), &nLo);
  EXPECT_GT(hi, 255.5f);
  EXPECT_LT(lo, -0.5f);
  EXPECT_EQ(nHi, 255);
  EXPECT_EQ(nLo, 0);
}

TEST(ZrEvalCubic, ReproducesQuadraticsInsideAndNodesEverywhere) {
  // Catmull-Rom reproduces polynomials of degree 2 along each axis wherever
  // its four taps lie inside the lattice; at nodes, edges included, it gives
  // the node value. A flat axis (2-D field) takes one tap.
  const float box[6] = {-2.0f, 5.0f, 1.0f, 4.5f, 0.0f, 6.0f};
  auto quad = [](double x, double y, double z) {
    return 3.0 + 0.5 * x * x - 1.25 * y * y + 0.2 * x * y * z - z;
  };
  for (int nz : {7, 1}) {
    const int dims[3] = {8, 8, nz};
    auto field = uniformField(dims, QB_DOUBLE, box, quad);
    std::unique_ptr<ZrFieldEvaluator> ev(ZrEvalCubic::createEval(field.get()));
    ASSERT_TRUE(ev);
    std::unique_ptr<ZrLocation3> loc(ev->createLocation());
    const float hx = 1.0f, hy = 0.5f, hz = 1.0f; // node spacings
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (int n = 0; n < 100; n++) {
      // Cells 1 .. dims - 3: all four taps are lattice nodes.
      const float x = box[0] + hx * (1 + u(rng) * 5), y = box[2] + hy * (1 + u(rng) * 5);
      const float z = nz > 1 ? box[4] + hz * (1 + u(rng) * 3) : 0.0f;
      float v = 0;
      ASSERT_NE(evalAt(*ev, *loc, x, y, z, &v), 0);
      EXPECT_NEAR(v, quad(x, y, z), 1e-4) << x << " " << y << " " << z;
    }
    const int* d = field->getDims();
    for (int k = 0; k < d[2]; k += std::max(1, d[2] - 1))
      for (int j = 0; j < d[1]; j += d[1] - 1)
        for (int i = 0; i < d[0]; i += d[0] - 1) {
          float p[3], v = 0;
          field->lattice.coords()->pos(i, j, k, p);
          ASSERT_NE(evalAt(*ev, *loc, p[0], p[1], p[2], &v), 0);
          EXPECT_NEAR(v, quad(p[0], p[1], p[2]), 1e-5);
        }
  }
}
