#include "ZrVoxelRegistration.h"

#include "QbPrimType.h"
#include "RegFunctional.h"
#include "RegParametricTransform.h"
#include "SbMatrix.h"
#include "ZrBestNeighbourOptimizer.h"
#include "ZrMessage.h"
#include "ZrObjectPool.h"
#include "ZrOptimizer.h"
#include "ZrRegScalarField3.h"
#include "ZrResample.h"
#include "ZrStackedLabelField3.h"
#include "ZrStackedScalarField3.h"
#include "ZrUniformLabelField3.h"
#include "ZrWorkArea.h"

// The optimizer classes of the menu.
#include "ZrAggressiveDirectionOptimizer.h"
#include "ZrBestDirectionOptimizer.h"
#include "ZrGradientOptimizer.h"

#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>

namespace {

// Messages of the message window end their line here: the host's stream adds
// nothing to what is printed.
ZrMessage* msg() { return ZrMessage::getTheMsg(); }

// Truncation to int that gives the processor's answer for what does not fit
// (NaN, infinities, values beyond int) instead of undefined behaviour: the
// most negative int. The callers raise factors below 1 to 1, so a voxel size
// of 0 leads to a factor of 1.
int truncateToInt(double x) {
  if (!(x > -2147483649.0 && x < 2147483648.0))
    return INT_MIN;
  return (int)x;
}

bool isLabelField(ZrSpatialData* field) {
  return field && (field->getInterface(ZrUniformLabelField3::getClassTypeId()) ||
                   field->getInterface(ZrStackedLabelField3::getClassTypeId()));
}

} // namespace

ZrVoxelRegistration::ZrVoxelRegistration()
    : ZrCompModule(ZrRegScalarField3::getClassTypeId()), portOptimizer(this, "optimizer", 2),
      portExtensiveSearch(this, "extensiveSearch", 1), portStep(this, "step", 2),
      portNLevelsGradient(this, "nLevelsGradient", 2),
      portCoarsestResolution(this, "coarsestResolution", 3), portMetric(this, "metric", 1),
      portHistogramRangeRef(this, "histogramRangeRef", 2),
      portHistogramRangeMod(this, "histogramRangeMod", 2),
      portHistogramBins(this, "histogramBins", 2),
      portReference(this, "reference", ZrRegScalarField3::getClassTypeId()),
      portOptions(this, "options", 1), portOptions2(this, "options2", 1),
      portExtendedOptions(this, "extendedOptions", 1), portAction(this, "action", 3) {
  portData.setName("model");

  portOptimizer.setNum(0, 5);
  portOptimizer.setLabel(0, 0, "Extensive direction");
  portOptimizer.setLabel(0, 1, "Best neighbor");
  portOptimizer.setLabel(0, 2, "Quasi Newton");
  portOptimizer.setLabel(0, 3, "Conjugated Gradients");
  portOptimizer.setLabel(0, 4, "Line search");
  portOptimizer.setNum(1, 2);
  portOptimizer.setLabel(1, 0, "Ramp");
  portOptimizer.setLabel(1, 1, "Cycles");
  portOptimizer.setIndex(0, 0);
  portOptimizer.setIndex(1, 0);
  portOptimizer.setSensitivity(1, 0);

  portExtensiveSearch.setValue(0, 0);
  portExtensiveSearch.hide();

  portStep.setLabel("Optimizer step:");
  portStep.setLabel(0, "initial:");
  portStep.setLabel(1, "final:");
  portStep.setValue(0, 50.0f);
  portStep.setValue(1, 0.09765625f); // 100 / 1024, exact in binary

  portNLevelsGradient.setLabel("Gradient optimizer:");
  portNLevelsGradient.setLabel(0, "Finest levels:");
  portNLevelsGradient.setLabel(1, "Tolerance:");
  portNLevelsGradient.setValue(0, 1.0f);
  portNLevelsGradient.setValue(1, 0.0001f);

  portCoarsestResolution.setLabel("Coarsest resampling:");
  portCoarsestResolution.setLabel(0, "x");
  portCoarsestResolution.setLabel(1, "y");
  portCoarsestResolution.setLabel(2, "z");
  portCoarsestResolution.setValue(1);
  portCoarsestResolution.hide();

  portMetric.setNum(0, 4);
  portMetric.setLabel(0, 0, "Normalized Mutual Information");
  portMetric.setLabel(0, 1, "Mutual Information");
  portMetric.setLabel(0, 2, "Euclidean");
  portMetric.setLabel(0, 3, "Correlation");
  portMetric.setIndex(0, 0);

  portHistogramRangeRef.setLabel("Histogram range reference:");
  portHistogramRangeRef.setLabel(0, "min");
  portHistogramRangeRef.setLabel(1, "max");
  portHistogramRangeRef.hide();
  portHistogramRangeMod.setLabel("Histogram range model:");
  portHistogramRangeMod.setLabel(0, "min");
  portHistogramRangeMod.setLabel(1, "max");
  portHistogramRangeMod.hide();

  portHistogramBins.setLabel("Histogram bins:");
  portHistogramBins.setLabel(0, "reference:");
  portHistogramBins.setLabel(1, "model:");
  portHistogramBins.setValue(256);
  portHistogramBins.hide();

  portOptions.setLabel(0, "Ignore finest resolution");
  portOptions.setValue(0, 1);
  portOptions2.setLabel(0, "Localizer");
  portOptions2.setValue(0, 0);
  portExtendedOptions.setValue(0, 0);
}

