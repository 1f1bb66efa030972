// Script parsing, transform files and vertex meshes of the command-line host.
#include "SbMatrixd.h"
#include "ZrCliSession.h"
#include "ZrPointSetIO.h"
#include "ZrTransformFiles.h"
#include "ZrVertexSet.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <unistd.h>

namespace {
std::string tempPath(const std::string& name) {
  return "/tmp/zrreg-clitest-" + std::to_string(getpid()) + "-" + name;
}
} // namespace

TEST(ZrCliSession, SplitsWordsQuotesAndComments) {
  std::vector<std::string> w;
  std::string error;
  ASSERT_TRUE(
      ZrCliSession::splitLine("set reg metric \"Normalized Mutual Information\" # x", w, error));
  ASSERT_EQ(w.size(), 4u);
  EXPECT_EQ(w[3], "Normalized Mutual Information");
  ASSERT_TRUE(ZrCliSession::splitLine("  load  ref\t\"/a b/c.nii\"", w, error));
  ASSERT_EQ(w.size(), 3u);
  EXPECT_EQ(w[2], "/a b/c.nii");
  ASSERT_TRUE(ZrCliSession::splitLine("echo \"#not a comment\"", w, error));
  EXPECT_EQ(w[1], "#not a comment");
  EXPECT_FALSE(ZrCliSession::splitLine("echo \"open", w, error));
}

TEST(ZrCliSession, ScriptErrorsNameTheLineAndStop) {
  std::string path = tempPath("script.txt");
  std::ofstream(path) << "# a comment\necho hello\n\nset nothing port 1\necho never\n";
  ZrCliSession s;
  std::string error;
  EXPECT_FALSE(s.runScript(path, error));
  EXPECT_NE(error.find(":4:"), std::string::npos) << error;
  EXPECT_NE(error.find("no object named 'nothing'"), std::string::npos) << error;
  std::ofstream(path) << "frobnicate\n";
  EXPECT_FALSE(s.runScript(path, error));
  EXPECT_NE(error.find("unknown command"), std::string::npos);
  std::ofstream(path) << "load onlyname\n";
  EXPECT_FALSE(s.runScript(path, error));
  EXPECT_NE(error.find("usage: load"), std::string::npos);
  std::ofstream(path) << "create NoSuchModuleClass m\n";
  EXPECT_FALSE(s.runScript(path, error));
  EXPECT_NE(error.find("unknown module class"), std::string::npos);
  std::remove(path.c_str());
}

TEST(ZrTransformFiles, ItkAffineAndMatrixRoundTrip) {
  // Column-vector affine with rotation, scale and translation.
  SbMatrixd a;
  double v[4][4] = {
      {0.9, -0.2, 0.05, 3.5}, {0.21, 0.95, -0.1, -7.25}, {-0.04, 0.1, 1.1, 0.125}, {0, 0, 0, 1}};
  a.setValue(v);
  std::string error, itk = tempPath("t.tfm"), mat = tempPath("m.txt");
  ASSERT_TRUE(ZrTransformFiles::writeItkAffine(a, itk, error)) << error;
  ASSERT_TRUE(ZrTransformFiles::writeMatrix(a, mat, error)) << error;
  SbMatrixd b, c;
  ASSERT_TRUE(ZrTransformFiles::readItkAffine(itk, b, error)) << error;
  ASSERT_TRUE(ZrTransformFiles::readMatrix(mat, c, error)) << error;
  EXPECT_TRUE(b.equals(a, 1e-12));
  EXPECT_TRUE(c.equals(a, 1e-12));

  // A transform with a centre of rotation: the offset absorbs it.
  std::ofstream(itk) << "#Insight Transform File V1.0\n#Transform 0\n"
                        "Transform: AffineTransform_double_3_3\n"
                        "Parameters: 0 -1 0 1 0 0 0 0 1 1 2 3\nFixedParameters: 10 0 0\n";
  ASSERT_TRUE(ZrTransformFiles::readItkAffine(itk, b, error)) << error;
  // p = (10, 0, 0) is the centre: it moves by the translation only.
  EXPECT_NEAR(b[0][0] * 10 + b[0][3], 11, 1e-12);
  EXPECT_NEAR(b[1][0] * 10 + b[1][3], 2, 1e-12);
  // The 2-D form holds the x and y rows for the plane z = 4: the z column
  // moves into the translation, and reading it back leaves z alone.
  ASSERT_TRUE(ZrTransformFiles::writeItkAffine2D(a, 4.0, itk, error)) << error;
  ASSERT_TRUE(ZrTransformFiles::readItkAffine(itk, b, error)) << error;
  const double planar[4][4] = {
      {0.9, -0.2, 0, 3.7}, {0.21, 0.95, 0, -7.65}, {0, 0, 1, 0}, {0, 0, 0, 1}};
  EXPECT_TRUE(b.equals(SbMatrixd(planar), 1e-12));
  std::ofstream(mat) << "1 0 0\n";
  EXPECT_FALSE(ZrTransformFiles::readMatrix(mat, c, error));
  std::remove(itk.c_str());
  std::remove(mat.c_str());
}

TEST(ZrPointSetIO, OffMeshRoundTripKeepsTriangles) {
  std::string path = tempPath("quad.off");
  std::ofstream(path) << "OFF\n# a square\n4 1 0\n0 0 0\n1 0 0\n1 1 0\n0 1 0\n4 0 1 2 3\n";
  std::string error;
  std::unique_ptr<ZrVertexSet> v(ZrPointSetIO::readVertices(path, error));
  ASSERT_TRUE(v) << error;
  EXPECT_EQ(v->getNumPoints(), 4);
  ASSERT_EQ(v->triangles.size(), 6); // the quad as a fan of two triangles
  EXPECT_EQ(v->triangles[5], 3);
  std::string out = tempPath("quad-out.off");
  ASSERT_TRUE(ZrPointSetIO::writeVertices(v.get(), out, error)) << error;
  std::unique_ptr<ZrVertexSet> w(ZrPointSetIO::readVertices(out, error));
  ASSERT_TRUE(w) << error;
  EXPECT_EQ(w->triangles.size(), 6);
  EXPECT_FLOAT_EQ(w->getCoords()[2].y, 1.0f);
  std::ofstream(path) << "OFF\n2 1 0\n0 0 0\n1 0 0\n3 0 1 5\n";
  EXPECT_EQ(ZrPointSetIO::readVertices(path, error), nullptr);
  EXPECT_NE(error.find("missing vertex"), std::string::npos);
  std::remove(path.c_str());
  std::remove(out.c_str());
}
