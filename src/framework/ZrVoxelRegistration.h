#pragma once
// Abstract compute module of every registration: the coarse-to-fine driver.
//
// A run builds a pyramid of resampled reference and model fields, makes one
// functional per level through createFunctional(), pops the functionals
// coarsest first, runs one optimizer on each and hands the transform on from
// level to level. Concrete modules supply the transform (createTransform),
// the functionals (createFunctional), compute() and applyTransform().
//
// The module is also the RegOptimizerCallback that its optimizers and
// functionals hold.
//
// Ports (in order of construction, behind the data port "model"):
//   optimizer, extensiveSearch, step, nLevelsGradient, coarsestResolution,
//   metric, histogramRangeRef, histogramRangeMod, histogramBins, reference,
//   options, options2, extendedOptions, action.
#include "QbDArray.h"
#include "QbVec3d.h"
#include "QbVec3i.h"
#include "RegDataClass.h"
#include "RegInterpolator.h"
#include "RegOptimizerCallback.h"
#include "ZrCompModule.h"
#include "ZrConnection.h"
#include "ZrPortButtonList.h"
#include "ZrPortFloatTextN.h"
#include "ZrPortIntTextN.h"
#include "ZrPortMultiMenu.h"
#include "ZrPortToggleList.h"

class RegFunctional;
class RegParametricTransform;
class ZrOptimizer;
class ZrRegScalarField3;
class ZrSpatialData;

class ZrVoxelRegistration : public ZrCompModule, public RegOptimizerCallback {
public:
  // The fields of one resolution level (one per reference channel, or the
  // one model field), and the levels of a pyramid, index 0 the finest.
  typedef QbDArray<ZrSpatialData*> FieldArray;
  typedef QbDArray<FieldArray> LevelArray;
  // Functionals of a run; the coarsest level lies on top.
  typedef QbDArray<RegFunctional*> FunctionalStack;

  ZrVoxelRegistration();
  ~ZrVoxelRegistration() override;

  // --- Ports, in order of construction -------------------------------------
  // Menu 0 chooses the optimizer class; menu 1 ("Ramp", "Cycles") is shown
  // insensitive and read by nothing.
  ZrPortMultiMenu portOptimizer;
  // Exhaustive line search of the "Line search" optimizer.
  ZrPortToggleList portExtensiveSearch;
  // "initial:" and "final:" step size.
  ZrPortFloatTextN portStep;
  // "Finest levels:" run by the quasi-Newton optimizer, and its tolerance.
  ZrPortFloatTextN portNLevelsGradient;
  // Sampling factors of the coarsest pyramid level.
  ZrPortIntTextN portCoarsestResolution;
  ZrPortMultiMenu portMetric;
  ZrPortFloatTextN portHistogramRangeRef;
  ZrPortFloatTextN portHistogramRangeMod;
  ZrPortIntTextN portHistogramBins;
  ZrConnection portReference;
  // "Ignore finest resolution".
  ZrPortToggleList portOptions;
  // "Localizer": the slice direction of a 3-D reference is not reduced.
  ZrPortToggleList portOptions2;
  // Shows the expert ports.
  ZrPortToggleList portExtendedOptions;
  // Three buttons, labelled by the concrete module.
  ZrPortButtonList portAction;

  // --- Run-time fields -------------------------------------------------------
  // Re-entrancy guard of compute(); 0 at rest.
  short computing = 0;
  // Reference fields, not owned; element 0 is the primary one.
  FieldArray references;
  // Model fields, not owned.
  FieldArray models;
  // Ratio of model extent to reference extent, handed to the metrics.
  double maxCoverage = 1.0;
  // -1 undetermined or incompatible lattices, 0..2 the flat axis of a 2-D
  // registration, 3 full 3-D, 4 planar motion plus z translation.
  int dimensionMode = -1;
  int numThreads = 1;
  RegInterpolator interpolator = RegInterpolatorStandard;
  RegDataClass referenceClass = RegDataClassGrey;
  RegDataClass modelClass = RegDataClassGrey;
  // Owned; made by createTransform(), deleted by the concrete module.
  RegParametricTransform* transform = nullptr;
  // Owned, together with the functionals in it; exists only during a run.
  FunctionalStack* functionals = nullptr;
  // The level being optimised; null between levels.
  RegFunctional* currentFunctional = nullptr;
  // Owned; exists only during a run.
  ZrOptimizer* optimizer = nullptr;
  // Reduction ratio between pyramid levels.
  int samplingFactor = 3;
  // Ratio of successive step sizes inside one level.
  double stepFactor = 0.5;
  // 1: defaults follow the reference; 0: they follow the model.
  int parameterSource = 1;
  // 1 when "Ignore finest resolution" is on.
  int ignoreFinest = 0;

