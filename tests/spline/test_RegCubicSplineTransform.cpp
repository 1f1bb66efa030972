// Geometry, rest positions, exact doubling and bending energy of the cubic
// lattice.
#include "SplineTestSupport.h"
#include <gtest/gtest.h>
#include <vector>

TEST(RegCubicSplineTransform, GeometryAndRestPositions) {
  const int dims[3] = {6, 7, 8};
  const float box[6] = {-1, 4, 2, 8, 0, 7};
  const int n[3] = {4, 6, 5};
  CubicFixture f(dims, box, n);
  RegVoxelCubicSplineTransform& t = *f.t;
  EXPECT_FLOAT_EQ(t.gridSpacing[0], 5.0f); // one cell: spacing = extent
  EXPECT_FLOAT_EQ(t.gridSpacing[1], 2.0f);
  EXPECT_FLOAT_EQ(t.gridSpacing[2], 3.5f);
  EXPECT_FLOAT_EQ(t.invGridSpacing[1], 0.5f);
  EXPECT_EQ(t.neighbourOffset[2][3][1], 3 * t.strideZ + 2 + t.strideY);
  // Index 0 one spacing below the box, index 1 on the minimum, n - 2 on the
  // maximum, n - 1 one spacing above.
  auto p = [&](int i, int j, int k, int c) {
    return t.paramVector[3 * (i + n[0] * (j + n[1] * k)) + c];
  };
  EXPECT_NEAR(p(0, 0, 0, 0), -6, 1e-6);
  EXPECT_NEAR(p(1, 0, 0, 0), -1, 1e-6);
  EXPECT_NEAR(p(2, 0, 0, 0), 4, 1e-6);
  EXPECT_NEAR(p(3, 0, 0, 0), 9, 1e-6);
  EXPECT_NEAR(p(0, 4, 0, 1), 8, 1e-5);
  EXPECT_NEAR(p(0, 0, 3, 2), 7, 1e-5);
  // Appending to a given set leaves the lattice's own points alone.
  ZrLandmarkSet extra(1);
  const QbDVector<double> before = t.paramVector;
  EXPECT_EQ(t.createControlPoints(&extra), t.controlPoints);
  EXPECT_EQ(extra.getNumMarkers(), 4 * 6 * 5);
  EXPECT_TRUE(t.paramVector == before);
  EXPECT_EQ(extra.getPosition(1).x, (float)before[3]);

  // 2-D: the single layer lies at half the z extent; z spacing stays 0.
  const int d2[3] = {6, 7, 1};
  const float b2[6] = {0, 5, 0, 6, 2, 6};
  const int n2[3] = {5, 5, 1};
  CubicFixture g(d2, b2, n2, 2);
  EXPECT_EQ(g.t->gridSpacing[2], 0.0f);
  EXPECT_EQ(g.t->invGridSpacing[2], 0.0f);
  EXPECT_FLOAT_EQ((float)g.t->paramVector[2], 2.0f);
}

// Transformed positions of the whole reference for the present lattice.
static std::vector<QbVec3f> completeGrid(const CubicFixture& f) {
  const RegVoxelCubicSplineTransform& t = *f.t;
  std::vector<QbVec3f> out(f.numVoxels()), px((size_t)f.nv[0] * t.gridSize[1] * t.gridSize[2]),
      py((size_t)f.nv[0] * f.nv[1] * t.gridSize[2]);
  t.getTransformedGridComplete(t.is2D ? nullptr : out.data(), px.data(), py.data());
  return t.is2D ? py : out;
}