ZrVoxelRegistration::~ZrVoxelRegistration() {
  delete optimizer;
  optimizer = nullptr;
  // A stack is left only when a run was prepared but never carried out; its
  // functionals and their resampled fields go with it.
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
  currentFunctional = nullptr;
  delete transform;
  transform = nullptr;
  references.clearAndFree();
  models.clearAndFree();
}

// ---------------------------------------------------------------------------
// Driver
// ---------------------------------------------------------------------------

void ZrVoxelRegistration::trace(const char* text) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  ZrMessage::Info(text);
#pragma GCC diagnostic pop
}

void ZrVoxelRegistration::pushFunctional(RegFunctional* functional) {
  functionals->append(functional);
}

RegFunctional* ZrVoxelRegistration::popFunctional() {
  if (!functionals || functionals->size() == 0)
    return nullptr;
  RegFunctional* f = functionals->last();
  functionals->resize(functionals->size() - 1);
  return f;
}

ZrOptimizer* ZrVoxelRegistration::createOptimizer(int menuIndex, double tolerance) {
  RegOptimizerCallback* callback = this;
  switch (menuIndex) {
  case 0: // "Extensive direction"
    return new ZrAggressiveDirectionOptimizer(callback, stepFactor, 0.1, 0, dimensionMode);
  case 1: // "Best neighbor"
    return new ZrBestNeighbourOptimizer(callback, stepFactor, dimensionMode);
  case 2: // "Quasi Newton"
    return new ZrGradientOptimizer(callback, tolerance, stepFactor);
  case 3: { // "Conjugated Gradients"
    ZrGradientOptimizer* g = new ZrGradientOptimizer(callback, tolerance, stepFactor);
    g->method = 1;
    return g;
  }
  case 4: // "Line search"
    return new ZrBestDirectionOptimizer(callback, stepFactor, 1e-8, 0,
                                        portExtensiveSearch.getValue(0) != 0);
  default:
    return nullptr;
  }
}

int ZrVoxelRegistration::initRegistration() {
  watch.start();
  ZrWorkArea::getTheWorkArea()->setProgressInfo("Initializing");
  functionals = new FunctionalStack;
  calculateMaxCoverage();

  QbVec3i coarsest(portCoarsestResolution.getValue(0), portCoarsestResolution.getValue(1),
                   portCoarsestResolution.getValue(2));
  LevelArray referenceLevels, modelLevels;
  doResampling(&referenceLevels, coarsest, &modelLevels);

  // Finest first, so that the coarsest level ends on top of the stack.
  for (int i = 0; i < referenceLevels.size(); i++) {
    FieldArray noModels;
    FieldArray& modelLevel = i < modelLevels.size() ? modelLevels[i] : noModels;
    pushFunctional(createFunctional(referenceLevels[i], modelLevel, -1, -1));
  }

  optimizer = createOptimizer(portOptimizer.getIndex(0), (double)portNLevelsGradient.getValue(1));
  return 1;
}

