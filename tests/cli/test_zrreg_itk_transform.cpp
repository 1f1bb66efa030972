// The transform file of `zrreg affine` proven by ITK: its ResampleImageFilter
// with the written --itk-transform must give --resampled, in 3-D and 2-D.
#include "ZrImageIO.h"

#include <itkAffineTransform.h>
#include <itkImage.h>
#include <itkImageFileReader.h>
#include <itkImageFileWriter.h>
#include <itkImageRegionIteratorWithIndex.h>
#include <itkLinearInterpolateImageFunction.h>
#include <itkResampleImageFilter.h>
#include <itkTransformFileReader.h>
#include <itkTxtTransformIOFactory.h>

#include "ZrregRun.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Smooth blobs of different sizes and heights around the origin, in world
// millimetres.
double scene(const double* p, unsigned dim) {
  const double centres[4][3] = {{-4, 3, 2}, {6, -5, -3}, {2, 8, 5}, {-7, -6, 6}};
  const double widths[4] = {6, 4, 3.5, 5};
  const double heights[4] = {100, 70, 55, 40};
  double v = 0;
  for (int b = 0; b < 4; b++) {
    double d2 = 0;
    for (unsigned a = 0; a < dim; a++)
      d2 += (p[a] - centres[b][a]) * (p[a] - centres[b][a]);
    v += heights[b] * std::exp(-0.5 * d2 / (widths[b] * widths[b]));
  }
  return v;
}

template <unsigned D> using Image = itk::Image<float, D>;

// An image on the grid given, holding the scene at mapped(point).
template <unsigned D, class Map>
typename Image<D>::Pointer
makeImage(const itk::Size<D>& size, const double* spacing, const double* origin,
          const typename Image<D>::DirectionType& direction, const Map& mapped) {
  auto image = Image<D>::New();
  typename Image<D>::RegionType region;
  region.SetSize(size);
  image->SetRegions(region);
  image->SetSpacing(spacing);
  image->SetOrigin(origin);
  image->SetDirection(direction);
  image->Allocate();
  for (itk::ImageRegionIteratorWithIndex<Image<D>> it(image, region); !it.IsAtEnd(); ++it) {
    typename Image<D>::PointType p;
    image->TransformIndexToPhysicalPoint(it.GetIndex(), p);
    double q[3];
    mapped(p, q);
    it.Set((float)scene(q, D));
  }
  return image;
}

template <class ImageT> void write(const ImageT* image, const std::string& path) {
  auto w = itk::ImageFileWriter<ImageT>::New();
  w->SetInput(image);
  w->SetFileName(path);
  w->Update();
}

template <class ImageT> typename ImageT::Pointer read(const std::string& path) {
  auto r = itk::ImageFileReader<ImageT>::New();
  r->SetFileName(path);
  r->Update();
  return r->GetOutput();
}

// The largest distance, over the corners of the model's grid, between a
// voxel's position in `model` and where `tfm` takes its position in `moved`
// (the same voxels with a new header).
double headerAgainstTransform(const std::string& model, const std::string& moved,
                              const std::string& tfm) {
  auto reader = itk::TransformFileReaderTemplate<double>::New();
  reader->SetFileName(tfm);
  reader->Update();
  auto* transform = dynamic_cast<itk::AffineTransform<double, 3>*>(
      reader->GetTransformList()->front().GetPointer());
  if (!transform) {
    ADD_FAILURE() << tfm << " is no 3-D affine transform";
    return 1e9;
  }
  auto before = read<Image<3>>(model);
  auto after = read<Image<3>>(moved);
  const auto size = before->GetLargestPossibleRegion().GetSize();
  double worst = 0;
  for (int corner = 0; corner < 8; corner++) {
    Image<3>::IndexType idx;
    for (unsigned a = 0; a < 3; a++)
      idx[a] = corner >> a & 1 ? (long)size[a] - 1 : 0;
    Image<3>::PointType old, now;
    before->TransformIndexToPhysicalPoint(idx, old);
    after->TransformIndexToPhysicalPoint(idx, now);
    worst = std::max(worst, transform->TransformPoint(now).EuclideanDistanceTo(old));
  }
  return worst;
}

struct Comparison {
  double worst = 0;    // largest difference where both sample the model
  int compared = 0;    // voxels compared
  double distance = 0; // how far the transform is from the identity (mm)
  double anisotropy = 0;
};

