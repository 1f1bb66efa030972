#pragma once
// The message stream of the host: what modules tell the user. A sink, which a
// host or a test can install, receives every message exactly as formatted.
// Shown to the user (the default output, standard error, and the terminal
// front end) each message is a line of its own: one that does not end its
// line is ended there, so that reports printed in pieces without line ends
// do not run together.
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>

#if defined(__GNUC__)
#define ZR_PRINTF_FORMAT(a, b) __attribute__((format(printf, a, b)))
#else
#define ZR_PRINTF_FORMAT(a, b)
#endif

class ZrMessage {
public:
  // Receives each message as one piece of text.
  typedef std::function<void(const std::string& text)> Sink;

  static ZrMessage* getTheMsg();

  // Appends the formatted text to the message stream; nothing is added to
  // it. Returns the number of characters. Suppressed while quiet.
  int printf(const char* format, ...) ZR_PRINTF_FORMAT(2, 3);
  int vprintf(const char* format, va_list args);
  // An information box; on a terminal host, a line "info: <text>". Shown even
  // while quiet, since it is meant to be seen.
  static void Info(const char* format, ...) ZR_PRINTF_FORMAT(1, 2);

  // Installs a sink and returns the one it replaces. An empty sink restores
  // the default, standard error.
  Sink setSink(Sink sink);
  Sink getSink() const;

  void setQuiet(bool q) { quiet = q; }
  bool isQuiet() const { return quiet; }

  // Passes text to the sink as it is (not suppressed by quiet); without a
  // sink, puts it on standard error as a line.
  void write(const std::string& text);
  // Writes text to out and ends its line if the text does not; flushes.
  static void putLine(FILE* out, const std::string& text);

  // printf-style formatting into a string.
  static std::string format(const char* format, ...) ZR_PRINTF_FORMAT(1, 2);
  static std::string vformat(const char* format, va_list args);

private:
  ZrMessage() = default;
  mutable std::recursive_mutex mutex;
  Sink sink;
  bool quiet = false;
};
