// The quality-check picture: tile layout, checkerboard alternation between
// reference and model, and the Jacobian colours.
#include "ZrSnapshot.h"
#include "ZrUniformScalarField3.h"

#include <itkImageFileReader.h>
#include <itkRGBPixel.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <unistd.h>

namespace {
using RGBImage = itk::Image<itk::RGBPixel<unsigned char>, 2>;

ZrUniformScalarField3* constantField(int n, float value) {
  int dims[3] = {n, n, n};
  float box[6] = {0, float(n - 1), 0, float(n - 1), 0, float(n - 1)};
  auto* f = new ZrUniformScalarField3(dims, 3, box);
  float* v = static_cast<float*>(f->lattice.dataPtr());
  for (size_t i = 0; i < f->lattice.numNodes(); i++)
    v[i] = value + (i % 7 == 0 ? 0.001f * (i % 13) : 0.0f); // not perfectly flat
  return f;
}
} // namespace

TEST(ZrSnapshot, TilesCheckerboardAndJacobianColours) {
  const int n = 32;
  std::unique_ptr<ZrUniformScalarField3> ref(constantField(n, 0)), model(constantField(n, 1)),
      jac(constantField(n, 2));
  // The reference is dark; the model is 0 on even and 1 on odd x, so its
  // window is [0, 1] and an odd column shows white in the board.
  for (size_t i = 0; i < model->lattice.numNodes(); i++)
    static_cast<float*>(model->lattice.dataPtr())[i] = float(i % 2);
  for (size_t i = 0; i < ref->lattice.numNodes(); i += 2)
    static_cast<float*>(ref->lattice.dataPtr())[i] = i % 4 == 0 ? 0.0f : 0.5f;
  std::string path = "/tmp/zrreg-snap-" + std::to_string(getpid()) + ".png", error;
  ASSERT_TRUE(ZrSnapshot::write(ref.get(), model.get(), model.get(), jac.get(), path, error))
      << error;
  auto r = itk::ImageFileReader<RGBImage>::New();
  r->SetFileName(path);
  r->Update();
  auto size = r->GetOutput()->GetLargestPossibleRegion().GetSize();
  const int gap = 4;
  EXPECT_EQ(int(size[0]), 4 * (n + gap) + gap);
  EXPECT_EQ(int(size[1]), 3 * (n + gap) + gap);
  // Column 2 (after): square (0,0) is the reference, square (1,0) the model.
  const int square = 4; // max(4, 32 / 8)
  int x0 = gap + 2 * (n + gap), y0 = gap;
  RGBImage::IndexType inModel = {{x0 + square + 1, y0 + 1}};
  auto pm = r->GetOutput()->GetPixel(inModel);
  EXPECT_EQ(int(pm[0]), 255); // x = 5: a model voxel of value 1
  // Jacobian 2: log2 = 1, pure red.
  RGBImage::IndexType inJac = {{gap + 3 * (n + gap) + 5, y0 + 5}};
  auto pj = r->GetOutput()->GetPixel(inJac);
  EXPECT_EQ(int(pj[0]), 255);
  EXPECT_EQ(int(pj[2]), 0);
  std::remove(path.c_str());

  // Grids that differ are refused.
  std::unique_ptr<ZrUniformScalarField3> small(constantField(8, 1));
  EXPECT_FALSE(ZrSnapshot::write(ref.get(), small.get(), model.get(), nullptr, path, error));
}
