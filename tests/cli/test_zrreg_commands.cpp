// The zrreg executable as a user drives it: exit statuses, messages, no
// output files after a failure, and an affine run on a small phantom pair
// whose transform is known.
#include "QbPrimType.h"
#include "SbMatrixd.h"
#include "ZrAffineCommand.h"
#include "ZrImageIO.h"
#include "ZrTransformFiles.h"
#include "ZrUniformScalarField3.h"

#include <itkImage.h>
#include <itkImageFileWriter.h>

#include "ZrregRun.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

class ZrregCommands : public ::testing::Test {
protected:
  static void SetUpTestSuite() {
    dir = "/tmp/zrreg-cmdtest-" + std::to_string(getpid());
    Shell r = run("phantom --size 64 --out " + dir);
    ASSERT_EQ(r.status, 0) << r.output;
  }
  static void TearDownTestSuite() { std::system(("rm -rf " + dir).c_str()); }
  static std::string dir;
};
std::string ZrregCommands::dir;

} // namespace

TEST_F(ZrregCommands, HelpAndUsageErrors) {
  EXPECT_EQ(run("--help").status, 0);
  for (const char* c :
       {"affine", "apply", "ports", "run", "demo", "phantom", "version", "formats"}) {
    Shell r = run(std::string(c) + " --help");
    EXPECT_EQ(r.status, 0) << c;
    EXPECT_NE(r.output.find("usage: zrreg"), std::string::npos) << c;
  }
  Shell r = run("frobnicate");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.output.find("unknown command"), std::string::npos);
  r = run("affine --model x.nii");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.output.find("--reference"), std::string::npos);
  r = run("affine --dof 8 --reference x.nii --model y.nii -o z.nii");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.output.find("6, 7, 9 or 12"), std::string::npos) << r.output;
  r = run("affine --reference x.nii --model y.nii");
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.output.find("no output"), std::string::npos) << r.output;
}

TEST_F(ZrregCommands, BadInputGivesAMessageAndNoOutput) {
  std::string out = dir + "/never.nii.gz";
  Shell r = run("affine --reference " + dir + "/missing.nii.gz --model " + dir +
                "/model.nii.gz -o " + out);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("cannot open"), std::string::npos) << r.output;
  EXPECT_FALSE(exists(out));

  std::string junk = dir + "/junk.nii";
  std::ofstream(junk) << "this is not an image";
  r = run("affine --reference " + junk + " --model " + dir + "/model.nii.gz -o " + out);
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_FALSE(exists(out));

  r = run("affine --reference " + dir + "/reference.nii.gz --model " + dir +
          "/model.nii.gz --set noSuchPort=1 -o " + out);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find("noSuchPort"), std::string::npos) << r.output;
  EXPECT_FALSE(exists(out));

  r = run("affine --reference " + dir + "/reference.nii.gz --model " + dir + "/model.nii.gz -o " +
          dir + "/out.unknownformat");
  EXPECT_EQ(r.status, 2);
}

TEST_F(ZrregCommands, AffineFindsTheKnownTransform) {
  std::string out = dir + "/aligned.nii.gz", mat = dir + "/change.txt", tfm = dir + "/t.tfm";
  Shell r = run("affine --quiet --reference " + dir + "/reference.nii.gz --model " + dir +
                "/model.nii.gz --dof 7 -o " + out + " --matrix " + mat + " --itk-transform " + tfm);
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_EQ(r.output, ""); // quiet: nothing but errors
  EXPECT_TRUE(exists(out));
  SbMatrixd known, found, itk;
  std::string error;
  ASSERT_TRUE(ZrTransformFiles::readMatrix(dir + "/known.txt", known, error)) << error;
  ASSERT_TRUE(ZrTransformFiles::readMatrix(mat, found, error)) << error;
  ASSERT_TRUE(ZrTransformFiles::readItkAffine(tfm, itk, error)) << error;
  // Mean distance between where the known and the found transform put the
  // points of the head, against a quarter of a voxel (220/63 mm).
  double sum = 0;
  int count = 0;
  for (int x = -60; x <= 60; x += 10)
    for (int y = -80; y <= 80; y += 10)
      for (int z = -80; z <= 80; z += 10) {
        if ((x / 69.0) * (x / 69.0) + (y / 92.0) * (y / 92.0) + (z / 90.0) * (z / 90.0) > 1)
          continue;
        double d2 = 0;
        for (int row = 0; row < 3; row++) {
          double k = known[row][0] * x + known[row][1] * y + known[row][2] * z + known[row][3];
          double f = found[row][0] * x + found[row][1] * y + found[row][2] * z + found[row][3];
          d2 += (k - f) * (k - f);
        }
        sum += std::sqrt(d2);
        count++;
      }
  EXPECT_LT(sum / count, 0.25 * 220.0 / 63.0);
  // The ITK transform goes the other way: reference point to model point.
  SbMatrixd product = itk * found;
  EXPECT_TRUE(product.equals(SbMatrixd::identity(), 1e-6));
}

