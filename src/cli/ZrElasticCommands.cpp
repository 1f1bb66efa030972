#include "ZrElasticCommands.h"

#include "QbPrimType.h"
#include "SbMatrixd.h"
#include "ZrCompModule.h"
#include "ZrConnection.h"
#include "ZrCurvilinearCoord3.h"
#include "ZrFieldResampler.h"
#include "ZrImageIO.h"
#include "ZrLandmarkSet.h"
#include "ZrObjectPool.h"
#include "ZrPointSetIO.h"
#include "ZrPortButtonList.h"
#include "ZrReferenceFrame.h"
#include "ZrRegScalarField3.h"
#include "ZrRegVectorField3.h"
#include "ZrRunContext.h"
#include "ZrSnapshot.h"
#include "ZrUniformLabelField3.h"
#include "ZrUniformScalarField3.h"
#include "ZrVectorImageIO.h"
#include "ZrVertexSet.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

// Options as NAME -> value; flags map to "1". `--set` may repeat.
struct Args {
  std::map<std::string, std::string> values;
  std::vector<std::pair<std::string, std::string>> sets;
  bool help = false;
  std::string error;
};

Args parse(int argc, char** argv, const std::vector<std::string>& withValue,
           const std::vector<std::string>& flags) {
  Args a;
  for (int i = 1; i < argc; i++) {
    std::string o = argv[i];
    if (o == "--help" || o == "-h") {
      a.help = true;
      continue;
    }
    if (o == "-o")
      o = "--output";
    bool isFlag = false, takes = false;
    for (const auto& f : flags)
      isFlag |= o == f;
    for (const auto& w : withValue)
      takes |= o == w;
    if (isFlag) {
      a.values[o] = "1";
    } else if (o == "--set") {
      if (i + 1 >= argc) {
        a.error = "--set needs PORT=VALUE";
        return a;
      }
      std::string kv = argv[++i];
      size_t eq = kv.find('=');
      if (eq == std::string::npos || eq == 0) {
        a.error = "--set takes PORT=VALUE, got '" + kv + "'";
        return a;
      }
      a.sets.emplace_back(kv.substr(0, eq), kv.substr(eq + 1));
    } else if (takes) {
      if (i + 1 >= argc) {
        a.error = "option '" + o + "' needs a value";
        return a;
      }
      a.values[o] = argv[++i];
    } else {
      a.error = "unknown option '" + o + "'";
      return a;
    }
  }
  return a;
}

int usage(const char* cmd, const std::string& msg) {
  std::fprintf(stderr, "zrreg %s: %s\n(see 'zrreg %s --help')\n", cmd, msg.c_str(), cmd);
  return 2;
}

int fail(const std::string& msg) {
  std::fprintf(stderr, "zrreg: %s\n", msg.c_str());
  return 1;
}

bool startContext(ZrRunContext& ctx, const Args& a) {
  int threads = 0;
  auto t = a.values.find("--threads");
  if (t != a.values.end() && !(ZrRunContext::parseInt(t->second.c_str(), threads) && threads > 0))
    return false;
  return ctx.start(a.values.count("--quiet") > 0 || a.values.count("-q") > 0, threads);
}

// A copy of f in another voxel type (values rounded and clamped), keeping the
// geometry and the label kind.
ZrRegScalarField3* convertType(const ZrRegScalarField3* f, int type) {
  float box[6];
  f->getBoundingBox(box);
  bool labels = f->getTypeId()->isOfType(ZrUniformLabelField3::getClassTypeId());
  ZrUniformScalarField3* out = labels ? new ZrUniformLabelField3(f->getDims(), type, box)
                                      : new ZrUniformScalarField3(f->getDims(), type, box);
  out->copyTransform(*f);
  size_t n = f->lattice.numNodes();
  for (size_t i = 0; i < n; i++)
    out->lattice.setValue(i, f->lattice.getValueAsDouble(i));
  return out;
}

