// Worker threads: a split sum and a restart.
#include "ZrThread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
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
