// The work area (progress, status, interruption), its terminal front end with
// the Ctrl-C handler, the message stream and the thread-count setting.
#include "ZrMessage.h"
#include "ZrSettingsMgr.h"
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

int count(const std::string& s, const std::string& what) {
  int n = 0;
  for (size_t p = s.find(what); p != std::string::npos; p = s.find(what, p + 1))
    n++;
  return n;
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

TEST_F(WorkAreaTest, ListenersSeeWorkStatusAndProgress) {
  Recorder r;
  wa->addListener(&r);
  wa->addListener(&r); // once only
  wa->startWorking("Starting registration");
  wa->setProgressInfo("Registering at resolution level %d out of %d (DOF = %d)", 1, 3, 6);
  wa->setProgressValue(0.5f);
  wa->setProgressValue(1.5f);
  wa->setProgressValue(-1.0f);
  wa->setProgressValue(std::nanf(""));
  // Nested work keeps the interrupt and the bar of the outer one.
  wa->setProgressValue(0.25f);
  wa->requestInterrupt();
  wa->startWorking("Resampling");
  EXPECT_NE(wa->wasInterrupted(), 0);
  EXPECT_FLOAT_EQ(wa->getProgressValue(), 0.25f);
  wa->stopWorking();
  EXPECT_TRUE(wa->isWorking());
  wa->stopWorking();
  wa->stopWorking(); // one too many: ignored
  EXPECT_FALSE(wa->isWorking());
  wa->removeListener(&r);
  wa->setProgressInfo("not seen");

  std::vector<std::string> expected = {
      "start 1 Starting registration", "info Registering at resolution level 1 out of 3 (DOF = 6)",
      "start 2 Resampling", "stop 1 interrupted", "stop 0 interrupted"};
  EXPECT_EQ(r.events, expected);
  std::vector<float> values = {0.5f, 1.0f, 0.0f, 0.0f, 0.25f};
  EXPECT_EQ(r.values, values);
  EXPECT_EQ(wa->getProgressInfo(), "not seen");
}

TEST_F(WorkAreaTest, TerminalLinesForLogs) {
  FILE* f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  {
    ZrTerminalProgress tp(ZrTerminalProgress::Lines, f);
    EXPECT_EQ(tp.getMode(), ZrTerminalProgress::Lines);
    tp.attach(wa);
    wa->startWorking("Starting registration");
    wa->setProgressInfo("Level 1");
    wa->setProgressInfo("Level 1"); // the same text is not repeated
    for (int i = 1; i <= 100; i++)
      wa->setProgressValue(i / 100.0f);
    wa->setProgressInfo("Level 2");
    wa->setProgressValue(0.05f); // starting over counts tenths anew
    wa->setProgressValue(0.15f);
    wa->requestInterrupt();
    wa->stopWorking();
  }
  std::string out = contents(f);
  std::fclose(f);
  EXPECT_EQ(out.substr(0, 52), "[  0%] Starting registration\n[  0%] Level 1\n[ 10%] L");
  EXPECT_EQ(count(out, "Level 1\n"), 11); // new text, then each tenth
  EXPECT_NE(out.find("[100%] Level 1\n[100%] Level 2\n[ 15%] Level 2\n"), std::string::npos);
  EXPECT_EQ(out.substr(out.size() - 35), "Starting registration: interrupted\n");
}

TEST_F(WorkAreaTest, TerminalBarIsRateLimitedAndKeepsMessagesApart) {
  FILE* f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  std::string captured;
  ZrMessage* msg = ZrMessage::getTheMsg();
  ZrMessage::Sink old = msg->setSink([&](const std::string& t) { captured += t; });
  {
    ZrTerminalProgress tp(ZrTerminalProgress::Bar, f);
    tp.setWidth(60);
    tp.setMinRedrawInterval(3600.0); // only forced redraws
    tp.attach(wa);
    wa->startWorking("Elastic registration");
    for (int i = 0; i < 1000; i++)
      wa->setProgressValue(i / 1000.0f);
    std::string afterUpdates = contents(f);
    EXPECT_EQ(count(afterUpdates, "\r["), 1);
    EXPECT_EQ(afterUpdates, "\r[------------------------]   0% Elastic registration\x1b[K");

    // A message erases the bar, goes to the former sink, and the bar comes
    // back with the present state.
    msg->printf("Sampling reference to: (%d, %d, %d)\n", 2, 2, 1);
    EXPECT_EQ(captured, "Sampling reference to: (2, 2, 1)\n");
    std::string afterMessage = contents(f).substr(afterUpdates.size());
    EXPECT_EQ(afterMessage, "\r\x1b[K\r[########################] 100% Elastic registration\x1b[K");

    // Long status texts are cut to the width.
    tp.setMinRedrawInterval(0.0);
    wa->setProgressInfo("%s", std::string(200, 'x').c_str());
    std::string last = contents(f);
    last = last.substr(last.rfind('\r') + 1);
    EXPECT_EQ(last.size(), 59u + 3u); // the line plus the erase-to-end code
    wa->stopWorking();
    EXPECT_EQ(contents(f).substr(contents(f).size() - 4), "\r\x1b[K");
  }
  // Detaching gave the sink back.
  msg->printf("after");
  EXPECT_EQ(captured.substr(captured.size() - 5), "after");
  msg->setSink(old);
  std::fclose(f);
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

TEST(ZrMessage, SinkQuietAndInfo) {
  ZrMessage* msg = ZrMessage::getTheMsg();
  std::vector<std::string> got;
  ZrMessage::Sink old = msg->setSink([&](const std::string& t) { got.push_back(t); });
  EXPECT_EQ(msg->printf("Final grid size will be: %dx%dx%d", 11, 11, 11), 33);
  msg->printf("%s", "");
  ZrMessage::Info("Choose some class of registration!");
  ZrMessage::Info("two\n");
  msg->setQuiet(true);
  msg->printf("hidden\n");
  ZrMessage::Info("still shown");
  msg->setQuiet(false);
  std::string big(5000, 'y');
  msg->printf("%s|", big.c_str());
  msg->setSink(old);

  ASSERT_EQ(got.size(), 5u);
  EXPECT_EQ(got[0], "Final grid size will be: 11x11x11"); // exactly as formatted
  EXPECT_EQ(got[1], "info: Choose some class of registration!\n");
  EXPECT_EQ(got[2], "info: two\n");
  EXPECT_EQ(got[3], "info: still shown\n");
  EXPECT_EQ(got[4], big + "|");
  EXPECT_EQ(ZrMessage::format("%.3f %s", 0.5, "x"), "0.500 x");
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

TEST(ZrSettingsMgr, ThreadCount) {
  ZrSettingsMgr* s = ZrSettingsMgr::getInstance();
  setenv("ZR_NUM_THREADS", "5", 1);
  EXPECT_EQ(ZrSettingsMgr::getDefaultNumThreads(), 5);
  s->setNumThreads(0); // back to the default
  EXPECT_EQ(s->getNumThreads(), 5);
  for (const char* bad : {"0", "-2", "four", "3x", ""}) {
    setenv("ZR_NUM_THREADS", bad, 1);
    EXPECT_EQ(ZrSettingsMgr::getDefaultNumThreads(),
              (int)std::max(1u, std::thread::hardware_concurrency()))
        << bad;
  }
  unsetenv("ZR_NUM_THREADS");
  s->setNumThreads(0);
}
