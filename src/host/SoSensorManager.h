#pragma once
// Queue of pending scene work. Without a display there is no scene to redraw:
// processing the queues runs whatever callbacks a front end registered (a
// redraw, say) and otherwise does nothing.
#include <mutex>
#include <vector>

class SoSensorManager {
public:
  typedef void (*Callback)(void* userData);

  SoSensorManager() = default;
  SoSensorManager(const SoSensorManager&) = delete;
  SoSensorManager& operator=(const SoSensorManager&) = delete;

  // Registers a callback run on every processing call. The same pair may be
  // added more than once and then runs that many times.
  void addCallback(Callback cb, void* userData);
  // Removes one registration of the pair; false if there was none.
  bool removeCallback(Callback cb, void* userData);
  int getNumCallbacks() const;

  void processTimerQueue();
  void processDelayQueue(bool isIdle);
  // Processes pending work of any kind; the argument is accepted for
  // compatibility and does not change what runs.
  void processQueues(int flags = 0);

private:
  void runCallbacks();

  struct Entry {
    Callback cb;
    void* userData;
  };
  mutable std::mutex mutex;
  std::vector<Entry> callbacks;
};
