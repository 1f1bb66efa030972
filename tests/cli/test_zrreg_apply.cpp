// zrreg apply: a label atlas through a known affine and displacement field
// onto an oblique reference, and bad input refused before any write.

#include "ZrImageIO.h"

#include <itkImage.h>
#include <itkImageFileReader.h>
#include <itkImageFileWriter.h>
#include <itkImageRegionIteratorWithIndex.h>
#include <itkVector.h>

#include "ZrregRun.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using ShortImage = itk::Image<short, 3>;
using ByteImage = itk::Image<unsigned char, 3>;
using DispImage = itk::Image<itk::Vector<float, 3>, 3>;

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// An image of the given geometry (direction columns = voxel axes) whose
// voxels are f(world position).
template <class Image>
typename Image::Pointer makeImage(const int (&size)[3], const double (&spacing)[3],
                                  const double (&origin)[3], const double (&dir)[3][3],
                                  const std::function<double(const double*)>& f) {
  auto img = Image::New();
  typename Image::SizeType sz;
  typename Image::SpacingType sp;
  typename Image::PointType org;
  typename Image::DirectionType d;
  for (int r = 0; r < 3; r++) {
    sz[r] = size[r];
    sp[r] = spacing[r];
    org[r] = origin[r];
    for (int c = 0; c < 3; c++)
      d[r][c] = dir[r][c];
  }
  img->SetRegions(typename Image::RegionType(sz));
  img->SetSpacing(sp);
  img->SetOrigin(org);
  img->SetDirection(d);
  img->Allocate();
  for (itk::ImageRegionIteratorWithIndex<Image> it(img, img->GetLargestPossibleRegion());
       !it.IsAtEnd(); ++it) {
    typename Image::PointType p;
    img->TransformIndexToPhysicalPoint(it.GetIndex(), p);
    it.Set(typename Image::PixelType(f(p.GetDataPointer())));
  }
  return img;
}

template <class Image> void writeImage(Image* img, const std::string& path) {
  auto w = itk::ImageFileWriter<Image>::New();
  w->SetInput(img);
  w->SetFileName(path);
  w->Update();
}

template <class Image> typename Image::Pointer readImage(const std::string& path) {
  auto r = itk::ImageFileReader<Image>::New();
  r->SetFileName(path);
  r->Update();
  return r->GetOutput();
}

// A blocky atlas of 7 labels over world space.
double atlas(const double* p) {
  const int b = int(std::floor(p[0] / 8.0)) + 3 * int(std::floor(p[1] / 7.0)) +
                5 * int(std::floor(p[2] / 9.0));
  return 1 + ((b % 7) + 7) % 7;
}

double grey(const double* p) {
  return 100 + 60 * std::sin(p[0] / 6.0) * std::cos(p[1] / 9.0) + 20 * std::sin(p[2] / 5.0);
}

class ZrregApply : public ::testing::Test {
protected:
  void SetUp() override {
    dir = "/tmp/zrreg-apply-" + std::to_string(getpid());
    // The image formats come with zrreg's image input and output.
    ASSERT_TRUE(ZrImageIO::canWrite(dir + "/x.nii.gz"));
  }
  void TearDown() override { std::system(("rm -rf " + dir).c_str()); }
  std::string path(const std::string& name) const { return dir + "/" + name; }
  std::string dir;
};

} // namespace

