// Formatting, comparison and concatenation of strings.
#include "QbString.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(QbString, PrintfReplacesAndAppendfAppends) {
  QbString s("old text");
  EXPECT_STREQ(s.printf("elapsed time: %.2f seconds", 1.5), "elapsed time: 1.50 seconds");
  EXPECT_EQ(s, "elapsed time: 1.50 seconds");
  s.printf("%d h, %d min", 1, 2);
  s.appendf(", %d seconds", 3);
  EXPECT_STREQ(s.c_str(), "1 h, 2 min, 3 seconds");
  EXPECT_EQ(s.length(), 21);

  // Longer than any small fixed buffer.
  std::string longText(5000, 'x');
  s.printf("<%s>", longText.c_str());
  EXPECT_EQ(s.length(), 5002);
  EXPECT_EQ(s[0], '<');
  EXPECT_EQ(s[5001], '>');

  // The string's own text as an argument.
  QbString t("abc");
  t.printf("%s-%s", t.c_str(), t.getString());
  EXPECT_EQ(t, "abc-abc");
  t.appendf("+%s", t.c_str());
  EXPECT_EQ(t, "abc-abc+abc-abc");

  s.printf("%s", "");
  EXPECT_TRUE(s.isEmpty());
}

TEST(QbString, ComparisonConcatenationConversion) {
  QbString a("Align"), b = "centers";
  QbString c = a + " " + b;
  EXPECT_EQ(c, "Align centers");
  EXPECT_EQ("Align centers", c);
  EXPECT_NE(c, a);
  EXPECT_TRUE(a < b);
  EXPECT_LT(a.compare("Align principal axes"), 0);
  EXPECT_EQ(a.compare("Align"), 0);
  a += '!';
  a += QbString("?");
  EXPECT_EQ(a, "Align!?");
  const char* p = c;
  EXPECT_EQ(std::strcmp(p, "Align centers"), 0);
  EXPECT_EQ(QbString(nullptr), "");
  EXPECT_EQ(QbString("abcdef", 3), "abc");
}
