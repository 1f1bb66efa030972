#pragma once
// The space in which an elastic deformation lives. The package evaluates a
// spline at the reference's own (local) coordinates and places the model in
// that same space by the model's transform: it takes the reference's frame
// for the world. A reference whose header is oblique keeps a rotation as its
// transform, and then the two differ. Around the package's work the
// reference therefore gives up its transform and the model's transform is
// expressed relative to the reference's frame; points given in world
// coordinates are carried into that frame. Results on the reference's grid
// take the reference's transform back when they are written.
#include "SbMatrixd.h"

class ZrLandmarkSet;
class ZrRegScalarField3;

class ZrReferenceFrame {
public:
  ~ZrReferenceFrame() { leave(); }
  // Enters the frame; nothing to do for a reference without a transform.
  // Both objects must outlive the frame or its leave().
  void enter(ZrRegScalarField3* reference, ZrRegScalarField3* model);
  // Gives both objects their transforms back. Further calls do nothing.
  void leave();
  bool active() const { return reference != nullptr; }
  // Reference coordinates to world coordinates (row vectors; the identity
  // for a reference without a transform).
  const SbMatrixd& toWorld() const { return referenceToWorld; }
  // Carries the points of every set of a landmark set from world coordinates
  // into the frame.
  void toFrame(ZrLandmarkSet* set) const;

private:
  ZrRegScalarField3* reference = nullptr;
  ZrRegScalarField3* model = nullptr;
  SbMatrixd referenceToWorld, modelToWorld;
};
