// Dynamic array growth and element handling, and the numeric vector.
#include "QbDArray.h"
#include "QbDVector.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

TEST(QbDArray, CapacityGrowsByHalfOrToTheRequestedSize) {
  QbDArray<int> a;
  EXPECT_EQ(a.capacity(), 0);
  // Appending one at a time: 1, 2, 3, then trunc(1.5 * 3) = 4, trunc(1.5 * 4) =
  // 6, trunc(1.5 * 6) = 9, trunc(1.5 * 9) = 13.
  const int expected[] = {1, 2, 3, 4, 6, 6, 9, 9, 9, 13, 13, 13, 13};
  for (int i = 0; i < 13; i++) {
    a.append(i);
    EXPECT_EQ(a.capacity(), expected[i]) << "after " << i + 1 << " appends";
  }
  // A request beyond 1.5 times the capacity gets exactly what it asks for.
  a.resize(100);
  EXPECT_EQ(a.capacity(), 100);
  a.resize(101);
  EXPECT_EQ(a.capacity(), 150);
  // Shrinking keeps the storage; regrowing within it zero-fills.
  a[50] = 7;
  a.resize(10);
  EXPECT_EQ(a.capacity(), 150);
  a.resize(60);
  EXPECT_EQ(a[50], 0);
  for (int i = 0; i < 10; i++)
    EXPECT_EQ(a[i], i);
}

TEST(QbDArray, ElementsOfTheArrayItselfSurviveReallocation) {
  QbDArray<std::string> a;
  a.append("first");
  a.append("second");
  a.append("third");
  ASSERT_EQ(a.size(), a.capacity()); // the next append must reallocate
  a.append(a[0]);
  ASSERT_EQ(a.size(), 4);
  EXPECT_EQ(a[3], "first");

  ASSERT_EQ(a.size(), a.capacity());
  a.insert(0, a[1]);
  EXPECT_EQ(a[0], "second");
  EXPECT_EQ(a[1], "first");
  EXPECT_EQ(a[2], "second");
  a.insert(2, a[1]);
  EXPECT_EQ(a[1], "first");
  EXPECT_EQ(a[2], "first");
  EXPECT_EQ(a[3], "second");
  EXPECT_EQ(a[5], "first");
}

TEST(QbDArray, InsertRemoveAndIndex) {
  QbDArray<int> a;
  for (int i = 0; i < 6; i++)
    a.append(10 * i); // 0 10 20 30 40 50
  a.insert(0, -5);
  a.insert(a.size(), 99);
  a.insert(3, 15);
  const int afterInsert[] = {-5, 0, 10, 15, 20, 30, 40, 50, 99};
  ASSERT_EQ(a.size(), 9);
  for (int i = 0; i < 9; i++)
    EXPECT_EQ(a[i], afterInsert[i]);
  // Positions outside the array are clamped to its ends.
  a.insert(100, 7);
  EXPECT_EQ(a.last(), 7);
  a.insert(-3, 8);
  EXPECT_EQ(a[0], 8);
  a.remove(0);
  a.remove(a.size() - 1);

  EXPECT_EQ(a.index(15), 3);
  EXPECT_EQ(a.index(1234), -1);
  a.append(15);
  EXPECT_EQ(a.index(15), 3); // the first of equal elements

  a.remove(1, 3); // takes out 0, 10 and 15
  const int afterRemove[] = {-5, 20, 30, 40, 50, 99, 15};
  ASSERT_EQ(a.size(), 7);
  for (int i = 0; i < 7; i++)
    EXPECT_EQ(a[i], afterRemove[i]);
  // A count running past the end removes up to the end; bad positions nothing.
  a.remove(5, 10);
  EXPECT_EQ(a.size(), 5);
  a.remove(5);
  a.remove(-1);
  a.remove(0, 0);
  EXPECT_EQ(a.size(), 5);
  EXPECT_EQ(a.last(), 50);
  a.remove(a.index(a[2]));
  EXPECT_EQ(a.index(30), -1);

  a.clear();
  EXPECT_TRUE(a.isEmpty());
  EXPECT_GT(a.capacity(), 0);
  a.clearAndFree();
  EXPECT_EQ(a.capacity(), 0);
}

TEST(QbDArray, CopiesAreDeepAndMovesTakeTheStorage) {
  QbDArray<QbDArray<int>> levels;
  levels.resize(2);
  levels[0].append(1);
  levels[1].append(2);
  levels[1].append(3);
  QbDArray<QbDArray<int>> copy = levels;
  copy[1][0] = 20;
  EXPECT_EQ(levels[1][0], 2);
  EXPECT_EQ(copy[1][1], 3);
  copy = copy; // self-assignment keeps the content
  EXPECT_EQ(copy[1][0], 20);

  const int* storage = levels[1].data();
  QbDArray<int> moved(std::move(levels[1]));
  EXPECT_EQ(moved.data(), storage);
  EXPECT_EQ(levels[1].size(), 0);
  int sum = 0;
  for (int v : moved)
    sum += v;
  EXPECT_EQ(sum, 5);
}

TEST(QbDVector, Arithmetic) {
  QbDVector<double> a(4), b(4, 2.0);
  for (int i = 0; i < 4; i++)
    a[i] = i - 1.5; // -1.5 -0.5 0.5 1.5
  EXPECT_DOUBLE_EQ(a.sum(), 0.0);
  EXPECT_DOUBLE_EQ(a.dot(b), 0.0);
  EXPECT_DOUBLE_EQ(a.sumOfSquares(), 5.0);
  EXPECT_DOUBLE_EQ(a.norm(), std::sqrt(5.0));
  EXPECT_DOUBLE_EQ(a.maxAbs(), 1.5);

  QbDVector<double> c = a;
  c += b;
  EXPECT_DOUBLE_EQ(c[0], 0.5);
  c -= a;
  EXPECT_TRUE(c == b);
  c *= 0.25;
  EXPECT_DOUBLE_EQ(c[3], 0.5);
  c.addScaled(a, -2.0); // 0.5 - 2 a
  EXPECT_DOUBLE_EQ(c[0], 3.5);
  EXPECT_DOUBLE_EQ(c[3], -2.5);
  EXPECT_TRUE(c != b);

  // Dot product over the common length of vectors of different sizes.
  QbDVector<double> shortV(2, 1.0);
  EXPECT_DOUBLE_EQ(a.dot(shortV), -2.0);

  // Growing keeps the values and zero-fills; shrinking cuts.
  a.resize(6);
  EXPECT_DOUBLE_EQ(a[3], 1.5);
  EXPECT_DOUBLE_EQ(a[5], 0.0);
  a.resize(1);
  EXPECT_EQ(a.size(), 1);
  a.fill(3.0);
  EXPECT_DOUBLE_EQ(a.sum(), 3.0);

  QbDVector<int> n(3);
  n[0] = -7;
  n[2] = 4;
  EXPECT_EQ(n.maxAbs(), 7);
  EXPECT_EQ(QbDVector<int>(-2).size(), 0);
}
