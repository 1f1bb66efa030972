// The affine registration module driven as a host drives it: inputs connected
// to the ports "model" and "reference", fire(0) to update, a button of
// "action" pressed, fire(1) to compute. Synthetic volumes under known
// transforms; the model's new matrix is compared with the truth.
#include "MessageCapture.h"
#include "QbPrimType.h"
#include "RegAffineFunctionalUniform.h"
#include "RegAffineTransform.h"
#include "RegCorrelationRatio.h"
#include "RegLabelDifference.h"
#include "RegNormMutualInformation.h"
#include "RegSimpleMutualInformation.h"
#include "SbRotationd.h"
#include "ZrAffineRegistration.h"
#include "ZrObjectPool.h"
#include "ZrOptimizer.h"
#include "ZrSettingsMgr.h"
#include "ZrUniformLabelField3.h"
#include "ZrUniformScalarField3.h"
#include "ZrWorkArea.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

namespace {

struct Blob {
  double cx, cy, cz, sx, sy, sz, a;
};

// A smooth, asymmetric test image: anisotropic Gaussian blobs.
const Blob kImage[] = {{15, 16, 15, 6, 4, 5, 100},
                       {22, 12, 13, 3, 4, 3, 70},
                       {13, 22, 19, 4, 3, 4, 50},
                       {9, 10, 20, 3, 3, 3, 40}};

double blobs(const Blob* b, int n, double x, double y, double z) {
  double v = 0;
  for (int i = 0; i < n; i++) {
    const double dx = (x - b[i].cx) / b[i].sx, dy = (y - b[i].cy) / b[i].sy,
                 dz = (z - b[i].cz) / b[i].sz;
    v += b[i].a * std::exp(-0.5 * (dx * dx + dy * dy + dz * dz));
  }
  return v;
}

// A float field over the box [0, dims - 1] whose node at local p holds
// image(p * m): placed with the transform m, it shows the image where the
// reference shows it.
template <int N>
ZrUniformScalarField3* makeField(const int dims[3], const Blob (&image)[N],
                                 const SbMatrixd& m = SbMatrixd()) {
  const float box[6] = {0, float(dims[0] - 1), 0, float(dims[1] - 1), 0, float(dims[2] - 1)};
  ZrUniformScalarField3* f = new ZrUniformScalarField3(dims, QB_FLOAT, box);
  float* data = static_cast<float*>(f->lattice.dataPtr());
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++) {
        float p[3];
        f->lattice.coords()->pos(i, j, k, p);
        SbVec3d w;
        m.multVecMatrix(SbVec3d(p[0], p[1], p[2]), w);
        data[(size_t(k) * dims[1] + j) * dims[0] + i] = (float)blobs(image, N, w.x, w.y, w.z);
      }
  return f;
}

// The matrix of affine parameters (translation, degrees, scale, shear,
// centre), as the registration's transform composes it.
SbMatrixd affineMatrix(const double (&p)[15]) {
  RegAffineTransform t;
  for (int i = 0; i < 15; i++)
    t.paramVector[i] = p[i];
  t.composeMatrix();
  return t.matrix;
}

// Rotation by `degrees` about `axis` through `center`.
SbMatrixd rotationAbout(const SbVec3d& axis, double degrees, const SbVec3d& center) {
  SbMatrixd m;
  m.setTransform(SbVec3d(0, 0, 0), SbRotationd(axis, degrees * M_PI / 180.0), SbVec3d(1, 1, 1),
                 SbRotationd(), center);
  return m;
}

// Largest distance between where two matrices put the corners of a box.
double cornerError(const SbMatrixd& a, const SbMatrixd& b, const int dims[3]) {
  double worst = 0;
  for (int c = 0; c < 8; c++) {
    const SbVec3d p(c & 1 ? dims[0] - 1 : 0, c & 2 ? dims[1] - 1 : 0, c & 4 ? dims[2] - 1 : 0);
    SbVec3d pa, pb;
    a.multVecMatrix(p, pa);
    b.multVecMatrix(p, pb);
    worst = std::max(worst, (pa - pb).length());
  }
  return worst;
}

