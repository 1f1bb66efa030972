// zrreg batch: the manifest reader, and a batch of small phantom pairs run
// through the zrreg executable with a broken row, a rerun and two shards.
#include "ZrBatchManifest.h"

#include "ZrregRun.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

TEST(ZrBatchManifest, ProblemsNameTheirLineAndRow) {
  const std::string head = "command,reference,model,output\n";
  struct Case {
    std::string text, expected;
  } cases[] = {
      {"command,reference,output\naffine,r.nii,o.nii\n", "m.csv:1: the header has no 'model'"},
      {"command,reference,model\naffine,r.nii,m.nii\n", "m.csv:1: the header names no output"},
      {"command,reference,model,output,output\n", "m.csv:1: the column 'output' appears twice"},
      {head + "affine,r.nii,m.nii,a.nii\n\n# off\nafine,r.nii,m.nii,b.nii\n",
       "m.csv:5: row 2: unknown command 'afine'"},
      {head + "affine,r.nii,m.nii\n", "m.csv:2: row 1: 3 fields, but the header has 4"},
      {head + "affine,\"r.nii,m.nii,o.nii\n", "m.csv:2: a quoted field is not closed"},
      // A quoted cell over two lines moves the line numbers of what follows.
      {"command,reference,model,output,options\naffine,r.nii,m.nii,a.nii,\"--set\nx=1\"\n"
       "affine,r.nii,m.nii,,\n",
       "m.csv:4: row 2: no output file given"},
      {head + "affine,r.nii,m.nii,out/a.nii\nelastic,r.nii,m.nii,out/a.nii\n",
       "m.csv:3: row 2: writes 'out/a.nii', as row 1 does"},
      {head + "affine,r.nii,m.nii,m.nii\n",
       "m.csv:2: row 1: would overwrite its own model 'm.nii'"},
      {"command,reference,model,output,options\naffine,r.nii,m.nii,o.nii,--set 'metric=x\n",
       "m.csv:2: row 1: the options have an unterminated single quote"},
      {"# only a comment\n", "m.csv: the manifest is empty"},
      {head, "m.csv: the manifest has a header but no rows"},
  };
  for (const Case& c : cases) {
    ZrBatchManifest m;
    std::vector<std::string> errors;
    EXPECT_FALSE(m.parse(c.text, "dir/m.csv", 0, errors)) << c.text;
    std::string all;
    for (const auto& e : errors)
      all += e + "\n";
    EXPECT_NE(all.find("dir/" + c.expected), std::string::npos) << c.text << "\n" << all;
  }
}

TEST(ZrBatchManifest, RowsBecomeTheArgumentsOfTheirCommand) {
  // A spreadsheet's CSV: byte-order mark, CRLF, header with odd case and
  // blanks, a quoted path with a comma and a doubled quote, and options with
  // both kinds of quotes.
  const std::string csv =
      "\xEF\xBB\xBF"
      "Command, Reference ,model,output,--matrix,options\r\n"
      "affine,ref.nii,\"sub 1,a\"\"b.nii\",/abs/o.nii,,"
      "\"--set 'metric=Normalized Mutual Information' --set \"\"transform=Rigid=on\"\"\"\r\n";
  ZrBatchManifest m;
  std::vector<std::string> errors;
  ASSERT_TRUE(m.parse(csv, "runs/m.csv", 0, errors)) << errors[0];
  ASSERT_EQ(m.rows().size(), 1u);
  const std::vector<std::string> expected = {"affine",
                                             "--reference",
                                             "ref.nii",
                                             "--model",
                                             "sub 1,a\"b.nii",
                                             "--output",
                                             "/abs/o.nii",
                                             "--set",
                                             "metric=Normalized Mutual Information",
                                             "--set",
                                             "transform=Rigid=on"};
  EXPECT_EQ(m.arguments(m.rows()[0]), expected);
  EXPECT_EQ(m.outputColumns(), (std::vector<int>{3, 4}));
  EXPECT_EQ(m.resolve("ref.nii"), "runs/ref.nii");
  EXPECT_EQ(m.resolve("/abs/o.nii"), "/abs/o.nii");

  // Tabs separate when the header has them; commas are then plain text.
  ASSERT_TRUE(m.parse("command\treference\tmodel\toutput\nelastic\ta,b.nii\tm.nii\to.nii\n",
                      "m.txt", 0, errors));
  EXPECT_EQ(m.arguments(m.rows()[0])[2], "a,b.nii");
}

