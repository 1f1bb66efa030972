// Dynamic arrays: elements of the array itself handed back in while it
// reallocates.
#include "QbDArray.h"

#include <gtest/gtest.h>

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
