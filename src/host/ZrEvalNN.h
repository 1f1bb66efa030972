#pragma once
// Nearest-node evaluator: the value of the node nearest to the location, all
// components, as float or exactly in the field's voxel type (so label values
// pass unchanged). On uniform and stacked lattices that is the nearest node in
// space; on a curvilinear grid it is the corner of the containing cell nearest
// in the cell's local coordinates. Ties at the middle of a cell go to the
// upper node. Outside the field every component is 0.
#include "ZrFieldEvaluator.h"
#include "ZrLatticeLocation3.h"

class ZrField3;

class ZrEvalNN : public ZrFieldEvaluator {
public:
  // A new evaluator (owned by the caller) for the field, or null when it
  // cannot serve it: no field, or a voxel type or component count that no
  // field holds. The field must outlive the evaluator and its locations.
  static ZrFieldEvaluator* createEval(ZrField3* field);

  // Locations come from the field, so they serve the standard interpolation
  // as well.
  ZrLocation3* createLocation() override;
  void eval(ZrLocation3* location, float* result) override;
  void evalNative(ZrLocation3* location, void* result) override;

  ZrField3* const field;

private:
  ZrEvalNN(ZrField3* field, ZrLatticeLocation3::Kernel f, ZrLatticeLocation3::Kernel n)
      : field(field), floatKernel(f), nativeKernel(n) {}
  const ZrLatticeLocation3::Kernel floatKernel;
  const ZrLatticeLocation3::Kernel nativeKernel;
};
