#pragma once
// Line search along the functional's own gradient ("Line search" in the
// optimizer menu). For each step size, from the start step down to the end
// step, it walks along the gradient scaled to the step while the value
// rises, takes the last move back, and refines by probing both sides with a
// shrinking move. A new gradient is taken as long as the walk moved.
#include "QbDVector.h"
#include "ZrOptimizer.h"

class ZrBestDirectionOptimizer : public ZrOptimizer {
public:
  // Ratio of successive step sizes. The exact geometric schedule replaces it
  // by the ratio that fits the step range; the next call starts from there.
  double stepFactor;
  // Relative change below which a line walk stops. It grows tenfold with each
  // completed call, so that later levels stop sooner.
  double tolerance;
  // Most walking steps along gradients per step size; set by optimize() from
  // the level: 8 on the coarsest, 2 on the finest.
  int maxLineSteps;
  // true: the exact geometric schedule; false: a schedule whose ratio shrinks
  // during the level, faster on finer levels.
  bool extensive;

  ZrBestDirectionOptimizer(RegOptimizerCallback* callback, double stepFactor, double tolerance,
                           int maxLineSteps, bool extensive);

  // Maximises from step a (the largest) down to step b.
  int optimize(double a, double b) override;

  // The largest absolute entry; 0.0 for an empty vector.
  static double maxNorm(QbDVector<double>& v);
  // Writes the first 15 entries of v into text, which must hold them.
  void makeComment(QbDVector<double> v, char* text) const;
};
