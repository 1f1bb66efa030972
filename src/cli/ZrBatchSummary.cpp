#include "ZrBatchSummary.h"

#include "ZrAtomicFile.h"
#include "ZrBatchManifest.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <glob.h>
#include <map>

namespace {

const char* const fixedColumns[] = {"row",    "line",   "status",  "exit_code", "message",
                                    "wall_s", "metric", "command", "reference", "model"};
const int numFixed = 7; // columns before the files

// A cell of the table: tabs and line breaks would break the layout.
std::string clean(std::string s) {
  std::replace_if(
      s.begin(), s.end(), [](char c) { return c == '\t' || c == '\n' || c == '\r'; }, ' ');
  return s;
}

std::vector<std::string> splitTabs(const std::string& line) {
  std::vector<std::string> out(1);
  for (char c : line)
    if (c == '\t')
      out.emplace_back();
    else
      out.back() += c;
  return out;
}

// NAME of NAME.csv: the manifest's path without its extension.
std::string stem(const std::string& manifest) {
  size_t slash = manifest.find_last_of('/');
  size_t dot = manifest.find_last_of('.');
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
      dot == (slash == std::string::npos ? 0 : slash + 1))
    return manifest;
  return manifest.substr(0, dot);
}

} // namespace

ZrBatchSummary::ZrBatchSummary(const ZrBatchManifest& m) : manifest(m) {
  columns.assign(std::begin(fixedColumns), std::end(fixedColumns));
  for (int c : manifest.outputColumns())
    columns.push_back(manifest.columns()[c]);
}

ZrBatchSummary::Entry ZrBatchSummary::entryFor(int rowIndex) const {
  const ZrBatchManifest::Row& r = manifest.rows()[rowIndex];
  Entry e;
  e.row = r.number;
  e.line = r.line;
  e.status = "not-run";
  for (const char* c : {"command", "reference", "model"})
    e.files.push_back(manifest.cell(r, c));
  for (int c : manifest.outputColumns())
    e.files.push_back(r.cells[c]);
  return e;
}

std::string ZrBatchSummary::defaultPath(const std::string& m, int shard, int shards) {
  if (shards <= 1)
    return stem(m) + ".summary.tsv";
  return stem(m) + ".summary-" + std::to_string(shard) + "-of-" + std::to_string(shards) + ".tsv";
}

bool ZrBatchSummary::write(const std::string& path, std::vector<Entry> entries,
                           std::string& error) const {
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.row < b.row; });
  std::string text;
  for (size_t c = 0; c < columns.size(); c++)
    text += (c ? "\t" : "") + columns[c];
  text += '\n';
  for (const Entry& e : entries) {
    text += std::to_string(e.row) + '\t' + std::to_string(e.line);
    for (const std::string* s : {&e.status, &e.exitCode, &e.message, &e.seconds, &e.metric})
      text += '\t' + clean(*s);
    for (const std::string& f : e.files)
      text += '\t' + clean(f);
    text += '\n';
  }
  return ZrAtomicFile::writeText(path, text, error);
}

bool ZrBatchSummary::read(const std::string& path, std::vector<Entry>& entries,
                          std::string& error) const {
  entries.clear();
  std::ifstream in(path);
  if (!in) {
    error = "cannot open '" + path + "': " + std::strerror(errno);
    return false;
  }
  std::string line;
  if (!std::getline(in, line) || splitTabs(line) != columns) {
    error = "'" + path + "' is not a summary of this manifest (its columns differ)";
    return false;
  }
  for (int lineNo = 2; std::getline(in, line); lineNo++) {
    if (line.empty())
      continue;
    std::vector<std::string> f = splitTabs(line);
    char* end = nullptr;
    Entry e;
    e.row = int(std::strtol(f[0].c_str(), &end, 10));
    if (f.size() != columns.size() || *end || e.row < 1 || e.row > int(manifest.rows().size())) {
      error = path + ":" + std::to_string(lineNo) + ": not a line of a summary of this manifest";
      return false;
    }
    e.line = std::atoi(f[1].c_str());
    e.status = f[2];
    e.exitCode = f[3];
    e.message = f[4];
    e.seconds = f[5];
    e.metric = f[6];
    e.files.assign(f.begin() + numFixed, f.end());
    entries.push_back(e);
  }
  return true;
}

bool ZrBatchSummary::merge(const std::vector<std::string>& paths, std::vector<Entry>& entries,
                           std::vector<int>& missing, std::string& error) const {
  std::map<int, std::pair<Entry, std::string>> byRow;
  for (const std::string& p : paths) {
    std::vector<Entry> part;
    if (!read(p, part, error))
      return false;
    for (const Entry& e : part) {
      // A shard lists only its own rows; "not-run" ones are its rows too
      // (stopped by Ctrl-C), so any second appearance is an overlap.
      auto it = byRow.find(e.row);
      if (it != byRow.end()) {
        error = "row " + std::to_string(e.row) + " is in both '" + it->second.second + "' and '" +
                p + "' (summaries of different shard counts? name the files to merge)";
        return false;
      }
      byRow[e.row] = {e, p};
    }
  }
  entries.clear();
  missing.clear();
  for (size_t r = 0; r < manifest.rows().size(); r++) {
    auto it = byRow.find(int(r) + 1);
    if (it != byRow.end()) {
      entries.push_back(it->second.first);
    } else {
      missing.push_back(int(r) + 1);
      entries.push_back(entryFor(int(r)));
      entries.back().message = "in no shard summary";
    }
  }
  return true;
}

std::vector<std::string> ZrBatchSummary::findShards(const std::string& m) {
  std::vector<std::string> found;
  glob_t g;
  std::string pattern = stem(m) + ".summary-*-of-*.tsv";
  if (glob(pattern.c_str(), 0, nullptr, &g) == 0) {
    for (size_t i = 0; i < g.gl_pathc; i++)
      found.push_back(g.gl_pathv[i]);
    globfree(&g);
  }
  return found;
}
