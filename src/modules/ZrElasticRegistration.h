#pragma once
// The compute module of non-rigid registration: a cubic B-spline deformation
// of the model onto the reference, found coarse to fine.
//
// On top of the resolution pyramid of the driver, the control lattice is
// doubled between passes ("Refine grid n times"), spread over the levels by a
// refinement plan, and the penalties fade in as the lattice gets finer: the
// grid energy reaches its full weight only once no refinement is left, the
// Jacobian constraint weighs most on the coarsest level, and landmark pairs
// pull strongest at the start and not at all on the finest lattice.
//
// Results (see RegSplineOutput): "reformat", the model warped onto the
// reference (result 0); "ControlGridVectors", the control lattice as
// displacements (result 1, which "Vector field" replaces by the dense
// displacement "VectorField"); "result", the warped model at the start of
// each level; "transformedLandmarks", the mapped landmarks and their
// targets; and "Control-points", the live control points.
#include "QbDArray.h"
#include "QbDVector.h"
#include "ZrConnection.h"
#include "ZrPortButtonList.h"
#include "ZrPortFloatTextN.h"
#include "ZrPortInfo.h"
#include "ZrPortIntTextN.h"
#include "ZrPortMultiMenu.h"
#include "ZrVoxelRegistration.h"

class QbInterfaceOwner;
class RegVoxelCubicSplineTransform;
class ZrField3;
class ZrLandmarkSet;

class ZrElasticRegistration : public ZrVoxelRegistration {
  QB_TYPE_HEADER(ZrElasticRegistration)
public:
  ZrElasticRegistration();
  ~ZrElasticRegistration() override;
  static QbInterfaceOwner* createInstance();

  // --- Ports ---------------------------------------------------------------------
  // "Save transform", "Vector field", "Validate".
  ZrPortButtonList portResult;
  // Distance above which "Validate" counts a landmark as missed.
  ZrPortFloatTextN portAboveThreshold;
  ZrPortInfo portStatistics;
  ZrPortInfo portStatistics2;
  // Control points to start from, instead of a lattice at rest.
  ZrConnection portControlPoints;
  // "Initial grid size": control points per axis before any refinement.
  ZrPortIntTextN portInitialGridSize;
  // "Refine grid n times".
  ZrPortIntTextN portRefineGrid;
  // "Jacobian constraint:", "Grid energy:", "Landmarks:", "Gaussian smoothing".
  ZrPortFloatTextN portRegularization;
  // Landmark pairs: set 0 in the model, set 1 in the reference.
  ZrConnection portLandmarks;
  // "Gradient:": "Finite differences" (probes of each control point's box,
  // the default) or "Analytic" (the exact derivative in one pass over the
  // reference, for every metric but label difference). Hidden.
  ZrPortMultiMenu portGradient;

  // --- Fields ------------------------------------------------------------------------
  // The live control points: the connected set, or the one createTransform()
  // made. Not owned.
  ZrLandmarkSet* controlPointSet = nullptr;
  // The control lattice's size per axis.
  int gridSize[3] = {0, 0, 0};
  // The connected landmark pairs, or null. Not owned.
  ZrLandmarkSet* landmarks = nullptr;
  // Mapped landmarks and their targets; referenced while the module holds it.
  ZrLandmarkSet* transformedLandmarks = nullptr;
  // The reference's voxel size: the margin of the spline's box.
  float voxelSize[3] = {0.0f, 0.0f, 0.0f};
  // The same object as `transform`.
  RegVoxelCubicSplineTransform* splineTransform = nullptr;
  // Refinements to do on each optimised level, index 0 the coarsest.
  QbDArray<int> refinePlan;
  // Refinements done on the present level.
  short refineCounter = 0;
  // Refinements done in this run.
  short refinementsDone = 0;
  // The number of last refinement stages over which the grid energy fades in.
  short energyLevels = 2;
  // Result 1 as createVectorField() made it, and the parameters it was made
  // from; null once another result took slot 1.
  ZrData* vectorFieldResult = nullptr;
  QbDVector<double> vectorFieldParams;
  // This run registers the finest level on a sub-lattice of the reference
  // instead of leaving it out (analytic gradient, "Ignore finest
  // resolution").
  bool sparseFinest = false;

  // --- Overrides -------------------------------------------------------------------
  void createTransform() override;
  RegFunctional* createFunctional(FieldArray& references, FieldArray& models, int, int) override;
  int initRegistration() override;
  void enterResolution(int level, int numLevels, RegFunctional* functional) override;
  int doneResolution(int level, int numLevels) override;
  void doneRegistration() override;
  void updateReference() override;
  void update() override;
  void compute() override;
  // Warps the model onto the reference as result 0 ("reformat") and maps the
  // landmarks. Never asks the optimizer to stop.
  bool applyTransform(RegParametricTransform* transform) override;

  // --- Operations ------------------------------------------------------------------
  // Control points along `axis` after all refinements of "Refine grid n times".
  int computeFinalGridSize(int axis);
  // Connects the live control points to "controlPoints" and shows them.
  void showControlPoints();
  // Result 1 "ControlGridVectors": the control lattice as displacements.
  void saveControlPoints();
  // Result 1 "VectorField": the dense displacement on the reference lattice.
  void createVectorField();
  // A warped copy of the model named "result" in the object pool.
  void writeModel();
  // Landmark statistics on "statistics" and "statistics2".
  void validateLandmarks();
  // Result 1 if it is the dense vector field of the present parameters;
  // otherwise it is made anew first. Null if it cannot be made.
  ZrField3* currentVectorField();

  // The refinement plan of a run over `numLevels` optimised levels with
  // `refinements` doublings: one to each level but the finest, then, as long
  // as any is left, rounds over every second level from the coarsest.
  static void planRefinements(QbDArray<int>& plan, int numLevels, int refinements);
  // The stride of the sub-lattice on which the sparse finest level samples a
  // reference of `dims` under `points` control points: 2, more where every
  // second voxel would still give over kFinestSamples samples, and 1 (every
  // voxel) where 2 leaves fewer than 64 samples a control point.
  static int finestStride(const int* dims, int64_t points);
  static const int64_t kFinestSamples = int64_t(1) << 21;

private:
  // The reference and model that the present level works on, or the inputs
  // between levels. False when either is missing.
  bool currentFields(ZrRegScalarField3*& R, ZrRegScalarField3*& M);
  // Deletes the transform; the next action makes a new one.
  void discardTransform();
  // The margin of the spline's box around the reference, per axis.
  void runMargin(float margin[3]) const;
  // Sensitivity of "Validate" and visibility of the validation ports.
  void offerValidation(bool offer);
};
