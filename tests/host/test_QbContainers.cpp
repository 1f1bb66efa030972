// Dynamic arrays: elements of the array itself handed back in while it
// reallocates, insertion and removal at and beyond the ends, deep copies and
// moves; the numeric vector's arithmetic over vectors of different sizes.
#include "QbDArray.h"
#include "QbDVector.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

namespace {
template <class T> std::vector<T> items(const QbDArray<T>& a) {
  return std::vector<T>(a.begin(), a.end());
}
} // namespace

TEST(QbDArray, ElementsOfTheArrayItselfSurviveReallocation) {
  QbDArray<std::string> a;
  a.append("first");
  a.append("second");
  a.append("third");
  ASSERT_EQ(a.size(), a.capacity()); // the next append must reallocate
  a.append(a[0]);
  ASSERT_EQ(a.size(), a.capacity());
  a.insert(0, a[1]);
  a.insert(2, a[1]);
  EXPECT_EQ(items(a),
            (std::vector<std::string>{"second", "first", "first", "second", "third", "first"}));
}

TEST(QbDArray, InsertRemoveAndIndex) {
  QbDArray<int> a;
  for (int i = 0; i < 6; i++)
    a.append(10 * i);
  a.insert(0, -5);
  a.insert(a.size(), 99);
  a.insert(3, 15);
  EXPECT_EQ(items(a), (std::vector<int>{-5, 0, 10, 15, 20, 30, 40, 50, 99}));
  // Positions outside the array are clamped to its ends.
  a.insert(100, 7);
  a.insert(-3, 8);
  EXPECT_EQ(a.last(), 7);
  EXPECT_EQ(a[0], 8);
  a.remove(0);
  a.remove(a.size() - 1);
  a.append(15);
  EXPECT_EQ(a.index(15), 3); // the first of equal elements
  EXPECT_EQ(a.index(1234), -1);
  a.remove(1, 3); // takes out 0, 10 and 15
  EXPECT_EQ(items(a), (std::vector<int>{-5, 20, 30, 40, 50, 99, 15}));
  // A count running past the end removes up to the end; bad positions nothing.
  a.remove(5, 10);
  a.remove(5);
  a.remove(-1);
  a.remove(0, 0);
  EXPECT_EQ(items(a), (std::vector<int>{-5, 20, 30, 40, 50}));
  // Shrinking keeps the storage; regrowing within it zero-fills.
  a.resize(2);
  a.resize(4);
  EXPECT_EQ(items(a), (std::vector<int>{-5, 20, 0, 0}));
  a.clear();
  EXPECT_GT(a.capacity(), 0);
  a.clearAndFree();
  EXPECT_EQ(a.capacity(), 0);
}

TEST(QbDArray, CopiesAreDeepAndMovesTakeTheStorage) {
  QbDArray<QbDArray<int>> levels;
  levels.resize(2);
  levels[1].append(2);
  levels[1].append(3);
  QbDArray<QbDArray<int>> copy = levels;
  copy[1][0] = 20;
  EXPECT_EQ(levels[1][0], 2);
  copy = copy; // self-assignment keeps the content
  EXPECT_EQ(copy[1][0], 20);
  const int* storage = levels[1].data();
  QbDArray<int> moved(std::move(levels[1]));
  EXPECT_EQ(moved.data(), storage);
  EXPECT_EQ(levels[1].size(), 0);
}

TEST(QbDVector, Arithmetic) {
  QbDVector<double> a(4), b(4, 2.0);
  for (int i = 0; i < 4; i++)
    a[i] = i - 1.5; // -1.5 -0.5 0.5 1.5
  EXPECT_DOUBLE_EQ(a.sumOfSquares(), 5.0);
  EXPECT_DOUBLE_EQ(a.norm(), std::sqrt(5.0));
  EXPECT_DOUBLE_EQ(a.maxAbs(), 1.5);
  QbDVector<double> c = a;
  c += b;
  c -= a;
  EXPECT_TRUE(c == b);
  c *= 0.25;
  c.addScaled(a, -2.0); // 0.5 - 2 a
  EXPECT_DOUBLE_EQ(c[0], 3.5);
  EXPECT_DOUBLE_EQ(c[3], -2.5);
  // Dot product over the common length of vectors of different sizes.
  EXPECT_DOUBLE_EQ(a.dot(QbDVector<double>(2, 1.0)), -2.0);
  // Growing keeps the values and zero-fills.
  a.resize(6);
  EXPECT_DOUBLE_EQ(a[3], 1.5);
  EXPECT_DOUBLE_EQ(a[5], 0.0);
  QbDVector<int> n(3);
  n[0] = -7;
  EXPECT_EQ(n.maxAbs(), 7);
  EXPECT_EQ(QbDVector<int>(-2).size(), 0);
}
