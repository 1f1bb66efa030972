#pragma once
// Runs the rows of a batch as child processes of the zrreg executable, a few
// at a time. A child that crashes, runs out of memory or is killed ends only
// its own row. Each child runs in its own process group, so that Ctrl-C on
// the terminal reaches the batch alone: the first one stops starting new
// rows and lets the running ones finish, a second one (or SIGTERM, SIGHUP,
// as a cluster's scheduler sends at the end of a job's time) ends the
// running ones too. The output of a child goes to its log file and is read
// on the way for its progress, its last error message and its last metric
// value.
#include <functional>
#include <string>
#include <vector>

class ZrBatchProgress;

class ZrBatchRunner {
public:
  struct Job {
    std::vector<std::string> args; // after the program name
    std::string folder;            // where the child runs; empty: here
    std::string log;               // file for its output; empty: none
    std::string label;             // how progress names it
    std::vector<std::string> env;  // NAME=VALUE set for the child
  };
  struct Outcome {
    int slot = -1;
    int pid = 0;
    int exitCode = -1; // -1 when a signal ended it
    int signal = 0;
    bool stopped = false; // ended by the batch (second Ctrl-C, SIGTERM)
    double seconds = 0;
    std::string message; // the last error line, or how it ended
    std::string metric;  // the last metric value it printed
  };

  ZrBatchRunner(const std::string& program, int parallel, ZrBatchProgress* progress);

  // Runs the jobs in order, at most `parallel` at once; `finished` is called
  // for each as it ends. Jobs not started because of Ctrl-C get no call.
  void run(const std::vector<Job>& jobs,
           const std::function<void(size_t, const Outcome&)>& finished);
  // True when Ctrl-C, SIGTERM or SIGHUP came during run().
  bool interrupted() const { return stopRequested; }

  // Reading a child's output, one line at a time.
  struct Scan {
    int percent = -1;
    std::string status;
    std::string metric;
    std::string lastError; // the last line that starts with "zrreg"
    std::string lastLine;  // the last other line with text
  };
  static void scanLine(const std::string& line, Scan& scan);
  // How a child ended, in words.
  static std::string describeEnd(int exitCode, int signal, bool stopped, const Scan& scan);

private:
  std::string program;
  int parallel;
  ZrBatchProgress* progress;
  bool stopRequested = false;
};
