#include "ZrAffineRegistration.h"
#include <memory>

#include "QbPrimType.h"
#include "RegAffineFunctional.h"
#include "RegAffineFunctionalUniform.h"
#include "RegAffineTransform.h"
#include "RegCorrelationRatio.h"
#include "RegLabelDifference.h"
#include "RegMeanSquaredDifference.h"
#include "RegNormMutualInformation.h"
#include "RegSimpleMutualInformation.h"
#include "SbMatrixd.h"
#include "SbRotationd.h"
#include "SoDB.h"
#include "SoSensorManager.h"
#include "ZrCoord3.h"
#include "ZrObjectPool.h"
#include "ZrOptimizer.h"
#include "ZrRegScalarField3.h"
#include "ZrResample.h"
#include "ZrSettingsMgr.h"
#include "ZrUniformScalarField3.h"
#include "ZrWorkArea.h"

#include <cmath>
#include <cstdio>
#include <vector>

namespace {

ZrWorkArea* workArea() { return ZrWorkArea::getTheWorkArea(); }

ZrRegScalarField3* scalarField(const ZrVoxelRegistration::FieldArray& a, int i = 0) {
  return i < a.size() ? dynamic_cast<ZrRegScalarField3*>(a[i]) : nullptr;
}

// The node counts of a grid over the same box as one of d nodes, with
// `factor` times as many intervals along every axis that has more than one
// node.
void scaledGrid(const int d[3], double factor, int dims[3]) {
  for (int a = 0; a < 3; a++)
    dims[a] = d[a] > 1 ? std::max(2, (int)std::lround((d[a] - 1) * factor) + 1) : 1;
}

// Node positions of a lattice. A uniform lattice's positions separate by
// axis, so they come from three tables filled once through the coordinates'
// own pos(); other lattices ask pos() for each node.
class RegGridPositions {
public:
  explicit RegGridPositions(const ZrCoord3* coords) : coords(coords) {
    separable = coords->coordType() == ZR_COORD_UNIFORM;
    if (!separable)
      return;
    const int* dims = coords->getDims();
    for (int a = 0; a < 3; a++) {
      table[a].resize(dims[a]);
      for (int n = 0; n < dims[a]; n++) {
        const int idx[3] = {a == 0 ? n : 0, a == 1 ? n : 0, a == 2 ? n : 0};
        float p[3];
        coords->pos(idx[0], idx[1], idx[2], p);
        table[a][n] = p[a];
      }
    }
  }
  void pos(int i, int j, int k, float p[3]) const {
    if (separable) {
      p[0] = table[0][i];
      p[1] = table[1][j];
      p[2] = table[2][k];
    } else {
      coords->pos(i, j, k, p);
    }
  }

private:
  const ZrCoord3* coords;
  bool separable;
  std::vector<float> table[3];
};

} // namespace

// The sample grid of the principal-axes moments: every second node in each
// direction, starting at 0, k slowest. Hands each node's position and weight
// (its first component as a float, negative values as 0) to `visit`. At the
// start of each slice the bar shows k / nz and the user may stop the walk;
// false then.
template <class T, class Visit>
bool reg_evaluateWeightedSamples(const T* data, int nVar, const int* dims,
                                 const RegGridPositions& positions, Visit& visit) {
  const int nx = dims[0], ny = dims[1], nz = dims[2];
  ZrWorkArea* wa = workArea();
  for (int k = 0; k < nz; k += 2) {
    wa->setProgressValue((float)k / (float)nz);
    if (wa->wasInterrupted(1))
      return false;
    for (int j = 0; j < ny; j += 2) {
      const T* row = data + ((size_t)k * ny + j) * nx * nVar;
      for (int i = 0; i < nx; i += 2) {
        const float w = (float)row[(size_t)i * nVar];
        if (!(w > 0.0f))
          continue;
        float p[3];
        positions.pos(i, j, k, p);
        visit(p, (double)w);
      }
    }
  }
  return true;
}

namespace {

// Runs the sample walk for the field's voxel type. False when interrupted;
// a field of an unknown type has no samples.
template <class Visit> bool walkWeightedSamples(ZrRegScalarField3* field, Visit& visit) {
  RegGridPositions positions(field->lattice.coords());
  const void* data = field->lattice.dataPtr();
  const int nVar = field->nDataVar();
  const int* dims = field->getDims();
  bool completed = true;
  qbDispatchVoxelType(field->primType(), [&](auto t) {
    typedef decltype(t) T;
    completed =
        reg_evaluateWeightedSamples<T>(static_cast<const T*>(data), nVar, dims, positions, visit);
  });
  return completed;
}

// Whether every field of `level` is a uniform scalar field that `fits`.
template <class Fits> bool allUniform(const ZrVoxelRegistration::FieldArray& level, Fits&& fits) {
  for (int r = 0; r < level.size(); r++) {
    ZrRegScalarField3* field = scalarField(level, r);
    if (!field || field->lattice.coords()->coordType() != ZR_COORD_UNIFORM || !fits(field))
      return false;
  }
  return true;
}

// make(field r) for every field of `level`, hidden in the pool and appended
// to `out`. If one is not made, all are taken back out and false returned.
template <class Make>
bool poolEach(const ZrVoxelRegistration::FieldArray& level, ZrVoxelRegistration::FieldArray& out,
              Make&& make) {
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  for (int r = 0; r < level.size(); r++) {
    ZrRegScalarField3* made = make(r, scalarField(level, r));
    if (!made)
      break;
    made->hideIcon();
    pool->addObject(made);
    out.append(made);
  }
  if (out.size() == level.size())
    return true;
  for (ZrSpatialData* f : out)
    pool->removeObject(f);
  out.clear();
  return false;
}

} // namespace

