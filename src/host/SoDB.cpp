#include "SoDB.h"
#include "SoSensorManager.h"

#include <atomic>

namespace {
std::atomic<bool> initialized{false};
}

void SoDB::init() { getSensorManager(); }

bool SoDB::isInitialized() { return initialized.load(); }

SoSensorManager* SoDB::getSensorManager() {
  // Never destroyed, so that a late caller during exit still finds it.
  static SoSensorManager* manager = new SoSensorManager;
  initialized = true;
  return manager;
}