// Positions of the control points of a saved control grid: node position
// plus the stored displacement.
ZrLandmarkSet* controlPointsFromGrid(const ZrRegVectorField3* grid) {
  const int* d = grid->getDims();
  ZrLandmarkSet* set = new ZrLandmarkSet(1);
  set->setNumMarkers(d[0] * d[1] * d[2]);
  const float* v = static_cast<const float*>(grid->lattice.dataPtr());
  int idx = 0;
  for (int k = 0; k < d[2]; k++)
    for (int j = 0; j < d[1]; j++)
      for (int i = 0; i < d[0]; i++, idx++) {
        float p[3];
        grid->lattice.coords()->pos(i, j, k, p);
        set->setPosition(QbVec3f(p[0] + v[3 * idx], p[1] + v[3 * idx + 1], p[2] + v[3 * idx + 2]),
                         idx);
      }
  return set;
}

ZrPortButtonList* buttons(ZrCompModule* m, const char* port) {
  return dynamic_cast<ZrPortButtonList*>(m->getPort(port));
}

// Presses a button of a module by its label and runs the module.
bool press(ZrCliSession& s, ZrCompModule* m, const char* port, const char* label,
           std::string& error) {
  if (!s.setPort(m, port, label, error))
    return false;
  return s.fire(m, true, error);
}

// Displacement of every reference node, from the module's "VectorField"
// result (node coordinate q, vector p - q, both in the reference's local
// frame): d = q - p, turned into world coordinates by the reference's
// transform m (the identity for the displacement in the reference's frame).
std::vector<float> displacementFrom(const ZrRegVectorField3* vf, const SbMatrixd& m) {
  size_t n = vf->lattice.numNodes();
  const float* v = static_cast<const float*>(vf->lattice.dataPtr());
  std::vector<float> d(3 * n);
  for (size_t i = 0; i < n; i++)
    for (int c = 0; c < 3; c++)
      d[3 * i + c] = float(-(v[3 * i] * m[0][c] + v[3 * i + 1] * m[1][c] + v[3 * i + 2] * m[2][c]));
  return d;
}

// Determinant of the Jacobian of x -> x + d(x) on the reference lattice, by
// central differences (one-sided at the border); d in the reference's own
// coordinates, so that derivatives and components share their axes.
ZrUniformScalarField3* jacobianOf(const std::vector<float>& d, const ZrRegScalarField3* ref) {
  const int* dims = ref->getDims();
  float box[6];
  ref->getBoundingBox(box);
  ZrUniformScalarField3* out = new ZrUniformScalarField3(dims, 3, box);
  out->copyTransform(*ref);
  double h[3];
  for (int a = 0; a < 3; a++)
    h[a] = dims[a] > 1 ? (double(box[2 * a + 1]) - box[2 * a]) / (dims[a] - 1) : 1.0;
  float* o = static_cast<float*>(out->lattice.dataPtr());
  const size_t sx = 1, sy = dims[0], sz = size_t(dims[0]) * dims[1];
  const size_t stride[3] = {sx, sy, sz};
#pragma omp parallel for schedule(static)
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++) {
        int idx[3] = {i, j, k};
        size_t at = k * sz + j * sy + i;
        double J[3][3];
        for (int a = 0; a < 3; a++) {
          int lo = idx[a] > 0 ? -1 : 0, hi = idx[a] + 1 < dims[a] ? 1 : 0;
          for (int c = 0; c < 3; c++) {
            double deriv = 0;
            if (hi != lo)
              deriv = (d[3 * (at + hi * stride[a]) + c] - d[3 * (at + lo * stride[a]) + c]) /
                      ((hi - lo) * h[a]);
            J[c][a] = (c == a ? 1.0 : 0.0) + deriv;
          }
        }
        o[at] = float(J[0][0] * (J[1][1] * J[2][2] - J[1][2] * J[2][1]) -
                      J[0][1] * (J[1][0] * J[2][2] - J[1][2] * J[2][0]) +
                      J[0][2] * (J[1][0] * J[2][1] - J[1][1] * J[2][0]));
      }
  return out;
}

