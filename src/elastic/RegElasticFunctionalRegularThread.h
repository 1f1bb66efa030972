#pragma once
// Worker of the parallel gradient of RegElasticFunctionalRegular: the same
// round-robin probing as RegElasticFunctionalThread, sampling the model's raw
// voxels with its own metric clone's sampler. In two dimensions the
// functional's derivative images are shared and only read; the worker owns the
// incremental copies and the scratch planes.
#include "QbDArray.h"
#include "QbDVector.h"
#include "QbPrimType.h"
#include "QbVec3d.h"
#include "QbVec3f.h"
#include "RegElasticProbeMetrics.h"
#include "ZrThread.h"

#include <cstdint>

class RegElasticFunctionalRegular;
class RegMetric;
class RegSplineTransform;

class RegElasticFunctionalRegularThread : public ZrThread {
public:
  RegMetric* metric = nullptr; // owned clone
  RegElasticFunctionalRegular* functional;
  short threadIndex;
  double base = 0.0;
  double* gradient = nullptr;
  float step = 0.0f;
  int keepAll = 0;
  QbDVector<double> params;
  // The functional's localParams, copied for each gradient: the frame of the
  // three-dimensional regularised probes under a model transformation.
  QbDVector<double> localParams;
  // Unregularised or two-dimensional: the functional's grid, shared. Three-
  // dimensional regularised: a line of nx entries of its own.
  QbVec3f* grid = nullptr;
  float* cachedJacobian = nullptr;
  float* cachedEnergy = nullptr;
  // The functional's model markers, as its own landmark term reads them.
  QbDArray<QbVec3f>* landmarksModel;
  int numLandmarks;
  float landmarkWeight;
  int* maxInfluence = nullptr;
  QbVec3f* incGrid = nullptr;
  // Three-dimensional regularised: dXX, dYY, dZZ, dXY, dXZ, dYZ, dX, dY, dZ.
  QbVec3d* lineBuffers[9] = {nullptr, nullptr, nullptr, nullptr, nullptr,
                             nullptr, nullptr, nullptr, nullptr};
  float* incPlane = nullptr;
  float* incLine = nullptr;
  float jacobianWeight = 0.0f;
  double jacobianSum = 0.0;
  double energySum = 0.0;
  int64_t numVoxels = 0;
  float energyWeight = 0.0f;
  int regularizerMode = 0;
  QbPrimType primType;
  float* paramSteps;
  int* dims;
  bool is2D;
  void* referenceVoxels;
  void* modelVoxels;
  int (*influenceBoxes)[6];
  float* cachedSamples = nullptr;
  RegSplineTransform* transform;
  float* modelBox;
  int* modelDims;
  unsigned char boxFlags;
  float scaleX, scaleY, scaleZ;
  // Two-dimensional regularised case: the five shared images, the worker's
  // incremental copies, its (1, 1, 1) column and the other eight scratch
  // blocks of the incremental routine (planes 1 to 5, lines 1 and 2).
  QbVec3d *dX = nullptr, *dY = nullptr, *dXX = nullptr, *dYY = nullptr, *dXY = nullptr;
  QbVec3d *incDx = nullptr, *incDy = nullptr, *incDxx = nullptr, *incDyy = nullptr,
          *incDxy = nullptr, *dZ = nullptr;
  float* incPlanes[5] = {nullptr, nullptr, nullptr, nullptr, nullptr};
  float* incLines[2] = {nullptr, nullptr};

  RegElasticFunctionalRegularThread(RegElasticFunctionalRegular* functional, int threadIndex,
                                    float* paramSteps, QbPrimType primType, void* referenceVoxels,
                                    void* modelVoxels, float* modelBox, unsigned char boxFlags,
                                    int* dims, int* modelDims, int (*influenceBoxes)[6],
                                    RegSplineTransform* transform, float scaleX, float scaleY,
                                    float scaleZ, QbDArray<QbVec3f>* landmarks, int numLandmarks,
                                    float landmarkWeight);
  ~RegElasticFunctionalRegularThread() override;

  void init(QbDVector<double> params, double* gradient, double& step, int& keepAll, double& base,
            long numVoxels, float* cachedSamples, float* cachedEnergy, float* cachedJacobian,
            int* maxInfluence, QbVec3f* grid, double energySum, double jacobianSum,
            float energyWeight, float jacobianWeight, QbVec3d* dX, QbVec3d* dY, QbVec3d* dXX,
            QbVec3d* dYY, QbVec3d* dXY);

  // This worker's clone of the functional's metric with the box of control
  // point boxOutPoint taken out (-1: none), as in the functional; owned.
  RegMetric* metricBoxOut = nullptr;
  int boxOutPoint = -1;
  const uint8_t* boxOutStill = nullptr;
  // The metrics of the probes of one point, as in the functional.
  RegElasticProbeMetrics probeMetrics;

  double evaluateIncremental(int index, float delta);
  // The functional's runProbes() on this worker's state.
  void runProbes(const RegElasticPointProbes& probes);
  double evaluateIncrementalWithRegularizer(int index, float delta);
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
