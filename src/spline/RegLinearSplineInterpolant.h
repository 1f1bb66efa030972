#pragma once
// One row of a linear interpolant table: lower corner of the cell on one axis
// and the position inside it.

struct RegLinearSplineInterpolant {
  int cell;
  float frac;
  float invFrac; // 1 - frac
};
