#pragma once
// The summary table of `zrreg batch`, a TSV file with one line a row of the
// manifest: row, line, status, exit_code, message, wall_s, metric, command,
// reference, model, then the manifest's output columns. Status is one of
// ok, skipped (its outputs were complete), failed, interrupted, not-run.
// Shards write one each; merge() joins them.
#include <string>
#include <vector>

class ZrBatchManifest;

class ZrBatchSummary {
public:
  struct Entry {
    int row = 0, line = 0;
    std::string status, exitCode, message, seconds, metric;
    std::vector<std::string> files; // command, reference, model, the outputs
  };

  explicit ZrBatchSummary(const ZrBatchManifest& manifest);
  // An entry for a row of the manifest, status "not-run".
  Entry entryFor(int rowIndex) const;

  // The summary beside the manifest: NAME.summary.tsv, or for shard I of N
  // NAME.summary-I-of-N.tsv (NAME: the manifest's name without extension).
  static std::string defaultPath(const std::string& manifest, int shard, int shards);

  // Writes the entries, sorted by row, through a temporary file.
  bool write(const std::string& path, std::vector<Entry> entries, std::string& error) const;
  // Reads a summary written for the same manifest (same columns).
  bool read(const std::string& path, std::vector<Entry>& entries, std::string& error) const;

  // Joins shard summaries: every row of the manifest must be in exactly one.
  // Rows in none come out "not-run" and are listed in `missing`; a row in two
  // files is an error.
  bool merge(const std::vector<std::string>& paths, std::vector<Entry>& entries,
             std::vector<int>& missing, std::string& error) const;

  // Shard summaries that sit beside the manifest, for --merge without names.
  static std::vector<std::string> findShards(const std::string& manifest);

private:
  const ZrBatchManifest& manifest;
  std::vector<std::string> columns;
};