void printElasticHelp() {
  std::printf(
      "usage: zrreg elastic --reference R --model M -o WARPED [options]\n"
      "\n"
      "Free-form (cubic B-spline) registration of the model onto the reference. The\n"
      "model is brought to the reference's voxel type first. A model written by\n"
      "'zrreg affine' keeps its header transform, so the two commands chain.\n"
      "\n"
      "inputs:\n"
      "  --reference FILE, --model FILE\n"
      "  --reference-labels, --model-labels   read as label images\n"
      "  --landmarks CSV          landmark pairs (x y z of the model, x y z of the reference)\n"
      "  --control-points FILE    start from these control points: a CSV of points or a\n"
      "                           control grid written by --control-grid\n"
      "  --set PORT=VALUE         set a port ('zrreg ports ZrElasticRegistration'), e.g.\n"
      "                           --set initialGridSize=6,6,6 --set refineGrid=2\n"
      "                           --set regularization=0.1,0.01,0,0 --set metric=Euclidean\n"
      "                           --set gradient=\"Finite differences\" (default: Analytic)\n"
      "outputs:\n"
      "  -o, --output FILE        the model warped onto the reference grid (required)\n"
      "  --control-grid FILE      the control grid (a vector image; 'apply-grid' reads it)\n"
      "  --displacement FILE      displacement field on the reference grid, reference point\n"
      "                           to model point in world coordinates (ITK convention)\n"
      "  --jacobian FILE          determinant of the deformation's Jacobian\n"
      "  --vector-field FILE      the module's vector field (model to reference), as a\n"
      "                           vector image on the reference grid; 'deform-points' reads it\n"
      "  --snapshot FILE.png      mid-slices: reference, checkerboards before and after,\n"
      "                           and the Jacobian determinant\n"
      "general: --threads N, --quiet\n");
}

} // namespace

void ZrElasticCommands::applyDefaults(ZrCompModule* module, bool quiet) {
  ZrRunContext::useFinestLevel(module, false, quiet);
  // The analytic gradient is this command's default, chosen by measurement on
  // real scans (README); --set gradient="Finite differences" restores the
  // module's own.
  std::string ignored;
  if (ZrPort* gradient = module->getPort("gradient"))
    gradient->setFromText("Analytic", ignored);
  // 128 bins a side instead of the module's 256: with 256 the joint histogram
  // of images with few grey levels is so sparse that the exact gradient only
  // admits steps of 1e-5 voxels and a phantom pair does not move at all; 128
  // registered the phantoms of 40^3 to 96^3 voxels and cost the 1 mm head
  // 0.002 mm (README).
  if (ZrPort* bins = module->getPort("histogramBins"))
    bins->setFromText("128,128", ignored);
}

