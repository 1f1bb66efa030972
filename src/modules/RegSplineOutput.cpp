#include "RegSplineOutput.h"

#include "QbPrimType.h"
#include "RegVoxelCubicSplineTransform.h"
#include "SbMatrix.h"
#include "ZrCurvilinearCoord3.h"
#include "ZrEvalLanczos.h"
#include "ZrEvalNN.h"
#include "ZrEvalStandard.h"
#include "ZrField3.h"
#include "ZrLandmarkSet.h"
#include "ZrLocation3.h"
#include "ZrMessage.h"
#include "ZrObjectPool.h"
#include "ZrPortInfo.h"
#include "ZrRegScalarField3.h"
#include "ZrRegVectorField3.h"
#include "ZrUniformCoord3.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>

namespace {

void reportNoField() { ZrMessage::getTheMsg()->printf("Could not create vector field.\n"); }

// A float value as a voxel of type T: float and double take it as it is;
// integer types round to nearest in the processor's present rounding mode and
// clamp to their range. A NaN, which has no nearest integer, becomes 0.
template <class T> inline T reg_voxelFromFloat(float v) {
  if (!std::numeric_limits<T>::is_integer)
    return (T)v;
  const double r = std::nearbyint((double)v);
  if (r != r)
    return 0;
  const double lo = (double)std::numeric_limits<T>::lowest();
  const double hi = (double)std::numeric_limits<T>::max();
  return (T)(r < lo ? lo : (r > hi ? hi : r));
}

} // namespace

// Samples the model at each transformed position and stores every component
// of the result node. `buffer` holds at least max(model components, nComp)
// floats; what the evaluator does not write stays 0 from the start.
template <class T>
void reg_evaluateWarp(T* out, int nComp, const QbVec3f* positions, size_t numNodes,
                      ZrFieldEvaluator* eval, ZrLocation3* location, float* buffer) {
  for (size_t n = 0; n < numNodes; n++) {
    const QbVec3f& q = positions[n];
    location->set(q.x, q.y, q.z);
    eval->eval(location, buffer);
    T* node = out + n * nComp;
    for (int c = 0; c < nComp; c++)
      node[c] = reg_voxelFromFloat<T>(buffer[c]);
  }
}

void RegSplineOutput::transformGrid(RegVoxelCubicSplineTransform* t, ZrRegScalarField3* R,
                                    std::vector<QbVec3f>& out) {
  const int* d = R->getDims();
  out.assign((size_t)d[0] * d[1] * d[2], QbVec3f());
  transformGrid(t, R, out.data());
}

void RegSplineOutput::transformGrid(RegVoxelCubicSplineTransform* t, ZrRegScalarField3* R,
                                    QbVec3f* out) {
  const int* d = R->getDims();
  const size_t nx = d[0], ny = d[1];
  const size_t cy = t->gridSize[1], cz = t->gridSize[2];
  if (t->dimension == 3) {
    std::vector<QbVec3f> first(nx * cy * cz), second(nx * ny * cz);
    t->getTransformedGridComplete(out, first.data(), second.data());
  } else {
    // A flat lattice skips the third pass: the second pass writes the
    // result, which holds nx * ny * 1 positions.
    std::vector<QbVec3f> first(nx * cy * cz);
    t->getTransformedGridComplete(nullptr, first.data(), out);
  }
}

ZrRegVectorField3* RegSplineOutput::makeVectorField(RegVoxelCubicSplineTransform* t,
                                                    ZrRegScalarField3* R, float sign) {
  const int* d = R->getDims();
  ZrRegVectorField3* field = ZrRegVectorField3::create(d, 3, QB_FLOAT, ZR_COORD_CURVILINEAR);
  if (!field) {
    reportNoField();
    return nullptr;
  }
  // The positions go straight into the field's coordinates: on a fine grid
  // a buffer of them would be as large as the field.
  static_assert(sizeof(QbVec3f) == 3 * sizeof(float), "positions are three packed floats");
  float* coords = static_cast<ZrCurvilinearCoord3*>(field->lattice.coords())->getPositions();
  transformGrid(t, R, reinterpret_cast<QbVec3f*>(coords));
  float* vec = field->floatData();
  const ZrCoord3* refCoords = R->lattice.coords();
  size_t n = 0;
  for (int k = 0; k < d[2]; k++)
    for (int j = 0; j < d[1]; j++)
      for (int i = 0; i < d[0]; i++, n++) {
        float p[3];
        refCoords->pos(i, j, k, p);
        for (int c = 0; c < 3; c++)
          vec[3 * n + c] = sign * (p[c] - coords[3 * n + c]);
      }
  return field;
}

