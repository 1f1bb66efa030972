// The accumulating stopwatch: start resets, stop adds the span from the start.
// Every bound is taken from readings of the same clock made around the calls,
// so a busy machine that deschedules the test between two lines widens the
// bounds instead of failing them.
#include "QbWatch.h"

#include <gtest/gtest.h>

#include <sys/times.h>

namespace {

struct Reading {
  clock_t real;
  clock_t cpu;
};

Reading now() {
  struct tms t;
  clock_t real = ::times(&t);
  return {real, t.tms_utime + t.tms_stime};
}

// Burns at least `ticks` clock ticks of this process's CPU time.
void burnCpu(clock_t ticks) {
  volatile double x = 1.0;
  const clock_t begin = now().cpu;
  while (now().cpu - begin < ticks)
    for (int i = 0; i < 10000; i++)
      x = x * 1.0000001 + 1e-9;
}

clock_t cpuOf(const QbWatch& w) { return w.getTimes().tms_utime + w.getTimes().tms_stime; }

} // namespace

TEST(QbWatch, StartResetsAndStopAccumulatesFromTheStart) {
  const long rate = QbWatch::getTickRate();
  ASSERT_GT(rate, 0);
  // About 0.1 s of CPU.
  const clock_t burn = std::max<clock_t>(1, rate / 10);

  QbWatch w;
  EXPECT_TRUE(w.isStopped());
  const Reading beforeStart = now();
  w.start();
  const Reading afterStart = now();
  EXPECT_FALSE(w.isStopped());
  EXPECT_EQ(w.getTicks(), 0);
  burnCpu(burn);
  const Reading beforeStop = now();
  w.stop();
  const Reading afterStop = now();
  EXPECT_TRUE(w.isStopped());

  // The first span lies between the inner and the outer bracket.
  const clock_t first = w.getTicks();
  const clock_t firstCpu = cpuOf(w);
  EXPECT_GE(first, beforeStop.real - afterStart.real);
  EXPECT_LE(first, afterStop.real - beforeStart.real);
  EXPECT_GE(firstCpu, beforeStop.cpu - afterStart.cpu);
  EXPECT_LE(firstCpu, afterStop.cpu - beforeStart.cpu);
  EXPECT_GE(firstCpu, burn);
  EXPECT_FLOAT_EQ(w.getElapsedSeconds(), float(first) / float(rate));
  EXPECT_FLOAT_EQ(w.getCpuSeconds(), float(firstCpu) / float(rate));

  // The start is not moved: a second stop adds the whole span again, that is
  // twice the first span plus whatever passed between the two stops.
  const Reading beforeSecond = now();
  w.stop();
  const Reading afterSecond = now();
  const clock_t second = w.getTicks();
  EXPECT_GE(second, 2 * first + (beforeSecond.real - afterStop.real));
  EXPECT_LE(second, 2 * first + (afterSecond.real - beforeStop.real));
  const clock_t secondCpu = cpuOf(w);
  EXPECT_GE(secondCpu, 2 * firstCpu + (beforeSecond.cpu - afterStop.cpu));
  EXPECT_LE(secondCpu, 2 * firstCpu + (afterSecond.cpu - beforeStop.cpu));

  // A new start forgets all of it.
  const Reading beforeRestart = now();
  w.start();
  EXPECT_EQ(w.getTicks(), 0);
  EXPECT_EQ(w.getTimes().tms_utime, 0);
  EXPECT_EQ(w.getTimes().tms_stime, 0);
  w.stop();
  const Reading afterRestart = now();
  EXPECT_GE(w.getTicks(), 0);
  EXPECT_LE(w.getTicks(), afterRestart.real - beforeRestart.real);
  EXPECT_LE(cpuOf(w), afterRestart.cpu - beforeRestart.cpu);
}
