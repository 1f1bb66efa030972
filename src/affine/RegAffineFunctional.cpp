#include "RegAffineFunctional.h"

#include "QbPrimType.h"
#include "RegAffineTransform.h"
#include "RegMetric.h"
#include "RegOptimizerCallback.h"
#include "RegVoxelEvaluator.h"
#include "SbMatrix.h"
#include "ZrCoord3.h"
#include "ZrFieldEvaluator.h"
#include "ZrLocation3.h"
#include "ZrRegScalarField3.h"
#include "ZrWorkArea.h"

#include <cstddef>

namespace {

// q = p * V with the full homogeneous divide, in single precision.
inline void mapPoint(const SbMatrix& V, const float* p, float* q) {
  const float w = 1.0f / (p[0] * V[0][3] + p[1] * V[1][3] + p[2] * V[2][3] + V[3][3]);
  for (int c = 0; c < 3; c++)
    q[c] = (p[0] * V[0][c] + p[1] * V[1][c] + p[2] * V[2][c] + V[3][c]) * w;
}

} // namespace

// One reference lattice of voxel type RefT (x fastest) into the metric. Each
// row is mapped by its first two voxels through V; positions inside the row
// come from adding the first difference, so a row must be straight. The model
// is sampled where the location reports inside; elsewhere only numTotal rises.
template <class RefT>
void reg_evaluateAffine(const RefT* data, const int* dims, const ZrCoord3* coords,
                        const SbMatrix& V, ZrFieldEvaluator* eval, ZrLocation3* location,
                        RegMetric* metric) {
  const int nx = dims[0], ny = dims[1], nz = dims[2];
  for (int k = 0; k < nz; k++) {
    for (int j = 0; j < ny; j++) {
      float p0[3], p1[3], q[3], q1[3], d[3];
      coords->pos(0, j, k, p0);
      // With a single column the step is never used; the neighbour's position
      // is only asked for where it exists.
      if (nx > 1)
        coords->pos(1, j, k, p1);
      else
        p1[0] = p0[0], p1[1] = p0[1], p1[2] = p0[2];
      mapPoint(V, p0, q);
      mapPoint(V, p1, q1);
      for (int c = 0; c < 3; c++)
        d[c] = q1[c] - q[c];

      const RefT* row = data + ((size_t)k * ny + j) * nx;
      for (int i = 0; i < nx; i++) {
        const float refValue = (float)row[i];
        if (location->set(q[0], q[1], q[2])) {
          float modelValue = 0.0f;
          eval->eval(location, &modelValue);
          metric->increment((double)refValue, (double)modelValue);
        } else {
          metric->numTotal++;
        }
        q[0] += d[0];
        q[1] += d[1];
        q[2] += d[2];
      }
    }
  }
}

RegAffineFunctional::RegAffineFunctional(const QbDArray<ZrSpatialData*>& references,
                                         QbDArray<ZrSpatialData*>& models,
                                         RegInterpolator interpolator,
                                         RegParametricTransform* transform, RegMetric* metric,
                                         RegOptimizerCallback* callback, int clip, int flatAxis)
    : RegFunctional(references, models, transform, metric, callback), clip(clip),
      flatAxis(flatAxis) {
  ZrRegScalarField3* model =
      models.size() > 0 ? dynamic_cast<ZrRegScalarField3*>(models[0]) : nullptr;
  evaluator = new RegVoxelEvaluator(model, interpolator);
}

RegAffineFunctional::~RegAffineFunctional() { delete evaluator; }

double RegAffineFunctional::evaluate() {
  // This functional is only ever given an affine transform; anything else
  // cannot be evaluated here.
  RegAffineTransform* affine = dynamic_cast<RegAffineTransform*>(transform);
  if (!affine)
    return 0.0;
  affine->apply();
  if (clip == 0)
    return evaluateNoClip();
  return 0.0;
}

void RegAffineFunctional::resetEval() { evaluator->resetEval(); }

double RegAffineFunctional::evaluateNoClip() {
  metric->reset();
  // Without a scalar model there is nothing to sample: no sample counts.
  if (!evaluator->field)
    return metric->getResult();
  if (!evaluator->eval || !evaluator->location)
    evaluator->resetEval();

  RegAffineTransform* affine = dynamic_cast<RegAffineTransform*>(transform);
  RegAffineTransform* inverse = affine ? affine->getInverse() : nullptr;
  if (!inverse)
    return metric->getResult();
  SbMatrix toModel;
  toModel.setValue(inverse->modelMatrix);

  ZrFieldEvaluator* eval = evaluator->eval;
  ZrLocation3* location = evaluator->location;
  for (int r = 0; r < references.size(); r++) {
    ZrRegScalarField3* ref = dynamic_cast<ZrRegScalarField3*>(references[r]);
    if (!ref)
      continue;
    // Reference local -> world -> model local.
    SbMatrix V;
    ref->getTransform(V);
    V.multRight(toModel);
    const int* dims = ref->getDims();
    const ZrCoord3* coords = ref->lattice.coords();
    const void* data = ref->lattice.dataPtr();
    qbDispatchVoxelType(ref->primType(), [&](auto tag) {
      using T = decltype(tag);
      reg_evaluateAffine<T>(static_cast<const T*>(data), dims, coords, V, eval, location, metric);
    });
  }
  return metric->getResult();
}

bool RegAffineFunctional::isHeldParameter(int flatAxis, int index) {
  switch (flatAxis) {
  case 0:
    return index == 0 || index == 4 || index == 5 || index == 6 || index == 9 || index == 10;
  case 1:
    return index == 1 || index == 3 || index == 5 || index == 7 || index == 9 || index == 11;
  case 2:
    return index == 2 || index == 3 || index == 4 || index == 8 || index == 10 || index == 11;
  case 4:
    return index == 3 || index == 4 || index == 8 || index == 10 || index == 11;
  default:
    return false;
  }
}

double RegAffineFunctional::evaluate(QbDVector<double>& gradient, double step, int keepAll) {
  ZrWorkArea* workArea = ZrWorkArea::getTheWorkArea();
  workArea->setProgressInfo("computing gradient ...");
  const double f0 = evaluate();

  const int n = transform->getVariableParamVectorDim();
  if (gradient.size() < n)
    gradient.resize(n);
  gradient.fill(0.0);
  SbVec3d extent(size.x, size.y, size.z);
  QbDVector<double> steps(n);
  for (int i = 0; i < n; i++)
    steps[i] = transform->getParamStep(i, &extent);

  QbDVector<double>& params = transform->paramVector;
  for (int i = 0; i < n; i++) {
    if (isHeldParameter(flatAxis, i)) {
      gradient[i] = 0.0;
      continue;
    }
    workArea->setProgressInfo("computing gradient, parameter %d of %d", i + 1, n);
    const double p = params[i];

    params[i] = p + step * steps[i];
    const double fUp = evaluate();
    if ((callback && callback->checkForInterrupt()) || workArea->wasInterrupted(1)) {
      // The parameter under test keeps its shifted value.
      gradient.fill(0.0);
      break;
    }

    params[i] = p - step * steps[i];
    const double fDown = evaluate();
    if ((callback && callback->checkForInterrupt()) || workArea->wasInterrupted(1)) {
      gradient.fill(0.0);
      break;
    }

    params[i] = p;
    if (keepAll || f0 < fUp || f0 < fDown)
      gradient[i] = fUp - fDown;
    else
      gradient[i] = 0.0;
  }
  return f0;
}