// The module and its inputs in the object pool, connected and updated.
template <class Module = ZrAffineRegistration> struct Scene {
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  Module* module = new Module;
  std::vector<ZrObject*> inputs;

  Scene(ZrUniformScalarField3* reference, ZrUniformScalarField3* model) {
    // The test machine's cores are shared: a parallel walk would only wait.
    ZrSettingsMgr::getInstance()->setNumThreads(1);
    pool->addObject(module);
    add(reference);
    add(model);
    module->portData.connect(model);
    module->portReference.connect(reference);
    module->fire(0);
  }
  ~Scene() {
    pool->removeObject(module);
    for (ZrObject* o : inputs)
      pool->removeObject(o);
  }
  void add(ZrObject* o) {
    if (o) {
      pool->addObject(o);
      inputs.push_back(o);
    }
  }
  // Presses an action button and computes.
  void press(int button) {
    ASSERT_TRUE(module->portAction.hit(button)) << "button " << button;
    module->fire(1);
  }
  // Quick settings for the tests: no ignored level, one step size per stage
  // unless told, the best-neighbour search, no switch to quasi-Newton.
  void fastSettings(int optimizer = 1) {
    module->portOptimizer.setIndex(0, optimizer);
    module->portOptions.setValue(0, 0);
    module->fire(0);
    module->portNLevelsGradient.setValue(0, 0.0f);
    module->fire(0);
  }
};

// Records the stage at the end of each optimisation.
class RecordingRegistration : public ZrAffineRegistration {
public:
  struct Stage {
    int level, dof, progressStep, progressSteps;
  };
  std::vector<Stage> stages;

  int doneResolution(int level, int numLevels) override {
    auto* t = dynamic_cast<RegAffineTransform*>(transform);
    stages.push_back({level, t ? t->dof : -1, optimizer ? optimizer->progressStep : -1,
                      optimizer ? optimizer->progressSteps : -1});
    return ZrAffineRegistration::doneResolution(level, numLevels);
  }
};

// Principal axes without the scored orientations: no test functional.
class AxesOnly : public ZrAffineRegistration {
public:
  RegFunctional* createFunctional(FieldArray&, FieldArray&, int, int) override { return nullptr; }
};

} // namespace

TEST(ZrAffineRegistration, DegreesOfFreedomScheduleAndProgress) {
  // Three stages (Rigid, Iso-, Shear) on four levels (factors 1, 2, 4, 8).
  // With the finest level refined, the level above it runs only its last
  // stage and so does the refinement; a label model against a grey
  // reference is not refined, and its finest level is left out.
  struct Row {
    const char* what;
    bool ignoreFinest, labels;
    std::vector<std::pair<int, int>> stages; // level, dof
  } rows[] = {
      {"every level",
       false,
       false,
       {{0, 6},
        {0, 7},
        {0, 12},
        {1, 6},
        {1, 7},
        {1, 12},
        {2, 6},
        {2, 7},
        {2, 12},
        {3, 6},
        {3, 7},
        {3, 12}}},
      {"finest refined",
       true,
       false,
       {{0, 6}, {0, 7}, {0, 12}, {1, 6}, {1, 7}, {1, 12}, {2, 12}, {3, 12}}},
      {"label model, grey reference",
       true,
       true,
       {{0, 6}, {0, 7}, {0, 12}, {1, 6}, {1, 7}, {1, 12}, {2, 6}, {2, 7}, {2, 12}}},
  };
  for (const Row& row : rows) {
    MessageCapture log;
    const int dims[3] = {16, 16, 16};
    ZrUniformScalarField3* reference = makeField(dims, kImage);
    ZrUniformScalarField3* model = makeField(dims, kImage);
    if (row.labels) {
      const float box[6] = {0, 15, 0, 15, 0, 15};
      ZrUniformScalarField3* labels = new ZrUniformLabelField3(dims, QB_UINT8, box);
      for (size_t i = 0; i < size_t(16 * 16 * 16); i++)
        labels->lattice.setValue(
            i, std::lround(static_cast<const float*>(model->lattice.dataPtr())[i] / 30.0));
      delete model;
      model = labels;
    }
    Scene<RecordingRegistration> s(reference, model);
    RecordingRegistration* m = s.module;
    s.fastSettings();
    m->portOptions.setValue(0, row.ignoreFinest ? 1 : 0);
    m->portRefineFinest.setValue(0, 1);
    m->portCoarsestResolution.setValue(8);
    m->portStep.setValue(0, 0.5f);
    m->portStep.setValue(1, 0.5f);
    m->portMetric.setIndex(0, 0);
    m->portTransform.setValue(1, 1);
    m->portTransform.setValue(3, 1);
    m->fire(0);
    s.press(2);
    ASSERT_EQ(m->stages.size(), row.stages.size()) << row.what;
    const int total = (int)row.stages.size();
    for (int i = 0; i < total; i++) {
      EXPECT_EQ(m->stages[i].level, row.stages[i].first) << row.what << " " << i;
      EXPECT_EQ(m->stages[i].dof, row.stages[i].second) << row.what << " " << i;
      EXPECT_EQ(m->stages[i].progressStep, i + 1) << row.what << " " << i;
      EXPECT_EQ(m->stages[i].progressSteps, total) << row.what << " " << i;
    }
    EXPECT_EQ(m->dofList, nullptr);
    EXPECT_EQ(m->transform, nullptr);
  }
}

