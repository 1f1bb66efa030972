#pragma once
// Scene database of the host. Only its sensor manager is used: registration
// code asks it to process pending work so that a moving model is redrawn.
class SoSensorManager;

class SoDB {
public:
  // Creates the process-wide state if it does not exist yet. Optional: the
  // accessors create it on first use.
  static void init();
  static bool isInitialized();
  // The process-wide sensor manager; never null.
  static SoSensorManager* getSensorManager();
};
