#include "RegAffineFunctionalUniform.h"

#include "QbPrimType.h"
#include "RegAffineTransform.h"
#include "RegMetric.h"
#include "SbVec3d.h"
#include "ZrRegScalarField3.h"
#include "reg_evaluateUniform.h"

#include <cstdint>

RegAffineFunctionalUniform::RegAffineFunctionalUniform(
    const QbDArray<ZrSpatialData*>& references, QbDArray<ZrSpatialData*>& models,
    RegInterpolator interpolator, RegParametricTransform* transform, RegMetric* metric,
    RegOptimizerCallback* callback, int flatAxis, unsigned int numThreads)
    : RegAffineFunctional(references, models, interpolator, transform, metric, callback, 0,
                          flatAxis),
      numThreads(numThreads ? numThreads : 1) {}

RegAffineFunctionalUniform::~RegAffineFunctionalUniform() {}

void RegAffineFunctionalUniform::resetEval() {
  ZrRegScalarField3* model =
      models.size() > 0 ? dynamic_cast<ZrRegScalarField3*>(models[0]) : nullptr;
  if (!model)
    return;
  const int* d = model->getDims();
  dims.setValue(d[0], d[1], d[2]);
  model->getBoundingBox(modelBox);

  double scale[3];
  for (int a = 0; a < 3; a++) {
    const double extent = (double)modelBox[2 * a + 1] - (double)modelBox[2 * a];
    scale[a] = extent != 0.0 ? (double)(dims[a] - 1) / extent : 0.0;
  }

  // The interpolating sampler of the metric gets the same model; this walk
  // does not use it.
  metric->box = modelBox;
  metric->dims = dims.getValue();
  for (int a = 0; a < 3; a++) {
    metric->scale[a] = (float)scale[a];
    metric->boxSize[a] = modelBox[2 * a + 1] - modelBox[2 * a];
  }
  metric->inside = 1;

  // (p - min) * scale: voxel i of each axis at coordinate i.
  gridMatrix.makeIdentity();
  gridMatrix.setTranslate(SbVec3d(-modelBox[0], -modelBox[2], -modelBox[4]));
  SbMatrixd scaling;
  scaling.setScale(SbVec3d(scale[0], scale[1], scale[2]));
  gridMatrix.multRight(scaling);
}

double RegAffineFunctionalUniform::evaluateNoClip() {
  metric->reset();
  resetEval();

  RegAffineTransform* affine = dynamic_cast<RegAffineTransform*>(transform);
  ZrRegScalarField3* model =
      models.size() > 0 ? dynamic_cast<ZrRegScalarField3*>(models[0]) : nullptr;
  if (!affine || !model)
    return 0.0;

  const int modelType = model->primType();
  const void* modelData = model->lattice.dataPtr();
  const int modelDims[3] = {dims.x, dims.y, dims.z};
  // The model reaches half a voxel beyond its outer voxel centres. A single
  // voxel along an axis with extent reaches half a voxel either way; one
  // without extent does not clip at all (its coordinate is always 0).
  double clip[6];
  for (int a = 0; a < 3; a++) {
    if (dims[a] >= 2) {
      clip[2 * a] = -0.5;
      clip[2 * a + 1] = (double)(dims[a] - 1) + 0.5;
    } else if (modelBox[2 * a + 1] <= modelBox[2 * a]) {
      clip[2 * a] = clip[2 * a + 1] = 0.0;
    } else {
      clip[2 * a] = -0.5;
      clip[2 * a + 1] = 0.5;
    }
  }

  RegAffineTransform* inverse = affine->getInverse();
  if (!inverse)
    return 0.0;
  const SbMatrixd& toModel = inverse->modelMatrix;
  for (int r = 0; r < references.size(); r++) {
    ZrRegScalarField3* ref = dynamic_cast<ZrRegScalarField3*>(references[r]);
    if (!ref)
      return 0.0;
    const int* rd = ref->getDims();
    const QbVec3i refDims(rd[0], rd[1], rd[2]);
    const ZrCoord3* coords = ref->lattice.coords();

    // Reference local -> world -> model local -> model voxel coordinates.
    SbMatrixd M;
    ref->getTransform(M);
    M.multRight(toModel);
    M.multRight(gridMatrix);

    // One step for the whole lattice, from the first to the last voxel of
    // row 0: the reference must be straight along x.
    float p0[3], p1[3];
    coords->pos(0, 0, 0, p0);
    coords->pos(refDims.x - 1, 0, 0, p1);
    SbVec3d d;
    M.multDirMatrix(SbVec3d((double)p1[0] - p0[0], (double)p1[1] - p0[1], (double)p1[2] - p0[2]),
                    d);
    const SbVec3d step = d / (refDims.x - 1 < 1 ? 1.0 : (double)(refDims.x - 1));

    // Direction of the rows per axis: up, down, or (nearly) constant.
    d.normalize();
    QbVec3i flags(0, 0, 0);
    for (int a = 0; a < 3; a++) {
      if (!(clip[2 * a + 1] > clip[2 * a]))
        continue;
      if (d[a] > 1e-05)
        flags[a] = 1;
      else if (d[a] < -1e-05)
        flags[a] = -1;
      else
        flags[a] = 2;
    }

    const size_t voxels = (size_t)refDims.x * refDims.y * refDims.z;
    unsigned int threads = numThreads;
    if (minVoxelsPerThread > 1 && voxels / minVoxelsPerThread < threads)
      threads = voxels / minVoxelsPerThread > 1 ? (unsigned int)(voxels / minVoxelsPerThread) : 1;

    // One dispatch on both voxel types per reference; the walk is compiled
    // for each of the 36 pairs.
    bool known = false;
    qbDispatchVoxelType(ref->primType(), [&](auto refTag) {
      using RefT = decltype(refTag);
      known = qbDispatchVoxelType(modelType, [&](auto modelTag) {
        using ModelT = decltype(modelTag);
        reg_evaluateUniform<RefT, ModelT>(static_cast<const RefT*>(ref->lattice.dataPtr()),
                                          static_cast<const ModelT*>(modelData), refDims, coords, M,
                                          flags, step, metric, clip, modelDims, threads);
      });
    });
    if (!known)
      return 0.0;
  }
  return metric->getResult();
}
