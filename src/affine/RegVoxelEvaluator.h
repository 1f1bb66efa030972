#pragma once
// Holder of a field's evaluator and location. It picks the evaluator by the
// interpolator: the field's standard interpolation for grey values, nearest
// neighbour for labels.
#include "RegInterpolator.h"

class ZrFieldEvaluator;
class ZrLocation3;
class ZrRegScalarField3;

class RegVoxelEvaluator {
public:
  // Owned; null until resetEval().
  ZrFieldEvaluator* eval = nullptr;
  // Owned; null until resetEval().
  ZrLocation3* location = nullptr;
  const RegInterpolator interpolator;
  // Not owned.
  ZrRegScalarField3* const field;

  // Only stores; no evaluator exists until resetEval().
  RegVoxelEvaluator(ZrRegScalarField3* field, RegInterpolator interpolator);
  RegVoxelEvaluator(const RegVoxelEvaluator&) = delete;
  RegVoxelEvaluator& operator=(const RegVoxelEvaluator&) = delete;
  virtual ~RegVoxelEvaluator();

  // Replaces the evaluator and location by new ones for the own field.
  virtual void resetEval();
  // A new evaluator for `field`, chosen by the own interpolator, into `result`.
  // Nothing is deleted.
  void createEval(ZrRegScalarField3* field, ZrFieldEvaluator*& result) const;
  // Deletes what the two pointers hold and makes a fresh pair for the own
  // field: the private pair of one worker thread.
  void createEvalModel(ZrFieldEvaluator*& evalOut, ZrLocation3*& locationOut) const;
};
