// One evaluation of the uniform-grid functional on a 181 x 217 x 181 byte
// pair (the size of a 1 mm brain scan) under a small affine transform, with
// normalised mutual information (also on a label pair, by partial volume),
// squared difference and correlation, beside
// the memory-bound limit: a plain pass that reads the same reference voxels
// and as many model voxels and adds them up, with the same threads and
// schedule. The arguments are the thread count (1, 2, 4, 8, 16) and the
// level: 1 the 1 mm pair, 2 the same head on 2 mm voxels.
//
// Counters: voxels/s, reference voxels per second of wall time; voxels/cpu-s,
// per second of the process's CPU time, which is the figure per busy thread
// and the one to compare on a shared machine (other processes take the wall
// time, not the CPU time).
//
//   bench_uniform_eval --benchmark_filter='NMI|Limit' --benchmark_repetitions=5
#include "BenchPhantom.h"
#include "QbPrimType.h"
#include "RegAffineFunctionalUniform.h"
#include "RegAffineTransform.h"
#include "RegCorrelationRatio.h"
#include "RegMeanSquaredDifference.h"
#include "RegNormMutualInformation.h"
#include "ZrMessage.h"
#include "ZrUniformScalarField3.h"

#include <benchmark/benchmark.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <memory>

namespace {

struct Data {
  std::unique_ptr<ZrUniformScalarField3> reference, model;
  QbDArray<ZrSpatialData*> refs, models;
  std::unique_ptr<RegAffineTransform> transform;
  double voxels;
  explicit Data(int reduce) : reference(makePhantom(0.0, reduce)), model(makePhantom(1.5, reduce)) {
    voxels = double(reference->lattice.numNodes());
    ZrMessage::getTheMsg()->setQuiet(true);
    refs.append(reference.get());
    models.append(model.get());
    transform = std::make_unique<RegAffineTransform>(refs, model.get(), 12);
    // A small affine motion: about a voxel of translation, a few degrees of
    // rotation, two percent of scale.
    const double d[9] = {1.2, -0.8, 0.6, 2.0, -1.5, 3.0, 1.02, 0.99, 1.01};
    for (int i = 0; i < 6; i++)
      transform->paramVector[i] += d[i];
    for (int i = 6; i < 9; i++)
      transform->paramVector[i] *= d[i];
  }
};

// The 1 mm pair (level 1), or the 2 mm pair (level 2): a pyramid level the
// size of the finest one an affine run optimises by default, whose model
// fits the second-level cache.
Data& data(int level = 1) {
  static Data one(1);
  if (level == 1)
    return one;
  static Data two(2);
  return two;
}

// data(level) with every voxel quantised to one of 16 labels, 0 to 105 in steps
// of 7.
Data& labelData(int level = 1) {
  auto quantise = [](Data& d) {
    for (ZrUniformScalarField3* f : {d.reference.get(), d.model.get()}) {
      uint8_t* v = static_cast<uint8_t*>(f->lattice.dataPtr());
      for (size_t i = 0, n = f->lattice.numNodes(); i < n; i++)
        v[i] = v[i] / 16 * 7;
    }
  };
  static Data one(1), two(2);
  static bool done = (quantise(one), quantise(two), true);
  (void)done;
  return level == 1 ? one : two;
}

double processCpuSeconds() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec + 1e-9 * t.tv_nsec;
}

void setCounters(benchmark::State& state, double voxels, double cpu) {
  state.counters["voxels/s"] =
      benchmark::Counter(voxels * state.iterations(), benchmark::Counter::kIsRate);
  state.counters["voxels/cpu-s"] = voxels * state.iterations() / cpu;
}

void run(benchmark::State& state, RegMetric* metric, bool labels = false) {
  Data& d = labels ? labelData((int)state.range(1)) : data((int)state.range(1));
  const unsigned threads = (unsigned)state.range(0);
  RegAffineFunctionalUniform f(d.refs, d.models, RegInterpolatorStandard, d.transform.get(), metric,
                               nullptr, 3, threads);
  f.evaluate();
  double value = 0;
  const double cpu0 = processCpuSeconds();
  for (auto _ : state)
    benchmark::DoNotOptimize(value = f.evaluate());
  setCounters(state, d.voxels, processCpuSeconds() - cpu0);
  state.counters["inside"] = double(f.metric->numInside) / d.voxels;
  state.counters["value"] = value;
}

void BM_UniformNMI(benchmark::State& state) {
  run(state, new RegNormMutualInformation(QB_UINT8, QB_UINT8, 0, 255, 0, 255, 64, 64, 1.0));
}

// The same pair quantised into 16 labels, walked by partial volume as label
// models are, with one bin for each value from 0 to 105 as the integer bin
// rule gives an atlas (most bins stay empty). The phantom's labels meet far
// more often than an atlas's: this is the walk's slow end.
void BM_UniformNMILabels(benchmark::State& state) {
  auto* mi = new RegNormMutualInformation(QB_UINT8, QB_UINT8, 0, 105, 0, 105, 128, 128, 1.0);
  mi->partialVolume = true;
  run(state, mi, true);
}

void BM_UniformMSD(benchmark::State& state) { run(state, new RegMeanSquaredDifference(1.0)); }

void BM_UniformCorr(benchmark::State& state) {
  run(state, new RegCorrelationRatio(0, 255, 0, 255, 1.0));
}

// The limit: every reference voxel and the model voxel of the same index are
// read once and added, slices dealt round-robin as in the walks. Nothing is
// interpolated or binned, so no walk over these voxels can be faster.
void BM_Limit(benchmark::State& state) {
  Data& d = data((int)state.range(1));
  const int threads = (int)state.range(0);
  const uint8_t* ref = static_cast<const uint8_t*>(d.reference->lattice.dataPtr());
  const uint8_t* model = static_cast<const uint8_t*>(d.model->lattice.dataPtr());
  const int* dims = d.reference->lattice.getDims();
  const size_t slice = size_t(dims[0]) * dims[1];
  const int saved = omp_get_max_threads();
  omp_set_num_threads(threads);
  const double cpu0 = processCpuSeconds();
  for (auto _ : state) {
    uint64_t sum = 0;
#pragma omp parallel for schedule(static, 1) reduction(+ : sum)
    for (int k = 0; k < dims[2]; k++) {
      const uint8_t* r = ref + k * slice;
      const uint8_t* m = model + k * slice;
      uint64_t s = 0;
      for (size_t i = 0; i < slice; i++)
        s += unsigned(r[i]) + unsigned(m[i]);
      sum += s;
    }
    benchmark::DoNotOptimize(sum);
  }
  setCounters(state, d.voxels, processCpuSeconds() - cpu0);
  omp_set_num_threads(saved);
}

void threadCounts(benchmark::internal::Benchmark* b) {
  for (int level : {1, 2})
    for (int t : {1, 2, 4, 8, 16})
      b->Args({t, level});
  b->ArgNames({"threads", "level"})->UseRealTime()->Unit(benchmark::kMillisecond);
}

} // namespace

BENCHMARK(BM_UniformNMI)->Apply(threadCounts);
BENCHMARK(BM_UniformNMILabels)->Apply(threadCounts);
BENCHMARK(BM_UniformMSD)->Apply(threadCounts);
BENCHMARK(BM_UniformCorr)->Apply(threadCounts);
BENCHMARK(BM_Limit)->Apply(threadCounts);
