#pragma once
// Minus the fraction of sample pairs whose labels disagree: 0 for identical
// label images, -1 when no label matches. Labels compare exactly, so the
// model must be sampled at the nearest voxel; an interpolated value between
// two labels counts as a disagreement.
//
// It shares the squared-difference bookkeeping (sum, overlap rule, result),
// only the term per sample differs. The uniform-grid functional must not be
// given this metric: it would take it for squared difference.
#include "RegMeanSquaredDifference.h"

class RegLabelDifference : public RegMeanSquaredDifference {
public:
  explicit RegLabelDifference(double maxCoverage);
  ~RegLabelDifference() override;

  RegMetric* clone() const override;
  void increment(double ref, double model) override;
  void decrement(double ref, double model) override;
};

// Inline, so that walks which bind these calls at compile time can inline them.
inline void RegLabelDifference::increment(double ref, double model) {
  numInside++;
  numTotal++;
  if (ref != model)
    sum -= 1.0;
}

inline void RegLabelDifference::decrement(double ref, double model) {
  numInside--;
  numTotal--;
  if (ref != model)
    sum += 1.0;
}
