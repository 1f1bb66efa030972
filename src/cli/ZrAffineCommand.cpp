#include "ZrAffineCommand.h"

#include "QbMat3d.h"
#include "SbMatrixd.h"
#include "SbVec3d.h"
#include "ZrCompModule.h"
#include "ZrConnection.h"
#include "ZrCoord3.h"
#include "ZrFieldResampler.h"
#include "ZrImageIO.h"
#include "ZrPortButtonList.h"
#include "ZrPortFloatTextN.h"
#include "ZrPortIntTextN.h"
#include "ZrPortMultiMenu.h"
#include "ZrPortToggleList.h"
#include "ZrRegScalarField3.h"
#include "ZrRunContext.h"
#include "ZrSnapshot.h"
#include "ZrTransformFiles.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

struct Options {
  std::string reference[3];
  std::string model;
  bool referenceLabels = false, modelLabels = false;
  std::vector<std::pair<std::string, std::string>> sets;
  std::string align;
  bool doRegister = true;
  std::string out, resampled, matrix, itkTransform, snapshot;
  bool quiet = false;
  int threads = 0;
  int dof = 0; // 0: the default, which depends on the outputs
};

int usageError(const std::string& msg) {
  std::fprintf(stderr, "zrreg affine: %s\n(see 'zrreg affine --help')\n", msg.c_str());
  return 2;
}

} // namespace

void ZrAffineCommand::applyDefaults(ZrCompModule* module, bool quiet, int dof) {
  // The stages of the degrees of freedom: rigid first, then one scale, then
  // the rest, every stage starting from the one before. 12 runs no stage of
  // 9 between: on real heads and atlases it ended as close without it, and
  // the stage costs as much as the one of 12 (a rigid + one-scale start is
  // needed: without it a head with a 6 % scale ended 0.09 mm off, not 0.012).
  if (auto* transform = dynamic_cast<ZrPortToggleList*>(module->getPort("transform"))) {
    const int stages[4] = {6, 7, 9, 12};
    for (int i = 0; i < 4 && i < transform->getNumEntries(); i++)
      transform->setValue(i, stages[i] <= dof && !(dof == 12 && stages[i] == 9) ? 1 : 0);
  }

  // The rest follows the inputs.
  auto input = [&](const char* port) -> ZrRegScalarField3* {
    auto* c = dynamic_cast<ZrConnection*>(module->getPort(port));
    return c ? c->source<ZrRegScalarField3>() : nullptr;
  };
  const ZrRegScalarField3* reference = input("reference");
  const ZrRegScalarField3* model = module->portData.source<ZrRegScalarField3>();
  if (!reference || !model) {
    module->fire(0);
    module->untouchPorts(true);
    return;
  }
  bool labelPair = ZrRunContext::isLabelField(model);
  for (const char* port : {"reference", "reference2", "reference3"}) {
    const ZrRegScalarField3* r = input(port);
    labelPair = labelPair && (!r || ZrRunContext::isLabelField(r));
  }

  // Levels: the finest level costs eight times the level above it; it is
  // optimised only where it is small. A single level is optimised anyway.
  // Where it is left out, the last stage is refined on every second voxel of
  // it ("refineFinest"): on nine heads at 1 mm moved by small
  // motions, scales and rotations the error fell from 0.004-0.030 mm to
  // 0.002-0.020 (elastix 0.007-0.028), a 0.5 mm head from 0.038 to 0.013
  // (elastix 0.035).
  const int* d = reference->getDims();
  const double voxels = double(d[0]) * d[1] * d[2];
  const bool finest = voxels <= kFinestLevelVoxels;
  ZrRunContext::useFinestLevel(module, finest, quiet);
  auto* options = dynamic_cast<ZrPortToggleList*>(module->getPort("options"));
  const bool ignoresFinest = options && options->getValue(0);
  // The gradient search takes over on the two finest optimised levels of a
  // large image: it needs fewer evaluations there than the direction search
  // and ends as close to the truth. On small images the direction search
  // stays on the second finest level: there the gradient search ended
  // farther off.
  //
  // The gradient search ends at 0.3 of the module's tolerance. Without the
  // refinement, a head resampled through a scale along rotated axes ended
  // 0.039 mm off with the module's and 0.029 with a tenth of it (elastix
  // 0.028); with it, a tenth and 0.3 end within 0.006 mm of each other on ten
  // heads, all closer than elastix, and 0.3 takes a tenth less time. Four
  // label atlases resampled onto their own grid ended 0.085 to 0.13 mm off
  // with the module's tolerance and 0.05 to 0.09 with 0.3 of it (elastix
  // 0.10 to 0.16), at about a third more time.
  if (ignoresFinest) {
    if (auto* refine = dynamic_cast<ZrPortToggleList*>(module->getPort("refineFinest")))
      refine->setValue(0, 1);
  }
  if (ignoresFinest)
    if (auto* gradient = dynamic_cast<ZrPortFloatTextN*>(module->getPort("nLevelsGradient"))) {
      gradient->setValue(0, 2.0f);
      gradient->setValue(1, gradient->getValue(1) * kToleranceFactor);
    }

  // Bins: the finer the level the search ends on, the more samples the
  // joint histogram has, and the more bins it fills: the cube root of the
  // samples of that level. The bins the module derives from the grey-value
  // range (up to 256) leave most cells of a coarse level's histogram empty,
  // and the search there runs away.
  int flat = 0;
  for (int a = 0; a < 3; a++)
    flat += d[a] == 1;
  const double samples = ignoresFinest ? voxels / (flat ? 4 : 8) : voxels;
  int bins = (int)std::lround(std::cbrt(samples));
  bins = bins < kMinBins ? kMinBins : (bins > kMaxBins ? kMaxBins : bins);
  if (auto* histogramBins = dynamic_cast<ZrPortIntTextN*>(module->getPort("histogramBins"))) {
    histogramBins->setValue(0, bins);
    histogramBins->setValue(1, bins);
  }

  // The final step of a 3-D run, an eighth of the module's (a 48th of the
  // finest voxel): it is also the step of the gradient's differences on the
  // levels of the gradient search, and the module's leaves the search of 12
  // degrees of freedom where those differences vanish, short of the optimum
  // (a head with a scale along rotated axes 0.14 mm off, 0.07 with this one;
  // three label atlases 0.017 to 0.023 mm, 0.004 to 0.005), at the same
  // time. A planar run keeps the module's: on eleven slices it ended within
  // elastix's error on 8, with this one on 6.
  if (!flat)
    if (auto* step = dynamic_cast<ZrPortFloatTextN*>(module->getPort("step")))
      step->setValue(1, step->getValue(1) / kFinalStepDivisor);

  // Two label images: mutual information over the label numbers (one bin
  // per label where there are few) lands far closer to the truth than the
  // label difference, whose nearest-neighbour samples make the objective a
  // staircase.
  auto* metric = dynamic_cast<ZrPortMultiMenu*>(module->getPort("metric"));
  if (labelPair && metric && metric->getIndex(0) == 4)
    metric->setIndex(0, 0);
  module->fire(0);
  module->untouchPorts(true);
}

