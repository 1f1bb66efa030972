#include "ZrTransformChain.h"

#include "QbPrimType.h"
#include "ZrCliSession.h"
#include "ZrCompModule.h"
#include "ZrCurvilinearCoord3.h"
#include "ZrEvalCubic.h"
#include "ZrEvalLanczos.h"
#include "ZrEvalNN.h"
#include "ZrEvalStandard.h"
#include "ZrField3.h"
#include "ZrFieldEvaluator.h"
#include "ZrLocation3.h"
#include "ZrObjectPool.h"
#include "ZrRegScalarField3.h"
#include "ZrRegVectorField3.h"
#include "ZrTransformFiles.h"
#include "ZrUniformCoord3.h"
#include "ZrUniformLabelField3.h"
#include "ZrUniformScalarField3.h"
#include "ZrVectorImageIO.h"
#include "ZrWorkArea.h"

#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <omp.h>

struct ZrTransformChain::Step {
  Kind kind = Affine;
  std::string path;
  // Affine steps, row vectors: pull carries a point of the output side to the
  // image side, push moves the image.
  SbMatrixd pull, push;
  // Vector steps: the field as read. A control grid goes to the object pool
  // for the module, which then owns it.
  std::unique_ptr<ZrRegVectorField3> field;
  ZrRegVectorField3* pooled = nullptr;
};

ZrTransformChain::ZrTransformChain() = default;
ZrTransformChain::~ZrTransformChain() = default;

namespace {

bool isItkTransformFile(const std::string& path) {
  std::ifstream in(path);
  std::string first;
  std::getline(in, first);
  return first.find("#Insight Transform File") == 0;
}

// The position field of a control grid on the output lattice, and how a
// point that does not lie on a node is carried.
struct GridPositions {
  std::vector<float> positions;             // per node of the output lattice
  std::unique_ptr<ZrRegVectorField3> shift; // positions - node, for between nodes
};

// One mapping of a point on its way to the image.
struct Stage {
  SbMatrixd before;               // applied first (row vectors)
  bool atNodes = false;           // first stage of a control grid: read by node
  const ZrRegVectorField3* field; // displacement field, or null
  SbMatrixd fieldFromWorld, fieldDirToWorld;
  const GridPositions* grid = nullptr;
};

} // namespace

bool ZrTransformChain::add(Kind kind, const std::string& path, std::string& error) {
  std::unique_ptr<Step> s(new Step);
  s->kind = kind;
  s->path = path;
  if (kind == Affine || kind == InverseAffine) {
    SbMatrixd a;
    const bool itk = isItkTransformFile(path);
    if (!(itk ? ZrTransformFiles::readItkAffine(path, a, error)
              : ZrTransformFiles::readMatrix(path, a, error)))
      return false;
    // Files hold column-vector matrices; ITK's maps reference points to image
    // points, a matrix file moves the image.
    const SbMatrixd rows = a.transpose();
    if (!(std::fabs(rows.det3()) > 1e-12)) {
      error = "'" + path + "' holds a singular matrix";
      return false;
    }
    s->pull = itk ? rows : rows.inverse();
    s->push = itk ? rows.inverse() : rows;
    if (kind == InverseAffine)
      std::swap(s->pull, s->push);
  } else {
    s->field.reset(ZrVectorImageIO::read(path, error));
    if (!s->field)
      return false;
  }
  steps.push_back(std::move(s));
  return true;
}

bool ZrTransformChain::affineOnly() const {
  for (const auto& s : steps)
    if (s->kind != Affine && s->kind != InverseAffine)
      return false;
  return true;
}

SbMatrixd ZrTransformChain::imageMotion() const {
  SbMatrixd m;
  for (const auto& s : steps)
    if (s->kind == Affine || s->kind == InverseAffine)
      m = m * s->push;
  return m;
}

