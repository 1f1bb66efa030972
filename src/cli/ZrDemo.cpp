#include "ZrDemo.h"

#include "SbMatrixd.h"
#include "SbRotationd.h"
#include "ZrCompModule.h"
#include "ZrConnection.h"
#include "ZrFieldResampler.h"
#include "ZrImageIO.h"
#include "ZrObjectPool.h"
#include "ZrPhantom.h"
#include "ZrPortButtonList.h"
#include "ZrRegVectorField3.h"
#include "ZrRunContext.h"
#include "ZrTransformFiles.h"
#include "ZrUniformScalarField3.h"

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>
#include <sys/stat.h>

namespace {

// Row-vector matrix of: scale s about the origin, then rotations about x, y,
// z (degrees), then translation t.
SbMatrixd makeTransform(const double deg[3], double s, const double t[3]) {
  SbMatrixd m; // identity
  m.setScale(s);
  for (int a = 0; a < 3; a++) {
    SbVec3d axis(a == 0, a == 1, a == 2);
    SbMatrixd r;
    r.setRotate(SbRotationd(axis, deg[a] * M_PI / 180.0));
    m.multRight(r);
  }
  SbMatrixd tr;
  tr.setTranslate(SbVec3d(t[0], t[1], t[2]));
  m.multRight(tr);
  return m;
}

void describe(const char* title, const SbMatrixd& m) {
  double det = m.det3();
  double scale = std::cbrt(std::fabs(det));
  // Rotation angle of the linear part divided by the scale.
  double trace = (m[0][0] + m[1][1] + m[2][2]) / scale;
  double angle = std::acos(std::max(-1.0, std::min(1.0, (trace - 1) / 2))) * 180 / M_PI;
  std::printf("%s: translation (%.3f, %.3f, %.3f) mm, rotation %.3f deg, scale %.4f\n", title,
              m[3][0], m[3][1], m[3][2], angle, scale);
}

// The elastic part: a head warped by a known smooth deformation, registered
// back. Error of a reference node p: |q + u(q) - p| where q is where the
// registration maps p into the model and u the known warp (the model shows
// the head at y + u(y)); before the registration q = p.
int runElastic(ZrCliSession& s, int n, bool quiet, double& after) {
  const double extent = 220.0, amplitude = 8.0, voxel = extent / (n - 1);
  std::string error;
  std::printf("\nElastic case: a %d^3 head warped by up to %.1f mm (%.2f voxels) ...\n", n,
              amplitude, amplitude / voxel);
  ZrUniformScalarField3* ref = ZrPhantom::make(n, extent);
  ZrUniformScalarField3* model = ZrPhantom::makeWarped(n, extent, amplitude);
  ref->setName("elasticReference");
  model->setName("elasticModel");
  ZrObjectPool::getTheObjectPool()->addObject(ref);
  ZrObjectPool::getTheObjectPool()->addObject(model);
  ZrCompModule* reg = s.createModule("ZrElasticRegistration", "ElasticRegistration", error);
  if (!reg) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return 1;
  }
  reg->portData.connect(model);
  s.setPort(reg, "reference", "elasticReference", error);
  s.fire(reg, false, error);
  ZrRunContext::useFinestLevel(reg, true, quiet);
  if (!s.setPort(reg, "metric", "Euclidean", error) || !s.fire(reg, false, error)) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return 1;
  }
  auto* action = dynamic_cast<ZrPortButtonList*>(reg->getPort("action"));
  if (!action || !action->hit(0)) {
    std::fprintf(stderr, "zrreg: the elastic module cannot start a registration\n");
    return 1;
  }
  reg->fire(1);
  reg->untouchPorts(true);
  if (!s.setPort(reg, "result", "Vector field", error) || !s.fire(reg, true, error)) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return 1;
  }
  auto* vf = dynamic_cast<ZrRegVectorField3*>(reg->getResult(1));
  if (!vf || vf->lattice.numNodes() != ref->lattice.numNodes()) {
    std::fprintf(stderr, "zrreg: the elastic module made no vector field\n");
    return 1;
  }
  double sumBefore = 0, sumAfter = 0;
  long count = 0;
  const uint8_t* r = static_cast<const uint8_t*>(ref->lattice.dataPtr());
  size_t idx = 0;
  for (int k = 0; k < n; k++)
    for (int j = 0; j < n; j++)
      for (int i = 0; i < n; i++, idx++) {
        if (r[idx] < 10)
          continue;
        float p[3], q[3];
        ref->lattice.coords()->pos(i, j, k, p);
        vf->lattice.coords()->pos(i, j, k, q);
        double pd[3] = {p[0], p[1], p[2]}, qd[3] = {q[0], q[1], q[2]}, up[3], uq[3];
        ZrPhantom::warp(amplitude, pd, up);
        ZrPhantom::warp(amplitude, qd, uq);
        double b = 0, a = 0;
        for (int c = 0; c < 3; c++) {
          b += up[c] * up[c];
          a += (qd[c] + uq[c] - pd[c]) * (qd[c] + uq[c] - pd[c]);
        }
        sumBefore += std::sqrt(b);
        sumAfter += std::sqrt(a);
        count++;
      }
  double before = count ? sumBefore / count / voxel : 0;
  after = count ? sumAfter / count / voxel : 0;
  std::printf("elastic: mean displacement error %.3f voxels before, %.3f voxels after\n", before,
              after);
  return 0;
}

} // namespace

