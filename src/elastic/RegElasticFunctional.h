#pragma once
// Objective of the B-spline registration. Every reference voxel is mapped
// through a voxel spline transform, the model is sampled there, and the metric
// compares. A spline parameter moves the deformation only inside the box of
// influence of its control point, so the functional keeps one full evaluation
// as a cache (metric statistics, transformed positions, model samples) and
// probes each parameter by taking the old samples of its box out of a copy of
// the metric and putting the new ones in: a gradient costs boxes, not volumes.
//
// This class samples the model through a field evaluator and serves models of
// any coordinates (and the correlation metric in every case). The subclass
// RegElasticFunctionalRegular reads uniform models' raw voxels instead.
//
// Values are to be maximised. The invalid value (-FLT_MAX widened to double)
// means a folding deformation or a stop during a gradient.
#include "QbDArray.h"
#include "QbDVector.h"
#include "QbPrimType.h"
#include "QbVec3d.h"
#include "QbVec3f.h"
#include "RegDataClass.h"
#include "RegElasticPointProbes.h"
#include "RegElasticProbeMetrics.h"
#include "RegFunctional.h"
#include "RegInterpolator.h"

#include <cstdint>

class RegElasticAnalyticGradient;
class RegElasticFunctionalThread;
class RegMetric;
class RegOptimizerCallback;
class RegParametricTransform;
class RegSplineTransform;
class RegVoxelEvaluator;
class ZrFieldEvaluator;
class ZrLandmarkSet;
class ZrLocation3;
class ZrSpatialData;

// The value of a rejected transform: the most negative single-precision number.
const double REG_INVALID_VALUE = -3.4028234663852886e+38;
// What a caching pass returns when it counted no voxel.
const double REG_NO_VOXELS_VALUE = 1.1754943508222875e-38;

class RegElasticFunctional : public RegFunctional {
public:
  // `transform` cast down; null when the transform is no voxel spline.
  RegSplineTransform* splineTransform = nullptr;
  // Workers of the parallel gradient; empty unless numThreads is above 1.
  QbDArray<RegElasticFunctionalThread*> threads;
  QbDArray<ZrFieldEvaluator*> threadEvaluators;
  QbDArray<ZrLocation3*> threadLocations;
  // Owned clone of `metric`: every probe runs on it, so that `metric` keeps
  // the statistics of the last full pass.
  RegMetric* metricWork = nullptr;
  // Owned clone of `metric` with the cached samples of the box of control
  // point `boxOutPoint` taken out (-1: none). The gradient's unregularised
  // probes of that point, up to six, start from it and only add their new
  // samples, so that the box is taken out once rather than in every probe.
  RegMetric* metricBoxOut = nullptr;
  // The metrics of those probes, filled together by one walk of the box.
  RegElasticProbeMetrics probeMetrics;
  int boxOutPoint = -1;
  // The still-voxel map that taking out saw (see RegElasticPointProbes).
  const uint8_t* boxOutStill = nullptr;
  bool is2D = false;
  int dims[3] = {0, 0, 0};
  // Largest extent of any box of influence per axis.
  int maxInfluence[3] = {1, 1, 1};
  // Scratch of the incremental grid routines: a plane holds mx * my QbVec3f,
  // a line mx QbVec3f.
  float* incPlane0 = nullptr;
  float* incLine0 = nullptr;
  float* incPlane1 = nullptr;
  float* incPlane2 = nullptr;
  float* incLine1 = nullptr;
  float* incPlane3 = nullptr;
  float* incPlane4 = nullptr;
  float* incLine2 = nullptr;
  float* incPlane5 = nullptr;
  // Scratch of getTransformedGridComplete: nx*cpY*cpZ and nx*ny*cpZ entries.
  QbVec3f* gridPartialY = nullptr;
  QbVec3f* gridPartialZ = nullptr;
  // The same for the two-dimensional regularised pass, nx*cpY*cpZ each.
  QbVec3d* derivPartialY = nullptr;
  QbVec3d* derivPartialZ = nullptr;
  RegDataClass dataClass;
  short numThreads = 1;
  // True until updateFixedControlPoints() has run on this functional.
  bool fixPending = true;
  // One per parameter: 1.0 for a free, 0.0 for a frozen coordinate.
  float* paramSteps = nullptr;
  // Transformed voxel positions: all N, or one line of nx (3-D regularised).
  QbVec3f* grid = nullptr;
  // New positions of one box, in walking order; the two-dimensional
  // regularised probe only (the others form them in their walk).
  QbVec3f* incGrid = nullptr;
  // First derivatives (columns of the Jacobian) and second derivatives.
  QbVec3d* dX = nullptr;
  QbVec3d* dY = nullptr;
  QbVec3d* dZ = nullptr;
  QbVec3d* incDx = nullptr;
  QbVec3d* incDy = nullptr;
  QbVec3d* dXX = nullptr;
  QbVec3d* dYY = nullptr;
  QbVec3d* dZZ = nullptr;
  QbVec3d* dXY = nullptr;
  QbVec3d* dXZ = nullptr;
  QbVec3d* dYZ = nullptr;
  QbVec3d* incDxx = nullptr;
  QbVec3d* incDyy = nullptr;
  QbVec3d* incDxy = nullptr;
  // Per parameter: x0, x1, y0, y1, z0, z1, bounds included.
  int (*influenceBoxes)[6] = nullptr;
  // Model sample of each reference voxel from the last caching pass.
  float* cachedSamples = nullptr;
  // Per-voxel penalty terms of the last regularised caching pass.
  float* cachedJacobian = nullptr;
  float* cachedEnergy = nullptr;
  bool fixLowEntropy = false;
  float jacobianWeight = 0.0f;
  double jacobianSum = 0.0;
  double energySum = 0.0;
  float energyWeight = 0.0f;
  float landmarkWeight = 0.0f;
  // Not owned; may be null.
  ZrLandmarkSet* landmarks = nullptr;
  // Owned copies of marker set 1 (reference side) and marker set 0 (model).
  QbDArray<QbVec3f>* landmarksReference = nullptr;
  QbDArray<QbVec3f>* landmarksModel = nullptr;
  int numLandmarks = 0;
  // Voxels counted by the last regularised caching pass.
  int64_t numVoxels = 0;
  double savedJacobianSum = 0.0;
  double savedEnergySum = 0.0;
  int64_t savedNumVoxels = 0;
  // 0 none, 1 grid energy, 2 Jacobian, 3 both.
  int regularizerMode = 0;
  // Raw voxels of references[0] and models[0], not owned.
  void* referenceVoxels = nullptr;
  void* modelVoxels = nullptr;
  // Voxel type of references[0]; the model has the same.
  QbPrimType primType = QB_UINT8;
  RegInterpolator interpolator;
  // Owned; samples models[0] on the serial path.
  RegVoxelEvaluator* evaluator = nullptr;
  // With a model transformation: the parameters of the last regularised
  // caching pass mapped into the model's local coordinates, which the
  // three-dimensional regularised probes read (see RegProbeParams).
  QbDVector<double> localParams;
  // How evaluate(gradient, step, keepAll) differentiates: 0 by central
  // differences, 1 analytically where RegElasticAnalyticGradient serves the
  // metric and model (else, with a message, by central differences). Read by
  // init().
  int gradientMethod = 0;
  // Owned; made by init() when the analytic gradient is chosen and available.
  RegElasticAnalyticGradient* analyticGradient = nullptr;

