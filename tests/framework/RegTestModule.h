#pragma once
// A concrete registration module for the tests of the driver: an affine
// transform scored by the squared-difference metric through the general
// affine functional, searched by whatever the menu "optimizer" selects.
// It records what the driver hands to its virtual operations, and can plan
// the pyramid without resampling (each level then holds the inputs).
#include "QbPrimType.h"
#include "RegAffineFunctional.h"
#include "RegAffineTransform.h"
#include "RegMeanSquaredDifference.h"
#include "ZrGradientOptimizer.h"
#include "ZrOptimizer.h"
#include "ZrUniformScalarField3.h"
#include "ZrVoxelRegistration.h"

#include <cmath>
#include <functional>
#include <vector>

class RegTestModule : public ZrVoxelRegistration {
public:
  struct Resolution {
    int level, numLevels;
    double start, end;
    // The optimizer in charge: its kind, and a gradient optimizer's tolerance.
    bool hasOptimizer, gradient;
    double tolerance;
  };

  // Degrees of freedom of the transform: 6 is rigid.
  int dof = 6;
  // Record doResolution() calls without optimising.
  bool recordOnly = false;
  // Plan the pyramid without making resampled fields: downsample() records
  // the factors and hands back the input.
  bool fakeResampling = false;

  std::vector<Resolution> resolutions;
  std::vector<QbVec3i> referenceFactors, modelFactors;
  int numDoneRegistration = 0;
  int numCreateFunctional = 0;
  std::function<void(int level)> onEnterResolution;

  // What the constructor gave the ports are defaults, not changes for the
  // first update(), as for a module that enters the object pool.
  RegTestModule() { untouchPorts(false); }

  void compute() override {
    if (computing)
      return;
    computing = 1;
    if (portAction.wasHit(2))
      doRegistration();
    delete transform;
    transform = nullptr;
    computing = 0;
  }

  void update() override {
    updateReference();
    ZrVoxelRegistration::update();
  }

  void createTransform() override {
    transform = new RegAffineTransform(references, models.isEmpty() ? nullptr : models[0], dof);
  }

  int initRegistration() override {
    if (!transform)
      createTransform();
    if (dimensionMode < 0)
      return 0;
    return ZrVoxelRegistration::initRegistration();
  }

  RegFunctional* createFunctional(FieldArray& refs, FieldArray& mods, int, int) override {
    numCreateFunctional++;
    return new RegAffineFunctional(refs, mods, interpolator, transform,
                                   new RegMeanSquaredDifference(1.0), this, 0, dimensionMode);
  }

  void downsample(ZrRegScalarField3* field, ZrRegScalarField3*& result, QbVec3i& factors,
                  RegDataClass dataClass) override {
    if (!fakeResampling) {
      ZrVoxelRegistration::downsample(field, result, factors, dataClass);
      return;
    }
    bool isModel = !models.isEmpty() && field == models[0];
    (isModel ? modelFactors : referenceFactors).push_back(factors);
    result = field;
  }

  void enterResolution(int level, int numLevels, RegFunctional* functional) override {
    if (onEnterResolution)
      onEnterResolution(level);
  }

  void doResolution(int level, int numLevels, RegFunctional* functional, double startStep,
                    double endStep) override {
    ZrGradientOptimizer* g = dynamic_cast<ZrGradientOptimizer*>(optimizer);
    resolutions.push_back({level, numLevels, startStep, endStep, optimizer != nullptr, g != nullptr,
                           g ? g->tolerance : 0.0});
    if (!recordOnly)
      ZrVoxelRegistration::doResolution(level, numLevels, functional, startStep, endStep);
  }

  void doneRegistration() override {
    numDoneRegistration++;
    ZrVoxelRegistration::doneRegistration();
  }

  bool applyTransform(RegParametricTransform*) override { return checkForInterrupt(); }
};

// A smooth, asymmetric test image: a sum of anisotropic Gaussian blobs.
inline double regTestImage(double x, double y, double z) {
  struct Blob {
    double cx, cy, cz, sx, sy, sz, a;
  };
  static const Blob blobs[] = {{12, 14, 15, 6, 4, 5, 100},
                               {21, 11, 12, 3, 5, 4, 70},
                               {15, 22, 20, 4, 3, 6, 50},
                               {9, 9, 22, 3, 3, 3, 40}};
  double v = 0;
  for (const Blob& b : blobs) {
    const double dx = (x - b.cx) / b.sx, dy = (y - b.cy) / b.sy, dz = (z - b.cz) / b.sz;
    v += b.a * std::exp(-0.5 * (dx * dx + dy * dy + dz * dz));
  }
  return v;
}

// A float field of dims over box whose node at local p holds
// regTestImage(p * m) (row vector, m's translation in row 3).
inline ZrUniformScalarField3* makeRegTestField(const int dims[3], const float box[6],
                                               const SbMatrixd& m = SbMatrixd()) {
  ZrUniformScalarField3* f = new ZrUniformScalarField3(dims, QB_FLOAT, box);
  float* data = static_cast<float*>(f->lattice.dataPtr());
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++) {
        float p[3];
        f->lattice.coords()->pos(i, j, k, p);
        SbVec3d w;
        m.multVecMatrix(SbVec3d(p[0], p[1], p[2]), w);
        data[(size_t(k) * dims[1] + j) * dims[0] + i] = (float)regTestImage(w.x, w.y, w.z);
      }
  return f;
}
