#include "ZrTerminalProgress.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {
const int barCells = 24;
} // namespace

ZrTerminalProgress::ZrTerminalProgress(Mode m, FILE* o) : out(o ? o : stderr), mode(m) {
  if (mode == Auto) {
    const char* term = std::getenv("TERM");
    bool dumb = term && std::strcmp(term, "dumb") == 0;
    mode = (isatty(fileno(out)) && !dumb) ? Bar : Lines;
  }
}

ZrTerminalProgress::~ZrTerminalProgress() {
  detach();
  std::lock_guard<std::recursive_mutex> lock(mutex);
  eraseBar();
}

void ZrTerminalProgress::attach(ZrWorkArea* wa) {
  detach();
  workArea = wa ? wa : ZrWorkArea::getTheWorkArea();
  workArea->addListener(this);
  if (mode == Bar) {
    // Messages clear the bar's line before they are written.
    previousSink =
        ZrMessage::getTheMsg()->setSink([this](const std::string& text) { messageThrough(text); });
    sinkInstalled = true;
  }
}

void ZrTerminalProgress::detach() {
  if (workArea) {
    workArea->removeListener(this);
    workArea = nullptr;
  }
  if (sinkInstalled) {
    ZrMessage::getTheMsg()->setSink(previousSink);
    previousSink = nullptr;
    sinkInstalled = false;
  }
}

int ZrTerminalProgress::columns() const {
  if (width > 0)
    return width;
  struct winsize ws;
  if (ioctl(fileno(out), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0)
    return ws.ws_col;
  if (const char* env = std::getenv("COLUMNS")) {
    int c = std::atoi(env);
    if (c > 0)
      return c;
  }
  return 80;
}

void ZrTerminalProgress::drawBar(bool force) {
  auto now = std::chrono::steady_clock::now();
  if (!force && drawnOnce && std::chrono::duration<double>(now - lastDraw).count() < minInterval)
    return;
  drawnOnce = true;
  lastDraw = now;
  if (midLine) {
    std::fputc('\n', out);
    midLine = false;
  }
  int filled = (int)(value * barCells + 0.5f);
  int percent = (int)(value * 100.0f + 0.5f);
  std::string line = "[" + std::string(filled, '#') + std::string(barCells - filled, '-') + "] ";
  char pct[16];
  std::snprintf(pct, sizeof pct, "%3d%% ", percent);
  line += pct;
  line += status;
  // The line must not wrap, or the next redraw would start on a new line.
  size_t maxLen = (size_t)std::max(columns() - 1, 10);
  if (line.size() > maxLen)
    line.resize(maxLen);
  std::fputs("\r", out);
  std::fputs(line.c_str(), out);
  std::fputs("\x1b[K", out);
  std::fflush(out);
  barShown = true;
}

void ZrTerminalProgress::eraseBar() {
  if (!barShown)
    return;
  std::fputs("\r\x1b[K", out);
  std::fflush(out);
  barShown = false;
}

void ZrTerminalProgress::printLine() {
  if (status.empty())
    return;
  if (workArea && workArea->isWorking())
    std::fprintf(out, "[%3d%%] %s\n", (int)(value * 100.0f + 0.5f), status.c_str());
  else
    std::fprintf(out, "%s\n", status.c_str());
  std::fflush(out);
  lastPrinted = status;
}

void ZrTerminalProgress::messageThrough(const std::string& text) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  eraseBar();
  if (previousSink) {
    previousSink(text);
    if (!text.empty())
      midLine = text.back() != '\n';
  } else {
    ZrMessage::putLine(stderr, text);
  }
  // The bar comes back below the message; after a message that has not ended
  // its line it waits for the next redraw.
  if (!midLine && workArea && workArea->isWorking())
    drawBar(true);
}

void ZrTerminalProgress::workStarted(const std::string& text, int depth) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  if (mode == Silent)
    return;
  if (depth == 1) {
    workText = text;
    value = 0.0f;
    lastDecile = 0;
    lastPrinted.clear();
  }
  if (!text.empty())
    status = text;
  if (mode == Bar)
    drawBar(true);
  else if (!text.empty())
    printLine();
}

void ZrTerminalProgress::workStopped(int depth, bool interrupted) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  if (mode == Silent || depth > 0)
    return;
  eraseBar();
  if (interrupted) {
    std::fprintf(out, "%s: interrupted\n", workText.empty() ? "work" : workText.c_str());
    std::fflush(out);
  }
}

void ZrTerminalProgress::progressInfoChanged(const std::string& text) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  if (mode == Silent)
    return;
  status = text;
  bool working = workArea && workArea->isWorking();
  if (mode == Bar && working)
    drawBar(false);
  else if (!text.empty() && text != lastPrinted)
    printLine();
}

void ZrTerminalProgress::progressValueChanged(float v) {
  std::lock_guard<std::recursive_mutex> lock(mutex);
  if (mode == Silent)
    return;
  value = v;
  bool working = workArea && workArea->isWorking();
  if (mode == Bar) {
    if (working)
      drawBar(false);
    return;
  }
  int decile = (int)(v * 10.0f + 1e-4f);
  if (decile > lastDecile) {
    lastDecile = decile;
    printLine();
  } else if (decile < lastDecile) {
    // Progress started over (a new stage); count tenths from here.
    lastDecile = decile;
  }
}

namespace {
std::atomic<ZrWorkArea*> sigintWorkArea{nullptr};
std::atomic<void (*)()> sigintQuitCleanup{nullptr};
struct sigaction previousSigint;
bool sigintInstalled = false;

// Only async-signal-safe calls: atomic loads and stores, write, signal,
// raise.
void onSigint(int sig) {
  ZrWorkArea* wa = sigintWorkArea.load();
  if (wa && wa->isWorking() && !wa->wasInterrupted(0)) {
    wa->requestInterrupt();
    static const char msg[] = "\nStopping after the current step; press Ctrl-C again to quit.\n";
    ssize_t r = ::write(STDERR_FILENO, msg, sizeof msg - 1);
    (void)r;
    return;
  }
  // A second Ctrl-C, or one while nothing runs: quit as usual, after the
  // cleanup (temporary output files, for one).
  if (void (*cleanup)() = sigintQuitCleanup.load())
    cleanup();
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}
} // namespace

void ZrTerminalProgress::installSigintHandler() {
  if (sigintInstalled)
    return;
  sigintWorkArea.store(ZrWorkArea::getTheWorkArea());
  struct sigaction sa;
  std::memset(&sa, 0, sizeof sa);
  sa.sa_handler = onSigint;
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  if (sigaction(SIGINT, &sa, &previousSigint) == 0)
    sigintInstalled = true;
}

void ZrTerminalProgress::setQuitCleanup(void (*cleanup)()) { sigintQuitCleanup.store(cleanup); }

void ZrTerminalProgress::uninstallSigintHandler() {
  if (!sigintInstalled)
    return;
  sigaction(SIGINT, &previousSigint, nullptr);
  sigintInstalled = false;
}