  // --- Virtual operations, in slot order --------------------------------------
  // A new functional for one level, owned by the driver from then on.
  virtual RegFunctional* createFunctional(FieldArray& references, FieldArray& models, int, int) = 0;
  // Shows `text` in an information box; the text is used as a printf format,
  // so a literal percent sign must be written "%%".
  void trace(const char* text) override;
  // Creates `transform`.
  virtual void createTransform() = 0;
  // The whole run: plan, optimise level by level, report.
  virtual void doRegistration();
  // Builds the two level arrays (LevelArray*) from the inputs. `coarsest`
  // holds the wanted factors of the coarsest level and is changed in place.
  virtual void doResampling(void* referenceLevels, QbVec3i& coarsest, void* modelLevels);
  // One reduced copy of `field` by the per-axis `factors`, a hidden object of
  // the pool; `field` itself where all factors are 1.
  virtual void downsample(ZrRegScalarField3* field, ZrRegScalarField3*& result, QbVec3i& factors,
                          RegDataClass dataClass);
  // Starts the watch, builds the pyramid and the functionals, creates the
  // optimizer. Non-zero on success.
  virtual int initRegistration();
  // One isotropic step of the reference factors.
  virtual void sampleInIsotropy(QbVec3i& factors, bool* keepGoing, QbVec3i& coarsest, int dim);
  // Model factors whose voxel size matches the reference's at this level.
  virtual void sampleModel(QbVec3i& order, QbVec3i& refFactors, QbVec3i& modFactors,
                           QbVec3d& refVoxel, QbVec3d& modDelta, int dim);
  virtual void enterResolution(int level, int numLevels, RegFunctional* functional);
  virtual void doResolution(int level, int numLevels, RegFunctional* functional, double startStep,
                            double endStep);
  // Non-zero when the level is done.
  virtual int doneResolution(int level, int numLevels);
  // Stops the watch, reports the time and frees the run's objects.
  virtual void doneRegistration();
  // With the finest level left out: a functional on a cheaper form of that
  // level (`finest`, which the caller then deletes) that refines the result
  // of the levels above, or null to end there.
  virtual RegFunctional* finestRefinement(RegFunctional* finest) { return nullptr; }
  // Rebuilds `references` from the port "reference".
  virtual void updateReference();

  // Reacts to new inputs and ports: defaults of coarsest factors, steps,
  // histogram ranges and bins, the metric menu, visibility.
  void update() override;
  // The concrete module's entry.
  void compute() override = 0;

  // --- Resolution planning ---------------------------------------------------
  // Flat axis (0, 1, 2) of reference `index` together with model 0, 3 for
  // none, -1 when the lattices cannot be registered (with a message).
  int getDimension(int index);
  // Voxel sizes of one field, and its axes in working order: order[0] the
  // finest, order[2] the coarsest or the flat one. `which` > 0 selects model
  // 0, otherwise reference -which (clamped to the last). `skipAxis` is a
  // dimensionMode, 3 for none.
  void getMinDelta(QbVec3d& delta, QbVec3i& order, int which, int skipAxis);
  // maxCoverage = model extent / reference extent, when the reference is the
  // larger; otherwise it keeps its value.
  void calculateMaxCoverage();

  // --- Helpers of the driver and of the concrete modules ------------------------
  // Ends a level's data: every field of the functional that is not one of the
  // inputs is a resampled copy; it leaves the pool and its slot becomes null.
  void releaseLevel(RegFunctional* functional);
  // Push and pop on `functionals`; pop gives null on an empty stack.
  void pushFunctional(RegFunctional* functional);
  RegFunctional* popFunctional();
  // The optimizer of entry `menuIndex` of the port "optimizer"; null for an
  // index outside the table. `tolerance` is what the quasi-Newton kinds get.
  ZrOptimizer* createOptimizer(int menuIndex, double tolerance);
  // Histogram bins for a data range: integer types get about one bin per
  // integer value, at most 256; other types 256.
  static int computeNumBins(float min, float max, int primType);
  // The choice of coarsest factors and steps from reference 0 (or model 0).
  void setReferenceDefaults(ZrRegScalarField3* reference);
  void setModelDefaults(ZrRegScalarField3* model);
  // The data port, which this module names "model".
  ZrConnection& portModel() { return portData; }

private:
  // Steps 5 to 7 of the defaults: coarsest factors and steps from lattice
  // dimensions and voxel sizes.
  void setFactorsAndSteps(const int* dims, const QbVec3d& delta, const QbVec3i& order,
                          int factors[3]);
};
