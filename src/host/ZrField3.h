#pragma once
// A field on a 3-D lattice: spatial data whose local box is the box of its node
// positions.
#include "ZrLattice3.h"
#include "ZrSpatialData.h"

class ZrLocation3;

class ZrField3 : public ZrSpatialData {
  QB_TYPE_HEADER(ZrField3)
public:
  // The lattice's arguments; coords and data are adopted as ZrLattice3 does.
  ZrField3(const int dims[3], int nDataVar, int primType, ZrCoord3* coords, void* data = nullptr);
  ZrField3(const ZrField3& o); // deep copy of lattice and transform
  ~ZrField3() override = default;

  void getBoundingBox(float box[6]) const override;
  using ZrSpatialData::getBoundingBox;
  const int* getDims() const { return lattice.getDims(); }
  int primType() const { return lattice.primType(); }
  int nDataVar() const { return lattice.nDataVar(); }
  ZrCoordType coordType() const { return lattice.coords()->coordType(); }

  // The field's standard interpolation: a location for this field (owned by the
  // caller), and the value at it, per component, as float or in the field's
  // own voxel type.
  virtual ZrLocation3* createLocation();
  virtual void eval(ZrLocation3* location, float* result);
  virtual void evalNative(ZrLocation3* location, void* result);

  ZrLattice3 lattice;
};
