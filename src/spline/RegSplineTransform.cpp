#include "RegSplineTransform.h"
#include "SoDB.h"
#include "SoSensorManager.h"
#include "ZrLandmarkSet.h"
#include "ZrMessage.h"
#include "ZrRegVectorField3.h"
#include "ZrSpatialData.h"
#include "ZrUniformCoord3.h"
#include "qbmalloc.h"
#include <cstring>

RegSplineTransform::RegSplineTransform(int dim, bool fast) : dimension(dim), fastMode(fast) {
  // Empty boundary: every minimum above its maximum, so that the first box
  // offered is taken as it is.
  for (int a = 0; a < 3; a++) {
    interpolatedSpaceBoundary[2 * a] = 0.0f;
    interpolatedSpaceBoundary[2 * a + 1] = -10000000000.0f;
  }
}

RegSplineTransform::~RegSplineTransform() {
  qbfree(newControlPoints);
  qbfree(activeControlPoints);
}

void RegSplineTransform::setControlGridSize(int nx, int ny, int nz) {
  gridSize[0] = nx;
  gridSize[1] = ny;
  gridSize[2] = nz;
  strideX = 3;
  strideY = 3 * nx;
  strideZ = 3 * nx * ny;
  strideXY = strideY + 3;
  strideXZ = strideZ + 3;
  strideYZ = strideZ + strideY;
  strideXYZ = strideYZ + 3;
  const int n = nx * ny * nz;
  paramVector.resize(3 * n);
  // Fresh flag arrays: allocate both before releasing the old ones, so that a
  // failed allocation leaves the object as it was.
  unsigned char* act = (unsigned char*)qbmalloc(n > 0 ? n : 1);
  unsigned char* fresh;
  try {
    fresh = (unsigned char*)qbmalloc(n > 0 ? n : 1);
  } catch (...) {
    qbfree(act);
    throw;
  }
  qbfree(activeControlPoints);
  qbfree(newControlPoints);
  activeControlPoints = act;
  newControlPoints = fresh;
  setControlPointActive();
  setAllControlPointsNew();
}

int RegSplineTransform::getParamVectorDim() const { return paramVector.size(); }

int RegSplineTransform::getVariableParamVectorDim() const { return paramVector.size(); }

double RegSplineTransform::getParamStep(int idx, SbVec3d*) const {
  if (dimension == 2 && (idx + 1) % 3 == 0)
    return 0.0;
  const int cp = idx / 3;
  return (activeControlPoints[cp] && newControlPoints[cp]) ? 1.0 : 0.0;
}

void RegSplineTransform::setControlPointActive() {
  const int n = getParamVectorDim() / 3;
  if (activeControlPoints)
    memset(activeControlPoints, 1, n);
}

void RegSplineTransform::setControlPointInactive(int idx) { activeControlPoints[idx / 3] = 0; }

void RegSplineTransform::setAllControlPointsNew() {
  if (newControlPoints)
    memset(newControlPoints, 1, getNumControlPoints());
}

void RegSplineTransform::setNewControlPoints() {
  // After a doubling the points with all three indices odd coincide with
  // points of the coarser lattice; all others are new.
  int p = 0;
  for (int k = 0; k < gridSize[2]; k++)
    for (int j = 0; j < gridSize[1]; j++)
      for (int i = 0; i < gridSize[0]; i++, p++)
        newControlPoints[p] = ((i & 1) && (j & 1) && (k & 1)) ? 0 : 1;
}

void RegSplineTransform::setReference(ZrSpatialData* reference) { referenceData = reference; }

void RegSplineTransform::setModel(ZrSpatialData* model) {
  modelData = model;
  if (!model || !model->getTransform(false))
    return;
  model->getInverseTransform(modelInverseMatrix);
  model->getTransform(modelMatrix);
  // Any deviation from the identity counts, without tolerance.
  bool identity = true;
  for (int r = 0; r < 4; r++)
    for (int c = 0; c < 4; c++)
      if (modelInverseMatrix[r][c] != (r == c ? 1.0f : 0.0f))
        identity = false;
  modelTransformed = !identity;
}

ZrLandmarkSet* RegSplineTransform::createControlPoints(ZrLandmarkSet*) {
  if (!controlPoints)
    controlPoints = new ZrLandmarkSet(1);
  else
    controlPoints->clear();
  return controlPoints;
}

bool RegSplineTransform::setControlPoints(ZrLandmarkSet* set) {
  const int lattice = getNumControlPoints();
  if (set && lattice > 0 && set->getNumMarkers() != lattice) {
    ZrMessage::getTheMsg()->printf(
        "The control points hold %d points, but the lattice of %dx%dx%d has %d.\n",
        set->getNumMarkers(), gridSize[0], gridSize[1], gridSize[2], lattice);
    return false;
  }
  controlPoints = set;
  return set ? controlPoints2Params() : true;
}

