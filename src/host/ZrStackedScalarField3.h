#pragma once
#include "ZrRegScalarField3.h"
#include "ZrStackedCoord3.h"

class ZrStackedScalarField3 : public ZrRegScalarField3 {
  QB_TYPE_HEADER(ZrStackedScalarField3)
public:
  // xyBox: xmin, xmax, ymin, ymax; z: one position per slice.
  ZrStackedScalarField3(const int dims[3], int primType, const float xyBox[4], const float* z,
                        void* data = nullptr);
  ZrStackedScalarField3(const ZrStackedScalarField3& o) = default;
  ZrObject* duplicate() const override;
  ZrStackedCoord3* stackedCoords() { return static_cast<ZrStackedCoord3*>(lattice.coords()); }
  const ZrStackedCoord3* stackedCoords() const {
    return static_cast<const ZrStackedCoord3*>(lattice.coords());
  }
};
