#pragma once
// What `zrreg batch` shows while it runs. Every row gets a line when it is
// done ("[ 3/8] row 4  ok  2.1 s  ..."). On a terminal the rows that run are
// shown below those lines, one a row with its own bar and status, and under
// them a bar over all rows; the block is redrawn in place. Elsewhere (a log
// file, a cluster job's output) a line is printed as each row starts. Quiet
// shows only the rows that failed.
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

class ZrBatchProgress {
public:
  ZrBatchProgress(int total, int slots, bool quiet, FILE* out = stderr);
  ~ZrBatchProgress();

  void started(int slot, const std::string& label);
  void progress(int slot, int percent, const std::string& status);
  // A row is done; `slot` is -1 for one that did not run. `ok` counts it as
  // a success (run or skipped).
  void done(int slot, bool ok, const std::string& text);
  // A line of its own, above the live block.
  void note(const std::string& text);
  // Redraws the live block if it is due.
  void tick();
  // Takes the live block away.
  void close();

  bool isTerminal() const { return terminal; }
  int finished() const { return numDone; }

private:
  struct Slot {
    bool busy = false;
    std::string label, status;
    int percent = 0;
  };
  void eraseBlock();
  void drawBlock();
  int columns() const;

  FILE* out;
  bool terminal, quiet;
  int total, numDone = 0, numFailed = 0;
  std::vector<Slot> slotList;
  int linesShown = 0; // lines of the live block on screen
  bool dirty = false;
  std::chrono::steady_clock::time_point start, lastDraw;
};
