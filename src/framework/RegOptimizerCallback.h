#pragma once
// The view of a registration module that optimizers and functionals hold:
// showing the present transform, asking whether to stop, and tracing.
#include "QbWatch.h"

class RegParametricTransform;

class RegOptimizerCallback {
public:
  // Set when the user asked the module to stop.
  bool interrupted = false;
  // Accumulating stopwatch of the run, started and stopped by the driver.
  QbWatch watch;

  RegOptimizerCallback() = default;
  virtual ~RegOptimizerCallback();

  // Shows the present transform (may be null) and returns whether to stop.
  virtual bool applyTransform(RegParametricTransform* transform) = 0;
  // True when the run should stop. Nothing stops it here.
  virtual bool checkForInterrupt();
  virtual void trace(const char* text) = 0;
};
