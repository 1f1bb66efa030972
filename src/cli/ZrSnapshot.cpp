#include "ZrSnapshot.h"

#include "ZrAtomicFile.h"
#include "ZrRegScalarField3.h"

#include <itkImageIOBase.h>
#include <itkImageIOFactory.h>
// Included for its side effect: it registers ITK's image I/O factories here.
#include <itkImageFileReader.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace {

struct Canvas {
  int width, height;
  std::vector<uint8_t> rgb;
  Canvas(int w, int h) : width(w), height(h), rgb(size_t(w) * h * 3, 24) {}
  void put(int x, int y, uint8_t r, uint8_t g, uint8_t b) {
    size_t at = (size_t(y) * width + x) * 3;
    rgb[at] = r;
    rgb[at + 1] = g;
    rgb[at + 2] = b;
  }
};

// Intensity window: 1st and 99th percentile of a sample of the field.
void windowOf(const ZrRegScalarField3* f, double& lo, double& hi) {
  size_t n = f->lattice.numNodes();
  size_t step = std::max<size_t>(1, n / 20000);
  std::vector<double> v;
  for (size_t i = 0; i < n; i += step)
    v.push_back(f->lattice.getValueAsDouble(i));
  std::sort(v.begin(), v.end());
  lo = v[v.size() / 100];
  hi = v[v.size() - 1 - v.size() / 100];
  if (!(hi > lo))
    hi = lo + 1;
}

// One slice of a field through its middle: axis is the axis held fixed.
// (u, v) run over the other two axes; v is flipped so that up is up.
double sample(const ZrRegScalarField3* f, int axis, int u, int v) {
  const int* d = f->getDims();
  int idx[3];
  int ua = axis == 0 ? 1 : 0, va = axis == 2 ? 1 : 2;
  idx[axis] = d[axis] / 2;
  idx[ua] = u;
  idx[va] = d[va] - 1 - v;
  return f->lattice.getValueAsDouble((size_t(idx[2]) * d[1] + idx[1]) * d[0] + idx[0]);
}

uint8_t grey(double x, double lo, double hi) {
  double t = (x - lo) / (hi - lo);
  return uint8_t(std::lround(255 * std::min(1.0, std::max(0.0, t))));
}

} // namespace

bool ZrSnapshot::write(const ZrRegScalarField3* ref, const ZrRegScalarField3* before,
                       const ZrRegScalarField3* after, const ZrRegScalarField3* jacobian,
                       const std::string& path, std::string& error) {
  const int* d = ref->getDims();
  for (const ZrRegScalarField3* f : {before, after, jacobian})
    if (f && (f->getDims()[0] != d[0] || f->getDims()[1] != d[1] || f->getDims()[2] != d[2])) {
      error = "snapshot images must share the reference's grid";
      return false;
    }
  double rlo, rhi, mlo, mhi;
  windowOf(ref, rlo, rhi);
  windowOf(after, mlo, mhi);
  const int columns = jacobian ? 4 : 3;
  const int tile = std::max(d[0], std::max(d[1], d[2]));
  const int gap = 4;
  Canvas c(columns * (tile + gap) + gap, 3 * (tile + gap) + gap);
  const int square = std::max(4, tile / 8);
  for (int axis = 0; axis < 3; axis++) {
    int ua = axis == 0 ? 1 : 0, va = axis == 2 ? 1 : 2;
    int nu = d[ua], nv = d[va];
    if (nu < 2 || nv < 2)
      continue;
    int y0 = gap + (2 - axis) * (tile + gap);
    for (int col = 0; col < columns; col++) {
      int x0 = gap + col * (tile + gap);
      for (int v = 0; v < nv; v++)
        for (int u = 0; u < nu; u++) {
          double r = sample(ref, axis, u, v);
          bool fromModel = ((u / square) + (v / square)) % 2 == 1;
          uint8_t R, G, B;
          if (col == 0 || ((col == 1 || col == 2) && !fromModel)) {
            R = G = B = grey(r, rlo, rhi);
          } else if (col == 1 || col == 2) {
            double m = sample(col == 1 ? before : after, axis, u, v);
            R = G = B = grey(m, mlo, mhi);
          } else {
            // Jacobian: log scale, blue (compression) to red (expansion).
            double j = sample(jacobian, axis, u, v);
            double t = j > 0 ? std::max(-1.0, std::min(1.0, std::log2(j))) : -1.0;
            R = uint8_t(t > 0 ? 255 : std::lround(255 * (1 + t)));
            B = uint8_t(t < 0 ? 255 : std::lround(255 * (1 - t)));
            G = uint8_t(std::lround(255 * (1 - std::fabs(t))));
            if (j <= 0)
              R = G = B = 0; // folded
          }
          c.put(x0 + u, y0 + v, R, G, B);
        }
    }
  }

  itk::ImageIOBase::Pointer io =
      itk::ImageIOFactory::CreateImageIO(path.c_str(), itk::ImageIOFactory::WriteMode);
  if (!io) {
    error = "no image format is known for the snapshot name '" + path + "' (use .png)";
    return false;
  }
  io->SetNumberOfDimensions(2);
  io->SetPixelType(itk::IOPixelEnum::RGB);
  io->SetNumberOfComponents(3);
  io->SetComponentType(itk::IOComponentEnum::UCHAR);
  io->SetDimensions(0, c.width);
  io->SetDimensions(1, c.height);
  itk::ImageIORegion region(2);
  region.SetSize(0, c.width);
  region.SetSize(1, c.height);
  io->SetIORegion(region);
  std::string tmp = ZrAtomicFile::temporaryName(path);
  try {
    io->SetFileName(tmp);
    io->WriteImageInformation();
    io->Write(c.rgb.data());
  } catch (const itk::ExceptionObject& e) {
    std::remove(tmp.c_str());
    error = "cannot write '" + path + "': " + e.GetDescription();
    return false;
  }
  return ZrAtomicFile::commit(tmp, path, error);
}
