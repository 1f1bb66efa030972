#include "RegVoxelEvaluator.h"

#include "ZrEvalNN.h"
#include "ZrEvalStandard.h"
#include "ZrFieldEvaluator.h"
#include "ZrLocation3.h"
#include "ZrRegScalarField3.h"

RegVoxelEvaluator::RegVoxelEvaluator(ZrRegScalarField3* field, RegInterpolator interpolator)
    : interpolator(interpolator), field(field) {}

RegVoxelEvaluator::~RegVoxelEvaluator() {
  delete eval;
  delete location;
}

void RegVoxelEvaluator::resetEval() {
  delete eval;
  eval = nullptr;
  delete location;
  location = nullptr;
  createEval(field, eval);
  location = eval->createLocation();
}

void RegVoxelEvaluator::createEval(ZrRegScalarField3* forField, ZrFieldEvaluator*& result) const {
  result = nullptr;
  if (interpolator == RegInterpolatorNearest)
    result = ZrEvalNN::createEval(forField);
  // A field that offers no nearest-neighbour evaluation is interpolated.
  if (!result)
    result = new ZrEvalStandard(forField);
}

void RegVoxelEvaluator::createEvalModel(ZrFieldEvaluator*& evalOut,
                                        ZrLocation3*& locationOut) const {
  delete evalOut;
  evalOut = nullptr;
  delete locationOut;
  locationOut = nullptr;
  createEval(field, evalOut);
  locationOut = evalOut->createLocation();
}
