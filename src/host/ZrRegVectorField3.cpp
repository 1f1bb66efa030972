#include "ZrRegVectorField3.h"
#include "QbPrimType.h"
#include "ZrCurvilinearCoord3.h"
#include "ZrUniformCoord3.h"
#include "qbmalloc.h"

namespace {
QbInterfaceOwner* createRegVectorField3() {
  const int dims[3] = {1, 1, 1};
  return ZrRegVectorField3::create(dims, QB_FLOAT, ZR_COORD_UNIFORM);
}

// Coordinates a new vector field starts with, or null for a kind it does not
// support. Uniform: the box [0, dims-1] per axis; curvilinear: node (i, j, k)
// at (i, j, k).
ZrCoord3* makeStartCoords(const int dims[3], ZrCoordType coordType) {
  if (coordType == ZR_COORD_UNIFORM) {
    const float box[6] = {0.0f, float(dims[0] - 1), 0.0f, float(dims[1] - 1),
                          0.0f, float(dims[2] - 1)};
    return new ZrUniformCoord3(dims, box);
  }
  if (coordType == ZR_COORD_CURVILINEAR) {
    ZrCurvilinearCoord3* c = new ZrCurvilinearCoord3(dims);
    float* p = c->getPositions();
    for (int k = 0; k < dims[2]; k++)
      for (int j = 0; j < dims[1]; j++)
        for (int i = 0; i < dims[0]; i++, p += 3) {
          p[0] = float(i);
          p[1] = float(j);
          p[2] = float(k);
        }
    return c;
  }
  return nullptr;
}

} // namespace

QB_TYPE_SOURCE(ZrRegVectorField3, ZrField3, createRegVectorField3)

ZrRegVectorField3::ZrRegVectorField3(const int dims[3], int nComp, int primType, ZrCoord3* coords,
                                     void* data)
    : ZrField3(dims, nComp, primType, coords, data) {}

ZrObject* ZrRegVectorField3::duplicate() const { return new ZrRegVectorField3(*this); }

ZrRegVectorField3* ZrRegVectorField3::create(const int dims[3], int primType, ZrCoordType coordType,
                                             void* data) {
  return createWith(dims, 3, primType, coordType, data);
}

ZrRegVectorField3* ZrRegVectorField3::create(const int dims[3], int numComponents, int primType,
                                             ZrCoordType coordType) {
  return createWith(dims, numComponents, primType, coordType, nullptr);
}

ZrRegVectorField3* ZrRegVectorField3::createWith(const int dims[3], int nComp, int primType,
                                                 ZrCoordType coordType, void* data) {
  // On failure the data is not adopted: it stays the caller's.
  if (!qbPrimTypeIsVoxelType(primType) || nComp < 1 || nComp > 3)
    return nullptr;
  if (dims[0] < 1 || dims[1] < 1 || dims[2] < 1)
    return nullptr;
  if (coordType != ZR_COORD_UNIFORM && coordType != ZR_COORD_CURVILINEAR)
    return nullptr;
  ZrCoord3* coords = nullptr;
  try {
    coords = makeStartCoords(dims, coordType);
    // The lattice deletes the coordinates itself if its data cannot be had.
    ZrCoord3* c = coords;
    coords = nullptr;
    return new ZrRegVectorField3(dims, nComp, primType, c, data);
  } catch (const QbMemoryException&) {
    delete coords;
    return nullptr;
  }
}
