// Vector images: a control grid written and read back is the same field, with
// its box, its rotation and its vectors; vectors in files are in world
// coordinates.
#include "SbMatrixd.h"
#include "SbRotationd.h"
#include "ZrRegVectorField3.h"
#include "ZrUniformCoord3.h"
#include "ZrUniformScalarField3.h"
#include "ZrVectorImageIO.h"

#include <itkImageFileReader.h>
#include <itkVectorImage.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <unistd.h>

namespace {
std::string tempPath(const std::string& name) {
  return "/tmp/zrreg-vectest-" + std::to_string(getpid()) + "-" + name;
}

std::unique_ptr<ZrRegVectorField3> makeGrid(bool rotated) {
  int dims[3] = {5, 4, 3};
  std::unique_ptr<ZrRegVectorField3> f(ZrRegVectorField3::create(dims, 3, 3, ZR_COORD_UNIFORM));
  float box[6] = {-10, 30, -5, 10, 2, 12};
  static_cast<ZrUniformCoord3*>(f->lattice.coords())->setBoundingBox(box);
  float* v = f->floatData();
  for (size_t i = 0; i < f->lattice.numNodes(); i++)
    for (int c = 0; c < 3; c++)
      v[3 * i + c] = float(std::sin(0.7 * i + c) * 2.5);
  if (rotated) {
    SbMatrixd m;
    m.setRotate(SbRotationd(SbVec3d(0.2, -0.5, 1.0), 0.3));
    SbMatrixd t;
    t.setTranslate(SbVec3d(4, -2, 7));
    m.multRight(t);
    f->setTransform(m);
  }
  return f;
}
} // namespace

TEST(ZrVectorImageIO, GridRoundTripsWithBoxRotationAndVectors) {
  for (bool rotated : {false, true}) {
    auto f = makeGrid(rotated);
    std::string path = tempPath(rotated ? "rot.nii.gz" : "plain.mha"), error;
    ASSERT_TRUE(ZrVectorImageIO::write(f.get(), path, error)) << error;
    std::unique_ptr<ZrRegVectorField3> g(ZrVectorImageIO::read(path, error));
    ASSERT_TRUE(g) << error;
    for (int a = 0; a < 3; a++)
      ASSERT_EQ(g->getDims()[a], f->getDims()[a]);
    // Same world position of every node, same world vector.
    SbMatrixd mf, mg;
    f->getTransform(mf);
    g->getTransform(mg);
    const float* vf = f->floatData();
    const float* vg = g->floatData();
    size_t idx = 0;
    for (int k = 0; k < 3; k++)
      for (int j = 0; j < 4; j++)
        for (int i = 0; i < 5; i++, idx++) {
          float pf[3], pg[3];
          f->lattice.coords()->pos(i, j, k, pf);
          g->lattice.coords()->pos(i, j, k, pg);
          SbVec3d wf, wg, df, dg;
          mf.multVecMatrix(SbVec3d(pf[0], pf[1], pf[2]), wf);
          mg.multVecMatrix(SbVec3d(pg[0], pg[1], pg[2]), wg);
          mf.multDirMatrix(SbVec3d(vf[3 * idx], vf[3 * idx + 1], vf[3 * idx + 2]), df);
          mg.multDirMatrix(SbVec3d(vg[3 * idx], vg[3 * idx + 1], vg[3 * idx + 2]), dg);
          for (int c = 0; c < 3; c++) {
            EXPECT_NEAR(wf[c], wg[c], 1e-4);
            EXPECT_NEAR(df[c], dg[c], 1e-5);
          }
        }
    std::remove(path.c_str());
  }
}

TEST(ZrVectorImageIO, FilesHoldWorldVectorsAndBadFilesAreRefused) {
  auto f = makeGrid(true);
  std::string path = tempPath("world.nrrd"), error;
  ASSERT_TRUE(ZrVectorImageIO::write(f.get(), path, error)) << error;
  using Img = itk::VectorImage<float, 3>;
  auto r = itk::ImageFileReader<Img>::New();
  r->SetFileName(path);
  r->Update();
  Img::IndexType idx = {{2, 1, 1}};
  auto pix = r->GetOutput()->GetPixel(idx);
  size_t n = (1 * 4 + 1) * 5 + 2;
  SbMatrixd m;
  f->getTransform(m);
  SbVec3d world;
  m.multDirMatrix(
      SbVec3d(f->floatData()[3 * n], f->floatData()[3 * n + 1], f->floatData()[3 * n + 2]), world);
  for (int c = 0; c < 3; c++)
    EXPECT_NEAR(pix[c], world[c], 1e-5);
  std::remove(path.c_str());

  // A scalar image is not a vector field.
  int dims[3] = {3, 3, 3};
  float box[6] = {0, 2, 0, 2, 0, 2};
  ZrUniformScalarField3 scalar(dims, 3, box);
  std::vector<float> vec(81, 1.0f);
  std::string sp = tempPath("scalar.nii.gz");
  ASSERT_TRUE(ZrVectorImageIO::writeOnLattice(&scalar, vec.data(), sp, error)) << error;
  std::unique_ptr<ZrRegVectorField3> ok(ZrVectorImageIO::read(sp, error));
  EXPECT_TRUE(ok);
  std::remove(sp.c_str());
  EXPECT_EQ(ZrVectorImageIO::read(tempPath("missing.nii.gz"), error), nullptr);
}
