#pragma once
// The metrics of the probes of one control point, which the gradient's walk
// of the point fills together: owned clones of the functional's metric, one
// per probe, each started from the statistics with the point's box taken
// out.
#include "RegElasticPointProbes.h"
#include "RegMetric.h"
#include "RegMutualInformation.h"

class RegElasticProbeMetrics {
public:
  RegElasticProbeMetrics() = default;
  ~RegElasticProbeMetrics() { release(); }
  RegElasticProbeMetrics(const RegElasticProbeMetrics&) = delete;
  RegElasticProbeMetrics& operator=(const RegElasticProbeMetrics&) = delete;

  // Fresh clones of `metric`, the former ones released first.
  void reset(const RegMetric* metric) {
    release();
    for (RegMetric*& m : metrics)
      m = metric->clone();
  }
  // The first `count` metrics set to the statistics of `boxOut`.
  void restore(const RegMetric* boxOut, int count);
  // The statistics the gradient's probes start from (the caching pass's,
  // before any box is taken out), or null. For mutual information the
  // probes' results are then found from it through the entries they changed
  // (RegMutualInformation::getResultNear()). Set it again whenever those
  // statistics change.
  void setBase(const RegMetric* base);
  // getResult() of metric k, through the base where one is set.
  double result(int k);
  RegMetric* operator[](int k) const { return metrics[k]; }
  RegMetric* const* begin() const { return metrics; }
  RegMetric* const* end() const { return metrics + RegElasticPointProbes::kMax; }

private:
  void release() {
    for (RegMetric*& m : metrics) {
      delete m;
      m = nullptr;
    }
  }
  RegMetric* metrics[RegElasticPointProbes::kMax] = {};
  const RegMutualInformation* base = nullptr;
  RegMutualInformation::EntropySums sums;
};
