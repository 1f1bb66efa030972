#pragma once
// A field's standard interpolation as an evaluator: every operation is handed
// to the field (trilinear on uniform and stacked lattices, point location and
// trilinear in the cell on curvilinear ones; all components).
#include "ZrFieldEvaluator.h"

class ZrField3;

class ZrEvalStandard : public ZrFieldEvaluator {
public:
  // field: not owned; it must outlive the evaluator and its locations.
  explicit ZrEvalStandard(ZrField3* field) : field(field) {}
  ZrLocation3* createLocation() override;
  void eval(ZrLocation3* location, float* result) override;
  void evalNative(ZrLocation3* location, void* result) override;

  ZrField3* const field;
};