void ZrAffineCommand::printHelp() {
  std::printf("usage: zrreg affine --reference R --model M [-o OUT] [outputs] [options]\n"
              "\n"
              "Registers the model image onto the reference image(s) by a rigid or affine\n"
              "transform and writes the model with the found transform in its header (the\n"
              "voxels are not resampled).\n"
              "\n"
              "inputs:\n"
              "  --reference FILE       reference image (the fixed image)\n"
              "  --reference2 FILE      second reference, registered jointly (optional)\n"
              "  --reference3 FILE      third reference (optional)\n"
              "  --model FILE           model image (the moving image)\n"
              "  --reference-labels     read the reference(s) as label images\n"
              "  --model-labels         read the model as a label image\n"
              "                         (files with a NIfTI label intent are labels anyway)\n"
              "\n"
              "what to do:\n"
              "  --align centers|principal-axes\n"
              "                         pre-align before registering\n"
              "  --no-register          only pre-align\n"
              "  --dof 6|7|9|12         degrees of freedom: rigid (6), plus one scale (7),\n"
              "                         plus a scale per axis (9, along the model's own\n"
              "                         axes), plus shears (12); each level runs rigid,\n"
              "                         then one scale, then the rest, each stage from the\n"
              "                         one before; default 12, or 9 with -o, whose header\n"
              "                         cannot hold a shear\n"
              "  --set PORT=VALUE       set a port of the registration module, e.g.\n"
              "                         --set metric=Correlation --set transform=Rigid=on,Iso-=on\n"
              "                         --set extendedOptions=on --set step=10,0.1\n"
              "                         ('zrreg ports ZrAffineRegistration' lists them all);\n"
              "                         settings made here win over --dof and the defaults\n"
              "\n"
              "defaults: normalised mutual information (also for two label images, whose\n"
              "model is then sampled by partial volume) with the cube root of the finest\n"
              "optimised level's samples as bins (16 to 128); images over 2^20 voxels are\n"
              "optimised down to the second finest level, with the gradient search on the\n"
              "two finest of them, and then refine the last stage on the finest level\n"
              "taken at every second voxel\n"
              "(--set refineFinest=off leaves that out; --set options=off optimises the\n"
              "finest level whole, several times slower); the final step of a 3-D run is\n"
              "a 48th of the finest voxel (--set step=INITIAL,FINAL)\n"
              "\n"
              "outputs (at least one):\n"
              "  -o, --output FILE      the model with its new transform\n"
              "  --resampled FILE       the model resampled on the reference's voxel grid\n"
              "  --matrix FILE          the 4x4 world mapping from the model's old to its new\n"
              "                         position (column vectors, ITK/LPS world coordinates)\n"
              "  --itk-transform FILE   an ITK affine transform file mapping reference points\n"
              "                         to points of the original model file (a 2-D transform\n"
              "                         when both images are 2-D)\n"
              "\n"
              "general:\n"
              "  --threads N            number of threads (default: all cores)\n"
              "  --quiet                no progress and no module messages\n"
              "\n"
              "Ctrl-C stops the registration after the current step; the result reached so\n"
              "far is written and the exit status is 130. A search that ran away (the found\n"
              "transform scales the model by more than 3 or less than 1/3 along some\n"
              "direction) writes its outputs, says so and exits with status 3.\n");
}