void ZrVoxelRegistration::doRegistration() {
  if (!initRegistration())
    return;

  const int numLevels = functionals ? functionals->size() : 0;
  const float initialF = portStep.getValue(0);
  const float finalF = portStep.getValue(1);
  const double initialStep = initialF;
  const double finalStep = finalF;

  // Step schedule. In ramp mode the end step walks down linearly from level
  // to level and the start step shrinks geometrically; the products are
  // formed in single precision.
  double start = initialStep;
  double end;
  bool ramp;
  if (finalStep > initialStep) {
    end = initialStep;
    ramp = false;
  } else {
    end = finalF * (float)(samplingFactor - 1) * (float)numLevels;
    ramp = true;
    if (!(end < initialStep)) {
      end = finalStep;
      ramp = false;
    }
  }
  double rampFactor = 0.6;
  int gradientLevel = 0;
  int level = 0;

  while (functionals) {
    if (functionals->size() == 0) {
      currentFunctional = nullptr;
      break;
    }
    currentFunctional = popFunctional();
    if (!currentFunctional)
      break;

    // The finest level is never optimised with "Ignore finest resolution";
    // the module may refine the result on a cheaper form of it instead.
    bool refining = false;
    if (ignoreFinest != 0 && level == numLevels - 1) {
      RegFunctional* refinement = level > 0 ? finestRefinement(currentFunctional) : nullptr;
      releaseLevel(currentFunctional);
      delete currentFunctional;
      currentFunctional = refinement;
      if (!refinement)
        break;
      refining = true;
    }

    // The finest levels switch to the quasi-Newton optimizer, whatever the
    // menu says, with a tolerance that grows tenfold towards the finest; a
    // refinement keeps the tolerance of the level before it.
    const int finestLevels = (int)portNLevelsGradient.getValue(0);
    if (!(numLevels - ignoreFinest - finestLevels > level) && level > 0) {
      delete optimizer;
      const double tolerance = (double)portNLevelsGradient.getValue(1);
      const int decades = refining ? std::max(0, gradientLevel - 1) : gradientLevel;
      optimizer = createOptimizer(2, tolerance * std::pow(10.0, decades));
      gradientLevel++;
      start = std::max(finalF, initialF * 0.0009765625f);
    }

    currentFunctional->initTransform(transform);
    transform = currentFunctional->transform;

    if (optimizer) {
      optimizer->setFunctional(currentFunctional);
      doResolution(level, numLevels, currentFunctional, start, end);
    }

    if (ramp) {
      // The factor is lowered only after it was used.
      start = start * rampFactor;
      end -= finalF * (float)(samplingFactor - 1);
      if (rampFactor > 0.2)
        rampFactor -= 0.05;
    }

    if (currentFunctional) {
      releaseLevel(currentFunctional);
      delete currentFunctional;
    }
    currentFunctional = nullptr;
    if (optimizer)
      optimizer->setFunctional(nullptr);
    level++;
  }

  doneRegistration();
}

void ZrVoxelRegistration::releaseLevel(RegFunctional* functional) {
  if (!functional)
    return;
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  for (int i = 0; i < functional->references.size(); i++) {
    ZrSpatialData* f = functional->references[i];
    if (f && references.index(f) < 0) {
      pool->removeObject(f);
      functional->references[i] = nullptr;
    }
  }
  for (int i = 0; i < functional->models.size(); i++) {
    ZrSpatialData* f = functional->models[i];
    if (f && models.index(f) < 0) {
      pool->removeObject(f);
      functional->models[i] = nullptr;
    }
  }
}

void ZrVoxelRegistration::enterResolution(int level, int numLevels, RegFunctional* functional) {}

void ZrVoxelRegistration::doResolution(int level, int numLevels, RegFunctional* functional,
                                       double startStep, double endStep) {
  for (;;) {
    enterResolution(level, numLevels, functional);
    optimizer->optimize(startStep, endStep);
    if (ZrWorkArea::getTheWorkArea()->wasInterrupted(1)) {
      releaseLevel(functional);
      delete functional;
      doneRegistration();
      return;
    }
    if (doneResolution(level, numLevels))
      return;
  }
}

int ZrVoxelRegistration::doneResolution(int level, int numLevels) { return 1; }

void ZrVoxelRegistration::doneRegistration() {
  // A second call after an interruption finds nothing to free, but stops the
  // watch again and reports the span from the start once more.
  watch.stop();
  const float t = watch.getElapsedSeconds();
  if (t >= 1000.0f) {
    const int minutes = (int)(t / 60);
    msg()->printf("elapsed time: %d h, %d min, %d seconds\n", minutes / 60, minutes % 60,
                  (int)std::floor(t + 0.5) % 60);
  } else {
    msg()->printf("elapsed time: %.2f seconds\n", t);
  }

  delete optimizer;
  optimizer = nullptr;

  if (functionals) {
    while (functionals->size() > 0) {
      RegFunctional* f = popFunctional();
      if (f) {
        releaseLevel(f);
        delete f;
      }
    }
    delete functionals;
    currentFunctional = nullptr;
  }
  functionals = nullptr;
}

// ---------------------------------------------------------------------------
// Resolution planning
// ---------------------------------------------------------------------------

int ZrVoxelRegistration::getDimension(int index) {
  if (references.isEmpty() || models.isEmpty())
    return -1;
  index = std::max(0, std::min(index, references.size() - 1));
  ZrRegScalarField3* ref = dynamic_cast<ZrRegScalarField3*>(references[index]);
  ZrRegScalarField3* mod = dynamic_cast<ZrRegScalarField3*>(models[0]);
  if (!ref || !mod)
    return -1;
  const int* dr = ref->getDims();
  const int* dm = mod->getDims();

  int d = 3, numFlat = 0;
  for (int i = 0; i < 3; i++)
    if (dr[i] == 1) {
      numFlat++;
      d = i;
    }
  if (numFlat > 1) {
    msg()->printf("Lattice has dimension 1 in more than one direction.\n");
    msg()->printf("Can't do even 2D registration\n");
    return -1;
  }
  for (int i = 0; i < 3; i++) {
    if (dm[i] != 1)
      continue;
    if (d != 3 && i != d) {
      msg()->printf("Model's and reference's lattice have dimension 1\n");
      msg()->printf("in different directions.\n");
      msg()->printf("Can't do even 2D registration\n");
      return -1;
    }
    d = i;
  }
  return d;
}

