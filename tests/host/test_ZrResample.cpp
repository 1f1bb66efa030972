// Resampling: grey reduction (box, type, mean, exactness on ramps,
// anti-aliasing, enlargement), label reduction (known majorities, no invented
// labels), and stacked and curvilinear coordinates.
#include "QbPrimType.h"
#include "SbMatrixd.h"
#include "ZrResample.h"
#include "ZrUniformLabelField3.h"

#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <set>

namespace {

using FieldPtr = std::unique_ptr<ZrRegScalarField3>;

// Fills a field with f(x, y, z) at its node positions.
template <class F> void fill(ZrRegScalarField3& field, F f) {
  const int* d = field.getDims();
  const ZrCoord3* c = field.lattice.coords();
  size_t idx = 0;
  for (int k = 0; k < d[2]; k++)
    for (int j = 0; j < d[1]; j++)
      for (int i = 0; i < d[0]; i++, idx++) {
        float p[3];
        c->pos(i, j, k, p);
        field.lattice.setValue(idx, f(p[0], p[1], p[2]));
      }
}

double mean(const ZrRegScalarField3& field) {
  double s = 0.0;
  const size_t n = field.lattice.numNodes();
  for (size_t i = 0; i < n; i++)
    s += field.lattice.getValueAsDouble(i);
  return s / double(n);
}

void expectBox(const ZrSpatialData& a, const ZrSpatialData& b) {
  float ba[6], bb[6];
  a.getBoundingBox(ba);
  b.getBoundingBox(bb);
  for (int i = 0; i < 6; i++)
    EXPECT_EQ(ba[i], bb[i]) << "box entry " << i;
}

const float kBox[6] = {-10.0f, 10.0f, 0.0f, 7.0f, 5.0f, 9.0f};

double smooth(float x, float y, float z) {
  return 1000.0 + 200.0 * std::sin(0.4 * x) + 120.0 * std::cos(0.5 * y + 0.3 * z) + 15.0 * x;
}

} // namespace

TEST(ZrResampleGrey, ReductionKeepsBoxTypeAndMean) {
  const int dims[3] = {40, 36, 30};
  const int target[3] = {20, 18, 15};
  for (int type : {QB_FLOAT, QB_INT16, QB_UINT16}) {
    ZrUniformScalarField3 in(dims, type, kBox);
    fill(in, smooth);
    SbMatrixd m;
    m.setTranslate(SbVec3d(1, 2, 3));
    in.setTransform(m);
    const double inMean = mean(in);
    for (int filter = 0; filter < 3; filter++) {
      FieldPtr out(ZrResample::resampleGrey(&in, target, filter));
      ASSERT_NE(out, nullptr);
      EXPECT_NE(dynamic_cast<ZrUniformScalarField3*>(out.get()), nullptr);
      EXPECT_EQ(out->primType(), type);
      for (int a = 0; a < 3; a++)
        EXPECT_EQ(out->getDims()[a], target[a]);
      expectBox(*out, in);
      SbMatrixd mo;
      out->getTransform(mo);
      EXPECT_EQ(mo, m);
      // The mean stays that of the image (the function varies by about 600).
      // The box average spreads every input node over the output nodes and
      // keeps the mean of the nodes; the interpolating kernels give the
      // function sampled on the coarser grid, whose mean differs from the
      // fine one's by the greater weight of the end nodes.
      EXPECT_NEAR(mean(*out), inMean, 3.0) << "filter " << filter << " type " << type;
      if (filter == ZrResample::FILTER_BOX) {
        EXPECT_NEAR(mean(*out), inMean, 0.1) << "type " << type;
      } else {
        ZrUniformScalarField3 sampled(target, QB_DOUBLE, kBox);
        fill(sampled, smooth);
        EXPECT_NEAR(mean(*out), mean(sampled), 0.3) << "filter " << filter << " type " << type;
      }
    }
  }
}

