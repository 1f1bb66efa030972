// The analytic elastic gradient on the pair of bench_elastic (181 x 217 x 181
// bytes, an 11^3 lattice moved off rest, normalised mutual information with
// 64 bins): the value pass (what evaluate() costs in a line search), and the
// whole gradient (caching pass and gradient pass), without and with both
// penalties, for each thread count asked for.
//
// usage: bench_elastic_analytic [--threads=1,2,16] [benchmark options]
// The thread counts default to 1 and the host's count (ZR_NUM_THREADS, or
// the hardware's).
#include "BenchPhantom.h"
#include "QbBox3f.h"
#include "QbPrimType.h"
#include "RegElasticAnalyticGradient.h"
#include "RegElasticFunctionalRegular.h"
#include "RegNormMutualInformation.h"
#include "RegVoxelCubicSplineTransform.h"
#include "ZrLandmarkSet.h"
#include "ZrMessage.h"
#include "ZrSettingsMgr.h"
#include "ZrUniformScalarField3.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

const int kLattice = 11;

struct Run {
  std::unique_ptr<ZrUniformScalarField3> reference = makePhantom(0.0), model = makePhantom(1.5);
  QbDArray<ZrSpatialData*> refs, models;
  std::unique_ptr<RegVoxelCubicSplineTransform> transform;
  std::unique_ptr<RegElasticFunctionalRegular> functional;
  explicit Run(bool regularized) {
    ZrMessage::getTheMsg()->setQuiet(true);
    refs.append(reference.get());
    models.append(model.get());
    transform = std::make_unique<RegVoxelCubicSplineTransform>(3, false);
    transform->setModel(model.get());
    transform->setControlGridSize(kLattice, kLattice, kLattice);
    transform->updateInterpolatedSpaceBoundary(QbBox3f(kBox));
    transform->getGridSpacing();
    transform->createControlPoints(nullptr);
    unsigned s = 4321;
    for (int i = 0; i < transform->paramVector.size(); i++) {
      s = s * 1103515245u + 12345u;
      const double r = ((s >> 8) & 0xffff) / 65535.0 * 2.0 - 1.0;
      transform->paramVector[i] += 0.1 * r * transform->gridSpacing[i % 3];
    }
    RegMetric* metric =
        new RegNormMutualInformation(QB_UINT8, QB_UINT8, 0, 255, 0, 255, 64, 64, 1.0);
    functional = std::make_unique<RegElasticFunctionalRegular>(
        refs, models, RegInterpolatorStandard, transform.get(), metric, nullptr, RegDataClassGrey,
        nullptr, false);
    if (regularized) {
      functional->energyWeight = 0.5f;
      functional->jacobianWeight = 0.5f;
    }
    functional->gradientMethod = 1;
    functional->init();
  }
  ~Run() {
    functional.reset();
    delete transform->controlPoints;
  }
};

const int64_t kVoxels = (int64_t)kDims[0] * kDims[1] * kDims[2];

// Arguments: (threads, regularised).
void BM_AnalyticValue(benchmark::State& state) {
  Run run(state.range(1) != 0);
  run.functional->analyticGradient->numThreads = (int)state.range(0);
  for (auto _ : state)
    benchmark::DoNotOptimize(run.functional->evaluate());
  state.SetItemsProcessed(state.iterations() * kVoxels);
}

void BM_AnalyticGradient(benchmark::State& state) {
  Run run(state.range(1) != 0);
  run.functional->analyticGradient->numThreads = (int)state.range(0);
  QbDVector<double> g(run.transform->paramVector.size());
  for (auto _ : state)
    benchmark::DoNotOptimize(run.functional->evaluate(g, 0.5, 1));
  state.SetItemsProcessed(state.iterations() * kVoxels);
  state.counters["params"] = (double)g.size();
}

std::vector<int64_t> parseThreads(int& argc, char** argv) {
  std::vector<int64_t> threads;
  for (int i = 1; i < argc; i++) {
    if (std::strncmp(argv[i], "--threads=", 10) != 0)
      continue;
    std::string list = argv[i] + 10;
    size_t at = 0;
    while (at <= list.size()) {
      const size_t comma = std::min(list.find(',', at), list.size());
      const long n = std::strtol(list.substr(at, comma - at).c_str(), nullptr, 10);
      if (n > 0)
        threads.push_back(n);
      at = comma + 1;
    }
    for (int j = i; j + 1 < argc; j++)
      argv[j] = argv[j + 1];
    argc--;
    i--;
  }
  if (threads.empty()) {
    threads.push_back(1);
    const int host = ZrSettingsMgr::getInstance()->getNumThreads();
    if (host > 1)
      threads.push_back(host);
  }
  return threads;
}

} // namespace

int main(int argc, char** argv) {
  const std::vector<int64_t> threads = parseThreads(argc, argv);
  for (int64_t t : threads)
    for (int64_t regularized : {0, 1}) {
      benchmark::RegisterBenchmark("BM_AnalyticValue", BM_AnalyticValue)
          ->Args({t, regularized})
          ->Unit(benchmark::kMillisecond)
          ->MinTime(1.0)
          ->UseRealTime();
      benchmark::RegisterBenchmark("BM_AnalyticGradient", BM_AnalyticGradient)
          ->Args({t, regularized})
          ->Unit(benchmark::kMillisecond)
          ->MinTime(1.0)
          ->UseRealTime();
    }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
