#pragma once
// Synthetic volumes, spline lattices and metrics for the elastic functional
// tests. Reference and model are the same smooth pattern, the model shifted,
// so the objective has a real slope in every parameter.
#include "QbBox3f.h"
#include "QbPrimType.h"
#include "RegCorrelationRatio.h"
#include "RegElasticFunctional.h"
#include "RegElasticFunctionalRegular.h"
#include "RegLabelDifference.h"
#include "RegMeanSquaredDifference.h"
#include "RegMetric.h"
#include "RegNormMutualInformation.h"
#include "RegSimpleMutualInformation.h"
#include "RegVoxelCubicSplineTransform.h"
#include "SbMatrix.h"
#include "ZrLandmarkSet.h"
#include "ZrMessage.h"
#include "ZrUniformScalarField3.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace elastictest {

// The grey pattern: a blob and two waves, values within 0 to 130.
inline double pattern(double x, double y, double z) {
  const double dx = x - 7.3, dy = y - 6.1, dz = z - 5.2;
  return 70.0 * std::exp(-(dx * dx / 18.0 + dy * dy / 12.0 + dz * dz / 15.0)) +
         25.0 * (1.0 + std::sin(0.55 * x + 0.2 * z)) * (1.0 + 0.5 * std::cos(0.4 * y));
}

// Label pattern: four labels in slanted stripes, many borders.
inline double labels(double x, double y, double z) {
  const int a = (int)std::floor((x + 0.3 * y) / 2.5 + 10.0);
  const int b = (int)std::floor((y - 0.2 * z) / 3.0 + 10.0);
  return (double)((a + 2 * b) % 4);
}

// A field of voxel type T (tag `type`), unit voxels from 0, holding f(p + shift),
// reaching `margin` voxels beyond 0 and dims - 1 on every axis of extent.
template <class T, class F>
std::unique_ptr<ZrUniformScalarField3> makeVolume(const int inner[3], int type, F f, double sx = 0,
                                                  double sy = 0, double sz = 0, int margin = 0) {
  int dims[3], m[3];
  for (int a = 0; a < 3; a++) {
    m[a] = inner[a] > 1 ? margin : 0;
    dims[a] = inner[a] + 2 * m[a];
  }
  const float box[6] = {(float)-m[0], (float)(inner[0] - 1 + m[0]),
                        (float)-m[1], (float)(inner[1] - 1 + m[1]),
                        (float)-m[2], (float)(inner[2] - 1 + m[2])};
  auto field = std::make_unique<ZrUniformScalarField3>(dims, type, box);
  T* data = static_cast<T*>(field->lattice.dataPtr());
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++)
        data[((size_t)k * dims[1] + j) * dims[0] + i] =
            (T)f(i - m[0] + sx, j - m[1] + sy, k - m[2] + sz);
  return field;
}

enum MetricKind { MSD, NMI, MI, LABEL, CORR };

inline const char* metricName(MetricKind k) {
  static const char* names[] = {"MSD", "NMI", "MI", "LABEL", "CORR"};
  return names[k];
}

inline RegMetric* makeMetric(MetricKind k) {
  switch (k) {
  case MSD:
    return new RegMeanSquaredDifference(1.0);
  case NMI:
    return new RegNormMutualInformation(QB_FLOAT, QB_FLOAT, 0, 130, 0, 130, 24, 24, 1.0);
  case MI:
    return new RegSimpleMutualInformation(QB_FLOAT, QB_FLOAT, 0, 130, 0, 130, 24, 24, 1.0);
  case LABEL:
    return new RegLabelDifference(1.0);
  case CORR:
    return new RegCorrelationRatio(0, 130, 0, 130, 1.0);
  }
  return nullptr;
}

// Silences the message window and keeps what was said.
class MessageCapture {
public:
  MessageCapture() {
    old = ZrMessage::getTheMsg()->setSink([this](const std::string& t) { text += t; });
  }
  ~MessageCapture() { ZrMessage::getTheMsg()->setSink(old); }
  std::string text;

private:
  ZrMessage::Sink old;
};

