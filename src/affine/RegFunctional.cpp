#include "RegFunctional.h"

#include "RegMetric.h"
#include "RegParametricTransform.h"
#include "ZrSpatialData.h"

RegFunctional::RegFunctional(const QbDArray<ZrSpatialData*>& references,
                             const QbDArray<ZrSpatialData*>& models,
                             RegParametricTransform* transform, RegMetric* metric,
                             RegOptimizerCallback* callback)
    : metric(metric), transform(transform), references(references), models(models),
      callback(callback) {
  if (models.size() > 0 && models[0])
    size = models[0]->getBoundingBoxSize();
}

RegFunctional::~RegFunctional() { delete metric; }

double RegFunctional::evaluateAndCache() { return evaluate(); }

double RegFunctional::evaluateIncremental(int index, double delta) { return evaluate(); }

int RegFunctional::gradient(QbDVector<double>& g) { return 1; }

void RegFunctional::initTransform(RegParametricTransform* t) {
  if (!t)
    return;
  SbVec3d extent(size.x, size.y, size.z);
  t->computeParamStep(&extent);
}

void RegFunctional::setTransform(RegParametricTransform* t) { transform = t; }
