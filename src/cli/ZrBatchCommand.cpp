#include "ZrBatchCommand.h"

#include "ZrAtomicFile.h"
#include "ZrBatchManifest.h"
#include "ZrBatchProgress.h"
#include "ZrBatchRunner.h"
#include "ZrBatchSummary.h"
#include "ZrRunContext.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sched.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

int usageError(const std::string& msg) {
  std::fprintf(stderr, "zrreg batch: %s\n(see 'zrreg batch --help')\n", msg.c_str());
  return 2;
}

int availableCores() {
  cpu_set_t set;
  if (sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 0)
    return CPU_COUNT(&set);
  unsigned hw = std::thread::hardware_concurrency();
  return hw > 0 ? int(hw) : 1;
}

bool parseNumber(const char* text, long& value) {
  if (!text || !*text)
    return false;
  char* end = nullptr;
  errno = 0;
  value = std::strtol(text, &end, 10);
  return *end == 0 && errno == 0;
}

// What an output looked like before its row ran, so that a row that fails
// can take away exactly what it wrote.
struct FileState {
  bool exists = false;
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  struct timespec mtime = {0, 0};
  std::vector<std::string> absentData; // data files of a detached header
};

FileState stateOf(const std::string& path) {
  FileState s;
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    s.exists = true;
    s.dev = st.st_dev;
    s.ino = st.st_ino;
    s.size = st.st_size;
    s.mtime = st.st_mtim;
  }
  s.absentData = ZrAtomicFile::absentDataFiles(path);
  return s;
}

bool changed(const FileState& before, const std::string& path) {
  FileState now = stateOf(path);
  return now.exists && (!before.exists || now.dev != before.dev || now.ino != before.ino ||
                        now.size != before.size || now.mtime.tv_sec != before.mtime.tv_sec ||
                        now.mtime.tv_nsec != before.mtime.tv_nsec);
}

// An output counts as complete when it is a non-empty file. The commands
// write under a temporary name and rename when done, so a file of the final
// name is whole; a row the batch sees fail has what it wrote taken away.
bool isComplete(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
}

std::string baseName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Makes the folders of path that do not exist yet (as mkdir -p).
bool makeParents(const std::string& path, std::string& error) {
  for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
    const std::string dir = path.substr(0, at);
    if (mkdir(dir.c_str(), 0777) != 0 && errno != EEXIST) {
      error = "cannot make the folder '" + dir + "': " + std::strerror(errno);
      return false;
    }
  }
  return true;
}

std::string formatSeconds(double s) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.2f", s);
  return buf;
}

struct Options {
  std::string manifest, summary, logs;
  std::vector<std::string> mergeFiles;
  bool merge = false, force = false, quiet = false;
  int jobs = 1, threads = 0, shard = 1, shards = 1;
  bool shardGiven = false;
};

int runMerge(const Options& o, const ZrBatchManifest& manifest) {
  ZrBatchSummary summary(manifest);
  std::vector<std::string> files = o.mergeFiles;
  if (files.empty())
    files = ZrBatchSummary::findShards(o.manifest);
  if (files.empty()) {
    std::fprintf(stderr, "zrreg batch: no shard summaries beside '%s' (NAME.summary-I-of-N.tsv)\n",
                 o.manifest.c_str());
    return 1;
  }
  std::vector<ZrBatchSummary::Entry> entries;
  std::vector<int> missing;
  std::string error;
  if (!summary.merge(files, entries, missing, error)) {
    std::fprintf(stderr, "zrreg batch: %s\n", error.c_str());
    return 1;
  }
  const std::string out =
      o.summary.empty() ? ZrBatchSummary::defaultPath(o.manifest, 1, 1) : o.summary;
  if (!summary.write(out, entries, error)) {
    std::fprintf(stderr, "zrreg batch: %s\n", error.c_str());
    return 1;
  }
  int good = 0;
  std::string bad;
  for (const auto& e : entries)
    if (e.status == "ok" || e.status == "skipped")
      good++;
    else
      bad += (bad.empty() ? "" : ", ") + std::to_string(e.row) + " (" + e.status + ")";
  std::fprintf(stderr, "zrreg batch: merged %zu summaries into %s: %d of %zu rows done\n",
               files.size(), out.c_str(), good, entries.size());
  if (!missing.empty())
    std::fprintf(stderr, "zrreg batch: %zu rows are in no summary (did every shard run?)\n",
                 missing.size());
  if (!bad.empty())
    std::fprintf(stderr, "zrreg batch: not done: rows %s\n", bad.c_str());
  return bad.empty() ? 0 : 1;
}

} // namespace

