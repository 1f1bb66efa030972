#pragma once
// The host's work area: a status line, a progress bar, and the user's request
// to stop. The work area draws nothing itself; front ends register as
// listeners and display what it reports.
//
// wasInterrupted() is a single atomic load, cheap enough to be polled between
// evaluations, and safe from any thread. requestInterrupt() is a single
// atomic store, safe even from a signal handler.
#include <atomic>
#include <cstdarg>
#include <mutex>
#include <string>
#include <vector>

#include "ZrMessage.h"

class ZrWorkAreaListener {
public:
  virtual ~ZrWorkAreaListener() = default;
  // depth: the number of startWorking() calls now open, 1 for the outermost.
  virtual void workStarted(const std::string& text, int depth) {}
  // depth: the number still open after this stop, 0 when all work ended.
  virtual void workStopped(int depth, bool interrupted) {}
  virtual void progressInfoChanged(const std::string& text) {}
  virtual void progressValueChanged(float value) {}
};

class ZrWorkArea {
public:
  static ZrWorkArea* getTheWorkArea();

  // The status line, printf-style.
  void setProgressInfo(const char* format, ...) ZR_PRINTF_FORMAT(2, 3);
  std::string getProgressInfo() const;
  // The bar, 0 to 1; values outside are clamped, NaN counts as 0.
  void setProgressValue(float value);
  float getProgressValue() const { return progress.load(std::memory_order_relaxed); }

  // Starts a piece of work, with a status text. Calls nest; the outermost
  // start clears a pending interrupt and sets the bar to 0.
  void startWorking(const char* format, ...) ZR_PRINTF_FORMAT(2, 3);
  void startWorking();
  // Ends the innermost piece of work. Extra calls are ignored.
  void stopWorking();
  bool isWorking() const { return depth.load(std::memory_order_relaxed) > 0; }
  int getWorkingDepth() const { return depth.load(std::memory_order_relaxed); }

  // Non-zero once a stop was requested and until it is cleared. The argument
  // is accepted for the host's calling convention; no events are processed.
  int wasInterrupted(int checkEvents = 1) const {
    return interruptFlag.load(std::memory_order_relaxed);
  }
  void requestInterrupt() { interruptFlag.store(1, std::memory_order_relaxed); }
  void clearInterrupt() { interruptFlag.store(0, std::memory_order_relaxed); }

  void addListener(ZrWorkAreaListener* listener);
  void removeListener(ZrWorkAreaListener* listener);

private:
  ZrWorkArea() = default;
  void start(const std::string& text);

  std::atomic<int> interruptFlag{0};
  std::atomic<float> progress{0.0f};
  std::atomic<int> depth{0};
  mutable std::recursive_mutex mutex;
  std::string info;
  std::vector<ZrWorkAreaListener*> listeners;
};
