// Label difference: minus the fraction of disagreeing labels, exact
// comparison, retraction, the overlap rule of squared difference, copies.
#include "RegLabelDifference.h"

#include <gtest/gtest.h>

TEST(RegLabelDifference, FractionOfDisagreement) {
  RegLabelDifference d(0.0);
  d.reset();
  EXPECT_EQ(d.getResult(), -1000.0); // no sample
  for (int i = 0; i < 50; i++)
    d.increment(i % 7, i % 7);
  EXPECT_EQ(d.getResult(), 0.0);
  // Every label different, by 1 or by 1000: -1.
  d.reset();
  for (int i = 0; i < 50; i++)
    d.increment(i, i + (i % 2 ? 1 : 1000));
  EXPECT_EQ(d.getResult(), -1.0);
  // Three of four agree; a value a hair off its label disagrees; retracting
  // the disagreeing pair restores a perfect score.
  d.reset();
  d.increment(3, 3);
  d.increment(4, 4);
  d.increment(5, 5);
  d.increment(5, 5.0000001);
  EXPECT_EQ(d.getResult(), -0.25);
  d.decrement(5, 5.0000001);
  EXPECT_EQ(d.getResult(), 0.0);
  EXPECT_EQ(d.numTotal, 3);
}

TEST(RegLabelDifference, OverlapDividesTheFraction) {
  RegLabelDifference d(1.0);
  d.reset();
  for (int i = 0; i < 100; i++)
    d.increment(1, i < 40 ? 2 : 1);
  EXPECT_DOUBLE_EQ(d.getResult(), -0.4);
  d.numTotal = 1000; // 10% inside: the fraction is divided by 0.5
  EXPECT_DOUBLE_EQ(d.getResult(), -0.8);
  d.increment(1, 5); // labels are counted, not squared differences
  EXPECT_EQ(d.sum, -41.0);
}