TEST(ZrResampleGrey, ConstantsAndRampsAreReproduced) {
  // 33 -> 17 nodes: every output node sits on an input node, so symmetric
  // kernels reproduce a linear function exactly away from the borders.
  const int dims[3] = {33, 33, 33};
  const int target[3] = {17, 17, 17};
  const float box[6] = {0, 32, 0, 32, 0, 32};
  ZrUniformScalarField3 constant(dims, QB_FLOAT, box);
  fill(constant, [](float, float, float) { return 42.5; });
  ZrUniformScalarField3 ramp(dims, QB_DOUBLE, box);
  auto lin = [](float x, float y, float z) { return 3.0 + 0.5 * x - 2.0 * y + 0.25 * z; };
  fill(ramp, lin);
  for (int filter = 0; filter < 3; filter++) {
    FieldPtr c(ZrResample::resampleGrey(&constant, target, filter));
    ASSERT_NE(c, nullptr);
    for (size_t i = 0; i < c->lattice.numNodes(); i++)
      ASSERT_NEAR(c->lattice.getValueAsDouble(i), 42.5, 1e-4) << "filter " << filter;
    FieldPtr r(ZrResample::resampleGrey(&ramp, target, filter));
    ASSERT_NE(r, nullptr);
    for (int k = 3; k < 14; k++)
      for (int j = 3; j < 14; j++)
        for (int i = 3; i < 14; i++) {
          float p[3];
          r->lattice.coords()->pos(i, j, k, p);
          ASSERT_NEAR(r->getValue(i, j, k), lin(p[0], p[1], p[2]), 1e-5)
              << "filter " << filter << " at " << i << "," << j << "," << k;
        }
  }
}

TEST(ZrResampleGrey, LanczosRemovesWhatTheCoarseGridCannotCarry) {
  // An alternating pattern at the input's Nyquist frequency cannot be shown
  // at half the resolution: a low-pass reduction leaves its mean, decimation
  // would alias it to full contrast.
  const int dims[3] = {64, 8, 4};
  const int target[3] = {32, 8, 4};
  const float box[6] = {0, 63, 0, 7, 0, 3};
  ZrUniformScalarField3 in(dims, QB_FLOAT, box);
  fill(in, [](float x, float, float) { return 500.0 + ((int(x) & 1) ? 100.0 : -100.0); });
  FieldPtr out(ZrResample::resampleGrey(&in, target, ZrResample::FILTER_LANCZOS));
  ASSERT_NE(out, nullptr);
  // Inside, away from the borders where the kernel is cut.
  for (int i = 4; i < 28; i++)
    EXPECT_NEAR(out->getValue(i, 3, 1), 500.0, 10.0) << "node " << i;
  // A slow wave passes nearly unchanged.
  ZrUniformScalarField3 wave(dims, QB_FLOAT, box);
  auto w = [](float x, float, float) { return 100.0 * std::sin(2.0 * M_PI * x / 32.0); };
  fill(wave, w);
  FieldPtr ow(ZrResample::resampleGrey(&wave, target, ZrResample::FILTER_LANCZOS));
  for (int i = 4; i < 28; i++) {
    float p[3];
    ow->lattice.coords()->pos(i, 0, 0, p);
    EXPECT_NEAR(ow->getValue(i, 0, 0), w(p[0], 0, 0), 3.0);
  }
}

