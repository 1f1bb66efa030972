#pragma once
// Settings of the host that modules read. Only the number of threads that
// parallel computations may use lives here.
class ZrSettingsMgr {
public:
  static ZrSettingsMgr* getInstance();

  // At least 1.
  int getNumThreads() const { return numThreads; }
  // A count below 1 restores the default.
  void setNumThreads(int n);

  // The number of hardware threads (at least 1), unless the environment
  // variable ZR_NUM_THREADS holds a positive number, which then wins.
  static int getDefaultNumThreads();

private:
  ZrSettingsMgr();
  int numThreads;
};
