#include "QbWatch.h"

#include <unistd.h>

QbWatch::QbWatch() : stopped(true), ticks(0), times{}, startTicks(0), startTimes{} {}

void QbWatch::start() {
  stopped = false;
  ticks = 0;
  times = tms{};
  startTicks = ::times(&startTimes);
}

void QbWatch::stop() {
  stopped = true;
  struct tms now;
  clock_t nowTicks = ::times(&now);
  ticks += nowTicks - startTicks;
  times.tms_utime += now.tms_utime - startTimes.tms_utime;
  times.tms_stime += now.tms_stime - startTimes.tms_stime;
  times.tms_cutime += now.tms_cutime - startTimes.tms_cutime;
  times.tms_cstime += now.tms_cstime - startTimes.tms_cstime;
}

long QbWatch::getTickRate() { return sysconf(_SC_CLK_TCK); }

float QbWatch::getElapsedSeconds() const { return float(ticks) / float(getTickRate()); }

float QbWatch::getCpuSeconds() const {
  return float(times.tms_utime + times.tms_stime) / float(getTickRate());
}