void ZrBatchCommand::printHelp() {
  std::printf("usage: zrreg batch MANIFEST [options]\n"
              "       zrreg batch --merge MANIFEST [SUMMARY...]\n"
              "\n"
              "Runs many registrations, one a row of MANIFEST: a CSV or TSV table whose header\n"
              "names the columns\n"
              "  command            affine, elastic or apply\n"
              "  reference, model   the pair\n"
              "  output, ...        files to write: each column is passed on as --COLUMN CELL\n"
              "                     (output, matrix, itk-transform, resampled, control-grid, ...)\n"
              "  options            further options of the command (optional), such as\n"
              "                     --set 'metric=Normalized Mutual Information'\n"
              "The columns reference, reference2, reference3, model, landmarks, control-points,\n"
              "transform and input are read; every other one is written. Paths are relative to\n"
              "the manifest's folder; empty cells are left out; lines starting with '#' are\n"
              "skipped. Example:\n"
              "  command,reference,model,output,matrix,options\n"
              "  affine,atlas.nii.gz,s01.nii.gz,out/s01.nii.gz,out/s01.txt,\n"
              "  elastic,atlas.nii.gz,out/s01.nii.gz,out/s01-warped.nii.gz,,--set refineGrid=2\n"
              "\n"
              "Each row runs as a separate zrreg process: a row that fails, crashes or runs out\n"
              "of memory is reported and the others go on. A row whose outputs all exist is\n"
              "skipped, so a batch that was stopped resumes where it was; a row that fails\n"
              "leaves none of its outputs behind.\n"
              "\n"
              "options:\n"
              "  --jobs N        rows run at once (default 1)\n"
              "  --threads N     threads of each row (default: the cores this process may use,\n"
              "                  divided by --jobs)\n"
              "  --force         run rows whose outputs exist too\n"
              "  --shard I/N     run only rows I, I+N, I+2N, ... (1 <= I <= N): N shards cover\n"
              "                  the manifest without overlap. In a Slurm job array the shard\n"
              "                  comes from SLURM_ARRAY_TASK_ID and SLURM_ARRAY_TASK_COUNT\n"
              "                  (--shard 1/1 runs every row there).\n"
              "  --summary FILE  the summary table (default: NAME.summary.tsv beside the\n"
              "                  manifest, NAME.summary-I-of-N.tsv for shard I of N)\n"
              "  --logs DIR      the output of every row (default: NAME.logs/ beside the\n"
              "                  manifest; row-N.log)\n"
              "  --quiet         show only the rows that fail\n"
              "  --merge         join the shard summaries beside MANIFEST (or those named)\n"
              "                  into NAME.summary.tsv\n"
              "\n"
              "The summary (TSV) has a line a row: row, line, status (ok, skipped, failed,\n"
              "interrupted, not-run), exit_code, message, wall_s, metric (the last metric\n"
              "value the row printed), command, reference, model and the outputs.\n"
              "Exit status: 0 when every row is done, 1 when a row failed, 2 for a bad\n"
              "manifest or option, 130 after Ctrl-C. The first Ctrl-C lets the running rows\n"
              "finish and starts no more; a second one (or SIGTERM) stops them, and the\n"
              "outputs they had written are removed.\n");
}

bool ZrBatchCommand::parseShard(const std::string& text, int& index, int& count) {
  size_t slash = text.find('/');
  if (slash == std::string::npos)
    return false;
  long i = 0, n = 0;
  if (!parseNumber(text.substr(0, slash).c_str(), i) ||
      !parseNumber(text.substr(slash + 1).c_str(), n) || n < 1 || n > 1000000 || i < 1 || i > n)
    return false;
  index = int(i);
  count = int(n);
  return true;
}

