#include "ZrPointSetIO.h"

#include "ZrAtomicFile.h"
#include "ZrLandmarkSet.h"
#include "ZrVertexSet.h"

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <unistd.h>
#include <vector>

namespace {

// The numbers of one line; false if a field is not a number.
bool parseNumbers(const std::string& line, std::vector<double>& out) {
  out.clear();
  std::string s = line;
  for (char& c : s)
    if (c == ',' || c == ';' || c == '\t' || c == '\r')
      c = ' ';
  const char* p = s.c_str();
  while (*p) {
    while (*p == ' ')
      p++;
    if (!*p)
      break;
    char* end = nullptr;
    double v = std::strtod(p, &end);
    if (end == p || (*end && *end != ' '))
      return false;
    out.push_back(v);
    p = end;
  }
  return true;
}

std::string stripComment(const std::string& line) {
  size_t h = line.find('#');
  return h == std::string::npos ? line : line.substr(0, h);
}

// Coordinates are kept as floats: larger values would become infinite.
bool fitsFloat(double v) { return std::isfinite(v) && std::fabs(v) <= FLT_MAX; }

bool isBlank(const std::string& s) { return s.find_first_not_of(" \t\r\n,;") == std::string::npos; }

bool endsWithNoCase(const std::string& s, const char* suffix) {
  size_t n = std::strlen(suffix);
  if (s.size() < n)
    return false;
  for (size_t i = 0; i < n; i++)
    if (std::tolower((unsigned char)s[s.size() - n + i]) != std::tolower((unsigned char)suffix[i]))
      return false;
  return true;
}

// Reads rows of numbers, each with the same count, a multiple of 3.
bool readRows(const std::string& path, std::vector<std::vector<double>>& rows, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    error = "cannot open '" + path + "': " + std::strerror(errno);
    return false;
  }
  std::string line;
  int lineNo = 0;
  std::vector<double> nums;
  while (std::getline(in, line)) {
    lineNo++;
    line = stripComment(line);
    if (isBlank(line))
      continue;
    if (!parseNumbers(line, nums)) {
      if (rows.empty() && lineNo == 1)
        continue; // a header row
      error = path + ":" + std::to_string(lineNo) + ": not a row of numbers";
      return false;
    }
    if (nums.empty() || nums.size() % 3 != 0) {
      error = path + ":" + std::to_string(lineNo) +
              ": expected x y z per point (a multiple of 3 numbers), found " +
              std::to_string(nums.size());
      return false;
    }
    if (!rows.empty() && nums.size() != rows[0].size()) {
      error = path + ":" + std::to_string(lineNo) + ": " + std::to_string(nums.size()) +
              " numbers where the first row has " + std::to_string(rows[0].size());
      return false;
    }
    for (double v : nums)
      if (!fitsFloat(v)) {
        error = path + ":" + std::to_string(lineNo) +
                ": coordinate is not a finite number within the range of a float";
        return false;
      }
    rows.push_back(nums);
  }
  return true;
}

void appendNumber(std::string& s, double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.9g", v);
  s += buf;
}

ZrVertexSet* readOff(const std::string& path, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    error = "cannot open '" + path + "': " + std::strerror(errno);
    return nullptr;
  }
  // Tokens without comments.
  std::vector<std::string> tokens;
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream ls(stripComment(line));
    std::string t;
    while (ls >> t)
      tokens.push_back(t);
  }
  size_t p = 0;
  if (p < tokens.size() && tokens[p] == "OFF")
    p++;
  auto number = [&](double& v) {
    if (p >= tokens.size())
      return false;
    char* end = nullptr;
    v = std::strtod(tokens[p].c_str(), &end);
    if (*end)
      return false;
    p++;
    return true;
  };
  // A count is a whole number no larger than the tokens left could hold, so
  // that a lying header cannot ask for more memory than the file's size.
  auto count = [&](double& v, size_t perItem) {
    return number(v) && v >= 0 && v == std::floor(v) && v * perItem <= double(tokens.size() - p);
  };
  double nv, nf, ne;
  if (!count(nv, 0) || !count(nf, 0) || !number(ne) || nv * 3 > double(tokens.size() - p) ||
      nf > double(tokens.size() - p)) {
    error = "'" + path + "' is not an OFF mesh (expected the counts of vertices, faces, edges)";
    return nullptr;
  }
  ZrVertexSet* set = new ZrVertexSet;
  for (int i = 0; i < int(nv); i++) {
    double x, y, z;
    if (!number(x) || !number(y) || !number(z) || !fitsFloat(x) || !fitsFloat(y) || !fitsFloat(z)) {
      delete set;
      error = "'" + path + "': vertex " + std::to_string(i) +
              " is incomplete or not within the range of a float";
      return nullptr;
    }
    set->appendPoint(QbVec3f(float(x), float(y), float(z)));
  }
  for (int f = 0; f < int(nf); f++) {
    double n;
    if (!count(n, 1) || n < 3) {
      delete set;
      error = "'" + path + "': face " + std::to_string(f) + " is invalid";
      return nullptr;
    }
    std::vector<int> idx(static_cast<size_t>(n));
    for (auto& i : idx) {
      double v;
      if (!number(v) || !(v >= 0 && v < nv)) {
        delete set;
        error = "'" + path + "': face " + std::to_string(f) + " refers to a missing vertex";
        return nullptr;
      }
      i = int(v);
    }
    // A fan of triangles; anything after the indices on a line (colours) is
    // not supported by this reader.
    for (size_t k = 1; k + 1 < idx.size(); k++) {
      set->triangles.append(idx[0]);
      set->triangles.append(idx[k]);
      set->triangles.append(idx[k + 1]);
    }
  }
  return set;
}

} // namespace

