#include "ZrElasticRegistration.h"

#include "QbBox3f.h"
#include "QbPrimType.h"
#include "RegCorrelationRatio.h"
#include "RegElasticAnalyticGradient.h"
#include "RegElasticFunctional.h"
#include "RegElasticFunctionalRegular.h"
#include "RegFunctional.h"
#include "RegLabelDifference.h"
#include "RegMeanSquaredDifference.h"
#include "RegNormMutualInformation.h"
#include "RegSimpleMutualInformation.h"
#include "RegSplineOutput.h"
#include "RegVoxelCubicSplineTransform.h"
#include "SoDB.h"
#include "SoSensorManager.h"
#include "ZrFieldEvaluator.h"
#include "ZrLandmarkSet.h"
#include "ZrLimitedMemoryOptimizer.h"
#include "ZrMessage.h"
#include "ZrObjectPool.h"
#include "ZrOptimizer.h"
#include "ZrRegScalarField3.h"
#include "ZrRegVectorField3.h"
#include "ZrSettingsMgr.h"
#include "ZrWorkArea.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>

namespace {

ZrRegScalarField3* scalarField(const ZrVoxelRegistration::FieldArray& a) {
  return a.isEmpty() ? nullptr : dynamic_cast<ZrRegScalarField3*>(a[0]);
}

ZrObjectPool* pool() { return ZrObjectPool::getTheObjectPool(); }

} // namespace

QB_TYPE_SOURCE(ZrElasticRegistration, ZrCompModule, ZrElasticRegistration::createInstance)

QbInterfaceOwner* ZrElasticRegistration::createInstance() { return new ZrElasticRegistration; }

ZrElasticRegistration::ZrElasticRegistration()
    : portResult(this, "result", 3), portAboveThreshold(this, "aboveThreshold", 1),
      portStatistics(this, "statistics"), portStatistics2(this, "statistics2"),
      portControlPoints(this, "controlPoints", ZrLandmarkSet::getClassTypeId()),
      portInitialGridSize(this, "initialGridSize", 3), portRefineGrid(this, "refineGrid", 1),
      portRegularization(this, "regularization", 4),
      portLandmarks(this, "landmarks", ZrLandmarkSet::getClassTypeId()),
      portGradient(this, "gradient", 1) {
  portAction.setLabel("Action:");
  portAction.setLabel(0, "Register");
  portAction.setLabel(1, "Apply transform");
  portAction.setLabel(2, "Control points");
  // "Apply transform" carries a snap toggle: snapped, every run of the module
  // shows the warped model. It starts released.
  portAction.setSnap(1, false);
  for (int i = 0; i < 3; i++)
    portAction.setSensitivity(i, 0);

  portResult.setLabel(0, "Save transform");
  portResult.setLabel(1, "Vector field");
  portResult.setLabel(2, "Validate");
  portResult.setSensitivity(2, 0);
  portResult.hide();

  // Landmarks farther than this from their targets count as missed. Shown
  // with the validation.
  portAboveThreshold.setValue(0, 0.5f);
  portAboveThreshold.hide();
  portStatistics.hide();
  portStatistics2.hide();

  portInitialGridSize.setLabel("Initial grid size");
  portInitialGridSize.setLabel(0, "x:");
  portInitialGridSize.setLabel(1, "y:");
  portInitialGridSize.setLabel(2, "z:");
  portInitialGridSize.setValue(4);
  portInitialGridSize.setMinMax(4, INT_MAX);

  portRefineGrid.setLabel("Refine grid n times");
  portRefineGrid.setValue(0, 3);
  portRefineGrid.setMinMax(0, 0, 10);

  portRegularization.setLabel("Regularization");
  portRegularization.setLabel(0, "Jacobian constraint:");
  portRegularization.setLabel(1, "Grid energy:");
  portRegularization.setLabel(2, "Landmarks:");
  portRegularization.setLabel(3, "Gaussian smoothing");
  for (int i = 0; i < 4; i++)
    portRegularization.setValue(i, 0.0f);
  portRegularization.setMinMax(3, 0.0f, 10.0f);
  // The landmark weight counts only with landmarks connected.
  portRegularization.setSensitivity(2, 0);
  portRegularization.setSensitivity(3, 0);

  portGradient.setLabel("Gradient:");
  portGradient.setNum(0, 2);
  portGradient.setLabel(0, 0, "Finite differences");
  portGradient.setLabel(0, 1, "Analytic");
  portGradient.setIndex(0, 0);
  portGradient.hide();

  portOptions.setNum(2);
  portOptions.setLabel(1, "Fix control points in low entropy regions");
  portOptions.setValue(1, 0);
  portOptions2.setNum(2);
  portOptions2.setLabel(1, "Fast mode");
  portOptions2.setValue(1, 0);
  portOptions2.setSensitivity(0, 0);
  portOptions2.hide();

  // The direction searches of the affine path move one parameter at a time,
  // which is hopeless for thousands of control-point coordinates.
  portOptimizer.setIndex(0, 4);
  portOptimizer.setItemSensitivity(0, 0, 0);
  portOptimizer.setItemSensitivity(0, 1, 0);

  samplingFactor = 2;
}

