#include "ZrTransformNode.h"

void ZrTransformNode::setMatrix(const SbMatrixd& m) {
  matrix = m;
  // The components follow the matrix where it can be decomposed; a singular
  // or projective matrix leaves them as they were, and the matrix itself is
  // what the object reports in any case.
  SbVec3d t, s;
  SbRotationd r, so;
  if (m.getTransform(t, r, s, so, center)) {
    translation = t;
    rotation = r;
    scaleFactor = s;
    scaleOrientation = so;
  }
}

void ZrTransformNode::updateMatrix() {
  matrix.setTransform(translation, rotation, scaleFactor, scaleOrientation, center);
}
