#pragma once
// Common ground of the locations that fields on a lattice create: after set()
// a location names the lattice cell that holds the point (its lower corner and
// the node offsets to the upper neighbours) and the point's local coordinates
// in that cell, each in [0, 1]. Every evaluator of lattice fields works from
// this: trilinear interpolation here, nearest node and windowed sinc in their
// own classes. The evaluation kernels are chosen once, by voxel type and
// number of components, when the location is made, so that an evaluation does
// no type switch and no allocation.
//
// A location reflects the lattice as it was when the location was made
// (dimensions, coordinates): make a new one after the field is resized or
// moved. The data pointer is read from the field at every evaluation.
#include "QbPrimType.h"
#include "ZrLocation3.h"
#include <cstddef>

class ZrField3;

class ZrLatticeLocation3 : public ZrLocation3 {
public:
  // Kernel of one evaluation: the location, the field's raw data, and the
  // result (float or the voxel type, one value per component).
  typedef void (*Kernel)(const ZrLatticeLocation3& loc, const void* data, void* result);

  explicit ZrLatticeLocation3(const ZrField3* field);

  const ZrField3* getField() const { return field; }
  int isInside() const { return inside; }
  const int* getDims() const { return dims; }
  int nDataVar() const { return nVar; }

  // The field's standard interpolation at this location: trilinear in the cell,
  // all components. Outside the field every component is 0.
  void evalFloat(float* result) const;
  void evalNative(void* result) const;

  // Trilinear kernels of a voxel type and component count; null for a voxel
  // type that no field holds.
  static Kernel trilinearKernel(int primType, int nVar, bool native);
  // Writes nVar zeros of the type (float when native is false).
  static void writeZeros(int primType, int nVar, bool native, void* result);

  // The instance K<T, NC, Native>::run of a kernel family for a voxel type and
  // component count: NC is 1, 2 or 3 for those counts, 0 (count read at run
  // time) for any other. Null for a voxel type that no field holds.
  template <template <class, int, bool> class K>
  static Kernel selectKernel(int primType, int nVar, bool native) {
    Kernel k = nullptr;
    qbDispatchVoxelType(primType, [&](auto t) {
      using T = decltype(t);
      switch (nVar) {
      case 1:
        k = native ? &K<T, 1, true>::run : &K<T, 1, false>::run;
        break;
      case 2:
        k = native ? &K<T, 2, true>::run : &K<T, 2, false>::run;
        break;
      case 3:
        k = native ? &K<T, 3, true>::run : &K<T, 3, false>::run;
        break;
      default:
        k = native ? &K<T, 0, true>::run : &K<T, 0, false>::run;
        break;
      }
    });
    return k;
  }

  // State of the last set(): meaningful only while inside is non-zero.
  int inside = 0;
  int cell[3] = {0, 0, 0};         // lower corner of the cell, node indices
  float frac[3] = {0.f, 0.f, 0.f}; // local coordinates in the cell, in [0, 1]
  size_t base = 0;                 // flat node index of the lower corner
  // Node offsets from a corner to its upper neighbour along each axis: 0 on an
  // axis of one node. Signed, since a stack of unsorted slices may have its
  // next slice in z before the current one in memory.
  ptrdiff_t offset[3] = {0, 0, 0};

protected:
  // Flat node index of node (i, j, k).
  size_t nodeIndex(int i, int j, int k) const {
    return size_t(i) + size_t(dims[0]) * (size_t(j) + size_t(dims[1]) * size_t(k));
  }
  // The fixed in-lattice offsets of a regular lattice: 1, nx, nx*ny, and 0 on an
  // axis of one node.
  void setRegularOffsets();

  const ZrField3* field;
  int dims[3];
  int nVar;
  int primType;
  Kernel floatKernel;
  Kernel nativeKernel;
};
