#include "RegParametricTransform.h"

RegParametricTransform::~RegParametricTransform() {
  // Assigning empty vectors drops their storage, not only their size.
  paramVector = QbDVector<double>();
  auxVector = QbDVector<double>();
}

RegParametricTransform* RegParametricTransform::makeInverse() { return nullptr; }

void RegParametricTransform::computeParamStep(SbVec3d* size) {}
