#include "ZrApplyCommand.h"

#include "SbMatrixd.h"
#include "ZrImageIO.h"
#include "ZrRegScalarField3.h"
#include "ZrRunContext.h"
#include "ZrTransformChain.h"

#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

int usageError(const std::string& msg) {
  std::fprintf(stderr, "zrreg apply: %s\n(see 'zrreg apply --help')\n", msg.c_str());
  return 2;
}

int fail(const std::string& msg) {
  std::fprintf(stderr, "zrreg: %s\n", msg.c_str());
  return 1;
}

} // namespace

void ZrApplyCommand::printHelp() {
  std::printf(
      "usage: zrreg apply --image IMG [transforms] --reference REF -o OUT [options]\n"
      "       zrreg apply --image IMG -t AFFINE [-t AFFINE ...] --image-grid -o OUT\n"
      "\n"
      "Moves an image (a label atlas, another contrast, a mask) by the transforms that\n"
      "registrations found, and writes it on the voxel grid of the reference, or on its own\n"
      "grid with only its header changed.\n"
      "\n"
      "image and grid:\n"
      "  --image FILE           the image to move: grey values or labels\n"
      "  --reference FILE       write on this image's voxel grid (its voxels are not used):\n"
      "                         the reference of the registrations, or any image in its space\n"
      "  --image-grid           keep the image's voxels and put its new position into the\n"
      "                         header, as 'zrreg affine -o' does (affine transforms only)\n"
      "  --labels               the image holds labels: nearest voxel, values kept\n"
      "                         (files with a NIfTI label intent are labels anyway)\n"
      "\n"
      "transforms, in the order the registrations found them: the image is moved by the\n"
      "first, then by the next (for an affine, then an elastic registration:\n"
      "-t affine.tfm --displacement disp.nii.gz):\n"
      "  -t, --transform FILE   an affine: an ITK transform file, which maps reference points\n"
      "                         to image points ('zrreg affine --itk-transform', and ITK's\n"
      "                         convention), or a 4x4 matrix that moves the image ('zrreg\n"
      "                         affine --matrix')\n"
      "  --inverse FILE         the inverse of such an affine (to move a reference-space\n"
      "                         image onto the registration's model)\n"
      "  --displacement FILE    a displacement field: at each reference point, the vector to\n"
      "                         the image point in world coordinates ('zrreg elastic\n"
      "                         --displacement', and ITK's convention)\n"
      "  --control-grid FILE    a B-spline deformation ('zrreg elastic --control-grid'); it\n"
      "                         lives in the frame of its registration's reference, so give\n"
      "                         that image as --reference, or one of the same space and\n"
      "                         orientation (another resolution, say)\n"
      "  With no transform, the image is resampled onto the reference where the headers\n"
      "  place it.\n"
      "\n"
      "options:\n"
      "  --interpolation linear|cubic|lanczos|nearest\n"
      "                         how grey values between voxels are found: linear (the\n"
      "                         default), cubic (Catmull-Rom), lanczos (windowed sinc, as\n"
      "                         'apply-grid' uses) or nearest; labels always take the nearest\n"
      "  -o, --output FILE      the moved image, in the voxel type of --image (required); on\n"
      "                         the reference's grid in the reference file's voxel order\n"
      "  --threads N            number of threads (default: all cores)\n"
      "  --quiet                no progress and no messages, only errors\n"
      "\n"
      "Voxels that the transforms carry outside the image get 0. Ctrl-C stops the command;\n"
      "nothing is written then and the exit status is 130.\n"
      "\n"
      "example: a label atlas of the model, onto the reference after an affine and an\n"
      "elastic registration:\n"
      "  zrreg affine --reference ref.nii.gz --model mov.nii.gz -o mov-affine.nii.gz \\\n"
      "      --itk-transform affine.tfm\n"
      "  zrreg elastic --reference ref.nii.gz --model mov-affine.nii.gz -o mov-warped.nii.gz \\\n"
      "      --displacement disp.nii.gz\n"
      "  zrreg apply --image mov-labels.nii.gz --labels -t affine.tfm \\\n"
      "      --displacement disp.nii.gz --reference ref.nii.gz -o labels-on-ref.nii.gz\n");
}

