#pragma once
// Applies a saved control lattice ("ControlGridVectors" of an elastic
// registration) outside a registration run: warps a model, makes the dense
// displacement field in either direction, shows the deformed lattice and
// checks landmarks.
//
// The warp is defined on a reference lattice: the connected "reference", or,
// without one, a lattice of "resolution" nodes made by resampling the model
// and placed in the inner box of the control lattice.
//
// Ports:
//   "model"           the ZrRegScalarField3 to warp
//   "controlPoints"   the ZrRegVectorField3 of the saved lattice
//   "reference"       optional ZrRegScalarField3 the warp is defined on
//   "resolution"      3 ints, the size of the lattice made without reference
//   "action"          "Apply warpTransform", "Control points", "Control grid"
//   "result"          "Vector field", "Vector field (referenceToModel)",
//                     "Validate"
//   "aboveThreshold"  distance above which a landmark counts as missed
//   "statistics", "statistics2"  the landmark check
//   "landmarks"       ZrLandmarkSet of landmark pairs
#include "QbDArray.h"
#include "QbDVector.h"
#include "ZrCompModule.h"
#include "ZrConnection.h"
#include "ZrPortButtonList.h"
#include "ZrPortFloatTextN.h"
#include "ZrPortInfo.h"
#include "ZrPortIntTextN.h"

class QbInterfaceOwner;
class RegVoxelCubicSplineTransform;
class ZrField3;
class ZrLandmarkSet;
class ZrRegScalarField3;
class ZrRegVectorField3;
class ZrSpatialData;

class ZrApplyBSplineTransform : public ZrCompModule {
  QB_TYPE_HEADER(ZrApplyBSplineTransform)
public:
  ZrApplyBSplineTransform();
  ~ZrApplyBSplineTransform() override;
  static QbInterfaceOwner* createInstance();

  // --- Ports (behind the data port "model") ------------------------------------
  ZrConnection portControlPoints;
  ZrConnection portReference;
  ZrPortIntTextN portResolution;
  ZrPortButtonList portAction;
  ZrPortButtonList portResult;
  ZrPortFloatTextN portAboveThreshold;
  ZrPortInfo portStatistics;
  ZrPortInfo portStatistics2;
  ZrConnection portLandmarks;

  // --- Fields ------------------------------------------------------------------------
  // 3, or 2 for a flat model.
  int dimension = 3;
  // What the warp is defined on: the connected reference or one made by
  // resampling (which the module holds a reference to).
  QbDArray<ZrSpatialData*> references;
  ZrRegScalarField3* model = nullptr;
  // The connected lattice.
  ZrRegVectorField3* field = nullptr;
  // The lattice's control points, made from `field`, in the object pool.
  ZrLandmarkSet* controlPointSet = nullptr;
  // 1 (nearest node) for label models, otherwise 0.
  int interpolator = 0;
  // 2 for label models, otherwise 0.
  int modelClass = 0;
  // Owned; rebuilt on every button press.
  RegVoxelCubicSplineTransform* splineTransform = nullptr;
  // Result 1 as createVectorField(false) made it, with the parameters and
  // reference it was made from; null once another result took slot 1.
  ZrData* forwardField = nullptr;
  QbDVector<double> forwardFieldParams;
  ZrSpatialData* forwardFieldReference = nullptr;
  ZrLandmarkSet* landmarks = nullptr;
  // Mapped landmarks and their targets; referenced while the module holds it.
  ZrLandmarkSet* transformedLandmarks = nullptr;

  void update() override;
  void compute() override;

  // Sets the transform up from the saved lattice on references[0].
  void initWarpTransform();
  // Result 1 "VectorField". `referenceToModel` false: vectors p - q from the
  // transformed position q back to the reference node p; true: q - p.
  void createVectorField(bool referenceToModel = false);
  // Result 1 "DeformedGrid": the control lattice as it is deformed.
  void showDeformedGrid();
  // Result 0 "reformat": the model warped onto references[0].
  void applyTransform();
  // Landmark statistics on "statistics" and "statistics2".
  void validateLandmarks();
  // Result 1 if it is the model-to-reference vector field of the present
  // lattice and reference; otherwise it is made anew first. Null if it
  // cannot be made.
  ZrField3* currentForwardField();

private:
  // A reference of "resolution" nodes over the lattice's inner box, from the
  // model; appended to `references`. False when it cannot be made.
  bool buildReference();
  // Empties `references`, letting go of a reference made by resampling.
  void clearReferences();
  ZrSpatialData* builtReference = nullptr;
};