void ZrVoxelRegistration::getMinDelta(QbVec3d& delta, QbVec3i& order, int which, int skipAxis) {
  ZrSpatialData* data = nullptr;
  if (which > 0) {
    data = models.isEmpty() ? nullptr : models[0];
  } else if (!references.isEmpty()) {
    data = references[std::min(-which, references.size() - 1)];
  }
  ZrRegScalarField3* field = dynamic_cast<ZrRegScalarField3*>(data);

  delta = QbVec3d(1.0, 1.0, 1.0);
  if (field) {
    const int* dims = field->getDims();
    float box[6];
    field->getBoundingBox(box);
    if (field->isOfType(ZrStackedScalarField3::getClassTypeId())) {
      // Slices: the x and y sizes from the box, the z size from the slice
      // positions. The gap between the last two slices is what stands.
      ZrStackedScalarField3* stacked = static_cast<ZrStackedScalarField3*>(field);
      delta = QbVec3d(1e20, 1e20, 1e20);
      for (int i = 0; i < 2; i++)
        if (dims[i] > 1)
          delta[i] = (box[2 * i + 1] - box[2 * i]) / (dims[i] - 1);
      const float* z = stacked->stackedCoords()->getZ();
      for (int k = 0; k + 1 < dims[2]; k++)
        delta[2] = z[k + 1] - z[k];
    } else {
      for (int i = 0; i < 3; i++)
        delta[i] = (box[2 * i + 1] - box[2 * i]) / (dims[i] > 1 ? dims[i] - 1 : 1);
    }
  }

  // The first largest and the first smallest voxel size, the skipped axis
  // left out.
  int imax = 0, imin = 0;
  double largest = 0.0, smallest = 1e20;
  for (int i = 0; i < 3; i++) {
    if (i == skipAxis)
      continue;
    if (delta[i] > largest) {
      largest = delta[i];
      imax = i;
    }
    if (delta[i] < smallest) {
      smallest = delta[i];
      imin = i;
    }
  }
  // A flat axis always comes last. A negative skipAxis (no flat axis known)
  // counts as none.
  const int L = (skipAxis >= 0 && skipAxis < 3) ? skipAxis : imax;
  const int S = imin;
  switch (L) {
  case 0:
    order = S == 2 ? QbVec3i(2, 1, 0) : QbVec3i(1, 2, 0);
    break;
  case 1:
    order = S == 2 ? QbVec3i(2, 0, 1) : QbVec3i(0, 2, 1);
    break;
  default:
    order = S == 0 ? QbVec3i(0, 1, 2) : QbVec3i(1, 0, 2);
    break;
  }
}

void ZrVoxelRegistration::calculateMaxCoverage() {
  if (models.isEmpty() || references.isEmpty() || !models[0] || !references[0])
    return;
  // Area of a 2-D registration, volume of a 3-D one.
  auto extent = [this](ZrSpatialData* data) {
    float box[6];
    data->getBoundingBox(box);
    double e = 1.0;
    for (int i = 0; i < 3; i++)
      if (i != dimensionMode)
        e *= (double)(box[2 * i + 1] - box[2 * i]);
    return e;
  };
  const double modelExtent = extent(models[0]);
  const double referenceExtent = extent(references[0]);
  if (referenceExtent > 0 && !(referenceExtent < modelExtent))
    maxCoverage = modelExtent / referenceExtent;
}