TEST(RegCubicSplineTransform, DoublingKeepsEveryTransformedVoxel) {
  // Four doublings of a bent 3-D lattice, one of a bent 2-D lattice (whose
  // layer's z is carried along), and a lattice at rest, which stays at rest.
  const int d3[3] = {23, 21, 19}, n3[3] = {4, 4, 4}, d2[3] = {12, 10, 1}, n2[3] = {5, 6, 1};
  const float b3[6] = {0.5f, 22.5f, -3, 17, 1, 28}, b2[6] = {0, 11, 0, 9, 0, 0};
  CubicFixture f(d3, b3, n3), g(d2, b2, n2, 2);
  f.perturb(0.25);
  g.perturb(0.2, 3, 2);
  struct Step {
    CubicFixture* fixture;
    QbVec3i sizeAfter;
    double tol;
  } steps[] = {{&f, {5, 5, 5}, 6e-4},
               {&f, {7, 7, 7}, 6e-4},
               {&f, {11, 11, 11}, 6e-4},
               {&f, {19, 19, 19}, 6e-4},
               {&g, {7, 9, 1}, 1e-4}};
  for (const Step& s : steps) {
    RegVoxelCubicSplineTransform& t = *s.fixture->t;
    const std::vector<QbVec3f> before = completeGrid(*s.fixture);
    const float oldSpacing = t.gridSpacing[1];
    t.refine(2);
    EXPECT_EQ(QbVec3i(t.gridSize), s.sizeAfter);
    EXPECT_EQ(t.paramVector.size(), 3 * s.sizeAfter[0] * s.sizeAfter[1] * s.sizeAfter[2]);
    EXPECT_FLOAT_EQ(t.gridSpacing[1], oldSpacing * 0.5f);
    EXPECT_EQ(t.getParamStep(0, nullptr), 1.0);
    const std::vector<QbVec3f> after = completeGrid(*s.fixture);
    for (size_t v = 0; v < before.size(); v++)
      ASSERT_LT(maxDiff(before[v], after[v]), s.tol) << s.sizeAfter[0] << " voxel " << v;
  }
  for (int i = 2; i < g.t->paramVector.size(); i += 3)
    EXPECT_EQ(g.t->paramVector[i], 0.0);

  const int d[3] = {5, 5, 5}, n[3] = {5, 5, 5};
  const float b[6] = {0, 10, 0, 10, 0, 10};
  CubicFixture r(d, b, n);
  r.t->refine(2);
  RegVoxelCubicSplineTransform fresh(3, false);
  fresh.setControlGridSize(7, 7, 7);
  fresh.updateInterpolatedSpaceBoundary(QbBox3f(b));
  fresh.getGridSpacing();
  fresh.createControlPoints(nullptr);
  for (int i = 0; i < fresh.paramVector.size(); i++)
    ASSERT_NEAR(r.t->paramVector[i], fresh.paramVector[i], 1e-5) << i;
  delete fresh.controlPoints;
}

TEST(RegCubicSplineTransform, GridEnergy) {
  const int dims[3] = {8, 8, 8};
  const float box[6] = {0, 7, 0, 14, 0, 3.5f};
  const int n[3] = {6, 7, 5};
  CubicFixture f(dims, box, n);
  RegVoxelCubicSplineTransform& t = *f.t;
  EXPECT_NEAR(t.getGridEnergy(t.paramVector), 0.0, 1e-9);
  // Any affine map of the rest lattice has no bending.
  QbDVector<double>& p = t.paramVector;
  const QbDVector<double> rest = p;
  for (int i = 0; i < p.size(); i += 3) {
    const double x = rest[i], y = rest[i + 1], z = rest[i + 2];
    p[i] = 1.1 * x + 0.2 * y - 0.1 * z + 3;
    p[i + 1] = -0.3 * x + 0.9 * y + 0.05 * z - 1;
    p[i + 2] = 0.1 * x + 0.1 * y + 1.2 * z + 0.5;
  }
  EXPECT_NEAR(t.getGridEnergy(p), 0.0, 1e-9);
  // A bent lattice: a quadratic displacement along x.
  for (int i = 0; i < p.size(); i += 3)
    p[i] = rest[i] + 0.05 * rest[i + 1] * rest[i + 1];
  const double e = t.getGridEnergy(p);
  EXPECT_GT(e, 0.0);
  // d2/dy2 of 0.05 y^2 is 0.1 per world unit squared, i.e. 0.1 s^2 per cell;
  // the energy scales it by 1 / s^2 only: 0.01 s^2.
  const double s = t.gridSpacing[1];
  EXPECT_NEAR(e, 0.01 * s * s, 1e-6);

  // 2-D: no interior layer, the sum is 0 and not a call.
  const int d2[3] = {6, 6, 1};
  const float b2[6] = {0, 5, 0, 5, 0, 0};
  const int n2[3] = {5, 5, 1};
  CubicFixture g(d2, b2, n2, 2);
  g.perturb(0.3, 1, 2);
  EXPECT_EQ(std::fabs(g.t->getGridEnergy(g.t->paramVector)), 0.0);
  // Two layers: 0 / 0.
  RegVoxelCubicSplineTransform h(3, false);
  h.setControlGridSize(4, 4, 2);
  EXPECT_TRUE(std::isnan(h.getGridEnergy(h.paramVector)));
}