ZrFieldEvaluator* RegSplineOutput::createModelEvaluator(ZrField3* model, bool nearest,
                                                        bool lanczos) {
  ZrFieldEvaluator* eval = nullptr;
  if (nearest)
    eval = ZrEvalNN::createEval(model);
  else if (lanczos)
    eval = ZrEvalLanczos::createEval(model);
  if (!eval)
    eval = new ZrEvalStandard(model);
  return eval;
}

void RegSplineOutput::warpModel(RegVoxelCubicSplineTransform* t, ZrRegScalarField3* R,
                                ZrField3* model, ZrFieldEvaluator* eval,
                                ZrRegScalarField3* result) {
  const bool local = t->modelTransformed;
  if (local)
    t->applyModelTransformInv();
  std::vector<QbVec3f> q;
  transformGrid(t, R, q);
  if (local)
    t->applyModelTransform();

  const int nComp = result->nDataVar();
  const int modelComp = model->nDataVar();
  std::vector<float> buffer(std::max(std::max(nComp, modelComp), 3), 0.0f);
  std::unique_ptr<ZrLocation3> location(eval->createLocation());
  const size_t numNodes = std::min(q.size(), result->lattice.numNodes());
  void* data = result->lattice.dataPtr();
  qbDispatchVoxelType(result->primType(), [&](auto v) {
    typedef decltype(v) T;
    reg_evaluateWarp<T>(static_cast<T*>(data), nComp, q.data(), numNodes, eval, location.get(),
                        buffer.data());
  });
}

ZrLandmarkSet* RegSplineOutput::makeRestPositions(RegVoxelCubicSplineTransform* t) {
  ZrLandmarkSet* rest = new ZrLandmarkSet(1);
  t->createControlPoints(rest);
  rest->setName("controlPointsInitial");
  ZrObjectPool::getTheObjectPool()->addObject(rest);
  rest->hideIcon();
  return rest;
}

ZrRegVectorField3* RegSplineOutput::makeControlGridVectors(RegVoxelCubicSplineTransform* t,
                                                           ZrLandmarkSet* rest) {
  const int dims[3] = {t->gridSize[0], t->gridSize[1], t->gridSize[2]};
  ZrRegVectorField3* field = ZrRegVectorField3::create(dims, 3, QB_FLOAT, ZR_COORD_UNIFORM);
  if (!field) {
    reportNoField();
    return nullptr;
  }
  const size_t n = (size_t)dims[0] * dims[1] * dims[2];
  const size_t numRest = (size_t)rest->getNumMarkers();
  const QbVec3f* r = rest->getCoords(0);
  float* vec = field->floatData();
  const double* p = t->paramVector.data();
  for (size_t i = 0; i < n; i++)
    for (int c = 0; c < 3; c++)
      vec[3 * i + c] = (float)(p[3 * i + c] - (i < numRest ? (double)r[i][c] : 0.0));

  float box[6];
  for (int a = 0; a < 3; a++) {
    box[2 * a] = t->interpolatedSpaceBoundary[2 * a] - t->gridSpacing[a];
    box[2 * a + 1] = t->interpolatedSpaceBoundary[2 * a + 1] + t->gridSpacing[a];
  }
  static_cast<ZrUniformCoord3*>(field->lattice.coords())->setBoundingBox(box);
  if (t->modelTransformed)
    field->setTransform(t->modelMatrix);
  return field;
}

ZrRegVectorField3* RegSplineOutput::makeDeformedGrid(RegVoxelCubicSplineTransform* t,
                                                     ZrLandmarkSet* rest) {
  const int dims[3] = {t->gridSize[0], t->gridSize[1], t->gridSize[2]};
  ZrRegVectorField3* field = ZrRegVectorField3::create(dims, 3, QB_FLOAT, ZR_COORD_CURVILINEAR);
  if (!field) {
    reportNoField();
    return nullptr;
  }
  const size_t n = (size_t)dims[0] * dims[1] * dims[2];
  const size_t numRest = (size_t)rest->getNumMarkers();
  const QbVec3f* r = rest->getCoords(0);
  float* coords = static_cast<ZrCurvilinearCoord3*>(field->lattice.coords())->getPositions();
  float* vec = field->floatData();
  const double* p = t->paramVector.data();
  for (size_t i = 0; i < n; i++)
    for (int c = 0; c < 3; c++) {
      coords[3 * i + c] = (float)p[3 * i + c];
      vec[3 * i + c] = (float)(p[3 * i + c] - (i < numRest ? (double)r[i][c] : 0.0));
    }
  return field;
}