bool ZrBatchCommand::shardFromSlurm(const char* id, const char* count, const char* min,
                                    const char* step, int& index, int& shards, std::string& error) {
  error.clear();
  if (!id || !count)
    return false;
  long taskId = 0, taskCount = 0, taskMin = 0, taskStep = 1;
  if (!parseNumber(id, taskId) || !parseNumber(count, taskCount) || taskCount < 1 ||
      (min && !parseNumber(min, taskMin)) || (step && !parseNumber(step, taskStep)) ||
      taskStep < 1) {
    error = "the SLURM_ARRAY_TASK_* variables are not numbers";
    return false;
  }
  // Task ids run min, min + step, ...; the shard is the position in that row.
  const long offset = taskId - taskMin;
  if (offset < 0 || offset % taskStep != 0 || offset / taskStep >= taskCount) {
    error = "SLURM_ARRAY_TASK_ID=" + std::string(id) + " is not one of " +
            std::to_string(taskCount) + " tasks from " + std::to_string(taskMin) + " in steps of " +
            std::to_string(taskStep) + "; give the shard with --shard I/N";
    return false;
  }
  index = int(offset / taskStep) + 1;
  shards = int(taskCount);
  return true;
}

int ZrBatchCommand::run(int argc, char** argv) {
  Options o;
  std::vector<std::string> positional;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    auto value = [&](const char* what) -> const char* {
      if (i + 1 >= argc) {
        usageError("option '" + a + "' needs " + what);
        return nullptr;
      }
      return argv[++i];
    };
    if (a == "--help" || a == "-h") {
      printHelp();
      return 0;
    } else if (a == "--jobs" || a == "-j") {
      const char* v = value("a number");
      if (!v)
        return 2;
      if (!ZrRunContext::parseInt(v, o.jobs) || o.jobs < 1)
        return usageError("--jobs takes a positive number");
    } else if (a == "--threads") {
      const char* v = value("a number");
      if (!v)
        return 2;
      if (!ZrRunContext::parseInt(v, o.threads) || o.threads < 1)
        return usageError("--threads takes a positive number");
    } else if (a == "--shard") {
      const char* v = value("I/N");
      if (!v)
        return 2;
      if (!parseShard(v, o.shard, o.shards))
        return usageError("--shard takes I/N with 1 <= I <= N, got '" + std::string(v) + "'");
      o.shardGiven = true;
    } else if (a == "--summary" || a == "--logs") {
      const char* v = value("a path");
      if (!v)
        return 2;
      (a == "--summary" ? o.summary : o.logs) = v;
    } else if (a == "--force")
      o.force = true;
    else if (a == "--quiet" || a == "-q")
      o.quiet = true;
    else if (a == "--merge")
      o.merge = true;
    else if (!a.empty() && a[0] == '-')
      return usageError("unknown option '" + a + "'");
    else
      positional.push_back(a);
  }
  if (positional.empty())
    return usageError("a manifest is required");
  o.manifest = positional[0];
  if (o.merge)
    o.mergeFiles.assign(positional.begin() + 1, positional.end());
  else if (positional.size() > 1)
    return usageError("one manifest at a time ('" + positional[1] + "' is one too many)");

  ZrBatchManifest manifest;
  std::vector<std::string> errors;
  if (!manifest.read(o.manifest, errors)) {
    const size_t shown = std::min<size_t>(errors.size(), 20);
    for (size_t k = 0; k < shown; k++)
      std::fprintf(stderr, "zrreg batch: %s\n", errors[k].c_str());
    if (errors.size() > shown)
      std::fprintf(stderr, "zrreg batch: ... and %zu more problems\n", errors.size() - shown);
    return 2;
  }
  if (o.merge)
    return runMerge(o, manifest);

  if (!o.shardGiven) {
    std::string error;
    if (!shardFromSlurm(std::getenv("SLURM_ARRAY_TASK_ID"), std::getenv("SLURM_ARRAY_TASK_COUNT"),
                        std::getenv("SLURM_ARRAY_TASK_MIN"), std::getenv("SLURM_ARRAY_TASK_STEP"),
                        o.shard, o.shards, error) &&
        !error.empty())
      return usageError(error);
  }
  const std::string manifestName = [&] {
    std::string b = baseName(o.manifest);
    size_t dot = b.find_last_of('.');
    return dot == std::string::npos || dot == 0 ? b : b.substr(0, dot);
  }();
  if (o.summary.empty())
    o.summary = ZrBatchSummary::defaultPath(o.manifest, o.shard, o.shards);
  if (o.logs.empty())
    o.logs = manifest.folder() + manifestName + ".logs";
  if (mkdir(o.logs.c_str(), 0777) != 0 && errno != EEXIST) {
    std::fprintf(stderr, "zrreg batch: cannot make the log folder '%s': %s\n", o.logs.c_str(),
                 std::strerror(errno));
    return 1;
  }
  const int cores = availableCores();
  const int threads = o.threads > 0 ? o.threads : std::max(1, cores / o.jobs);

  // The rows of this shard.
  const auto& rows = manifest.rows();
  std::vector<size_t> mine;
  for (size_t r = 0; r < rows.size(); r++)
    if (int(r % o.shards) == o.shard - 1)
      mine.push_back(r);

  ZrBatchSummary summary(manifest);
  // Figures of rows that an earlier run of this shard finished, carried over
  // when they are skipped now.
  std::map<int, ZrBatchSummary::Entry> earlier;
  {
    std::vector<ZrBatchSummary::Entry> old;
    std::string ignored;
    if (access(o.summary.c_str(), F_OK) == 0 && summary.read(o.summary, old, ignored))
      for (const auto& e : old)
        earlier[e.row] = e;
  }

  std::map<int, ZrBatchSummary::Entry> entries; // by row index
  for (size_t r : mine)
    entries[int(r)] = summary.entryFor(int(r));
  std::string error;
  auto writeSummary = [&]() {
    std::vector<ZrBatchSummary::Entry> list;
    for (const auto& kv : entries)
      list.push_back(kv.second);
    if (!summary.write(o.summary, list, error))
      std::fprintf(stderr, "zrreg batch: %s\n", error.c_str());
  };

  ZrBatchProgress progress(int(mine.size()), o.jobs, o.quiet);
  if (!o.quiet) {
    std::string what = std::to_string(mine.size()) + " of " + std::to_string(rows.size()) + " rows";
    if (o.shards > 1)
      what += " (shard " + std::to_string(o.shard) + " of " + std::to_string(o.shards) + ")";
    progress.note("zrreg batch: " + what + ", " + std::to_string(o.jobs) + " at a time, " +
                  std::to_string(threads) + " thread" + (threads > 1 ? "s" : "") +
                  " each; summary in " + o.summary);
  }
  const std::vector<int> outCols = manifest.outputColumns();
  auto label = [&](const ZrBatchManifest::Row& row) {
    return "row " + std::to_string(row.number) + " " + manifest.cell(row, "command") + " " +
           manifest.cell(row, "model");
  };

  // Rows with complete outputs are skipped, rows with a missing input fail
  // now.
  std::vector<ZrBatchRunner::Job> jobs;
  std::vector<size_t> jobRow;
  std::vector<std::vector<FileState>> before;
  for (size_t r : mine) {
    const ZrBatchManifest::Row& row = rows[r];
    ZrBatchSummary::Entry& e = entries[int(r)];
    bool complete = !o.force;
    for (int c : outCols)
      if (!row.cells[c].empty())
        complete = complete && isComplete(manifest.resolve(row.cells[c]));
    if (complete) {
      e.status = "skipped";
      e.message = "outputs complete";
      auto old = earlier.find(row.number);
      if (old != earlier.end() && old->second.files == e.files &&
          (old->second.status == "ok" || old->second.status == "skipped")) {
        e.seconds = old->second.seconds;
        e.metric = old->second.metric;
        e.exitCode = old->second.exitCode;
      }
      progress.done(-1, true, label(row) + "  skipped (outputs complete)");
      continue;
    }
    std::string missing;
    for (size_t c = 0; c < manifest.columns().size() && missing.empty(); c++) {
      const std::string& cell = row.cells[c];
      if (ZrBatchManifest::isInputColumn(manifest.columns()[c]) && !cell.empty() &&
          access(manifest.resolve(cell).c_str(), F_OK) != 0)
        missing = "the " + manifest.columns()[c] + " '" + cell + "' does not exist";
    }
    if (!missing.empty()) {
      e.status = "failed";
      e.message = missing;
      progress.done(-1, false,
                    label(row) + "  failed: " + missing + " (" + manifest.path() + ":" +
                        std::to_string(row.line) + ")");
      continue;
    }
    // Outputs may go to folders of their own (out/s01/...).
    std::string why;
    for (int c : outCols)
      if (!row.cells[c].empty() && why.empty())
        makeParents(manifest.resolve(row.cells[c]), why);
    if (!why.empty()) {
      e.status = "failed";
      e.message = why;
      progress.done(-1, false, label(row) + "  failed: " + why);
      continue;
    }
    ZrBatchRunner::Job job;
    job.args = manifest.arguments(row);
    job.folder = manifest.folder();
    job.log = o.logs + "/row-" + std::to_string(row.number) + ".log";
    job.label = label(row);
    job.env = {"ZR_NUM_THREADS=" + std::to_string(threads),
               "OMP_NUM_THREADS=" + std::to_string(threads)};
    // Rows share the cores with each other and often with other work. Idle
    // OpenMP threads that spin between parallel regions then take the cores
    // from those that compute: on a busy 2-core machine a 2-thread affine
    // row used four times the CPU time of a 1-thread one. Sleeping waits
    // cost little, so rows wait passively unless the user chose otherwise.
    if (!std::getenv("OMP_WAIT_POLICY"))
      job.env.push_back("OMP_WAIT_POLICY=passive");
    std::vector<FileState> states;
    for (int c : outCols)
      states.push_back(row.cells[c].empty() ? FileState()
                                            : stateOf(manifest.resolve(row.cells[c])));
    jobs.push_back(job);
    jobRow.push_back(r);
    before.push_back(states);
  }
  writeSummary();

  // "/proc/self/exe" is this very program, even if its file has been
  // replaced since it started.
  ZrBatchRunner runner("/proc/self/exe", o.jobs, &progress);
  runner.run(jobs, [&](size_t j, const ZrBatchRunner::Outcome& out) {
    const ZrBatchManifest::Row& row = rows[jobRow[j]];
    ZrBatchSummary::Entry& e = entries[int(jobRow[j])];
    e.exitCode = out.exitCode >= 0 ? std::to_string(out.exitCode)
                 : out.signal      ? "signal " + std::to_string(out.signal)
                                   : "";
    e.seconds = formatSeconds(out.seconds);
    e.message = out.message;
    std::string notWritten;
    for (int c : outCols)
      if (!row.cells[c].empty() && !isComplete(manifest.resolve(row.cells[c])) &&
          notWritten.empty())
        notWritten = row.cells[c];
    if (out.exitCode == 0 && notWritten.empty()) {
      e.status = "ok";
      e.metric = out.metric;
    } else {
      e.status = out.stopped || out.exitCode == 130 ? "interrupted" : "failed";
      if (out.exitCode == 0)
        e.message = "exited with success but did not write '" + notWritten + "'";
      // No partial results: what the row wrote goes, with the temporary
      // files of a process that was killed while writing.
      for (size_t k = 0; k < outCols.size(); k++) {
        const std::string& cell = row.cells[outCols[k]];
        if (cell.empty())
          continue;
        const std::string path = manifest.resolve(cell);
        if (changed(before[j][k], path))
          ZrAtomicFile::removeWithData(path, before[j][k].absentData);
        const std::string dir = path.substr(0, path.size() - baseName(path).size());
        std::remove((dir + ".zrreg-" + std::to_string(out.pid) + "-" + baseName(path)).c_str());
      }
    }
    std::string line = label(row) + "  " + e.status;
    if (e.status == "ok") {
      line += "  " + e.seconds + " s";
      if (!e.metric.empty())
        line += "  metric " + e.metric;
    } else {
      line +=
          ": " + e.message + " (log: " + o.logs + "/row-" + std::to_string(row.number) + ".log)";
    }
    progress.done(out.slot, e.status == "ok", line);
    writeSummary();
  });
  progress.close();
  writeSummary();

  std::map<std::string, std::vector<int>> byStatus;
  for (const auto& kv : entries)
    byStatus[kv.second.status].push_back(kv.second.row);
  const int failed = int(byStatus["failed"].size() + byStatus["interrupted"].size());
  if (!o.quiet || failed || runner.interrupted()) {
    std::string text = "zrreg batch:";
    for (const char* s : {"ok", "skipped", "failed", "interrupted", "not-run"}) {
      const std::vector<int>& list = byStatus[s];
      if (list.empty() && std::strcmp(s, "ok") && std::strcmp(s, "failed"))
        continue;
      text += std::string(text.back() == ':' ? " " : ", ") + std::to_string(list.size()) + " " + s;
      if (std::strcmp(s, "failed") == 0 || std::strcmp(s, "interrupted") == 0)
        for (size_t k = 0; k < list.size(); k++)
          text += (k                 ? ", "
                   : list.size() > 1 ? " (rows "
                                     : " (row ") +
                  std::to_string(list[k]) + (k + 1 == list.size() ? ")" : "");
    }
    std::fprintf(stderr, "%s; summary in %s\n", text.c_str(), o.summary.c_str());
  }
  if (runner.interrupted())
    return 130;
  return failed ? 1 : 0;
}
