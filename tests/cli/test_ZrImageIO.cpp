// Image files in and out: world positions, voxel order, formats, labels,
// vector images, and bad input refused.
#include "QbPrimType.h"
#include "SbMatrixd.h"
#include "SbRotationd.h"
#include "ZrGzipFile.h"
#include "ZrImageIO.h"
#include "ZrNiftiRawValues.h"
#include "ZrRegVectorField3.h"
#include "ZrUniformCoord3.h"
#include "ZrUniformLabelField3.h"
#include "ZrUniformScalarField3.h"
#include "ZrVectorImageIO.h"

#include <itkImage.h>
#include <itkImageFileReader.h>
#include <itkImageFileWriter.h>
#include <itkImageRegionIteratorWithIndex.h>
#include <itkVectorImage.h>

#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

using ShortImage = itk::Image<short, 3>;

std::string tempPath(const std::string& name) {
  return "/tmp/zrreg-test-" + std::to_string(getpid()) + "-" + name;
}

template <class Image> void writeImage(Image* img, const std::string& path) {
  auto w = itk::ImageFileWriter<Image>::New();
  w->SetInput(img);
  w->SetFileName(path);
  w->Update();
}

// An ITK image of D dimensions with distinct voxel values and the given
// direction (columns = voxel axes), spacing and origin.
template <unsigned D>
typename itk::Image<short, D>::Pointer makeImageD(const double (&dir)[D][D], const int (&size)[D],
                                                  const double (&spacing)[D],
                                                  const double (&origin)[D]) {
  using Image = itk::Image<short, D>;
  auto img = Image::New();
  typename Image::SizeType sz;
  typename Image::SpacingType sp;
  typename Image::PointType org;
  typename Image::DirectionType d;
  for (unsigned r = 0; r < D; r++) {
    sz[r] = size[r];
    sp[r] = spacing[r];
    org[r] = origin[r];
    for (unsigned c = 0; c < D; c++)
      d[r][c] = dir[r][c];
  }
  img->SetRegions(typename Image::RegionType(sz));
  img->Allocate();
  img->SetSpacing(sp);
  img->SetOrigin(org);
  img->SetDirection(d);
  short v = 0;
  for (itk::ImageRegionIterator<Image> it(img, img->GetLargestPossibleRegion()); !it.IsAtEnd();
       ++it)
    it.Set(short(v++ * 7 % 3001));
  return img;
}

// ITK reads path as an image of D dimensions with the same geometry and the
// same voxel array as img.
template <unsigned D>
void expectSameFile(const std::string& path, const itk::Image<short, D>* img, const char* what) {
  using Image = itk::Image<short, D>;
  auto reader = itk::ImageFileReader<Image>::New();
  reader->SetFileName(path);
  reader->Update();
  const Image* back = reader->GetOutput();
  auto io = reader->GetImageIO();
  ASSERT_EQ(io->GetNumberOfDimensions(), D) << what;
  ASSERT_EQ(back->GetLargestPossibleRegion().GetSize(), img->GetLargestPossibleRegion().GetSize())
      << what;
  for (unsigned r = 0; r < D; r++) {
    EXPECT_NEAR(back->GetSpacing()[r], img->GetSpacing()[r], 1e-5) << what;
    EXPECT_NEAR(back->GetOrigin()[r], img->GetOrigin()[r], 1e-4) << what;
    for (unsigned c = 0; c < D; c++)
      EXPECT_NEAR(back->GetDirection()[r][c], img->GetDirection()[r][c], 1e-6) << what;
  }
  const size_t n = img->GetLargestPossibleRegion().GetNumberOfPixels();
  EXPECT_EQ(std::memcmp(back->GetBufferPointer(), img->GetBufferPointer(), n * sizeof(short)), 0)
      << what << ": the voxel array differs";
}

// World position of node (i, j, k) of our field.
void worldOf(const ZrRegScalarField3* f, int i, int j, int k, double w[3]) {
  float box[6];
  f->getBoundingBox(box);
  const int* d = f->getDims();
  double p[3] = {box[0] + (d[0] > 1 ? (box[1] - box[0]) * i / (d[0] - 1.0) : 0),
                 box[2] + (d[1] > 1 ? (box[3] - box[2]) * j / (d[1] - 1.0) : 0),
                 box[4] + (d[2] > 1 ? (box[5] - box[4]) * k / (d[2] - 1.0) : 0)};
  SbMatrixd m;
  f->getTransform(m);
  for (int c = 0; c < 3; c++)
    w[c] = p[0] * m[0][c] + p[1] * m[1][c] + p[2] * m[2][c] + m[3][c];
}