  RegElasticFunctional(const QbDArray<ZrSpatialData*>& references, QbDArray<ZrSpatialData*>& models,
                       RegInterpolator interpolator, RegParametricTransform* transform,
                       RegMetric* metric, RegOptimizerCallback* callback, RegDataClass dataClass,
                       ZrLandmarkSet* landmarks, bool fixLowEntropy);
  ~RegElasticFunctional() override;

  double evaluateAndCache() override;
  double evaluate() override;
  double evaluate(QbDVector<double>& gradient, double step, int keepAll) override;
  using RegFunctional::evaluateIncremental;

  // Adds the landmark term, when there are landmarks and a weight.
  virtual double getWeightedResult(double result) const;
  virtual double evaluateAndCacheWithRegularizer();
  // One probe: parameter `index` moved by `delta` from the cached state.
  virtual double evaluateIncremental(int index, float delta);
  // The probe of the gradient loop (unregularised): the value of
  // evaluateIncremental(index, delta), up to rounding, from the box of the
  // parameter's control point taken out once for all its probes.
  double evaluateProbe(int index, float delta);
  // The unregularised probes of one control point, from the box taken out
  // once: their values after the call are probeMetrics[k]'s results.
  void runProbes(const RegElasticPointProbes& probes);
  // One regularised probe at the transform's present parameters.
  virtual double evaluateIncrementalWithRegularizer(int index);
  virtual double evaluateWithRegularizer();
  virtual void resetEval();
  virtual void init();
  virtual void createThreads();
  // Freezes the control points that see nothing worth matching.
  virtual void updateFixedControlPoints();

  // Maps the present parameters into localParams (model transformation only);
  // the regularised caching passes call it.
  void cacheLocalParams();
  // Minus the mean squared distance of the transformed reference landmarks
  // to the model landmarks.
  double evaluateLandmarks() const;
  // Threads for the gradient: the host's thread count, at least 1.
  short getNumberOfProcessors();
  // The gradient runs on workers (two threads or more) rather than in the
  // serial loop.
  bool usesWorkers() const { return numThreads > 1; }

  // The general class has no two-dimensional regularised form. Returns false,
  // and prints why, for a two-dimensional reference with a regulariser weight
  // above 0 on a class without that form; the module calls this before a run
  // starts and refuses the run. init() repeats the check as a last guard.
  static bool checkRegularizer(ZrSpatialData* reference, float energyWeight, float jacobianWeight,
                               bool regularClass);

protected:
  // The two halves of the unregularised probes: takes the box of the probes'
  // control point out of metricBoxOut, and adds the samples of the probes,
  // probe k to probeMetrics[k], in one walk.
  virtual void takeOutBox(const RegElasticPointProbes& probes);
  virtual void addProbes(const RegElasticPointProbes& probes);
  // The gradient loop of the worker threads (numThreads above 1). False when
  // the user stopped the run.
  bool runThreads(QbDVector<double>& gradient, double step, int keepAll, double base);
};
