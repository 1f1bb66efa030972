#pragma once
// Abstract objective that an optimizer maximises: reference data, model data,
// one transform and one metric. Larger values mean better alignment; -1000.0
// means that no sample counted.
#include "QbDArray.h"
#include "QbDVector.h"
#include "QbVec3f.h"

class RegMetric;
class RegOptimizerCallback;
class RegParametricTransform;
class ZrSpatialData;

class RegFunctional {
public:
  // Bounding-box size of models[0]: the extent handed to the transform for its
  // parameter steps.
  QbVec3f size;
  // Owned; deleted with the functional.
  RegMetric* metric = nullptr;
  // Not owned.
  RegParametricTransform* transform = nullptr;
  // Reference fields (ZrRegScalarField3), not owned, all feeding one metric.
  QbDArray<ZrSpatialData*> references;
  // Model fields, not owned; only element 0 is used.
  QbDArray<ZrSpatialData*> models;
  // Not owned; may be null.
  RegOptimizerCallback* callback = nullptr;

  // Copies both arrays, takes `size` from models[0] and the metric over.
  RegFunctional(const QbDArray<ZrSpatialData*>& references, const QbDArray<ZrSpatialData*>& models,
                RegParametricTransform* transform, RegMetric* metric,
                RegOptimizerCallback* callback);
  RegFunctional(const RegFunctional&) = delete;
  RegFunctional& operator=(const RegFunctional&) = delete;
  virtual ~RegFunctional();

  // A full evaluation that may keep data for later incremental ones.
  virtual double evaluateAndCache();
  // The value after parameter `index` changed; a full evaluation here.
  virtual double evaluateIncremental(int index, double delta);
  virtual double evaluate() = 0;
  // The value, and in `gradient` the raw central differences over the
  // variable parameters (not divided by the step).
  virtual double evaluate(QbDVector<double>& gradient, double step, int keepAll) = 0;
  // Returns 1 and does nothing here.
  virtual int gradient(QbDVector<double>& g);
  // Lets `t` precompute its parameter steps for the model's extent.
  // `transform` stays as it is.
  virtual void initTransform(RegParametricTransform* t);
  virtual void setTransform(RegParametricTransform* t);
};
