#include "ZrPhantom.h"

#include "ZrUniformLabelField3.h"
#include "ZrUniformScalarField3.h"
#include "qbmalloc.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace {

struct Ellipsoid {
  double cx, cy, cz; // centre, in units of the head's half size
  double ax, ay, az; // semi-axes, same units
  double angle;      // rotation about z, degrees
  double value;      // added inside
};

// Nested ellipsoids: outer head, brain, two ventricles, and small structures.
const Ellipsoid kEllipsoids[] = {
    {0, 0, 0, 0.69, 0.92, 0.90, 0, 0.9},         {0, -0.0184, 0, 0.6624, 0.874, 0.88, 0, -0.55},
    {0.22, 0, 0, 0.11, 0.31, 0.22, -18, -0.25},  {-0.22, 0, 0, 0.16, 0.41, 0.28, 18, -0.25},
    {0, 0.35, -0.15, 0.21, 0.25, 0.41, 0, 0.15}, {0, 0.1, 0.25, 0.046, 0.046, 0.05, 0, 0.2},
    {0, -0.1, 0.25, 0.046, 0.046, 0.05, 0, 0.2}, {-0.08, -0.605, 0, 0.046, 0.023, 0.05, 0, 0.25},
    {0, -0.605, 0, 0.023, 0.023, 0.02, 0, 0.25}, {0.06, -0.605, 0, 0.023, 0.046, 0.02, 0, 0.25},
    {0, 0.1, -0.25, 0.056, 0.04, 0.1, 0, 0.2},   {0.06, -0.105, 0.625, 0.056, 0.056, 0.1, 0, 0.15},
};

// Half the head's extent in mm: coordinates are divided by it.
constexpr double kHalfSize = 100.0;
// Width of the soft edges in mm.
constexpr double kEdge = 1.2;

double softInside(const Ellipsoid& e, double x, double y, double z) {
  double a = e.angle * M_PI / 180.0;
  double dx = x - e.cx, dy = y - e.cy, dz = z - e.cz;
  double u = std::cos(a) * dx + std::sin(a) * dy;
  double v = -std::sin(a) * dx + std::cos(a) * dy;
  double r =
      std::sqrt((u / e.ax) * (u / e.ax) + (v / e.ay) * (v / e.ay) + (dz / e.az) * (dz / e.az));
  // Distance to the surface, approximately, in mm along the shortest axis.
  double dist = (1.0 - r) * std::min(e.ax, std::min(e.ay, e.az)) * kHalfSize;
  return 1.0 / (1.0 + std::exp(-dist / (0.25 * kEdge)));
}

} // namespace

double ZrPhantom::value(double x, double y, double z) {
  double px = x / kHalfSize, py = y / kHalfSize, pz = z / kHalfSize;
  double v = 0;
  for (const Ellipsoid& e : kEllipsoids)
    v += e.value * softInside(e, px, py, pz);
  // A smooth texture inside the brain, so that flat regions have structure.
  double brain = softInside(kEllipsoids[1], px, py, pz);
  v +=
      brain * 0.06 * std::sin(5.3 * px + 0.4) * std::sin(4.1 * py - 0.7) * std::cos(3.7 * pz + 0.2);
  return std::max(0.0, v);
}

void ZrPhantom::warp(double amplitude, const double p[3], double u[3]) {
  const double k = M_PI / 110.0;
  u[0] = amplitude * std::sin(k * p[1] + 0.3) * std::cos(k * p[2]);
  u[1] = amplitude * std::sin(k * p[2] - 0.2) * std::cos(k * p[0]);
  u[2] = amplitude * std::sin(k * p[0] + 0.5) * std::cos(k * p[1]);
}

ZrUniformScalarField3* ZrPhantom::makeWarped(int n, double extent, double amplitude) {
  int dims[3] = {n, n, n};
  float h = float(extent / 2);
  float box[6] = {-h, h, -h, h, -h, h};
  uint8_t* data = static_cast<uint8_t*>(qbmalloc(size_t(n) * n * n));
  double step = n > 1 ? extent / (n - 1) : 0;
#pragma omp parallel for schedule(static)
  for (int k = 0; k < n; k++)
    for (int j = 0; j < n; j++)
      for (int i = 0; i < n; i++) {
        double p[3] = {-h + i * step, -h + j * step, -h + k * step}, u[3];
        warp(amplitude, p, u);
        double v = value(p[0] + u[0], p[1] + u[1], p[2] + u[2]);
        data[(size_t(k) * n + j) * n + i] = uint8_t(std::lround(std::min(255.0, v * 255.0 / 1.1)));
      }
  return new ZrUniformScalarField3(dims, 0, box, data);
}

int ZrPhantom::label(double x, double y, double z) {
  double px = x / kHalfSize, py = y / kHalfSize, pz = z / kHalfSize;
  int result = 0;
  for (int e = 0; e < int(sizeof kEllipsoids / sizeof kEllipsoids[0]); e++)
    if (softInside(kEllipsoids[e], px, py, pz) > 0.5)
      result = e + 1;
  return result;
}

ZrUniformScalarField3* ZrPhantom::makeLabels(int n, double extent, double amplitude) {
  int dims[3] = {n, n, n};
  float h = float(extent / 2);
  float box[6] = {-h, h, -h, h, -h, h};
  uint8_t* data = static_cast<uint8_t*>(qbmalloc(size_t(n) * n * n));
  double step = n > 1 ? extent / (n - 1) : 0;
#pragma omp parallel for schedule(static)
  for (int k = 0; k < n; k++)
    for (int j = 0; j < n; j++)
      for (int i = 0; i < n; i++) {
        double p[3] = {-h + i * step, -h + j * step, -h + k * step}, u[3] = {0, 0, 0};
        if (amplitude != 0)
          warp(amplitude, p, u);
        data[(size_t(k) * n + j) * n + i] = uint8_t(label(p[0] + u[0], p[1] + u[1], p[2] + u[2]));
      }
  return new ZrUniformLabelField3(dims, 0, box, data);
}

ZrUniformScalarField3* ZrPhantom::make(int n, double extent, const double (*m)[4],
                                       const double* shift) {
  int dims[3] = {n, n, n};
  float h = float(extent / 2);
  double step = n > 1 ? extent / (n - 1) : 0;
  double lo[3] = {-h, -h, -h};
  if (shift)
    for (int a = 0; a < 3; a++)
      lo[a] += shift[a] * step;
  float box[6];
  for (int a = 0; a < 3; a++) {
    box[2 * a] = float(lo[a]);
    box[2 * a + 1] = float(lo[a] + extent);
  }
  uint8_t* data = static_cast<uint8_t*>(qbmalloc(size_t(n) * n * n));
#pragma omp parallel for schedule(static)
  for (int k = 0; k < n; k++)
    for (int j = 0; j < n; j++)
      for (int i = 0; i < n; i++) {
        double p[3] = {lo[0] + i * step, lo[1] + j * step, lo[2] + k * step};
        double w[3] = {p[0], p[1], p[2]};
        if (m)
          for (int c = 0; c < 3; c++)
            w[c] = p[0] * m[0][c] + p[1] * m[1][c] + p[2] * m[2][c] + m[3][c];
        double v = value(w[0], w[1], w[2]);
        data[(size_t(k) * n + j) * n + i] = uint8_t(std::lround(std::min(255.0, v * 255.0 / 1.1)));
      }
  return new ZrUniformScalarField3(dims, 0, box, data);
}