int ZrElasticCommands::runElastic(int argc, char** argv) {
  Args a = parse(argc, argv,
                 {"--reference", "--model", "--landmarks", "--control-points", "--output",
                  "--control-grid", "--displacement", "--jacobian", "--vector-field", "--threads",
                  "--snapshot"},
                 {"--reference-labels", "--model-labels", "--quiet", "-q"});
  if (a.help) {
    printElasticHelp();
    return 0;
  }
  if (!a.error.empty())
    return usage("elastic", a.error);
  auto get = [&](const char* k) { return a.values.count(k) ? a.values[k] : std::string(); };
  if (get("--reference").empty() || get("--model").empty() || get("--output").empty())
    return usage("elastic", "--reference, --model and -o are required");
  for (const char* k :
       {"--output", "--displacement", "--jacobian", "--vector-field", "--control-grid"})
    if (!get(k).empty() && !ZrImageIO::canWrite(get(k)))
      return usage("elastic", "no image format is known for the output name '" + get(k) + "'");
  if (a.values.count("-q"))
    a.values["--quiet"] = "1";

  ZrRunContext ctx;
  if (!startContext(ctx, a))
    return 1;
  ZrCliSession& s = ctx.session();
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  std::string error;
  auto* ref = dynamic_cast<ZrRegScalarField3*>(
      s.loadImage("reference", get("--reference"), a.values.count("--reference-labels"), error));
  if (!ref || !ZrImageIO::checkUsable(ref, "reference", error))
    return fail(error);
  auto* model = dynamic_cast<ZrRegScalarField3*>(
      s.loadImage("model", get("--model"), a.values.count("--model-labels"), error));
  if (!model || !ZrImageIO::checkUsable(model, "model", error))
    return fail(error);
  if (!ZrRunContext::checkPair(ref, model, error))
    return fail(error);
  const bool labelInput = ZrRunContext::isLabelField(ref) || ZrRunContext::isLabelField(model);
  if (model->primType() != ref->primType()) {
    ZrRegScalarField3* converted = convertType(model, ref->primType());
    ZrRunContext::notice(std::string("the model's voxels (") + qbPrimTypeName(model->primType()) +
                         ") are converted to the reference's type");
    pool->removeObject(model);
    converted->setName("model");
    pool->addObject(converted);
    model = converted;
  }

  // The run happens in the reference's frame (an oblique reference loses its
  // rotation meanwhile); the frame is left once the module's work is done.
  ZrReferenceFrame frame;
  frame.enter(ref, model);
  ZrCompModule* m = s.createModule("ZrElasticRegistration", "ElasticRegistration", error);
  if (!m)
    return fail(error);
  m->portData.connect(model);
  if (!s.setPort(m, "reference", "reference", error))
    return fail(error);
  if (!get("--landmarks").empty()) {
    ZrLandmarkSet* l = ZrPointSetIO::readLandmarks(get("--landmarks"), error);
    if (!l)
      return fail(error);
    if (l->getNumSets() < 2) {
      delete l;
      return fail("'" + get("--landmarks") +
                  "' must hold pairs: x y z of the model, then x y z "
                  "of the reference, per row");
    }
    frame.toFrame(l);
    l->setName("landmarks");
    pool->addObject(l);
    if (!s.setPort(m, "landmarks", "landmarks", error))
      return fail(error);
  }
  // A control grid gives the lattice's size too; a CSV of points needs
  // --set initialGridSize to match its number of points.
  std::string gridSize;
  if (!get("--control-points").empty()) {
    std::string path = get("--control-points");
    ZrLandmarkSet* cp = nullptr;
    std::string why;
    // A saved grid is in the frame already; points in a CSV are in the world.
    if (std::unique_ptr<ZrRegVectorField3> grid{ZrVectorImageIO::read(path, why)}) {
      cp = controlPointsFromGrid(grid.get());
      const int* d = grid->getDims();
      gridSize = std::to_string(d[0]) + "," + std::to_string(d[1]);
      if (d[2] > 1)
        gridSize += "," + std::to_string(d[2]);
    } else {
      cp = ZrPointSetIO::readLandmarks(path, error);
      frame.toFrame(cp);
    }
    if (!cp)
      return fail(error);
    cp->setName("startControlPoints");
    pool->addObject(cp);
    if (!s.setPort(m, "controlPoints", "startControlPoints", error))
      return fail(error);
  }
  s.fire(m, false, error);
  if (!gridSize.empty()) {
    if (!s.setPort(m, "initialGridSize", gridSize, error))
      return fail(error);
    s.fire(m, false, error);
  }
  applyDefaults(m, a.values.count("--quiet") > 0);
  for (const auto& kv : a.sets) {
    if (!s.setPort(m, kv.first, kv.second, error))
      return fail(error);
    s.fire(m, false, error);
  }
  if (!ZrRunContext::checkMetric(m, labelInput, error))
    return fail(error);
  ZrPortButtonList* action = buttons(m, "action");
  if (!action || !action->hit(0))
    return fail("the elastic module cannot start a registration with these inputs");
  m->fire(1);
  m->untouchPorts(true);
  bool interrupted = ctx.interrupted();

  // The warped model: result 0 after a run, or made by "Apply transform".
  auto* warped = dynamic_cast<ZrRegScalarField3*>(m->getResult(0));
  if (!warped) {
    action->hit(1);
    m->fire(1);
    m->untouchPorts(true);
    warped = dynamic_cast<ZrRegScalarField3*>(m->getResult(0));
  }
  if (!warped)
    return fail("the registration produced no warped image");
  bool ok = true;
  auto write = [&](bool done, const std::string& what) {
    if (!done) {
      std::fprintf(stderr, "zrreg: %s\n", error.c_str());
      ok = false;
    } else if (!a.values.count("--quiet"))
      std::fprintf(stderr, "wrote %s\n", what.c_str());
  };
  // Everything on the reference's lattice goes out in its file's voxel order.
  const ZrImageIO::FileOrder* refOrder = s.fileOrder("reference");
  if (frame.active())
    warped->setTransform(frame.toWorld());
  write(ZrImageIO::write(warped, get("--output"), error, nullptr, refOrder), get("--output"));
  if (!get("--control-grid").empty()) {
    ZrRegVectorField3* grid = nullptr;
    if (press(s, m, "result", "Save transform", error))
      grid = dynamic_cast<ZrRegVectorField3*>(m->getResult(1));
    if (!grid && error.empty())
      error = "the module made no control grid";
    // The control points keep the package's order, node for node, which is
    // what reading them back expects; a 2-D run gives a 2-D file.
    ZrImageIO::FileOrder gridOrder;
    if (grid) {
      gridOrder.dimension = refOrder ? refOrder->dimension : 3;
      for (int a = 0; a < 3; a++)
        gridOrder.dims[a] = grid->getDims()[a];
    }
    write(grid && ZrVectorImageIO::write(grid, get("--control-grid"), error, &gridOrder),
          get("--control-grid"));
  }
  if (!get("--displacement").empty() || !get("--jacobian").empty() ||
      !get("--vector-field").empty() || !get("--snapshot").empty()) {
    ZrRegVectorField3* vf = nullptr;
    if (press(s, m, "result", "Vector field", error))
      vf = dynamic_cast<ZrRegVectorField3*>(m->getResult(1));
    frame.leave();
    if (!vf || vf->lattice.numNodes() != ref->lattice.numNodes()) {
      write(false, "");
      std::fprintf(stderr, "zrreg: the module made no vector field on the reference grid\n");
    } else {
      if (!get("--displacement").empty() || !get("--vector-field").empty()) {
        std::vector<float> d = displacementFrom(vf, frame.toWorld());
        // Without a Jacobian to compute, the module's field (positions and
        // vectors) is not read again: it goes before the files are written.
        if (get("--jacobian").empty() && get("--snapshot").empty()) {
          ZrObjectPool::getTheObjectPool()->removeObject(vf);
          m->setResult(1, nullptr);
          vf = nullptr;
        }
        if (!get("--vector-field").empty()) {
          std::vector<float> back(d.size());
          for (size_t i = 0; i < d.size(); i++)
            back[i] = -d[i];
          write(ZrVectorImageIO::writeOnLattice(ref, back.data(), get("--vector-field"), error,
                                                refOrder, &back),
                get("--vector-field"));
        }
        // Written last, so that its vectors can be freed once the file's copy
        // of them is made.
        if (!get("--displacement").empty())
          write(ZrVectorImageIO::writeOnLattice(ref, d.data(), get("--displacement"), error,
                                                refOrder, &d),
                get("--displacement"));
      }
      // The determinant only where a file shows it: on a fine grid it costs a
      // pass and a field of its own.
      std::unique_ptr<ZrUniformScalarField3> j;
      if (!get("--jacobian").empty() || !get("--snapshot").empty())
        j.reset(jacobianOf(displacementFrom(vf, SbMatrixd()), ref));
      if (!get("--jacobian").empty())
        write(ZrImageIO::write(j.get(), get("--jacobian"), error, nullptr, refOrder),
              get("--jacobian"));
      if (!get("--snapshot").empty()) {
        std::unique_ptr<ZrRegScalarField3> beforeOnRef(ZrFieldResampler::resample(model, ref));
        write(beforeOnRef && ZrSnapshot::write(ref, beforeOnRef.get(), warped, j.get(),
                                               get("--snapshot"), error),
              get("--snapshot"));
      }
    }
  }
  if (interrupted) {
    std::fprintf(stderr, "zrreg: interrupted; the result reached so far was written\n");
    return 130;
  }
  return ok ? 0 : 1;
}

