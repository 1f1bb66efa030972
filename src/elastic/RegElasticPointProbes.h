#pragma once
// The probes of one control point that a walk runs together: parameter
// index[k] (all of one point) moved by delta[k], two a parameter at most.
#include <cstdint>

struct RegElasticPointProbes {
  enum { kMax = 6 };
  // Floats of the scratch row a walk needs per voxel of the box's width.
  enum { kRowFloats = kMax + 1 };
  int count = 0;
  int index[kMax];
  float delta[kMax];
  // The gradient's still voxels (reg_evaluateElasticStillVoxels), one byte
  // per reference voxel, or null. The taking out and the probes of one point
  // must see the same map.
  const uint8_t* still = nullptr;
  RegElasticPointProbes() = default;
  RegElasticPointProbes(int i, float d) : count(1) {
    index[0] = i;
    delta[0] = d;
  }
  void add(int i, float d) {
    index[count] = i;
    delta[count++] = d;
  }
};
