#include "ZrCastField.h"
#include "QbMemoryException.h"
#include "QbPrimType.h"
#include "ZrMessage.h"
#include "ZrSettingsMgr.h"
#include "ZrStackedLabelField3.h"
#include "ZrUniformLabelField3.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <string>
#include <type_traits>

namespace {
QbInterfaceOwner* createCastField() { return new ZrCastField; }
} // namespace

QB_TYPE_SOURCE(ZrCastField, ZrCompModule, createCastField)

namespace {

template <class T, class S> inline T convertVoxel(S v) {
  if constexpr (std::is_floating_point<T>::value) {
    return T(v);
  } else if constexpr (std::is_integral<S>::value) {
    // Integer to integer: clamping suffices, and is exact.
    using W = long long;
    const W lo = W(std::numeric_limits<T>::lowest()), hi = W(std::numeric_limits<T>::max());
    return T(std::min(std::max(W(v), lo), hi));
  } else {
    // Rounded to nearest in the current mode, clamped; NaN gives 0.
    const double d = double(v);
    if (d != d)
      return T(0);
    if (d <= double(std::numeric_limits<T>::lowest()))
      return std::numeric_limits<T>::lowest();
    if (d >= double(std::numeric_limits<T>::max()))
      return std::numeric_limits<T>::max();
    return T(std::nearbyint(d));
  }
}

template <class S, class T> void reg_evaluateCast(const S* in, T* out, long n) {
  const int numThreads = std::max(1, ZrSettingsMgr::getInstance()->getNumThreads());
  // Small fields are converted on the calling thread: waking a team costs
  // more than it saves.
  const bool par = n >= (1L << 16);
#pragma omp parallel for schedule(static) num_threads(numThreads) if (par)
  for (long i = 0; i < n; i++)
    out[i] = convertVoxel<T>(in[i]);
}

// Voxel type for a label field made from float data: the smallest integer
// type that holds the rounded range.
int labelTypeFor(const ZrRegScalarField3* field) {
  double lo, hi;
  field->lattice.computeRange(lo, hi, 0);
  lo = std::nearbyint(lo);
  hi = std::nearbyint(hi);
  if (lo >= 0.0) {
    if (hi <= 255.0)
      return QB_UINT8;
    if (hi <= 65535.0)
      return QB_UINT16;
    return QB_INT32;
  }
  if (lo >= -32768.0 && hi <= 32767.0)
    return QB_INT16;
  return QB_INT32;
}

// A field of the same coordinates and dimensions as field, of the given voxel
// type and class. Null for a label field on curvilinear coordinates.
ZrRegScalarField3* createLike(const ZrRegScalarField3* field, int type, bool label) {
  const ZrCoord3* c = field->lattice.coords();
  const int* d = field->getDims();
  switch (c->coordType()) {
  case ZR_COORD_UNIFORM: {
    float box[6];
    c->getBoundingBox(box);
    if (label)
      return new ZrUniformLabelField3(d, type, box);
    return new ZrUniformScalarField3(d, type, box);
  }
  case ZR_COORD_STACKED: {
    const ZrStackedCoord3* s = static_cast<const ZrStackedCoord3*>(c);
    if (label)
      return new ZrStackedLabelField3(d, type, s->getXYBox(), s->getZ());
    return new ZrStackedScalarField3(d, type, s->getXYBox(), s->getZ());
  }
  case ZR_COORD_CURVILINEAR:
    if (label)
      return nullptr;
    return new ZrRegScalarField3(d, type, c->duplicate());
  }
  return nullptr;
}

} // namespace

ZrCastField::ZrCastField()
    : ZrCompModule(ZrRegScalarField3::getClassTypeId()), portOutputType(this, "outputType", 1),
      portAction(this, "action", 1) {
  portOutputType.setLabel("Output type");
  portOutputType.setNum(0, NUM_OUTPUT_TYPES);
  portOutputType.setLabel(0, OUT_SCALAR, "Scalar field");
  portOutputType.setLabel(0, OUT_UINT8, "8-bit unsigned");
  portOutputType.setLabel(0, OUT_INT16, "16-bit signed");
  portOutputType.setLabel(0, OUT_UINT16, "16-bit unsigned");
  portOutputType.setLabel(0, OUT_INT32, "32-bit signed");
  portOutputType.setLabel(0, OUT_FLOAT, "32-bit float");
  portOutputType.setLabel(0, OUT_LABEL, "Label field");
  portOutputType.setLabel(0, OUT_DOUBLE, "64-bit float");
  portOutputType.setIndex(0, OUT_SCALAR);
  portAction.setLabel("Action");
  portAction.setLabel(0, "Apply");
}

ZrCastField::~ZrCastField() = default;

ZrRegScalarField3* ZrCastField::cast(ZrRegScalarField3* field, int outputType) {
  if (!field || field->nDataVar() != 1 || !qbPrimTypeIsVoxelType(field->primType()))
    return nullptr;
  const int inType = field->primType();
  int outType = inType;
  bool label = false;
  switch (outputType) {
  case OUT_SCALAR:
    break;
  case OUT_UINT8:
    outType = QB_UINT8;
    break;
  case OUT_INT16:
    outType = QB_INT16;
    break;
  case OUT_UINT16:
    outType = QB_UINT16;
    break;
  case OUT_INT32:
    outType = QB_INT32;
    break;
  case OUT_FLOAT:
    outType = QB_FLOAT;
    break;
  case OUT_LABEL:
    label = true;
    if (!qbPrimTypeIsInteger(inType))
      outType = labelTypeFor(field);
    break;
  case OUT_DOUBLE:
    outType = QB_DOUBLE;
    break;
  default:
    return nullptr;
  }
  ZrRegScalarField3* result = createLike(field, outType, label);
  if (!result)
    return nullptr;
  const long n = long(field->lattice.numNodes());
  qbDispatchVoxelType(inType, [&](auto s) {
    using S = decltype(s);
    qbDispatchVoxelType(outType, [&](auto t) {
      using T = decltype(t);
      reg_evaluateCast<S, T>(static_cast<const S*>(field->lattice.dataPtr()),
                             static_cast<T*>(result->lattice.dataPtr()), n);
    });
  });
  result->copyTransform(*field);
  return result;
}

void ZrCastField::compute() {
  if (!portAction.wasHit(0))
    return;
  ZrRegScalarField3* field = portData.source<ZrRegScalarField3>();
  if (!field) {
    ZrMessage::getTheMsg()->printf("ZrCastField: no scalar field connected.\n");
    return;
  }
  const int outputType = portOutputType.getIndex(0);
  ZrRegScalarField3* result = nullptr;
  try {
    result = cast(field, outputType);
  } catch (const QbMemoryException&) {
    ZrMessage::getTheMsg()->printf("ZrCastField: not enough memory to convert %s.\n",
                                   field->getName());
    return;
  }
  if (!result) {
    if (outputType == OUT_LABEL && field->coordType() == ZR_COORD_CURVILINEAR)
      ZrMessage::getTheMsg()->printf(
          "ZrCastField: label fields need uniform or stacked coordinates.\n");
    else
      ZrMessage::getTheMsg()->printf("ZrCastField: cannot convert %s.\n", field->getName());
    return;
  }
  result->setName((std::string(field->getName()) + ".cast").c_str());
  setResult(0, result);
}
