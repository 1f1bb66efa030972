// Reduction time of a 256^3 volume: grey values by half on every axis with
// each filter, and labels by factors of 2, over the thread counts 1 and the
// host's setting.
#include "QbPrimType.h"
#include "ZrResample.h"
#include "ZrSettingsMgr.h"
#include "ZrUniformLabelField3.h"

#include <benchmark/benchmark.h>
#include <cmath>
#include <cstdint>
#include <memory>

namespace {
const int kN = 256;
const float kBox[6] = {0, 255, 0, 255, 0, 255};

ZrUniformScalarField3* greyVolume(int type) {
  const int dims[3] = {kN, kN, kN};
  auto* f = new ZrUniformScalarField3(dims, type, kBox);
  size_t idx = 0;
  for (int k = 0; k < kN; k++)
    for (int j = 0; j < kN; j++)
      for (int i = 0; i < kN; i++, idx++)
        f->lattice.setValue(idx, 120.0 + 60.0 * std::sin(0.05 * i) * std::cos(0.07 * j) +
                                     40.0 * std::sin(0.03 * k + 0.02 * i));
  return f;
}

ZrUniformLabelField3* labelVolume() {
  const int dims[3] = {kN, kN, kN};
  auto* f = new ZrUniformLabelField3(dims, QB_UINT8, kBox);
  uint8_t* d = static_cast<uint8_t*>(f->lattice.dataPtr());
  size_t idx = 0;
  // Nested spheres and a few slabs: mostly uniform blocks, as in anatomy
  // labels, with mixed blocks along every boundary.
  for (int k = 0; k < kN; k++)
    for (int j = 0; j < kN; j++)
      for (int i = 0; i < kN; i++, idx++) {
        const double r = std::sqrt(
            double((i - 128) * (i - 128) + (j - 120) * (j - 120) + (k - 130) * (k - 130)));
        uint8_t l = r < 40 ? 3 : (r < 80 ? 2 : (r < 110 ? 1 : 0));
        if (l && ((i / 17 + k / 23) % 5 == 0))
          l = uint8_t(l + 10);
        d[idx] = l;
      }
  return f;
}

void setThreads(const benchmark::State& state) {
  ZrSettingsMgr::getInstance()->setNumThreads(int(state.range(1)));
}

void BM_GreyReduction(benchmark::State& state) {
  static std::unique_ptr<ZrUniformScalarField3> vol(greyVolume(QB_INT16));
  setThreads(state);
  const int target[3] = {kN / 2, kN / 2, kN / 2};
  for (auto _ : state) {
    std::unique_ptr<ZrRegScalarField3> r(
        ZrResample::resampleGrey(vol.get(), target, int(state.range(0))));
    benchmark::DoNotOptimize(r.get());
  }
  state.counters["Mvoxel/s"] = benchmark::Counter(double(kN) * kN * kN * state.iterations() / 1e6,
                                                  benchmark::Counter::kIsRate);
  ZrSettingsMgr::getInstance()->setNumThreads(0);
}

void BM_GreyReductionFloat(benchmark::State& state) {
  static std::unique_ptr<ZrUniformScalarField3> vol(greyVolume(QB_FLOAT));
  setThreads(state);
  const int target[3] = {kN / 2, kN / 2, kN / 2};
  for (auto _ : state) {
    std::unique_ptr<ZrRegScalarField3> r(
        ZrResample::resampleGrey(vol.get(), target, int(state.range(0))));
    benchmark::DoNotOptimize(r.get());
  }
  state.counters["Mvoxel/s"] = benchmark::Counter(double(kN) * kN * kN * state.iterations() / 1e6,
                                                  benchmark::Counter::kIsRate);
  ZrSettingsMgr::getInstance()->setNumThreads(0);
}

void BM_LabelReduction(benchmark::State& state) {
  static std::unique_ptr<ZrUniformLabelField3> vol(labelVolume());
  setThreads(state);
  const int f = int(state.range(0));
  const int factors[3] = {f, f, f};
  for (auto _ : state) {
    std::unique_ptr<ZrRegScalarField3> r(ZrResample::reduceLabels(vol.get(), factors));
    benchmark::DoNotOptimize(r.get());
  }
  state.counters["Mvoxel/s"] = benchmark::Counter(double(kN) * kN * kN * state.iterations() / 1e6,
                                                  benchmark::Counter::kIsRate);
  ZrSettingsMgr::getInstance()->setNumThreads(0);
}

// Arguments: filter (0 box, 1 triangle, 2 Lanczos) or label factor, threads
// (0: the host's default).
BENCHMARK(BM_GreyReduction)
    ->ArgsProduct({{0, 1, 2}, {1, 0}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_GreyReductionFloat)
    ->ArgsProduct({{2}, {1, 0}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_LabelReduction)
    ->ArgsProduct({{2, 4}, {1, 0}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
} // namespace