QB_TYPE_SOURCE(ZrAffineRegistration, ZrCompModule, ZrAffineRegistration::createInstance)

QbInterfaceOwner* ZrAffineRegistration::createInstance() { return new ZrAffineRegistration; }

ZrAffineRegistration::ZrAffineRegistration()
    : portReference2(this, "reference2", ZrRegScalarField3::getClassTypeId()),
      portReference3(this, "reference3", ZrRegScalarField3::getClassTypeId()),
      portTransform(this, "transform", 4), portRegister(this, "register", 2),
      portRefineFinest(this, "refineFinest", 1) {
  portAction.setLabel("Action:");
  portAction.setLabel(0, "Align centers");
  portAction.setLabel(1, "Align principal axes");
  portAction.setLabel(2, "Register");

  portRegister.setLabel(0, "2D");
  portRegister.setLabel(1, "3D");
  portRegister.setValue(1);

  portTransform.setLabel(0, "Rigid");
  portTransform.setLabel(1, "Iso-");
  portTransform.setLabel(2, "Aniso-Scale");
  portTransform.setLabel(3, "Shear");
  portTransform.setValue(0, 1);
  portTransform.setValue(1, 0);
  portTransform.setValue(2, 0);
  portTransform.setValue(3, 0);

  portRefineFinest.setLabel(0, "Refine on sparse finest resolution");
  portRefineFinest.setValue(0, 0);
  portRefineFinest.hide();

  movePort(&portExtendedOptions, 990);
  movePort(&portAction, 1000);
}

ZrAffineRegistration::~ZrAffineRegistration() {
  delete dofList;
  dofList = nullptr;
}

// ---------------------------------------------------------------------------
// Actions
// ---------------------------------------------------------------------------

void ZrAffineRegistration::compute() {
  if (computing)
    return;
  const int threads = ZrSettingsMgr::getInstance()->getNumThreads();
  numThreads = threads != 0 ? threads : 1;
  computing = 1;

  ZrSpatialData* ref = references.isEmpty() ? nullptr : references[0];

  // Several buttons pressed at once run in this order.
  if (portAction.wasHit(0) && !models.isEmpty() && ref)
    alignCenters();

  if (portAction.wasHit(1)) {
    interrupted = false;
    // The button is sensitive only with both inputs; a program may still
    // press it without them, and then there is nothing to align.
    if (ref && !models.isEmpty() && !alignPrincipalAxes())
      return; // the lattices do not fit; the action has ended compute()
  }

  if (portAction.wasHit(2)) {
    interrupted = false;
    workArea()->startWorking("Starting registration");
    doRegistration();
    workArea()->stopWorking();
  }

  delete transform;
  transform = nullptr;
  computing = 0;
}

void ZrAffineRegistration::alignCenters() {
  ZrWorkArea* wa = workArea();
  wa->startWorking(" ");
  ZrRegScalarField3* ref = scalarField(references);
  ZrRegScalarField3* model = scalarField(models);
  if (ref && model) {
    const SbVec3d cr = computeCenter(ref, 1);
    const SbVec3d cm = computeCenter(model, 2);
    SbMatrixd T;
    T.setTranslate(cr - cm);
    SbMatrixd M;
    model->getTransform(M);
    model->setTransform(T * M);
    model->fire(1);
  }
  wa->stopWorking();
}

SbVec3d ZrAffineRegistration::computeCenter(ZrRegScalarField3* field, int which) {
  SbVec3d center(0, 0, 0);
  ZrWorkArea* wa = workArea();
  if (wa->wasInterrupted(1) || !field)
    return center;
  wa->setProgressInfo(which == 1 ? "Computing center of reference ..."
                                 : "Computing center of model ...");
  double sum = 0.0;
  auto visit = [&](const float* p, double w) {
    center.x += p[0] * w;
    center.y += p[1] * w;
    center.z += p[2] * w;
    sum += w;
  };
  // An interrupted walk returns what has been summed so far, normalised.
  walkWeightedSamples(field, visit);
  if (sum != 0.0)
    center /= sum;
  return center;
}

