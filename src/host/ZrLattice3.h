#pragma once
// Values on a 3-D lattice: dimensions, the voxel type, the number of
// components per node, the raw data (x fastest, components interleaved) and
// the coordinates of the nodes. The lattice owns its data and coordinates.
#include "ZrCoord3.h"
#include <cstddef>

class ZrLattice3 {
public:
  // coords is adopted. data, if given, is adopted and must come from qbmalloc
  // with room for the whole lattice; otherwise zeroed data is allocated
  // (qbmalloc: QbMemoryException when it cannot be had).
  ZrLattice3(const int dims[3], int nDataVar, int primType, ZrCoord3* coords, void* data = nullptr);
  ZrLattice3(const ZrLattice3& o); // deep copy
  ZrLattice3& operator=(const ZrLattice3&) = delete;
  ~ZrLattice3();

  const int* getDims() const { return dims; }
  int nDataVar() const { return nVar; }
  int primType() const { return type; }
  ZrCoord3* coords() { return coordinates; }
  const ZrCoord3* coords() const { return coordinates; }
  void* dataPtr() { return data; }
  const void* dataPtr() const { return data; }
  size_t numNodes() const { return size_t(dims[0]) * dims[1] * dims[2]; }
  size_t numBytes() const;

  // New dimensions (and optionally a new voxel type): the data is reallocated
  // and zeroed, the coordinates resized.
  void resize(const int newDims[3], int newPrimType = -1);
  // Replaces the coordinates (adopted) of the same dimensions.
  void setCoords(ZrCoord3* c);

  // Value of component c at flat index idx, as float or double, whatever the
  // voxel type.
  float getValueAsFloat(size_t idx, int c = 0) const;
  double getValueAsDouble(size_t idx, int c = 0) const;
  // Stores v, rounded and clamped for integer types.
  void setValue(size_t idx, double v, int c = 0);
  // Smallest and largest value of component c (0 and 0 for no nodes).
  void computeRange(double& min, double& max, int c = 0) const;

private:
  int dims[3];
  int nVar;
  int type;
  ZrCoord3* coordinates;
  void* data;
};
