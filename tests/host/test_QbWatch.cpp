// The accumulating stopwatch: start resets, stop adds the span from the start.
#include "QbWatch.h"

#include <gtest/gtest.h>

#include <sys/times.h>

#include <chrono>
#include <cmath>

namespace {

clock_t cpuTicksNow() {
  struct tms t;
  times(&t);
  return t.tms_utime + t.tms_stime;
}

// Burns at least `ticks` clock ticks of this process's CPU time.
void burnCpu(clock_t ticks) {
  volatile double x = 1.0;
  clock_t begin = cpuTicksNow();
  while (cpuTicksNow() - begin < ticks)
    for (int i = 0; i < 10000; i++)
      x = x * 1.0000001 + 1e-9;
}

} // namespace

TEST(QbWatch, StartResetsAndStopAccumulatesFromTheStart) {
  const long rate = QbWatch::getTickRate();
  ASSERT_GT(rate, 0);
  // About 0.1 s of CPU.
  const clock_t burn = std::max<clock_t>(1, rate / 10);

  QbWatch w;
  w.start();
  EXPECT_FALSE(w.isStopped());
  EXPECT_EQ(w.getTicks(), 0);
  auto before = std::chrono::steady_clock::now();
  burnCpu(burn);
  w.stop();
  double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - before).count();
  EXPECT_TRUE(w.isStopped());

  const clock_t first = w.getTicks();
  const clock_t firstCpu = w.getTimes().tms_utime + w.getTimes().tms_stime;
  EXPECT_GE(firstCpu, burn);
  // Real time is at least the CPU time of one thread, give or take a tick.
  EXPECT_GE(first + 1, firstCpu);
  EXPECT_NEAR(w.getElapsedSeconds(), wall, 2.0 / rate + 0.01);

  // The start is not moved: a second stop adds the whole span again.
  w.stop();
  const clock_t second = w.getTicks();
  EXPECT_GE(second, 2 * first);
  EXPECT_LE(second, 2 * first + 5);
  const clock_t secondCpu = w.getTimes().tms_utime + w.getTimes().tms_stime;
  EXPECT_GE(secondCpu, 2 * firstCpu);
  EXPECT_LE(secondCpu, 2 * firstCpu + 5);

  // A new start forgets all of it.
  w.start();
  EXPECT_EQ(w.getTicks(), 0);
  EXPECT_EQ(w.getTimes().tms_utime, 0);
  EXPECT_EQ(w.getTimes().tms_stime, 0);
  w.stop();
  EXPECT_LE(w.getTicks(), 2);
}