TEST(ZrAffineRegistration, CentresAndAxesOfInertia) {
  MessageCapture log;
  ZrAffineRegistration m;
  // One elongated blob: long in x, short in z, off the box centre.
  const Blob ellipsoid[] = {{20.3, 19.6, 14.2, 3.5, 2.5, 1.8, 100}};
  const int dims[3] = {41, 40, 30};
  ZrUniformScalarField3* f = makeField(dims, ellipsoid);
  f->ref();
  SbVec3d c;
  const QbMat3d axes = m.computePrincipalAxes(f, c, 1);
  EXPECT_NEAR(c.x, 20.3, 1e-3);
  EXPECT_NEAR(c.y, 19.6, 1e-3);
  EXPECT_NEAR(c.z, 14.2, 1e-3);
  // Column 0: the largest moment, about the axis along which the blob is
  // thinnest (z); column 2 the long axis (x).
  EXPECT_NEAR(std::fabs(axes[2][0]), 1.0, 1e-6);
  EXPECT_NEAR(std::fabs(axes[1][1]), 1.0, 1e-6);
  EXPECT_NEAR(std::fabs(axes[0][2]), 1.0, 1e-6);
  EXPECT_EQ(m.computeCenter(f, 2), c);
  f->unref();

  // Equal moments keep the solver's order: five nodes of a cross in the
  // plane z = 2 give moments 16 about z and 8 about x and y (exactly), so
  // z comes first, then x before y.
  const int five[3] = {5, 5, 5};
  const float box5[6] = {0, 4, 0, 4, 0, 4};
  ZrUniformScalarField3* cross = new ZrUniformScalarField3(five, QB_INT16, box5);
  cross->ref();
  for (const int n : {2 + 2 * 5 + 2 * 25, 0 + 2 * 5 + 2 * 25, 4 + 2 * 5 + 2 * 25,
                      2 + 0 * 5 + 2 * 25, 2 + 4 * 5 + 2 * 25})
    cross->lattice.setValue(n, 1.0);
  const QbMat3d tied = m.computePrincipalAxes(cross, c, 1);
  EXPECT_EQ(c, SbVec3d(2, 2, 2));
  for (int r = 0; r < 3; r++)
    for (int col = 0; col < 3; col++)
      EXPECT_NEAR(std::fabs(tied[r][col]), r == (col + 2) % 3 ? 1.0 : 0.0, 1e-12)
          << r << ", " << col;
  cross->unref();

  // Negative and zero values weigh nothing: no centre at all.
  const int small[3] = {5, 4, 3};
  const float box[6] = {0, 4, 0, 3, 0, 2};
  ZrUniformScalarField3* g = new ZrUniformScalarField3(small, QB_INT16, box);
  g->ref();
  for (size_t i = 0; i < g->lattice.numNodes(); i++)
    g->lattice.setValue(i, -3.0);
  EXPECT_EQ(m.computeCenter(g, 1), SbVec3d(0, 0, 0));
  // Every second node from 0: x = 4 is sampled, x = 3 and y = 3 are not.
  g->lattice.setValue(4 + (2 * 4 + 2) * 5, 7.0);
  g->lattice.setValue(3 + (0 * 4 + 0) * 5, 50.0);
  g->lattice.setValue(0 + (0 * 4 + 3) * 5, 50.0);
  EXPECT_EQ(m.computeCenter(g, 1), SbVec3d(4, 2, 2));
  g->unref();

  // A stop asked for before the moments leaves zero axes.
  ZrWorkArea::getTheWorkArea()->requestInterrupt();
  SbVec3d unused(1, 2, 3);
  EXPECT_EQ(m.computePrincipalAxes(f = makeField(dims, ellipsoid), unused, 2), QbMat3d());
  ZrWorkArea::getTheWorkArea()->clearInterrupt();
  delete f;
}