TEST(ZrResampleGrey, SubsamplingKeepsEveryNthNode) {
  // Node (i, j, k) of the result is node (i, j, k) * steps of the input, at
  // the same place: the box ends at the last node kept (an odd count of
  // intervals drops the last input node), the type, the transform and a
  // label interface stay.
  const int dims[3] = {9, 8, 1};
  const float box[6] = {-2, 6, 1, 15, 3, 3};
  for (bool labels : {false, true}) {
    std::unique_ptr<ZrUniformScalarField3> in(labels
                                                  ? new ZrUniformLabelField3(dims, QB_UINT8, box)
                                                  : new ZrUniformScalarField3(dims, QB_INT16, box));
    for (size_t n = 0; n < size_t(9 * 8); n++)
      in->lattice.setValue(n, double(n % 97));
    SbMatrixd placed;
    placed.setTranslate(SbVec3d(5, -3, 2));
    in->setTransform(placed);
    const int steps[3] = {2, 3, 0};
    FieldPtr out(ZrResample::subsample(in.get(), steps));
    ASSERT_NE(out, nullptr);
    const int* d = out->getDims();
    EXPECT_EQ(d[0], 5);
    EXPECT_EQ(d[1], 3);
    EXPECT_EQ(d[2], 1);
    EXPECT_EQ(out->primType(), in->primType());
    EXPECT_EQ(ZrResample::isLabelField(out.get()), labels);
    float ob[6];
    out->getBoundingBox(ob);
    const float expected[6] = {-2, 6, 1, 13, 3, 3};
    for (int e = 0; e < 6; e++)
      EXPECT_FLOAT_EQ(ob[e], expected[e]) << e;
    SbMatrixd m;
    out->getTransform(m);
    EXPECT_EQ(m, placed);
    for (int j = 0; j < 3; j++)
      for (int i = 0; i < 5; i++)
        EXPECT_EQ(out->getValue(i, j, 0), in->getValue(2 * i, 3 * j, 0)) << i << ", " << j;
  }
}

TEST(ZrResampleGrey, EnlargingKeepsNodeValuesAndFlatAxes) {
  // 5 -> 9 nodes: every second output node is an input node, which Lanczos
  // and the triangle reproduce; the flat z axis stays flat.
  const int dims[3] = {5, 6, 1};
  const int target[3] = {9, 11, 1};
  const float box[6] = {0, 4, 0, 5, 2, 2};
  ZrUniformScalarField3 in(dims, QB_FLOAT, box);
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(-50.0f, 50.0f);
  for (size_t i = 0; i < in.lattice.numNodes(); i++)
    in.lattice.setValue(i, u(rng));
  for (int filter : {ZrResample::FILTER_TRIANGLE, ZrResample::FILTER_LANCZOS}) {
    FieldPtr out(ZrResample::resampleGrey(&in, target, filter));
    ASSERT_NE(out, nullptr);
    expectBox(*out, in);
    for (int j = 0; j < 6; j++)
      for (int i = 0; i < 5; i++)
        EXPECT_NEAR(out->getValue(2 * i, 2 * j, 0), in.getValue(i, j, 0), 1e-4);
    // Between two nodes the triangle gives their mean.
    if (filter == ZrResample::FILTER_TRIANGLE) {
      EXPECT_NEAR(out->getValue(1, 0, 0), 0.5 * (in.getValue(0, 0, 0) + in.getValue(1, 0, 0)),
                  1e-4);
    }
  }
  // An axis reduced to a single node takes the mean along it (for a ramp:
  // the mean of its ends).
  ZrUniformScalarField3 ramp(dims, QB_FLOAT, box);
  fill(ramp, [](float x, float, float) { return 10.0 * x; });
  const int one[3] = {1, 6, 1};
  FieldPtr o(ZrResample::resampleGrey(&ramp, one, ZrResample::FILTER_BOX));
  ASSERT_NE(o, nullptr);
  EXPECT_NEAR(o->getValue(0, 3, 0), 20.0, 1e-4);
  const int bad[3] = {0, 6, 1};
  EXPECT_EQ(ZrResample::resampleGrey(&ramp, bad, ZrResample::FILTER_BOX), nullptr);
}

TEST(ZrResampleGrey, IntegerResultsAreClampedNotWrapped) {
  // A step from 0 to 255 in 8-bit: Lanczos overshoots on both sides of the
  // edge, which must saturate, not wrap around.
  const int dims[3] = {40, 2, 2};
  const int target[3] = {20, 2, 2};
  const float box[6] = {0, 39, 0, 1, 0, 1};
  ZrUniformScalarField3 in(dims, QB_UINT8, box);
  fill(in, [](float x, float, float) { return x < 19.7f ? 0.0 : 255.0; });
  FieldPtr out(ZrResample::resampleGrey(&in, target, ZrResample::FILTER_LANCZOS));
  ASSERT_NE(out, nullptr);
  // Nodes 8 and 11 lie where the kernel's negative lobe meets the edge: their
  // filtered values fall below 0 and above 255.
  EXPECT_EQ(out->getValue(8, 0, 0), 0.0f);
  EXPECT_EQ(out->getValue(11, 0, 0), 255.0f);
  for (int i = 0; i < 20; i++) {
    const float v = out->getValue(i, 0, 0);
    if (i <= 8) {
      EXPECT_LE(v, 3.0f) << i; // left: no wrapped 255s
    } else if (i >= 11) {
      EXPECT_GE(v, 252.0f) << i; // right: no wrapped 0s
    }
  }
}

