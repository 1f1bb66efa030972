// Choosing and vetting the image reader: a corrupt file that crashes one of
// ITK's readers, or that another reader claims by its content, ends in a
// message while the process goes on; good files of the probed formats still
// read with every voxel.
#include "QbPrimType.h"
#include "ZrImageIO.h"
#include "ZrRegVectorField3.h"
#include "ZrUniformScalarField3.h"
#include "ZrVectorImageIO.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <unistd.h>

namespace {

// A MetaImage header whose garbled NDims makes ITK's reader divide by zero.
const unsigned char kMetaDivisionByZero[] = {
    0x4f, 0x62, 0x6a, 0x65, 0x63, 0x74, 0x54, 0x79, 0x70, 0x65, 0x20, 0x3d, 0x20, 0x49, 0x6d, 0x61,
    0x67, 0x65, 0x0a, 0x4e, 0x44, 0x69, 0x6d, 0x73, 0x20, 0x3d, 0x3a, 0x20, 0x32, 0x0a, 0x20, 0x30,
    0x20, 0x30, 0x20, 0x30, 0x20, 0x31, 0x0a, 0x4f, 0x66, 0x66, 0x73, 0x65, 0x74, 0x20, 0x3d, 0x20,
    0x30, 0x20, 0x30, 0x20, 0x30, 0x0a, 0x45, 0x6c, 0x65, 0x6d, 0x65, 0x6e, 0x74, 0x53, 0x70, 0x61,
    0x63, 0x69, 0x6e, 0x67, 0x20, 0x3d, 0x20, 0x31, 0x20, 0x31, 0x20, 0x32, 0x2d, 0x0a, 0x44, 0x69,
    0x6d, 0x53, 0x69, 0x7a, 0x65, 0x20, 0x3d, 0x20, 0x34, 0x20, 0x33, 0x20, 0x32, 0x0a, 0x45, 0x6c,
    0x65, 0x6d, 0x65, 0x6e, 0x74, 0x54, 0x79, 0x70, 0x65, 0x20, 0x3d, 0x20, 0x4d, 0x45, 0x54, 0x5f,
    0x55, 0x43, 0x48, 0x41, 0x52, 0x0a, 0x45, 0x6c, 0x65, 0x6d, 0x65, 0x6e, 0x74, 0x44, 0x61, 0x74,
    0x61, 0x46, 0x69, 0x6c, 0x65, 0x54, 0x79, 0x70, 0x65, 0x20, 0x3d, 0x20, 0x4d, 0x45, 0x54, 0x5f,
    0x55, 0x43, 0x48, 0x41, 0x52, 0x0a, 0x45, 0x6c, 0x65, 0x6d, 0x65, 0x6e, 0x74, 0x44, 0x61, 0x74,
    0x61, 0x46, 0x69, 0x6c, 0x65, 0x20, 0x3d, 0x20, 0x4c, 0x4f, 0x43, 0xd2, 0xd2, 0xd2, 0x20, 0x3d,
    0x20, 0x4c, 0x4f, 0x43, 0xd2, 0xd2, 0xd2, 0xd2, 0xd2, 0xd2, 0xd2, 0xd2, 0xd2, 0xd2, 0xd2, 0xd2,
    0xd2, 0xd2, 0xd2, 0xd2, 0xd2, 0xd2, 0x41, 0x25, 0x4a, 0x00, 0x6f, 0x4c, 0x0a, 0x94, 0xb9, 0xde,
    0x08, 0x2d, 0x52, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x8b, 0x9c, 0xc1, 0xe6, 0x10,
    0x35, 0x5a, 0x7f, 0xa4, 0xc9, 0xee, 0x18, 0x3d, 0x62,
};
// A PNG file with a broken chunk, on which ITK's PNG reader aborts.
const unsigned char kPngNamedNifti[] = {
    0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x1f, 0x56, 0x07, 0x30, 0xd5, 0x60, 0x8f, 0xc0,
    0x0c, 0x2e, 0x67, 0x7a, 0x0e, 0xa8, 0x7c, 0x10, 0xde, 0xe0, 0x0c, 0x95, 0x03, 0x01, 0x2e, 0x86,
    0x01, 0x06, 0x98, 0x5e, 0x3f, 0x00, 0x72, 0xdb, 0x01, 0xa0, 0xd3, 0x1d, 0x28, 0x35, 0x3b, 0x4f,
    0xdb, 0x10, 0x2d, 0xfc, 0x20, 0x8b, 0x08, 0x00, 0x00, 0x00, 0x00, 0x00, 0x22, 0x03, 0x8b, 0x61,
    0x64, 0x20, 0x0a, 0x30, 0x33, 0xb0, 0x00, 0x31, 0x13, 0x03, 0x23, 0x14, 0xa2, 0x01, 0x56, 0x07,
    0x30, 0xd5, 0x60, 0x8f, 0xc0, 0x0c, 0x2e, 0x67, 0x7a, 0x0e, 0xa8, 0x7c, 0x10, 0xde, 0xe0, 0x0c,
    0x95, 0x03, 0x01, 0x2e, 0x86, 0x01, 0x06, 0x98, 0x5e, 0x3f, 0x00, 0x72, 0xdb, 0x01, 0xa0, 0xd3,
    0x1d, 0x28, 0x35, 0x3b, 0x4f, 0xdb, 0x10, 0x2d, 0xfc, 0x20, 0x80, 0x0d, 0x4a, 0x00, 0x00,
};

class ZrReaderGuardTest : public ::testing::Test {
protected:
  void SetUp() override {
    char tmpl[] = "/tmp/zrreg-guard-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
  }
  void TearDown() override { std::system(("rm -rf '" + dir + "'").c_str()); }
  template <size_t N> std::string put(const char* name, const unsigned char (&bytes)[N]) {
    std::string path = dir + "/" + name;
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes), N);
    return path;
  }
  std::string dir;
};

