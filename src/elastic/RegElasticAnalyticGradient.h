#pragma once
// The analytic gradient of an elastic functional: the exact derivative of
// its objective with respect to every control-point coordinate, from one
// caching pass and one pass over the reference voxels, in place of the two
// box probes per parameter of the central differences.
//
// It serves mutual information, its normalised form, squared difference and
// correlation with the trilinear sampling of a uniform model, with both
// penalties and landmarks, in two and three dimensions. Label difference has
// no derivative; isAvailable() says so, and the functional keeps the central
// differences.
//
// The entries are on the scale of the central differences, (upper - lower) /
// d = twice the derivative, so that the optimizers' step sizes stay as they
// are. Fixed coordinates (a step of 0: fixed control points, z of a flat
// lattice) get 0. There is no probe, so every entry is kept whatever
// `keepAll` says: the derivative is the slope itself, not a trial.
#include "QbDArray.h"
#include "QbDVector.h"

#include <cstdint>
#include <vector>

class RegElasticFunctional;
struct RegAnalyticRefBin;

class RegElasticAnalyticGradient {
public:
  // Threads of the voxel pass; 0 takes the host's thread count. The result
  // does not depend on it.
  int numThreads = 0;
  // Three-dimensional lattices: the objective takes every sampleStride-th
  // reference voxel along each axis.
  int sampleStride = 1;

  RegElasticAnalyticGradient();
  RegElasticAnalyticGradient(const RegElasticAnalyticGradient&) = delete;
  RegElasticAnalyticGradient& operator=(const RegElasticAnalyticGradient&) = delete;
  ~RegElasticAnalyticGradient();

  // Whether f's metric, transform and model have an analytic gradient; if
  // not, `why` (when given) receives the reason.
  static bool isAvailable(const RegElasticFunctional& f, const char** why = nullptr);

  // The objective of f, as evaluate() (cache false) or the caching pass
  // (cache true: the samples, statistics and penalty sums that the gradient
  // works from) give it. Three-dimensional lattices are walked in parallel,
  // in blocks of slices whose sums are added in a fixed order; flat ones by
  // the functional's own serial passes.
  double value(RegElasticFunctional& f, bool cache);

  // The caching pass of f, the fixing of control points when it is pending,
  // and the gradient. Returns the value of the caching pass, or the invalid
  // value (a fold, or a stop requested during the pass: `gradient` is then
  // not complete).
  double evaluate(RegElasticFunctional& f, QbDVector<double>& gradient);

  // The gradient at the state of f's last caching pass, without the pass.
  void compute(RegElasticFunctional& f, QbDVector<double>& gradient);

private:
  // Column, row and line scratch of each thread, and the outputs of the work
  // units; grown when needed, never in the voxel loop.
  QbDArray<double> scratch;
  QbDArray<double> unitOut;
  QbDArray<double> slopeTable;
  QbDArray<double> sums;
  // Per block of a value pass: penalty sums, counts, the metric's sums, and
  // the histogram of mutual information.
  QbDArray<double> blockSums;
  QbDArray<double> blockHist;
  // The reference's histogram bins by voxel value (voxel types of 16 bits
  // and less).
  std::vector<RegAnalyticRefBin> refBins;

  int threadsToUse() const;
};