// Every voxel of f lies where the ITK image has the same value.
void expectSameGeometry(const ZrRegScalarField3* f, ShortImage* img) {
  const int* d = f->getDims();
  ASSERT_EQ(f->primType(), 1);
  const short* data = static_cast<const short*>(f->lattice.dataPtr());
  int checked = 0;
  for (int k = 0; k < d[2]; k++)
    for (int j = 0; j < d[1]; j++)
      for (int i = 0; i < d[0]; i++) {
        double w[3];
        worldOf(f, i, j, k, w);
        ShortImage::PointType pt;
        for (int c = 0; c < 3; c++)
          pt[c] = w[c];
        itk::ContinuousIndex<double, 3> ci;
        ASSERT_TRUE(img->TransformPhysicalPointToContinuousIndex(pt, ci));
        ShortImage::IndexType idx;
        for (int c = 0; c < 3; c++) {
          idx[c] = std::lround(ci[c]);
          ASSERT_NEAR(ci[c], double(idx[c]), 1e-3);
        }
        ASSERT_EQ(data[(size_t(k) * d[1] + j) * d[0] + i], img->GetPixel(idx));
        checked++;
      }
  EXPECT_EQ(checked, d[0] * d[1] * d[2]);
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

TEST(ZrImageIO, ObliqueFlippedPermutedHeadersKeepWorldPositionsAndTheirOrder) {
  // Read: every voxel lies where ITK places it. Then written with the order
  // noted on reading: ITK reads back the file's own voxel array, dimension
  // and geometry, whatever the reader permuted and flipped.
  const double ras[3][3] = {{-1, 0, 0}, {0, -1, 0}, {0, 0, 1}}; // R,A,S storage in LPS terms
  const double permFlip[3][3] = {{0, 0, -1}, {-1, 0, 0}, {0, 1, 0}};
  const double perm2[3][3] = {{0, 1, 0}, {0, 0, -1}, {1, 0, 0}};
  const double c = std::cos(0.2), s = std::sin(0.2);
  const double tilt[3][3] = {{c, -s, 0}, {s, c, 0}, {0, 0, 1}};
  const struct {
    const double (*dir)[3];
    bool tilted;
    const char* ext;
  } cases3[] = {{ras, false, ".nii.gz"}, {permFlip, true, ".nrrd"}, {perm2, false, ".mha"}};
  for (const auto& k : cases3) {
    // Permuted and flipped axes, tilted by 0.2 rad about z for an oblique
    // header.
    double dir[3][3] = {};
    for (int r = 0; r < 3; r++)
      for (int q = 0; q < 3; q++)
        for (int t = 0; t < 3; t++)
          dir[r][q] += (k.tilted ? tilt[r][t] : double(r == t)) * k.dir[t][q];
    auto img = makeImageD<3>(dir, {6, 5, 4}, {1.5, 0.8, 2.5}, {10, -20, 5});
    const std::string in = tempPath(std::string("order-in") + k.ext),
                      out = tempPath(std::string("order-out") + k.ext);
    writeImage(img.GetPointer(), in);
    std::string error;
    ZrImageIO::ReadInfo info;
    std::unique_ptr<ZrRegScalarField3> f(ZrImageIO::read(in, {}, &info, error));
    ASSERT_TRUE(f) << error;
    expectSameGeometry(f.get(), img.GetPointer());
    ASSERT_TRUE(ZrImageIO::write(f.get(), out, error, nullptr, &info.order)) << error;
    expectSameFile<3>(out, img.GetPointer(), k.ext);
    std::remove(in.c_str());
    std::remove(out.c_str());
  }

  // 2-D files, flipped along y, stay 2-D.
  const double flipY[2][2] = {{1, 0}, {0, -1}};
  auto img2 = makeImageD<2>(flipY, {7, 5}, {0.5, 0.25}, {3, 4});
  for (const char* ext : {".mha", ".nii"}) {
    const std::string in = tempPath(std::string("flat-in") + ext),
                      out = tempPath(std::string("flat-out") + ext);
    writeImage(img2.GetPointer(), in);
    std::string error;
    ZrImageIO::ReadInfo info;
    std::unique_ptr<ZrRegScalarField3> f(ZrImageIO::read(in, {}, &info, error));
    ASSERT_TRUE(f) << error;
    ASSERT_TRUE(ZrImageIO::write(f.get(), out, error, nullptr, &info.order)) << error;
    expectSameFile<2>(out, img2.GetPointer(), ext);

    // A vector field on that lattice (world vectors in the plane) goes out as
    // a 2-D, two-component image in the same order: the vector at each file
    // voxel is a function of the voxel's world position.
    const size_t n = f->lattice.numNodes();
    std::vector<float> vectors(3 * n);
    const int* d = f->getDims();
    for (size_t i = 0; i < n; i++) {
      double w3[3];
      worldOf(f.get(), int(i % d[0]), int(i / d[0] % d[1]), int(i / d[0] / d[1]), w3);
      vectors[3 * i] = float(w3[0] * 2 + w3[1]);
      vectors[3 * i + 1] = float(w3[1] - 1);
      vectors[3 * i + 2] = 0.0f;
    }
    const std::string vout = tempPath(std::string("flat-vec") + ext);
    ASSERT_TRUE(ZrVectorImageIO::writeOnLattice(f.get(), vectors.data(), vout, error, &info.order))
        << error;
    using VecImage = itk::VectorImage<float, 2>;
    auto vr = itk::ImageFileReader<VecImage>::New();
    vr->SetFileName(vout);
    vr->Update();
    VecImage* v = vr->GetOutput();
    ASSERT_EQ(v->GetNumberOfComponentsPerPixel(), 2u);
    ASSERT_EQ(v->GetLargestPossibleRegion().GetSize(), img2->GetLargestPossibleRegion().GetSize());
    for (itk::ImageRegionIteratorWithIndex<VecImage> it(v, v->GetLargestPossibleRegion());
         !it.IsAtEnd(); ++it) {
      VecImage::PointType p;
      v->TransformIndexToPhysicalPoint(it.GetIndex(), p);
      EXPECT_NEAR(it.Get()[0], p[0] * 2 + p[1], 1e-4);
      EXPECT_NEAR(it.Get()[1], p[1] - 1, 1e-4);
    }
    std::remove(in.c_str());
    std::remove(out.c_str());
    std::remove(vout.c_str());
  }
}

namespace {

// A minimal single-file NIfTI-1 of 2 x 2 x 2 uint8 voxels with the given
// intent code.
void writeRawNifti(const std::string& path, short intent) {
  char hdr[352] = {};
  auto put = [&](int offset, const void* v, size_t n) { std::memcpy(hdr + offset, v, n); };
  int size = 348;
  put(0, &size, 4);
  short dim[8] = {3, 2, 2, 2, 1, 1, 1, 1};
  put(40, dim, sizeof dim);
  put(68, &intent, 2);
  short datatype = 2, bitpix = 8;
  put(70, &datatype, 2);
  put(72, &bitpix, 2);
  float pixdim[8] = {1, 1, 1, 1, 1, 1, 1, 1};
  put(76, pixdim, sizeof pixdim);
  float voxOffset = 352;
  put(108, &voxOffset, 4);
  put(344, "n+1", 4);
  std::ofstream out(path, std::ios::binary);
  out.write(hdr, sizeof hdr);
  const char voxels[8] = {0, 1, 2, 3, 4, 5, 6, 7};
  out.write(voxels, 8);
}

} // namespace

TEST(ZrImageIO, LabelsByFlagOrByTheFilesLabelIntent) {
  std::string plain = tempPath("plain.nii"), labels = tempPath("labels.nii");
  writeRawNifti(plain, 0);
  writeRawNifti(labels, 1002);
  std::string error;
  ZrImageIO::ReadInfo info;
  std::unique_ptr<ZrRegScalarField3> f(ZrImageIO::read(plain, {}, &info, error));
  ASSERT_TRUE(f) << error;
  EXPECT_FALSE(info.labelIntent);
  EXPECT_FALSE(f->getTypeId()->isOfType(ZrUniformLabelField3::getClassTypeId()));
  ZrImageIO::ReadOptions opt;
  opt.asLabels = true;
  f.reset(ZrImageIO::read(plain, opt, nullptr, error));
  ASSERT_TRUE(f) << error;
  EXPECT_TRUE(f->getTypeId()->isOfType(ZrUniformLabelField3::getClassTypeId()));
  f.reset(ZrImageIO::read(labels, {}, &info, error));
  ASSERT_TRUE(f) << error;
  EXPECT_TRUE(info.labelIntent);
  EXPECT_TRUE(f->getTypeId()->isOfType(ZrUniformLabelField3::getClassTypeId()));
  EXPECT_EQ(static_cast<const uint8_t*>(f->lattice.dataPtr())[7], 7);
  std::remove(plain.c_str());
  std::remove(labels.c_str());
}

TEST(ZrImageIO, EveryFormatRoundTripsVoxelsAndGeometry) {
  // int16 ramp on an axis-aligned box with uneven spacing.
  int dims[3] = {6, 5, 4};
  float box[6] = {-3, 4.5, 1, 5, 10, 16};
  ZrUniformScalarField3 f(dims, 1, box);
  for (size_t i = 0; i < f.lattice.numNodes(); i++)
    f.lattice.setValue(i, double(i * 37 % 1000) - 300);
  struct Format {
    const char* ext;
    bool geometry; // whether the format stores origin and spacing
  };
  for (Format fmt : {Format{".nii", true}, Format{".nii.gz", true}, Format{".nrrd", true},
                     Format{".mha", true}, Format{".mhd", true}, Format{".tif", false}}) {
    std::string path = tempPath(std::string("fmt") + fmt.ext), error;
    ASSERT_TRUE(ZrImageIO::write(&f, path, error)) << fmt.ext << ": " << error;
    std::unique_ptr<ZrRegScalarField3> g(ZrImageIO::read(path, {}, nullptr, error));
    ASSERT_TRUE(g) << fmt.ext << ": " << error;
    ASSERT_EQ(g->primType(), 1) << fmt.ext;
    EXPECT_EQ(g->getTransformNode(), nullptr) << fmt.ext; // axis-aligned: no transform
    for (int a = 0; a < 3; a++)
      ASSERT_EQ(g->getDims()[a], dims[a]) << fmt.ext;
    for (size_t i = 0; i < f.lattice.numNodes(); i++)
      ASSERT_EQ(g->lattice.getValueAsDouble(i), f.lattice.getValueAsDouble(i)) << fmt.ext;
    if (fmt.geometry) {
      float b[6];
      g->getBoundingBox(b);
      for (int k = 0; k < 6; k++)
        EXPECT_NEAR(b[k], box[k], 1e-4) << fmt.ext << " box entry " << k;
    }
    std::remove(path.c_str());
    if (std::string(fmt.ext) == ".mhd")
      std::remove(tempPath("fmt.zraw").c_str()), std::remove(tempPath("fmt.raw").c_str());
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

// A written file is checked against the data as the file stores it: vector
// components in planes, NaN kept, one changed value or a short file found;
// formats other than NIfTI are left to the read-back.
TEST(ZrNiftiRawValues, CompareSeesTheStoredValues) {
  int dims[3] = {5, 4, 3};
  float box[6] = {0, 4, 0, 3, 0, 2};
  ZrUniformScalarField3 lattice(dims, 3, box);
  std::vector<float> vec(180);
  for (size_t i = 0; i < vec.size(); i++)
    vec[i] = 0.25f * float(i) - 7.0f;
  vec[31] = std::nanf("");
  std::string error;
  const std::string nii = tempPath("cmp.nii"), nrrd = tempPath("cmp.nrrd");
  ASSERT_TRUE(ZrVectorImageIO::writeOnLattice(&lattice, vec.data(), nii, error)) << error;
  ASSERT_TRUE(ZrVectorImageIO::writeOnLattice(&lattice, vec.data(), nrrd, error)) << error;
  EXPECT_EQ(ZrNiftiRawValues::compare(nii, vec.data(), 60, 3, 4), 1);
  EXPECT_EQ(ZrNiftiRawValues::compare(nrrd, vec.data(), 60, 3, 4), -1);
  EXPECT_EQ(ZrNiftiRawValues::compare(nii, vec.data(), 60, 3, 8), -1);
  std::vector<float> other(vec);
  other[100] += 1.0f;
  EXPECT_EQ(ZrNiftiRawValues::compare(nii, other.data(), 60, 3, 4), 0);
  std::ifstream in(nii, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::ofstream(nii, std::ios::binary) << bytes.substr(0, bytes.size() - 4);
  EXPECT_EQ(ZrNiftiRawValues::compare(nii, vec.data(), 60, 3, 4), 0);
  std::remove(nii.c_str());
  std::remove(nrrd.c_str());
}

// Compressed outputs are gzip members of 4 MB blocks, compressed side by
// side: a file of several blocks and a partial one, and an empty file, read
// back whole through zlib's reader as one stream.
TEST(ZrGzipFile, BlocksReadBackAsOneStream) {
  for (size_t bytes : {size_t(0), size_t(9) * 1024 * 1024 + 123}) {
    std::vector<unsigned char> data(bytes);
    for (size_t i = 0; i < bytes; i++)
      data[i] = (unsigned char)((i * 2654435761u) >> 13) & (i % 5 ? 0xff : 0x0f);
    const std::string plain = tempPath("gz.bin"), packed = tempPath("gz.bin.gz");
    {
      std::ofstream out(plain, std::ios::binary);
      out.write((const char*)data.data(), (std::streamsize)bytes);
    }
    std::string error;
    ASSERT_TRUE(ZrGzipFile::compress(plain, packed, error)) << error;
    gzFile in = gzopen(packed.c_str(), "rb");
    ASSERT_NE(in, nullptr);
    std::vector<unsigned char> back(bytes + 16);
    const int got = gzread(in, back.data(), (unsigned)back.size());
    gzclose(in);
    ASSERT_EQ(size_t(got), bytes);
    EXPECT_TRUE(std::equal(data.begin(), data.end(), back.begin()));
    std::remove(plain.c_str());
    std::remove(packed.c_str());
  }
  std::string error;
  EXPECT_FALSE(ZrGzipFile::compress("/nonexistent/in", tempPath("x.gz"), error));
  EXPECT_FALSE(error.empty());
}
