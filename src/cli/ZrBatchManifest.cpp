#include "ZrBatchManifest.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace {

const char* const inputColumns[] = {"reference", "reference2",     "reference3", "model",
                                    "landmarks", "control-points", "transform",  "input"};
const char* const commands[] = {"affine", "elastic", "apply"};

struct Record {
  int line = 0;
  std::vector<std::string> fields;
};

std::string trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r"), e = s.find_last_not_of(" \t\r");
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

// Splits text into records. A field that starts with a double quote runs to
// the closing quote and may hold separators, line breaks and doubled quotes;
// elsewhere quotes are ordinary characters. Unquoted fields are trimmed.
bool splitRecords(const std::string& text, char sep, std::vector<Record>& records,
                  std::string& error, int& errorLine) {
  size_t i = 0;
  const size_t n = text.size();
  int line = 1;
  while (i < n) {
    Record r;
    r.line = line;
    bool recordDone = false;
    while (!recordDone) {
      std::string field;
      bool quoted = false;
      while (i < n && (text[i] == ' ' || (text[i] == '\t' && sep != '\t')))
        i++;
      if (i < n && text[i] == '"') {
        quoted = true;
        const int opened = line;
        for (i++;; i++) {
          if (i >= n) {
            error = "a quoted field is not closed";
            errorLine = opened;
            return false;
          }
          if (text[i] == '"') {
            if (i + 1 < n && text[i + 1] == '"') {
              field += '"';
              i++;
              continue;
            }
            i++;
            break;
          }
          if (text[i] == '\n')
            line++;
          field += text[i];
        }
      }
      // The rest of the field, up to the separator or the end of the line.
      std::string rest;
      while (i < n && text[i] != sep && text[i] != '\n')
        rest += text[i++];
      field = quoted ? field + trim(rest) : trim(rest);
      r.fields.push_back(field);
      if (i >= n || text[i] == '\n') {
        if (i < n)
          line++;
        recordDone = true;
      }
      i++;
    }
    records.push_back(r);
  }
  return true;
}

} // namespace

bool ZrBatchManifest::isInputColumn(const std::string& column) {
  for (const char* c : inputColumns)
    if (column == c)
      return true;
  return false;
}

bool ZrBatchManifest::isKnownCommand(const std::string& command) {
  for (const char* c : commands)
    if (command == c)
      return true;
  return false;
}

bool ZrBatchManifest::splitWords(const std::string& text, std::vector<std::string>& words,
                                 std::string& error) {
  words.clear();
  std::string cur;
  bool inWord = false;
  char quote = 0;
  for (char c : text) {
    if (quote) {
      if (c == quote)
        quote = 0;
      else
        cur += c;
    } else if (c == '"' || c == '\'') {
      quote = c;
      inWord = true;
    } else if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      if (inWord)
        words.push_back(cur);
      cur.clear();
      inWord = false;
    } else {
      cur += c;
      inWord = true;
    }
  }
  if (quote) {
    error = std::string("the options have an unterminated ") +
            (quote == '"' ? "double" : "single") + " quote";
    return false;
  }
  if (inWord)
    words.push_back(cur);
  return true;
}

bool ZrBatchManifest::read(const std::string& path, std::vector<std::string>& errors) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    errors.assign(1, "cannot open '" + path + "': " + std::strerror(errno));
    return false;
  }
  std::stringstream ss;
  ss << in.rdbuf();
  std::string lower = path;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  auto endsWith = [&](const char* s) {
    size_t k = std::strlen(s);
    return lower.size() >= k && lower.compare(lower.size() - k, k, s) == 0;
  };
  char sep = endsWith(".tsv") || endsWith(".tab") ? '\t' : endsWith(".csv") ? ',' : 0;
  return parse(ss.str(), path, sep, errors);
}