bool RegSplineTransform::controlPoints2Params() {
  const int n = controlPoints->getNumMarkers();
  // The flags are sized for the lattice; parameters of another size would
  // be read and written past them.
  const int lattice = getNumControlPoints();
  if (lattice > 0 && n != lattice)
    return false;
  if (paramVector.size() != 3 * n)
    paramVector.resize(3 * n);
  const QbVec3f* c = controlPoints->getCoords(0);
  for (int i = 0; i < n; i++)
    for (int a = 0; a < 3; a++)
      paramVector[3 * i + a] = c[i][a];
  return true;
}

void RegSplineTransform::params2ControlPoints() {
  const int n = paramVector.size() / 3;
  if (controlPoints->getNumMarkers() != n)
    controlPoints->resize(n);
  QbVec3f* c = controlPoints->getCoords(0);
  for (int i = 0; i < n; i++)
    for (int a = 0; a < 3; a++)
      c[i][a] = (float)paramVector[3 * i + a];
}

void RegSplineTransform::update() {
  // Without a control-point set there is nothing on display to follow.
  if (!controlPoints)
    return;
  params2ControlPoints();
  controlPoints->touch();
  controlPoints->fire();
  SoDB::getSensorManager()->processQueues(1);
}

// Homogeneous product of the row vector (x, y, z, 1) with m; float entries
// widened, sums in double.
static inline void reg_mapPoint(const SbMatrix& m, const double* in, double* out) {
  const double x = in[0], y = in[1], z = in[2];
  const double w =
      (double)m[0][3] * x + (double)m[1][3] * y + (double)m[2][3] * z + (double)m[3][3];
  for (int c = 0; c < 3; c++)
    out[c] =
        ((double)m[0][c] * x + (double)m[1][c] * y + (double)m[2][c] * z + (double)m[3][c]) / w;
}

void RegSplineTransform::mapToLocal(const double* world, double* local) const {
  double r[3];
  reg_mapPoint(modelInverseMatrix, world, r);
  local[0] = r[0];
  local[1] = r[1];
  // A 2-D registration keeps z in world coordinates.
  local[2] = dimension == 3 ? r[2] : world[2];
}

void RegSplineTransform::mapToLocal(const QbDVector<double>& world,
                                    QbDVector<double>& local) const {
  if (local.size() != world.size())
    local.resize(world.size());
  const int n = world.size() / 3;
  for (int i = 0; i < n; i++)
    mapToLocal(world.data() + 3 * i, local.data() + 3 * i);
}

void RegSplineTransform::getLocalDirection(int c, double dir[3]) const {
  for (int a = 0; a < 3; a++)
    dir[a] = a == c ? 1.0 : 0.0;
  if (!modelTransformed)
    return;
  // The homogeneous row of an affine matrix ends in (0, 0, 0, 1), so the map
  // is affine and a world move of coordinate c moves the local point along
  // row c of its linear part.
  const int axes = dimension == 3 ? 3 : 2;
  for (int a = 0; a < axes; a++)
    dir[a] = (double)modelInverseMatrix[c][a];
}

void RegSplineTransform::applyModelTransformInv(QbDVector<double>& v) {
  if (savedParams.size() != v.size())
    savedParams.resize(v.size());
  double* d = v.data();
  double* s = savedParams.data();
  const int n = v.size() / 3;
  for (int i = 0; i < n; i++, d += 3, s += 3) {
    s[0] = d[0];
    s[1] = d[1];
    s[2] = d[2];
    mapToLocal(s, d);
  }
  modelInverseApplied = true;
}

void RegSplineTransform::applyModelTransform(QbDVector<double>& v) {
  if (modelInverseApplied) {
    // Restoring the saved values makes the round trip exact, which mapping
    // back through the matrix would not be.
    const int n = std::min(v.size(), savedParams.size());
    std::memcpy(v.data(), savedParams.data(), sizeof(double) * n);
  } else {
    double* d = v.data();
    const int n = v.size() / 3;
    for (int i = 0; i < n; i++, d += 3) {
      double r[3];
      reg_mapPoint(modelMatrix, d, r);
      d[0] = r[0];
      d[1] = r[1];
      d[2] = r[2];
    }
  }
  modelInverseApplied = false;
}

void RegSplineTransform::updateInterpolatedSpaceBoundary(const QbBox3f& box) {
  float* b = interpolatedSpaceBoundary;
  if (b[0] > b[1] || b[2] > b[3] || b[4] > b[5]) {
    for (int i = 0; i < 6; i++)
      b[i] = box[i];
    return;
  }
  // The boundary only grows in volume; a NaN ratio keeps it.
  const float r = dimension == 3 ? (b[5] - b[4]) / (box[5] - box[4]) : 1.0f;
  const float ratio = ((b[1] - b[0]) / (box[1] - box[0])) * ((b[3] - b[2]) / (box[3] - box[2])) * r;
  if (ratio < 1.0f)
    for (int i = 0; i < 6; i++)
      b[i] = box[i];
}

void RegSplineTransform::correctInterpolatedSpaceBoundary(const float* delta) {
  for (int a = 0; a < dimension; a++) {
    interpolatedSpaceBoundary[2 * a] -= delta[a];
    interpolatedSpaceBoundary[2 * a + 1] += delta[a];
  }
}

