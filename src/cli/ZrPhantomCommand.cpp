#include "ZrPhantomCommand.h"

#include "SbMatrixd.h"
#include "SbRotationd.h"
#include "ZrImageIO.h"
#include "ZrPhantom.h"
#include "ZrRunContext.h"
#include "ZrTransformFiles.h"
#include "ZrUniformScalarField3.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <sys/stat.h>

namespace {

bool parseTriple(const char* text, double v[3]) {
  char* end = nullptr;
  for (int i = 0; i < 3; i++) {
    v[i] = std::strtod(text, &end);
    if (end == text)
      return false;
    text = end;
    if (i < 2) {
      if (*text != ',')
        return false;
      text++;
    }
  }
  return *end == 0;
}

} // namespace

void ZrPhantomCommand::printHelp() {
  std::printf("usage: zrreg phantom --out DIR [--size N] [--rotate RX,RY,RZ] [--translate X,Y,Z]\n"
              "                     [--scale S] [--warp A]\n"
              "\n"
              "Writes DIR/reference.nii.gz (the synthetic head, N^3 voxels, default 128),\n"
              "DIR/model.nii.gz (the head seen through the transform: scale S about the\n"
              "centre, then rotations in degrees about x, y, z, then the translation in mm;\n"
              "defaults 4,-3,6 / 6,-4.5,3 / 1.04) and DIR/known.txt, the 4x4 matrix (column\n"
              "vectors) that takes model voxel positions to where they belong in the\n"
              "reference.\n"
              "--warp A writes instead a model warped by a smooth deformation of up to A mm\n"
              "(voxel position p shows the head at p + u(p), u(p) = A * (sin(k y + 0.3)\n"
              "cos(k z), sin(k z - 0.2) cos(k x), sin(k x + 0.5) cos(k y)), k = pi / 110),\n"
              "and label images of both (reference-labels, model-labels). Add --ext .nii\n"
              "for uncompressed files.\n");
}

int ZrPhantomCommand::run(int argc, char** argv) {
  int n = 128;
  double deg[3] = {4, -3, 6}, t[3] = {6, -4.5, 3}, scale = 1.04, warpAmplitude = 0;
  std::string ext = ".nii.gz";
  std::string dir;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      printHelp();
      return 0;
    }
    bool ok = i + 1 < argc;
    if (ok && a == "--out")
      dir = argv[++i];
    else if (ok && a == "--size")
      ok = ZrRunContext::parseInt(argv[++i], n) && n >= 16 && n <= 512;
    else if (ok && a == "--rotate")
      ok = parseTriple(argv[++i], deg);
    else if (ok && a == "--translate")
      ok = parseTriple(argv[++i], t);
    else if (ok && a == "--ext") {
      ext = argv[++i];
      ok = ext == ".nii" || ext == ".nii.gz" || ext == ".nrrd" || ext == ".mha";
    } else if (ok && a == "--warp") {
      char* end = nullptr;
      warpAmplitude = std::strtod(argv[++i], &end);
      ok = *end == 0 && warpAmplitude > 0 && warpAmplitude < 50;
    } else if (ok && a == "--scale") {
      char* end = nullptr;
      scale = std::strtod(argv[++i], &end);
      ok = *end == 0 && scale > 0.5 && scale < 2;
    } else
      ok = false;
    if (!ok) {
      std::fprintf(stderr, "zrreg phantom: bad option '%s' (see 'zrreg phantom --help')\n",
                   a.c_str());
      return 2;
    }
  }
  if (dir.empty()) {
    std::fprintf(stderr, "zrreg phantom: --out DIR is required\n");
    return 2;
  }
  SbMatrixd m;
  m.setScale(scale);
  for (int a = 0; a < 3; a++) {
    SbMatrixd r;
    r.setRotate(SbRotationd(SbVec3d(a == 0, a == 1, a == 2), deg[a] * M_PI / 180.0));
    m.multRight(r);
  }
  SbMatrixd tr;
  tr.setTranslate(SbVec3d(t[0], t[1], t[2]));
  m.multRight(tr);
  double mm[4][4];
  m.getValue(mm);
  const double extent = 220.0;
  mkdir(dir.c_str(), 0777);
  std::string error;
  std::unique_ptr<ZrUniformScalarField3> ref(ZrPhantom::make(n, extent));
  if (warpAmplitude > 0) {
    std::unique_ptr<ZrUniformScalarField3> model(ZrPhantom::makeWarped(n, extent, warpAmplitude));
    std::unique_ptr<ZrUniformScalarField3> refLabels(ZrPhantom::makeLabels(n, extent, 0));
    std::unique_ptr<ZrUniformScalarField3> modelLabels(
        ZrPhantom::makeLabels(n, extent, warpAmplitude));
    if (!ZrImageIO::write(ref.get(), dir + "/reference" + ext, error) ||
        !ZrImageIO::write(model.get(), dir + "/model" + ext, error) ||
        !ZrImageIO::write(refLabels.get(), dir + "/reference-labels" + ext, error) ||
        !ZrImageIO::write(modelLabels.get(), dir + "/model-labels" + ext, error)) {
      std::fprintf(stderr, "zrreg: %s\n", error.c_str());
      return 1;
    }
    std::printf("wrote %s/reference%s, model%s and their label images\n", dir.c_str(), ext.c_str(),
                ext.c_str());
    return 0;
  }
  // Offset by a fraction of a voxel: the model does not share the
  // reference's grid.
  const double shift[3] = {0.37, -0.29, 0.41};
  std::unique_ptr<ZrUniformScalarField3> model(ZrPhantom::make(n, extent, mm, shift));
  if (!ZrImageIO::write(ref.get(), dir + "/reference" + ext, error) ||
      !ZrImageIO::write(model.get(), dir + "/model" + ext, error) ||
      !ZrTransformFiles::writeMatrix(m.transpose(), dir + "/known.txt", error)) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return 1;
  }
  std::printf("wrote %s/reference%s, model%s and known.txt\n", dir.c_str(), ext.c_str(),
              ext.c_str());
  return 0;
}
