// The elastic commands end to end on a small warped phantom: the run writes
// every output, apply-grid with the saved grid reproduces the warped image,
// ITK's own warp filter applied to the displacement field gives the same
// image, and deform-points carries model points back to the reference.
#include "ZrImageIO.h"
#include "ZrPointSetIO.h"
#include "ZrRegScalarField3.h"
#include "ZrRegVectorField3.h"
#include "ZrVectorImageIO.h"
#include "ZrVertexSet.h"

#include <itkImage.h>
#include <itkImageFileReader.h>
#include <itkLinearInterpolateImageFunction.h>
#include <itkWarpImageFilter.h>

#include "ZrregRun.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::unique_ptr<ZrRegScalarField3> load(const std::string& path) {
  std::string error;
  std::unique_ptr<ZrRegScalarField3> f(ZrImageIO::read(path, {}, nullptr, error));
  EXPECT_TRUE(f) << error;
  return f;
}

double meanAbsDiff(const ZrRegScalarField3* a, const ZrRegScalarField3* b) {
  double s = 0;
  size_t n = a->lattice.numNodes();
  for (size_t i = 0; i < n; i++)
    s += std::fabs(a->lattice.getValueAsDouble(i) - b->lattice.getValueAsDouble(i));
  return s / n;
}

} // namespace

TEST(ZrregElastic, RunApplyGridDisplacementAndPointsAgree) {
  std::string d = "/tmp/zrreg-elastic-test-" + std::to_string(getpid());
  std::string out;
  ASSERT_EQ(run("phantom --size 32 --warp 6 --out " + d, &out), 0) << out;
  std::string ref = d + "/reference.nii.gz", model = d + "/model.nii.gz";
  // A Jacobian constraint keeps the deformation free of folds, which carrying
  // points back through the vector field needs; unconstrained, the squared
  // difference of this small phantom is best matched by a folding lattice.
  ASSERT_EQ(run("elastic --quiet --reference " + ref + " --model " + model +
                    " --set metric=Euclidean --set regularization=0.01,0,0,0 -o " + d +
                    "/warped.nii.gz --control-grid " + d + "/grid.nii.gz --displacement " + d +
                    "/disp.nii.gz --jacobian " + d + "/jac.nii.gz --vector-field " + d +
                    "/vf.nii.gz --snapshot " + d + "/s.png",
                &out),
            0)
      << out;
  for (const char* f :
       {"warped.nii.gz", "grid.nii.gz", "disp.nii.gz", "jac.nii.gz", "vf.nii.gz", "s.png"})
    EXPECT_EQ(access((d + "/" + f).c_str(), F_OK), 0) << f;

  auto reference = load(ref), warped = load(d + "/warped.nii.gz"), moving = load(model);
  ASSERT_TRUE(reference && warped && moving);
  // The registration brings the model closer to the reference.
  double before = meanAbsDiff(reference.get(), moving.get());
  double after = meanAbsDiff(reference.get(), warped.get());
  EXPECT_LT(after, 0.7 * before) << before << " -> " << after;

  // The saved grid, applied again, reproduces the warped image (the run
  // interpolates trilinearly, apply-grid with a Lanczos kernel).
  ASSERT_EQ(run("apply-grid --quiet --control-grid " + d + "/grid.nii.gz --model " + model +
                    " --reference " + ref + " -o " + d + "/applied.nii.gz",
                &out),
            0)
      << out;
  auto applied = load(d + "/applied.nii.gz");
  ASSERT_TRUE(applied);
  EXPECT_LT(meanAbsDiff(applied.get(), warped.get()), 0.15 * after + 1.0);

  // A run may start from the saved grid: its lattice size comes with it, and
  // the start is the result already reached.
  ASSERT_EQ(run("elastic --quiet --reference " + ref + " --model " + model +
                    " --set metric=Euclidean --set refineGrid=0 --control-points " + d +
                    "/grid.nii.gz -o " + d + "/again.nii.gz",
                &out),
            0)
      << out;
  auto again = load(d + "/again.nii.gz");
  ASSERT_TRUE(again);
  EXPECT_LT(meanAbsDiff(reference.get(), again.get()), 1.05 * after);

  // ITK's warp filter with the displacement field (reference point to model
  // point) gives the same image.
  using Img = itk::Image<float, 3>;
  using Disp = itk::Image<itk::Vector<float, 3>, 3>;
  auto readImg = itk::ImageFileReader<Img>::New();
  readImg->SetFileName(model);
  auto readRef = itk::ImageFileReader<Img>::New();
  readRef->SetFileName(ref);
  readRef->Update();
  auto readDisp = itk::ImageFileReader<Disp>::New();
  readDisp->SetFileName(d + "/disp.nii.gz");
  auto warp = itk::WarpImageFilter<Img, Img, Disp>::New();
  warp->SetInput(readImg->GetOutput());
  warp->SetDisplacementField(readDisp->GetOutput());
  warp->SetOutputParametersFromImage(readRef->GetOutput());
  warp->SetInterpolator(itk::LinearInterpolateImageFunction<Img, double>::New());
  warp->Update();
  Img* itkWarped = warp->GetOutput();
  const int* dims = warped->getDims();
  double diff = 0;
  size_t idx = 0;
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++, idx++) {
        Img::IndexType at = {{i, j, k}};
        diff += std::fabs(itkWarped->GetPixel(at) - warped->lattice.getValueAsDouble(idx));
      }
  // Rounding to 8 bits and the two interpolators differ by about a grey
  // level; a wrong sign or frame of the field would differ by the size of
  // the deformation's effect itself.
  EXPECT_LT(diff / idx, 2.5);
  EXPECT_LT(diff / idx, 0.6 * before);

  // Model points q = x + d(x) are carried back to the reference points x.
  std::string error;
  std::unique_ptr<ZrRegVectorField3> disp(ZrVectorImageIO::read(d + "/disp.nii.gz", error));
  ASSERT_TRUE(disp) << error;
  std::ofstream pts(d + "/pts.csv");
  pts << "x,y,z\n";
  int probe[4][3] = {{16, 16, 16}, {10, 20, 14}, {20, 12, 18}, {14, 14, 22}};
  float expected[4][3];
  for (int p = 0; p < 4; p++) {
    float x[3];
    disp->lattice.coords()->pos(probe[p][0], probe[p][1], probe[p][2], x);
    size_t at = (size_t(probe[p][2]) * 32 + probe[p][1]) * 32 + probe[p][0];
    const float* v = disp->floatData() + 3 * at;
    pts << x[0] + v[0] << "," << x[1] + v[1] << "," << x[2] + v[2] << "\n";
    for (int c = 0; c < 3; c++)
      expected[p][c] = x[c];
  }
  pts.close();
  ASSERT_EQ(run("deform-points --vector-field " + d + "/vf.nii.gz --points " + d + "/pts.csv -o " +
                    d + "/moved.csv",
                &out),
            0)
      << out;
  std::unique_ptr<ZrVertexSet> moved(ZrPointSetIO::readVertices(d + "/moved.csv", error));
  ASSERT_TRUE(moved) << error;
  ASSERT_EQ(moved->getNumPoints(), 4);
  const double voxel = 220.0 / 31;
  for (int p = 0; p < 4; p++)
    for (int c = 0; c < 3; c++)
      EXPECT_NEAR(moved->getCoords()[p][c], expected[p][c], 0.5 * voxel) << p << "," << c;
  std::system(("rm -rf " + d).c_str());
}