ZrElasticRegistration::~ZrElasticRegistration() {
  delete transform;
  transform = nullptr;
  splineTransform = nullptr;
  if (transformedLandmarks)
    transformedLandmarks->unref();
  transformedLandmarks = nullptr;
}

// ---------------------------------------------------------------------------
// Planning
// ---------------------------------------------------------------------------

int ZrElasticRegistration::computeFinalGridSize(int axis) {
  int v = portInitialGridSize.getValue(axis);
  for (int i = 0; i < portRefineGrid.getValue(0); i++)
    v = 2 * v - 3;
  return v;
}

void ZrElasticRegistration::planRefinements(QbDArray<int>& plan, int numLevels, int refinements) {
  plan.resize(numLevels > 0 ? numLevels : 0);
  for (int i = 0; i < plan.size(); i++)
    plan[i] = 0;
  if (numLevels <= 0)
    return;
  int left = refinements;
  // The first round gives one refinement to every level but the finest, so
  // that a lattice refined there is optimised on finer data afterwards.
  for (int i = 0; i < numLevels - 1 && left > 0; i++, left--)
    plan[i]++;
  // Later rounds go from the coarsest level towards the finest in steps of
  // two levels: three levels and four refinements give 2, 1, 1, the coarse
  // levels doing most of the work where it is cheap.
  while (left > 0)
    for (int i = 0; i < numLevels && left > 0; i += 2, left--)
      plan[i]++;
}

// ---------------------------------------------------------------------------
// Transform and functionals
// ---------------------------------------------------------------------------

void ZrElasticRegistration::createTransform() {
  ZrRegScalarField3* R = scalarField(references);
  ZrRegScalarField3* M = scalarField(models);
  if (!R || !M)
    return;
  splineTransform = new RegVoxelCubicSplineTransform(dimensionMode, portOptions2.getValue(1) != 0);
  transform = splineTransform;

  splineTransform->setModel(M);
  gridSize[0] = portInitialGridSize.getValue(0);
  gridSize[1] = portInitialGridSize.getValue(1);
  gridSize[2] = dimensionMode == 3 ? portInitialGridSize.getValue(2) : 1;
  splineTransform->setControlGridSize(gridSize[0], gridSize[1], gridSize[2]);

  // The box of a run from the start: the reference and its landmarks, with
  // the margin that initRegistration gives, so that a lattice made or
  // connected now is the lattice the run starts from.
  QbBox3f box = R->getBoundingBox();
  const int* dims = R->getDims();
  for (int a = 0; a < 3; a++)
    voxelSize[a] = dims[a] > 1 ? (box[2 * a + 1] - box[2 * a]) / (float)(dims[a] - 1) : 0.0f;
  if (landmarks && landmarks->getNumSets() > 1) {
    const QbVec3f* c = landmarks->getCoords(1);
    for (int i = 0; i < landmarks->getNumMarkers(); i++)
      for (int a = 0; a < 3; a++) {
        box[2 * a] = std::min(box[2 * a], c[i][a]);
        box[2 * a + 1] = std::max(box[2 * a + 1], c[i][a]);
      }
  }
  splineTransform->updateInterpolatedSpaceBoundary(box);
  float margin[3];
  runMargin(margin);
  splineTransform->correctInterpolatedSpaceBoundary(margin);
  splineTransform->getGridSpacing();

  if (controlPointSet) {
    // A set of another size than the lattice is refused: no transform.
    if (!splineTransform->setControlPoints(controlPointSet)) {
      delete transform;
      transform = nullptr;
      splineTransform = nullptr;
      return;
    }
  } else {
    controlPointSet = splineTransform->createControlPoints(nullptr);
    controlPointSet->setName("Control-points");
    pool()->addObject(controlPointSet);
    controlPointSet->hideIcon();
  }
  splineTransform->setReference(R);
  splineTransform->precomputeInterpolants();
}