QbMat3d ZrAffineRegistration::computePrincipalAxes(ZrRegScalarField3* field, SbVec3d& center,
                                                   int which) {
  ZrWorkArea* wa = workArea();
  if (wa->wasInterrupted(1) || !field)
    return QbMat3d();
  center = computeCenter(field, which);
  wa->setProgressInfo(which == 1 ? "Computing principal axes of reference ..."
                                 : "Computing principal axes of model ...");

  // Inertia tensor of the sample offsets from the centre.
  double t00 = 0, t11 = 0, t22 = 0, t01 = 0, t02 = 0, t12 = 0;
  const double cx = center.x, cy = center.y, cz = center.z;
  auto visit = [&](const float* p, double w) {
    const double dx = p[0] - cx, dy = p[1] - cy, dz = p[2] - cz;
    t00 += (dy * dy + dz * dz) * w;
    t11 += (dx * dx + dz * dz) * w;
    t22 += (dx * dx + dy * dy) * w;
    t01 -= dx * dy * w;
    t02 -= dx * dz * w;
    t12 -= dy * dz * w;
  };
  if (!walkWeightedSamples(field, visit))
    return QbMat3d();
  const QbMat3d tensor(t00, t01, t02, t01, t11, t12, t02, t12, t22);

  double values[3] = {0, 0, 0};
  QbMat3d vectors;
  tensor.eigenSystem(values, vectors);

  // Rank 0 is the largest eigenvalue; equal values take the solver's order.
  int rank[3];
  for (int i = 0; i < 3; i++) {
    rank[i] = 0;
    for (int j = 0; j < 3; j++)
      if (values[j] > values[i])
        rank[i]++;
  }
  for (int i = 0; i < 3; i++)
    for (int j = i + 1; j < 3; j++)
      if (values[i] == values[j])
        rank[j]++;

  QbMat3d axes;
  for (int i = 0; i < 3; i++)
    if (rank[i] >= 0 && rank[i] < 3)
      axes.setColumn(rank[i], vectors.getColumn(i));
  return axes;
}

void ZrAffineRegistration::rotateModelAroundPrincipalAxis(int axis, SbVec3d& center, QbMat3d& axes,
                                                          double angle) {
  if (axis < 0 || axis > 2)
    return;
  ZrSpatialData* model = models.isEmpty() ? nullptr : models[0];
  if (!model)
    return;
  SbVec3d dir;
  SbMatrixd R;
  ZrSpatialData* ref = references.isEmpty() ? nullptr : references[0];
  if (ref) {
    dir = SbVec3d(axes.getColumn(axis));
    ref->getTransform(R);
  } else {
    dir[axis] = 1.0;
  }
  SbVec3d worldDir, worldCenter;
  R.multDirMatrix(dir, worldDir);
  R.multVecMatrix(center, worldCenter);

  SbMatrixd rotation;
  rotation.setTransform(SbVec3d(0, 0, 0), SbRotationd(worldDir, angle), SbVec3d(1, 1, 1),
                        SbRotationd(), worldCenter);
  SbMatrixd M;
  model->getTransform(M);
  M.multRight(rotation);
  model->setTransform(M);
}

bool ZrAffineRegistration::alignPrincipalAxes() {
  ZrWorkArea* wa = workArea();
  wa->startWorking("Initializing ...");
  ZrRegScalarField3* ref = scalarField(references);
  ZrRegScalarField3* model = scalarField(models);
  if (!ref || !model) {
    wa->stopWorking();
    return true;
  }

  SbVec3d cr, cm;
  QbMat3d Ar = computePrincipalAxes(ref, cr, 1);
  QbMat3d Am = computePrincipalAxes(model, cm, 2);

  // Turn the model's first axis onto the reference's, then its second.
  const SbRotationd R1(SbVec3d(Am.getColumn(0)), SbVec3d(Ar.getColumn(0)));
  for (int c = 0; c < 3; c++) {
    SbVec3d v;
    R1.multVec(SbVec3d(Am.getColumn(c)), v);
    Am.setColumn(c, v);
  }
  const SbRotationd R2(SbVec3d(Am.getColumn(1)), SbVec3d(Ar.getColumn(1)));
  SbVec3d turned1, turned2;
  R1.multVec(cm, turned1);
  R2.multVec(turned1, turned2);

  SbMatrixd m1, m2, T, M;
  m1.setRotate(R1);
  m2.setRotate(R2);
  T.setTranslate(cr - turned2);
  model->getTransform(M);
  const SbMatrixd base = m1 * m2 * T * M;
  model->setTransform(base);
  SbMatrixd bestMatrix;
  model->getTransform(bestMatrix);

  if (dimensionMode == -1) {
    wa->stopWorking();
    computing = 0;
    return false;
  }

  // The test level: half the coarsest factors of a registration.
  QbVec3i factors;
  for (int i = 0; i < 3; i++)
    factors[i] = (int)std::ceil(portCoarsestResolution.getValue(i) / 2.0);
  LevelArray referenceLevels, modelLevels;
  doResampling(&referenceLevels, factors, &modelLevels);

  RegAffineFunctional* functional = nullptr;
  if (referenceLevels.size() > 0 && modelLevels.size() > 0 && referenceLevels.last().size() > 0 &&
      modelLevels.last().size() > 0) {
    FieldArray testReference, testModel;
    testReference.append(referenceLevels.last()[0]);
    testModel.append(modelLevels.last()[0]);
    // Only the coarsest level is used: the copies of the levels between it
    // and the inputs leave the pool now rather than linger there hidden.
    for (int l = 1; l + 1 < referenceLevels.size(); l++)
      for (ZrSpatialData* f : referenceLevels[l])
        if (f && references.index(f) < 0 && f != testReference[0])
          ZrObjectPool::getTheObjectPool()->removeObject(f);
    for (int l = 1; l + 1 < modelLevels.size(); l++)
      for (ZrSpatialData* f : modelLevels[l])
        if (f && models.index(f) < 0 && f != testModel[0])
          ZrObjectPool::getTheObjectPool()->removeObject(f);

    calculateMaxCoverage();
    RegFunctional* f = createFunctional(testReference, testModel, -1, -1);
    functional = dynamic_cast<RegAffineFunctional*>(f);
    if (!functional && f) {
      releaseLevel(f);
      delete f;
    }
  }

  if (functional) {
    wa->setProgressInfo("checking 24 alignments of principal axes");
    float bar = 0.0f;
    wa->setProgressValue(bar);
    double best = -1e20;
    bool stop = false;

    // Scores the model's present orientation; keeps it if it is strictly the
    // best so far, so the earliest of equal values wins.
    auto test = [&]() {
      RegAffineTransform t(references, model, 12);
      t.apply();
      functional->setTransform(&t);
      const double value = functional->evaluate();
      functional->setTransform(nullptr);
      if (value > best) {
        best = value;
        model->getTransform(bestMatrix);
      }
      bar += (float)(1.0 / 24.0);
      wa->setProgressValue(bar);
      if (wa->wasInterrupted(1))
        stop = true;
    };
    auto rot = [&](int axis, double angle) { rotateModelAroundPrincipalAxis(axis, cr, Ar, angle); };
    // The rotations add up on the model's present transform, so each inner
    // loop visits the total angles 0, 90, 270 and 540 degrees: all four
    // quarter turns about the second axis.
    const double h = 1.5707963267948966;
    double x = 0.0;
    for (int a = 0; a < 4 && !stop; a++, x += h) {
      rot(0, x);
      double y = 0.0;
      for (int b = 0; b < 4 && !stop; b++, y += h) {
        rot(1, y);
        test();
      }
    }
    if (!stop) {
      model->setTransform(base);
      rot(2, h);
      double y = 0.0;
      for (int b = 0; b < 4 && !stop; b++, y += h) {
        rot(1, y);
        test();
      }
    }
    if (!stop) {
      model->setTransform(base);
      rot(2, 4.71238898038469);
      double y = 0.0;
      for (int b = 0; b < 4 && !stop; b++, y += h) {
        rot(1, y);
        test();
      }
    }
    releaseLevel(functional);
    delete functional;
  }

  model->setTransform(bestMatrix);
  model->fire(1);
  SoDB::getSensorManager()->processQueues(1);
  wa->stopWorking();
  return true;
}