int ZrElasticCommands::runApplyGrid(int argc, char** argv) {
  Args a = parse(argc, argv,
                 {"--control-grid", "--model", "--reference", "--resolution", "--output",
                  "--landmarks", "--threads"},
                 {"--validate", "--model-labels", "--quiet", "-q"});
  if (a.help) {
    std::printf(
        "usage: zrreg apply-grid --control-grid G --model M [--reference R | --resolution X,Y,Z]\n"
        "                        -o OUT [--landmarks CSV --validate]\n"
        "\n"
        "Warps the model by a control grid that 'zrreg elastic --control-grid' wrote, onto\n"
        "the reference's grid, or onto a grid of the given size inside the control grid's\n"
        "box. Label images stay labels (nearest voxel). --validate with --landmarks prints\n"
        "the distances of the mapped landmarks to their targets.\n");
    return 0;
  }
  if (!a.error.empty())
    return usage("apply-grid", a.error);
  auto get = [&](const char* k) { return a.values.count(k) ? a.values[k] : std::string(); };
  if (get("--control-grid").empty() || get("--model").empty() || get("--output").empty())
    return usage("apply-grid", "--control-grid, --model and -o are required");
  if (!ZrImageIO::canWrite(get("--output")))
    return usage("apply-grid", "no image format is known for '" + get("--output") + "'");
  ZrRunContext ctx;
  if (!startContext(ctx, a))
    return 1;
  ZrCliSession& s = ctx.session();
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  std::string error;
  ZrRegVectorField3* grid = ZrVectorImageIO::read(get("--control-grid"), error);
  if (!grid)
    return fail(error);
  grid->setName("ControlGridVectors");
  pool->addObject(grid);
  auto* model = dynamic_cast<ZrRegScalarField3*>(
      s.loadImage("model", get("--model"), a.values.count("--model-labels"), error));
  if (!model || !ZrImageIO::checkUsable(model, "model", error))
    return fail(error);
  ZrCompModule* m = s.createModule("ZrApplyBSplineTransform", "ApplyBSplineTransform", error);
  if (!m)
    return fail(error);
  m->portData.connect(model);
  if (!s.setPort(m, "controlPoints", "ControlGridVectors", error))
    return fail(error);
  // With a reference, the grid is applied in the reference's frame, as the
  // elastic run found it.
  ZrReferenceFrame frame;
  if (!get("--reference").empty()) {
    auto* ref = dynamic_cast<ZrRegScalarField3*>(
        s.loadImage("reference", get("--reference"), false, error));
    if (!ref)
      return fail(error);
    frame.enter(ref, model);
    if (!s.setPort(m, "reference", "reference", error))
      return fail(error);
  }
  if (!get("--resolution").empty() && !s.setPort(m, "resolution", get("--resolution"), error))
    return fail(error);
  if (!get("--landmarks").empty()) {
    ZrLandmarkSet* l = ZrPointSetIO::readLandmarks(get("--landmarks"), error);
    if (!l)
      return fail(error);
    frame.toFrame(l);
    l->setName("landmarks");
    pool->addObject(l);
    if (!s.setPort(m, "landmarks", "landmarks", error))
      return fail(error);
  }
  s.fire(m, false, error);
  for (const auto& kv : a.sets)
    if (!s.setPort(m, kv.first, kv.second, error) || !s.fire(m, false, error))
      return fail(error);
  if (!press(s, m, "action", "Apply warpTransform", error))
    return fail(error);
  auto* out = dynamic_cast<ZrRegScalarField3*>(m->getResult(0));
  if (!out)
    return fail("the control grid could not be applied (does it belong to this model?)");
  // On the reference: in its file's voxel order. On a grid of the given
  // resolution: the field's order, in the model's dimension.
  const ZrImageIO::FileOrder* order = s.fileOrder("reference");
  ZrImageIO::FileOrder planar;
  if (!order) {
    const ZrImageIO::FileOrder* modelOrder = s.fileOrder("model");
    planar.dimension = modelOrder ? modelOrder->dimension : 3;
    for (int a = 0; a < 3; a++)
      planar.dims[a] = out->getDims()[a];
    order = &planar;
  }
  if (frame.active())
    out->setTransform(frame.toWorld());
  if (!ZrImageIO::write(out, get("--output"), error, nullptr, order))
    return fail(error);
  if (a.values.count("--validate") && !get("--landmarks").empty()) {
    if (!press(s, m, "result", "Validate", error))
      return fail(error);
    // Validation reports the state of the previous mapping: run it twice so
    // the figures describe this grid.
    press(s, m, "result", "Validate", error);
    for (const char* port : {"statistics", "statistics2"})
      if (ZrPort* p = m->getPort(port))
        std::printf("%s\n", p->getValueText().c_str());
  }
  return ctx.interrupted() ? 130 : 0;
}

