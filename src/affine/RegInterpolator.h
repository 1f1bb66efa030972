#pragma once
// How a functional samples the model between its voxels.
enum RegInterpolator {
  // The field's own (standard) interpolation: grey-value data.
  RegInterpolatorStandard = 0,
  // The nearest voxel: label data, where blending two labels gives nonsense.
  RegInterpolatorNearest = 1
};
