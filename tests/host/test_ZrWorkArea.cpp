// The work area (progress, status, interruption), its terminal front end with
// the Ctrl-C handler, and the message stream.
#include "ZrMessage.h"
#include "ZrTerminalProgress.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

class Recorder : public ZrWorkAreaListener {
public:
  void workStarted(const std::string& text, int depth) override {
    events.push_back("start " + std::to_string(depth) + " " + text);
  }
  void workStopped(int depth, bool interrupted) override {
    events.push_back("stop " + std::to_string(depth) + (interrupted ? " interrupted" : ""));
  }
  void progressInfoChanged(const std::string& text) override { events.push_back("info " + text); }
  void progressValueChanged(float value) override { values.push_back(value); }
  std::vector<std::string> events;
  std::vector<float> values;
};

// Everything written to a temporary file, as a string.
std::string contents(FILE* f) {
  std::fflush(f);
  long size = std::ftell(f);
  std::string s(size, '\0');
  std::rewind(f);
  size_t n = std::fread(&s[0], 1, size, f);
  s.resize(n);
  std::fseek(f, 0, SEEK_END);
  return s;
}

class WorkAreaTest : public ::testing::Test {
protected:
  void TearDown() override {
    while (wa->isWorking())
      wa->stopWorking();
    wa->clearInterrupt();
    wa->setProgressValue(0.0f);
  }
  ZrWorkArea* wa = ZrWorkArea::getTheWorkArea();
};

} // namespace

TEST_F(WorkAreaTest, InterruptIsSeenByOtherThreads) {
  wa->startWorking("Registering");
  std::atomic<int> polls{0};
  std::atomic<bool> seen{false};
  std::thread worker([&] {
    // An optimizer polling between evaluations.
    while (!wa->wasInterrupted(1))
      polls++;
    seen = true;
  });
  while (polls.load() < 1000)
    std::this_thread::yield();
  EXPECT_FALSE(seen.load());
  wa->requestInterrupt();
  worker.join();
  EXPECT_TRUE(seen.load());
  EXPECT_NE(wa->wasInterrupted(1), 0);
  // The flag stays until cleared or until the next piece of work starts.
  EXPECT_NE(wa->wasInterrupted(0), 0);
  wa->stopWorking();
  wa->startWorking("Next run");
  EXPECT_EQ(wa->wasInterrupted(1), 0);
  wa->requestInterrupt();
  wa->clearInterrupt();
  EXPECT_EQ(wa->wasInterrupted(1), 0);
}

TEST_F(WorkAreaTest, CtrlCRequestsAStopDuringWork) {
  ZrTerminalProgress::installSigintHandler();
  wa->startWorking("Registering");
  std::raise(SIGINT);
  EXPECT_NE(wa->wasInterrupted(1), 0);
  wa->stopWorking();
  ZrTerminalProgress::uninstallSigintHandler();
}

TEST(ZrTerminalProgressDeathTest, SecondCtrlCQuits) {
  EXPECT_EXIT(
      {
        ZrTerminalProgress::installSigintHandler();
        ZrWorkArea::getTheWorkArea()->startWorking("Registering");
        std::raise(SIGINT);
        std::raise(SIGINT);
        std::exit(0);
      },
      ::testing::KilledBySignal(SIGINT), "");
  // Outside a piece of work there is nothing to stop, so Ctrl-C quits.
  EXPECT_EXIT(
      {
        ZrTerminalProgress::installSigintHandler();
        std::raise(SIGINT);
        std::exit(0);
      },
      ::testing::KilledBySignal(SIGINT), "");
}

TEST(ZrMessage, ShownMessagesEachEndTheirLine) {
  // Reports printed in pieces without line ends come out a line each; a text
  // that ends its line is not given a second line end.
  FILE* f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  for (const char* text : {"step size    : 0.047247", "Metric result: 1.18643",
                           "numBinsRef, numBinsMod: 135 135\n", "", "elapsed time: 0.20 seconds\n"})
    ZrMessage::putLine(f, text);
  EXPECT_EQ(contents(f), "step size    : 0.047247\nMetric result: 1.18643\n"
                         "numBinsRef, numBinsMod: 135 135\nelapsed time: 0.20 seconds\n");
  std::fclose(f);
}
