#pragma once
// Gradient search with a gradient of its own ("Extensive direction", the
// default of the optimizer menu). For each step size it probes every
// parameter by plus and minus one step, walks along the resulting direction,
// refines along it with shrinking moves, and retries with ever fewer
// parameters: each pass leaves out those with the weakest gradient.
#include "ZrOptimizer.h"

class ZrAggressiveDirectionOptimizer : public ZrOptimizer {
public:
  // Ratio of successive step sizes; optimize() replaces it by the ratio that
  // fits its step range, and the next call starts from that value.
  double stepFactor;
  // Fraction of the largest gradient entry by which the inclusion threshold
  // rises from one pass to the next; 0 or less makes a single pass.
  double thresholdStep;
  // Not 0: each refinement runs all rounds. 0: it skips the rounds of the
  // step sizes already done.
  int fullRefinement;
  // Parameters left alone (see ZrOptimizer::isSkippedParameter).
  int dimensionMode;

  ZrAggressiveDirectionOptimizer(RegOptimizerCallback* callback, double stepFactor,
                                 double thresholdStep, int fullRefinement, int dimensionMode);

  // Maximises from step a (the largest) down to step b.
  int optimize(double a, double b) override;

private:
  // True when the module or the user asked to stop.
  bool stopRequested() const;
};
