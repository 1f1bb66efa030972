#pragma once
// Limited-memory quasi-Newton search for functionals whose gradient is the
// exact derivative (the elastic functionals' analytic gradient): the inverse
// Hessian is the last few pairs of moves and gradient changes, and each
// iteration tries the move it predicts, which with an exact gradient is
// usually right at the first evaluation. A trial evaluates the value and the
// gradient together; it is taken when it lowers the negated functional
// enough (Armijo) and its slope has flattened (Wolfe), and otherwise it is
// shortened by cubic interpolation, or on the first iteration lengthened.
//
// Where the other searches spend a line minimisation of many values per
// gradient, this one spends little more than one evaluation with gradient
// per iteration.
#include "QbDArray.h"
#include "QbDVector.h"
#include "ZrOptimizer.h"

class ZrLimitedMemoryOptimizer : public ZrOptimizer {
public:
  // Pairs of moves and gradient changes kept.
  int memory = 8;
  // Relative change of the value below which the search has converged.
  double tolerance;
  // Iterations at most per call of optimize().
  int maxIterations = 200;
  // The longest move of any parameter on the first trial; 0 takes a tenth
  // of the smallest control-point spacing of a spline transform (1 else).
  double firstMove = 0.0;
  // The longest move of any parameter in one iteration; 0 for no bound.
  double maxMove = 0.0;
  // Evaluations (each with its gradient) and iterations of the last call.
  int evaluations = 0;
  int iterations = 0;

  ZrLimitedMemoryOptimizer(RegOptimizerCallback* callback, double tolerance);
  ~ZrLimitedMemoryOptimizer() override;

  // Searches until the value converges or maxIterations pass; endStep is the
  // probe step handed to the functional, should it take its gradient by
  // differences. startStep is not used.
  int optimize(double startStep, double endStep) override;

private:
  QbDArray<QbDVector<double>> moves, changes;
  QbDArray<double> curvatures;

  // -H g by the two-loop recursion over the kept pairs.
  void direction(const QbDVector<double>& g, QbDVector<double>& d) const;
  bool stopRequested() const;
};
