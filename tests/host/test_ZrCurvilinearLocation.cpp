// Point location in curvilinear grids: a smoothly deformed grid, and a
// rotated one whose box has uncovered corners.
#include "QbPrimType.h"
#include "ZrCellLocator3.h"
#include "ZrCurvilinearCoord3.h"
#include "ZrCurvilinearLocation3.h"
#include "ZrEvalNN.h"
#include "ZrEvalStandard.h"
#include "ZrRegScalarField3.h"
#include "ZrRegVectorField3.h"
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <vector>

namespace {

typedef std::function<void(int, int, int, double p[3])> PosFn;

// A smooth deformation of the index grid, scaled: no cell folds (the
// perturbations' derivatives stay well below 1).
void wavy(int i, int j, int k, double p[3]) {
  p[0] = 1.5 * (i + 0.3 * std::sin(0.7 * j + 0.4 * k)) - 4.0;
  p[1] = 0.8 * (j + 0.25 * std::sin(0.5 * i) + 0.1 * k) + 1.0;
  p[2] = 1.2 * (k + 0.2 * std::cos(0.6 * i + 0.3 * j));
}

std::vector<float> positions(const int dims[3], const PosFn& f) {
  std::vector<float> pos;
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++) {
        double p[3];
        f(i, j, k, p);
        pos.insert(pos.end(), {float(p[0]), float(p[1]), float(p[2])});
      }
  return pos;
}

double linear(const double p[3], int c = 0) {
  const double g[3][4] = {{2.0, 0.5, -1.5, 0.25}, {-1.0, 1.0, 2.0, -3.0}, {0.5, 0.0, 0.1, 1.0}};
  return g[c][0] + g[c][1] * p[0] + g[c][2] * p[1] + g[c][3] * p[2];
}

// Field of nc float components, component c = linear(node position, c).
std::unique_ptr<ZrField3> curvilinearField(const int dims[3], const std::vector<float>& pos,
                                           int nc) {
  std::unique_ptr<ZrField3> field;
  if (nc == 1)
    field.reset(new ZrRegScalarField3(dims, QB_FLOAT, new ZrCurvilinearCoord3(dims, pos.data())));
  else {
    field.reset(ZrRegVectorField3::create(dims, nc, QB_FLOAT, ZR_COORD_CURVILINEAR));
    auto* coords = static_cast<ZrCurvilinearCoord3*>(field->lattice.coords());
    std::copy(pos.begin(), pos.end(), coords->getPositions());
  }
  for (size_t n = 0; n < field->lattice.numNodes(); n++) {
    const double p[3] = {pos[3 * n], pos[3 * n + 1], pos[3 * n + 2]};
    for (int c = 0; c < nc; c++)
      field->lattice.setValue(n, linear(p, c), c);
  }
  return field;
}

// A point given by a cell and local coordinates: the cell's trilinear map.
// On an axis of one node the local coordinate is 0, so the upper corners
// weigh nothing and are never read.
void mapPoint(const int dims[3], const std::vector<float>& pos, const int c[3], const double t[3],
              float out[3]) {
  double x[3] = {0, 0, 0};
  for (int q = 0; q < 8; q++) {
    double w = 1.0;
    int n[3];
    for (int a = 0; a < 3; a++) {
      const bool upper = (q >> a) & 1;
      w *= upper ? t[a] : 1.0 - t[a];
      n[a] = c[a] + (upper ? 1 : 0);
    }
    if (w == 0.0)
      continue;
    const size_t idx = size_t(n[0]) + size_t(dims[0]) * (n[1] + size_t(dims[1]) * n[2]);
    for (int a = 0; a < 3; a++)
      x[a] += w * pos[3 * idx + a];
  }
  for (int a = 0; a < 3; a++)
    out[a] = float(x[a]);
}

struct Sample {
  int cell[3];
  double t[3];
  float p[3];
};

std::vector<Sample> samples(const int dims[3], const std::vector<float>& pos, int count,
                            unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> unit(0.02, 0.98);
  std::vector<Sample> out(count);
  for (Sample& s : out) {
    for (int a = 0; a < 3; a++) {
      const int cells = dims[a] > 1 ? dims[a] - 1 : 1;
      s.cell[a] = std::uniform_int_distribution<int>(0, cells - 1)(rng);
      s.t[a] = dims[a] > 1 ? unit(rng) : 0.0;
    }
    mapPoint(dims, pos, s.cell, s.t, s.p);
  }
  return out;
}

} // namespace