void ZrDemo::printHelp() {
  std::printf("usage: zrreg demo [--size N] [--elastic-size M] [--out DIR] [--threads N] "
              "[--quiet]\n"
              "\n"
              "Makes a synthetic 3-D head of N^3 voxels (default 128) and a copy of it under\n"
              "a known rotation, translation and scaling, registers the copy onto the head\n"
              "with the affine module's defaults (rigid plus isotropic scale), prints the\n"
              "known and the found transform and the mean error in voxels, and writes the\n"
              "images into DIR (default ./zrreg-demo).\n"
              "\n"
              "Then it warps a head of M^3 voxels (default 40; 0 skips this part) by a known\n"
              "smooth deformation of up to 8 mm, registers it back with the elastic module\n"
              "(squared-difference metric) and prints the mean displacement error in voxels\n"
              "before and after.\n");
}

int ZrDemo::run(int argc, char** argv) {
  int n = 128, threads = 0, elasticSize = 40;
  bool quiet = false;
  std::string dir = "zrreg-demo";
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    if (a == "--help" || a == "-h") {
      printHelp();
      return 0;
    }
    if (a == "--quiet" || a == "-q") {
      quiet = true;
      continue;
    }
    if (i + 1 >= argc) {
      std::fprintf(stderr, "zrreg demo: unknown option or missing value '%s'\n", a.c_str());
      return 2;
    }
    bool ok = true;
    if (a == "--elastic-size")
      ok = ZrRunContext::parseInt(argv[++i], elasticSize) &&
           (elasticSize == 0 || (elasticSize >= 16 && elasticSize <= 256));
    else if (a == "--size")
      ok = ZrRunContext::parseInt(argv[++i], n) && n >= 16 && n <= 512;
    else if (a == "--threads")
      ok = ZrRunContext::parseInt(argv[++i], threads) && threads > 0;
    else if (a == "--out")
      dir = argv[++i];
    else
      ok = false;
    if (!ok) {
      std::fprintf(stderr, "zrreg demo: bad option '%s' (see 'zrreg demo --help')\n", a.c_str());
      return 2;
    }
  }

  ZrRunContext ctx;
  if (!ctx.start(quiet, threads))
    return 1;
  ZrCliSession& s = ctx.session();
  std::string error;

  const double extent = 220.0; // mm, the head is about 184 mm long
  const double voxel = extent / (n - 1);
  const double deg[3] = {4.0, -3.0, 6.0}, t[3] = {6.0, -4.5, 3.0}, scale = 1.04;
  SbMatrixd known = makeTransform(deg, scale, t);
  double m[4][4];
  known.getValue(m);
  std::printf("Making a %d^3 head phantom and a misaligned copy ...\n", n);
  ZrUniformScalarField3* ref = ZrPhantom::make(n, extent);
  // The model's voxel grid is offset from the reference's by a fraction of a
  // voxel, as with real scans.
  const double shift[3] = {0.37, -0.29, 0.41};
  ZrUniformScalarField3* model = ZrPhantom::make(n, extent, m, shift);
  ref->setName("reference");
  model->setName("model");
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  pool->addObject(ref);
  pool->addObject(model);

  ZrCompModule* reg = s.createModule("ZrAffineRegistration", "AffineRegistration", error);
  if (!reg) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return 1;
  }
  reg->portData.connect(model);
  s.setPort(reg, "reference", "reference", error);
  s.fire(reg, false, error);
  ZrRunContext::useFinestLevel(reg, true, quiet);
  if (!s.setPort(reg, "transform", "Rigid=on,Iso-=on", error)) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return 1;
  }
  s.fire(reg, false, error);
  auto* action = dynamic_cast<ZrPortButtonList*>(reg->getPort("action"));
  if (!action || !action->hit(2)) {
    std::fprintf(stderr, "zrreg: the registration module cannot start a registration\n");
    return 1;
  }
  reg->fire(1);
  reg->untouchPorts(true);
  bool interrupted = ctx.interrupted();

  SbMatrixd found;
  model->getTransform(found);
  describe("known", known);
  describe("found", found);

  // Mean distance between the known and the found position of the model's
  // voxels inside the head, in voxels.
  double sum = 0;
  long count = 0;
  const uint8_t* v = static_cast<const uint8_t*>(model->lattice.dataPtr());
  for (int k = 0; k < n; k += 2)
    for (int j = 0; j < n; j += 2)
      for (int i = 0; i < n; i += 2) {
        if (v[(size_t(k) * n + j) * n + i] < 10)
          continue;
        SbVec3d p(-extent / 2 + (i + shift[0]) * voxel, -extent / 2 + (j + shift[1]) * voxel,
                  -extent / 2 + (k + shift[2]) * voxel),
            a, b;
        known.multVecMatrix(p, a);
        found.multVecMatrix(p, b);
        sum += std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
                         (a[2] - b[2]) * (a[2] - b[2]));
        count++;
      }
  double meanError = count ? sum / count / voxel : 0;
  std::printf("mean error: %.3f voxels (voxel size %.3f mm)\n", meanError, voxel);

  if (elasticSize > 0 && !interrupted) {
    double elasticError = 0;
    int rc = runElastic(s, elasticSize, quiet, elasticError);
    if (rc)
      return rc;
    interrupted = ctx.interrupted();
  }

  mkdir(dir.c_str(), 0777);
  auto save = [&](ZrRegScalarField3* f, const std::string& name) {
    std::string path = dir + "/" + name;
    if (!ZrImageIO::write(f, path, error)) {
      std::fprintf(stderr, "zrreg: %s\n", error.c_str());
      return false;
    }
    return true;
  };
  bool ok = save(ref, "reference.nii.gz") && save(model, "model-registered.nii.gz");
  std::unique_ptr<ZrRegScalarField3> resampled(ZrFieldResampler::resample(model, ref));
  ok = ok && resampled && save(resampled.get(), "model-resampled.nii.gz");
  model->removeTransform();
  ok = ok && save(model, "model.nii.gz");
  if (ok)
    std::printf("wrote reference.nii.gz, model.nii.gz, model-registered.nii.gz and "
                "model-resampled.nii.gz into %s/\n",
                dir.c_str());
  if (interrupted)
    return 130;
  if (!ok)
    return 1;
  if (meanError > 1.0) {
    std::fprintf(stderr,
                 "zrreg demo: the registration missed the known transform by %.2f "
                 "voxels\n",
                 meanError);
    return 1;
  }
  return 0;
}
