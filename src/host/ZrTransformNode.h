#pragma once
// Transformation node of a spatial data object: translation, rotation, scale
// factor, scale orientation and centre, composed as SbMatrixd::setTransform
// does. The matrix is kept as it was set, so that what is set is read back
// exactly; setting the components recomposes it.
#include "SbMatrixd.h"
#include "SbRotationd.h"
#include "SbVec3d.h"

class ZrTransformNode {
public:
  SbVec3d translation{0, 0, 0};
  SbRotationd rotation;
  SbVec3d scaleFactor{1, 1, 1};
  SbRotationd scaleOrientation;
  SbVec3d center{0, 0, 0};

  ZrTransformNode() = default;
  const SbMatrixd& getMatrix() const { return matrix; }
  // Stores m and decomposes it into the components about the present centre.
  void setMatrix(const SbMatrixd& m);
  // Recomposes the matrix after the components were changed.
  void updateMatrix();

private:
  SbMatrixd matrix;
};
