#pragma once
// One row of a cubic interpolant table: the cell of a coordinate on one axis
// and the twelve basis values that the evaluation of a spline there can need.

struct RegSplineInterpolant {
  // First of the four control points that act on this coordinate.
  int cell;
  // Position inside the cell, normally 0 to 1.
  float frac;
  // Uniform cubic B-spline basis for points cell .. cell + 3, and its first and
  // second derivatives with respect to frac.
  double weight[4];
  double weight1[4];
  double weight2[4];

  // Fills the twelve weights for the position t inside the cell.
  void setWeights(double t);
};