// A reference and a model, a cubic lattice of n points per axis over the
// reference, and the functional built on them.
struct ElasticSetup {
  std::unique_ptr<ZrUniformScalarField3> reference, model;
  QbDArray<ZrSpatialData*> refs, models;
  std::unique_ptr<RegVoxelCubicSplineTransform> transform;
  std::unique_ptr<RegElasticFunctional> functional;
  std::unique_ptr<ZrLandmarkSet> landmarks;
  MessageCapture messages;

  ~ElasticSetup() {
    functional.reset();
    if (transform)
      delete transform->controlPoints;
  }

  // 3-D: 16 x 14 x 12 voxels; 2-D: 22 x 18 x 1. The model reaches two voxels
  // beyond the reference, so that the field evaluator of the general class,
  // which gives 0 outside, does not lose border voxels put a rounding error
  // outside by the lattice.
  void makeData(bool twoD, MetricKind kind, int type = QB_FLOAT) {
    const int d3[3] = {16, 14, 12}, d2[3] = {22, 18, 1};
    const int* dims = twoD ? d2 : d3;
    auto f = kind == LABEL ? labels : pattern;
    if (type == QB_UINT8) {
      reference = makeVolume<unsigned char>(dims, type, f);
      model = makeVolume<unsigned char>(dims, type, f, 0.6, -0.45, twoD ? 0.0 : 0.35, 2);
    } else {
      reference = makeVolume<float>(dims, type, f);
      model = makeVolume<float>(dims, type, f, 0.6, -0.45, twoD ? 0.0 : 0.35, 2);
    }
    refs.append(reference.get());
    models.append(model.get());
  }

  // Sets reference and model to 0 outside an ellipsoid in the middle of the
  // reference (semi-axes a third of its extents): a background of one grey
  // value, as around a skull-stripped brain.
  void clearBackground() {
    for (ZrUniformScalarField3* f : {reference.get(), model.get()}) {
      const int* d = f->getDims();
      float box[6];
      reference->getBoundingBox(box);
      float fb[6];
      f->getBoundingBox(fb);
      size_t v = 0;
      for (int k = 0; k < d[2]; k++)
        for (int j = 0; j < d[1]; j++)
          for (int i = 0; i < d[0]; i++, v++) {
            const double p[3] = {fb[0] + i, fb[2] + j, fb[4] + k};
            double r = 0;
            for (int a = 0; a < 3; a++) {
              const double half = 0.5 * (box[2 * a + 1] - box[2 * a]);
              if (half > 0) {
                const double t = (p[a] - (box[2 * a] + half)) / (0.66 * half);
                r += t * t;
              }
            }
            if (r > 1.0)
              f->lattice.setValue(v, 0.0f);
          }
    }
  }