void ZrElasticRegistration::runMargin(float margin[3]) const {
  // A margin of one voxel keeps transformed voxels off the very edge of the
  // spline's support; without landmarks the margin is three voxels.
  for (int a = 0; a < 3; a++)
    margin[a] = landmarks ? voxelSize[a] : voxelSize[a] * 3.0f;
}

void ZrElasticRegistration::discardTransform() {
  delete transform;
  transform = nullptr;
  splineTransform = nullptr;
  // A set that this module made belongs to the lattice just discarded; the
  // next transform starts from a lattice at rest of the initial size.
  if (controlPointSet && portControlPoints.getSource() != controlPointSet) {
    if (controlPointSet->isInPool())
      pool()->removeObject(controlPointSet);
    controlPointSet = nullptr;
  }
}

RegFunctional* ZrElasticRegistration::createFunctional(FieldArray& referenceLevel,
                                                       FieldArray& modelLevel, int, int) {
  ZrRegScalarField3* M0 = scalarField(models);
  if (!M0 || !M0->lattice.coords())
    return nullptr;
  const double refMin = portHistogramRangeRef.getValue(0);
  const double refMax = portHistogramRangeRef.getValue(1);
  const double modMin = portHistogramRangeMod.getValue(0);
  const double modMax = portHistogramRangeMod.getValue(1);
  ZrRegScalarField3* ref = scalarField(referenceLevel);
  ZrRegScalarField3* model = scalarField(modelLevel);
  const QbPrimType refType = (QbPrimType)(ref ? ref->primType() : QB_FLOAT);
  const QbPrimType modType = (QbPrimType)(model ? model->primType() : QB_FLOAT);
  const int refBins = portHistogramBins.getValue(0);
  const int modBins = portHistogramBins.getValue(1);
  const ZrRegScalarField3* shape = model ? model : M0;
  const bool uniform = shape->lattice.coords()->coordType() == ZR_COORD_UNIFORM;

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
    metric = new RegMeanSquaredDifference(maxCoverage);
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

  const bool fixLowEntropy = portOptions.getValue(1) != 0;
  RegElasticFunctional* f = nullptr;
  // The correlation ratio has no sampler of the regular-grid path.
  if (uniform && index != 3)
    f = new RegElasticFunctionalRegular(referenceLevel, modelLevel, interpolator, transform, metric,
                                        this, modelClass, landmarks, fixLowEntropy);
  else
    f = new RegElasticFunctional(referenceLevel, modelLevel, interpolator, transform, metric, this,
                                 modelClass, landmarks, fixLowEntropy);
  f->gradientMethod = portGradient.getIndex(0);
  return f;
}

// ---------------------------------------------------------------------------
// The run
// ---------------------------------------------------------------------------

int ZrElasticRegistration::finestStride(const int* dims, int64_t points) {
  auto samples = [&](int stride) {
    int64_t n = 1;
    for (int a = 0; a < 3; a++)
      n *= (dims[a] + stride - 1) / stride;
    return n;
  };
  if (samples(2) < 64 * points)
    return 1;
  // A 0.5 mm head (301 x 370 x 316) takes every third voxel, 1.3 M samples
  // instead of 4.4 M: measured against a known warp, it registered in 37 s
  // instead of 54 s on two cores and ended 0.013 mm off instead of 0.015
  // (every fourth: 34 s, 0.021 mm). A 1 mm head keeps every second voxel.
  int stride = 2;
  while (samples(stride) > kFinestSamples && samples(stride + 1) >= 64 * points)
    stride++;
  return stride;
}

