#pragma once
// Gradient-driven optimizer with three methods: quasi-Newton (BFGS, the
// default), Polak-Ribiere conjugate gradients and steepest descent. All three
// minimise the negated functional along lines, since the registration
// maximises. The line machinery (bracketing, Brent's method, the bounded line
// search) evaluates the functional at p + t d and keeps every sample of the
// present line, so that a position already visited costs no evaluation.
#include "QbDArray.h"
#include "QbDVector.h"
#include "ZrOptimizer.h"

class ZrGradientOptimizer : public ZrOptimizer {
public:
  // One evaluation along the present line: the position t in units of the
  // direction, and the functional's own (not negated) value there.
  struct LineSample {
    double t = 0.0;
    double value = 0.0;
  };

  // 0 steepest descent, 1 conjugate gradients, 2 quasi-Newton; any other value
  // makes optimize() do nothing.
  int method = 2;
  // Relative change of the value below which an iteration has converged.
  double tolerance;
  // The module's step ratio. Stored for the driver; no method reads it.
  double stepFactor;
  // All samples of the present line search.
  QbDArray<LineSample> lineSamples;

  ZrGradientOptimizer(RegOptimizerCallback* callback, double tolerance, double stepFactor);
  ~ZrGradientOptimizer() override;

  // Runs the method selected by `method` from step a down to step b.
  int optimize(double a, double b) override;

  // The negated functional at p + t d. The first n parameters are moved there
  // even when a sample of the present line within 1e-06 of t answers without
  // an evaluation.
  double f1dim(int n, const QbDVector<double>& p, const QbDVector<double>& d, double t);
  // Brackets a minimum of f1dim along d, starting from ax and bx: on return
  // fb is below fa and fc, and bx lies between ax and cx. Returns early, with
  // the bracket as it stands, when the run is interrupted.
  void mnbrak(int n, const QbDVector<double>& p, const QbDVector<double>& d, double* ax, double* bx,
              double* cx, double* fa, double* fb, double* fc);
  // Brent's minimisation inside the bracket (ax, bx, cx) to the relative
  // precision tol. Returns the minimum's value and stores its position in
  // *xmin; when interrupted it returns the last value and leaves *xmin alone.
  double brent(int n, const QbDVector<double>& p, const QbDVector<double>& d, double ax, double bx,
               double cx, double tol, double* xmin);
  // Golden-section search inside the bracket; an alternative to brent() that
  // the methods do not use. It does not poll for interruption.
  double golden(const QbDVector<double>& p, const QbDVector<double>& d, double ax, double bx,
                double cx, double tol, double& xmin);
  // Line search from p along d. *step comes in as the trial step and goes out
  // as the length moved, in units of d. A positive maxStep bounds the move;
  // 0 turns the bound off. On return p holds the new point, d the move, and
  // *fret the negated value there.
  void linmin(QbDVector<double>& p, QbDVector<double>& d, double maxStep, int n, double* fret,
              double* step);
  // Bounded move along d without Brent's refinement. Its final update adds
  // d[i + 1] to p[i], one entry off, so it is unfit for use as it stands; no
  // method calls it.
  void dlinmin(QbDVector<double>& p, QbDVector<double>& d, int n, double* fret, double* step,
               double maxUp, double maxDown);

  // The functional's central differences with probe step `step` (all of
  // them, keepAll 1), scaled by each parameter's natural step and by the
  // inverse of the largest raw difference, so that g has a largest entry of
  // about one natural step. value receives the functional's value. Returns 0,
  // with g all zero, when the gradient vanishes.
  int getDirection(double step, QbDVector<double>& g, double& value);

  // BFGS on the negated functional. The inverse Hessian is kept as a list of
  // weighted vectors, h0 I + sum w v v^T, never as a matrix. *fret receives
  // the negated value, *iterations the iteration count of the last round.
  void quasiNewton(double startStep, double endStep, double tol, double* fret, int* iterations);
  // Line searches along the gradient until the moves become small against
  // endStep, at most 100 of them.
  void steepestDescent(double startStep, double endStep);
  // Polak-Ribiere conjugate gradients on the negated functional.
  void conjugateGradients(double startStep, double endStep, double tol, double* fret,
                          int* iterations);

private:
  // True when the module or the user asked to stop.
  bool stopRequested() const;
  // Bound of a line move on a seven-parameter affine transform: the scale
  // (entry 6) may change by at most half its value in one move. 0 elsewhere,
  // which turns the bound off.
  double scaleBound(bool affine, int n, const QbDVector<double>& p,
                    const QbDVector<double>& direction) const;
};
