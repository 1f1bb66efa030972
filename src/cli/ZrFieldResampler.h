#pragma once
// Samples a field, placed in the world by its transform, on the lattice of
// another field: the way to look at a registered model in the reference's
// voxel grid. Grey values are interpolated trilinearly, labels by the nearest
// voxel; points outside the source get 0.
class ZrRegScalarField3;

class ZrFieldResampler {
public:
  // A new uniform field (owned by the caller) with target's lattice, box and
  // transform, and source's voxel type and label kind. Null if the target is
  // not uniform.
  static ZrRegScalarField3* resample(ZrRegScalarField3* source, const ZrRegScalarField3* target);
};
