#include "ZrApplyBSplineTransform.h"

#include "RegSplineOutput.h"
#include "RegVoxelCubicSplineTransform.h"
#include "SoDB.h"
#include "SoSensorManager.h"
#include "ZrCastField.h"
#include "ZrFieldEvaluator.h"
#include "ZrLandmarkSet.h"
#include "ZrObjectPool.h"
#include "ZrRegScalarField3.h"
#include "ZrRegVectorField3.h"
#include "ZrResample.h"
#include "ZrStackedLabelField3.h"
#include "ZrUniformLabelField3.h"
#include "ZrUniformScalarField3.h"
#include "qbmalloc.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

ZrObjectPool* pool() { return ZrObjectPool::getTheObjectPool(); }

bool isLabelField(ZrSpatialData* f) {
  return f && (f->getInterface(ZrUniformLabelField3::getClassTypeId()) ||
               f->getInterface(ZrStackedLabelField3::getClassTypeId()));
}

} // namespace

QB_TYPE_SOURCE(ZrApplyBSplineTransform, ZrCompModule, ZrApplyBSplineTransform::createInstance)

QbInterfaceOwner* ZrApplyBSplineTransform::createInstance() { return new ZrApplyBSplineTransform; }

ZrApplyBSplineTransform::ZrApplyBSplineTransform()
    : ZrCompModule(ZrRegScalarField3::getClassTypeId()),
      portControlPoints(this, "controlPoints", ZrRegVectorField3::getClassTypeId()),
      portReference(this, "reference", ZrRegScalarField3::getClassTypeId()),
      portResolution(this, "resolution", 3), portAction(this, "action", 3),
      portResult(this, "result", 3), portAboveThreshold(this, "aboveThreshold", 1),
      portStatistics(this, "statistics"), portStatistics2(this, "statistics2"),
      portLandmarks(this, "landmarks", ZrLandmarkSet::getClassTypeId()) {
  portData.setName("model");

  portResolution.setLabel("Resolution:");
  portResolution.setLabel(0, "x:");
  portResolution.setLabel(1, "y:");
  portResolution.setLabel(2, "z:");
  portResolution.setValue(64);
  portResolution.setMinMax(1, 4096);

  portAction.setLabel("Action:");
  portAction.setLabel(0, "Apply warpTransform");
  portAction.setLabel(1, "Control points");
  portAction.setLabel(2, "Control grid");
  for (int i = 0; i < 3; i++)
    portAction.setSensitivity(i, 0);

  portResult.setLabel("Result:");
  portResult.setLabel(0, "Vector field");
  portResult.setLabel(1, "Vector field (referenceToModel)");
  portResult.setLabel(2, "Validate");
  portResult.setSensitivity(2, 0);

  portAboveThreshold.setValue(0, 0.5f);
  portAboveThreshold.hide();
  portStatistics.hide();
  portStatistics2.hide();
}

ZrApplyBSplineTransform::~ZrApplyBSplineTransform() {
  delete splineTransform;
  splineTransform = nullptr;
  clearReferences();
  if (transformedLandmarks)
    transformedLandmarks->unref();
  transformedLandmarks = nullptr;
}

void ZrApplyBSplineTransform::clearReferences() {
  references.clear();
  if (builtReference)
    builtReference->unref();
  builtReference = nullptr;
}

void ZrApplyBSplineTransform::update() {
  // 1.
  if (portReference.isNew()) {
    clearReferences();
    if (ZrRegScalarField3* ref = portReference.source<ZrRegScalarField3>())
      references.append(ref);
    const int sensitive = references.isEmpty() ? 1 : 0;
    for (int i = 0; i < 3; i++)
      portResolution.setSensitivity(i, sensitive);
  }

  // 2.
  if (portData.isNew()) {
    model = portData.source<ZrRegScalarField3>();
    if (model && isLabelField(model)) {
      modelClass = 2;
      interpolator = 1;
    } else {
      modelClass = 0;
      interpolator = 0;
    }
    if (model) {
      if (model->getDims()[2] != 1) {
        dimension = 3;
        portResolution.setValue(2, 64);
        portResolution.setSensitivity(2, references.isEmpty() ? 1 : 0);
      } else {
        dimension = 2;
        portResolution.setValue(2, 1);
        portResolution.setSensitivity(2, 0);
      }
    }
  }

  // 3. The control points of the saved lattice: node position plus vector.
  if (portControlPoints.isNew()) {
    field = portControlPoints.source<ZrRegVectorField3>();
    // A set made for an earlier lattice no longer belongs to anything.
    if (controlPointSet && controlPointSet->isInPool())
      pool()->removeObject(controlPointSet);
    controlPointSet = nullptr;
    if (field) {
      const int* d = field->getDims();
      const int nx = d[0], ny = d[1], nz = d[2];
      const int n = nx * ny * nz;
      controlPointSet = new ZrLandmarkSet(1);
      controlPointSet->setNumMarkers(n);
      QbVec3f* points = controlPointSet->getCoords(0);
      const int nComp = field->nDataVar();
      const ZrCoord3* coords = field->lattice.coords();
      for (int index = 0; index < n; index++) {
        const int i = index % nx, j = (index / nx) % ny, k = index / nx / ny;
        float p[3];
        coords->pos(i, j, k, p);
        QbVec3f v;
        for (int c = 0; c < 3 && c < nComp; c++)
          v[c] = field->lattice.getValueAsFloat((size_t)index, c);
        points[index] = QbVec3f(v.x + p[0], v.y + p[1], v.z + p[2]);
      }
      controlPointSet->setName("Control-points");
      pool()->addObject(controlPointSet);
      controlPointSet->hideIcon();
    }
  }

  // 4.
  if (portLandmarks.isNew()) {
    landmarks = portLandmarks.source<ZrLandmarkSet>();
    if (landmarks) {
      portResult.setSensitivity(2, 1);
      portAboveThreshold.show();
    } else {
      portResult.setSensitivity(2, 0);
      portStatistics.hide();
      portStatistics2.hide();
      portAboveThreshold.hide();
    }
  }

  // 5.
  if (portAboveThreshold.isNew() && splineTransform)
    validateLandmarks();

  // 6. A new size: the next press resamples.
  if (portResolution.isNew() && !portReference.isConnected())
    clearReferences();

  // 7.
  const int sensitive = (model && field) ? 1 : 0;
  for (int i = 0; i < 3; i++)
    portAction.setSensitivity(i, sensitive);
  portResult.setSensitivity(0, sensitive);
  portResult.setSensitivity(1, sensitive);
}

