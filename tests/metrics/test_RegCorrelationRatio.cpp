// The correlation metric: the absolute Pearson coefficient against a direct
// computation (with the running offsets that keep it precise), the windows,
// retraction and the overlap factor.
#include "RegCorrelationRatio.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <vector>

namespace {

const double kInf = std::numeric_limits<double>::infinity();

// Pearson's coefficient computed directly, in long double.
double pearson(const std::vector<double>& a, const std::vector<double>& b) {
  long double ma = 0, mb = 0;
  for (size_t i = 0; i < a.size(); i++)
    ma += a[i], mb += b[i];
  ma /= a.size();
  mb /= b.size();
  long double sab = 0, saa = 0, sbb = 0;
  for (size_t i = 0; i < a.size(); i++) {
    sab += (a[i] - ma) * (b[i] - mb);
    saa += (a[i] - ma) * (a[i] - ma);
    sbb += (b[i] - mb) * (b[i] - mb);
  }
  return (double)(sab / std::sqrt(saa * sbb));
}

} // namespace

TEST(RegCorrelationRatio, AbsoluteCorrelation) {
  RegCorrelationRatio c(-kInf, kInf, -kInf, kInf, 0.0);
  c.reset();
  // Perfectly anti-correlated data, far from 0: 1.
  for (int i = 0; i < 100; i++)
    c.increment(1000.0 + i, 5000.0 - 3.0 * i);
  EXPECT_NEAR(c.getResult(), 1.0, 1e-12);

  // Noisy data against the direct formula.
  std::mt19937 rng(5);
  std::normal_distribution<double> noise(0, 20);
  std::vector<double> a, b;
  for (int i = 0; i < 5000; i++) {
    a.push_back(100 + 0.1 * i + noise(rng));
    b.push_back(-0.5 * a.back() + noise(rng));
  }
  c.reset();
  for (size_t i = 0; i < a.size(); i++)
    c.increment(a[i], b[i]);
  const double expected = std::fabs(pearson(a, b));
  EXPECT_GT(expected, 0.2);
  EXPECT_LT(expected, 0.99);
  // The first evaluation sums raw values of about 100: some cancellation.
  EXPECT_NEAR(c.getResult(), expected, 1e-9);
  EXPECT_EQ(c.numInside, 5000);
  // The next one sums deviations from the means just found (the offsets),
  // which makes it the more precise.
  c.reset();
  for (size_t i = 0; i < a.size(); i++)
    c.increment(a[i], b[i]);
  EXPECT_NEAR(c.getResult(), expected, 1e-13);
}

TEST(RegCorrelationRatio, WindowsAreInclusive) {
  RegCorrelationRatio c(10, 20, 0, 1, 0.0);
  c.reset();
  // At each limit: counts.
  c.increment(10, 0);
  c.increment(20, 1);
  c.increment(15, 0.25);
  EXPECT_EQ(c.numInside, 3);
  // Just outside either window: only the total.
  c.increment(9.999, 0.5);
  c.increment(20.001, 0.5);
  c.increment(15, -1e-9);
  c.increment(15, 1.000001);
  EXPECT_EQ(c.numInside, 3);
  EXPECT_EQ(c.numTotal, 7);
  EXPECT_GT(c.getResult(), 0.9);

  // Nothing in the windows: no sample, whatever the total.
  c.reset();
  for (int i = 0; i < 10; i++)
    c.increment(30 + i, 0.5);
  EXPECT_EQ(c.numTotal, 10);
  EXPECT_EQ(c.numInside, 0);
  EXPECT_EQ(c.getResult(), -1000.0);
}

TEST(RegCorrelationRatio, DecrementOverlapAndCopies) {
  std::vector<std::pair<double, double>> s;
  for (int i = 0; i < 100; i++)
    s.emplace_back(i % 90, ((i * 13) % 97) * 0.5 + (i % 90) * 0.5);
  RegCorrelationRatio c(0, 100, 0, 100, 1.0);
  auto fill = [&](RegCorrelationRatio& m) {
    m.reset();
    for (auto& p : s)
      m.increment(p.first, p.second);
  };
  fill(c);
  const double full = c.getResult();
  // 900 samples outside the reference window: 10% inside, the value is
  // multiplied by 0.5. Retracting them restores it.
  fill(c);
  for (int i = 0; i < 900; i++)
    c.increment(-1, 0);
  RegCorrelationRatio saved(0, 100, 0, 100, 1.0);
  c.getState(&saved);
  saved.refOffset = c.refOffset;
  saved.modelOffset = c.modelOffset;
  EXPECT_NEAR(c.getResult(), 0.5 * full, 1e-12);
  for (int i = 0; i < 900; i++)
    saved.decrement(-1, 0);
  EXPECT_EQ(saved.numTotal, 100);
  EXPECT_NEAR(saved.getResult(), full, 1e-12);
}