int ZrElasticRegistration::initRegistration() {
  if (!splineTransform)
    createTransform();
  if (!splineTransform || dimensionMode < 0)
    return 0;
  // With the analytic gradient "Ignore finest resolution" keeps the finest
  // level and registers it on every second reference voxel along each axis,
  // against the model at full resolution: at the cost of the level before,
  // it takes away the bias that sampling a half-resolution model leaves
  // (mutual information drawn towards the model's 2-voxel lattice).
  sparseFinest = false;
  if (ignoreFinest && portGradient.getIndex(0) == 1 && portMetric.getIndex(0) != 4 &&
      dimensionMode == 3) {
    sparseFinest = true;
    ignoreFinest = 0;
  }
  // Flat data have penalties only on the regular-grid functional (a uniform
  // model and a metric other than the correlation ratio); a run that asks
  // for them elsewhere is refused with a message before anything is built.
  ZrRegScalarField3* M = scalarField(models);
  const bool regularClass =
      M && M->lattice.coords()->coordType() == ZR_COORD_UNIFORM && portMetric.getIndex(0) != 3;
  if (!RegElasticFunctional::checkRegularizer(references[0], portRegularization.getValue(1),
                                              portRegularization.getValue(0), regularClass))
    return 0;

  // An empty box: each functional of the pyramid widens it to its own
  // reference (and landmarks) when it is made.
  float before[6];
  for (int a = 0; a < 6; a++)
    before[a] = splineTransform->interpolatedSpaceBoundary[a];
  for (int a = 0; a < 3; a++) {
    splineTransform->interpolatedSpaceBoundary[2 * a] = 0.0f;
    splineTransform->interpolatedSpaceBoundary[2 * a + 1] = -10000000000.0f;
  }
  if (!ZrVoxelRegistration::initRegistration()) {
    for (int a = 0; a < 6; a++)
      splineTransform->interpolatedSpaceBoundary[a] = before[a];
    splineTransform->getGridSpacing();
    return 0;
  }

  // The margin is taken from voxelSize afresh on every run, so that a run that
  // continues from an earlier result gets the same box.
  float margin[3];
  runMargin(margin);
  splineTransform->correctInterpolatedSpaceBoundary(margin);
  // The parameters are absolute positions placed for the box the lattice had
  // until now. Should the run's box differ (landmarks connected since the
  // lattice was made, or a pyramid level of another extent), the lattice
  // moves onto it keeping each point's displacement, so that a lattice at rest
  // starts the run as the identity rather than shrunk or stretched.
  float box[6];
  bool moved = false;
  for (int a = 0; a < 6; a++) {
    box[a] = splineTransform->interpolatedSpaceBoundary[a];
    moved |= box[a] != before[a];
    splineTransform->interpolatedSpaceBoundary[a] = before[a];
  }
  splineTransform->getGridSpacing();
  if (moved)
    splineTransform->moveToBoundary(box);
  if (landmarks)
    splineTransform->setLandmarks(landmarks);

  // The label difference reads the model at the nearest voxel, and a lattice
  // at rest puts every sample on a voxel centre: a probe changes the objective
  // only once it moves some voxel by half a voxel, which takes a control-point
  // move of 27/16 voxels (the largest weight of the cubic basis in 3-D is
  // 8/27). Smaller steps see a flat objective and the run would not start;
  // so the first step is at least three voxels of the coarsest optimised
  // level.
  if (portMetric.getIndex(0) == 4 && functionals && functionals->size() > 0) {
    ZrRegScalarField3* coarsest = scalarField(functionals->last()->references);
    if (coarsest) {
      const int* d = coarsest->getDims();
      float box[6];
      coarsest->getBoundingBox(box);
      float voxel = 0.0f;
      for (int a = 0; a < 3; a++)
        if (d[a] > 1)
          voxel = std::max(voxel, (box[2 * a + 1] - box[2 * a]) / (float)(d[a] - 1));
      if (portStep.getValue(0) < 3.0f * voxel)
        portStep.setValue(0, 3.0f * voxel);
    }
  }

  refineCounter = 0;
  refinementsDone = 0;
  const int numLevels = functionals ? functionals->size() : 0;
  planRefinements(refinePlan, numLevels - ignoreFinest, portRefineGrid.getValue(0));

  ZrWorkArea::getTheWorkArea()->setProgressInfo("Elastic Registration");
  return 1;
}

// The largest voxel size of a level's reference, in world units: 0 if it
// has no extent.
static double levelVoxelSize(RegFunctional* functional) {
  ZrRegScalarField3* r = functional ? scalarField(functional->references) : nullptr;
  if (!r)
    return 0.0;
  float box[6];
  r->getBoundingBox(box);
  double voxel = 0.0;
  for (int a = 0; a < 3; a++)
    if (r->getDims()[a] > 1)
      voxel = std::max(voxel, (double)(box[2 * a + 1] - box[2 * a]) / (r->getDims()[a] - 1));
  return voxel;
}