// ---------------------------------------------------------------------------
// Registration
// ---------------------------------------------------------------------------

void ZrAffineRegistration::discardLeftoverRun() {
  // A run that stopped in initRegistration() for want of a transform class
  // leaves its functionals and optimizer in place; they go before a new run
  // replaces them.
  if (functionals) {
    while (functionals->size() > 0) {
      RegFunctional* f = popFunctional();
      if (f) {
        releaseLevel(f);
        delete f;
      }
    }
    delete functionals;
    functionals = nullptr;
  }
  delete optimizer;
  optimizer = nullptr;
  delete dofList;
  dofList = nullptr;
}

int ZrAffineRegistration::initRegistration() {
  discardLeftoverRun();
  if (!transform)
    createTransform();
  if (dimensionMode < 0)
    return 0;

  if (dimensionMode == 3) {
    // "2D" on 3-D data: the thinnest axis of the reference is held flat for
    // this run. Value 2, which only a program can set, holds the motion to
    // the xy plane plus z translation.
    const int value = portRegister.getValue();
    if (value == 0) {
      ZrRegScalarField3* ref = scalarField(references);
      if (ref) {
        const int* d = ref->getDims();
        int axis = 0;
        if (d[1] < d[axis])
          axis = 1;
        if (d[2] < d[axis])
          axis = 2;
        dimensionMode = axis;
      }
    } else if (value == 2) {
      dimensionMode = 4;
    }
  }

  // The transform holds the flat axis of a planar run in every stage.
  if (RegAffineTransform* affine = dynamic_cast<RegAffineTransform*>(transform))
    affine->flatAxis = dimensionMode;

  if (!ZrVoxelRegistration::initRegistration())
    return 0;

  static const int dofOfToggle[4] = {6, 7, 9, 12};
  dofList = new QbDArray<int>;
  for (int i = 0; i < 4; i++)
    if (portTransform.getValue(i))
      dofList->append(dofOfToggle[i]);
  if (dofList->size() > 0) {
    dofList->append(-1);
    return 1;
  }
  // What the base made stays until the next run or the module's end.
  trace("Choose some class of registration!");
  return 0;
}

void ZrAffineRegistration::createTransform() {
  transform = new RegAffineTransform(references, models.isEmpty() ? nullptr : models[0], 12);
}