TEST_F(ZrregCommands, ScriptDrivesAModuleThroughItsPorts) {
  std::string script = dir + "/script.txt", out = dir + "/script-out.nii.gz";
  std::ofstream(script) << "load ref " << dir << "/reference.nii.gz\n"
                        << "load mov \"" << dir << "/model.nii.gz\"\n"
                        << "create ZrAffineRegistration reg\n"
                        << "connect reg model mov\n"
                        << "connect reg reference ref\n"
                        << "update reg\n"
                        << "set reg metric Euclidean\n"
                        << "set reg transform Rigid=on\n"
                        << "hit reg action Register\n"
                        << "compute reg\n"
                        << "save mov " << out << "\n";
  Shell r = run("run " + script);
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_TRUE(exists(out));
  // A bad line stops the script with its line number, and nothing after it runs.
  std::string out2 = dir + "/never-saved.nii.gz";
  std::ofstream(script) << "load ref " << dir << "/reference.nii.gz\n"
                        << "set ref metric Euclidean\n"
                        << "save ref " << out2 << "\n";
  r = run("run " + script);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.output.find(":2:"), std::string::npos) << r.output;
  EXPECT_FALSE(exists(out2));
}

namespace {

// A 20x20x20 image, or one flat along axis `flat`, of scattered grey values
// (or of four labels in slabs), written to path.
void writeBlock(const std::string& path, int flat, bool labels) {
  int dims[3] = {20, 20, 20};
  if (flat >= 0)
    dims[flat] = 1;
  const float box[6] = {0, float(dims[0] - 1), 0, float(dims[1] - 1), 0, float(dims[2] - 1)};
  ZrUniformScalarField3 f(dims, QB_UINT8, box);
  for (size_t i = 0; i < f.lattice.numNodes(); i++)
    f.lattice.setValue(i, labels ? double(i / 400 % 4) : double(i * 97 % 251));
  std::string error;
  ASSERT_TRUE(ZrImageIO::write(&f, path, error)) << error;
}

} // namespace

TEST_F(ZrregCommands, PairsThatCannotRegisterAreRefused) {
  const std::string flatZ = dir + "/flat-z.nii", flatX = dir + "/flat-x.nii",
                    grey = dir + "/grey.nii", labels = dir + "/labels.nii";
  writeBlock(flatZ, 2, false);
  writeBlock(flatX, 0, false);
  writeBlock(grey, -1, false);
  writeBlock(labels, -1, true);
  const std::string out = dir + "/refused.nii";
  for (const char* command : {"affine", "elastic"}) {
    Shell r = run(std::string(command) + " --quiet --reference " + flatZ + " --model " + flatX +
                  " -o " + out);
    EXPECT_EQ(r.status, 1) << command << ": " << r.output;
    EXPECT_NE(r.output.find("the reference is flat along z but the model along x"),
              std::string::npos)
        << r.output;
    EXPECT_FALSE(exists(out)) << command;

    r = run(std::string(command) + " --quiet --reference " + grey + " --model " + labels +
            " --model-labels --set metric=Euclidean -o " + out);
    EXPECT_EQ(r.status, 1) << command << ": " << r.output;
    EXPECT_NE(r.output.find("cannot be used with label images"), std::string::npos) << r.output;
    EXPECT_FALSE(exists(out)) << command;
  }
  // A flat model against a full reference is a 2-D run, and labels with an
  // information metric are fine.
  Shell r = run("affine --quiet --reference " + grey + " --model " + flatZ + " -o " + out);
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_TRUE(exists(out));
  std::remove(out.c_str());
  r = run("affine --quiet --reference " + grey + " --model " + labels + " --model-labels -o " +
          out);
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_TRUE(exists(out));
}

// The run-away check rests on the singular values of the found change:
// rotations and the translation row must not count, a shear must.
TEST(ZrAffineSizeChange, SingularValuesOfTheLinearPart) {
  const double c = std::cos(0.5), s = std::sin(0.5);
  struct Case {
    SbMatrixd m;
    double smallest, largest;
  };
  const Case cases[] = {
      {SbMatrixd(c, s, 0, 0, -s, c, 0, 0, 0, 0, 1, 0, 40, -30, 7, 1), 1.0, 1.0},
      // rotation * diag(4, 1, 0.5) * rotation, row vectors
      {SbMatrixd(c, s, 0, 0, -s, c, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1) *
           SbMatrixd(4, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0.5, 0, 0, 0, 0, 1) *
           SbMatrixd(1, 0, 0, 0, 0, c, s, 0, 0, -s, c, 0, 5, 5, 5, 1),
       0.5, 4.0},
      // shear by 2: singular values sqrt(3 -+ sqrt(8)) = sqrt(2) -+ 1
      {SbMatrixd(1, 2, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1), std::sqrt(2.0) - 1,
       std::sqrt(2.0) + 1},
  };
  for (const Case& k : cases) {
    double smallest, largest;
    ZrAffineCommand::sizeChange(k.m, smallest, largest);
    EXPECT_NEAR(smallest, k.smallest, 1e-12);
    EXPECT_NEAR(largest, k.largest, 1e-12);
  }
  double smallest, largest;
  ZrAffineCommand::sizeChange(SbMatrixd(NAN, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1), smallest,
                              largest);
  EXPECT_FALSE(smallest >= 1.0 / ZrAffineCommand::kMaxSizeChange &&
               largest <= ZrAffineCommand::kMaxSizeChange);
}