ZrLandmarkSet* ZrPointSetIO::readLandmarks(const std::string& path, std::string& error) {
  std::vector<std::vector<double>> rows;
  if (!readRows(path, rows, error))
    return nullptr;
  if (rows.empty()) {
    error = "'" + path + "' holds no landmarks";
    return nullptr;
  }
  int numSets = int(rows[0].size() / 3);
  ZrLandmarkSet* set = new ZrLandmarkSet(numSets);
  set->setNumMarkers(int(rows.size()));
  for (size_t m = 0; m < rows.size(); m++)
    for (int s = 0; s < numSets; s++)
      set->setPosition(
          QbVec3f(float(rows[m][3 * s]), float(rows[m][3 * s + 1]), float(rows[m][3 * s + 2])),
          int(m), s);
  return set;
}

bool ZrPointSetIO::writeLandmarks(const ZrLandmarkSet* set, const std::string& path,
                                  std::string& error) {
  std::string text;
  for (int s = 0; s < set->getNumSets(); s++)
    text += std::string(s ? "," : "") + "x" + std::to_string(s + 1) + ",y" + std::to_string(s + 1) +
            ",z" + std::to_string(s + 1);
  text += "\n";
  for (int m = 0; m < set->getNumMarkers(); m++) {
    for (int s = 0; s < set->getNumSets(); s++) {
      QbVec3f p = set->getPosition(m, s);
      for (int c = 0; c < 3; c++) {
        if (s || c)
          text += ",";
        appendNumber(text, p[c]);
      }
    }
    text += "\n";
  }
  return ZrAtomicFile::writeText(path, text, error);
}

ZrVertexSet* ZrPointSetIO::readVertices(const std::string& path, std::string& error) {
  if (endsWithNoCase(path, ".off"))
    return readOff(path, error);
  std::vector<std::vector<double>> rows;
  if (!readRows(path, rows, error))
    return nullptr;
  if (!rows.empty() && rows[0].size() != 3) {
    error = "'" + path + "': a vertex file has three numbers (x y z) per row";
    return nullptr;
  }
  ZrVertexSet* set = new ZrVertexSet;
  for (const auto& r : rows)
    set->appendPoint(QbVec3f(float(r[0]), float(r[1]), float(r[2])));
  return set;
}

bool ZrPointSetIO::writeVertices(const ZrVertexSet* set, const std::string& path,
                                 std::string& error) {
  std::string text;
  const QbVec3f* p = set->getCoords();
  int n = set->getNumPoints();
  if (endsWithNoCase(path, ".off")) {
    int nt = set->triangles.size() / 3;
    text = "OFF\n" + std::to_string(n) + " " + std::to_string(nt) + " 0\n";
    for (int i = 0; i < n; i++) {
      for (int c = 0; c < 3; c++) {
        if (c)
          text += " ";
        appendNumber(text, p[i][c]);
      }
      text += "\n";
    }
    for (int t = 0; t < nt; t++)
      text += "3 " + std::to_string(set->triangles[3 * t]) + " " +
              std::to_string(set->triangles[3 * t + 1]) + " " +
              std::to_string(set->triangles[3 * t + 2]) + "\n";
  } else {
    text = "x,y,z\n";
    for (int i = 0; i < n; i++) {
      for (int c = 0; c < 3; c++) {
        if (c)
          text += ",";
        appendNumber(text, p[i][c]);
      }
      text += "\n";
    }
  }
  return ZrAtomicFile::writeText(path, text, error);
}