RegFunctional* ZrAffineRegistration::createFunctional(FieldArray& referenceLevel,
                                                      FieldArray& modelLevel, int, int) {
  const double refMin = portHistogramRangeRef.getValue(0);
  const double refMax = portHistogramRangeRef.getValue(1);
  const double modMin = portHistogramRangeMod.getValue(0);
  const double modMax = portHistogramRangeMod.getValue(1);
  ZrRegScalarField3* ref = scalarField(referenceLevel);
  ZrRegScalarField3* model = scalarField(modelLevel);
  const bool uniform = model && model->isOfType(ZrUniformScalarField3::getClassTypeId());
  // The histogram's voxel types come from the first channel.
  const QbPrimType refType = (QbPrimType)(ref ? ref->primType() : QB_FLOAT);
  const QbPrimType modType = (QbPrimType)(model ? model->primType() : QB_FLOAT);
  const int refBins = portHistogramBins.getValue(0);
  const int modBins = portHistogramBins.getValue(1);

  const int index = portMetric.getIndex(0);
  RegMetric* metric = nullptr;
  switch (index) {
  case 0: // "Normalized Mutual Information"
    metric = new RegNormMutualInformation(refType, modType, refMin, refMax, modMin, modMax, refBins,
                                          modBins, maxCoverage);
    break;
  case 1: // "Mutual Information"
    metric = new RegSimpleMutualInformation(refType, modType, refMin, refMax, modMin, modMax,
                                            refBins, modBins, maxCoverage);
    break;
  case 2: // "Euclidean"
    metric = new RegMeanSquaredDifference(1.0);
    break;
  case 3: // "Correlation"
    metric = new RegCorrelationRatio(refMin, refMax, modMin, modMax, maxCoverage);
    break;
  case 4: // "Label difference"
    metric = new RegLabelDifference(maxCoverage);
    break;
  default:
    return nullptr;
  }

  // A label model is sampled by partial volume: linear interpolation gives a
  // sample between two labels a number that is neither, which the histogram
  // counts as a label of its own, and four atlases resampled by nearest label
  // onto their own grid ended 0.14 to 0.41 mm off (elastix 0.10 to 0.16).
  // With partial volume, the finest level refined and the gradient search's
  // tolerance of grey images, 0.05 to 0.09 mm. The coarsest level of a 1 mm
  // head (below kPartialVolumeVoxels samples) keeps the interpolation: there
  // nearly every sample straddles labels, the walk costs most, and the four
  // atlases ended as close without it (0.052 to 0.092 mm, 0.056 to 0.096
  // with) in about 0.3 s less.
  if (auto* mi = dynamic_cast<RegMutualInformation*>(metric)) {
    const int* rd = ref ? ref->getDims() : nullptr;
    mi->partialVolume = rd && ZrResample::isLabelField(model) &&
                        (double)rd[0] * rd[1] * rd[2] >= kPartialVolumeVoxels;
  }
  if (uniform && index < 4 && refining)
    return new RegAffineFunctionalUniform(referenceLevel, modelLevel, interpolator, transform,
                                          metric, this, dimensionMode, (unsigned int)numThreads);
  if (uniform && index < 4) {
    FieldArray offGrid;
    const bool planarFinest = offGridReference(referenceLevel, offGrid);
    if (!planarFinest && offGridStart(referenceLevel, model, offGrid))
      return new RegAffineFunctionalUniform(offGrid, modelLevel, interpolator, transform, metric,
                                            this, dimensionMode, (unsigned int)numThreads);
    if (planarFinest) {
      // The model of that level is smoothed as the reference was (see
      // offGridReference); a label model is left as it is.
      FieldArray smoothModel;
      ZrRegScalarField3* smooth =
          ZrResample::isLabelField(model) ? nullptr : ZrResample::smoothGrey(model, kPlanarSigma);
      if (smooth) {
        smooth->hideIcon();
        ZrObjectPool::getTheObjectPool()->addObject(smooth);
        smoothModel.append(smooth);
      }
      return new RegAffineFunctionalUniform(offGrid, smooth ? smoothModel : modelLevel,
                                            interpolator, transform, metric, this, dimensionMode,
                                            (unsigned int)numThreads);
    }
    return new RegAffineFunctionalUniform(referenceLevel, modelLevel, interpolator, transform,
                                          metric, this, dimensionMode, (unsigned int)numThreads);
  }
  return new RegAffineFunctional(referenceLevel, modelLevel, interpolator, transform, metric, this,
                                 0, dimensionMode);
}

bool ZrAffineRegistration::inputGridsCoincide() {
  return gridsCoincide(scalarField(references, 0), scalarField(models, 0));
}

bool ZrAffineRegistration::gridsCoincide(ZrRegScalarField3* reference, ZrRegScalarField3* model) {
  if (!reference || !model || reference->lattice.coords()->coordType() != ZR_COORD_UNIFORM ||
      model->lattice.coords()->coordType() != ZR_COORD_UNIFORM)
    return false;
  const int* dr = reference->getDims();
  const int* dm = model->getDims();
  float br[6], bm[6];
  reference->getBoundingBox(br);
  model->getBoundingBox(bm);
  SbMatrixd tr, tm;
  reference->getTransform(tr);
  model->getTransform(tm);
  const SbMatrixd toModel = tm.inverse();
  // Reference node (i, j, k) in model node coordinates.
  auto modelNode = [&](const double i[3], double out[3]) {
    SbVec3d local, world, m;
    for (int a = 0; a < 3; a++)
      local[a] = br[2 * a] + (dr[a] > 1 ? i[a] * (br[2 * a + 1] - br[2 * a]) / (dr[a] - 1) : 0.0);
    tr.multVecMatrix(local, world);
    toModel.multVecMatrix(world, m);
    for (int a = 0; a < 3; a++)
      out[a] = (m[a] - bm[2 * a]) / (dm[a] > 1 ? (bm[2 * a + 1] - bm[2 * a]) / (dm[a] - 1) : 1.0);
  };
  auto whole = [](double v, double tol) { return std::fabs(v - std::round(v)) <= tol; };
  const double zero[3] = {0, 0, 0};
  double origin[3];
  modelNode(zero, origin);
  for (int b = 0; b < 3; b++)
    if (!whole(origin[b], 1e-3))
      return false;
  // Each reference axis steps one model node along one model axis, either
  // way: the same grid, shifted by whole nodes, its axes perhaps swapped or
  // reversed.
  for (int a = 0; a < 3; a++) {
    if (dr[a] < 2)
      continue;
    double step[3] = {0, 0, 0}, next[3];
    step[a] = 1;
    modelNode(step, next);
    int ones = 0;
    for (int b = 0; b < 3; b++) {
      const double d = std::fabs(next[b] - origin[b]);
      if (std::fabs(d - 1.0) <= 1e-4)
        ones++;
      else if (d > 1e-4)
        return false;
    }
    if (ones != 1)
      return false;
  }
  return true;
}

