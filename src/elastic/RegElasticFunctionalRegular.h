#pragma once
// Elastic functional for a model on uniform coordinates, with every metric but
// the correlation. Instead of a field evaluator it reads the model's raw
// voxels through the metric's sampler (trilinear, or the nearest voxel for
// label difference), which interpolates, clamps into the lattice and feeds the
// metric in one call. It also has the two-dimensional regularised path that
// the general class lacks, with whole derivative images so that a probe costs
// a box.
#include "RegElasticFunctional.h"

#include <cstdint>
#include <vector>

class RegElasticFunctionalRegularThread;

class RegElasticFunctionalRegular : public RegElasticFunctional {
public:
  // Workers of this class; the base's `threads` stays empty.
  QbDArray<RegElasticFunctionalRegularThread*> regularThreads;
  // Voxels counted by the last regularised caching pass.
  int64_t regularNumVoxels = 0;
  int64_t savedRegularNumVoxels = 0;
  // Bounding box (xmin, xmax, ymin, ymax, zmin, zmax) and dimensions of
  // models[0].
  float modelBox[6] = {0, 0, 0, 0, 0, 0};
  int modelDims[3] = {0, 0, 0};
  // Which axes of the model have extent (bit 0 x, 1 y, 2 z). Carried along to
  // the templates, which do not read it.
  unsigned char boxFlags = 0;
  // Voxels per world unit of the model.
  float scaleX = 0.0f, scaleY = 0.0f, scaleZ = 0.0f;
  // Owned float copies of reference and model when their voxel types differ
  // (see the constructor); null otherwise.
  float* floatReference = nullptr;
  float* floatModel = nullptr;
  // The gradient's still voxels, or null (markStillVoxels()); the model's
  // constant blocks they are read from, found once for `blocksModel`.
  const uint8_t* stillVoxels = nullptr;
  std::vector<uint8_t> stillMap, modelBlocks;
  const void* blocksModel = nullptr;

  RegElasticFunctionalRegular(QbDArray<ZrSpatialData*>& references,
                              QbDArray<ZrSpatialData*>& models, RegInterpolator interpolator,
                              RegParametricTransform* transform, RegMetric* metric,
                              RegOptimizerCallback* callback, RegDataClass dataClass,
                              ZrLandmarkSet* landmarks, bool fixLowEntropy);
  ~RegElasticFunctionalRegular() override;

  double evaluateAndCache() override;
  double evaluate() override;
  double evaluate(QbDVector<double>& gradient, double step, int keepAll) override;
  double evaluateAndCacheWithRegularizer() override;
  using RegElasticFunctional::evaluateIncremental;
  double evaluateIncremental(int index, float delta) override;
  double evaluateWithRegularizer() override;
  void resetEval() override;
  void createThreads() override;
  void updateFixedControlPoints() override;
  using RegElasticFunctional::evaluateIncrementalWithRegularizer;
  // One regularised probe: parameter `index` moved by `delta` (the delta
  // feeds the two-dimensional incremental images).
  virtual double evaluateIncrementalWithRegularizer(int index, float delta);

  // Sets the sampling state of `m` for this functional's model.
  void setSamplingState(RegMetric* m) const;

protected:
  void takeOutBox(const RegElasticPointProbes& probes) override;
  // The still voxels of the gradient about to run with `step` (see
  // reg_evaluateElasticStill.h), marked from the caching pass; null where the
  // probes' walk does not skip them (penalties, two dimensions, a model
  // transformation, a metric other than mutual information) or a probe may
  // move a voxel too far for the map.
  const uint8_t* markStillVoxels(double step);
  void addProbes(const RegElasticPointProbes& probes) override;
  // False when the user stopped the run.
  bool runRegularThreads(QbDVector<double>& gradient, double& step, int& keepAll, double& base);
  // Gives the entries whose probes folded (the invalid value) the entry of
  // largest magnitude, as the serial loop and the workers leave them alike.
  void replaceFoldedEntries(QbDVector<double>& gradient, int keepAll) const;
};
