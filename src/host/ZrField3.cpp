#include "ZrField3.h"
#include "ZrCurvilinearLocation3.h"
#include "ZrStackedLocation3.h"
#include "ZrUniformLocation3.h"

QB_TYPE_SOURCE(ZrField3, ZrSpatialData, nullptr)

ZrField3::ZrField3(const int dims[3], int nDataVar, int primType, ZrCoord3* coords, void* data)
    : lattice(dims, nDataVar, primType, coords, data) {}

ZrField3::ZrField3(const ZrField3& o) : ZrSpatialData(o), lattice(o.lattice) {}

void ZrField3::getBoundingBox(float box[6]) const { lattice.coords()->getBoundingBox(box); }

ZrLocation3* ZrField3::createLocation() {
  switch (coordType()) {
  case ZR_COORD_UNIFORM:
    return new ZrUniformLocation3(this);
  case ZR_COORD_STACKED:
    return new ZrStackedLocation3(this);
  case ZR_COORD_CURVILINEAR:
  default:
    return new ZrCurvilinearLocation3(this);
  }
}

// The location must come from this field's createLocation(); all kinds of
// coordinates share the lattice location's cell and weights, so one kernel
// serves them all. Outside the field every component is 0: a sample beyond
// the data is background, and a displacement beyond its field moves nothing.
void ZrField3::eval(ZrLocation3* location, float* result) {
  static_cast<ZrLatticeLocation3*>(location)->evalFloat(result);
}

void ZrField3::evalNative(ZrLocation3* location, void* result) {
  static_cast<ZrLatticeLocation3*>(location)->evalNative(result);
}