TEST(ZrResampleLabels, KnownMajoritiesAndTies) {
  struct Case {
    std::vector<int> in;
    int factor;
    std::vector<int> out;
  };
  const Case cases[] = {
      {{5, 9, 9}, 3, {9}},                   // majority
      {{5, 9, 1}, 3, {9}},                   // all once: the node nearest the middle
      {{1, 1, 2, 2}, 2, {1, 2}},             // blocks {0,1} and {2,3}
      {{4, 6, 6, 8}, 2, {4, 8}},             // ties go to the node nearest each output node
      {{3, 3, 3, 3, 3}, 1, {3, 3, 3, 3, 3}}, // factor 1 changes nothing
  };
  for (const Case& c : cases) {
    const int dims[3] = {int(c.in.size()), 1, 1};
    const float box[6] = {0, float(c.in.size() - 1), 0, 0, 0, 0};
    ZrUniformLabelField3 in(dims, QB_UINT8, box);
    for (size_t i = 0; i < c.in.size(); i++)
      in.lattice.setValue(i, c.in[i]);
    const int factors[3] = {c.factor, 1, 1};
    FieldPtr out(ZrResample::reduceLabels(&in, factors));
    ASSERT_NE(out, nullptr);
    ASSERT_EQ(out->getDims()[0], int(c.out.size()));
    for (size_t i = 0; i < c.out.size(); i++)
      EXPECT_EQ(out->getValue(int(i), 0, 0), float(c.out[i])) << "case " << c.in.size() << "/" << i;
  }
}

// Nearest-label resampling: every output node, at the position the grey
// resampling gives it, holds the label of the input node nearest to it, on
// a coarser and on a finer grid, in 3-D, with the box and the label
// interface kept.
TEST(ZrResampleLabels, NearestLabelOnOtherGrids) {
  const int dIn[3] = {11, 7, 5};
  const float box[6] = {-5.0f, 5.0f, 0.0f, 3.0f, 2.0f, 4.0f};
  ZrUniformLabelField3 in(dIn, QB_INT16, box);
  auto label = [&](int i, int j, int k) { return float(i - 3 * j + 20 * k - 40); };
  for (int k = 0; k < dIn[2]; k++)
    for (int j = 0; j < dIn[1]; j++)
      for (int i = 0; i < dIn[0]; i++)
        in.lattice.setValue((size_t(k) * dIn[1] + j) * dIn[0] + i, label(i, j, k));
  const int sizes[][3] = {{10, 6, 5}, {15, 9, 4}, {1, 7, 2}};
  for (const auto& d : sizes) {
    FieldPtr out(ZrResample::resampleLabelsNearest(&in, d));
    ASSERT_NE(out, nullptr);
    EXPECT_TRUE(ZrResample::isLabelField(out.get()));
    EXPECT_EQ(out->primType(), QB_INT16);
    expectBox(in, *out);
    for (int k = 0; k < d[2]; k++)
      for (int j = 0; j < d[1]; j++)
        for (int i = 0; i < d[0]; i++) {
          // Node o of n spans the input's n - 1 intervals; a single node
          // stands at the middle of its axis.
          int near[3];
          const int o[3] = {i, j, k};
          for (int a = 0; a < 3; a++) {
            const double c =
                d[a] > 1 ? double(o[a]) * (dIn[a] - 1) / (d[a] - 1) : 0.5 * (dIn[a] - 1);
            near[a] = int(std::lround(c));
          }
          EXPECT_EQ(out->getValue(i, j, k), label(near[0], near[1], near[2]))
              << d[0] << "x" << d[1] << "x" << d[2] << " at " << i << "," << j << "," << k;
        }
  }
}