// ITK's resampling of `model` through `tfm` onto `reference`'s grid against
// zrreg's `resampled`, leaving out voxels within half a voxel of the border.
template <unsigned D>
Comparison compare(const std::string& reference, const std::string& model,
                   const std::string& resampled, const std::string& tfm) {
  auto reader = itk::TransformFileReaderTemplate<double>::New();
  reader->SetFileName(tfm);
  reader->Update();
  using Affine = itk::AffineTransform<double, D>;
  Comparison c;
  auto* transform = dynamic_cast<Affine*>(reader->GetTransformList()->front().GetPointer());
  if (!transform) {
    ADD_FAILURE() << tfm << " is no " << D << "-D affine transform";
    return c;
  }
  auto ref = read<Image<D>>(reference);
  auto mod = read<Image<D>>(model);
  auto ours = read<Image<D>>(resampled);

  auto resampler = itk::ResampleImageFilter<Image<D>, Image<D>>::New();
  resampler->SetInput(mod);
  resampler->SetTransform(transform);
  resampler->SetInterpolator(itk::LinearInterpolateImageFunction<Image<D>, double>::New());
  resampler->UseReferenceImageOn();
  resampler->SetReferenceImage(ref);
  resampler->SetDefaultPixelValue(0);
  resampler->Update();
  auto theirs = resampler->GetOutput();

  const auto size = mod->GetLargestPossibleRegion().GetSize();
  for (itk::ImageRegionIteratorWithIndex<Image<D>> it(theirs, theirs->GetLargestPossibleRegion());
       !it.IsAtEnd(); ++it) {
    typename Image<D>::PointType p;
    theirs->TransformIndexToPhysicalPoint(it.GetIndex(), p);
    const auto q = transform->TransformPoint(p);
    c.distance = std::max(c.distance, q.EuclideanDistanceTo(p));
    itk::ContinuousIndex<double, D> ci;
    mod->TransformPhysicalPointToContinuousIndex(q, ci);
    bool inside = true;
    for (unsigned a = 0; a < D; a++)
      inside = inside && ci[a] >= 0.5 && ci[a] <= size[a] - 1.5;
    if (!inside)
      continue;
    // The same point of zrreg's image, whatever order it stores its voxels in.
    typename Image<D>::IndexType same;
    if (!ours->TransformPhysicalPointToIndex(p, same))
      continue;
    c.worst = std::max(c.worst, (double)std::fabs(it.Get() - ours->GetPixel(same)));
    c.compared++;
  }
  // Lengths of the matrix columns: equal for a similarity.
  double lo = 1e9, hi = 0;
  for (unsigned col = 0; col < D; col++) {
    double n = 0;
    for (unsigned row = 0; row < D; row++)
      n += transform->GetMatrix()[row][col] * transform->GetMatrix()[row][col];
    lo = std::min(lo, std::sqrt(n));
    hi = std::max(hi, std::sqrt(n));
  }
  c.anisotropy = hi / lo - 1;
  return c;
}

class ZrregItkTransform : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    dir = "/tmp/zrreg-itktfm-" + std::to_string(getpid());
    ASSERT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
    // The image formats come with zrreg's image input and output, which
    // registers them with ITK; the .tfm reader is registered here.
    ASSERT_TRUE(ZrImageIO::canWrite(dir + "/x.nii.gz"));
    itk::TxtTransformIOFactory::RegisterOneFactory();
  }
  static void TearDownTestSuite() { std::system(("rm -rf " + dir).c_str()); }
  static std::string dir;
};
std::string ZrregItkTransform::dir;

// Row-major 3x3 rotation about z, then x (degrees).
void rotation(double z, double x, double m[3][3]) {
  const double cz = std::cos(z * M_PI / 180), sz = std::sin(z * M_PI / 180);
  const double cx = std::cos(x * M_PI / 180), sx = std::sin(x * M_PI / 180);
  const double rz[3][3] = {{cz, -sz, 0}, {sz, cz, 0}, {0, 0, 1}};
  const double rx[3][3] = {{1, 0, 0}, {0, cx, -sx}, {0, sx, cx}};
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++) {
      m[r][c] = 0;
      for (int k = 0; k < 3; k++)
        m[r][c] += rx[r][k] * rz[k][c];
    }
}

} // namespace