bool ZrApplyBSplineTransform::buildReference() {
  const bool label = modelClass == 2;
  // Labels are resampled as plain numbers and made labels again afterwards.
  std::unique_ptr<ZrRegScalarField3> scalar;
  ZrRegScalarField3* source = model;
  if (label) {
    scalar.reset(ZrCastField::cast(model, ZrCastField::OUT_SCALAR));
    source = scalar.get();
  }
  if (!source)
    return false;
  const int dims[3] = {std::max(1, portResolution.getValue(0)),
                       std::max(1, portResolution.getValue(1)),
                       dimension == 2 ? 1 : std::max(1, portResolution.getValue(2))};
  std::unique_ptr<ZrRegScalarField3> resampled(
      ZrResample::resampleGrey(source, dims, ZrResample::FILTER_LANCZOS));
  if (resampled && label)
    resampled.reset(ZrCastField::cast(resampled.get(), ZrCastField::OUT_LABEL));
  if (!resampled)
    return false;

  // The lattice covers the inner box of the control lattice: from node
  // (1, 1, 1) to (nx - 2, ny - 2, nz - 2), in z from node 0 in two dimensions.
  const int* fd = field->getDims();
  float lo[3], hi[3];
  if (dimension == 2) {
    field->lattice.coords()->pos(1, 1, 0, lo);
    field->lattice.coords()->pos(fd[0] - 2, fd[1] - 2, 0, hi);
  } else {
    field->lattice.coords()->pos(1, 1, 1, lo);
    field->lattice.coords()->pos(fd[0] - 2, fd[1] - 2, fd[2] - 2, hi);
  }
  const float box[6] = {lo[0], hi[0], lo[1], hi[1], lo[2], hi[2]};

  // Whatever coordinates the model had, the reference is a regular lattice
  // in the spline's space. Its node positions are the positions the spline
  // maps, so it carries no transform of its own.
  const int type = resampled->primType();
  const size_t bytes = resampled->lattice.numBytes();
  void* data = qbmalloc(bytes > 0 ? bytes : 1);
  std::memcpy(data, resampled->lattice.dataPtr(), bytes);
  ZrUniformScalarField3* ref = label ? new ZrUniformLabelField3(dims, type, box, data)
                                     : new ZrUniformScalarField3(dims, type, box, data);
  ref->setName(model->getName());
  ref->touch(0xffffffffu);
  ref->ref();
  builtReference = ref;
  references.append(ref);
  return true;
}

void ZrApplyBSplineTransform::compute() {
  if (!portAction.wasAnyHit() && !portResult.wasAnyHit())
    return;
  // The buttons are sensitive only with a model and a lattice; a script may
  // still press one without them, and then there is nothing to apply.
  if (!model || !field || !controlPointSet)
    return;

  delete splineTransform;
  splineTransform = new RegVoxelCubicSplineTransform(dimension, false);
  if (references.isEmpty() && !buildReference())
    return;
  initWarpTransform();

  if (portAction.wasHit(0))
    applyTransform();
  if (portAction.wasHit(1))
    controlPointSet->showIcon();
  if (portAction.wasHit(2))
    showDeformedGrid();
  if (portResult.wasHit(0))
    createVectorField(false);
  if (portResult.wasHit(1))
    createVectorField(true);
  if (portResult.wasHit(2))
    validateLandmarks();
}

