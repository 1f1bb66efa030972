#pragma once
// Cubic convolution evaluator for fields on uniform coordinates: the
// interpolating cubic of Keys with a = -1/2 (Catmull-Rom), over the 4 x 4 x 4
// nodes around the location. It reproduces quadratics exactly and is sharper
// than trilinear interpolation at a quarter of the cost of the windowed sinc.
// Taps beyond the lattice repeat its edge nodes; at a node the value is that
// node's value. The kernel may overshoot: integer voxel types are rounded and
// clamped by evalNative. Outside the field every component is 0.
#include "ZrFieldEvaluator.h"
#include "ZrLatticeLocation3.h"

class ZrField3;

class ZrEvalCubic : public ZrFieldEvaluator {
public:
  // A new evaluator (owned by the caller), or null for a field that is not on
  // uniform coordinates or holds a voxel type no field holds. The field must
  // outlive the evaluator and its locations.
  static ZrFieldEvaluator* createEval(ZrField3* field);

  ZrLocation3* createLocation() override;
  void eval(ZrLocation3* location, float* result) override;
  void evalNative(ZrLocation3* location, void* result) override;

  ZrField3* const field;

private:
  ZrEvalCubic(ZrField3* field, ZrLatticeLocation3::Kernel f, ZrLatticeLocation3::Kernel n)
      : field(field), floatKernel(f), nativeKernel(n) {}
  const ZrLatticeLocation3::Kernel floatKernel;
  const ZrLatticeLocation3::Kernel nativeKernel;
};