TEST(ZrAffineRegistration, AlignPrincipalAxesUndoesTurns) {
  MessageCapture log;
  const int dims[3] = {40, 40, 40};
  const SbVec3d centre(19.5, 19.5, 19.5);
  // An elongated body with two bumps that make every turn look different,
  // well inside the box in every position.
  const Blob body[] = {{19.5, 19.5, 19.5, 4.5, 2.8, 1.8, 100},
                       {25, 20.5, 19.5, 1.5, 1.5, 1.5, 60},
                       {18, 19.5, 22, 1.5, 1.5, 1.5, 40}};
  struct Turn {
    SbVec3d axis;
    double degrees;
  };
  const Turn turns[] = {{SbVec3d(0, 0, 1), 90},  {SbVec3d(1, 0, 0), 180}, {SbVec3d(0, 1, 0), 90},
                        {SbVec3d(1, 0, 0), 270}, {SbVec3d(0, 0, 1), 180}, {SbVec3d(1, 2, 3), 35}};
  int wrongWithoutChoice = 0;
  for (const Turn& turn : turns) {
    SbMatrixd truth = rotationAbout(turn.axis, turn.degrees, centre);
    // Also moved, so that the centres have to meet as well.
    SbMatrixd shift;
    shift.setTranslate(SbVec3d(1.5, -1.0, 0.5));
    truth.multRight(shift);
    Scene<> s(makeField(dims, body), makeField(dims, body, truth));
    s.press(1);
    SbMatrixd found;
    static_cast<ZrSpatialData*>(s.inputs[1])->getTransform(found);
    EXPECT_LT(cornerError(found, truth, dims), 0.02)
        << turn.degrees << " degrees about " << turn.axis.x << " " << turn.axis.y << " "
        << turn.axis.z;
    EXPECT_EQ(s.module->transform, nullptr);

    // The axes alone leave the signs of the axes open: without the 24
    // scored orientations some turns come out flipped.
    Scene<AxesOnly> a(makeField(dims, body), makeField(dims, body, truth));
    a.press(1);
    static_cast<ZrSpatialData*>(a.inputs[1])->getTransform(found);
    if (cornerError(found, truth, dims) > 5.0)
      wrongWithoutChoice++;
  }
  EXPECT_GT(wrongWithoutChoice, 0);
}

TEST(ZrAffineRegistration, TheModelShowsTheOptimumNotTheLastProbe) {
  MessageCapture log;
  const int dims[3] = {24, 24, 24};
  // Identical images: the optimum is where the model already is, and every
  // probe of the search lies a step away from it.
  Scene<> s(makeField(dims, kImage), makeField(dims, kImage));
  ZrAffineRegistration* m = s.module;
  s.fastSettings(1);
  m->portMetric.setIndex(0, 2);
  m->portCoarsestResolution.setValue(1);
  m->portStep.setValue(0, 1.0f);
  m->portStep.setValue(1, 1.0f);
  m->fire(0);
  s.press(2);
  SbMatrixd found;
  static_cast<ZrSpatialData*>(s.inputs[1])->getTransform(found);
  for (int r = 0; r < 4; r++)
    for (int c = 0; c < 4; c++)
      EXPECT_NEAR(found[r][c], r == c ? 1.0 : 0.0, 1e-6) << r << ", " << c;
}

