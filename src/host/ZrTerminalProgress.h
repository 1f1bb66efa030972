#pragma once
// The terminal front end of the work area. On a terminal it draws one line:
// a progress bar, the percentage and the status text, redrawn at most ten
// times a second. Elsewhere (a log file, a pipe) it prints a plain line for
// each new status text and for each further tenth of progress.
//
// While it draws a bar it also routes the message stream around the bar, so
// that messages do not end up inside the bar's line: attach() installs a
// message sink that passes on to the sink it found, and detach() puts that
// one back. A sink installed in between is therefore replaced on detach.
#include "ZrMessage.h"
#include "ZrWorkArea.h"

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

class ZrTerminalProgress : public ZrWorkAreaListener {
public:
  enum Mode {
    Auto,  // Bar if the stream is a terminal, else Lines
    Bar,   // one redrawn line
    Lines, // plain lines now and then
    Silent // nothing
  };

  explicit ZrTerminalProgress(Mode mode = Auto, FILE* out = stderr);
  ~ZrTerminalProgress() override;
  ZrTerminalProgress(const ZrTerminalProgress&) = delete;
  ZrTerminalProgress& operator=(const ZrTerminalProgress&) = delete;

  // Listens to a work area (the host's one by default).
  void attach(ZrWorkArea* workArea = nullptr);
  void detach();

  // The mode in use: Auto resolved to Bar or Lines.
  Mode getMode() const { return mode; }
  // The shortest time between two redraws of the bar, in seconds.
  void setMinRedrawInterval(double seconds) { minInterval = seconds; }
  // Width of the line in columns; 0 asks the terminal (80 if unknown).
  void setWidth(int columns) { width = columns; }

  // Ctrl-C then asks the work area to stop instead of killing the process. A
  // second Ctrl-C while the stop is pending, or a Ctrl-C while no work is in
  // progress, restores the default action and quits.
  static void installSigintHandler();
  static void uninstallSigintHandler();
  // A function the handler calls when Ctrl-C quits the process (a second
  // Ctrl-C, or one while nothing runs), just before it re-raises the signal.
  // It must be async-signal-safe; nullptr clears it.
  static void setQuitCleanup(void (*cleanup)());

  void workStarted(const std::string& text, int depth) override;
  void workStopped(int depth, bool interrupted) override;
  void progressInfoChanged(const std::string& text) override;
  void progressValueChanged(float value) override;

private:
  void drawBar(bool force);
  void eraseBar();
  void printLine();
  int columns() const;
  void messageThrough(const std::string& text);

  FILE* out;
  Mode mode;
  double minInterval = 0.1;
  int width = 0;
  ZrWorkArea* workArea = nullptr;
  std::recursive_mutex mutex;
  std::string status;
  std::string workText;
  float value = 0.0f;
  int lastDecile = 0;
  std::string lastPrinted;
  bool barShown = false;
  bool midLine = false; // a message left the cursor inside a line
  bool drawnOnce = false;
  std::chrono::steady_clock::time_point lastDraw;
  bool sinkInstalled = false;
  ZrMessage::Sink previousSink;
};
