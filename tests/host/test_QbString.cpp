// Formatting into strings: replacing and appending, texts longer than any
// small buffer, and the string's own text as an argument.
#include "QbString.h"

#include <gtest/gtest.h>

#include <string>

TEST(QbString, PrintfReplacesAndAppendfAppends) {
  QbString s("old text");
  EXPECT_STREQ(s.printf("elapsed time: %.2f seconds", 1.5), "elapsed time: 1.50 seconds");
  s.printf("%d h, %d min", 1, 2);
  s.appendf(", %d seconds", 3);
  EXPECT_EQ(s, "1 h, 2 min, 3 seconds");
  EXPECT_EQ(s.length(), 21);

  std::string longText(5000, 'x');
  s.printf("<%s>", longText.c_str());
  EXPECT_EQ(s.length(), 5002);
  EXPECT_EQ(s[5001], '>');

  QbString t("abc");
  t.printf("%s-%s", t.c_str(), t.getString());
  EXPECT_EQ(t, "abc-abc");
  t.appendf("+%s", t.c_str());
  EXPECT_EQ(t, "abc-abc+abc-abc");
  EXPECT_EQ(QbString(nullptr), "");
  EXPECT_EQ(QbString("abcdef", 3), "abc");
}
