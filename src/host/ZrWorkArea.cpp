#include "ZrWorkArea.h"

#include <algorithm>
#include <cmath>

ZrWorkArea* ZrWorkArea::getTheWorkArea() {
  // Never destroyed: a signal handler or a late thread may still reach it.
  static ZrWorkArea* wa = new ZrWorkArea;
  return wa;
}

void ZrWorkArea::setProgressInfo(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = ZrMessage::vformat(format, args);
  va_end(args);
  std::lock_guard<std::recursive_mutex> lock(mutex);
  info = text;
  for (ZrWorkAreaListener* l : std::vector<ZrWorkAreaListener*>(listeners))
    l->progressInfoChanged(text);
}

std::string ZrWorkArea::getProgressInfo() const {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  return info;
}

void ZrWorkArea::setProgressValue(float value) {
  if (!(value > 0.0f)) // also NaN
    value = 0.0f;
  if (value > 1.0f)
    value = 1.0f;
  progress.store(value, std::memory_order_relaxed);
  std::lock_guard<std::recursive_mutex> lock(mutex);
  for (ZrWorkAreaListener* l : std::vector<ZrWorkAreaListener*>(listeners))
    l->progressValueChanged(value);
}

void ZrWorkArea::start(const std::string& text) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  int d = depth.fetch_add(1) + 1;
  if (d == 1) {
    clearInterrupt();
    progress.store(0.0f, std::memory_order_relaxed);
  }
  if (!text.empty())
    info = text;
  for (ZrWorkAreaListener* l : std::vector<ZrWorkAreaListener*>(listeners))
    l->workStarted(text, d);
}

void ZrWorkArea::startWorking(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string text = ZrMessage::vformat(format, args);
  va_end(args);
  start(text);
}

void ZrWorkArea::startWorking() { start(std::string()); }

void ZrWorkArea::stopWorking() {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  int d = depth.load();
  if (d <= 0)
    return;
  depth.store(d - 1);
  bool interrupted = wasInterrupted(0) != 0;
  for (ZrWorkAreaListener* l : std::vector<ZrWorkAreaListener*>(listeners))
    l->workStopped(d - 1, interrupted);
}

void ZrWorkArea::addListener(ZrWorkAreaListener* listener) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  if (listener && std::find(listeners.begin(), listeners.end(), listener) == listeners.end())
    listeners.push_back(listener);
}

void ZrWorkArea::removeListener(ZrWorkAreaListener* listener) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  listeners.erase(std::remove(listeners.begin(), listeners.end(), listener), listeners.end());
}
