#include "ZrTransformFiles.h"

#include "SbMatrixd.h"
#include "ZrAtomicFile.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <unistd.h>
#include <vector>

namespace {

std::string number(double v) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.17g", v);
  return buf;
}

} // namespace

std::string ZrTransformFiles::formatMatrix(const SbMatrixd& a) {
  std::string s;
  for (int r = 0; r < 4; r++) {
    char line[160];
    std::snprintf(line, sizeof line, "%14.8f %14.8f %14.8f %14.8f\n", a[r][0], a[r][1], a[r][2],
                  a[r][3]);
    s += line;
  }
  return s;
}

bool ZrTransformFiles::writeMatrix(const SbMatrixd& a, const std::string& path,
                                   std::string& error) {
  std::string s;
  for (int r = 0; r < 4; r++)
    s += number(a[r][0]) + " " + number(a[r][1]) + " " + number(a[r][2]) + " " + number(a[r][3]) +
         "\n";
  return ZrAtomicFile::writeText(path, s, error);
}

bool ZrTransformFiles::readMatrix(const std::string& path, SbMatrixd& a, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    error = "cannot open '" + path + "': " + std::strerror(errno);
    return false;
  }
  std::vector<double> v;
  std::string line;
  while (std::getline(in, line)) {
    size_t h = line.find('#');
    if (h != std::string::npos)
      line.resize(h);
    std::istringstream ls(line);
    double x;
    while (ls >> x)
      v.push_back(x);
    if (!ls.eof()) {
      error = "'" + path + "' is not a 4x4 matrix of numbers";
      return false;
    }
  }
  if (v.size() != 16) {
    error = "'" + path + "' holds " + std::to_string(v.size()) + " numbers, not 16";
    return false;
  }
  for (int r = 0; r < 4; r++)
    for (int c = 0; c < 4; c++)
      a[r][c] = v[r * 4 + c];
  return true;
}

bool ZrTransformFiles::writeItkAffine(const SbMatrixd& a, const std::string& path,
                                      std::string& error) {
  std::string s = "#Insight Transform File V1.0\n#Transform 0\n"
                  "Transform: AffineTransform_double_3_3\nParameters:";
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++)
      s += " " + number(a[r][c]);
  for (int r = 0; r < 3; r++)
    s += " " + number(a[r][3]);
  s += "\nFixedParameters: 0 0 0\n";
  return ZrAtomicFile::writeText(path, s, error);
}

bool ZrTransformFiles::writeItkAffine2D(const SbMatrixd& a, double planeZ, const std::string& path,
                                        std::string& error) {
  std::string s = "#Insight Transform File V1.0\n#Transform 0\n"
                  "Transform: AffineTransform_double_2_2\nParameters:";
  for (int r = 0; r < 2; r++)
    for (int c = 0; c < 2; c++)
      s += " " + number(a[r][c]);
  for (int r = 0; r < 2; r++)
    s += " " + number(a[r][3] + a[r][2] * planeZ);
  s += "\nFixedParameters: 0 0\n";
  return ZrAtomicFile::writeText(path, s, error);
}

bool ZrTransformFiles::readItkAffine(const std::string& path, SbMatrixd& a, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    error = "cannot open '" + path + "': " + std::strerror(errno);
    return false;
  }
  std::string line;
  std::vector<double> p, fixed;
  bool affine = false;
  int dim = 3;
  while (std::getline(in, line)) {
    while (!line.empty() && std::isspace((unsigned char)line.back()))
      line.pop_back();
    auto numbers = [&](const char* key, std::vector<double>& out) {
      if (line.compare(0, std::strlen(key), key) != 0)
        return;
      std::istringstream ls(line.substr(std::strlen(key)));
      double x;
      while (ls >> x)
        out.push_back(x);
    };
    for (int d : {2, 3}) {
      const std::string suffix = "_double_" + std::to_string(d) + "_" + std::to_string(d);
      if (line == "Transform: AffineTransform" + suffix ||
          line == "Transform: MatrixOffsetTransformBase" + suffix) {
        affine = true;
        dim = d;
      }
    }
    numbers("Parameters:", p);
    numbers("FixedParameters:", fixed);
  }
  if (!affine || int(p.size()) != dim * dim + dim) {
    error = "'" + path + "' is not a 2-D or 3-D affine ITK transform";
    return false;
  }
  double c[3] = {0, 0, 0};
  for (int i = 0; i < dim && i < int(fixed.size()); i++)
    c[i] = fixed[i];
  a.makeIdentity();
  for (int r = 0; r < dim; r++) {
    double off = p[dim * dim + r] + c[r];
    for (int k = 0; k < dim; k++) {
      a[r][k] = p[dim * r + k];
      off -= p[dim * r + k] * c[k];
    }
    a[r][3] = off;
  }
  return true;
}
