// Script parsing and vertex meshes of the command-line host.
#include "ZrCliSession.h"
#include "ZrPointSetIO.h"
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