// A 7x5x4 field of scattered values; offset shifts them below zero.
std::unique_ptr<ZrRegScalarField3> scattered(int primType, double offset) {
  const int dims[3] = {7, 5, 4};
  const float box[6] = {-3.0f, 3.0f, 10.0f, 18.0f, 0.0f, 4.5f};
  std::unique_ptr<ZrRegScalarField3> f(new ZrUniformScalarField3(dims, primType, box));
  for (int i = 0; i < 7 * 5 * 4; i++)
    f->lattice.setValue(i, double((i * 37) % 251) - offset);
  return f;
}

} // namespace

TEST_F(ZrReaderGuardTest, ACrashingReaderEndsInAMessage) {
  // The PNG reader aborts on the broken chunk: in the child, which the
  // parent reports.
  const std::string png = put("broken.png", kPngNamedNifti);
  std::string error;
  std::unique_ptr<ZrRegScalarField3> f(ZrImageIO::read(png, {}, nullptr, error));
  EXPECT_EQ(f, nullptr);
  EXPECT_NE(error.find("is corrupt: the PNG reader failed on it"), std::string::npos) << error;
  error.clear();
  std::unique_ptr<ZrRegVectorField3> v(ZrVectorImageIO::read(png, error));
  EXPECT_EQ(v, nullptr);
  EXPECT_NE(error.find("is corrupt"), std::string::npos) << error;
}

TEST_F(ZrReaderGuardTest, MalformedMetaImageHeadersNeverReachTheReader) {
  // The garbled NDims of this file makes ITK's reader divide by zero; an
  // absurd one makes it loop for hours; a DimSize of zero or too few values
  // are refused as well.
  const std::string path = put("broken.mha", kMetaDivisionByZero);
  std::string error;
  EXPECT_EQ(std::unique_ptr<ZrRegScalarField3>(ZrImageIO::read(path, {}, nullptr, error)), nullptr);
  EXPECT_NE(error.find("malformed MetaImage header: NDims"), std::string::npos) << error;
  const char* headers[] = {"NDims = 99999999999999999999 2\nDimSize = 4 1\n",
                           "NDims = 3\nDimSize = 4 0 2\n", "NDims = 3\nDimSize = 4 3\n",
                           "NDims = 3\nDimSize = 4 3 2\nElementSpacing = 1 nan 1\n"};
  for (const char* h : headers) {
    const std::string file = dir + "/bad.mha";
    std::ofstream(file, std::ios::binary)
        << "ObjectType = Image\n"
        << h << "ElementType = MET_UCHAR\nElementDataFile = LOCAL\n"
        << std::string(64, 'x');
    error.clear();
    EXPECT_EQ(std::unique_ptr<ZrRegScalarField3>(ZrImageIO::read(file, {}, nullptr, error)),
              nullptr)
        << h;
    EXPECT_NE(error.find("malformed MetaImage header"), std::string::npos) << h << error;
  }
}