// Labels of 8 and 16 bits are counted, wider ones sorted: both must pick the
// same label for every block, ties included (few labels, many ties).
TEST(ZrResampleLabels, CountedTypesAgreeWithSortedFloats) {
  struct Case {
    QbPrimType type;
    std::vector<double> labels;
  };
  const Case cases[] = {{QB_UINT8, {0, 1, 5, 255}},
                        {QB_INT16, {-32768, -300, -1, 0, 7}},
                        {QB_UINT16, {0, 1, 40000, 65535}}};
  const int dims[3] = {13, 10, 9};
  const float box[6] = {0, 12, 0, 9, 0, 8};
  const int factorSets[][3] = {{2, 2, 2}, {3, 2, 1}, {4, 3, 3}};
  std::mt19937 rng(7);
  for (const Case& c : cases) {
    ZrUniformLabelField3 in(dims, c.type, box);
    ZrUniformLabelField3 asFloat(dims, QB_FLOAT, box);
    std::uniform_int_distribution<size_t> pick(0, c.labels.size() - 1);
    for (size_t i = 0; i < in.lattice.numNodes(); i++) {
      const double v = c.labels[pick(rng)];
      in.lattice.setValue(i, v);
      asFloat.lattice.setValue(i, v);
    }
    for (const auto& factors : factorSets) {
      FieldPtr out(ZrResample::reduceLabels(&in, factors));
      FieldPtr expected(ZrResample::reduceLabels(&asFloat, factors));
      ASSERT_NE(out, nullptr);
      ASSERT_NE(expected, nullptr);
      ASSERT_EQ(out->lattice.numNodes(), expected->lattice.numNodes());
      for (size_t i = 0; i < out->lattice.numNodes(); i++)
        ASSERT_EQ(out->lattice.getValueAsDouble(i), expected->lattice.getValueAsDouble(i))
            << "type " << c.type << ", factor " << factors[0] << ", node " << i;
    }
  }
}

// Gaussian smoothing against values worked out by hand: a spike spreads into
// the normalised kernel along the axes with extent only, a constant stays,
// and a ramp stays away from the repeated border.
TEST(ZrResampleSmooth, SpikeConstantAndRamp) {
  const int dims[3] = {9, 7, 1};
  const float box[6] = {0, 8, 0, 6, 0, 0};
  const double e = std::exp(-2.0), s = 1.0 + 2 * e + 2 * std::exp(-8.0);
  const double k[3] = {1.0 / s, e / s, std::exp(-8.0) / s}; // sigma 0.5: offsets 0, 1, 2
  struct Case {
    const char* what;
    std::function<double(int, int)> in, expected;
  };
  const Case cases[] = {
      {"spike", [](int i, int j) { return i == 4 && j == 3 ? 100.0 : 0.0; },
       [&](int i, int j) {
         const int di = std::abs(i - 4), dj = std::abs(j - 3);
         return di <= 2 && dj <= 2 ? 100.0 * k[di] * k[dj] : 0.0;
       }},
      {"constant", [](int, int) { return 37.0; }, [](int, int) { return 37.0; }},
      {"ramp", [](int i, int) { return 10.0 * i; },
       [](int i, int) { return i >= 2 && i <= 6 ? 10.0 * i : std::nan(""); }},
  };
  for (const Case& c : cases) {
    ZrUniformScalarField3 in(dims, QB_UINT8, box);
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++)
        in.lattice.setValue(size_t(j) * dims[0] + i, c.in(i, j));
    FieldPtr out(ZrResample::smoothGrey(&in, 0.5f));
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(out->primType(), QB_FLOAT);
    expectBox(in, *out);
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++) {
        const double want = c.expected(i, j);
        if (!std::isnan(want))
          EXPECT_NEAR(out->getValue(i, j, 0), want, 1e-4) << c.what << " " << i << "," << j;
      }
  }
}
