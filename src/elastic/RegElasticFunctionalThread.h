#pragma once
// Worker of the parallel gradient of RegElasticFunctional. Every parameter is
// probed independently from the one cached state of the functional, so the
// control points are dealt round-robin to the workers: worker k probes the
// parameters of points k, k + numThreads, ..., taking each point's box out
// once for its probes. Each worker has its own metric clones, parameter
// copy, evaluator, location and scratch; the functional's metric, caches and
// grid are shared and only read, and so is the transform (its forms with an
// explicit parameter vector). Workers stop at the user's request. Each
// gradient entry has one writer, so the workers write straight into the
// caller's vector.
#include "QbDArray.h"
#include "QbDVector.h"
#include "QbPrimType.h"
#include "QbVec3d.h"
#include "QbVec3f.h"
#include "RegElasticProbeMetrics.h"
#include "ZrThread.h"

#include <cstdint>

class RegElasticFunctional;
class RegMetric;
class ZrFieldEvaluator;
class ZrLocation3;

class RegElasticFunctionalThread : public ZrThread {
public:
  // This worker's clone of the functional's metric; owned.
  RegMetric* metric = nullptr;
  // The owner; not owned.
  RegElasticFunctional* functional;
  short threadIndex;
  // Value of the caching pass.
  double base = 0.0;
  // The caller's gradient data; not owned.
  double* gradient = nullptr;
  float step = 0.0f;
  int keepAll = 0;
  // This worker's copy of the transform's parameters.
  QbDVector<double> params;
  // The functional's localParams, copied for each gradient: the frame of the
  // three-dimensional regularised probes under a model transformation.
  QbDVector<double> localParams;
  // Unregularised: the functional's grid, shared. Regularised: a line of nx
  // entries of its own.
  QbVec3f* grid = nullptr;
  float* cachedJacobian = nullptr;
  float* cachedEnergy = nullptr;
  QbDArray<QbVec3f>* landmarksModel;
  int numLandmarks;
  float landmarkWeight;
  int* maxInfluence = nullptr;
  // Owned, unregularised only: M entries.
  QbVec3f* incGrid = nullptr;
  // Owned, regularised only: the nine derivative lines (dXX, dYY, dZZ, dXY,
  // dXZ, dYZ, dX, dY, dZ), nx entries each.
  QbVec3d* lineBuffers[9] = {nullptr, nullptr, nullptr, nullptr, nullptr,
                             nullptr, nullptr, nullptr, nullptr};
  // Owned, unregularised only; the probes' x weights use incLine.
  float* incPlane = nullptr;
  float* incLine = nullptr;
  float jacobianWeight = 0.0f;
  double jacobianSum = 0.0;
  double energySum = 0.0;
  int64_t numVoxels = 0;
  float energyWeight = 0.0f;
  int regularizerMode = 0;
  // Reference voxels; not owned.
  void* voxels;
  QbPrimType primType;
  // The functional's steps; shared, only read.
  float* paramSteps;
  // This worker's own pair, from the functional's arrays.
  ZrFieldEvaluator* evaluator;
  ZrLocation3* location;
  int* dims;

  // Only stores what it is given.
  RegElasticFunctionalThread(RegElasticFunctional* functional, int threadIndex, float* paramSteps,
                             ZrFieldEvaluator* evaluator, ZrLocation3* location,
                             QbPrimType primType, void* voxels, int* dims,
                             QbDArray<QbVec3f>* landmarksModel, int numLandmarks,
                             float landmarkWeight);
  ~RegElasticFunctionalThread() override;

  // Prepares one gradient: a fresh metric clone, the parameters and the state
  // of the caching pass. An allocation failure is reported and ignored.
  void init(QbDVector<double> params, double* gradient, double step, int keepAll, double base,
            long numVoxels, float* cachedEnergy, float* cachedJacobian, int* maxInfluence,
            QbVec3f* grid, double energySum, double jacobianSum, float energyWeight,
            float jacobianWeight);

  // This worker's clone of the functional's metric with the box of control
  // point boxOutPoint taken out (-1: none), as in the functional; owned.
  RegMetric* metricBoxOut = nullptr;
  int boxOutPoint = -1;
  // The metrics of the probes of one point, as in the functional.
  RegElasticProbeMetrics probeMetrics;

  double evaluateIncremental(int index, float delta);
  // The functional's runProbes() on this worker's state.
  void runProbes(const RegElasticPointProbes& probes);
  double evaluateIncrementalWithRegularizer(int index);
  double getWeightedResult(double result) const;
  double evaluateLandmarks() const;

protected:
  void run() override;

private:
  // Frees the buffers this worker owns.
  void freeBuffers();
  // The grid is a line of this worker's own (three-dimensional regularised).
  bool ownsGrid = false;
};
