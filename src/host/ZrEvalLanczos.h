#pragma once
// Windowed-sinc evaluator for fields on uniform coordinates: Lanczos with
// a = 3, the kernel sinc(x) sinc(x/3) for |x| < 3, over the 6 x 6 x 6 nodes
// around the location, for the resampling of finished results where quality
// matters more than speed. The weights of each axis are divided by their sum,
// so a constant field stays constant; taps beyond the lattice repeat its edge
// nodes. At a node the value is that node's value. Integer voxel types are
// rounded and clamped by evalNative, since the kernel may overshoot. Outside
// the field every component is 0.
#include "ZrFieldEvaluator.h"
#include "ZrLatticeLocation3.h"

class ZrField3;

class ZrEvalLanczos : public ZrFieldEvaluator {
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
  ZrEvalLanczos(ZrField3* field, ZrLatticeLocation3::Kernel f, ZrLatticeLocation3::Kernel n)
      : field(field), floatKernel(f), nativeKernel(n) {}
  const ZrLatticeLocation3::Kernel floatKernel;
  const ZrLatticeLocation3::Kernel nativeKernel;
};