bool ZrAffineRegistration::offGridStart(FieldArray& referenceLevel, ZrRegScalarField3* model,
                                        FieldArray& offGrid) {
  // Where the reference's nodes start on the model's (two images on one
  // grid, perhaps shifted by whole voxels, and then every level of their
  // pyramids, reduced alike), the samples at no motion, or a whole-voxel
  // shift, hit model nodes and see the model unblurred, and every other
  // motion sees it blurred by the linear interpolation at most samples. The
  // mutual information then has a peak at the start and pulls towards it:
  // - A label image suffers most: a sample between two labels gives a
  //   number that is neither, which the joint histogram counts as a label
  //   of its own. An atlas resampled onto its own grid through a rotation,
  //   a scale per axis and a 6 mm shift stayed where it started, 10 mm off.
  // - A grey image is pulled part of the way: heads resampled onto their own
  //   grid through motions of about a millimetre and half a degree ended
  //   0.06 to 0.13 mm off, where elastix ends 0.02 to 0.04.
  // The reference is therefore taken on a grid a tenth coarser: its nodes
  // then fall at every fraction of a model voxel, whatever the motion, so the
  // blur no longer depends on it (the atlas now ends 0.19 mm off, the heads
  // 0.025 to 0.034). Labels are taken by their nearest label (a label image
  // is constant between its nodes), grey values through the resampling's
  // triangle filter. The walk has 0.73 times the samples. A grid a tenth
  // finer took 1.3 to 1.6 times the time and left the small motions farther
  // off (0.044 to 0.060 mm), the atlas closer (0.07 mm).
  if (!model || referenceLevel.size() == 0 || !inputGridsCoincide())
    return false;
  const bool labels = ZrResample::isLabelField(model);
  // Grey images only where the finest level is left out: where it is
  // optimised it carries the most samples, and a small image misses the
  // tenth of them (32^3 phantoms ended 0.10 to 0.20 voxels off instead of
  // within 0.1).
  if (!labels && !ignoreFinest)
    return false;
  if (!allUniform(referenceLevel,
                  [&](ZrRegScalarField3* f) { return ZrResample::isLabelField(f) == labels; }))
    return false;
  const bool made = poolEach(referenceLevel, offGrid, [&](int r, ZrRegScalarField3* field) {
    int dims[3];
    scaledGrid(field->getDims(), kStartGridFactor, dims);
    if (labels) {
      // Taken from the input, the nearest label is at most half an input
      // voxel away rather than half a voxel of the level (on the atlas,
      // 0.23 mm off instead of 0.33), where the level spans the input's box.
      ZrRegScalarField3* source = field;
      if (ZrRegScalarField3* input = scalarField(references, r)) {
        float bl[6], bi[6];
        field->getBoundingBox(bl);
        input->getBoundingBox(bi);
        bool sameBox = true;
        for (int e = 0; e < 6; e++)
          sameBox = sameBox && std::fabs(bl[e] - bi[e]) <= 1e-4f * (1.0f + std::fabs(bi[e]));
        if (sameBox && ZrResample::isLabelField(input))
          source = input;
      }
      return ZrResample::resampleLabelsNearest(source, dims);
    }
    return ZrResample::resampleGrey(field, dims, ZrResample::FILTER_TRIANGLE);
  });
  if (!made)
    return false;
  // The functional holds the new grids only; the reduced copies of this
  // level would otherwise stay in the pool until the program ends.
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  for (int r = 0; r < referenceLevel.size(); r++) {
    ZrSpatialData* field = referenceLevel[r];
    if (field && references.index(field) < 0) {
      pool->removeObject(field);
      referenceLevel[r] = nullptr;
    }
  }
  return true;
}