ZrLandmarkSet* RegSplineOutput::ensureMappedSet(ZrLandmarkSet* set, int numMarkers) {
  if (!set) {
    set = new ZrLandmarkSet(2);
    set->setName("transformedLandmarks");
    ZrObjectPool::getTheObjectPool()->addObject(set);
  }
  if (set->getNumSets() != 2)
    set->setNumSets(2);
  set->setNumMarkers(numMarkers);
  return set;
}

namespace {

// One marker of the mapping; `v` is the caller's scratch.
void mapMarker(ZrLandmarkSet* landmarks, ZrLandmarkSet* mapped, ZrField3* field,
               ZrLocation3* location, float* v, int m) {
  const QbVec3f p = landmarks->getPosition(m, 0);
  if (location) {
    location->set(p.x, p.y, p.z);
    field->eval(location, v);
  }
  mapped->setPosition(QbVec3f(p.x + v[0], p.y + v[1], p.z + v[2]), m, 0);
  mapped->setPosition(landmarks->getNumSets() > 1 ? landmarks->getPosition(m, 1) : p, m, 1);
}

int compareFloats(const void* a, const void* b) {
  const float x = *static_cast<const float*>(a), y = *static_cast<const float*>(b);
  return (x > y) - (x < y);
}

} // namespace

void RegSplineOutput::mapLandmarks(ZrLandmarkSet* landmarks, ZrLandmarkSet* mapped,
                                   ZrField3* field) {
  const int n = std::min(landmarks->getNumMarkers(), mapped->getNumMarkers());
  std::vector<float> v(field ? std::max(3, field->nDataVar()) : 3, 0.0f);
  std::unique_ptr<ZrLocation3> location(field ? field->createLocation() : nullptr);
  for (int m = 0; m < n; m++)
    mapMarker(landmarks, mapped, field, location.get(), v.data(), m);
}

void RegSplineOutput::validate(ZrLandmarkSet* landmarks, ZrLandmarkSet* mapped, ZrField3* field,
                               float threshold, ZrPortInfo* statistics, ZrPortInfo* statistics2) {
  const int n = std::min(landmarks->getNumMarkers(), mapped->getNumMarkers());
  std::vector<float> v(field ? std::max(3, field->nDataVar()) : 3, 0.0f);
  std::unique_ptr<ZrLocation3> location(field ? field->createLocation() : nullptr);
  std::vector<float> distances(n > 0 ? n : 1, 0.0f);
  float sum = 0.0f, sumSq = 0.0f, maxDist = 0.0f;
  int above = 0;
  for (int m = 0; m < n; m++) {
    // The distance as the pair stands, before this marker is mapped anew.
    const QbVec3f d = mapped->getPosition(m, 0) - mapped->getPosition(m, 1);
    const float dist = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
    distances[m] = dist;
    if (dist > maxDist)
      maxDist = dist;
    if (dist > threshold)
      above++;
    sum += dist;
    sumSq += dist * dist;
    mapMarker(landmarks, mapped, field, location.get(), v.data(), m);
  }
  const float fn = (float)n;
  const float mean = sum / fn;
  // One marker divides by 0 here and gives a deviation that is not a number.
  const float dev = std::sqrt(std::fabs((sumSq - mean * fn * mean) / (fn - 1.0f)));
  const float rms = std::sqrt(sumSq / fn);
  std::qsort(distances.data(), (size_t)n, sizeof(float), compareFloats);
  // Without markers there is no median to read.
  const float median = n > 0 ? distances[n / 2] : std::numeric_limits<float>::quiet_NaN();
  const float aboveThresh = (float)above * (100.0f / fn);
  statistics->setValue("mean %g dev %g rms %g max %g", mean, dev, rms, maxDist);
  statistics2->setValue("median %g aboveThresh %g %%", median, aboveThresh);
  statistics->show();
  statistics2->show();
}
