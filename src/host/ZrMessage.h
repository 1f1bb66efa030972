#pragma once
// The message stream of the host: what modules tell the user. By default the
// text goes to standard error exactly as formatted; a host or a test can
// install a sink that receives every message instead.
#include <cstdarg>
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

  // Passes text to the sink as it is (not suppressed by quiet).
  void write(const std::string& text);

  // printf-style formatting into a string.
  static std::string format(const char* format, ...) ZR_PRINTF_FORMAT(1, 2);
  static std::string vformat(const char* format, va_list args);

private:
  ZrMessage() = default;
  mutable std::recursive_mutex mutex;
  Sink sink;
  bool quiet = false;
};
