#pragma once
// A position in a field, prepared for evaluation: set() finds where the point
// lies (cell and weights) and returns non-zero when it lies inside the field.
// A location belongs to one field and one thread.
class ZrLocation3 {
public:
  virtual ~ZrLocation3() = default;
  // (x, y, z) in the field's local coordinates.
  virtual int set(float x, float y, float z) = 0;
  int set(const float p[3]) { return set(p[0], p[1], p[2]); }
};