void ZrElasticRegistration::enterResolution(int level, int numLevels, RegFunctional* functional) {
  RegElasticFunctional* f = dynamic_cast<RegElasticFunctional*>(functional);
  if (f) {
    const int left = portRefineGrid.getValue(0) - refinementsDone;
    // The grid energy fades in over the last refinement stages, by a factor 5
    // per stage, to its full weight once no refinement is left.
    if (left <= energyLevels)
      f->energyWeight = (float)(portRegularization.getValue(1) * std::pow(0.2, left));
    // The Jacobian constraint weighs most on the coarsest level.
    const float ratio = (float)level / (float)numLevels;
    f->jacobianWeight = (float)(portRegularization.getValue(0) * (1.0 - ratio * 0.9));
    // Landmarks pull hardest on the coarse lattice: the weight is divided by
    // 1, 3, 5, ... once per refinement done, and vanishes on the final one.
    float landmarkWeight = 0.0f;
    if (left >= 1) {
      landmarkWeight = portRegularization.getValue(2);
      for (int i = 0; i <= refinementsDone; i++)
        landmarkWeight /= (float)(2 * i + 1);
    }
    f->landmarkWeight = landmarkWeight;
    f->init();
    // An exact gradient is best used by the limited-memory quasi-Newton
    // search, on every level: it takes about one evaluation per iteration
    // where the others spend a line minimisation.
    if (f->analyticGradient) {
      const bool finest = level == numLevels - 1;
      // The sub-lattice only where it leaves plenty of voxels per control
      // point; a small image takes all of its voxels.
      if (finest && sparseFinest && numLevels > 1 && !f->fixLowEntropy)
        f->analyticGradient->sampleStride =
            finestStride(f->dims, splineTransform->getParamVectorDim() / 3);
      ZrLimitedMemoryOptimizer* search = dynamic_cast<ZrLimitedMemoryOptimizer*>(optimizer);
      if (!search) {
        delete optimizer;
        optimizer = search = new ZrLimitedMemoryOptimizer(this, 0.0);
        optimizer->setFunctional(functional);
      }
      // The finest level makes the accuracy and converges to a thirtieth of
      // the port's tolerance; the coarser ones need only bring the lattice
      // near, and stop at ten times it. (Measured on a 1 mm brain pair: a
      // tenth instead of a thirtieth left 0.07 mm of error instead of 0.055,
      // a hundredth gained 0.002 mm for half as many iterations more; the
      // coarse levels at the tolerance itself took twice the iterations for
      // the same result.)
      const double tolerance = portNLevelsGradient.getValue(1);
      search->tolerance = finest ? tolerance / 30.0 : tolerance * 10.0;
      // No control point moves by more than a voxel of the level in one
      // iteration. On a 32^3 head phantom of 7 mm voxels an unbounded first
      // move of 86 mm led to a lower optimum (error 9.8 mm against 3.8 mm).
      search->maxMove = levelVoxelSize(functional);
    }
  }

  ZrWorkArea::getTheWorkArea()->setProgressInfo("Registering at resolution level %d out of %d",
                                                level + 1, numLevels);
  if (optimizer) {
    if (ignoreFinest == 1 && numLevels > 1)
      optimizer->setProgressLevel(level, numLevels - 1);
    else
      optimizer->setProgressLevel(level, numLevels);
  }
  // Every level leaves a visible result.
  writeModel();
  saveControlPoints();
}

int ZrElasticRegistration::doneResolution(int level, int numLevels) {
  const float smoothing = portRegularization.getValue(3);
  if (smoothing != 0.0f)
    splineTransform->smoothGrid(smoothing, 1.0f);

  const int planned = (level >= 0 && level < refinePlan.size()) ? refinePlan[level] : 0;
  if (refineCounter < planned) {
    splineTransform->refine(2);
    for (int a = 0; a < 3 && a < dimensionMode; a++)
      gridSize[a] = 2 * gridSize[a] - 3;
    refineCounter++;
    refinementsDone++;
  }
  // The last optimised level runs once more after its last refinement, so
  // that the final lattice is optimised at all.
  const bool lastLevel = level == refinePlan.size() - 1;
  if (lastLevel && refineCounter > 0 && refineCounter == planned) {
    refineCounter++;
    return 0;
  }
  if (planned <= refineCounter) {
    refineCounter = 0;
    return 1;
  }
  return 0;
}

