#include "ZrSettingsMgr.h"

#include <cerrno>
#include <cstdlib>
#include <thread>

ZrSettingsMgr* ZrSettingsMgr::getInstance() {
  static ZrSettingsMgr* settings = new ZrSettingsMgr;
  return settings;
}

ZrSettingsMgr::ZrSettingsMgr() : numThreads(getDefaultNumThreads()) {}

int ZrSettingsMgr::getDefaultNumThreads() {
  if (const char* env = std::getenv("ZR_NUM_THREADS")) {
    errno = 0;
    char* end = nullptr;
    long n = std::strtol(env, &end, 10);
    // Anything but a plain positive number is ignored.
    if (end != env && *end == '\0' && errno == 0 && n > 0 && n <= 1 << 16)
      return (int)n;
  }
  unsigned int hw = std::thread::hardware_concurrency();
  return hw > 0 ? (int)hw : 1;
}

void ZrSettingsMgr::setNumThreads(int n) { numThreads = n > 0 ? n : getDefaultNumThreads(); }
