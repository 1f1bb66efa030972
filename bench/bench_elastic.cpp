// The elastic functionals on a 181 x 217 x 181 byte pair with an 11^3 cubic
// lattice (8 cells per axis, boxes of influence up to 4 cells wide): one
// caching pass, one probe of an interior parameter, the six probes of an
// interior control point in one walk of its box, and one whole gradient by
// finite differences for each thread count of --threads, for the regular and
// the general class, without and with both regularisers.
//
// A whole gradient takes seconds to tens of seconds; the gradient benchmarks
// run one iteration each. Filter with --benchmark_filter to run a part, e.g.
//   bench_elastic --threads=1,2,4,8,16 --benchmark_filter='BM_Gradient/regular:1/regularized:0'
// (--benchmark_repetitions=3 repeats each).
#include "BenchPhantom.h"
#include "QbBox3f.h"
#include "QbPrimType.h"
#include "RegElasticFunctional.h"
#include "RegElasticFunctionalRegular.h"
#include "RegNormMutualInformation.h"
#include "RegVoxelCubicSplineTransform.h"
#include "ZrLandmarkSet.h"
#include "ZrMessage.h"
#include "ZrSettingsMgr.h"
#include "ZrUniformScalarField3.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

// Control points per axis; --lattice=N sets it.
int gLattice = 11;
// Histogram bins per axis of the metric; --bins=N sets it (the module's
// default is 256).
int gBins = 64;

struct Data {
  std::unique_ptr<ZrUniformScalarField3> reference = makePhantom(0.0), model = makePhantom(1.5);
  QbDArray<ZrSpatialData*> refs, models;
  Data() {
    ZrMessage::getTheMsg()->setQuiet(true);
    refs.append(reference.get());
    models.append(model.get());
  }
};

Data& data() {
  static Data d;
  return d;
}

// A lattice over the reference, each point moved a little off rest.
struct Run {
  std::unique_ptr<RegVoxelCubicSplineTransform> transform;
  std::unique_ptr<RegElasticFunctional> functional;
  Run(bool regular, bool regularized) {
    Data& d = data();
    transform = std::make_unique<RegVoxelCubicSplineTransform>(3, false);
    transform->setModel(d.model.get());
    transform->setControlGridSize(gLattice, gLattice, gLattice);
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
        new RegNormMutualInformation(QB_UINT8, QB_UINT8, 0, 255, 0, 255, gBins, gBins, 1.0);
    if (regular)
      functional = std::make_unique<RegElasticFunctionalRegular>(
          d.refs, d.models, RegInterpolatorStandard, transform.get(), metric, nullptr,
          RegDataClassGrey, nullptr, false);
    else
      functional = std::make_unique<RegElasticFunctional>(d.refs, d.models, RegInterpolatorStandard,
                                                          transform.get(), metric, nullptr,
                                                          RegDataClassGrey, nullptr, false);
    if (regularized) {
      functional->energyWeight = 0.5f;
      functional->jacobianWeight = 0.5f;
    }
    functional->init();
  }
  ~Run() {
    functional.reset();
    delete transform->controlPoints;
  }
  bool regularized() const { return functional->regularizerMode != 0; }
  double cache() {
    return regularized() ? functional->evaluateAndCacheWithRegularizer()
                         : functional->evaluateAndCache();
  }
  // The x parameter of the central control point: a full 4 x 4 x 4 cell box.
  int centralParam() const {
    const int c = gLattice / 2;
    return 3 * ((c * gLattice + c) * gLattice + c);
  }
  double probe(int i, float d) {
    RegElasticFunctionalRegular* r = dynamic_cast<RegElasticFunctionalRegular*>(functional.get());
    if (!regularized())
      return functional->evaluateIncremental(i, d);
    return r ? r->evaluateIncrementalWithRegularizer(i, d)
             : functional->evaluateIncrementalWithRegularizer(i);
  }
};

const int64_t kVoxels = (int64_t)kDims[0] * kDims[1] * kDims[2];

void BM_CachingPass(benchmark::State& state) {
  Run run(state.range(0) != 0, state.range(1) != 0);
  for (auto _ : state)
    benchmark::DoNotOptimize(run.cache());
  state.SetItemsProcessed(state.iterations() * kVoxels);
}

void BM_Probe(benchmark::State& state) {
  Run run(state.range(0) != 0, state.range(1) != 0);
  run.cache();
  const int i = run.centralParam();
  const int* box = run.functional->influenceBoxes[i];
  const int64_t boxVoxels =
      (int64_t)(box[1] - box[0] + 1) * (box[3] - box[2] + 1) * (box[5] - box[4] + 1);
  QbDVector<double>& p = run.transform->paramVector;
  const double saved = p[i];
  p[i] += 0.5f;
  for (auto _ : state)
    benchmark::DoNotOptimize(run.probe(i, 0.5f));
  p[i] = saved;
  state.SetItemsProcessed(state.iterations() * boxVoxels);
  state.counters["boxVoxels"] = (double)boxVoxels;
}

