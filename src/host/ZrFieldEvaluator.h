#pragma once
// Evaluates a field at locations it created. One evaluator may serve several
// threads at once, each with a location of its own; an evaluation allocates
// nothing. At a location outside the field every component is 0.
class ZrLocation3;

class ZrFieldEvaluator {
public:
  // Owned by the caller.
  virtual ZrLocation3* createLocation() = 0;
  // One float per component at the location last set.
  virtual void eval(ZrLocation3* location, float* result) = 0;
  // One value per component in the field's own voxel type.
  virtual void evalNative(ZrLocation3* location, void* result) = 0;
  virtual ~ZrFieldEvaluator() = default;
};
