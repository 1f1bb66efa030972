#include "ZrEvalStandard.h"
#include "ZrField3.h"

ZrLocation3* ZrEvalStandard::createLocation() { return field->createLocation(); }

void ZrEvalStandard::eval(ZrLocation3* location, float* result) { field->eval(location, result); }

void ZrEvalStandard::evalNative(ZrLocation3* location, void* result) {
  field->evalNative(location, result);
}
