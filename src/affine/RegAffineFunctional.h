#pragma once
// The general affine objective: walks every voxel of the reference lattices,
// maps it into the model through the inverse of the affine transform, samples
// the model with a field evaluator and feeds the pair to the metric. Works on
// any lattice; the gradient is formed by central differences.
#include "RegFunctional.h"
#include "RegInterpolator.h"

class RegVoxelEvaluator;

class RegAffineFunctional : public RegFunctional {
public:
  // Non-zero makes evaluate() compose and apply the transform but evaluate
  // nothing (value 0.0). The program always passes 0.
  int clip = 0;
  // Thin axis of a two-dimensional registration (0, 1, 2), 4 for planar motion
  // plus z translation, anything else for full 3-D: selects the parameters
  // that take no part in the gradient.
  int flatAxis = 3;
  // Owned; samples models[0].
  RegVoxelEvaluator* evaluator = nullptr;

  RegAffineFunctional(const QbDArray<ZrSpatialData*>& references, QbDArray<ZrSpatialData*>& models,
                      RegInterpolator interpolator, RegParametricTransform* transform,
                      RegMetric* metric, RegOptimizerCallback* callback, int clip, int flatAxis);
  ~RegAffineFunctional() override;

  // Applies the transform to the model and evaluates.
  double evaluate() override;
  // Central differences over the variable parameters, each formed with the
  // parameter shifted by +- step times its natural step. With keepAll 0 a
  // component is kept only where one of the shifted values beats the centre.
  double evaluate(QbDVector<double>& gradient, double step, int keepAll) override;
  virtual void resetEval();
  // The walk over the reference lattices.
  virtual double evaluateNoClip();

  // True when parameter `index` takes no part in the gradient for `flatAxis`.
  static bool isHeldParameter(int flatAxis, int index);
};
