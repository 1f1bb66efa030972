// The trilinear lattice: rest positions, tables, volume of influence and
// refinement by any factor.
#include "RegVoxelLinearSplineTransform.h"
#include "ZrLandmarkSet.h"
#include "ZrUniformScalarField3.h"
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <vector>

namespace {

struct LinearFixture {
  std::unique_ptr<ZrUniformScalarField3> ref;
  RegVoxelLinearSplineTransform t{false};
  int nv[3];
  LinearFixture(const int dims[3], const float box[6], const int n[3]) {
    for (int a = 0; a < 3; a++)
      nv[a] = dims[a];
    ref.reset(new ZrUniformScalarField3(dims, 3, box));
    t.setControlGridSize(n[0], n[1], n[2]);
    t.updateInterpolatedSpaceBoundary(QbBox3f(box));
    t.getGridSpacing();
    t.createControlPoints(nullptr);
    t.setReference(ref.get());
    t.precomputeInterpolants();
  }
  ~LinearFixture() { delete t.controlPoints; }
  std::vector<QbVec3f> all() const {
    std::vector<QbVec3f> out((size_t)nv[0] * nv[1] * nv[2]);
    for (int z = 0; z < nv[2]; z++)
      for (int y = 0; y < nv[1]; y++) {
        int v[3] = {0, y, z};
        t.getTransformedGridSequence(&out[(size_t(z) * nv[1] + y) * nv[0]], nv[0], v);
        EXPECT_EQ(v[0], nv[0]); // left past the row
      }
    return out;
  }
};

const int kDims[3] = {13, 11, 9};
const float kBox[6] = {-2, 10, 1, 6, 0.5f, 8.5f};
const int kGrid[3] = {5, 4, 3};

} // namespace

TEST(RegVoxelLinearSplineTransform, RestLatticeAndTables) {
  LinearFixture f(kDims, kBox, kGrid);
  EXPECT_FLOAT_EQ(f.t.gridSpacing[0], 3.0f);
  EXPECT_FLOAT_EQ(f.t.paramVector[3 * 4], 10.0f); // last point on the box max
  const std::vector<QbVec3f> out = f.all();
  for (int z = 0; z < kDims[2]; z++)
    for (int y = 0; y < kDims[1]; y++)
      for (int x = 0; x < kDims[0]; x++) {
        float p[3];
        f.ref->lattice.coords()->pos(x, y, z, p);
        const QbVec3f& q = out[(size_t(z) * kDims[1] + y) * kDims[0] + x];
        for (int c = 0; c < 3; c++)
          ASSERT_NEAR(q[c], p[c], 1e-5);
      }
  const RegLinearSplineInterpolant& hi = f.t.linearX[kDims[0] - 1];
  EXPECT_EQ(hi.cell, kGrid[0] - 2);
  EXPECT_FLOAT_EQ(hi.frac, 1.0f);
  EXPECT_FLOAT_EQ(hi.invFrac, 0.0f);

  // Volume of influence: cells i - 1 .. i. x: 3 voxels per cell, the last
  // voxel in the last cell.
  float from[3], to[3];
  f.t.getVolumeOfInfluence(0, from, to, 0);
  EXPECT_EQ(from[0], 0.0f);
  EXPECT_EQ(to[0], 2.0f);
  f.t.getVolumeOfInfluence(3 * (2 + 5 * (3 + 4 * 2)), from, to, 1);
  EXPECT_EQ(from[0], 3.0f);
  EXPECT_EQ(to[0], 8.0f);
  EXPECT_EQ(to[1], kDims[1] - 1.0f);
  EXPECT_EQ(to[2], kDims[2] - 1.0f);
}

TEST(RegVoxelLinearSplineTransform, RefinementIsExact) {
  for (int factor : {1, 2, 3}) {
    LinearFixture f(kDims, kBox, kGrid);
    std::mt19937 rng(factor);
    std::uniform_real_distribution<double> u(-0.4, 0.4);
    for (int i = 0; i < f.t.paramVector.size(); i++)
      f.t.paramVector[i] += u(rng);
    const std::vector<QbVec3f> before = f.all();
    const QbDVector<double> oldParams = f.t.paramVector;
    f.t.refine(factor);
    for (int a = 0; a < 3; a++)
      EXPECT_EQ(f.t.gridSize[a], (kGrid[a] - 1) * factor + 1);
    EXPECT_FLOAT_EQ(f.t.gridSpacing[0], 3.0f / factor);
    if (factor == 1) {
      EXPECT_TRUE(f.t.paramVector == oldParams);
    }
    // Old points reappear at every factor-th new index, the last one included.
    const int nn = f.t.gridSize[0];
    EXPECT_DOUBLE_EQ(f.t.paramVector[3 * (nn - 1)], oldParams[3 * (kGrid[0] - 1)]);
    const std::vector<QbVec3f> after = f.all();
    for (size_t v = 0; v < before.size(); v++)
      for (int c = 0; c < 3; c++)
        ASSERT_NEAR(after[v][c], before[v][c], 2e-5) << factor << " " << v;
  }
}
