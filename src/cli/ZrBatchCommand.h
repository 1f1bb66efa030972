#pragma once
// zrreg batch: runs the rows of a manifest (one registration a row) as
// child processes of zrreg, a few at a time, skips rows whose outputs are
// complete, writes a summary table, and splits the work into shards for
// cluster job arrays and GNU parallel.
#include <string>

class ZrBatchCommand {
public:
  static int run(int argc, char** argv);
  static void printHelp();

  // "I/N" with 1 <= I <= N; false on anything else.
  static bool parseShard(const std::string& text, int& index, int& count);
  // The shard of a Slurm array task, from the values of SLURM_ARRAY_TASK_ID,
  // _COUNT, _MIN and _STEP (null when unset): true with index (1-based) and
  // count when id and count are set and consistent, else false with a
  // message in error (empty when the variables are simply not set).
  static bool shardFromSlurm(const char* id, const char* count, const char* min, const char* step,
                             int& index, int& shards, std::string& error);
};
