// Evaluation of the cubic spline on voxel lattices: tables, single voxels,
// rows with derivatives, separable passes, incremental boxes, volumes of
// influence and the Jacobian.
#include "SplineTestSupport.h"
#include <gtest/gtest.h>
#include <vector>

namespace {

// Direct evaluation of the spline at lattice coordinates u (per axis, in
// cells from the box minimum), independent of the tables and walks.
QbVec3d splineAt(const RegVoxelCubicSplineTransform& t, const double u[3]) {
  RegSplineInterpolant r[3];
  int cell[3];
  for (int a = 0; a < 3; a++) {
    // A finite-difference step just below 0 stays in the first cell.
    cell[a] = std::max(0, std::min(t.gridSize[a] - 4, (int)std::floor(u[a])));
    r[a].setWeights(u[a] - cell[a]);
  }
  QbVec3d s;
  for (int n = 0; n < 4; n++)
    for (int m = 0; m < 4; m++)
      for (int l = 0; l < 4; l++) {
        const int q =
            3 * ((cell[0] + l) + t.gridSize[0] * ((cell[1] + m) + t.gridSize[1] * (cell[2] + n)));
        const double w = r[0].weight[l] * r[1].weight[m] * r[2].weight[n];
        for (int c = 0; c < 3; c++)
          s[c] += w * t.paramVector[q + c];
      }
  return s;
}

void latticeCoords(const CubicFixture& f, int x, int y, int z, double u[3]) {
  const QbVec3f p = f.voxelPos(x, y, z);
  for (int a = 0; a < 3; a++)
    u[a] = (p[a] - f.t->interpolatedSpaceBoundary[2 * a]) * (double)f.t->invGridSpacing[a];
}

struct Grids {
  std::vector<QbVec3f> out, px, py;
};
Grids complete(const CubicFixture& f) {
  const RegVoxelCubicSplineTransform& t = *f.t;
  Grids g;
  g.out.resize(f.numVoxels());
  g.px.resize((size_t)f.nv[0] * t.gridSize[1] * t.gridSize[2]);
  g.py.resize((size_t)f.nv[0] * f.nv[1] * t.gridSize[2]);
  t.getTransformedGridComplete(t.is2D ? nullptr : g.out.data(), g.px.data(), g.py.data());
  if (t.is2D)
    g.out = g.py;
  return g;
}

struct Images2D {
  std::vector<QbVec3f> px, out;
  std::vector<QbVec3d> pdx, pdxx, dx, dy, dxx, dyy, dxy;
};
Images2D complete2D(const CubicFixture& f) {
  const size_t n = f.numVoxels(), np = (size_t)f.nv[0] * f.t->gridSize[1];
  Images2D m;
  m.px.resize(np), m.pdx.resize(np), m.pdxx.resize(np);
  m.out.resize(n), m.dx.resize(n), m.dy.resize(n), m.dxx.resize(n), m.dyy.resize(n),
      m.dxy.resize(n);
  f.t->getTransformedGridCompleteWithRegularization2D(m.px.data(), m.pdx.data(), m.out.data(),
                                                      m.dx.data(), m.dy.data(), m.pdxx.data(),
                                                      m.dxx.data(), m.dyy.data(), m.dxy.data());
  return m;
}

const int kDims[3] = {17, 14, 12};
const float kBox[6] = {1.5f, 12.7f, -2, 11, 3, 12.9f};
const int kGrid[3] = {7, 6, 5};

} // namespace

