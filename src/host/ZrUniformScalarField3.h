#pragma once
#include "ZrRegScalarField3.h"
#include "ZrUniformCoord3.h"

class ZrUniformScalarField3 : public ZrRegScalarField3 {
  QB_TYPE_HEADER(ZrUniformScalarField3)
public:
  // box: xmin, xmax, ymin, ymax, zmin, zmax of the node positions.
  ZrUniformScalarField3(const int dims[3], int primType, const float box[6], void* data = nullptr);
  ZrUniformScalarField3(const ZrUniformScalarField3& o) = default;
  ZrObject* duplicate() const override;
  ZrUniformCoord3* uniformCoords() { return static_cast<ZrUniformCoord3*>(lattice.coords()); }
  const ZrUniformCoord3* uniformCoords() const {
    return static_cast<const ZrUniformCoord3*>(lattice.coords());
  }
  void setBoundingBox(const float box[6]) { uniformCoords()->setBoundingBox(box); }
  void getVoxelSize(float size[3]) const { uniformCoords()->getVoxelSize(size); }
};