void ZrElasticRegistration::doneRegistration() {
  // After an interruption the driver has already deleted the level's
  // functional; the result is shown on the inputs.
  currentFunctional = nullptr;
  applyTransform(nullptr);
  portResult.show();
  if (landmarks) {
    portResult.setSensitivity(2, 1);
    portAboveThreshold.show();
  }
  ZrVoxelRegistration::doneRegistration();
}

// ---------------------------------------------------------------------------
// Ports
// ---------------------------------------------------------------------------

void ZrElasticRegistration::updateReference() {
  if (portReference.isNew())
    discardTransform();
  ZrVoxelRegistration::updateReference();
}

void ZrElasticRegistration::offerValidation(bool offer) {
  if (offer) {
    portResult.setSensitivity(2, 1);
    portAboveThreshold.show();
  } else {
    portResult.setSensitivity(2, 0);
    portAboveThreshold.hide();
    portStatistics.hide();
    portStatistics2.hide();
  }
}

void ZrElasticRegistration::update() {
  updateReference();
  const bool referenceNew = portReference.isNew();
  const bool modelNew = portData.isNew();
  ZrVoxelRegistration::update();

  ZrRegScalarField3* R = scalarField(references);
  ZrRegScalarField3* M = scalarField(models);
  const int bothInputs = (R && M) ? 1 : 0;

  // 1. New data: the finest level is left out again.
  if (referenceNew || modelNew)
    portOptions.setValue(0, 1);

  // 2. A smaller first step than the affine path: the control points move
  // locally.
  if (referenceNew) {
    portStep.setValue(0, portStep.getValue(0) * 0.25f);
    for (int i = 0; i < 3; i++)
      portAction.setSensitivity(i, bothInputs);
    portResult.hide();
  }

  // 3.
  if (modelNew) {
    if (splineTransform && M)
      splineTransform->setModel(M);
    for (int i = 0; i < 3; i++)
      portAction.setSensitivity(i, bothInputs);
  }

  // 4. A flat pair has no z lattice size.
  if ((referenceNew || modelNew) && bothInputs) {
    if (dimensionMode > 2) {
      portInitialGridSize.setNum(3);
      portInitialGridSize.setLabel(2, "z:");
      portInitialGridSize.setMinMax(2, 4, INT_MAX);
      portInitialGridSize.setValue(2, 4);
    } else {
      portInitialGridSize.setNum(2);
    }
  }

  // 5. A lattice to start from replaces the initial grid size.
  if (portControlPoints.isNew()) {
    discardTransform();
    controlPointSet = portControlPoints.source<ZrLandmarkSet>();
    if (controlPointSet) {
      portInitialGridSize.hide();
      portAction.setSensitivity(2, 0);
      offerValidation(portLandmarks.isConnected());
    } else {
      portInitialGridSize.show();
      portAction.setSensitivity(2, bothInputs);
      portResult.hide();
      offerValidation(false);
    }
  }

  // 6.
  if (portLandmarks.isNew()) {
    landmarks = portLandmarks.source<ZrLandmarkSet>();
    if (landmarks) {
      portRegularization.setSensitivity(2, 1);
      portRegularization.setValue(2, 0.5f);
      if (controlPointSet || transform)
        offerValidation(true);
    } else {
      portRegularization.setSensitivity(2, 0);
      portRegularization.setValue(2, 0.0f);
      offerValidation(false);
    }
  }

  // 7.
  if (portAboveThreshold.isNew() && transform)
    validateLandmarks();

  // 8.
  if (portRefineGrid.isNew() || portInitialGridSize.isNew()) {
    if (dimensionMode == 3)
      ZrMessage::getTheMsg()->printf("Final grid size will be: %dx%dx%d", computeFinalGridSize(0),
                                     computeFinalGridSize(1), computeFinalGridSize(2));
    else
      ZrMessage::getTheMsg()->printf("Final grid size will be: %dx%d", computeFinalGridSize(0),
                                     computeFinalGridSize(1));
  }

  // 9. Each level halves the data, so the coarsest factors are powers of two.
  if (portCoarsestResolution.isNew()) {
    for (int i = 0; i < 3; i++) {
      const int v = portCoarsestResolution.getValue(i);
      const double p = std::pow(2.0, std::ceil(std::log((double)v) / std::log(2.0)));
      portCoarsestResolution.setValue(i, (int)p);
    }
  }

  // 10. Fixing control points needs the entropy of a histogram.
  if (portMetric.isNew()) {
    if (portMetric.getIndex(0) == 3) {
      portOptions.setValue(1, 0);
      portOptions.setSensitivity(1, 0);
    } else {
      portOptions.setSensitivity(1, 1);
    }
  }

  // 11. Fixed control points are smoothed into their neighbourhood.
  if (portOptions.isNew()) {
    if (portOptions.getValue(1)) {
      portRegularization.setSensitivity(3, 1);
      portRegularization.setValue(3, 2.0f);
    } else {
      portRegularization.setSensitivity(3, 0);
      portRegularization.setValue(3, 0.0f);
    }
  }

  // 12.
  portNLevelsGradient.setMinMax(0.0f, 100.0f);
  portOptions2.hide();
  ignoreFinest = portOptions.getValue(0) ? 1 : 0;
}

