#pragma once
// Converts a scalar field to another voxel type, or between a label field and
// a plain numeric field, as a compute module.
//
// The menu "outputType" selects the result:
//   0 "Scalar field"   a numeric field of the input's own voxel type: the
//                      values stay exactly as they are; a label field becomes
//                      a plain grey-value field
//   1 "8-bit unsigned", 2 "16-bit signed", 3 "16-bit unsigned",
//   4 "32-bit signed", 5 "32-bit float"
//                      numeric fields of that type
//   6 "Label field"    a label field: integer input keeps its voxel type;
//                      float input is rounded into the smallest integer type
//                      that holds its range
//   7 "64-bit float"   a numeric field of doubles
// Entries 0 and 6 are the pair that takes labels to numbers and back without
// a change of value or type; the others follow on so that those two keep
// their places. Conversions to integer types round to nearest and clamp to
// the type's range.
//
// The result has the input's coordinates, dimensions and transform, and is
// left as result 0 in the object pool when "Apply" of "action" was hit. Label
// fields exist on uniform and stacked coordinates only.
//
// Ports:
//   "data"        ZrRegScalarField3 to convert
//   "outputType"  menu as above, default 0
//   "action"      1 button, "Apply"
#include "ZrCompModule.h"
#include "ZrPortButtonList.h"
#include "ZrPortMultiMenu.h"

class ZrRegScalarField3;

class ZrCastField : public ZrCompModule {
  QB_TYPE_HEADER(ZrCastField)
public:
  enum OutputType {
    OUT_SCALAR = 0,
    OUT_UINT8 = 1,
    OUT_INT16 = 2,
    OUT_UINT16 = 3,
    OUT_INT32 = 4,
    OUT_FLOAT = 5,
    OUT_LABEL = 6,
    OUT_DOUBLE = 7,
    NUM_OUTPUT_TYPES = 8
  };

  ZrCastField();
  ~ZrCastField() override;

  void compute() override;

  // The conversion behind the module: a new field owned by the caller (in no
  // pool, with the input's transform), or null for a bad argument or a label
  // field that its coordinates cannot carry.
  static ZrRegScalarField3* cast(ZrRegScalarField3* field, int outputType);

  ZrPortMultiMenu portOutputType;
  ZrPortButtonList portAction;
};
