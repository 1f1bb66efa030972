#pragma once
// Abstract optimizer: maximises a functional by changing its transform's
// paramVector in place. It polls for interruption between evaluations and
// returns soon after one.
class RegFunctional;
class RegOptimizerCallback;
class RegParametricTransform;

class ZrOptimizer {
public:
  // Not owned.
  RegOptimizerCallback* callback;
  short level = 0;
  // Recompute the parameter steps after each successful sweep (best-neighbour
  // search only).
  bool refreshSteps = false;
  // Not owned.
  RegFunctional* functional = nullptr;
  // The functional's transform; not owned.
  RegParametricTransform* transform = nullptr;
  // Progress bookkeeping: the bar is divided into progressSteps slices, of
  // which progressStep (counted from 1) is the present one.
  int currentLevel = 0;
  int numLevels = 1;
  int progressStep = 0;
  int progressSteps = 0;

  explicit ZrOptimizer(RegOptimizerCallback* callback);
  ZrOptimizer(const ZrOptimizer&) = delete;
  ZrOptimizer& operator=(const ZrOptimizer&) = delete;
  virtual ~ZrOptimizer();

  // Searches from step size startStep down to endStep and leaves the result
  // in the transform. The return value carries no meaning for callers.
  virtual int optimize(double startStep, double endStep) = 0;
  virtual void setLevel(short level);

  // Stores the functional and takes over its transform; null clears both.
  void setFunctional(RegFunctional* functional);
  // With level -1 only advances progressStep. Otherwise currentLevel becomes
  // level + 1, numLevels is stored unless -1, progressStep becomes step + 1
  // (currentLevel for -1) and progressSteps becomes steps (numLevels for -1).
  void setProgressLevel(int level, int numLevels = -1, int step = -1, int steps = -1);

  // True when a search with `dimensionMode` leaves parameter `index` alone,
  // which keeps a two-dimensional registration within its plane:
  //   0: 0, 4, 5, 6, 9, 10     1: 1, 3, 5, 7, 9, 11     2: 2, 3, 4, 8, 10, 11
  //   4: 3, 4, 8, 10, 11       3 and any other value: none
  static bool isSkippedParameter(int dimensionMode, int index);
};