TEST(ZrCellLocator3, FindsTheCellAndLocalCoordinatesOfADeformedGrid) {
  const int dims[3] = {12, 10, 9};
  const std::vector<float> pos = positions(dims, wavy);
  ZrCellLocator3 locator(dims, pos.data());
  // Lists stay a few entries per cell.
  EXPECT_LT(locator.numBucketEntries(), size_t(6) * 11 * 9 * 8);
  int hint[3] = {-1, -1, -1};
  for (const Sample& s : samples(dims, pos, 3000, 5)) {
    int cell[3];
    float uvw[3];
    ASSERT_TRUE(locator.locate(s.p, cell, uvw, hint));
    for (int a = 0; a < 3; a++) {
      EXPECT_EQ(cell[a], s.cell[a]);
      EXPECT_NEAR(uvw[a], s.t[a], 1e-4);
    }
  }
}

TEST(ZrCurvilinearLocation3, TrilinearIsExactForLinearFunctionsOfPosition) {
  // In a cell the position is trilinear in the local coordinates, so a linear
  // function of position is too, and interpolation must give it exactly.
  const int dims[3] = {12, 10, 9};
  const std::vector<float> pos = positions(dims, wavy);
  for (int nc : {1, 3}) {
    std::unique_ptr<ZrField3> field = curvilinearField(dims, pos, nc);
    ZrEvalStandard ev(field.get());
    std::unique_ptr<ZrLocation3> loc(ev.createLocation());
    for (const Sample& s : samples(dims, pos, 2000, 9)) {
      float v[3];
      ASSERT_NE(loc->set(s.p), 0);
      ev.eval(loc.get(), v);
      const double p[3] = {s.p[0], s.p[1], s.p[2]};
      for (int c = 0; c < nc; c++)
        EXPECT_NEAR(v[c], linear(p, c), 1e-4 * (1 + std::fabs(linear(p, c))));
    }
    // Every node is inside and gives its own value (grid corners included).
    for (size_t n = 0; n < field->lattice.numNodes(); n += 7) {
      float v[3];
      ASSERT_NE(loc->set(&pos[3 * n]), 0) << n;
      ev.eval(loc.get(), v);
      EXPECT_NEAR(v[0], field->lattice.getValueAsFloat(n, 0), 1e-4);
    }
  }
}

TEST(ZrCurvilinearLocation3, PointsInTheBoxButOffTheGridAreOutside) {
  // A square grid turned by 30 degrees: its box has four uncovered corners.
  const int dims[3] = {9, 9, 3};
  const double ca = std::cos(M_PI / 6), sa = std::sin(M_PI / 6);
  const std::vector<float> pos = positions(dims, [&](int i, int j, int k, double p[3]) {
    p[0] = ca * i - sa * j;
    p[1] = sa * i + ca * j;
    p[2] = 0.5 * k;
  });
  std::unique_ptr<ZrField3> field = curvilinearField(dims, pos, 1);
  float box[6];
  field->getBoundingBox(box);
  ZrEvalStandard ev(field.get());
  std::unique_ptr<ZrLocation3> loc(ev.createLocation());
  float v = 1;
  // Box corners: lower left and upper right lie off the turned square.
  EXPECT_EQ(loc->set(box[0], box[2], 0.5f), 0);
  ev.eval(loc.get(), &v);
  EXPECT_EQ(v, 0.0f);
  EXPECT_EQ(loc->set(box[1], box[3], 0.5f), 0);
  // Just inside and just outside the edge i = 0 (the line through the origin
  // along (-sin, cos)), halfway along it.
  const float along[2] = {float(-sa * 4), float(ca * 4)};
  const float normal[2] = {float(ca), float(sa)};
  EXPECT_NE(loc->set(along[0] + 1e-3f * normal[0], along[1] + 1e-3f * normal[1], 0.3f), 0);
  EXPECT_EQ(loc->set(along[0] - 1e-3f * normal[0], along[1] - 1e-3f * normal[1], 0.3f), 0);
  // Above and below the stack, beyond the box.
  EXPECT_EQ(loc->set(2.0f, 4.0f, 1.01f), 0);
  EXPECT_EQ(loc->set(2.0f, 4.0f, -0.01f), 0);
  EXPECT_NE(loc->set(2.0f, 4.0f, 1.0f), 0);
}
