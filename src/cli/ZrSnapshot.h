#pragma once
// A quality-check picture of a registration, written as PNG: for each of the
// three orthogonal mid-slices of the reference, the reference itself, a
// checkerboard of reference and model before the registration, the same
// after it, and, when given, the Jacobian determinant of the deformation
// (blue below 1, white at 1, red above 1). Misaligned edges show as breaks at
// the checkerboard's square borders.
#include <string>

class ZrRegScalarField3;

class ZrSnapshot {
public:
  // before and after are the model sampled on the reference's lattice;
  // jacobian may be null. All must have the reference's dimensions.
  static bool write(const ZrRegScalarField3* reference, const ZrRegScalarField3* before,
                    const ZrRegScalarField3* after, const ZrRegScalarField3* jacobian,
                    const std::string& path, std::string& error);
};