namespace {

// The positions the package's spline module gives the nodes of grid.
bool controlGridPositions(ZrCliSession& session, ZrRegVectorField3* controlGrid,
                          ZrRegScalarField3* image, ZrRegScalarField3* grid,
                          const std::string& gridName, int index, GridPositions& out,
                          std::string& error) {
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  const std::string name = "ChainControlGrid" + std::to_string(index);
  if (!controlGrid->isInPool()) {
    controlGrid->setName(name.c_str());
    pool->addObject(controlGrid);
  }
  ZrCompModule* m =
      session.createModule("ZrApplyBSplineTransform", "ChainSpline" + std::to_string(index), error);
  if (!m)
    return false;
  m->portData.connect(image);
  if (!session.setPort(m, "controlPoints", name, error) ||
      !session.setPort(m, "reference", gridName, error))
    return false;
  session.fire(m, false, error);
  if (!session.setPort(m, "result", "Vector field", error) || !session.fire(m, true, error))
    return false;
  auto* vf = dynamic_cast<ZrRegVectorField3*>(m->getResult(1));
  if (!vf || vf->coordType() != ZR_COORD_CURVILINEAR ||
      vf->lattice.numNodes() != grid->lattice.numNodes()) {
    error = "the control grid could not be evaluated on the output grid";
    return false;
  }
  const size_t n = grid->lattice.numNodes();
  const float* q = static_cast<const ZrCurvilinearCoord3*>(vf->lattice.coords())->getPositions();
  out.positions.assign(q, q + 3 * n);
  out.shift.reset(ZrRegVectorField3::create(grid->getDims(), 3, QB_FLOAT, ZR_COORD_UNIFORM));
  if (!out.shift) {
    error = "not enough memory for the control grid's positions";
    return false;
  }
  float box[6];
  grid->getBoundingBox(box);
  static_cast<ZrUniformCoord3*>(out.shift->lattice.coords())->setBoundingBox(box);
  float* d = out.shift->floatData();
  const int* dims = grid->getDims();
  size_t idx = 0;
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++, idx++) {
        float p[3];
        grid->lattice.coords()->pos(i, j, k, p);
        for (int c = 0; c < 3; c++)
          d[3 * idx + c] = q[3 * idx + c] - p[c];
      }
  pool->removeObject(m);
  return true;
}

ZrFieldEvaluator* imageEvaluator(ZrRegScalarField3* image,
                                 ZrTransformChain::Interpolation interpolation) {
  ZrFieldEvaluator* e = nullptr;
  switch (interpolation) {
  case ZrTransformChain::Nearest:
    e = ZrEvalNN::createEval(image);
    break;
  case ZrTransformChain::Cubic:
    e = ZrEvalCubic::createEval(image);
    break;
  case ZrTransformChain::Lanczos:
    e = ZrEvalLanczos::createEval(image);
    break;
  case ZrTransformChain::Linear:
    break;
  }
  return e ? e : new ZrEvalStandard(image);
}

} // namespace