// The six probes of the central control point in one walk of its box (the
// unregularised gradient's unit of work), after the box is taken out.
void BM_PointProbes(benchmark::State& state) {
  Run run(state.range(0) != 0, false);
  run.cache();
  const int i = run.centralParam();
  const int* box = run.functional->influenceBoxes[i];
  const int64_t boxVoxels =
      (int64_t)(box[1] - box[0] + 1) * (box[3] - box[2] + 1) * (box[5] - box[4] + 1);
  RegElasticPointProbes probes;
  for (int a = 0; a < 3; a++) {
    probes.add(i + a, 0.5f);
    probes.add(i + a, -0.5f);
  }
  run.functional->runProbes(probes);
  for (auto _ : state) {
    run.functional->runProbes(probes);
    benchmark::DoNotOptimize(run.functional->probeMetrics[5]->getResult());
  }
  state.SetItemsProcessed(state.iterations() * boxVoxels * probes.count);
  state.counters["boxVoxels"] = (double)boxVoxels;
}

// User and system time of the process so far, all threads.
double processSeconds() {
  rusage u;
  getrusage(RUSAGE_SELF, &u);
  return (double)(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         1e-6 * (double)(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}

// One whole gradient by finite differences with the host's thread count set
// to `threads` before the functional is made (1: the serial loop, 2 and more:
// that many workers).
void gradient(benchmark::State& state, bool regular, bool regularized, int threads) {
  ZrSettingsMgr::getInstance()->setNumThreads(threads);
  Run run(regular, regularized);
  QbDVector<double> g(run.transform->paramVector.size());
  const double cpu0 = processSeconds();
  for (auto _ : state)
    benchmark::DoNotOptimize(run.functional->evaluate(g, 0.5, 1));
  state.counters["params"] = (double)g.size();
  state.counters["threads"] = (double)run.functional->numThreads;
  // CPU seconds of all threads per gradient: on a loaded machine the wall
  // time says little, and this shows what the threads cost together.
  state.counters["cpu_s"] = (processSeconds() - cpu0) / (double)state.iterations();
  // The share of voxels that the probes skipped as still (regular class).
  if (auto* r = dynamic_cast<RegElasticFunctionalRegular*>(run.functional.get()))
    if (r->stillVoxels)
      state.counters["still"] =
          (double)std::count(r->stillMap.begin(), r->stillMap.end(), 1) / (double)kVoxels;
}

// "1,2,4" to {1, 2, 4}; nothing for a malformed list.
std::vector<int> parseCounts(const char* text) {
  std::vector<int> out;
  const char* p = text;
  while (*p) {
    char* end = nullptr;
    const long n = std::strtol(p, &end, 10);
    if (end == p || n < 1 || n > 4096)
      return {};
    out.push_back((int)n);
    p = end;
    if (*p == ',')
      p++;
    else if (*p)
      return {};
  }
  return out;
}

} // namespace

// Arguments: (regular class, regularised).
BENCHMARK(BM_CachingPass)
    ->ArgsProduct({{1, 0}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(1.0);
BENCHMARK(BM_PointProbes)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Probe)->ArgsProduct({{1, 0}, {0, 1}})->Unit(benchmark::kMillisecond)->MinTime(1.0);

// Besides the options of the benchmark library: --bins=N, the metric's bins
// per axis (default 64), --lattice=N, the control points per axis (default
// 11), and --threads=LIST, the thread counts of the
// gradient benchmarks BM_Gradient/regular:R/regularized:Z/threads:N
// (default 1,2).
int main(int argc, char** argv) {
  std::vector<int> counts = {1, 2};
  int kept = 1;
  // --NAME=N with N in [low, high] into value: 1 if taken, 0 if arg is no
  // such option, -1 (with a message) if N is out of range.
  auto count = [](const char* arg, const char* name, int low, int high, int& value) {
    const size_t n = std::strlen(name);
    if (std::strncmp(arg, name, n) != 0)
      return 0;
    value = std::atoi(arg + n);
    if (value >= low && value <= high)
      return 1;
    std::fprintf(stderr, "bench_elastic: %.*s takes a count from %d to %d\n", (int)n - 1, name, low,
                 high);
    return -1;
  };
  for (int i = 1; i < argc; i++) {
    int taken = count(argv[i], "--bins=", 2, 4096, gBins);
    if (taken == 0)
      taken = count(argv[i], "--lattice=", 4, 64, gLattice);
    if (taken < 0)
      return 1;
    if (taken > 0)
      continue;
    if (std::strncmp(argv[i], "--threads=", 10) == 0) {
      counts = parseCounts(argv[i] + 10);
      if (counts.empty()) {
        std::fprintf(stderr, "bench_elastic: --threads takes counts like 1,2,4,8,16\n");
        return 1;
      }
      continue;
    }
    argv[kept++] = argv[i];
  }
  argc = kept;
  for (int regular : {1, 0})
    for (int regularized : {0, 1})
      for (int t : counts) {
        const std::string name = "BM_Gradient/regular:" + std::to_string(regular) +
                                 "/regularized:" + std::to_string(regularized) +
                                 "/threads:" + std::to_string(t);
        benchmark::RegisterBenchmark(
            name.c_str(),
            [=](benchmark::State& st) { gradient(st, regular != 0, regularized != 0, t); })
            ->Unit(benchmark::kSecond)
            ->Iterations(1)
            ->UseRealTime();
      }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
