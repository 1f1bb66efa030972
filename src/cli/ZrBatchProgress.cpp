#include "ZrBatchProgress.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

std::string bar(double fraction, int cells) {
  int filled = std::max(0, std::min(cells, int(fraction * cells + 0.5)));
  return "[" + std::string(filled, '#') + std::string(cells - filled, '-') + "]";
}

} // namespace

ZrBatchProgress::ZrBatchProgress(int t, int slots, bool q, FILE* o)
    : out(o ? o : stderr), quiet(q), total(t), slotList(std::max(slots, 1)) {
  const char* term = std::getenv("TERM");
  terminal = !quiet && isatty(fileno(out)) && !(term && std::strcmp(term, "dumb") == 0);
  start = lastDraw = std::chrono::steady_clock::now();
}

ZrBatchProgress::~ZrBatchProgress() { close(); }

int ZrBatchProgress::columns() const {
  struct winsize ws;
  if (ioctl(fileno(out), TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0)
    return ws.ws_col;
  return 80;
}

void ZrBatchProgress::started(int slot, const std::string& label) {
  if (slot < 0 || slot >= int(slotList.size()))
    return;
  slotList[slot] = Slot{true, label, "starting", 0};
  if (terminal)
    dirty = true;
  else if (!quiet) {
    std::fprintf(out, "        %s: started\n", label.c_str());
    std::fflush(out);
  }
}

void ZrBatchProgress::progress(int slot, int percent, const std::string& status) {
  if (slot < 0 || slot >= int(slotList.size()))
    return;
  slotList[slot].percent = percent;
  slotList[slot].status = status;
  dirty = true;
}

void ZrBatchProgress::done(int slot, bool ok, const std::string& text) {
  if (slot >= 0 && slot < int(slotList.size()))
    slotList[slot].busy = false;
  numDone++;
  numFailed += ok ? 0 : 1;
  if (quiet && ok)
    return;
  const int width = std::to_string(total).size();
  char count[64];
  std::snprintf(count, sizeof count, "[%*d/%d] ", width, numDone, total);
  note(count + text);
}

void ZrBatchProgress::note(const std::string& text) {
  eraseBlock();
  std::fprintf(out, "%s\n", text.c_str());
  dirty = true;
  if (terminal)
    drawBlock();
  std::fflush(out);
}

void ZrBatchProgress::tick() {
  if (!terminal || !dirty)
    return;
  auto now = std::chrono::steady_clock::now();
  if (std::chrono::duration<double>(now - lastDraw).count() < 0.2)
    return;
  eraseBlock();
  drawBlock();
  std::fflush(out);
}

void ZrBatchProgress::close() {
  eraseBlock();
  std::fflush(out);
  terminal = false;
}

void ZrBatchProgress::eraseBlock() {
  if (!terminal || linesShown == 0)
    return;
  // The cursor stays at the end of the block's last line.
  std::fputc('\r', out);
  if (linesShown > 1)
    std::fprintf(out, "\x1b[%dA", linesShown - 1);
  std::fputs("\x1b[J", out);
  linesShown = 0;
}

void ZrBatchProgress::drawBlock() {
  if (!terminal)
    return;
  lastDraw = std::chrono::steady_clock::now();
  dirty = false;
  // Lines must not wrap, or the block would not be erased whole.
  const size_t width = size_t(std::max(columns() - 1, 20));
  std::vector<std::string> lines;
  int running = 0;
  for (const Slot& s : slotList) {
    if (!s.busy)
      continue;
    running++;
    char pct[16];
    std::snprintf(pct, sizeof pct, " %3d%% ", s.percent);
    lines.push_back("  " + s.label + " " + bar(s.percent / 100.0, 12) + pct + s.status);
  }
  const int elapsed = int(std::chrono::duration<double>(lastDraw - start).count());
  char tail[128];
  std::snprintf(tail, sizeof tail, " %d/%d done, %d running, %d failed, %d:%02d", numDone, total,
                running, numFailed, elapsed / 60, elapsed % 60);
  lines.push_back(bar(total ? double(numDone) / total : 1.0, 30) + tail);
  for (size_t i = 0; i < lines.size(); i++) {
    std::string l = lines[i].size() > width ? lines[i].substr(0, width) : lines[i];
    std::fputs(l.c_str(), out);
    if (i + 1 < lines.size())
      std::fputc('\n', out);
  }
  linesShown = int(lines.size());
}