void ZrVoxelRegistration::doResampling(void* referenceLevelsPtr, QbVec3i& coarsest,
                                       void* modelLevelsPtr) {
  LevelArray& referenceLevels = *static_cast<LevelArray*>(referenceLevelsPtr);
  LevelArray& modelLevels = *static_cast<LevelArray*>(modelLevelsPtr);
  const double F = samplingFactor;
  const double logBase = std::log(F);
  auto logF = [logBase](double x) { return std::log(x) / logBase; };

  const QbVec3i saved = coarsest;
  if (references.isEmpty())
    return;
  ZrRegScalarField3* model =
      models.isEmpty() ? nullptr : dynamic_cast<ZrRegScalarField3*>(models[0]);

  for (int k = 0; k < references.size(); k++) {
    coarsest = saved;
    const int dim = getDimension(k);
    if (k == 0 && dim < 0)
      return;
    ZrRegScalarField3* reference = dynamic_cast<ZrRegScalarField3*>(references[k]);

    QbVec3i curRef(1, 1, 1), curMod(1, 1, 1);
    if (dim >= 0 && dim < 3)
      coarsest[dim] = 1;

    QbVec3d refDelta, modDelta;
    QbVec3i order, modelOrder;
    getMinDelta(refDelta, order, -k, dim);
    QbVec3d refDelta0 = refDelta; // the input's voxel sizes
    if (!models.isEmpty())
      getMinDelta(modDelta, modelOrder, 1, dim);

    // A localizer keeps its slice direction.
    if (portOptions2.getValue(0) && dim == 3)
      coarsest[order[2]] = 1;

    // Level 0 holds the inputs themselves.
    ZrRegScalarField3* result = nullptr;
    downsample(reference, result, curRef, referenceClass);
    if (k == 0) {
      referenceLevels.resize(1);
      referenceLevels[0].append(result);
      if (!models.isEmpty()) {
        ZrRegScalarField3* modelResult = nullptr;
        downsample(model, modelResult, curMod, modelClass);
        modelLevels.resize(1);
        modelLevels[0].append(modelResult);
      }
    } else if (!referenceLevels.isEmpty()) {
      referenceLevels[0].append(result);
    }

    bool keepGoing[3];
    for (int i = 0; i < 3; i++)
      keepGoing[i] = coarsest[i] != 1;
    if (coarsest[0] == 1 && coarsest[1] == 1 && coarsest[2] == 1)
      continue;

    const int o0 = order[0], o1 = order[1], o2 = order[2];
    int level = 1;
    bool isotropic = false;
    do {
      const QbVec3i before = curRef;
      if (isotropic) {
        sampleInIsotropy(curRef, keepGoing, coarsest, dim);
      } else {
        bool stepped = false;
        // Rule A: the finest axis is much finer than the middle one, and is
        // reduced alone until it catches up.
        if (logF(refDelta[o1] / refDelta[o0]) > 1.5) {
          if (logF((double)coarsest[o0] / curRef[o0]) > 1.5) {
            refDelta[o0] *= F;
            curRef[o0] *= samplingFactor;
            stepped = true;
          } else {
            const double target = coarsest[o0] * refDelta0[o0];
            if (logF(refDelta[o1] / target) > 0.5) {
              refDelta[o0] = refDelta[o1];
              curRef[o0] = coarsest[o0];
              stepped = true;
            }
          }
        }
        // Rule B: the third axis is much coarser than the other two, which
        // are reduced together while it stays.
        if (!stepped && dim == 3 && logF(refDelta[o2] / refDelta[o0]) > 1.5 &&
            logF(refDelta[o2] / refDelta[o1]) > 1.5) {
          refDelta[o0] *= F;
          const double r = logF((double)coarsest[o0] / curRef[o0]);
          if (r > 1.5) {
            curRef[o0] *= samplingFactor;
          } else {
            curRef[o0] = coarsest[o0];
            keepGoing[o0] = false;
            if (r > 1.0)
              refDelta[o0] = coarsest[o0] * refDelta0[o0];
          }
          int n = truncateToInt(refDelta[o0] / refDelta0[o1] + 0.5);
          if (n < 1)
            n = 1;
          if (logF((double)coarsest[o1] / n) > 0.5) {
            curRef[o1] = n;
            refDelta[o1] = n * refDelta0[o1];
          } else {
            refDelta[o1] = std::max(F * refDelta[o1], coarsest[o1] * refDelta0[o1]);
            curRef[o1] = coarsest[o1];
            keepGoing[o1] = false;
          }
          stepped = true;
        }
        if (!stepped) {
          sampleInIsotropy(curRef, keepGoing, coarsest, dim);
          isotropic = true;
        }
      }

      // The primary reference makes no level for a pass that changed nothing;
      // a later channel counts it, so that it stays in step with its own plan.
      if (!(k == 0 && curRef == before)) {
        msg()->printf("Sampling reference to: (%d, %d, %d)\n", curRef[0], curRef[1], curRef[2]);
        result = nullptr;
        downsample(reference, result, curRef, referenceClass);
        if (k == 0) {
          if (referenceLevels.size() < level + 1)
            referenceLevels.resize(level + 1);
          referenceLevels[level].append(result);
          if (!models.isEmpty()) {
            sampleModel(order, curRef, curMod, refDelta0, modDelta, dim);
            msg()->printf("Sampling model to: (%d, %d, %d)\n", curMod[0], curMod[1], curMod[2]);
            ZrRegScalarField3* modelResult = nullptr;
            downsample(model, modelResult, curMod, modelClass);
            if (modelLevels.size() < level + 1)
              modelLevels.resize(level + 1);
            modelLevels[level].append(modelResult);
          }
        } else if (level < referenceLevels.size()) {
          referenceLevels[level].append(result);
        } else if (result && result != reference) {
          // A channel with more levels than the primary reference: the extra
          // copy has no level to go to and leaves the pool at once.
          ZrObjectPool::getTheObjectPool()->removeObject(result);
        }
        level++;
      }
    } while (keepGoing[0] || keepGoing[1] || keepGoing[2]);
  }
}

