// Worker threads: a split sum, a restart, a refused second start, and errors
// raised inside run() that reach wait().
#include "QbMemoryException.h"
#include "ZrThread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

class SumThread : public ZrThread {
public:
  SumThread(const std::vector<double>* d, size_t b, size_t e) : data(d), begin(b), end(e) {}
  ~SumThread() override { wait(); }
  double sum = 0.0;
  std::thread::id ranOn;

protected:
  void run() override {
    ranOn = std::this_thread::get_id();
    for (size_t i = begin; i < end; i++)
      sum += (*data)[i];
  }

private:
  const std::vector<double>* data;
  size_t begin, end;
};

class Gate : public ZrThread {
public:
  ~Gate() override { wait(); }
  std::atomic<bool> open{false}, done{false}, fail{false};

protected:
  void run() override {
    while (!open.load())
      std::this_thread::yield();
    done = true;
    if (fail)
      throw QbMemoryException(1234);
  }
};

} // namespace

TEST(ZrThread, WorkersSplitASumAndStartAgain) {
  std::vector<double> data(100000);
  for (size_t i = 0; i < data.size(); i++)
    data[i] = (double)i;
  const int n = 8;
  std::vector<std::unique_ptr<SumThread>> threads;
  for (int t = 0; t < n; t++)
    threads.emplace_back(new SumThread(&data, data.size() * t / n, data.size() * (t + 1) / n));
  for (auto& t : threads)
    ASSERT_TRUE(t->start());
  double total = 0.0;
  for (auto& t : threads) {
    t->wait();
    EXPECT_FALSE(t->isStarted());
    EXPECT_NE(t->ranOn, std::this_thread::get_id());
    total += t->sum;
  }
  EXPECT_DOUBLE_EQ(total, 99999.0 * 100000.0 / 2.0);
  threads[0]->sum = 0.0;
  ASSERT_TRUE(threads[0]->start());
  threads[0]->wait();
  EXPECT_DOUBLE_EQ(threads[0]->sum, 12499.0 * 12500.0 / 2.0);
}

TEST(ZrThread, SecondStartIsRefusedWaitBlocksAndErrorsReachWait) {
  Gate g;
  g.wait(); // not started: returns at once
  ASSERT_TRUE(g.start());
  EXPECT_FALSE(g.start());
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(g.done.load());
  g.open = true;
  g.wait();
  EXPECT_TRUE(g.done.load());

  g.fail = true;
  ASSERT_TRUE(g.start());
  try {
    g.wait();
    FAIL() << "no exception";
  } catch (const QbMemoryException& e) {
    EXPECT_EQ(e.getNumBytes(), 1234u);
  }
  g.wait(); // reported once
}
