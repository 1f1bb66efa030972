// Evaluations per second of the host's field evaluators: a location set and
// one evaluation per item, at random points (cache-unfriendly) or along rows
// of a lattice (the order in which the functionals sample).
#include "QbPrimType.h"
#include "ZrCellLocator3.h"
#include "ZrCurvilinearCoord3.h"
#include "ZrEvalLanczos.h"
#include "ZrEvalNN.h"
#include "ZrEvalStandard.h"
#include "ZrLocation3.h"
#include "ZrRegScalarField3.h"
#include "ZrRegVectorField3.h"
#include "ZrStackedScalarField3.h"
#include "ZrUniformScalarField3.h"
#include <benchmark/benchmark.h>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

namespace {

const int kPoints = 1 << 16;

std::vector<float> randomPoints(const float box[6], unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<float> p(3 * kPoints);
  for (int n = 0; n < kPoints; n++)
    for (int a = 0; a < 3; a++)
      p[3 * n + a] = std::uniform_real_distribution<float>(box[2 * a], box[2 * a + 1])(rng);
  return p;
}

// kPoints points on rows along x, slightly off the nodes, as a functional's
// walk over a resampled reference would give.
std::vector<float> rowPoints(const float box[6]) {
  std::vector<float> p;
  p.reserve(3 * kPoints);
  const int nx = 256, ny = 16, nz = kPoints / (nx * ny);
  for (int k = 0; k < nz; k++)
    for (int j = 0; j < ny; j++)
      for (int i = 0; i < nx; i++) {
        p.push_back(box[0] + (box[1] - box[0]) * (i + 0.37f) / (nx + 1));
        p.push_back(box[2] + (box[3] - box[2]) * (j + 0.61f) / (ny + 1));
        p.push_back(box[4] + (box[5] - box[4]) * (k + 0.13f) / (nz + 1));
      }
  return p;
}

void fillRandom(ZrField3& f, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> v(0.0, 200.0);
  for (int c = 0; c < f.nDataVar(); c++)
    for (size_t n = 0; n < f.lattice.numNodes(); n++)
      f.lattice.setValue(n, v(rng), c);
}

void runEval(benchmark::State& state, ZrFieldEvaluator& ev, const std::vector<float>& pts) {
  std::unique_ptr<ZrLocation3> loc(ev.createLocation());
  float out[3] = {0, 0, 0};
  int n = 0;
  for (auto _ : state) {
    loc->set(&pts[3 * n]);
    ev.eval(loc.get(), out);
    benchmark::DoNotOptimize(out[0]);
    n = (n + 1) & (kPoints - 1);
  }
  state.SetItemsProcessed(state.iterations());
}

const float kBox[6] = {0.0f, 100.0f, 0.0f, 100.0f, 0.0f, 80.0f};

void BM_UniformTrilinear(benchmark::State& state) {
  const int dims[3] = {128, 128, 128};
  const int type = int(state.range(0));
  ZrUniformScalarField3 field(dims, type, kBox);
  fillRandom(field, 1);
  ZrEvalStandard ev(&field);
  runEval(state, ev, state.range(1) ? rowPoints(kBox) : randomPoints(kBox, 2));
  state.SetLabel(std::string(qbPrimTypeName(type)) + (state.range(1) ? " rows" : " random"));
}
BENCHMARK(BM_UniformTrilinear)->Args({QB_UINT8, 0})->Args({QB_FLOAT, 0})->Args({QB_FLOAT, 1});

void BM_UniformTrilinearVector3(benchmark::State& state) {
  const int dims[3] = {96, 96, 96};
  std::unique_ptr<ZrRegVectorField3> field(
      ZrRegVectorField3::create(dims, QB_FLOAT, ZR_COORD_UNIFORM));
  fillRandom(*field, 1);
  ZrEvalStandard ev(field.get());
  float box[6];
  field->getBoundingBox(box);
  runEval(state, ev, randomPoints(box, 3));
}
BENCHMARK(BM_UniformTrilinearVector3);

void BM_StackedTrilinear(benchmark::State& state) {
  const int dims[3] = {128, 128, 128};
  std::vector<float> z(128);
  for (int k = 0; k < 128; k++)
    z[k] = 80.0f * std::pow(k / 127.0f, 1.3f); // uneven slice spacing
  ZrStackedScalarField3 field(dims, QB_INT16, kBox, z.data());
  fillRandom(field, 1);
  ZrEvalStandard ev(&field);
  runEval(state, ev, state.range(0) ? rowPoints(kBox) : randomPoints(kBox, 4));
  state.SetLabel(state.range(0) ? "rows" : "random");
}
BENCHMARK(BM_StackedTrilinear)->Arg(0)->Arg(1);

// A smoothly deformed 64^3 grid over about the same space.
std::vector<float> wavyGrid(const int dims[3]) {
  std::vector<float> pos;
  pos.reserve(3 * size_t(dims[0]) * dims[1] * dims[2]);
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++) {
        pos.push_back(1.5f * (i + 0.3f * std::sin(0.3f * j + 0.2f * k)));
        pos.push_back(1.5f * (j + 0.3f * std::sin(0.25f * i) + 0.05f * k));
        pos.push_back(1.2f * (k + 0.3f * std::cos(0.2f * i + 0.15f * j)));
      }
  return pos;
}