int ZrAffineCommand::run(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    auto value = [&](std::string& dst) {
      if (i + 1 >= argc)
        return false;
      dst = argv[++i];
      return true;
    };
    bool ok = true;
    if (a == "--help" || a == "-h") {
      printHelp();
      return 0;
    } else if (a == "--reference")
      ok = value(o.reference[0]);
    else if (a == "--reference2")
      ok = value(o.reference[1]);
    else if (a == "--reference3")
      ok = value(o.reference[2]);
    else if (a == "--model")
      ok = value(o.model);
    else if (a == "--reference-labels")
      o.referenceLabels = true;
    else if (a == "--model-labels")
      o.modelLabels = true;
    else if (a == "--dof") {
      std::string v;
      ok = value(v) && ZrRunContext::parseInt(v.c_str(), o.dof) &&
           (o.dof == 6 || o.dof == 7 || o.dof == 9 || o.dof == 12);
      if (!ok)
        return usageError("--dof takes 6, 7, 9 or 12");
    } else if (a == "--set") {
      std::string kv;
      ok = value(kv);
      size_t eq = kv.find('=');
      if (ok && (eq == std::string::npos || eq == 0))
        return usageError("--set takes PORT=VALUE, got '" + kv + "'");
      if (ok)
        o.sets.emplace_back(kv.substr(0, eq), kv.substr(eq + 1));
    } else if (a == "--align") {
      ok = value(o.align);
      if (ok && o.align != "centers" && o.align != "principal-axes")
        return usageError("--align takes 'centers' or 'principal-axes'");
    } else if (a == "--no-register")
      o.doRegister = false;
    else if (a == "-o" || a == "--output")
      ok = value(o.out);
    else if (a == "--resampled")
      ok = value(o.resampled);
    else if (a == "--matrix")
      ok = value(o.matrix);
    else if (a == "--itk-transform")
      ok = value(o.itkTransform);
    else if (a == "--snapshot")
      ok = value(o.snapshot);
    else if (a == "--quiet" || a == "-q")
      o.quiet = true;
    else if (a == "--threads") {
      std::string t;
      ok = value(t) && ZrRunContext::parseInt(t.c_str(), o.threads) && o.threads > 0;
      if (!ok)
        return usageError("--threads takes a positive number");
    } else
      return usageError("unknown option '" + a + "'");
    if (!ok)
      return usageError("option '" + a + "' needs a value");
  }
  if (o.reference[0].empty() || o.model.empty())
    return usageError("--reference and --model are required");
  // A run that only wants the transform need not write the model again.
  if (o.out.empty() && o.resampled.empty() && o.matrix.empty() && o.itkTransform.empty() &&
      o.snapshot.empty())
    return usageError("no output: give -o OUT, --resampled, --matrix or --itk-transform");
  if ((!o.reference[1].empty() || !o.reference[2].empty()) && o.reference[0].empty())
    return usageError("--reference2/3 need --reference");
  for (const std::string* f : {&o.out, &o.resampled})
    if (!f->empty() && !ZrImageIO::canWrite(*f))
      return usageError("no image format is known for the output name '" + *f + "'");

  ZrRunContext ctx;
  if (!ctx.start(o.quiet, o.threads))
    return 1;
  ZrCliSession& s = ctx.session();
  std::string error;

  // Inputs, checked before they reach the module.
  const char* refNames[3] = {"reference", "reference2", "reference3"};
  ZrRegScalarField3* refs[3] = {nullptr, nullptr, nullptr};
  for (int r = 0; r < 3; r++) {
    if (o.reference[r].empty())
      continue;
    refs[r] = dynamic_cast<ZrRegScalarField3*>(
        s.loadImage(refNames[r], o.reference[r], o.referenceLabels, error));
    if (!refs[r] || !ZrImageIO::checkUsable(refs[r], refNames[r], error)) {
      std::fprintf(stderr, "zrreg: %s\n", error.c_str());
      return 1;
    }
  }
  auto* model =
      dynamic_cast<ZrRegScalarField3*>(s.loadImage("model", o.model, o.modelLabels, error));
  if (!model || !ZrImageIO::checkUsable(model, "model", error)) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return 1;
  }
  bool labelInput = ZrRunContext::isLabelField(model);
  for (int r = 0; r < 3; r++) {
    if (refs[r] && !ZrRunContext::checkPair(refs[r], model, error)) {
      std::fprintf(stderr, "zrreg: %s\n", error.c_str());
      return 1;
    }
    labelInput = labelInput || (refs[r] && ZrRunContext::isLabelField(refs[r]));
  }
  SbMatrixd before;
  model->getTransform(before);

  ZrCompModule* m = s.createModule("ZrAffineRegistration", "AffineRegistration", error);
  if (!m) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return 1;
  }
  m->portData.connect(model);
  for (int r = 0; r < 3; r++)
    if (refs[r]) {
      auto* c = dynamic_cast<ZrConnection*>(m->getPort(refNames[r]));
      if (!c || !c->connect(refs[r])) {
        std::fprintf(stderr, "zrreg: the module does not take '%s' as %s\n", o.reference[r].c_str(),
                     refNames[r]);
        return 1;
      }
    }
  s.fire(m, false, error);
  // 12 degrees of freedom express any affine motion, but an image header
  // holds no shear: with -o the header would keep only the nearest
  // orthogonal part of the result, and a later step that reads it (an
  // elastic registration, the .tfm of the same run) would start from
  // another place than the transform says (a head under a warp ended
  // 0.82 mm off that way, 0.043 with 9). So -o gets the most that its
  // header holds.
  if (o.dof == 0)
    o.dof = o.out.empty() ? kDefaultDof : kHeaderDof;
  applyDefaults(m, o.quiet, o.dof);
  // Port settings after the defaults that the inputs bring, one update each
  // so that a setting can depend on the one before (a menu that grows).
  for (const auto& kv : o.sets) {
    if (!s.setPort(m, kv.first, kv.second, error)) {
      std::fprintf(stderr, "zrreg: %s\n", error.c_str());
      return 1;
    }
    s.fire(m, false, error);
  }
  if (!ZrRunContext::checkMetric(m, labelInput, error)) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return 1;
  }
  auto* action = dynamic_cast<ZrPortButtonList*>(m->getPort("action"));
  if (!action) {
    std::fprintf(stderr, "zrreg: the registration module has no 'action' port\n");
    return 1;
  }
  if (o.align == "centers")
    action->hit(0);
  else if (o.align == "principal-axes")
    action->hit(1);
  if (o.doRegister)
    action->hit(2);
  bool interrupted = false;
  if (action->wasAnyHit()) {
    m->fire(1);
    m->untouchPorts(true);
    interrupted = ctx.interrupted();
  }

  SbMatrixd after;
  model->getTransform(after);
  // Old world position -> new world position, as column vectors.
  SbMatrixd change = before.inverse() * after;
  if (!o.quiet)
    std::printf("Model transform (local to world, column vectors):\n%s",
                ZrTransformFiles::formatMatrix(after.transpose()).c_str());

  bool ok = true;
  auto report = [&](bool written, const std::string& what) {
    if (!written) {
      std::fprintf(stderr, "zrreg: %s\n", error.c_str());
      ok = false;
    } else if (!o.quiet)
      std::fprintf(stderr, "wrote %s\n", what.c_str());
  };
  std::string notice;
  if (!o.out.empty()) {
    report(ZrImageIO::write(model, o.out, error, &notice, s.fileOrder("model")), o.out);
    if (!notice.empty())
      ZrRunContext::notice(notice);
  }
  if (!o.resampled.empty()) {
    std::unique_ptr<ZrRegScalarField3> r(ZrFieldResampler::resample(model, refs[0]));
    if (!r)
      error = "the reference is not on a uniform grid; no resampled image";
    report(r && ZrImageIO::write(r.get(), o.resampled, error, nullptr, s.fileOrder("reference")),
           o.resampled);
  }
  if (!o.matrix.empty())
    report(ZrTransformFiles::writeMatrix(change.transpose(), o.matrix, error), o.matrix);
  if (!o.itkTransform.empty()) {
    // Reference point -> point of the original model file.
    SbMatrixd refToOldModel = after.inverse() * before;
    bool written;
    const ZrImageIO::FileOrder* refOrder = s.fileOrder("reference");
    const ZrImageIO::FileOrder* modelOrder = s.fileOrder("model");
    if (refOrder && modelOrder && refOrder->dimension == 2 && modelOrder->dimension == 2) {
      // ITK reads 2-D images into the plane z = 0; ours lie in the plane of
      // the reference.
      float p[3];
      refs[0]->lattice.coords()->pos(0, 0, 0, p);
      SbMatrixd refMatrix;
      refs[0]->getTransform(refMatrix);
      SbVec3d world;
      refMatrix.multVecMatrix(SbVec3d(p[0], p[1], p[2]), world);
      written = ZrTransformFiles::writeItkAffine2D(refToOldModel.transpose(), world.z,
                                                   o.itkTransform, error);
    } else {
      written = ZrTransformFiles::writeItkAffine(refToOldModel.transpose(), o.itkTransform, error);
    }
    report(written, o.itkTransform);
  }
  if (!o.snapshot.empty()) {
    std::unique_ptr<ZrRegScalarField3> afterOnRef(ZrFieldResampler::resample(model, refs[0]));
    model->setTransform(before);
    std::unique_ptr<ZrRegScalarField3> beforeOnRef(ZrFieldResampler::resample(model, refs[0]));
    model->setTransform(after);
    report(afterOnRef && beforeOnRef &&
               ZrSnapshot::write(refs[0], beforeOnRef.get(), afterOnRef.get(), nullptr, o.snapshot,
                                 error),
           o.snapshot);
  }
  if (interrupted) {
    std::fprintf(stderr, "zrreg: interrupted; the result reached so far was written\n");
    return 130;
  }
  if (!ok)
    return 1;
  // A search that ran away (the metric rising as the overlap shrinks to a
  // few voxels) ends with an absurd scale; the files are written for a
  // look, but a script must not take them for a result.
  double smallest, largest;
  sizeChange(change, smallest, largest);
  if (!(smallest >= 1.0 / kMaxSizeChange && largest <= kMaxSizeChange)) {
    std::fprintf(stderr,
                 "zrreg: the registration ran away: the found transform scales the model by "
                 "%.3g to %.3g; the outputs are written but almost surely wrong (check that the "
                 "images overlap and show the same anatomy; try --dof 6 or --align centers)\n",
                 smallest, largest);
    return 3;
  }
  return 0;
}

void ZrAffineCommand::sizeChange(const SbMatrixd& change, double& smallest, double& largest) {
  QbMat3d a;
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      a[i][j] = change[i][j];
  double values[3];
  QbMat3d vectors;
  (a.transpose() * a).eigenSystem(values, vectors);
  smallest = largest = std::sqrt(std::max(0.0, values[0]));
  for (int k = 1; k < 3; k++) {
    const double s = std::sqrt(std::max(0.0, values[k]));
    smallest = std::min(smallest, s);
    largest = std::max(largest, s);
  }
  // A NaN anywhere is a run away too.
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++)
      if (!std::isfinite(a[i][j]))
        smallest = largest = std::nan("");
}