void ZrVoxelRegistration::sampleInIsotropy(QbVec3i& factors, bool* keepGoing, QbVec3i& coarsest,
                                           int dim) {
  const double F = samplingFactor;
  double m = DBL_MAX;
  for (int i = 0; i < 3; i++)
    if (i != dim && keepGoing[i])
      m = std::min(m, (double)coarsest[i] / (double)factors[i]);
  const double r = std::log(m) / std::log(F);
  // A remainder of less than one and a half steps is taken in one jump.
  const double g = (r > 1.0 && r < 1.5) ? m : F;
  for (int i = 0; i < 3; i++) {
    const int n = (int)std::nearbyint(factors[i] * g); // ties to even
    if (i == dim || !(n < coarsest[i])) {
      factors[i] = coarsest[i];
      keepGoing[i] = false;
    } else {
      factors[i] = n;
    }
  }
}

void ZrVoxelRegistration::sampleModel(QbVec3i& order, QbVec3i& refFactors, QbVec3i& modFactors,
                                      QbVec3d& refVoxel, QbVec3d& modDelta, int dim) {
  const bool localizer = portOptions2.getValue(0) != 0;
  for (int i = 0; i < 3; i++) {
    if (i == dim) {
      modFactors[dim] = 1;
      continue;
    }
    const double spacing = modDelta[i] / modFactors[i]; // the model's own voxel size
    const int a = (localizer && i == order[2]) ? order[0] : i;
    int n = truncateToInt(std::floor(refVoxel[a] / spacing * refFactors[a] + 0.5));
    if (n < 1)
      n = 1;
    modFactors[i] = n;
    modDelta[i] = n * spacing;
  }
}

void ZrVoxelRegistration::downsample(ZrRegScalarField3* field, ZrRegScalarField3*& result,
                                     QbVec3i& factors, RegDataClass dataClass) {
  if (factors[0] == 1 && factors[1] == 1 && factors[2] == 1) {
    result = field;
    return;
  }
  if (!field) {
    result = nullptr;
    return;
  }
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  ZrResample* resample = new ZrResample;
  pool->addObject(resample);
  resample->hideIcon();
  resample->portData.connect(field);
  resample->fire(1);
  resample->portData.untouch(true);

  if (dataClass != 1 && dataClass != 2) {
    // Grey values: a low-pass reduction to the target dimensions.
    const int* dims = field->getDims();
    resample->portFilter.setIndex(0, 2);
    for (int i = 0; i < 3; i++)
      resample->portResolution.setValue(i, (int)std::ceil((float)dims[i] / (float)factors[i]));
    resample->portMode.setValue(0);
  } else {
    // Labels: whole blocks of voxels, so that no label value is invented.
    for (int i = 0; i < 3; i++)
      resample->portLabelFactors.setValue(i, factors[i]);
  }
  resample->portAction.hit(0);
  resample->compute();

  result = dynamic_cast<ZrRegScalarField3*>(resample->getResult(0));
  if (result)
    result->hideIcon();
  if (field && result) {
    SbMatrix m;
    field->getTransform(m);
    result->setTransform(m);
  }
  pool->removeObject(resample);
}

// ---------------------------------------------------------------------------
// Parameters
// ---------------------------------------------------------------------------

int ZrVoxelRegistration::computeNumBins(float min, float max, int primType) {
  switch (primType) {
  case 0:
  case 1:
  case 2:
  case 7:
  case 8:
  case 9:
  case 10:
    break;
  default:
    return 256;
  }
  const int lo = (int)std::floor(min + 0.5);
  const int hi = (int)std::floor(max + 0.5);
  const int r = hi - lo;
  int n = r > 255 ? 256 : r + 1;
  if (lo < hi) {
    // Whole-integer bin widths: a full 8-bit range gets 255 bins, not 256.
    const float q = (float)r / (float)n;
    const int w = (int)std::floor(q + 0.5);
    n = r / w;
  }
  if (n < 1)
    n = 1;
  return n;
}

void ZrVoxelRegistration::setFactorsAndSteps(const int* dims, const QbVec3d& delta,
                                             const QbVec3i& order, int factors[3]) {
  for (int i = 0; i < 3; i++) {
    if (factors[i] < 1)
      factors[i] = 1;
    portCoarsestResolution.setValue(i, factors[i]);
  }
  // The first step spans a fifth of the longest axis, the last a sixth of the
  // finest voxel.
  int longest = 0;
  for (int i = 1; i < 3; i++)
    if (dims[i] > dims[longest])
      longest = i;
  portStep.setValue(0, (float)(dims[longest] * delta[longest] / 5.0));
  if (delta[order[0]] > 0)
    portStep.setValue(1, (float)(delta[order[0]] / 6.0));
  else
    portStep.setValue(1, (float)(delta[order[1]] / 6.0));
}

