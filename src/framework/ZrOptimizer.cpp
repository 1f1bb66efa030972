#include "ZrOptimizer.h"

#include "RegFunctional.h"

ZrOptimizer::ZrOptimizer(RegOptimizerCallback* callback) : callback(callback) {}

ZrOptimizer::~ZrOptimizer() {}

void ZrOptimizer::setLevel(short newLevel) { level = newLevel; }

void ZrOptimizer::setFunctional(RegFunctional* newFunctional) {
  functional = newFunctional;
  transform = newFunctional ? newFunctional->transform : nullptr;
}

void ZrOptimizer::setProgressLevel(int newLevel, int newNumLevels, int step, int steps) {
  if (newLevel == -1) {
    progressStep++;
    return;
  }
  currentLevel = newLevel + 1;
  if (newNumLevels != -1)
    numLevels = newNumLevels;
  progressStep = step == -1 ? currentLevel : step + 1;
  progressSteps = steps == -1 ? numLevels : steps;
}

bool ZrOptimizer::isSkippedParameter(int dimensionMode, int index) {
  switch (dimensionMode) {
  case 0:
    return index == 0 || index == 4 || index == 5 || index == 6 || index == 9 || index == 10;
  case 1:
    return index == 1 || index == 3 || index == 5 || index == 7 || index == 9 || index == 11;
  case 2:
    return index == 2 || index == 3 || index == 4 || index == 8 || index == 10 || index == 11;
  case 4:
    return index == 3 || index == 4 || index == 8 || index == 10 || index == 11;
  default:
    return false;
  }
}