ZrRegScalarField3* ZrTransformChain::resample(ZrCliSession& session, ZrRegScalarField3* image,
                                              ZrRegScalarField3* grid, const std::string& gridName,
                                              Interpolation interpolation, std::string& error) {
  if (grid->coordType() != ZR_COORD_UNIFORM || image->coordType() != ZR_COORD_UNIFORM) {
    error = "only images on a uniform grid can be resampled";
    return nullptr;
  }
  ZrWorkArea* wa = ZrWorkArea::getTheWorkArea();
  wa->startWorking("Applying the transforms");
  struct StopWorking {
    ZrWorkArea* wa;
    ~StopWorking() { wa->stopWorking(); }
  } stop{wa};

  // The stages of a point's travel: consecutive affine steps become one
  // matrix, applied before the next vector step or at the end.
  SbMatrixd toWorld, gridFromWorld, imageFromWorld;
  grid->getTransform(toWorld);
  grid->getInverseTransform(gridFromWorld);
  image->getInverseTransform(imageFromWorld);
  std::vector<GridPositions> gridPositions(steps.size());
  std::vector<Stage> stages;
  SbMatrixd current = toWorld;
  bool onNodes = true; // the point is still the output node, in grid coordinates
  for (int k = int(steps.size()) - 1; k >= 0; k--) {
    Step& s = *steps[k];
    if (s.kind == Affine || s.kind == InverseAffine) {
      current = current * s.pull;
      onNodes = false;
      continue;
    }
    Stage st;
    if (s.kind == ControlGrid) {
      // The spline is defined on the output grid's own coordinates.
      if (s.field)
        s.pooled = s.field.release();
      if (!controlGridPositions(session, s.pooled, image, grid, gridName, k, gridPositions[k],
                                error))
        return nullptr;
      st.grid = &gridPositions[k];
      st.atNodes = onNodes;
      st.before = current * gridFromWorld;
      st.field = nullptr;
    } else {
      st.before = current;
      st.field = s.field.get();
      s.field->getInverseTransform(st.fieldFromWorld);
      s.field->getTransform(st.fieldDirToWorld);
    }
    stages.push_back(st);
    // A grid's positions are in the output grid's own coordinates (the frame
    // the spline lives in); a displacement's in the world.
    current = s.kind == ControlGrid ? toWorld : SbMatrixd();
    onNodes = false;
  }
  const SbMatrixd last = current * imageFromWorld;

  const int* dims = grid->getDims();
  float box[6];
  grid->getBoundingBox(box);
  const bool labels = image->getTypeId()->isOfType(ZrUniformLabelField3::getClassTypeId());
  std::unique_ptr<ZrUniformScalarField3> out(
      labels ? new ZrUniformLabelField3(dims, image->primType(), box)
             : new ZrUniformScalarField3(dims, image->primType(), box));
  out->copyTransform(*grid);

  // A flat image has no thickness: points that miss its plane by rounding
  // only are put back into it.
  float imageBox[6];
  image->getBoundingBox(imageBox);
  const int* imageDims = image->getDims();
  double planeTolerance = 0;
  if (imageDims[2] == 1) {
    double h = 1e30;
    for (int a = 0; a < 2; a++)
      if (imageDims[a] > 1)
        h = std::min(h, (double(imageBox[2 * a + 1]) - imageBox[2 * a]) / (imageDims[a] - 1));
    planeTolerance = 1e-3 * (h < 1e30 ? h : 1.0);
  }

  double step[3];
  for (int a = 0; a < 3; a++)
    step[a] = dims[a] > 1 ? (double(box[2 * a + 1]) - box[2 * a]) / (dims[a] - 1) : 0;
  const size_t nx = dims[0], ny = dims[1];
  const size_t elem = qbPrimTypeSize(image->primType());
  char* outData = static_cast<char*>(out->lattice.dataPtr());
  std::atomic<int> slicesDone{0};
  std::atomic<bool> failed{false};
#pragma omp parallel
  {
    std::unique_ptr<ZrFieldEvaluator> eval(imageEvaluator(image, interpolation));
    std::unique_ptr<ZrLocation3> loc(eval->createLocation());
    // Per stage: an evaluator of its vector field and a location on it.
    std::vector<std::unique_ptr<ZrFieldEvaluator>> stageEval;
    std::vector<std::unique_ptr<ZrLocation3>> stageLoc;
    for (const Stage& st : stages) {
      ZrField3* f = st.grid ? static_cast<ZrField3*>(st.grid->shift.get())
                            : const_cast<ZrRegVectorField3*>(st.field);
      stageEval.emplace_back(new ZrEvalStandard(f));
      stageLoc.emplace_back(stageEval.back()->createLocation());
    }
    const bool nearest = interpolation == Nearest;
    char native[16];
#pragma omp for schedule(dynamic)
    for (int k = 0; k < dims[2]; k++) {
      if (failed.load(std::memory_order_relaxed))
        continue;
      for (int j = 0; j < dims[1]; j++)
        for (int i = 0; i < dims[0]; i++) {
          const size_t n = (size_t(k) * ny + j) * nx + i;
          SbVec3d x(box[0] + i * step[0], box[2] + j * step[1], box[4] + k * step[2]), y;
          for (size_t s = 0; s < stages.size(); s++) {
            const Stage& st = stages[s];
            if (st.atNodes) {
              const float* q = &st.grid->positions[3 * n];
              x = SbVec3d(q[0], q[1], q[2]);
              continue;
            }
            st.before.multVecMatrix(x, y);
            float v[3] = {0, 0, 0};
            if (st.grid) {
              // Grid coordinates in, positions of the spline's world out.
              if (stageLoc[s]->set(float(y[0]), float(y[1]), float(y[2])))
                stageEval[s]->eval(stageLoc[s].get(), v);
              x = SbVec3d(y[0] + v[0], y[1] + v[1], y[2] + v[2]);
            } else {
              SbVec3d local, world;
              st.fieldFromWorld.multVecMatrix(y, local);
              if (stageLoc[s]->set(float(local[0]), float(local[1]), float(local[2])))
                stageEval[s]->eval(stageLoc[s].get(), v);
              st.fieldDirToWorld.multDirMatrix(SbVec3d(v[0], v[1], v[2]), world);
              x = SbVec3d(y[0] + world[0], y[1] + world[1], y[2] + world[2]);
            }
          }
          SbVec3d q;
          last.multVecMatrix(x, q);
          if (planeTolerance > 0 && std::fabs(q[2] - imageBox[4]) <= planeTolerance)
            q[2] = imageBox[4];
          const bool inside = loc->set(float(q[0]), float(q[1]), float(q[2])) != 0;
          if (nearest) {
            // Labels pass exactly, in their own type.
            if (inside) {
              eval->evalNative(loc.get(), native);
              std::memcpy(outData + n * elem, native, elem);
            }
          } else {
            float v = 0;
            if (inside)
              eval->eval(loc.get(), &v);
            out->lattice.setValue(n, double(v));
          }
        }
      const int done = ++slicesDone;
      if (wa->wasInterrupted())
        failed = true;
      else if (omp_get_thread_num() == 0)
        wa->setProgressValue(float(done) / float(dims[2]));
    }
  }
  if (failed) {
    error = "interrupted";
    return nullptr;
  }
  return out.release();
}