TEST_F(ZrregItkTransform, ItkResamplesAsZrregDoesForEveryDegreeOfFreedom) {
  // The reference: oblique (12 degrees about z, 8 about x) with its first
  // axis flipped; the model: another oblique grid. The model shows the
  // scene moved by a rotation, a scale per axis and a shear.
  Image<3>::DirectionType refDir, modDir;
  double r[3][3], m[3][3];
  rotation(12, 8, r);
  rotation(-7, 4, m);
  for (int i = 0; i < 3; i++)
    for (int j = 0; j < 3; j++) {
      refDir[i][j] = j == 0 ? -r[i][j] : r[i][j];
      modDir[i][j] = m[i][j];
    }
  const double refSpacing[3] = {0.9, 1.1, 1.3}, modSpacing[3] = {1.0, 0.8, 1.2};
  const double refOrigin[3] = {15, -17, -18}, modOrigin[3] = {-16, -14, -17};
  double motion[3][3];
  rotation(5, -3, motion);
  const double scale[3] = {1.06, 0.95, 1.02}, shear = 0.04;
  const std::string reference = dir + "/reference.nii.gz", model = dir + "/model.nii.gz";
  write(makeImage<3>({{34, 30, 26}}, refSpacing, refOrigin, refDir,
                     [](const Image<3>::PointType& p, double* q) {
                       for (int a = 0; a < 3; a++)
                         q[a] = p[a];
                     })
            .GetPointer(),
        reference);
  write(makeImage<3>({{36, 40, 28}}, modSpacing, modOrigin, modDir,
                     [&](const Image<3>::PointType& p, double* q) {
                       // Model point p shows the scene at A p + t.
                       for (int a = 0; a < 3; a++) {
                         q[a] = 1.5 - a;
                         for (int k = 0; k < 3; k++)
                           q[a] += motion[a][k] * scale[k] * p[k];
                       }
                       q[0] += shear * q[1];
                     })
            .GetPointer(),
        model);

  // 0: no --dof, which with -o must leave out the shears a header cannot hold.
  for (int dof : {6, 7, 9, 12, 0}) {
    const std::string tfm = dir + "/t" + std::to_string(dof) + ".tfm";
    const std::string resampled = dir + "/r" + std::to_string(dof) + ".nii.gz";
    const std::string out = dir + "/o" + std::to_string(dof) + ".nii.gz";
    std::string output;
    ASSERT_EQ(run("affine --quiet" + (dof ? " --dof " + std::to_string(dof) : std::string()) +
                      " --reference " + reference + " --model " + model + " -o " + out +
                      " --itk-transform " + tfm + " --resampled " + resampled,
                  &output),
              0)
        << output;
    const Comparison c = compare<3>(reference, model, resampled, tfm);
    // The header of -o places every model voxel where the transform file
    // takes it from: the file maps the voxel's new position to its old one.
    // With 12 the header keeps only the orthogonal part of the shear.
    const double headerMiss = headerAgainstTransform(model, out, tfm);
    if (dof != 12)
      EXPECT_LT(headerMiss, 1e-3) << dof;
    else
      EXPECT_GT(headerMiss, 0.01);
    // Most of the reference sees the model, the transform moved it by more
    // than a voxel, and from 9 degrees of freedom on its axes differ in scale.
    EXPECT_GT(c.compared, 34 * 30 * 26 / 2) << dof;
    EXPECT_GT(c.distance, 2.0) << dof;
    if (dof >= 9) {
      EXPECT_GT(c.anisotropy, 0.03) << dof;
    }
    // Values up to about 100: what single against double precision
    // positions leave of a linear interpolation.
    EXPECT_LT(c.worst, 1e-3) << dof;
  }
}

TEST_F(ZrregItkTransform, TwoDimensionalImagesGetATwoDimensionalTransform) {
  Image<2>::DirectionType refDir, modDir;
  refDir.SetIdentity();
  modDir.SetIdentity();
  modDir[0][0] = modDir[1][1] = std::cos(0.2);
  modDir[0][1] = -std::sin(0.2);
  modDir[1][0] = std::sin(0.2);
  const double refSpacing[2] = {0.8, 0.8}, modSpacing[2] = {0.9, 0.7};
  const double refOrigin[2] = {-20, -18}, modOrigin[2] = {-17, -22};
  const std::string reference = dir + "/ref2.nii.gz", model = dir + "/mod2.nii.gz";
  write(makeImage<2>({{50, 46}}, refSpacing, refOrigin, refDir,
                     [](const Image<2>::PointType& p, double* q) {
                       q[0] = p[0];
                       q[1] = p[1];
                     })
            .GetPointer(),
        reference);
  const double c = std::cos(0.12), s = std::sin(0.12);
  write(makeImage<2>({{48, 52}}, modSpacing, modOrigin, modDir,
                     [&](const Image<2>::PointType& p, double* q) {
                       q[0] = 1.04 * (c * p[0] - s * p[1]) + 1.3;
                       q[1] = 1.04 * (s * p[0] + c * p[1]) - 0.8;
                     })
            .GetPointer(),
        model);
  const std::string tfm = dir + "/t2.tfm", resampled = dir + "/r2.nii.gz";
  std::string output;
  ASSERT_EQ(run("affine --quiet --dof 7 --reference " + reference + " --model " + model + " -o " +
                    dir + "/o2.nii.gz --itk-transform " + tfm + " --resampled " + resampled,
                &output),
            0)
      << output;
  const Comparison r = compare<2>(reference, model, resampled, tfm);
  EXPECT_GT(r.compared, 50 * 46 / 2);
  EXPECT_GT(r.distance, 1.0);
  EXPECT_LT(r.worst, 1e-3);
}
