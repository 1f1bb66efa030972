// The squared-difference metric: value, overlap rule and no-sample value.
#include "RegMeanSquaredDifference.h"

#include <gtest/gtest.h>

TEST(RegMeanSquaredDifference, MeanOfSquaredDifferences) {
  RegMeanSquaredDifference m(1.0);
  m.reset();
  m.increment(1.0, 2.0);
  m.increment(3.0, 1.0);
  m.increment(-2.0, -2.0);
  m.increment(0.5, 3.0);
  // -(1 + 4 + 0 + 6.25) / 4
  EXPECT_DOUBLE_EQ(m.getResult(), -11.25 / 4.0);
  // No sample inside, however many were looked at: -1000.
  m.reset();
  EXPECT_EQ(m.getResult(), -1000.0);
  m.numTotal = 500;
  EXPECT_EQ(m.getResult(), -1000.0);
}

// n samples inside, each with squared difference 4, among `total`.
static double resultWithOverlap(double maxCoverage, int inside, int total) {
  RegMeanSquaredDifference m(maxCoverage);
  m.reset();
  for (int i = 0; i < inside; i++)
    m.increment(2.0, 0.0);
  m.numTotal += total - inside;
  return m.getResult();
}

TEST(RegMeanSquaredDifference, OverlapRuleDividesByTheWeight) {
  // 10% covered with maxCoverage 1: weight 0.5, so the value doubles.
  EXPECT_DOUBLE_EQ(resultWithOverlap(1.0, 10, 100), -8.0);
  // 5% covered: weight 0.25.
  EXPECT_DOUBLE_EQ(resultWithOverlap(1.0, 5, 100), -16.0);
  // 20% and more: unchanged.
  EXPECT_DOUBLE_EQ(resultWithOverlap(1.0, 20, 100), -4.0);
  EXPECT_DOUBLE_EQ(resultWithOverlap(1.0, 22, 100), -4.0);
  EXPECT_DOUBLE_EQ(resultWithOverlap(1.0, 90, 100), -4.0);
  // Just below a fifth: weight 0.19 * 5 = 0.95.
  EXPECT_DOUBLE_EQ(resultWithOverlap(1.0, 19, 100), -4.0 / 0.95);
  // The threshold is relative to maxCoverage: with 0.5, 5% is a tenth of what
  // can be covered, so the weight is 0.05 * 5 / 0.5 = 0.5.
  EXPECT_DOUBLE_EQ(resultWithOverlap(0.5, 5, 100), -8.0);
  EXPECT_DOUBLE_EQ(resultWithOverlap(0.5, 10, 100), -4.0);
  // maxCoverage 0 or below: no weight at any overlap.
  EXPECT_DOUBLE_EQ(resultWithOverlap(0.0, 1, 100), -4.0);
  EXPECT_DOUBLE_EQ(resultWithOverlap(-1.0, 1, 100), -4.0);
}
