#pragma once
// Resampling of a scalar field to other dimensions, as a compute module.
//
// Grey values are resampled to target dimensions (port "resolution", or
// derived from a target voxel size) with the filter of the menu "filter":
//   0 "Box", 1 "Triangle", 2 "Lanczos".
// Label fields (those offering the label interface) are reduced instead by
// the integer factors of "labelFactors", each output node taking the most
// frequent label of its block, so that no label value is invented.
//
// The result keeps the input's bounding box (first and last nodes on the box),
// its voxel type, its kind of coordinates and its transform, and is left as
// result 0 in the object pool. The work is done when "Apply" of "action" was
// hit; a stop request through the work area leaves no result.
//
// Ports:
//   "data"          ZrRegScalarField3 to resample
//   "mode"          radio box: 0 "Dimensions" (use "resolution"),
//                   1 "Voxel size" (use "voxelSize")
//   "resolution"    3 ints, the target number of nodes per axis
//   "voxelSize"     3 floats, the target node spacing per axis
//   "filter"        menu: 0 "Box", 1 "Triangle", 2 "Lanczos" (the default)
//   "labelFactors"  3 ints, the reduction factor per axis for label fields
//   "action"        1 button, "Apply"
//
// Connecting new data sets "resolution" to its dimensions and "voxelSize" to
// its node spacing.
#include "ZrCompModule.h"
#include "ZrPortButtonList.h"
#include "ZrPortFloatTextN.h"
#include "ZrPortIntTextN.h"
#include "ZrPortMultiMenu.h"
#include "ZrPortRadioBox.h"

class ZrRegScalarField3;

class ZrResample : public ZrCompModule {
  QB_TYPE_HEADER(ZrResample)
public:
  enum Filter { FILTER_BOX = 0, FILTER_TRIANGLE = 1, FILTER_LANCZOS = 2 };
  enum Mode { MODE_DIMENSIONS = 0, MODE_VOXEL_SIZE = 1 };

  ZrResample();
  ~ZrResample() override;

  void update() override;
  void compute() override;

  // The operations behind the module, for callers that need no module. Each
  // returns a new field owned by the caller (in no pool, with the input's
  // transform), or null for a bad argument or when a stop was requested.
  //
  // Grey resampling to dims (each at least 1) with one of the filters.
  static ZrRegScalarField3* resampleGrey(ZrRegScalarField3* field, const int dims[3], int filter);
  // Every step[a]-th node of a uniform field along axis a from the first
  // (steps below 1 count as 1), values and type as they are; the box ends at
  // the last node kept. Null for other coordinates.
  static ZrRegScalarField3* subsample(ZrRegScalarField3* field, const int steps[3]);
  // Label reduction by integer factors (values below 1 count as 1); the
  // result has ceil(n / factor) nodes per axis.
  static ZrRegScalarField3* reduceLabels(ZrRegScalarField3* field, const int factors[3]);
  // Label resampling to dims (each at least 1) by the nearest node: every
  // output node, placed as resampleGrey() places it, takes the label of the
  // input node nearest to it, so that no label value is invented.
  static ZrRegScalarField3* resampleLabelsNearest(ZrRegScalarField3* field, const int dims[3]);
  // Gaussian smoothing of standard deviation `sigma` voxels along every axis
  // with more than one node (the kernel cut at 4 sigma, the border
  // repeated); the result has the input's grid and float voxels.
  static ZrRegScalarField3* smoothGrey(ZrRegScalarField3* field, float sigma);
  // True if the field offers one of the two label interfaces.
  static bool isLabelField(ZrRegScalarField3* field);

  ZrPortRadioBox portMode;
  ZrPortIntTextN portResolution;
  ZrPortFloatTextN portVoxelSize;
  ZrPortMultiMenu portFilter;
  ZrPortIntTextN portLabelFactors;
  ZrPortButtonList portAction;
};
