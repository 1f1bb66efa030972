#pragma once
// String of the utility library with printf-style formatting.
#include <cstdarg>
#include <string>

class QbString {
public:
  QbString() = default;
  QbString(const char* s) : str(s ? s : "") {}
  QbString(const char* s, int n) : str(s ? std::string(s, n < 0 ? 0 : n) : std::string()) {}
  QbString(const std::string& s) : str(s) {}

  // Replaces the content with the formatted text and returns it.
  const char* printf(const char* format, ...)
#if defined(__GNUC__)
      __attribute__((format(printf, 2, 3)))
#endif
      ;
  const char* vprintf(const char* format, va_list args);
  // Appends the formatted text.
  QbString& appendf(const char* format, ...)
#if defined(__GNUC__)
      __attribute__((format(printf, 2, 3)))
#endif
      ;
  QbString& vappendf(const char* format, va_list args);

  const char* c_str() const { return str.c_str(); }
  const char* getString() const { return str.c_str(); }
  const std::string& stdString() const { return str; }
  operator const char*() const { return str.c_str(); }
  int length() const { return (int)str.size(); }
  bool isEmpty() const { return str.empty(); }
  void clear() { str.clear(); }
  char operator[](int i) const { return str[i]; }

  QbString& operator+=(const QbString& o) { return str += o.str, *this; }
  QbString& operator+=(const char* s) { return str += (s ? s : ""), *this; }
  QbString& operator+=(char c) { return str += c, *this; }
  friend QbString operator+(const QbString& a, const QbString& b) {
    return QbString(a.str + b.str);
  }
  friend QbString operator+(const QbString& a, const char* b) { return a + QbString(b); }
  friend QbString operator+(const char* a, const QbString& b) { return QbString(a) + b; }

  friend bool operator==(const QbString& a, const QbString& b) { return a.str == b.str; }
  friend bool operator==(const QbString& a, const char* b) { return a.str == (b ? b : ""); }
  friend bool operator==(const char* a, const QbString& b) { return b == a; }
  friend bool operator!=(const QbString& a, const QbString& b) { return !(a == b); }
  friend bool operator!=(const QbString& a, const char* b) { return !(a == b); }
  friend bool operator!=(const char* a, const QbString& b) { return !(b == a); }
  friend bool operator<(const QbString& a, const QbString& b) { return a.str < b.str; }
  // strcmp-style ordering: negative, 0 or positive.
  int compare(const char* s) const { return str.compare(s ? s : ""); }

private:
  std::string str;
};
