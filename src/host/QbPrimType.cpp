#include "QbPrimType.h"

size_t qbPrimTypeSize(int type) {
  switch (type) {
  case QB_UINT8:
    return 1;
  case QB_INT16:
    return 2;
  case QB_INT32:
    return 4;
  case QB_FLOAT:
    return 4;
  case QB_DOUBLE:
    return 8;
  case QB_UINT16:
    return 2;
  case QB_INT8:
    return 1;
  case QB_UINT32:
    return 4;
  case QB_INT64:
    return 8;
  default:
    return 0;
  }
}

const char* qbPrimTypeName(int type) {
  switch (type) {
  case QB_UINT8:
    return "uint8";
  case QB_INT16:
    return "int16";
  case QB_INT32:
    return "int32";
  case QB_FLOAT:
    return "float";
  case QB_DOUBLE:
    return "double";
  case QB_UINT16:
    return "uint16";
  case QB_INT8:
    return "int8";
  case QB_UINT32:
    return "uint32";
  case QB_INT64:
    return "int64";
  default:
    return "unknown";
  }
}

bool qbPrimTypeIsInteger(int type) {
  switch (type) {
  case QB_UINT8:
  case QB_INT16:
  case QB_INT32:
  case QB_UINT16:
  case QB_INT8:
  case QB_UINT32:
  case QB_INT64:
    return true;
  default:
    return false;
  }
}

bool qbPrimTypeIsVoxelType(int type) {
  switch (type) {
  case QB_UINT8:
  case QB_INT16:
  case QB_INT32:
  case QB_FLOAT:
  case QB_DOUBLE:
  case QB_UINT16:
    return true;
  default:
    return false;
  }
}