namespace {

// zrreg outside any Slurm array the tests themselves may run in, with the
// variables given.
Shell batchRun(const std::string& args, const std::string& vars = "") {
  return shell("env -u SLURM_ARRAY_TASK_ID -u SLURM_ARRAY_TASK_COUNT " + vars + " " + zrreg() +
               " " + args);
}

// A summary as row -> column -> value.
std::map<int, std::map<std::string, std::string>> readSummary(const std::string& path) {
  std::map<int, std::map<std::string, std::string>> rows;
  std::ifstream in(path);
  std::string line;
  std::vector<std::string> head;
  auto split = [](const std::string& l) {
    std::vector<std::string> f(1);
    for (char c : l)
      if (c == '\t')
        f.emplace_back();
      else
        f.back().push_back(c);
    return f;
  };
  if (std::getline(in, line))
    head = split(line);
  while (std::getline(in, line)) {
    std::vector<std::string> f = split(line);
    if (f.size() != head.size())
      continue;
    for (size_t c = 0; c < f.size(); c++)
      rows[std::atoi(f[0].c_str())][head[c]] = f[c];
  }
  return rows;
}

ino_t inodeOf(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

} // namespace

TEST(ZrBatch, PhantomPairsWithABrokenRowRerunAndShards) {
  const std::string dir = "/tmp/zrreg-batchtest-" + std::to_string(getpid());
  mkdir(dir.c_str(), 0777);
  for (int p = 1; p <= 3; p++) {
    Shell r = batchRun("phantom --size 20 --rotate " + std::to_string(2 * p) + ",1,-2 --out " +
                       dir + "/p" + std::to_string(p));
    ASSERT_EQ(r.status, 0) << r.output;
  }
  std::ofstream(dir + "/junk.nii") << "not an image";
  // Row 3 cannot be read; row 5 writes its image but not its matrix (a file
  // is in the way of its folder), so it must leave no image either.
  std::ofstream(dir + "/m.csv")
      << "command,reference,model,output,matrix,options\n"
         "affine,p1/reference.nii.gz,p1/model.nii.gz,out/a1.nii.gz,out/a1.txt,\n"
         "elastic,p2/reference.nii.gz,p2/model.nii.gz,out/e2.nii.gz,,"
         "\"--set refineGrid=0 --set 'step=4,2'\"\n"
         "affine,p1/reference.nii.gz,junk.nii,out/bad.nii.gz,,\n"
         "affine,p3/reference.nii.gz,p3/model.nii.gz,out/s/a4.nii.gz,out/s/a4.txt,"
         "--set transform=Rigid=on\n"
         "affine,p2/reference.nii.gz,p2/model.nii.gz,out/a5.nii.gz,p1/known.txt/a5.txt,\n";
  const std::string m = dir + "/m.csv", summary = dir + "/m.summary.tsv";

  Shell r = batchRun("batch " + m + " --jobs 2");
  EXPECT_EQ(r.status, 1) << r.output;
  auto first = readSummary(summary);
  ASSERT_EQ(first.size(), 5u) << r.output;
  for (int row : {1, 2, 4}) {
    EXPECT_EQ(first[row]["status"], "ok") << row << "\n" << r.output;
    EXPECT_EQ(first[row]["exit_code"], "0");
    EXPECT_GT(std::atof(first[row]["metric"].c_str()), 0.5) << row;
    EXPECT_GT(std::atof(first[row]["wall_s"].c_str()), 0.0) << row;
    EXPECT_NE(inodeOf(dir + "/" + first[row]["output"]), 0u) << row;
  }
  EXPECT_EQ(first[3]["status"], "failed");
  EXPECT_EQ(first[3]["exit_code"], "1");
  EXPECT_NE(first[3]["message"].find("junk.nii"), std::string::npos) << first[3]["message"];
  EXPECT_EQ(first[5]["status"], "failed");
  EXPECT_NE(first[5]["message"].find("a5.txt"), std::string::npos) << first[5]["message"];
  EXPECT_EQ(inodeOf(dir + "/out/a5.nii.gz"), 0u) << "a failed row left its output";
  EXPECT_NE(r.output.find("2 failed (rows 3, 5)"), std::string::npos) << r.output;

  // The rerun skips the finished rows and keeps their figures; a row that
  // lost one of its outputs runs again.
  const ino_t e2 = inodeOf(dir + "/out/e2.nii.gz");
  std::remove((dir + "/out/a1.txt").c_str());
  r = batchRun("batch " + m + " --jobs 2");
  EXPECT_EQ(r.status, 1) << r.output;
  auto second = readSummary(summary);
  EXPECT_EQ(second[1]["status"], "ok");
  EXPECT_NE(inodeOf(dir + "/out/a1.txt"), 0u);
  for (int row : {2, 4}) {
    EXPECT_EQ(second[row]["status"], "skipped") << row;
    EXPECT_EQ(second[row]["metric"], first[row]["metric"]) << row;
  }
  EXPECT_EQ(inodeOf(dir + "/out/e2.nii.gz"), e2);
  EXPECT_EQ(second[3]["status"], "failed");

  // Two shards, one by option, one as a Slurm array task, redo exactly the
  // rows of the whole run; merged, they are its summary.
  r = batchRun("batch " + m + " --force --quiet --shard 1/2");
  EXPECT_EQ(r.status, 1) << r.output; // row 3 is in shard 1
  r = batchRun("batch " + m + " --force --quiet",
               "SLURM_ARRAY_TASK_ID=8 SLURM_ARRAY_TASK_MIN=7 SLURM_ARRAY_TASK_COUNT=2");
  EXPECT_EQ(r.status, 0) << r.output;
  auto s1 = readSummary(dir + "/m.summary-1-of-2.tsv");
  auto s2 = readSummary(dir + "/m.summary-2-of-2.tsv");
  std::set<int> rows1, rows2;
  for (const auto& kv : s1)
    rows1.insert(kv.first);
  for (const auto& kv : s2)
    rows2.insert(kv.first);
  EXPECT_EQ(rows1, (std::set<int>{1, 3, 5}));
  EXPECT_EQ(rows2, (std::set<int>{2, 4}));
  std::remove(summary.c_str());
  r = batchRun("batch --merge " + m);
  EXPECT_EQ(r.status, 1) << r.output;
  auto merged = readSummary(summary);
  ASSERT_EQ(merged.size(), first.size());
  for (auto& kv : first)
    EXPECT_EQ(merged[kv.first]["status"], kv.second["status"]) << kv.first;

  // A bad manifest runs nothing.
  std::ofstream(dir + "/bad.csv") << "command,reference,model,output\n"
                                     "affine,p1/reference.nii.gz,p1/model.nii.gz,out/x.nii.gz\n"
                                     "register,p1/reference.nii.gz,p1/model.nii.gz,out/y.nii.gz\n";
  r = batchRun("batch " + dir + "/bad.csv");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.output.find("bad.csv:3: row 2: unknown command 'register'"), std::string::npos)
      << r.output;
  EXPECT_EQ(inodeOf(dir + "/out/x.nii.gz"), 0u);
  // A missing input fails its row, named with its line, without running it.
  std::ofstream(dir + "/missing.csv")
      << "command,reference,model,output\n"
         "affine,p1/reference.nii.gz,p9/model.nii.gz,out/x.nii.gz\n";
  r = batchRun("batch " + dir + "/missing.csv");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("the model 'p9/model.nii.gz' does not exist (" + dir + "/missing.csv:2)"),
            std::string::npos)
      << r.output;
  EXPECT_EQ(readSummary(dir + "/missing.summary.tsv")[1]["exit_code"], "");
  std::system(("rm -rf " + dir).c_str());
}