bool ZrBatchManifest::parse(const std::string& input, const std::string& name, char sep,
                            std::vector<std::string>& errors) {
  errors.clear();
  header.clear();
  table.clear();
  file = name;
  size_t slash = name.find_last_of('/');
  dir = slash == std::string::npos ? std::string() : name.substr(0, slash + 1);
  commandColumn = optionsColumn = -1;

  std::string text = input;
  if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) // a byte-order mark, as spreadsheets write
    text.erase(0, 3);
  // Line ends of any system.
  text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
  if (!sep) {
    size_t eol = text.find('\n');
    sep = text.substr(0, eol).find('\t') != std::string::npos ? '\t' : ',';
  }
  std::vector<Record> records;
  std::string why;
  int whyLine = 0;
  if (!splitRecords(text, sep, records, why, whyLine)) {
    errors.push_back(name + ":" + std::to_string(whyLine) + ": " + why);
    return false;
  }
  // Blank lines and lines that start with '#' are not rows.
  records.erase(std::remove_if(records.begin(), records.end(),
                               [](const Record& r) {
                                 return (r.fields.size() == 1 && r.fields[0].empty()) ||
                                        (!r.fields.empty() && !r.fields[0].empty() &&
                                         r.fields[0][0] == '#');
                               }),
                records.end());
  if (records.empty()) {
    errors.push_back(name + ": the manifest is empty; it needs a header line (command,reference,"
                            "model,output,...) and a row for each registration");
    return false;
  }

  const Record& head = records[0];
  const std::string at = name + ":" + std::to_string(head.line) + ": ";
  for (size_t c = 0; c < head.fields.size(); c++) {
    std::string h = head.fields[c];
    h.erase(0, h.find_first_not_of('-'));
    std::transform(h.begin(), h.end(), h.begin(),
                   [](unsigned char ch) { return std::tolower(ch); });
    if (h.empty())
      errors.push_back(at + "column " + std::to_string(c + 1) + " of the header has no name");
    else if (std::find(header.begin(), header.end(), h) != header.end())
      errors.push_back(at + "the column '" + h + "' appears twice in the header");
    if (h == "command")
      commandColumn = int(c);
    else if (h == "options")
      optionsColumn = int(c);
    header.push_back(h);
  }
  std::string names;
  for (const auto& h : header)
    names += (names.empty() ? "" : ", ") + h;
  for (const char* required : {"command", "reference", "model"})
    if (std::find(header.begin(), header.end(), required) == header.end())
      errors.push_back(at + "the header has no '" + required + "' column (it has: " + names + ")");
  const std::vector<int> outs = outputColumns();
  if (outs.empty())
    errors.push_back(at + "the header names no output column (for example 'output')");
  if (!errors.empty())
    return false;

  std::map<std::string, int> writers; // output path -> row that writes it
  for (size_t k = 1; k < records.size(); k++) {
    Row row;
    row.number = int(k);
    row.line = records[k].line;
    row.cells = records[k].fields;
    const std::string rowAt = where(row);
    if (row.cells.size() != header.size()) {
      errors.push_back(rowAt + std::to_string(row.cells.size()) + " fields, but the header has " +
                       std::to_string(header.size()));
      continue;
    }
    const std::string& command = row.cells[commandColumn];
    if (command.empty())
      errors.push_back(rowAt + "no command");
    else if (!isKnownCommand(command))
      errors.push_back(rowAt + "unknown command '" + command +
                       "' (batch runs affine, elastic "
                       "and apply)");
    if (optionsColumn >= 0 && !splitWords(row.cells[optionsColumn], row.options, why))
      errors.push_back(rowAt + why);
    bool anyOutput = false;
    for (int c : outs) {
      const std::string& out = row.cells[c];
      if (out.empty())
        continue;
      anyOutput = true;
      const std::string path = resolve(out);
      auto it = writers.find(path);
      if (it != writers.end())
        errors.push_back(rowAt + "writes '" + out + "', as row " + std::to_string(it->second) +
                         " does");
      else
        writers[path] = row.number;
      for (size_t i = 0; i < header.size(); i++)
        if (isInputColumn(header[i]) && !row.cells[i].empty() && resolve(row.cells[i]) == path)
          errors.push_back(rowAt + "would overwrite its own " + header[i] + " '" + out + "'");
    }
    if (!anyOutput)
      errors.push_back(rowAt + "no output file given");
    table.push_back(row);
  }
  if (table.empty() && errors.empty())
    errors.push_back(name + ": the manifest has a header but no rows");
  return errors.empty();
}

std::string ZrBatchManifest::where(const Row& row) const {
  return file + ":" + std::to_string(row.line) + ": row " + std::to_string(row.number) + ": ";
}

const std::string& ZrBatchManifest::cell(const Row& row, const std::string& column) const {
  static const std::string none;
  auto it = std::find(header.begin(), header.end(), column);
  if (it == header.end() || size_t(it - header.begin()) >= row.cells.size())
    return none;
  return row.cells[it - header.begin()];
}

std::vector<int> ZrBatchManifest::outputColumns() const {
  std::vector<int> outs;
  for (size_t c = 0; c < header.size(); c++)
    if (int(c) != commandColumn && int(c) != optionsColumn && !isInputColumn(header[c]) &&
        !header[c].empty())
      outs.push_back(int(c));
  return outs;
}

std::vector<std::string> ZrBatchManifest::arguments(const Row& row) const {
  std::vector<std::string> args{row.cells[commandColumn]};
  for (size_t c = 0; c < header.size(); c++) {
    if (int(c) == commandColumn || int(c) == optionsColumn || row.cells[c].empty())
      continue;
    args.push_back("--" + header[c]);
    args.push_back(row.cells[c]);
  }
  args.insert(args.end(), row.options.begin(), row.options.end());
  return args;
}

std::string ZrBatchManifest::resolve(const std::string& p) const {
  return p.empty() || p[0] == '/' ? p : dir + p;
}
