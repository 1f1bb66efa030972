#pragma once
// Evaluates a field at locations it created.
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