ZrRegVectorField3* RegSplineTransform::getControlPoints() const {
  ZrRegVectorField3* field = ZrRegVectorField3::create(gridSize, 3, ZR_COORD_UNIFORM, nullptr);
  if (!field) {
    ZrMessage::getTheMsg()->printf("Could not create vector field.\n");
    return nullptr;
  }
  float* f = field->floatData();
  const int n = 3 * gridSize[0] * gridSize[1] * gridSize[2];
  for (int i = 0; i < n; i++)
    f[i] = (float)paramVector[i];
  // The field's box reaches one spacing beyond the interpolated box, out to
  // the outer ring of points.
  float box[6];
  for (int i = 0; i < 6; i++)
    box[i] = interpolatedSpaceBoundary[i];
  for (int a = 0; a < dimension; a++) {
    box[2 * a] -= gridSpacing[a];
    box[2 * a + 1] += gridSpacing[a];
  }
  static_cast<ZrUniformCoord3*>(field->lattice.coords())->setBoundingBox(box);
  field->setLabel("ControlGridVectors");
  return field;
}

void RegSplineTransform::setControlPoints(ZrRegVectorField3* field) {
  if (!field)
    return;
  const int* dims = field->getDims();
  setControlGridSize(dims[0], dims[1], dims[2]);
  float box[6];
  field->getBoundingBox(box);
  // Undo the widening of getControlPoints. An axis of one point (z of a 2-D
  // lattice) has no step; its boundary is left as the box so that it stays
  // finite, and 2-D code never reads it.
  for (int a = 0; a < 3; a++) {
    if (dims[a] > 1) {
      const float step = (box[2 * a + 1] - box[2 * a]) / (dims[a] - 1);
      interpolatedSpaceBoundary[2 * a] = box[2 * a] + step;
      interpolatedSpaceBoundary[2 * a + 1] = box[2 * a + 1] - step;
    } else {
      interpolatedSpaceBoundary[2 * a] = box[2 * a];
      interpolatedSpaceBoundary[2 * a + 1] = box[2 * a + 1];
    }
  }
  getGridSpacing();
  const float* f = field->floatData();
  const int n = 3 * dims[0] * dims[1] * dims[2];
  for (int i = 0; i < n; i++)
    paramVector[i] = f[i];
}

void RegSplineTransform::smoothGrid(float centerWeight, float sideWeight) {
  const int n = paramVector.size();
  double* buf = (double*)qbmalloc(sizeof(double) * (n > 0 ? n : 1));
  const double* old = paramVector.data();
  const int nx = gridSize[0], ny = gridSize[1], nz = gridSize[2];
  int p = 0;
  for (int k = 0; k < nz; k++)
    for (int j = 0; j < ny; j++)
      for (int i = 0; i < nx; i++, p++) {
        const double* src = old + 3 * p;
        double* dst = buf + 3 * p;
        if (activeControlPoints[p] && newControlPoints[p]) {
          // Free points stay where the optimizer placed them.
          dst[0] = src[0], dst[1] = src[1], dst[2] = src[2];
          continue;
        }
        double sum[3] = {0, 0, 0}, wsum = 0;
        for (int dk = -1; dk <= 1; dk++) {
          if (k + dk < 0 || k + dk >= nz)
            continue;
          for (int dj = -1; dj <= 1; dj++) {
            if (j + dj < 0 || j + dj >= ny)
              continue;
            for (int di = -1; di <= 1; di++) {
              if (i + di < 0 || i + di >= nx)
                continue;
              // Float product of one factor per axis, truncated to an integer:
              // weights below 1 fall to 0.
              const float wf = (di ? sideWeight : centerWeight) * (dj ? sideWeight : centerWeight) *
                               (dk ? sideWeight : centerWeight);
              const double w = (double)(int)wf;
              const double* q = src + di * strideX + dj * strideY + dk * strideZ;
              sum[0] += w * q[0];
              sum[1] += w * q[1];
              sum[2] += w * q[2];
              wsum += w;
            }
          }
        }
        for (int c = 0; c < 3; c++)
          dst[c] = sum[c] / wsum;
      }
  std::memcpy(paramVector.data(), buf, sizeof(double) * n);
  qbfree(buf);
}

void RegSplineTransform::refine(int factor) {
  refineNoInterpolants(factor);
  precomputeInterpolants();
}

void RegSplineTransform::getTransformedGridSequence(QbVec3f*, QbVec3d*, QbVec3d*, QbVec3d*,
                                                    QbVec3d*, QbVec3d*, QbVec3d*, QbVec3d*,
                                                    QbVec3d*, QbVec3d*, int, int*) const {}

void RegSplineTransform::getTransformedGridSequence(QbVec3f*, QbVec3d*, QbVec3d*, QbVec3d*,
                                                    QbVec3d*, QbVec3d*, QbVec3d*, QbVec3d*,
                                                    QbVec3d*, QbVec3d*, int, int*,
                                                    const QbDVector<double>&) const {}

void RegSplineTransform::getTransformedGridComplete(QbVec3f*, QbVec3f*, QbVec3f*) const {}
