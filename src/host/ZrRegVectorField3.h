#pragma once
// A field of vectors (three float components by default) over uniform or
// curvilinear coordinates.
#include "ZrField3.h"

class ZrRegVectorField3 : public ZrField3 {
  QB_TYPE_HEADER(ZrRegVectorField3)
public:
  // Null when the combination is not supported (a stacked coordinate type, an
  // unknown voxel type, components other than 1 to 3, a dimension below 1) or
  // the memory cannot be had. Uniform coordinates start with the box
  // [0, dims-1] per axis, curvilinear ones at node (i, j, k) = (i, j, k).
  // data, if given, is adopted (qbmalloc'd); on failure it stays the caller's.
  static ZrRegVectorField3* create(const int dims[3], int primType, ZrCoordType coordType,
                                   void* data = nullptr);
  static ZrRegVectorField3* create(const int dims[3], int numComponents, int primType,
                                   ZrCoordType coordType);
  ZrRegVectorField3(const ZrRegVectorField3& o) = default;
  ZrObject* duplicate() const override;
  float* floatData() { return static_cast<float*>(lattice.dataPtr()); }

protected:
  static ZrRegVectorField3* createWith(const int dims[3], int numComponents, int primType,
                                       ZrCoordType coordType, void* data);
  ZrRegVectorField3(const int dims[3], int nComp, int primType, ZrCoord3* coords, void* data);
};
