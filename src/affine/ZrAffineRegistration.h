#pragma once
// The compute module that aligns a model field to up to three reference
// fields by a rigid or affine transform. Its result is the new transform of
// the model field; it creates no data object.
//
// Three actions: "Align centers" moves the model's grey-value centre of
// gravity onto the reference's, "Align principal axes" also turns the model's
// axes of inertia onto the reference's and then keeps the best of 24
// orientations, and "Register" runs the coarse-to-fine driver. Each level
// steps through the chosen classes of transform ("Rigid", "Iso-",
// "Aniso-Scale", "Shear"), each stage starting from the last one's result.
#include "QbDArray.h"
#include "QbMat3d.h"
#include "SbVec3d.h"
#include "ZrConnection.h"
#include "ZrPortRadioBox.h"
#include "ZrPortToggleList.h"
#include "ZrVoxelRegistration.h"

class QbInterfaceOwner;
class ZrRegScalarField3;

class ZrAffineRegistration : public ZrVoxelRegistration {
  QB_TYPE_HEADER(ZrAffineRegistration)
public:
  // A host's progress callback: the bar in percent, and a flag that the
  // callback sets to true to stop the run.
  typedef void (*ProgressCallback)(float, bool&);

  ZrAffineRegistration();
  ~ZrAffineRegistration() override;
  static QbInterfaceOwner* createInstance();

  // --- Ports -------------------------------------------------------------------
  // Second and third reference channel; the third counts only with a second.
  ZrConnection portReference2;
  ZrConnection portReference3;
  // "Rigid", "Iso-", "Aniso-Scale", "Shear": the stages of each level.
  ZrPortToggleList portTransform;
  // "2D", "3D": a 3-D pair may be registered in the plane of its thinnest
  // reference axis.
  ZrPortRadioBox portRegister;
  // "Refine on sparse finest resolution": with "Ignore finest resolution",
  // the last stage runs once more on the finest level taken at every second
  // node (see finestRefinement). Off, and hidden.
  ZrPortToggleList portRefineFinest;

  // --- Run-time fields ---------------------------------------------------------
  // Degrees of freedom of the stages, closed by -1. Owned; exists only during
  // a run.
  QbDArray<int>* dofList = nullptr;
  // The present stage in dofList.
  int dofIndex = 0;
  // True while the finest level is refined: its functional keeps the grids
  // it was given, and only the last stage runs.
  bool refining = false;
  // Asked on every check for interruption; null when no program drives the
  // module from outside.
  ProgressCallback progressCallback = nullptr;
  // Kept for programs that set it; nothing reads it.
  bool passExceptions = false;

  // --- Overrides -----------------------------------------------------------------
  void update() override;
  void compute() override;
  RegFunctional* createFunctional(FieldArray& references, FieldArray& models, int, int) override;
  void createTransform() override;
  RegFunctional* finestRefinement(RegFunctional* finest) override;
  int initRegistration() override;
  void enterResolution(int level, int numLevels, RegFunctional* functional) override;
  void doResolution(int level, int numLevels, RegFunctional* functional, double startStep,
                    double endStep) override;
  int doneResolution(int level, int numLevels) override;
  void doneRegistration() override;
  void updateReference() override;
  bool applyTransform(RegParametricTransform* transform) override;
  bool checkForInterrupt() override;

  // Installs the callback that checkForInterrupt() consults. Returns 1.
  virtual int setProgressCallback(ProgressCallback callback);
  virtual void setPassExceptions(bool pass);

  // --- Principal axes -------------------------------------------------------------
  // Grey-value centre of gravity in the field's own grid coordinates, over
  // every second node in each direction; negative values weigh 0. The zero
  // vector for a field without weight. `which` 1 names the reference in the
  // status line, anything else the model.
  SbVec3d computeCenter(ZrRegScalarField3* field, int which);
  // Axes of inertia as the columns of the result, column 0 the axis of the
  // largest moment (along which the object is thinnest). Fills `center`. A
  // zero matrix when interrupted.
  QbMat3d computePrincipalAxes(ZrRegScalarField3* field, SbVec3d& center, int which);
  // Turns the model by `angle` radians about column `axis` of `axes` through
  // `center`, both in the reference's grid and mapped to the world by the
  // reference's transform, on top of the model's present transform.
  void rotateModelAroundPrincipalAxis(int axis, SbVec3d& center, QbMat3d& axes, double angle);

  // True if every node of `reference` falls on a node of `model` as they
  // stand (boxes and transforms): the same grid, perhaps shifted by whole
  // nodes, its axes perhaps swapped or reversed. Uniform lattices only.
  static bool gridsCoincide(ZrRegScalarField3* reference, ZrRegScalarField3* model);

protected:
  // "Align centers".
  void alignCenters();
  // "Align principal axes". False when compute() has to end at once, because
  // the lattices cannot be registered.
  bool alignPrincipalAxes();

private:
  // For the finest level of a planar run: the reference channels resampled
  // on a grid finer by the square root of 2, as hidden objects of the pool
  // that releaseLevel() removes. False, and `offGrid` empty, where the level
  // keeps its grid (a 3-D run, a coarser level, labels, a failed resampling).
  bool offGridReference(const FieldArray& referenceLevel, FieldArray& offGrid);
  // For a level of an image pair whose grids coincide at the start (see
  // inputGridsCoincide): the reference channels on the level's grid made
  // coarser by kStartGridFactor (labels by their nearest label from the
  // input, grey values interpolated), as hidden objects of the pool, the
  // level's own reduced copies being removed from it. False, and `offGrid`
  // empty, where the level keeps its grid.
  bool offGridStart(FieldArray& referenceLevel, ZrRegScalarField3* model, FieldArray& offGrid);
  // True where a run refines its result on the finest level (see
  // finestRefinement): the port is on, the finest level is left out, and the
  // inputs are uniform grey-value fields.
  bool refinesFinest();
  // gridsCoincide() for the first reference and the model.
  bool inputGridsCoincide();
  static constexpr double kStartGridFactor = 0.9;
  // Reference samples from which a level samples a label model by partial
  // volume.
  static constexpr double kPartialVolumeVoxels = 50000.0;
  // The Gaussian (in voxels) that smooths both images of that level.
  static constexpr float kPlanarSigma = 0.5f;
  // Frees what a run that failed in initRegistration() left behind.
  void discardLeftoverRun();
};

// A sample callback for setProgressCallback(): prints the progress and asks
// for no stop.
void myProgressCallback2(float progress, bool& stop);
