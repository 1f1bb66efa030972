#pragma once
// Builders shared by the spline tests: a uniform reference volume, a voxel
// cubic transform over it, and a reproducible perturbation of the lattice.
#include "RegVoxelCubicSplineTransform.h"
#include "ZrLandmarkSet.h"
#include "ZrUniformScalarField3.h"
#include <cmath>
#include <memory>
#include <random>

struct CubicFixture {
  std::unique_ptr<ZrUniformScalarField3> ref;
  std::unique_ptr<RegVoxelCubicSplineTransform> t;
  int nv[3];
  float box[6];

  // A float reference of dims voxels over box, and a lattice of n points per
  // axis (nz 1 in 2-D) covering the reference's box, at rest.
  CubicFixture(const int dims[3], const float b[6], const int n[3], int dimension = 3,
               bool fast = false) {
    for (int a = 0; a < 3; a++)
      nv[a] = dims[a];
    for (int i = 0; i < 6; i++)
      box[i] = b[i];
    ref.reset(new ZrUniformScalarField3(dims, 3, b));
    t.reset(new RegVoxelCubicSplineTransform(dimension, fast));
    t->setControlGridSize(n[0], n[1], n[2]);
    t->updateInterpolatedSpaceBoundary(QbBox3f(b));
    t->getGridSpacing();
    t->createControlPoints(nullptr);
    t->setReference(ref.get());
    t->precomputeInterpolants();
  }
  ~CubicFixture() {
    if (t)
      delete t->controlPoints;
  }
  QbVec3f voxelPos(int x, int y, int z) const {
    float p[3];
    ref->lattice.coords()->pos(x, y, z, p);
    return QbVec3f(p);
  }
  size_t numVoxels() const { return size_t(nv[0]) * nv[1] * nv[2]; }
  // Moves every control point by up to amp spacings per axis (axes below dim).
  void perturb(double amp, unsigned seed = 7, int dim = 3) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-amp, amp);
    QbDVector<double>& p = t->paramVector;
    for (int i = 0; i < p.size(); i++)
      if (i % 3 < dim)
        p[i] += u(rng) * t->gridSpacing[i % 3];
  }
};

inline double maxDiff(const QbVec3f& a, const QbVec3f& b) {
  return std::max({std::fabs(a.x - b.x), std::fabs(a.y - b.y), std::fabs(a.z - b.z)});
}
template <class A, class B> inline double maxDiffD(const A& a, const B& b, int comps = 3) {
  double m = 0;
  for (int c = 0; c < comps; c++)
    m = std::max(m, std::fabs(double(a[c]) - double(b[c])));
  return m;
}