void ZrElasticRegistration::compute() {
  if (computing)
    return;
  const int threads = ZrSettingsMgr::getInstance()->getNumThreads();
  numThreads = threads != 0 ? threads : 1;

  const bool anyHit = portAction.wasAnyHit() || portResult.wasAnyHit();
  if (!anyHit)
    return;
  // The buttons are sensitive only with both inputs; a script may still
  // press one without them, and then there is nothing to act on.
  if (!transform && !references.isEmpty() && !models.isEmpty() && dimensionMode >= 0)
    createTransform();
  if (!transform)
    return;

  computing = 1;
  if (portAction.wasHit(0)) {
    interrupted = false;
    ZrWorkArea::getTheWorkArea()->startWorking("Elastic registration");
    doRegistration();
    ZrWorkArea::getTheWorkArea()->stopWorking();
  }
  if (portAction.wasHit(1))
    applyTransform(nullptr);
  if (portAction.wasHit(2))
    showControlPoints();
  if (portResult.wasHit(0))
    saveControlPoints();
  if (portResult.wasHit(1))
    createVectorField();
  if (portResult.wasHit(2))
    validateLandmarks();
  computing = 0;
}

// ---------------------------------------------------------------------------
// Results
// ---------------------------------------------------------------------------

bool ZrElasticRegistration::currentFields(ZrRegScalarField3*& R, ZrRegScalarField3*& M) {
  if (currentFunctional) {
    R = scalarField(currentFunctional->references);
    M = scalarField(currentFunctional->models);
  } else {
    R = scalarField(references);
    M = scalarField(models);
  }
  return R && M && splineTransform;
}

bool ZrElasticRegistration::applyTransform(RegParametricTransform*) {
  ZrRegScalarField3 *R, *M;
  if (!currentFields(R, M))
    return false;
  if (!currentFunctional) {
    splineTransform->setReference(R);
    splineTransform->precomputeInterpolants();
  }
  splineTransform->update();

  const bool nearest = modelClass == 1 || modelClass == 2;
  // Between runs quality counts more than speed.
  std::unique_ptr<ZrFieldEvaluator> eval(
      RegSplineOutput::createModelEvaluator(M, nearest, currentFunctional == nullptr));

  ZrRegScalarField3* result = dynamic_cast<ZrRegScalarField3*>(getResult(0));
  if (!result) {
    result = static_cast<ZrRegScalarField3*>(R->duplicate());
    result->setName("reformat");
    result->showIcon();
    setResult(0, result);
  }
  result->lattice.resize(R->getDims());
  RegSplineOutput::warpModel(splineTransform, R, M, eval.get(), result);
  result->touch(0xffffffffu);
  result->fire(1);

  // The landmarks are mapped through the dense vector field of the present
  // lattice on the full reference. During a run, where this is called after
  // every step, that field would cost a warp of the full reference each time,
  // so the landmarks follow once the run is over.
  if (landmarks && !currentFunctional) {
    splineTransform->setLandmarks(landmarks);
    splineTransform->precomputeInterpolantsLandmarks();
    const bool fresh = transformedLandmarks == nullptr;
    transformedLandmarks =
        RegSplineOutput::ensureMappedSet(transformedLandmarks, landmarks->getNumMarkers());
    if (fresh)
      transformedLandmarks->ref();
    RegSplineOutput::mapLandmarks(landmarks, transformedLandmarks, currentVectorField());
    transformedLandmarks->touch(0xffffffffu);
    transformedLandmarks->fire(1);
  }
  SoDB::getSensorManager()->processQueues(1);
  return false;
}