TEST_F(ZrregApply, KnownAffineAndDisplacementCarryALabelAtlas) {
  ASSERT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
  // Reference stored R,A,S (LPS x and y reversed); model atlas with permuted
  // and reversed axes, in 16 bits while the reference has 8.
  const double ras[3][3] = {{-1, 0, 0}, {0, -1, 0}, {0, 0, 1}};
  const double perm[3][3] = {{0, 1, 0}, {0, 0, -1}, {1, 0, 0}};
  auto ref = makeImage<ByteImage>({30, 28, 24}, {1.2, 1.0, 1.5}, {18, 14, -16}, ras, grey);
  auto model = makeImage<ShortImage>({34, 32, 36}, {1.1, 1.1, 1.1}, {-17, 19, -18}, perm, atlas);
  writeImage(ref.GetPointer(), path("ref.nii.gz"));
  writeImage(model.GetPointer(), path("atlas.nii.gz"));

  // A known affine, reference point to model point, in ITK's text format.
  const double a = 5.0 * M_PI / 180, c = std::cos(a), s = std::sin(a), k = 1.03;
  const double A[3][3] = {{k * c, -k * s, 0.02}, {k * s, k * c, 0}, {0, -0.03, k}};
  const double t[3] = {2.0, -3.0, 1.5};
  std::ofstream(path("a.tfm")) << "#Insight Transform File V1.0\n#Transform 0\n"
                               << "Transform: AffineTransform_double_3_3\nParameters: " << A[0][0]
                               << " " << A[0][1] << " " << A[0][2] << " " << A[1][0] << " "
                               << A[1][1] << " " << A[1][2] << " " << A[2][0] << " " << A[2][1]
                               << " " << A[2][2] << " " << t[0] << " " << t[1] << " " << t[2]
                               << "\nFixedParameters: 0 0 0\n";
  // A known smooth displacement on the reference grid.
  auto disp = DispImage::New();
  disp->CopyInformation(ref);
  disp->SetRegions(ref->GetLargestPossibleRegion());
  disp->Allocate();
  for (itk::ImageRegionIteratorWithIndex<DispImage> it(disp, disp->GetLargestPossibleRegion());
       !it.IsAtEnd(); ++it) {
    DispImage::PointType p;
    disp->TransformIndexToPhysicalPoint(it.GetIndex(), p);
    itk::Vector<float, 3> v;
    v[0] = float(1.5 * std::sin(p[1] / 9.0));
    v[1] = float(-1.2 * std::cos(p[0] / 11.0));
    v[2] = float(0.8 * std::sin(p[2] / 7.0));
    it.Set(v);
  }
  writeImage(disp.GetPointer(), path("d.nii.gz"));

  // The image moved by the affine, then by the deformation.
  std::string out;
  ASSERT_EQ(run("apply --quiet --image " + path("atlas.nii.gz") + " --labels -t " + path("a.tfm") +
                    " --displacement " + path("d.nii.gz") + " --reference " + path("ref.nii.gz") +
                    " -o " + path("moved.nii.gz"),
                &out),
            0)
      << out;
  EXPECT_EQ(out, "");

  auto io = itk::ImageIOFactory::CreateImageIO(path("moved.nii.gz").c_str(),
                                               itk::ImageIOFactory::ReadMode);
  io->SetFileName(path("moved.nii.gz"));
  io->ReadImageInformation();
  EXPECT_EQ(io->GetComponentType(), itk::IOComponentEnum::SHORT); // the atlas's type
  auto moved = readImage<ShortImage>(path("moved.nii.gz"));
  // The reference's grid, in the reference file's voxel order.
  EXPECT_EQ(moved->GetLargestPossibleRegion().GetSize(), ref->GetLargestPossibleRegion().GetSize());
  for (int r = 0; r < 3; r++) {
    EXPECT_NEAR(moved->GetOrigin()[r], ref->GetOrigin()[r], 1e-4);
    EXPECT_NEAR(moved->GetSpacing()[r], ref->GetSpacing()[r], 1e-5);
    for (int q = 0; q < 3; q++)
      EXPECT_NEAR(moved->GetDirection()[r][q], ref->GetDirection()[r][q], 1e-6);
  }
  // Each voxel holds the atlas label at A (p + d(p)), found with ITK's
  // geometry; 0 beyond the atlas. Points within rounding of a tie between
  // two voxels are left out.
  int checked = 0, wrong = 0, labelled = 0;
  for (itk::ImageRegionIteratorWithIndex<ShortImage> it(moved, moved->GetLargestPossibleRegion());
       !it.IsAtEnd(); ++it) {
    DispImage::PointType p;
    ref->TransformIndexToPhysicalPoint(it.GetIndex(), p);
    const itk::Vector<float, 3> d = disp->GetPixel(it.GetIndex());
    ShortImage::PointType q;
    for (int r = 0; r < 3; r++)
      q[r] = t[r] + A[r][0] * (p[0] + d[0]) + A[r][1] * (p[1] + d[1]) + A[r][2] * (p[2] + d[2]);
    itk::ContinuousIndex<double, 3> ci;
    model->TransformPhysicalPointToContinuousIndex(q, ci);
    bool inside = true, tie = false;
    ShortImage::IndexType at;
    for (int r = 0; r < 3; r++) {
      const double n = double(model->GetLargestPossibleRegion().GetSize()[r]);
      at[r] = std::lround(ci[r]);
      tie |= std::fabs(std::fabs(ci[r] - std::floor(ci[r])) - 0.5) < 1e-3;
      tie |= std::fabs(ci[r]) < 1e-3 || std::fabs(ci[r] - (n - 1)) < 1e-3;
      inside &= ci[r] >= 0 && ci[r] <= n - 1;
    }
    if (tie)
      continue;
    const short expected = inside ? model->GetPixel(at) : 0;
    checked++;
    labelled += expected != 0;
    wrong += it.Get() != expected;
  }
  EXPECT_GT(checked, 18000);
  EXPECT_GT(labelled, checked / 2);
  EXPECT_EQ(wrong, 0) << "of " << checked;
}