bool ZrAffineRegistration::offGridReference(const FieldArray& referenceLevel, FieldArray& offGrid) {
  // Samples taken on the reference's own voxel centres see the model
  // unblurred wherever the motion is a whole number of voxels and blurred
  // by the linear interpolation in between; the mutual information then
  // pulls a shift towards whole voxels (0.02 pixels on a real slice). On a
  // grid finer by an irrational factor the samples fall at every fraction of
  // a model voxel whatever the shift, and most of the pull goes (0.012 to
  // 0.009 pixels off on that slice, 0.003 to 0.001 on a rotated one). The
  // reference is interpolated linearly: a sharper interpolation took the
  // shifted slice further (0.006) but a scaled one farther off. This costs
  // twice the samples of the level, which only the optimised finest level
  // of a planar run can afford; label references keep their grid, a
  // resampled label being no label.
  //
  // Both images of that level are first smoothed by a Gaussian of half a
  // voxel, as the levels above are by their reduction: linear interpolation
  // of a smooth image is nearly exact, so the blur it adds no longer depends
  // on the shift, and most of the rest of the pull goes. On eleven real
  // slices with known shifts, rotations and scales the mean error fell from
  // 0.0058 to 0.0053 pixels (a whole-voxel-pulled shift from 0.0091 to
  // 0.0060); a wider Gaussian (0.7) helped pure shifts more and rotated
  // slices less.
  if (dimensionMode < 0 || dimensionMode > 2 || ignoreFinest || referenceLevel.size() == 0)
    return false;
  if (!allUniform(referenceLevel, [&](ZrRegScalarField3* f) {
        return references.index(f) >= 0 && !ZrResample::isLabelField(f);
      }))
    return false;
  return poolEach(referenceLevel, offGrid, [&](int, ZrRegScalarField3* field) {
    int dims[3];
    scaledGrid(field->getDims(), M_SQRT2, dims);
    std::unique_ptr<ZrRegScalarField3> smooth(ZrResample::smoothGrey(field, kPlanarSigma));
    return ZrResample::resampleGrey(smooth ? smooth.get() : field, dims,
                                    ZrResample::FILTER_TRIANGLE);
  });
}

bool ZrAffineRegistration::refinesFinest() {
  // Label images are refined too, as long as all inputs are labels or all
  // grey: with their models sampled by partial volume (createFunctional) the
  // refinement (with the tolerance zrreg gives grey images) takes atlases
  // resampled onto their own grid from 0.11 to 0.14 mm off to 0.05 to 0.09,
  // and those with moved headers end within 0.003.
  // Interpolated linearly, the refinement had taken a cortical atlas from
  // 0.005 to 0.35 mm off.
  if (!ignoreFinest || !portRefineFinest.getValue(0) || references.size() == 0 ||
      models.size() == 0)
    return false;
  ZrRegScalarField3* first = scalarField(models);
  const bool labels = first && ZrResample::isLabelField(first);
  auto same = [&](ZrRegScalarField3* f) { return ZrResample::isLabelField(f) == labels; };
  return allUniform(references, same) && allUniform(models, same);
}

RegFunctional* ZrAffineRegistration::finestRefinement(RegFunctional* finest) {
  // The levels above the finest leave a head a few hundredths of a
  // millimetre off, where the finest level would take it closer at eight
  // times their cost for every evaluation. Every second node of the
  // reference along each axis, as it is, keeps most of what the finest level
  // adds for an eighth of the cost: on nine heads at 1 mm moved by small
  // motions, scales and rotations the last stage run on it ended 0.002 to
  // 0.020 mm off instead of 0.004 to 0.030, and a 0.5 mm head onto a 1 mm
  // one 0.013 instead of 0.038, in about the same time where the searches
  // end at a looser tolerance (a fifth more for the 0.5 mm head). Nodes
  // interpolated on a grid of not quite twice the spacing ended farther off
  // on six of the nine (up to 0.025), and so did a model brought to the
  // reference's voxel size (the 0.5 mm head 0.035).
  //
  // The level above runs its last stage only: the level above it ran them
  // all, and the refinement follows (on the heads a sixth less time, the
  // error as close).
  if (!finest || finest->references.size() == 0 || finest->models.size() == 0)
    return nullptr;
  if (!refinesFinest())
    return nullptr;
  FieldArray sparse;
  if (!poolEach(finest->references, sparse, [&](int, ZrRegScalarField3* field) {
        const int steps[3] = {2, 2, 2};
        return ZrResample::subsample(field, steps);
      }))
    return nullptr;
  FieldArray models = finest->models;
  refining = true;
  RegFunctional* functional = createFunctional(sparse, models, -1, -1);
  if (!functional) {
    ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
    for (ZrSpatialData* f : sparse)
      pool->removeObject(f);
    refining = false;
  }
  return functional;
}

void ZrAffineRegistration::enterResolution(int level, int numLevels, RegFunctional* functional) {
  // With the finest level refined, the refinement runs the last stage only,
  // and so does the level above it where a level above that ran them all
  // (see finestRefinement); the progress counts the stages run.
  const bool refines = numLevels > 1 && refinesFinest();
  const int stages = dofList ? dofList->size() - 1 : 1;
  auto stagesOf = [&](int l) {
    return refines && (l == numLevels - 1 || (l == numLevels - 2 && l > 0)) ? 1 : stages;
  };
  if (dofList && dofIndex < dofList->size() && (*dofList)[dofIndex] < 0)
    dofIndex = stagesOf(level) < stages ? std::max(0, dofList->size() - 2) : 0;
  if (!optimizer)
    return;
  const int levels = ignoreFinest == 1 && numLevels > 1 && !refines ? numLevels - 1 : numLevels;
  int before = 0, total = 0;
  for (int l = 0; l < levels; l++) {
    before += l < level ? stagesOf(l) : 0;
    total += stagesOf(l);
  }
  optimizer->setProgressLevel(level, levels, before, total);
}