int ZrElasticCommands::runDeformPoints(int argc, char** argv) {
  Args a =
      parse(argc, argv, {"--vector-field", "--points", "--output", "--threads"}, {"--quiet", "-q"});
  if (a.help) {
    std::printf("usage: zrreg deform-points --vector-field F --points IN -o OUT\n"
                "\n"
                "Moves points (CSV: x y z per row) or a surface mesh (.off) by the vector field\n"
                "that 'zrreg elastic --vector-field' wrote: points of the model are carried to\n"
                "where they lie in the reference.\n");
    return 0;
  }
  if (!a.error.empty())
    return usage("deform-points", a.error);
  auto get = [&](const char* k) { return a.values.count(k) ? a.values[k] : std::string(); };
  if (get("--vector-field").empty() || get("--points").empty() || get("--output").empty())
    return usage("deform-points", "--vector-field, --points and -o are required");
  ZrRunContext ctx;
  if (!startContext(ctx, a))
    return 1;
  ZrCliSession& s = ctx.session();
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  std::string error;
  std::unique_ptr<ZrRegVectorField3> img(ZrVectorImageIO::read(get("--vector-field"), error));
  if (!img)
    return fail(error);
  // The module's vector field lives on the deformed grid: node coordinate
  // q = p - v for the reference node p and its vector v, in local
  // coordinates of the reference frame.
  const int* d = img->getDims();
  ZrRegVectorField3* vf = ZrRegVectorField3::create(d, 3, 3, ZR_COORD_CURVILINEAR);
  if (!vf)
    return fail("not enough memory for the vector field");
  float* pos = static_cast<ZrCurvilinearCoord3*>(vf->lattice.coords())->getPositions();
  const float* v = img->floatData();
  float* out = vf->floatData();
  size_t idx = 0;
  for (int k = 0; k < d[2]; k++)
    for (int j = 0; j < d[1]; j++)
      for (int i = 0; i < d[0]; i++, idx++) {
        float p[3];
        img->lattice.coords()->pos(i, j, k, p);
        for (int c = 0; c < 3; c++) {
          pos[3 * idx + c] = p[c] - v[3 * idx + c];
          out[3 * idx + c] = v[3 * idx + c];
        }
      }
  vf->copyTransform(*img);
  vf->setName("VectorField");
  pool->addObject(vf);
  ZrVertexSet* pts = ZrPointSetIO::readVertices(get("--points"), error);
  if (!pts)
    return fail(error);
  pts->setName("points");
  pool->addObject(pts);
  ZrCompModule* m = s.createModule("ZrApplyDeformation", "ApplyDeformation", error);
  if (!m)
    return fail(error);
  m->portData.connect(pts);
  if (!s.setPort(m, "VectorField", "VectorField", error))
    return fail(error);
  s.fire(m, false, error);
  if (!press(s, m, "action", "DoIt", error))
    return fail(error);
  auto* moved = dynamic_cast<ZrVertexSet*>(m->getResult(0));
  if (!moved)
    return fail("the deformation produced no points");
  if (!ZrPointSetIO::writeVertices(moved, get("--output"), error))
    return fail(error);
  return 0;
}