void ZrApplyBSplineTransform::initWarpTransform() {
  RegVoxelCubicSplineTransform* t = splineTransform;
  t->setReference(references[0]);
  t->setModel(model);
  const int* d = field->getDims();
  t->setControlGridSize(d[0], d[1], d[2]);
  t->setControlPoints(controlPointSet);
  // The saved box is the interpolated box widened by one spacing on each
  // side; one node spacing in from each face undoes that exactly.
  float box[6];
  field->getBoundingBox(box);
  for (int a = 0; a < 3; a++) {
    const float voxel = (box[2 * a + 1] - box[2 * a]) / (float)std::max(d[a] - 1, 1);
    t->interpolatedSpaceBoundary[2 * a] = box[2 * a] + voxel;
    t->interpolatedSpaceBoundary[2 * a + 1] = box[2 * a + 1] - voxel;
  }
  t->getGridSpacing();
  t->precomputeInterpolants();
}

void ZrApplyBSplineTransform::createVectorField(bool referenceToModel) {
  ZrRegScalarField3* R = dynamic_cast<ZrRegScalarField3*>(references[0]);
  if (!R)
    return;
  splineTransform->setReference(R);
  splineTransform->precomputeInterpolants();
  ZrRegVectorField3* out =
      RegSplineOutput::makeVectorField(splineTransform, R, referenceToModel ? -1.0f : 1.0f);
  if (!out)
    return;
  setResult(1, out);
  forwardField = referenceToModel ? nullptr : out;
  forwardFieldParams = splineTransform->paramVector;
  forwardFieldReference = R;
  out->setName("VectorField");
  out->touch(0xffffffffu);
  out->fire(1);
}

ZrField3* ZrApplyBSplineTransform::currentForwardField() {
  // Only the model-to-reference field of this lattice maps a model landmark
  // onto the reference: "DeformedGrid", the control lattice, and the field
  // "Vector field (referenceToModel)", pointing the other way, would each
  // move the landmarks wrongly.
  const bool current = forwardField && getResult(1) == forwardField &&
                       forwardFieldReference == references[0] &&
                       forwardFieldParams == splineTransform->paramVector;
  if (!current)
    createVectorField(false);
  return getResult(1) == forwardField ? dynamic_cast<ZrField3*>(getResult(1)) : nullptr;
}

void ZrApplyBSplineTransform::showDeformedGrid() {
  ZrLandmarkSet* rest = RegSplineOutput::makeRestPositions(splineTransform);
  ZrRegVectorField3* out = RegSplineOutput::makeDeformedGrid(splineTransform, rest);
  if (out) {
    setResult(1, out);
    forwardField = nullptr;
    out->setName("DeformedGrid");
    out->touch(0xffffffffu);
    out->fire(1);
  }
  pool()->removeObject(rest);
}

void ZrApplyBSplineTransform::applyTransform() {
  ZrRegScalarField3* R = dynamic_cast<ZrRegScalarField3*>(references[0]);
  if (!R)
    return;
  splineTransform->update();
  const bool nearest = modelClass == 1 || modelClass == 2;
  std::unique_ptr<ZrFieldEvaluator> eval(
      RegSplineOutput::createModelEvaluator(model, nearest, true));

  ZrRegScalarField3* result = static_cast<ZrRegScalarField3*>(R->duplicate());
  result->setName("reformat");
  result->showIcon();
  setResult(0, result);
  result->lattice.resize(R->getDims());
  RegSplineOutput::warpModel(splineTransform, R, model, eval.get(), result);
  result->touch(0xffffffffu);
  result->fire(1);

  if (landmarks) {
    splineTransform->setLandmarks(landmarks);
    splineTransform->precomputeInterpolantsLandmarks();
    const bool fresh = transformedLandmarks == nullptr;
    transformedLandmarks =
        RegSplineOutput::ensureMappedSet(transformedLandmarks, landmarks->getNumMarkers());
    if (fresh)
      transformedLandmarks->ref();
    RegSplineOutput::mapLandmarks(landmarks, transformedLandmarks, currentForwardField());
    transformedLandmarks->touch(0xffffffffu);
    transformedLandmarks->fire(1);
  }
  SoDB::getSensorManager()->processQueues(1);
}

void ZrApplyBSplineTransform::validateLandmarks() {
  if (!landmarks || !splineTransform || references.isEmpty())
    return;
  const int n = landmarks->getNumMarkers();
  splineTransform->setLandmarks(landmarks);
  splineTransform->precomputeInterpolantsLandmarks();
  const bool fresh = transformedLandmarks == nullptr;
  transformedLandmarks = RegSplineOutput::ensureMappedSet(transformedLandmarks, n);
  if (fresh)
    transformedLandmarks->ref();
  RegSplineOutput::validate(landmarks, transformedLandmarks, currentForwardField(),
                            portAboveThreshold.getValue(0), &portStatistics, &portStatistics2);
  transformedLandmarks->touch(0xffffffffu);
  transformedLandmarks->fire(1);
}
