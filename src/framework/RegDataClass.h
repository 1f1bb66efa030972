#pragma once
// What the values of a field mean, which decides how it may be resampled and
// interpolated.
enum RegDataClass {
  // Grey values: averaging and interpolation are meaningful.
  RegDataClassGrey = 0,
  // Labels: only whole voxel values may be taken over. Downsampling treats the
  // value 1 like this one.
  RegDataClassLabel = 2
};