void ZrElasticRegistration::writeModel() {
  ZrRegScalarField3 *R, *M;
  if (!currentFields(R, M))
    return;
  if (!currentFunctional) {
    splineTransform->setReference(R);
    splineTransform->precomputeInterpolants();
  }
  splineTransform->update();
  const bool nearest = modelClass == 1 || modelClass == 2;
  std::unique_ptr<ZrFieldEvaluator> eval(
      RegSplineOutput::createModelEvaluator(M, nearest, currentFunctional == nullptr));

  ZrRegScalarField3* result = static_cast<ZrRegScalarField3*>(R->duplicate());
  result->setName("result");
  result->showIcon();
  pool()->addObject(result);
  result->lattice.resize(R->getDims());
  RegSplineOutput::warpModel(splineTransform, R, M, eval.get(), result);
  result->touch(0xffffffffu);
  result->fire(1);
}

void ZrElasticRegistration::saveControlPoints() {
  ZrRegScalarField3* R = scalarField(references);
  if (!splineTransform || !R)
    return;
  if (!currentFunctional) {
    splineTransform->setReference(R);
    splineTransform->precomputeInterpolants();
  }
  splineTransform->update();
  ZrLandmarkSet* rest = RegSplineOutput::makeRestPositions(splineTransform);
  ZrRegVectorField3* field = RegSplineOutput::makeControlGridVectors(splineTransform, rest);
  if (field) {
    setResult(1, field);
    vectorFieldResult = nullptr;
    field->setName("ControlGridVectors");
    field->touch(0xffffffffu);
    field->fire(1);
  }
  // The rest positions were only needed for the displacements; they leave
  // the pool also when the field could not be made.
  pool()->removeObject(rest);
}

ZrField3* ZrElasticRegistration::currentVectorField() {
  // Result 1 serves only if it is the dense field made from the present
  // parameters. After a run it is "ControlGridVectors", saved when the last
  // level began: a field of control-point displacements over the control
  // lattice, which read as the dense field would map every landmark wrongly.
  const bool current = vectorFieldResult && getResult(1) == vectorFieldResult &&
                       vectorFieldParams == splineTransform->paramVector;
  if (!current)
    createVectorField();
  return getResult(1) == vectorFieldResult ? dynamic_cast<ZrField3*>(getResult(1)) : nullptr;
}

void ZrElasticRegistration::createVectorField() {
  ZrRegScalarField3* R = scalarField(references);
  if (!splineTransform || !R)
    return;
  splineTransform->setReference(R);
  splineTransform->precomputeInterpolants();
  ZrRegVectorField3* field = RegSplineOutput::makeVectorField(splineTransform, R, 1.0f);
  if (field) {
    setResult(1, field);
    vectorFieldResult = field;
    vectorFieldParams = splineTransform->paramVector;
    field->setName("VectorField");
    field->touch(0xffffffffu);
    field->fire(1);
  }
  // Within a run the transform goes back to the level it serves.
  if (currentFunctional) {
    if (ZrRegScalarField3* levelReference = scalarField(currentFunctional->references)) {
      splineTransform->setReference(levelReference);
      splineTransform->precomputeInterpolants();
    }
  }
}

void ZrElasticRegistration::validateLandmarks() {
  if (!landmarks || !splineTransform)
    return;
  const int n = landmarks->getNumMarkers();
  splineTransform->setLandmarks(landmarks);
  splineTransform->precomputeInterpolantsLandmarks();
  const bool fresh = transformedLandmarks == nullptr;
  transformedLandmarks = RegSplineOutput::ensureMappedSet(transformedLandmarks, n);
  if (fresh)
    transformedLandmarks->ref();
  RegSplineOutput::validate(landmarks, transformedLandmarks, currentVectorField(),
                            portAboveThreshold.getValue(0), &portStatistics, &portStatistics2);
  transformedLandmarks->touch(0xffffffffu);
  transformedLandmarks->fire(1);
}

void ZrElasticRegistration::showControlPoints() {
  if (portControlPoints.isConnected() || !splineTransform || !controlPointSet)
    return;
  splineTransform->update();
  controlPointSet->showIcon();
  portControlPoints.connect(controlPointSet);
  portInitialGridSize.hide();
  portAction.setSensitivity(2, 0);
  portResult.show();
  offerValidation(landmarks != nullptr);
}
