#pragma once
// The manifest of `zrreg batch`: a CSV or TSV table with a header line and
// one registration a row. Columns:
//   command            affine, elastic or apply (required)
//   reference, model   the pair (required columns; a cell may stay empty)
//   options            further options of the command, split into words as
//                      a shell would (single and double quotes)
//   any other column   passed on as --COLUMN CELL (empty cells are left out).
// The columns reference, reference2, reference3, model, landmarks,
// control-points, transform and input name files the command reads; every
// other one names a file it writes, and a row needs at least one of those.
// Paths are relative to the manifest's folder, where the rows run.
#include <string>
#include <vector>

class ZrBatchManifest {
public:
  struct Row {
    int number = 0;                   // 1-based among the data rows
    int line = 0;                     // line of the file on which the row starts
    std::vector<std::string> cells;   // one a column
    std::vector<std::string> options; // the words of the options column
  };

  // Reads and checks a manifest; false with one message a problem, each
  // naming its line and row ("FILE:LINE: row N: ...").
  bool read(const std::string& path, std::vector<std::string>& errors);
  // The same on text in memory; separator ',' or '\t', 0 to tell from the
  // header line.
  bool parse(const std::string& text, const std::string& name, char separator,
             std::vector<std::string>& errors);

  const std::vector<std::string>& columns() const { return header; }
  const std::vector<Row>& rows() const { return table; }
  const std::string& path() const { return file; }
  // The folder paths of the rows are relative to (with a trailing '/', or
  // empty for the working folder).
  const std::string& folder() const { return dir; }

  // "FILE:LINE: row N: " for messages about a row.
  std::string where(const Row& row) const;
  const std::string& cell(const Row& row, const std::string& column) const;
  // The columns that name outputs, in header order.
  std::vector<int> outputColumns() const;
  // The arguments of a row for zrreg: the command, --COLUMN CELL for every
  // non-empty cell but the command and options, then the options.
  std::vector<std::string> arguments(const Row& row) const;
  // A path of the manifest as seen from the working folder.
  std::string resolve(const std::string& path) const;

  static bool isInputColumn(const std::string& column);
  static bool isKnownCommand(const std::string& command);
  // Splits text into words: blanks separate, single and double quotes group.
  static bool splitWords(const std::string& text, std::vector<std::string>& words,
                         std::string& error);

private:
  std::string file, dir;
  std::vector<std::string> header;
  std::vector<Row> table;
  int commandColumn = -1, optionsColumn = -1;
};
