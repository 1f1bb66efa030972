// The package's exported entries: the build stamp and the constructor and
// destructor calls of a host that loads this library with dlopen.
#include "ZrRegistrationPackage.h"

#include "ZrAffineRegistration.h"
#include "ZrApplyBSplineTransform.h"
#include "ZrApplyDeformation.h"
#include "ZrElasticRegistration.h"

#define ZR_STR2(x) #x
#define ZR_STR(x) ZR_STR2(x)

#ifdef __VERSION__
#define ZR_COMPILER "gcc " __VERSION__
#else
#define ZR_COMPILER "unknown"
#endif

namespace {

// The marker stands before and after the record; the record's fields are
// separated by '|' and each key is followed by its value.
#define ZR_STAMP_MARKER "@@ZRSTAMP@@"

// clang-format off
const char buildStamp[] =
    ZR_STAMP_MARKER
    "|vendor|zrregistration developers"
    "|product|zrregistration"
    "|version_major|" ZR_STR(ZR_VERSION_MAJOR)
    "|version_minor|" ZR_STR(ZR_VERSION_MINOR)
    "|version_patch|" ZR_STR(ZR_VERSION_PATCH)
    "|version_tag|"
    "|comment|image registration modules"
    "|compiler|" ZR_COMPILER
    "|target_os|linux"
    "|build_cfg|" ZR_BUILD_CFG
    "|build_user|"
    "|build_ip|"
    "|build_time|" ZR_BUILD_TIME
    "|filename|libzrregistration.so"
    "|path|"
    "|size|0|"
    ZR_STAMP_MARKER;
// clang-format on

// The marker with one filler character after each of its characters: half its
// length is the marker's length.
const char stampMarkerSpread[] = "@.@.Z.R.S.T.A.M.P.@.@.";

} // namespace

extern "C" {

const char* torvipackage_zrregistration() {
  return buildStamp + (sizeof(stampMarkerSpread) - 1) / 2;
}

void torvipackage_zrregistration_init() {
  static bool done = false;
  if (done)
    return;
  done = true;
  // The module classes join the host's type system in this order:
  // ZrApplyDeformation, ZrAffineRegistration, ZrElasticRegistration,
  // ZrApplyBSplineTransform. Each record also exists from the moment the
  // library is loaded, through the static variable in the class's source.
  ZrApplyDeformation::initClass();
  ZrAffineRegistration::initClass();
  ZrElasticRegistration::initClass();
  ZrApplyBSplineTransform::initClass();
}

void torvipackage_zrregistration_finish() {
  static bool done = false;
  if (done)
    return;
  done = true;
}

void soconstructor_zrregistration() { torvipackage_zrregistration_init(); }

void sodestructor_zrregistration() { torvipackage_zrregistration_finish(); }

} // extern "C"
