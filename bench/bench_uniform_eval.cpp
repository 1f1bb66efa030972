// One evaluation of the uniform-grid functional on a 181 x 217 x 181 byte
// pair under a small affine transform, with normalised mutual information and
// with squared difference, on 1 and 2 threads. Reports reference voxels per
// second; the ratio of the two thread counts is the parallel speed-up.
#include "QbPrimType.h"
#include "RegAffineFunctionalUniform.h"
#include "RegAffineTransform.h"
#include "RegMeanSquaredDifference.h"
#include "RegNormMutualInformation.h"
#include "ZrMessage.h"
#include "ZrUniformScalarField3.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>

namespace {

const int kDims[3] = {181, 217, 181};
const float kBox[6] = {0, 180, 0, 216, 0, 180};

// A head-sized phantom: an ellipsoid of tissue-like grey values with some
// inner structure and texture, 0 outside.
std::unique_ptr<ZrUniformScalarField3> makePhantom(double shift) {
  auto f = std::make_unique<ZrUniformScalarField3>(kDims, QB_UINT8, kBox);
  uint8_t* data = static_cast<uint8_t*>(f->lattice.dataPtr());
  size_t idx = 0;
  for (int k = 0; k < kDims[2]; k++)
    for (int j = 0; j < kDims[1]; j++)
      for (int i = 0; i < kDims[0]; i++, idx++) {
        const double x = (i + shift - 90) / 75.0, y = (j - 108) / 95.0, z = (k - 90) / 80.0;
        const double r = x * x + y * y + z * z;
        double v = 0;
        if (r < 1.0) {
          v = r < 0.55 ? 110 + 40 * std::sin(9 * x) * std::cos(7 * y) : 200;
          v += 15 * std::sin(0.9 * i) * std::sin(0.7 * j + 0.5 * k);
        }
        data[idx] = (uint8_t)std::max(0.0, std::min(255.0, v));
      }
  return f;
}

struct Data {
  std::unique_ptr<ZrUniformScalarField3> reference = makePhantom(0.0), model = makePhantom(1.5);
  QbDArray<ZrSpatialData*> refs, models;
  std::unique_ptr<RegAffineTransform> transform;
  Data() {
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

Data& data() {
  static Data d;
  return d;
}

void run(benchmark::State& state, RegMetric* metric) {
  Data& d = data();
  const unsigned threads = (unsigned)state.range(0);
  RegAffineFunctionalUniform f(d.refs, d.models, RegInterpolatorStandard, d.transform.get(), metric,
                               nullptr, 3, threads);
  double value = 0;
  for (auto _ : state)
    benchmark::DoNotOptimize(value = f.evaluate());
  const double voxels = double(kDims[0]) * kDims[1] * kDims[2];
  state.counters["voxels/s"] =
      benchmark::Counter(voxels * state.iterations(), benchmark::Counter::kIsRate);
  state.counters["inside"] = double(f.metric->numInside) / voxels;
  state.counters["value"] = value;
}

void BM_UniformNMI(benchmark::State& state) {
  run(state, new RegNormMutualInformation(QB_UINT8, QB_UINT8, 0, 255, 0, 255, 64, 64, 1.0));
}

void BM_UniformMSD(benchmark::State& state) { run(state, new RegMeanSquaredDifference(1.0)); }

} // namespace

BENCHMARK(BM_UniformNMI)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UniformMSD)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
