// Throughput of the cubic spline on a voxel lattice: the whole volume by three
// separable passes, rows along x with and without derivatives, one
// incremental box, and a plain 64-term sum per voxel for scale. Reference of
// 181 x 217 x 181 voxels; lattices of 11^3 and 19^3 control points.
#include "RegVoxelCubicSplineTransform.h"
#include "ZrLandmarkSet.h"
#include "ZrUniformScalarField3.h"
#include <benchmark/benchmark.h>
#include <memory>
#include <random>
#include <vector>

namespace {

const int kDims[3] = {181, 217, 181};

struct Setup {
  std::unique_ptr<ZrUniformScalarField3> ref;
  std::unique_ptr<RegVoxelCubicSplineTransform> t;
  explicit Setup(int n) {
    const float box[6] = {0, 180, 0, 216, 0, 180};
    ref.reset(new ZrUniformScalarField3(kDims, 3, box));
    t.reset(new RegVoxelCubicSplineTransform(3, false));
    t->setControlGridSize(n, n, n);
    t->updateInterpolatedSpaceBoundary(QbBox3f(box));
    t->getGridSpacing();
    t->createControlPoints(nullptr);
    t->setReference(ref.get());
    t->precomputeInterpolants();
    std::mt19937 rng(1);
    std::uniform_real_distribution<double> u(-2, 2);
    for (int i = 0; i < t->paramVector.size(); i++)
      t->paramVector[i] += u(rng);
  }
  ~Setup() { delete t->controlPoints; }
  size_t voxels() const { return size_t(kDims[0]) * kDims[1] * kDims[2]; }
};

void BM_Complete(benchmark::State& state) {
  Setup s((int)state.range(0));
  const int n = s.t->gridSize[0];
  std::vector<QbVec3f> out(s.voxels()), px((size_t)kDims[0] * n * n),
      py((size_t)kDims[0] * kDims[1] * n);
  for (auto _ : state) {
    s.t->getTransformedGridComplete(out.data(), px.data(), py.data());
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * s.voxels());
}

// Rows of a slab of z slices; derivatives on request.
void sequenceRows(benchmark::State& state, bool derivatives) {
  Setup s((int)state.range(0));
  const int slices = 16;
  std::vector<QbVec3f> out(kDims[0]);
  std::vector<QbVec3d> d[9];
  for (auto& b : d)
    b.resize(kDims[0]);
  for (auto _ : state) {
    for (int z = 80; z < 80 + slices; z++)
      for (int y = 0; y < kDims[1]; y++) {
        int v[3] = {0, y, z};
        if (derivatives)
          s.t->getTransformedGridSequence(out.data(), d[0].data(), d[1].data(), d[2].data(),
                                          d[3].data(), d[4].data(), d[5].data(), d[6].data(),
                                          d[7].data(), d[8].data(), kDims[0], v);
        else
          s.t->getTransformedGridSequence(out.data(), nullptr, nullptr, nullptr, nullptr, nullptr,
                                          nullptr, nullptr, nullptr, nullptr, kDims[0], v);
        benchmark::DoNotOptimize(out.data());
      }
  }
  state.SetItemsProcessed(state.iterations() * size_t(slices) * kDims[0] * kDims[1]);
}
void BM_SequenceRows(benchmark::State& state) { sequenceRows(state, false); }
void BM_SequenceRowsDerivatives(benchmark::State& state) { sequenceRows(state, true); }

void BM_IncrementalBox(benchmark::State& state) {
  Setup s((int)state.range(0));
  const int n = s.t->gridSize[0];
  std::vector<QbVec3f> base(s.voxels()), px((size_t)kDims[0] * n * n),
      py((size_t)kDims[0] * kDims[1] * n);
  s.t->getTransformedGridComplete(base.data(), px.data(), py.data());
  const int idx = 3 * (n / 2 + n * (n / 2 + n * (n / 2))) + 1;
  float from[3], to[3];
  s.t->getVolumeOfInfluence(idx, from, to, 0);
  const int voi[6] = {(int)from[0], (int)to[0], (int)from[1], (int)to[1], (int)from[2], (int)to[2]};
  const size_t w = voi[1] - voi[0] + 1, h = voi[3] - voi[2] + 1, dd = voi[5] - voi[4] + 1;
  std::vector<QbVec3f> out(w * h * dd);
  std::vector<float> bxy(w * h), bx(w);
  for (auto _ : state) {
    s.t->getTransformedGridIncremental(idx, out.data(), base.data(), voi, bxy.data(), bx.data(),
                                       0.25f);
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * w * h * dd);
  state.counters["boxVoxels"] = double(w * h * dd);
}

// The plain 64-term sum per voxel, on the same slab as the row benchmarks.
void BM_Plain64(benchmark::State& state) {
  Setup s((int)state.range(0));
  const int slices = 16;
  QbVec3f out;
  for (auto _ : state) {
    for (int z = 80; z < 80 + slices; z++)
      for (int y = 0; y < kDims[1]; y++)
        for (int x = 0; x < kDims[0]; x++) {
          int v[3] = {x, y, z};
          s.t->getTransformedGrid(v, out, s.t->paramVector);
          benchmark::DoNotOptimize(out);
        }
  }
  state.SetItemsProcessed(state.iterations() * size_t(slices) * kDims[0] * kDims[1]);
}

} // namespace

BENCHMARK(BM_Complete)->Arg(11)->Arg(19)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SequenceRows)->Arg(11)->Arg(19)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SequenceRowsDerivatives)->Arg(11)->Arg(19)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IncrementalBox)->Arg(11)->Arg(19)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Plain64)->Arg(11)->Arg(19)->Unit(benchmark::kMillisecond);