  // Replaces the model by one whose header carries `m` (row vectors, local to
  // world) and whose voxels show in world what the plain model shows: the
  // local voxel at l holds the pattern at m(l), shifted as makeData's model.
  // The local lattice has voxels of size 1 and covers the reference widened
  // by three voxels. Call before makeTransform.
  void moveModelHeader(const SbMatrix& m, MetricKind kind = NMI) {
    const bool twoD = reference->getDims()[2] == 1;
    const SbMatrix inv = m.inverse();
    float rb[6];
    reference->getBoundingBox(rb);
    float lo[3] = {1e30f, 1e30f, 1e30f}, hi[3] = {-1e30f, -1e30f, -1e30f};
    for (int corner = 0; corner < 8; corner++) {
      float w[3], l[3];
      for (int a = 0; a < 3; a++) {
        const float margin = (twoD && a == 2) ? 0.0f : 3.0f;
        w[a] = (corner >> a) & 1 ? rb[2 * a + 1] + margin : rb[2 * a] - margin;
      }
      for (int a = 0; a < 3; a++)
        l[a] = w[0] * inv[0][a] + w[1] * inv[1][a] + w[2] * inv[2][a] + inv[3][a];
      for (int a = 0; a < 3; a++) {
        lo[a] = std::min(lo[a], std::floor(l[a]));
        hi[a] = std::max(hi[a], std::ceil(l[a]));
      }
    }
    int dims[3];
    float box[6];
    for (int a = 0; a < 3; a++) {
      dims[a] = (int)(hi[a] - lo[a]) + 1;
      box[2 * a] = lo[a];
      box[2 * a + 1] = hi[a];
    }
    auto f = kind == LABEL ? labels : pattern;
    auto moved = std::make_unique<ZrUniformScalarField3>(dims, QB_FLOAT, box);
    float* data = static_cast<float*>(moved->lattice.dataPtr());
    for (int k = 0; k < dims[2]; k++)
      for (int j = 0; j < dims[1]; j++)
        for (int i = 0; i < dims[0]; i++) {
          const float l[3] = {lo[0] + i, lo[1] + j, lo[2] + k};
          double w[3];
          for (int a = 0; a < 3; a++)
            w[a] = l[0] * m[0][a] + l[1] * m[1][a] + l[2] * m[2][a] + m[3][a];
          data[((size_t)k * dims[1] + j) * dims[0] + i] =
              (float)f(w[0] + 0.6, w[1] - 0.45, twoD ? 0.0 : w[2] + 0.35);
        }
    moved->setTransform(m);
    model = std::move(moved);
    models[0] = model.get();
  }

  void makeTransform(int n, bool twoD) {
    transform = std::make_unique<RegVoxelCubicSplineTransform>(twoD ? 2 : 3, false);
    transform->setModel(model.get());
    transform->setControlGridSize(n, n, twoD ? 1 : n);
    float box[6];
    reference->getBoundingBox(box);
    transform->updateInterpolatedSpaceBoundary(QbBox3f(box));
    transform->getGridSpacing();
    transform->createControlPoints(nullptr);
  }

  // Moves every control point by a fixed pseudo-random amount of up to
  // `amount` spacings per axis, rounded to float so that the gradient loop's
  // rounding of the parameters changes nothing.
  void perturb(double amount) {
    QbDVector<double>& p = transform->paramVector;
    unsigned s = 12345;
    for (int i = 0; i < p.size(); i++) {
      s = s * 1103515245u + 12345u;
      const double r = ((s >> 8) & 0xffff) / 65535.0 * 2.0 - 1.0;
      const int axis = i % 3;
      if (axis == 2 && transform->dimension == 2)
        continue;
      p[i] = (double)(float)(p[i] + amount * r * transform->gridSpacing[axis]);
    }
  }

  void makeFunctional(bool regular, MetricKind kind, float energyWeight = 0,
                      float jacobianWeight = 0, RegDataClass dataClass = RegDataClassGrey,
                      bool fixLowEntropy = false, float landmarkWeight = 0,
                      RegMetric* metric = nullptr) {
    if (!metric)
      metric = makeMetric(kind);
    const RegInterpolator ip = kind == LABEL ? RegInterpolatorNearest : RegInterpolatorStandard;
    if (regular)
      functional = std::make_unique<RegElasticFunctionalRegular>(refs, models, ip, transform.get(),
                                                                 metric, nullptr, dataClass,
                                                                 landmarks.get(), fixLowEntropy);
    else
      functional =
          std::make_unique<RegElasticFunctional>(refs, models, ip, transform.get(), metric, nullptr,
                                                 dataClass, landmarks.get(), fixLowEntropy);
    functional->energyWeight = energyWeight;
    functional->jacobianWeight = jacobianWeight;
    functional->landmarkWeight = landmarkWeight;
    functional->init();
  }

  // All in one: data, an n^3 (or n^2) lattice moved off rest, the functional.
  void build(bool twoD, bool regular, MetricKind kind, int n = 6, double amount = 0.2,
             float energyWeight = 0, float jacobianWeight = 0) {
    makeData(twoD, kind);
    makeTransform(n, twoD);
    perturb(amount);
    makeFunctional(regular, kind, energyWeight, jacobianWeight);
  }
};

} // namespace elastictest
