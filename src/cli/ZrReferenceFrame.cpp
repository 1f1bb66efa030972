#include "ZrReferenceFrame.h"

#include "SbVec3d.h"
#include "ZrLandmarkSet.h"
#include "ZrRegScalarField3.h"

void ZrReferenceFrame::enter(ZrRegScalarField3* ref, ZrRegScalarField3* mod) {
  leave();
  ref->getTransform(referenceToWorld);
  if (!ref->getTransformNode() || referenceToWorld.isIdentity())
    return;
  reference = ref;
  model = mod;
  model->getTransform(modelToWorld);
  // Model coordinates to world, then world to the reference's coordinates.
  model->setTransform(modelToWorld * referenceToWorld.inverse());
  reference->removeTransform();
}

void ZrReferenceFrame::leave() {
  if (!reference)
    return;
  reference->setTransform(referenceToWorld);
  model->setTransform(modelToWorld);
  reference = model = nullptr;
}

void ZrReferenceFrame::toFrame(ZrLandmarkSet* set) const {
  if (!reference || !set)
    return;
  const SbMatrixd fromWorld = referenceToWorld.inverse();
  for (int s = 0; s < set->getNumSets(); s++)
    for (int m = 0; m < set->getNumMarkers(); m++) {
      const QbVec3f p = set->getPosition(m, s);
      SbVec3d q;
      fromWorld.multVecMatrix(SbVec3d(p.x, p.y, p.z), q);
      set->setPosition(QbVec3f(float(q[0]), float(q[1]), float(q[2])), m, s);
    }
}