void ZrVoxelRegistration::setReferenceDefaults(ZrRegScalarField3* reference) {
  const int* d = reference->getDims();
  const bool localizer = portOptions2.getValue(0) != 0;
  for (int i = 0; i < 3; i++) {
    if (d[i] < 2)
      portCoarsestResolution.setMinMax(i, 1, 1);
    else if (localizer)
      portCoarsestResolution.setMinMax(i, 1, 16);
    else
      portCoarsestResolution.setMinMax(i, 1, d[i] / 2);
  }

  QbVec3d delta;
  QbVec3i order;
  getMinDelta(delta, order, 0, 3);
  const int o0 = order[0], o1 = order[1], o2 = order[2];
  int f[3];
  bool isotropic = true;
  double r1 = 0, r2 = 0;
  if (delta[o0] > 0) {
    r1 = delta[o0] / delta[o1];
    r2 = delta[o0] / delta[o2];
    isotropic = r1 >= 0.9 && r2 >= 0.9;
  }
  if (isotropic) {
    // About 30 voxels per axis at the coarsest level.
    for (int i = 0; i < 3; i++)
      f[i] = d[i] / 30;
  } else {
    // Anisotropic voxels: the coarser axes are reduced less.
    f[o0] = 8;
    f[o1] = (int)(r1 * 8.0);
    f[o2] = (int)((r2 * 8.0 + r2 * 8.0) / 1.5);
  }
  setFactorsAndSteps(d, delta, order, f);
}

void ZrVoxelRegistration::setModelDefaults(ZrRegScalarField3* model) {
  const int* d = model->getDims();
  for (int i = 0; i < 3; i++) {
    if (d[i] < 2)
      portCoarsestResolution.setMinMax(i, 1, 1);
    else
      portCoarsestResolution.setMinMax(i, 1, d[i] / 2);
  }

  QbVec3d delta;
  QbVec3i order;
  getMinDelta(delta, order, 1, 3);
  const int o0 = order[0], o1 = order[1], o2 = order[2];
  const double a = delta[o2] / delta[o0];
  const double b = delta[o2] / delta[o1];
  int f[3];
  if (a > 1.1 || b > 1.1) {
    f[o0] = truncateToInt(a * 1.5);
    f[o1] = truncateToInt(b * 1.5);
    f[o2] = 2;
  } else {
    for (int i = 0; i < 3; i++)
      f[i] = d[i] / 30;
  }
  setFactorsAndSteps(d, delta, order, f);
}

void ZrVoxelRegistration::updateReference() {
  if (!portReference.isNew())
    return;
  references.clear();
  if (ZrRegScalarField3* field = portReference.source<ZrRegScalarField3>())
    references.append(field);
}

