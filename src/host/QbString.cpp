#include "QbString.h"

#include <cstdio>

const char* QbString::printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vprintf(format, args);
  va_end(args);
  return str.c_str();
}

const char* QbString::vprintf(const char* format, va_list args) {
  // Formatted apart first: an argument may be this string's own text.
  QbString text;
  text.vappendf(format, args);
  str.swap(text.str);
  return str.c_str();
}

QbString& QbString::appendf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vappendf(format, args);
  va_end(args);
  return *this;
}

QbString& QbString::vappendf(const char* format, va_list args) {
  if (!format)
    return *this;
  // Measure first, then format into a buffer of its own: an argument may point
  // into this string, which growing it would move. The arguments are read
  // twice, so the list is copied.
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (n <= 0)
    return *this;
  std::string text(size_t(n) + 1, '\0');
  std::vsnprintf(&text[0], text.size(), format, args);
  text.resize(size_t(n));
  str += text;
  return *this;
}