TEST_F(ZrReaderGuardTest, ATiffDirectoryChainMustEndInsideTheFile) {
  // Little-endian TIFF whose only directory (no entries) names itself as the
  // next one: the TIFF library would count directories forever.
  const unsigned char loop[] = {'I', 'I', 42, 0, 8, 0, 0, 0, 0, 0, 8, 0, 0, 0};
  std::string error;
  EXPECT_EQ(std::unique_ptr<ZrRegScalarField3>(
                ZrImageIO::read(put("loop.tif", loop), {}, nullptr, error)),
            nullptr);
  EXPECT_NE(error.find("its chain of directories loops"), std::string::npos) << error;
  // Big-endian, a directory of 200 entries in a file of 14 bytes.
  const unsigned char past[] = {'M', 'M', 0, 42, 0, 0, 0, 8, 0, 200, 0, 0, 0, 0};
  error.clear();
  EXPECT_EQ(std::unique_ptr<ZrRegScalarField3>(
                ZrImageIO::read(put("past.tif", past), {}, nullptr, error)),
            nullptr);
  EXPECT_NE(error.find("beyond the end of the file"), std::string::npos) << error;
}

TEST_F(ZrReaderGuardTest, OnlyTheReadersOfTheExtensionAreAsked) {
  std::string error;
  const std::string named = put("scan.nii.gz", kPngNamedNifti);
  EXPECT_EQ(std::unique_ptr<ZrRegScalarField3>(ZrImageIO::read(named, {}, nullptr, error)),
            nullptr);
  EXPECT_NE(error.find("is not a valid NIfTI file"), std::string::npos) << error;
  // An extension no reader claims goes through the search by content, and a
  // text file is then no image at all.
  const unsigned char text[] = {'h', 'e', 'l', 'l', 'o', '\n'};
  error.clear();
  EXPECT_EQ(std::unique_ptr<ZrRegScalarField3>(
                ZrImageIO::read(put("notes.xyz", text), {}, nullptr, error)),
            nullptr);
  EXPECT_NE(error.find("not an image file that zrreg can read"), std::string::npos) << error;
  error.clear();
  EXPECT_EQ(
      std::unique_ptr<ZrRegScalarField3>(ZrImageIO::read(dir + "/missing.nii", {}, nullptr, error)),
      nullptr);
  EXPECT_NE(error.find("cannot open"), std::string::npos) << error;
}

TEST_F(ZrReaderGuardTest, ProbedFormatsStillReadEveryVoxel) {
  for (const char* ext : {".mha", ".mhd", ".tif"}) {
    // Bytes for TIFF, signed values where the format holds them.
    const bool tiff = std::string(ext) == ".tif";
    std::unique_ptr<ZrRegScalarField3> f = scattered(tiff ? QB_UINT8 : QB_INT16, tiff ? 0 : 60);
    const std::string path = dir + "/good" + ext;
    std::string error;
    ASSERT_TRUE(ZrImageIO::write(f.get(), path, error)) << ext << ": " << error;
    std::unique_ptr<ZrRegScalarField3> back(ZrImageIO::read(path, {}, nullptr, error));
    ASSERT_NE(back, nullptr) << ext << ": " << error;
    ASSERT_EQ(back->lattice.numNodes(), f->lattice.numNodes()) << ext;
    for (int i = 0; i < 7 * 5 * 4; i++)
      ASSERT_EQ(back->lattice.getValueAsDouble(i), f->lattice.getValueAsDouble(i))
          << ext << " voxel " << i;
  }
}