void ZrVoxelRegistration::update() {
  const bool referenceNew = portReference.isNew();
  const bool modelNew = portData.isNew();

  // 1. A new reference: defaults and data class. Without a reference the
  // class falls back to grey values, so that a disconnected label input no
  // longer offers the label metric.
  if (referenceNew) {
    ZrRegScalarField3* R =
        references.isEmpty() ? nullptr : dynamic_cast<ZrRegScalarField3*>(references[0]);
    if (R) {
      if (parameterSource == 1)
        setReferenceDefaults(R);
      referenceClass = isLabelField(R) ? RegDataClassLabel : RegDataClassGrey;
    } else {
      referenceClass = RegDataClassGrey;
    }
  }
  // 2.
  ZrRegScalarField3* R =
      references.isEmpty() ? nullptr : dynamic_cast<ZrRegScalarField3*>(references[0]);

  // 3. A new model: the model array, defaults, data class and interpolation.
  if (modelNew) {
    models.clear();
    if (ZrRegScalarField3* field = portData.source<ZrRegScalarField3>())
      models.append(field);
    ZrRegScalarField3* M = models.isEmpty() ? nullptr : static_cast<ZrRegScalarField3*>(models[0]);
    if (M && parameterSource == 0)
      setModelDefaults(M);
    if (isLabelField(M)) {
      modelClass = RegDataClassLabel;
      interpolator = RegInterpolatorNearest;
    } else {
      modelClass = RegDataClassGrey;
      interpolator = RegInterpolatorStandard;
    }
  }
  ZrRegScalarField3* M = models.isEmpty() ? nullptr : dynamic_cast<ZrRegScalarField3*>(models[0]);

  // 4. Two label inputs offer the label metric and select it.
  if (referenceNew || modelNew) {
    if (referenceClass == RegDataClassLabel && modelClass == RegDataClassLabel) {
      portMetric.setNum(0, 5);
      portMetric.setLabel(0, 4, "Label difference");
      portMetric.setIndex(0, 4);
    } else {
      portMetric.setNum(0, 4);
    }
  }

  // 5.
  if ((referenceNew || modelNew) && R && M) {
    portNLevelsGradient.setValue(0, 1.0f);
    portNLevelsGradient.setValue(1, 0.0001f);
  }

  // 6. A flat axis is never reduced.
  if (R && M) {
    dimensionMode = getDimension(0);
    if (dimensionMode >= 0 && dimensionMode <= 2)
      portCoarsestResolution.setValue(dimensionMode, 1);
  }

  // 7. to 10. Histogram ranges and bins.
  if (referenceNew && R) {
    float min = 0, max = 0;
    R->getRange(min, max, 0);
    portHistogramRangeRef.setValue(0, min);
    portHistogramRangeRef.setValue(1, max);
  }
  if ((referenceNew || portHistogramRangeRef.isNew()) && R)
    portHistogramBins.setValue(0, computeNumBins(portHistogramRangeRef.getValue(0),
                                                 portHistogramRangeRef.getValue(1), R->primType()));
  if (modelNew && M) {
    float min = 0, max = 0;
    M->getRange(min, max, 0);
    portHistogramRangeMod.setValue(0, min);
    portHistogramRangeMod.setValue(1, max);
  }
  if ((modelNew || portHistogramRangeMod.isNew()) && M)
    portHistogramBins.setValue(1, computeNumBins(portHistogramRangeMod.getValue(0),
                                                 portHistogramRangeMod.getValue(1), M->primType()));

  // 11. Visibility.
  const int optimizerIndex = portOptimizer.getIndex(0);
  if (!portExtendedOptions.getValue(0)) {
    portOptimizer.hide();
    portExtensiveSearch.hide();
    portStep.hide();
    portNLevelsGradient.hide();
    portCoarsestResolution.hide();
    portOptions.hide();
    portOptions2.hide();
    portHistogramRangeRef.hide();
    portHistogramRangeMod.hide();
    portHistogramBins.hide();
  } else {
    portOptimizer.show();
    portStep.show();
    portNLevelsGradient.show();
    portCoarsestResolution.show();
    portOptions.show();
    portOptions2.show();
    if (optimizerIndex == 4)
      portExtensiveSearch.show();
    else
      portExtensiveSearch.hide();
    const int metricIndex = portMetric.getIndex(0);
    if (metricIndex < 2) {
      portHistogramRangeRef.setLabel("Histogram range reference:");
      portHistogramRangeMod.setLabel("Histogram range model:");
      portHistogramRangeRef.show();
      portHistogramRangeMod.show();
      portHistogramBins.show();
    } else if (metricIndex == 3) {
      portHistogramRangeRef.setLabel("Range reference:");
      portHistogramRangeMod.setLabel("Range model:");
      portHistogramRangeRef.show();
      portHistogramRangeMod.show();
      portHistogramBins.hide();
    } else {
      portHistogramRangeRef.hide();
      portHistogramRangeMod.hide();
      portHistogramBins.hide();
    }
  }

  // 12. "Finest levels:" is a whole number; its tolerance matters only when
  // some level runs the gradient optimizer.
  const bool gradientMenu = optimizerIndex == 2 || optimizerIndex == 3;
  if (portNLevelsGradient.isNew()) {
    const float finest = std::floor(portNLevelsGradient.getValue(0));
    portNLevelsGradient.setValue(0, finest);
    portNLevelsGradient.setSensitivity(1, (finest == 0 && !gradientMenu) ? 0 : 1);
  }

  // 13.
  ignoreFinest = portOptions.getValue(0) ? 1 : 0;

  // 14. A new optimizer choice.
  if (portOptimizer.isNew()) {
    if (optimizerIndex == 4) {
      portExtensiveSearch.setValue(0, 1);
      portExtensiveSearch.show();
    } else {
      portExtensiveSearch.setValue(0, 0);
      portExtensiveSearch.hide();
    }
    portNLevelsGradient.setSensitivity(
        1, (portNLevelsGradient.getValue(0) != 0 || gradientMenu) ? 1 : 0);
    if (gradientMenu) {
      // Every level runs the gradient optimizer already: no switch.
      portNLevelsGradient.setValue(0, 0.0f);
      portNLevelsGradient.setSensitivity(0, 0);
    } else {
      portNLevelsGradient.setValue(0, 2.0f);
      portNLevelsGradient.setValue(1, 0.0001f);
      portNLevelsGradient.setSensitivity(0, 1);
      portNLevelsGradient.setSensitivity(1, 1);
    }
  }
}
