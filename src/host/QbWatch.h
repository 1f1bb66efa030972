#pragma once
// Accumulating stopwatch over the POSIX times() call. start() zeroes the
// accumulated values and records the start; stop() adds the span from that
// start to the accumulated values without moving the start, so a second
// stop() counts the span from the start once more.
#include <ctime>
#include <sys/times.h>

class QbWatch {
public:
  QbWatch();
  ~QbWatch() = default;

  void start();
  void stop();

  bool isStopped() const { return stopped; }
  // Accumulated real time, in clock ticks.
  clock_t getTicks() const { return ticks; }
  // Accumulated process times (user, system, children's user and system), in
  // clock ticks.
  const struct tms& getTimes() const { return times; }
  // Clock ticks per second, sysconf(_SC_CLK_TCK).
  static long getTickRate();
  // Accumulated real time in seconds, computed in single precision.
  float getElapsedSeconds() const;
  // Accumulated user plus system time of the process, in seconds.
  float getCpuSeconds() const;

private:
  bool stopped;
  clock_t ticks;         // accumulated
  struct tms times;      // accumulated
  clock_t startTicks;    // at the last start()
  struct tms startTimes; // at the last start()
};