int ZrApplyCommand::run(int argc, char** argv) {
  std::string image, reference, out, interpolationName;
  bool imageGrid = false, labels = false, quiet = false;
  int threads = 0;
  std::vector<std::pair<ZrTransformChain::Kind, std::string>> steps;
  for (int i = 1; i < argc; i++) {
    const std::string a = argv[i];
    auto value = [&](std::string& dst) {
      if (i + 1 >= argc)
        return false;
      dst = argv[++i];
      return true;
    };
    std::string v;
    bool ok = true;
    if (a == "--help" || a == "-h") {
      printHelp();
      return 0;
    } else if (a == "--image")
      ok = value(image);
    else if (a == "--reference")
      ok = value(reference);
    else if (a == "-o" || a == "--output")
      ok = value(out);
    else if (a == "--image-grid")
      imageGrid = true;
    else if (a == "--labels")
      labels = true;
    else if (a == "-t" || a == "--transform" || a == "--inverse" || a == "--displacement" ||
             a == "--control-grid") {
      ok = value(v);
      const ZrTransformChain::Kind kind = a == "--inverse"        ? ZrTransformChain::InverseAffine
                                          : a == "--displacement" ? ZrTransformChain::Displacement
                                          : a == "--control-grid" ? ZrTransformChain::ControlGrid
                                                                  : ZrTransformChain::Affine;
      if (ok)
        steps.emplace_back(kind, v);
    } else if (a == "--interpolation")
      ok = value(interpolationName);
    else if (a == "--quiet" || a == "-q")
      quiet = true;
    else if (a == "--threads") {
      ok = value(v) && ZrRunContext::parseInt(v.c_str(), threads) && threads > 0;
      if (!ok)
        return usageError("--threads takes a positive number");
    } else
      return usageError("unknown option '" + a + "'");
    if (!ok)
      return usageError("option '" + a + "' needs a value");
  }
  if (image.empty() || out.empty())
    return usageError("--image and -o are required");
  if (imageGrid && !reference.empty())
    return usageError("--image-grid writes on the image's own grid; it takes no --reference");
  if (!imageGrid && reference.empty())
    return usageError("--reference is required (the grid to write on), or --image-grid for "
                      "affine transforms");
  if (imageGrid && steps.empty())
    return usageError("--image-grid needs at least one affine transform (-t)");
  for (const auto& s : steps)
    if (imageGrid && s.first != ZrTransformChain::Affine &&
        s.first != ZrTransformChain::InverseAffine)
      return usageError("--image-grid takes affine transforms only; a deformation needs "
                        "--reference, the grid to resample onto");
  ZrTransformChain::Interpolation interpolation = ZrTransformChain::Linear;
  if (interpolationName == "nearest")
    interpolation = ZrTransformChain::Nearest;
  else if (interpolationName == "cubic")
    interpolation = ZrTransformChain::Cubic;
  else if (interpolationName == "lanczos")
    interpolation = ZrTransformChain::Lanczos;
  else if (!interpolationName.empty() && interpolationName != "linear")
    return usageError("--interpolation takes linear, cubic, lanczos or nearest");
  if (!ZrImageIO::canWrite(out))
    return usageError("no image format is known for the output name '" + out + "'");

  ZrRunContext ctx;
  if (!ctx.start(quiet, threads))
    return 1;
  ZrCliSession& s = ctx.session();
  std::string error;
  auto* img = dynamic_cast<ZrRegScalarField3*>(s.loadImage("image", image, labels, error));
  if (!img || !ZrImageIO::checkFinite(img, "input", error))
    return fail(error);
  const bool labelImage = ZrRunContext::isLabelField(img);
  if (labelImage) {
    if (!interpolationName.empty() && interpolationName != "nearest")
      return fail("'" + image +
                  "' holds labels, which are moved by the nearest voxel only; "
                  "leave out --interpolation");
    interpolation = ZrTransformChain::Nearest;
  }
  ZrTransformChain chain;
  for (const auto& st : steps)
    if (!chain.add(st.first, st.second, error))
      return fail(error);

  std::string notice;
  if (imageGrid) {
    // The voxels stay; the header takes the image's new place.
    SbMatrixd before;
    img->getTransform(before);
    img->setTransform(before * chain.imageMotion());
    if (!ZrImageIO::write(img, out, error, &notice, s.fileOrder("image")))
      return fail(error);
  } else {
    auto* grid =
        dynamic_cast<ZrRegScalarField3*>(s.loadImage("reference", reference, false, error));
    if (!grid)
      return fail(error);
    std::unique_ptr<ZrRegScalarField3> moved(
        chain.resample(s, img, grid, "reference", interpolation, error));
    if (!moved) {
      if (ctx.interrupted()) {
        std::fprintf(stderr, "zrreg: interrupted; nothing was written\n");
        return 130;
      }
      return fail(error);
    }
    if (!ZrImageIO::write(moved.get(), out, error, &notice, s.fileOrder("reference")))
      return fail(error);
  }
  if (!notice.empty())
    ZrRunContext::notice(notice);
  if (!quiet)
    std::fprintf(stderr, "wrote %s\n", out.c_str());
  return 0;
}