void BM_CurvilinearLocation(benchmark::State& state) {
  const int dims[3] = {64, 64, 64};
  const std::vector<float> pos = wavyGrid(dims);
  std::unique_ptr<ZrRegVectorField3> field(
      ZrRegVectorField3::create(dims, QB_FLOAT, ZR_COORD_CURVILINEAR));
  std::copy(pos.begin(), pos.end(),
            static_cast<ZrCurvilinearCoord3*>(field->lattice.coords())->getPositions());
  fillRandom(*field, 1);
  float box[6];
  field->getBoundingBox(box);
  ZrEvalStandard ev(field.get());
  runEval(state, ev, state.range(0) ? rowPoints(box) : randomPoints(box, 5));
  state.SetLabel(state.range(0) ? "rows" : "random");
}
BENCHMARK(BM_CurvilinearLocation)->Arg(0)->Arg(1);

void BM_CellLocatorBuild(benchmark::State& state) {
  const int n = int(state.range(0));
  const int dims[3] = {n, n, n};
  const std::vector<float> pos = wavyGrid(dims);
  for (auto _ : state) {
    ZrCellLocator3 locator(dims, pos.data());
    benchmark::DoNotOptimize(locator.numBucketEntries());
  }
  state.SetItemsProcessed(state.iterations() * int64_t(n - 1) * (n - 1) * (n - 1));
  state.SetLabel("items = cells");
}
BENCHMARK(BM_CellLocatorBuild)->Arg(64)->Arg(128)->Unit(benchmark::kMillisecond);

void BM_NearestNeighbour(benchmark::State& state) {
  const int dims[3] = {128, 128, 128};
  ZrUniformScalarField3 field(dims, QB_UINT8, kBox);
  fillRandom(field, 1);
  std::unique_ptr<ZrFieldEvaluator> ev(ZrEvalNN::createEval(&field));
  runEval(state, *ev, randomPoints(kBox, 6));
}
BENCHMARK(BM_NearestNeighbour);

void BM_Lanczos(benchmark::State& state) {
  const int dims[3] = {128, 128, 128};
  ZrUniformScalarField3 field(dims, QB_FLOAT, kBox);
  fillRandom(field, 1);
  std::unique_ptr<ZrFieldEvaluator> ev(ZrEvalLanczos::createEval(&field));
  runEval(state, *ev, randomPoints(kBox, 7));
}
BENCHMARK(BM_Lanczos);

} // namespace
