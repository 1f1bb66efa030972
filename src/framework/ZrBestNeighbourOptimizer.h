#pragma once
// Best-neighbour search: probes each variable parameter by plus and minus one
// step, accepts only the single best neighbour of each sweep, and sweeps
// again at the same step until nothing improves; then the step shrinks
// geometrically from the start step to the end step.
#include "ZrOptimizer.h"

class ZrBestNeighbourOptimizer : public ZrOptimizer {
public:
  // Ratio between successive step sizes. optimize() replaces it by the ratio
  // that fits its step range, and the next call starts from that value.
  double stepFactor;
  // Parameters left out of the sweeps (see ZrOptimizer::isSkippedParameter).
  int dimensionMode;

  ZrBestNeighbourOptimizer(RegOptimizerCallback* callback, double stepFactor, int dimensionMode);

  // Maximises from step a down to step b.
  int optimize(double a, double b) override;
};
