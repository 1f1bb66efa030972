#include "ZrMessage.h"

#include <cstdio>
#include <vector>

ZrMessage* ZrMessage::getTheMsg() {
  // Never destroyed, so that messages printed during exit still have a home.
  static ZrMessage* msg = new ZrMessage;
  return msg;
}

std::string ZrMessage::vformat(const char* fmt, va_list args) {
  if (!fmt)
    return std::string();
  char buf[512];
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(buf, sizeof buf, fmt, copy);
  va_end(copy);
  if (n < 0)
    return std::string();
  if (n < (int)sizeof buf)
    return std::string(buf, n);
  std::vector<char> big(n + 1);
  std::vsnprintf(big.data(), big.size(), fmt, args);
  return std::string(big.data(), n);
}

std::string ZrMessage::format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string s = vformat(fmt, args);
  va_end(args);
  return s;
}

void ZrMessage::write(const std::string& text) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  if (sink)
    sink(text);
  else
    putLine(stderr, text);
}

void ZrMessage::putLine(FILE* out, const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), out);
  if (!text.empty() && text.back() != '\n')
    std::fputc('\n', out);
  std::fflush(out);
}

int ZrMessage::vprintf(const char* fmt, va_list args) {
  std::string text = vformat(fmt, args);
  if (!quiet && !text.empty())
    write(text);
  return (int)text.size();
}

int ZrMessage::printf(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int n = vprintf(fmt, args);
  va_end(args);
  return n;
}

void ZrMessage::Info(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string text = vformat(fmt, args);
  va_end(args);
  if (text.empty() || text.back() != '\n')
    text += '\n';
  getTheMsg()->write("info: " + text);
}

ZrMessage::Sink ZrMessage::setSink(Sink s) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  Sink old = std::move(sink);
  sink = std::move(s);
  return old;
}

ZrMessage::Sink ZrMessage::getSink() const {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  return sink;
}
