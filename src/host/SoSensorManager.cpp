#include "SoSensorManager.h"

void SoSensorManager::addCallback(Callback cb, void* userData) {
  if (!cb)
    return;
  std::lock_guard<std::mutex> lock(mutex);
  callbacks.push_back(Entry{cb, userData});
}

bool SoSensorManager::removeCallback(Callback cb, void* userData) {
  std::lock_guard<std::mutex> lock(mutex);
  for (auto it = callbacks.begin(); it != callbacks.end(); ++it)
    if (it->cb == cb && it->userData == userData) {
      callbacks.erase(it);
      return true;
    }
  return false;
}

int SoSensorManager::getNumCallbacks() const {
  std::lock_guard<std::mutex> lock(mutex);
  return (int)callbacks.size();
}

void SoSensorManager::processTimerQueue() { runCallbacks(); }

void SoSensorManager::processDelayQueue(bool) { runCallbacks(); }

void SoSensorManager::processQueues(int) { runCallbacks(); }

void SoSensorManager::runCallbacks() {
  // Run from a copy, unlocked, so that a callback may add or remove
  // registrations (its own included) or process the queues again.
  std::vector<Entry> current;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (callbacks.empty())
      return;
    current = callbacks;
  }
  for (const Entry& e : current)
    e.cb(e.userData);
}