TEST(ZrAffineRegistration, PlanarRegistrationStaysInItsPlane) {
  MessageCapture log;
  const int dims[3] = {32, 32, 1};
  // A slice through the test image at z = 15, moved and turned in its plane,
  // and once also scaled in its plane: the isotropic stage must not carry
  // its scale into the flat axis.
  SbMatrixd lift;
  lift.setTranslate(SbVec3d(0, 0, 15));
  const struct {
    double scale;
    const char* toggles;
  } cases[] = {{1.0, "Rigid"}, {1.05, "Rigid+Iso-"}};
  for (const auto& c : cases) {
    const double p[15] = {1.4, -1.1, 0, 0, 0, 4.0, c.scale, c.scale, 1, 0, 0, 0, 15.5, 15.5, 0};
    const SbMatrixd truth = affineMatrix(p);
    Scene<> s(makeField(dims, kImage, lift), makeField(dims, kImage, truth * lift));
    ZrAffineRegistration* m = s.module;
    ASSERT_EQ(m->dimensionMode, 2);
    ASSERT_EQ(m->portRegister.getValue(), 0);
    s.fastSettings(1);
    m->portCoarsestResolution.setValue(2);
    m->portStep.setValue(0, 2.0f);
    m->portStep.setValue(1, 0.005f);
    m->portMetric.setIndex(0, 2);
    m->portTransform.setValue(1, c.scale != 1.0 ? 1 : 0);
    m->fire(0);
    EXPECT_EQ(m->portCoarsestResolution.getValue(2), 1);
    // The finest level's finer reference grid leaves the pool with the run.
    const int poolSize = s.pool->getNumObjects();
    s.press(2);
    EXPECT_EQ(s.pool->getNumObjects(), poolSize) << c.toggles;
    SbMatrixd found;
    static_cast<ZrSpatialData*>(s.inputs[1])->getTransform(found);
    EXPECT_LT(cornerError(found, truth, dims), 0.1) << c.toggles;
    // Nothing leaves the plane, and the flat axis keeps its length.
    EXPECT_EQ(found[0][2], 0.0) << c.toggles;
    EXPECT_EQ(found[1][2], 0.0) << c.toggles;
    EXPECT_EQ(found[2][0], 0.0) << c.toggles;
    EXPECT_EQ(found[2][1], 0.0) << c.toggles;
    EXPECT_EQ(found[2][2], 1.0) << c.toggles;
    EXPECT_EQ(found[3][2], 0.0) << c.toggles;
  }
}