TEST(RegSplineInterpolant, WeightsPartitionUnity) {
  for (int i = 0; i <= 40; i++) {
    RegSplineInterpolant r;
    const double t = i / 40.0 * 1.2 - 0.1; // also a little outside the cell
    r.setWeights(t);
    double s0 = 0, s1 = 0, s2 = 0, m0 = 0, m1 = 0;
    for (int l = 0; l < 4; l++) {
      s0 += r.weight[l], s1 += r.weight1[l], s2 += r.weight2[l];
      m0 += l * r.weight[l], m1 += l * r.weight1[l];
    }
    EXPECT_NEAR(s0, 1.0, 1e-14);
    EXPECT_NEAR(s1, 0.0, 1e-14);
    EXPECT_NEAR(s2, 0.0, 1e-14);
    // Linear reproduction: sum l w_l = 1 + t, its derivative 1.
    EXPECT_NEAR(m0, 1.0 + t, 1e-14);
    EXPECT_NEAR(m1, 1.0, 1e-14);
  }
}

TEST(RegVoxelCubicSplineTransform, BentLatticeMatchesDirectEvaluation) {
  CubicFixture f(kDims, kBox, kGrid);
  f.perturb(0.3);
  const RegVoxelCubicSplineTransform& t = *f.t;
  const Grids g = complete(f);
  std::vector<QbVec3f> row(f.nv[0]);
  for (int z = 0; z < f.nv[2]; z += 3)
    for (int y = 0; y < f.nv[1]; y += 2) {
      int v[3] = {0, y, z};
      t.getTransformedGridSequence(row.data(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr, f.nv[0], v);
      for (int x = 0; x < f.nv[0]; x++) {
        double u[3];
        latticeCoords(f, x, y, z, u);
        const QbVec3d ref = splineAt(t, u);
        int vv[3] = {x, y, z};
        QbVec3f single;
        t.getTransformedGrid(vv, single, t.paramVector);
        ASSERT_LT(maxDiffD(single, ref), 2e-5) << x << " " << y << " " << z;
        ASSERT_LT(maxDiffD(row[x], ref), 2e-5);
        ASSERT_LT(maxDiffD(g.out[(size_t(z) * f.nv[1] + y) * f.nv[0] + x], ref), 1e-4);
      }
    }
}

TEST(RegVoxelCubicSplineTransform, SequenceDerivativesMatchFiniteDifferences) {
  CubicFixture f(kDims, kBox, kGrid);
  f.perturb(0.3, 11);
  const RegVoxelCubicSplineTransform& t = *f.t;
  const int n = f.nv[0] - 3;
  std::vector<QbVec3f> pos(n);
  std::vector<QbVec3d> d[9];
  for (auto& b : d)
    b.assign(n, QbVec3d(-7, -7, -7));
  const int y = 5, z = 7;
  int v[3] = {3, y, z};
  // Order: dxx, dyy, dzz, dxy, dxz, dyz, dx, dy, dz.
  t.getTransformedGridSequence(pos.data(), d[0].data(), d[1].data(), d[2].data(), d[3].data(),
                               d[4].data(), d[5].data(), d[6].data(), d[7].data(), d[8].data(), n,
                               v);
  EXPECT_EQ(v[0], 3); // the cubic walk leaves the start alone
  // Central differences; d[k] holds the derivative along axes (a, b) of
  // pairs[k], b < 0 for a first derivative.
  const int pairs[9][2] = {{0, 0}, {1, 1},  {2, 2},  {0, 1}, {0, 2},
                           {1, 2}, {0, -1}, {1, -1}, {2, -1}};
  const double h = 1e-4;
  for (int i = 0; i < n; i++) {
    double u[3];
    latticeCoords(f, 3 + i, y, z, u);
    auto at = [&](int a, double da, int b, double db) {
      double w[3] = {u[0], u[1], u[2]};
      w[a] += da;
      if (b >= 0)
        w[b] += db;
      return splineAt(t, w);
    };
    for (int k = 0; k < 9; k++) {
      const int a = pairs[k][0], b = pairs[k][1];
      for (int c = 0; c < 3; c++) {
        const double fd = b < 0 ? (at(a, h, -1, 0)[c] - at(a, -h, -1, 0)[c]) / (2 * h)
                                : (at(a, h, b, h)[c] - at(a, h, b, -h)[c] - at(a, -h, b, h)[c] +
                                   at(a, -h, b, -h)[c]) /
                                      (4 * h * h);
        EXPECT_NEAR(d[k][i][c], fd, b < 0 ? 1e-5 : 5e-4) << "derivative " << k << ", voxel " << i;
      }
    }
  }
  // One missing pointer of a group: nothing of that group is written.
  for (auto& b : d)
    b.assign(n, QbVec3d(-7, -7, -7));
  v[0] = 3;
  t.getTransformedGridSequence(pos.data(), d[0].data(), d[1].data(), d[2].data(), d[3].data(),
                               d[4].data(), nullptr, d[6].data(), nullptr, d[8].data(), n, v);
  for (int k : {0, 1, 2, 3, 4, 6, 8})
    EXPECT_EQ(d[k][0].x, -7.0) << k;
}

TEST(RegVoxelCubicSplineTransform, Derivatives2DMatchFiniteDifferences) {
  const int dims[3] = {19, 16, 1};
  const float box[6] = {0, 9, -1, 6.5f, 0, 0};
  const int n[3] = {7, 6, 1};
  CubicFixture f(dims, box, n, 2);
  f.perturb(0.3, 5, 2);
  const Images2D m = complete2D(f);
  // The 2-D spline is the tensor product in x and y; z weights do not enter.
  auto at = [&](double ux, double uy) {
    RegSplineInterpolant rx, ry;
    const int cx = std::max(0, std::min(n[0] - 4, (int)std::floor(ux))),
              cy = std::max(0, std::min(n[1] - 4, (int)std::floor(uy)));
    rx.setWeights(ux - cx), ry.setWeights(uy - cy);
    QbVec3d s;
    for (int mm = 0; mm < 4; mm++)
      for (int l = 0; l < 4; l++)
        for (int c = 0; c < 2; c++)
          s[c] += rx.weight[l] * ry.weight[mm] *
                  f.t->paramVector[3 * ((cx + l) + n[0] * (cy + mm)) + c];
    return s;
  };
  // Second differences use a small step: the third derivative jumps at the
  // knots, on which some voxels lie.
  const double h = 1e-4;
  for (int y = 0; y < dims[1]; y += 3)
    for (int x = 0; x < dims[0]; x += 2) {
      double u[3];
      latticeCoords(f, x, y, 0, u);
      const size_t e = size_t(y) * dims[0] + x;
      for (int c = 0; c < 2; c++) {
        const double c0 = at(u[0], u[1])[c];
        EXPECT_NEAR(m.out[e][c], c0, 2e-5);
        EXPECT_NEAR(m.dx[e][c], (at(u[0] + h, u[1])[c] - at(u[0] - h, u[1])[c]) / (2 * h), 1e-5);
        EXPECT_NEAR(m.dy[e][c], (at(u[0], u[1] + h)[c] - at(u[0], u[1] - h)[c]) / (2 * h), 1e-5);
        EXPECT_NEAR(m.dxx[e][c], (at(u[0] + h, u[1])[c] - 2 * c0 + at(u[0] - h, u[1])[c]) / (h * h),
                    5e-4);
        EXPECT_NEAR(m.dyy[e][c], (at(u[0], u[1] + h)[c] - 2 * c0 + at(u[0], u[1] - h)[c]) / (h * h),
                    5e-4);
        EXPECT_NEAR(m.dxy[e][c],
                    (at(u[0] + h, u[1] + h)[c] - at(u[0] + h, u[1] - h)[c] -
                     at(u[0] - h, u[1] + h)[c] + at(u[0] - h, u[1] - h)[c]) /
                        (4 * h * h),
                    5e-4);
      }
    }
}

TEST(RegVoxelCubicSplineTransform, IncrementalEqualsRecomputation3D) {
  CubicFixture f(kDims, kBox, kGrid);
  f.perturb(0.3, 21);
  RegVoxelCubicSplineTransform& t = *f.t;
  const Grids base = complete(f);
  const int nx = kGrid[0], ny = kGrid[1];
  auto pidx = [&](int i, int j, int k, int c) { return 3 * (i + nx * (j + ny * k)) + c; };
  const int params[] = {pidx(0, 0, 0, 0), pidx(3, 2, 2, 1), pidx(6, 5, 4, 2),
                        pidx(1, 4, 3, 0), pidx(5, 0, 4, 2), pidx(2, 3, 1, 1)};
  for (int idx : params) {
    float from[3], to[3];
    t.getVolumeOfInfluence(idx, from, to, -1);
    const int voi[6] = {(int)from[0], (int)to[0],   (int)from[1],
                        (int)to[1],   (int)from[2], (int)to[2]};
    const int w = voi[1] - voi[0] + 1, h = voi[3] - voi[2] + 1, d = voi[5] - voi[4] + 1;
    ASSERT_GT(w * h * d, 0);
    std::vector<QbVec3f> inc(w * h * d);
    std::vector<float> bxy(w * h), bx(w);
    const float delta = 0.37f;
    t.getTransformedGridIncremental(idx, inc.data(), base.out.data(), voi, bxy.data(), bx.data(),
                                    delta);
    const double saved = t.paramVector[idx];
    t.paramVector[idx] += delta;
    const Grids moved = complete(f);
    t.paramVector[idx] = saved;
    size_t e = 0;
    double worst = 0;
    for (int z = voi[4]; z <= voi[5]; z++)
      for (int y = voi[2]; y <= voi[3]; y++)
        for (int x = voi[0]; x <= voi[1]; x++, e++)
          worst =
              std::max(worst, maxDiff(inc[e], moved.out[(size_t(z) * f.nv[1] + y) * f.nv[0] + x]));
    EXPECT_LT(worst, 3e-5) << idx;
    // Outside the region nothing moved.
    for (size_t v = 0; v < f.numVoxels(); v++) {
      const int x = v % f.nv[0], y = (v / f.nv[0]) % f.nv[1], z = v / (f.nv[0] * f.nv[1]);
      if (x < voi[0] || x > voi[1] || y < voi[2] || y > voi[3] || z < voi[4] || z > voi[5]) {
        ASSERT_LT(maxDiff(base.out[v], moved.out[v]), 1e-5) << idx;
      }
    }
  }
}

TEST(RegVoxelCubicSplineTransform, IncrementalEqualsRecomputation2D) {
  const int dims[3] = {21, 17, 1};
  const float box[6] = {0, 10, 0, 8, 0, 0};
  const int n[3] = {8, 7, 1};
  CubicFixture f(dims, box, n, 2);
  f.perturb(0.3, 4, 2);
  RegVoxelCubicSplineTransform& t = *f.t;
  const Images2D base = complete2D(f);
  for (int idx : {0, 3 * 9 + 1, 3 * (3 + 8 * 4), 3 * 55 + 1}) {
    float from[3], to[3];
    t.getVolumeOfInfluence(idx, from, to, 0);
    EXPECT_EQ(from[2], 0.0f);
    EXPECT_EQ(to[2], 0.0f);
    const int voi[6] = {(int)from[0], (int)to[0], (int)from[1], (int)to[1], 0, 0};
    const int w = voi[1] - voi[0] + 1, h = voi[3] - voi[2] + 1;
    std::vector<QbVec3f> inc(w * h);
    std::vector<QbVec3d> ix(w * h), iy(w * h), ixx(w * h), iyy(w * h), ixy(w * h);
    std::vector<float> b[6];
    for (auto& bb : b)
      bb.resize(w * h);
    std::vector<float> bx(w), bx1(w), bx2(w);
    const float delta = -0.61f;
    t.getTransformedGridIncrementalWithRegularization2D(
        idx, base.out.data(), inc.data(), base.dx.data(), ix.data(), base.dy.data(), iy.data(),
        base.dxx.data(), ixx.data(), base.dyy.data(), iyy.data(), base.dxy.data(), ixy.data(), voi,
        b[0].data(), b[1].data(), b[2].data(), b[3].data(), b[4].data(), b[5].data(), bx.data(),
        bx1.data(), bx2.data(), delta);
    // The plain incremental form agrees on positions in 2-D too.
    std::vector<QbVec3f> inc2(w * h);
    std::vector<float> pxy(w * h), px(w);
    t.getTransformedGridIncremental(idx, inc2.data(), base.out.data(), voi, pxy.data(), px.data(),
                                    delta);
    const double saved = t.paramVector[idx];
    t.paramVector[idx] += delta;
    const Images2D moved = complete2D(f);
    t.paramVector[idx] = saved;
    size_t e = 0;
    for (int y = voi[2]; y <= voi[3]; y++)
      for (int x = voi[0]; x <= voi[1]; x++, e++) {
        const size_t g = size_t(y) * dims[0] + x;
        ASSERT_LT(maxDiffD(inc[e], moved.out[g], 2), 2e-5) << idx;
        ASSERT_LT(maxDiffD(inc2[e], moved.out[g], 2), 2e-5) << idx;
        ASSERT_LT(maxDiffD(ix[e], moved.dx[g], 2), 2e-6) << idx;
        ASSERT_LT(maxDiffD(iy[e], moved.dy[g], 2), 2e-6) << idx;
        ASSERT_LT(maxDiffD(ixx[e], moved.dxx[g], 2), 2e-6) << idx;
        ASSERT_LT(maxDiffD(iyy[e], moved.dyy[g], 2), 2e-6) << idx;
        ASSERT_LT(maxDiffD(ixy[e], moved.dxy[g], 2), 2e-6) << idx;
      }
  }
}

TEST(RegVoxelCubicSplineTransform, SequenceOnLatticeWiderThanScratch) {
  // 300 points along x: more columns than the fixed scratch holds.
  const int dims[3] = {600, 3, 2};
  const float box[6] = {0, 599, 0, 2, 0, 1};
  const int n[3] = {300, 4, 4};
  CubicFixture f(dims, box, n);
  f.perturb(0.3, 9);
  const RegVoxelCubicSplineTransform& t = *f.t;
  ASSERT_GT(t.gridSize[0], RegVoxelCubicSplineTransform::maxSequenceColumns);
  for (int x0 : {0, 17}) {
    const int count = dims[0] - x0;
    std::vector<QbVec3f> row(count + 1, QbVec3f(-1, -1, -1));
    std::vector<QbVec3d> dx(count), dy(count), dz(count);
    int v[3] = {x0, 2, 1};
    t.getTransformedGridSequence(row.data(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                 dx.data(), dy.data(), dz.data(), count, v);
    EXPECT_EQ(row[count].x, -1.0f); // nothing written past the run
    for (int i = 0; i < count; i++) {
      int vv[3] = {x0 + i, 2, 1};
      QbVec3f single;
      t.getTransformedGrid(vv, single, t.paramVector);
      ASSERT_LT(maxDiff(row[i], single), 1e-3) << i;
      double u[3];
      latticeCoords(f, x0 + i, 2, 1, u);
      const double h = 1e-4;
      const double uu[3] = {u[0] + h, u[1], u[2]}, ul[3] = {u[0] - h, u[1], u[2]};
      ASSERT_NEAR(dx[i].y, (splineAt(t, uu).y - splineAt(t, ul).y) / (2 * h), 1e-4) << i;
    }
  }
  // A short range is completed to the end of its last run, and no further.
  std::vector<QbVec3f> part(10, QbVec3f(-1, -1, -1));
  int v[3] = {100, 0, 0};
  t.getTransformedGridSequence(part.data(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                               nullptr, nullptr, nullptr, 4, v);
  int runEnd = 104;
  while (t.interpolantsX[runEnd].cell == t.interpolantsX[103].cell)
    runEnd++;
  EXPECT_NE(part[runEnd - 1 - 100].x, -1.0f);
  EXPECT_EQ(part[runEnd - 100].x, -1.0f);
}
