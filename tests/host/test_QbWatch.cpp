// The accumulating stopwatch: start resets, stop adds the span from the start.
// Every bound is taken from readings of the same clock made around the calls,
// so a busy machine widens the bounds instead of failing them.
#include "QbWatch.h"

#include <gtest/gtest.h>

#include <sys/times.h>

namespace {

clock_t realNow() {
  struct tms t;
  return ::times(&t);
}

void burnCpu(clock_t ticks) {
  volatile double x = 1.0;
  struct tms t;
  ::times(&t);
  const clock_t begin = t.tms_utime + t.tms_stime;
  for (;;) {
    ::times(&t);
    if (t.tms_utime + t.tms_stime - begin >= ticks)
      return;
    for (int i = 0; i < 10000; i++)
      x = x * 1.0000001 + 1e-9;
  }
}

} // namespace

TEST(QbWatch, StartResetsAndStopAccumulatesFromTheStart) {
  const long rate = QbWatch::getTickRate();
  ASSERT_GT(rate, 0);
  QbWatch w;
  EXPECT_TRUE(w.isStopped());
  const clock_t beforeStart = realNow();
  w.start();
  const clock_t afterStart = realNow();
  EXPECT_FALSE(w.isStopped());
  burnCpu(std::max<clock_t>(1, rate / 10));
  const clock_t beforeStop = realNow();
  w.stop();
  const clock_t afterStop = realNow();
  const clock_t first = w.getTicks();
  EXPECT_GE(first, beforeStop - afterStart);
  EXPECT_LE(first, afterStop - beforeStart);
  EXPECT_GE(w.getTimes().tms_utime + w.getTimes().tms_stime, std::max<clock_t>(1, rate / 10));
  EXPECT_FLOAT_EQ(w.getElapsedSeconds(), float(first) / float(rate));

  // The start is not moved: a second stop adds the whole span again, twice
  // the first span plus whatever passed between the two stops.
  const clock_t beforeSecond = realNow();
  w.stop();
  const clock_t afterSecond = realNow();
  EXPECT_GE(w.getTicks(), 2 * first + (beforeSecond - afterStop));
  EXPECT_LE(w.getTicks(), 2 * first + (afterSecond - beforeStop));

  // A new start forgets all of it.
  w.start();
  EXPECT_EQ(w.getTicks(), 0);
  EXPECT_EQ(w.getTimes().tms_utime, 0);
}