// Which pairs of grids have every reference node on a model node: the same
// grid, one shifted by whole voxels, reversed or with its axes swapped do;
// half a voxel, another spacing or a slight turn do not.
TEST(ZrAffineRegistration, GridsCoincideUpToWholeVoxelsAndAxisOrder) {
  // Reference: 10 x 8 x 6 nodes of 1 x 2 x 2 mm, placed obliquely.
  const int dims[3] = {10, 8, 6};
  const float box[6] = {0, 9, 0, 14, 0, 10};
  const SbMatrixd placed = rotationAbout(SbVec3d(1, 2, 3), 17.0, SbVec3d(4, 5, 6));
  ZrUniformScalarField3 reference(dims, QB_FLOAT, box);
  reference.setTransform(placed);
  // Model-local coordinates from reference-local ones, row vectors.
  SbMatrixd reverseX; // x -> 9 - x
  reverseX.setValue(SbMatrix(-1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 9, 0, 0, 1));
  SbMatrixd swapXY; // (x, y) -> (y, x)
  swapXY.setValue(SbMatrix(0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1));
  const int swapped[3] = {8, 10, 6};
  struct Case {
    const char* what;
    const int* dims;
    float box[6];
    SbMatrixd toModel; // model-local from reference-local
    bool coincide;
  };
  const Case cases[] = {
      {"same grid", dims, {0, 9, 0, 14, 0, 10}, SbMatrixd(), true},
      {"shifted by 3 and 2 voxels", dims, {3, 12, 4, 18, 0, 10}, SbMatrixd(), true},
      {"reversed along x", dims, {0, 9, 0, 14, 0, 10}, reverseX, true},
      {"x and y swapped", swapped, {0, 14, 0, 9, 0, 10}, swapXY, true},
      {"half a voxel along y", dims, {0, 9, 1, 15, 0, 10}, SbMatrixd(), false},
      {"spacing 1.1 along x", dims, {0, 9.9f, 0, 14, 0, 10}, SbMatrixd(), false},
      {"turned by 0.1 degree",
       dims,
       {0, 9, 0, 14, 0, 10},
       rotationAbout(SbVec3d(0, 0, 1), 0.1, SbVec3d(4, 7, 5)),
       false},
  };
  for (const Case& c : cases) {
    ZrUniformScalarField3 model(c.dims, QB_FLOAT, c.box);
    // A model-local point q = p * toModel lies where the reference's p does.
    model.setTransform(c.toModel.inverse() * placed);
    EXPECT_EQ(ZrAffineRegistration::gridsCoincide(&reference, &model), c.coincide) << c.what;
  }
}

TEST(ZrAffineRegistration, RefinementOnTheSparseFinestLevel) {
  // A small rigid motion, the finest level left out, then refined or not;
  // the model on the reference's grid or on one twice as fine. The
  // reference has an odd count of intervals, so that its every second node
  // ends short of its box (taken whole, the refinement ended 0.5 to 0.6
  // off). On these smooth blobs the sparse level gains little over the
  // levels above; it must not lead away from them.
  const double p[15] = {0.3, -0.4, 0.2, 1.5, -1.0, 2.0, 1, 1, 1, 0, 0, 0, 15.5, 15.5, 15.5};
  const SbMatrixd truth = affineMatrix(p);
  // n nodes over the box [0, 31]^3 holding image(p * m).
  auto field = [](int n, const SbMatrixd& m) {
    const int d[3] = {n, n, n};
    const float box[6] = {0, 31, 0, 31, 0, 31};
    ZrUniformScalarField3* f = new ZrUniformScalarField3(d, QB_FLOAT, box);
    float* data = static_cast<float*>(f->lattice.dataPtr());
    for (int k = 0; k < n; k++)
      for (int j = 0; j < n; j++)
        for (int i = 0; i < n; i++) {
          float q[3];
          f->lattice.coords()->pos(i, j, k, q);
          SbVec3d w;
          m.multVecMatrix(SbVec3d(q[0], q[1], q[2]), w);
          data[(size_t(k) * n + j) * n + i] = (float)blobs(kImage, 4, w.x, w.y, w.z);
        }
    return f;
  };
  const int corners[3] = {32, 32, 32};
  for (int fine : {1, 2}) {
    double error[2];
    for (int refine : {0, 1}) {
      MessageCapture log;
      ZrUniformScalarField3* model = field(fine * 63 + 1, truth);
      Scene<> s(field(64, SbMatrixd()), model);
      ZrAffineRegistration* m = s.module;
      m->portOptimizer.setIndex(0, 1);
      m->portOptions.setValue(0, 1);
      m->portRefineFinest.setValue(0, refine);
      m->portCoarsestResolution.setValue(4);
      m->portStep.setValue(0, 1.0f);
      m->portStep.setValue(1, 0.01f);
      m->portMetric.setIndex(0, 0);
      m->fire(0);
      m->portHistogramBins.setValue(0, 32);
      m->portHistogramBins.setValue(1, 32);
      m->portNLevelsGradient.setValue(0, 2.0f);
      m->fire(0);
      s.press(2);
      SbMatrixd found;
      model->getTransform(found);
      error[refine] = cornerError(found, truth, corners);
    }
    EXPECT_LT(error[1], error[0] + 0.01) << "model nodes x" << fine;
  }
}