void ZrAffineRegistration::doResolution(int level, int numLevels, RegFunctional* functional,
                                        double startStep, double endStep) {
  enterResolution(level, numLevels, functional);
  for (;;) {
    RegAffineTransform* affine = dynamic_cast<RegAffineTransform*>(transform);
    if (affine && dofList && dofIndex < dofList->size()) {
      const int dof = (*dofList)[dofIndex];
      affine->setDegreesOfFreedom(dof);
      workArea()->setProgressInfo("Registering at resolution level %d out of %d (DOF = %d)",
                                  level + 1, numLevels, dof);
    }
    optimizer->optimize(startStep, endStep);
    if (workArea()->wasInterrupted(1)) {
      releaseLevel(functional);
      delete functional;
      doneRegistration();
      return;
    }
    if (doneResolution(level, numLevels))
      return;
  }
}

int ZrAffineRegistration::doneResolution(int level, int numLevels) {
  if (optimizer)
    optimizer->progressStep++;
  dofIndex++;
  // Without a list a level is a single stage.
  if (!dofList || dofIndex >= dofList->size())
    return 1;
  return (*dofList)[dofIndex] < 0 ? 1 : 0;
}

void ZrAffineRegistration::doneRegistration() {
  refining = false;
  applyTransform(nullptr);
  delete dofList;
  dofList = nullptr;
  dofIndex = 0;
  ZrVoxelRegistration::doneRegistration();
}

bool ZrAffineRegistration::applyTransform(RegParametricTransform*) {
  // The argument is ignored: the module's own transform is what the model
  // shows. The parameters are composed and written first: the model would
  // otherwise keep the matrix of the last point evaluated, which after a
  // search is a probe beside the optimum rather than the optimum itself.
  if (RegAffineTransform* affine = dynamic_cast<RegAffineTransform*>(transform)) {
    affine->apply();
    affine->update();
  }
  return checkForInterrupt();
}

bool ZrAffineRegistration::checkForInterrupt() {
  if (interrupted)
    return true;
  if (!progressCallback)
    return false;
  bool flag = false;
  progressCallback(workArea()->getProgressValue() * 100.0f, flag);
  interrupted = flag;
  return flag;
}

int ZrAffineRegistration::setProgressCallback(ProgressCallback callback) {
  progressCallback = callback;
  return 1;
}

void ZrAffineRegistration::setPassExceptions(bool pass) { passExceptions = pass; }

// ---------------------------------------------------------------------------
// Inputs
// ---------------------------------------------------------------------------

void ZrAffineRegistration::updateReference() {
  if (portReference.isNew()) {
    references.clear();
    if (ZrRegScalarField3* field = portReference.source<ZrRegScalarField3>())
      references.append(field);
  }
  if (!references.isEmpty()) {
    references.resize(1);
    // The third channel counts only behind a second one.
    if (ZrRegScalarField3* second = portReference2.source<ZrRegScalarField3>()) {
      references.append(second);
      if (ZrRegScalarField3* third = portReference3.source<ZrRegScalarField3>())
        references.append(third);
    }
  }
  if (!portReference.isNew() && !portReference2.isNew() && !portReference3.isNew())
    return;
  if (references.size() >= 2) {
    // Several channels: isotropic coarsest factors and a small first step.
    portOptions2.setValue(0, 1);
    int largest = portCoarsestResolution.getValue(0);
    for (int i = 1; i < 3; i++)
      if (portCoarsestResolution.getValue(i) > largest)
        largest = portCoarsestResolution.getValue(i);
    for (int i = 0; i < 3; i++) {
      portCoarsestResolution.setMinMax(i, 1, 16);
      portCoarsestResolution.setValue(i, largest);
    }
    portStep.setValue(0, 1.0f);
  } else {
    portOptions2.setValue(0, 0);
  }
}

void ZrAffineRegistration::update() {
  updateReference();
  ZrRegScalarField3* ref = scalarField(references);

  const bool modelNew = portData.isNew();
  if (modelNew) {
    models.clear();
    if (ZrRegScalarField3* field = portData.source<ZrRegScalarField3>())
      models.append(field);
  }

  ZrRegScalarField3* model = scalarField(models);
  if ((modelNew || portReference.isNew()) && ref && model) {
    // Flat data is registered in its plane.
    const int* dr = ref->getDims();
    const int* dm = model->getDims();
    bool flat = false;
    for (int i = 0; i < 3; i++)
      flat = flat || dr[i] == 1 || dm[i] == 1;
    portRegister.setValue(flat ? 0 : 1);
    portAction.setSensitivity(1, 1);
    // A transform read from the former inputs no longer applies.
    delete transform;
    transform = nullptr;
  }

  const int sensitive = (ref && model) ? 1 : 0;
  for (int i = 0; i < 3; i++)
    portAction.setSensitivity(i, sensitive);

  samplingFactor = 2;
  ZrVoxelRegistration::update();

  // Centre and axis alignment work on one reference only.
  if (references.size() > 1) {
    portAction.setSensitivity(0, 0);
    portAction.setSensitivity(1, 0);
  }

  if (!portExtendedOptions.getValue(0)) {
    portOptions.hide();
    portRegister.hide();
  } else {
    portRegister.show();
  }
}

void myProgressCallback2(float progress, bool& stop) {
  std::printf("\n *** myProgressCallback2: progress = %f *** \n", progress);
  stop = false;
}
