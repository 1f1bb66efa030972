#pragma once
// Voxel type tags of the host's fields.
#include <cstddef>
#include <cstdint>

enum QbPrimType {
  QB_UINT8 = 0,
  QB_INT16 = 1,
  QB_INT32 = 2,
  QB_FLOAT = 3,
  QB_DOUBLE = 4,
  QB_UINT16 = 7,
  // Further integer types: known to the histogram rules, never held by a field.
  QB_INT8 = 8,
  QB_UINT32 = 9,
  QB_INT64 = 10,
};

// Size in bytes of one value of the type, 0 for an unknown code.
size_t qbPrimTypeSize(int type);
// Short name ("uint8", "int16", ...), "unknown" for an unknown code.
const char* qbPrimTypeName(int type);
// True for the integer codes 0, 1, 2, 7, 8, 9, 10.
bool qbPrimTypeIsInteger(int type);
// True for the six voxel types a field may hold: 0, 1, 2, 3, 4, 7.
bool qbPrimTypeIsVoxelType(int type);

// Maps a C++ type to its tag.
template <class T> struct QbPrimTypeOf;
template <> struct QbPrimTypeOf<uint8_t> { static constexpr int value = QB_UINT8; };
template <> struct QbPrimTypeOf<int16_t> { static constexpr int value = QB_INT16; };
template <> struct QbPrimTypeOf<int32_t> { static constexpr int value = QB_INT32; };
template <> struct QbPrimTypeOf<float> { static constexpr int value = QB_FLOAT; };
template <> struct QbPrimTypeOf<double> { static constexpr int value = QB_DOUBLE; };
template <> struct QbPrimTypeOf<uint16_t> { static constexpr int value = QB_UINT16; };

// Calls f(T()) with T the C++ type of one of the six voxel types and returns
// true, or returns false for any other code. This is the one place where a tag
// becomes a type: inner loops are instantiated per type behind it.
template <class F> bool qbDispatchVoxelType(int type, F&& f) {
  switch (type) {
  case QB_UINT8:
    f(uint8_t());
    return true;
  case QB_INT16:
    f(int16_t());
    return true;
  case QB_INT32:
    f(int32_t());
    return true;
  case QB_FLOAT:
    f(float());
    return true;
  case QB_DOUBLE:
    f(double());
    return true;
  case QB_UINT16:
    f(uint16_t());
    return true;
  default:
    return false;
  }
}