TEST_F(ZrregApply, BadInputIsRefusedAndNothingWritten) {
  ASSERT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
  const double lps[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  auto img = makeImage<ShortImage>({8, 8, 8}, {1, 1, 1}, {0, 0, 0}, lps, atlas);
  writeImage(img.GetPointer(), path("img.nii.gz"));
  using FloatImage = itk::Image<float, 3>;
  auto nan = makeImage<FloatImage>({8, 8, 8}, {1, 1, 1}, {0, 0, 0}, lps, grey);
  FloatImage::IndexType at = {{3, 4, 5}};
  nan->SetPixel(at, std::nanf(""));
  writeImage(nan.GetPointer(), path("nan.nii"));
  std::ofstream(path("bad.tfm")) << "#Insight Transform File V1.0\nTransform: Euler3DTransform\n";
  std::ofstream(path("bad.txt")) << "1 0 0\n0 1 0\n";
  const std::string img0 = " --image " + path("img.nii.gz"),
                    ref = " --reference " + path("img.nii.gz");
  const struct {
    std::string args;
    int status;
    const char* message;
  } cases[] = {
      {img0 + " -t " + path("bad.txt") + ref, 1, "holds 6 numbers, not 16"},
      {img0 + " -t " + path("bad.tfm") + ref, 1, "is not a 2-D or 3-D affine ITK transform"},
      {img0 + " --displacement " + path("img.nii.gz") + ref, 1, "three-component vectors"},
      {" --image " + path("nan.nii") + ref, 1, "contains NaN or infinite voxels"},
      {img0 + " --labels --interpolation cubic" + ref, 1, "nearest voxel only"},
      {img0 + " -t " + path("missing.tfm") + ref, 1, "cannot open"},
      {img0, 2, "--reference is required"},
      {img0 + " --displacement " + path("d.nii.gz") + " --image-grid", 2, "affine transforms only"},
      {img0 + ref + " --interpolation bspline", 2, "--interpolation takes"},
  };
  for (const auto& c : cases) {
    std::string out;
    EXPECT_EQ(run("apply" + c.args + " -o " + path("out.nii.gz"), &out), c.status) << c.args;
    EXPECT_NE(out.find(c.message), std::string::npos) << c.args << "\n" << out;
    EXPECT_FALSE(exists(path("out.nii.gz"))) << c.args;
  }
}
