// Faults on disk and in memory end with the reason and leave no file behind,
// on the writers themselves and end to end through zrreg.
#include "QbMemoryException.h"
#include "QbPrimType.h"
#include "SbMatrixd.h"
#include "ZrAtomicFile.h"
#include "ZrImageIO.h"
#include "ZrLandmarkSet.h"
#include "ZrPointSetIO.h"
#include "ZrTransformFiles.h"
#include "ZrUniformScalarField3.h"
#include "qbmalloc.h"

#include "ZrregRun.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// Under AddressSanitizer a malloc that cannot be served returns null, as it
// does without it, so that qbmalloc can throw.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

// A fresh folder per test, removed (with whatever is in it) at the end.
class ZrFaults : public ::testing::Test {
protected:
  void SetUp() override {
    char tmpl[] = "/tmp/zrreg-faults-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl;
  }
  void TearDown() override {
    chmod(dir.c_str(), 0755);
    std::system(("rm -rf '" + dir + "'").c_str());
  }
  // Names in the folder, hidden temporary files included.
  std::vector<std::string> entries(const std::string& d) const {
    std::vector<std::string> names;
    if (DIR* h = opendir(d.c_str())) {
      while (dirent* e = readdir(h))
        if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, ".."))
          names.push_back(e->d_name);
      closedir(h);
    }
    return names;
  }
  std::string dir;
};

std::string joined(const std::vector<std::string>& v) {
  std::string s;
  for (const auto& x : v)
    s += x + " ";
  return s;
}

std::string contents(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// n^3 float voxels that do not compress well.
std::unique_ptr<ZrUniformScalarField3> makeField(int n) {
  int dims[3] = {n, n, n};
  float box[6] = {0, float(n - 1), 0, float(n - 1), 0, float(n - 1)};
  float* v = static_cast<float*>(qbmalloc(sizeof(float) * n * n * n));
  unsigned x = 12345;
  for (int i = 0; i < n * n * n; i++) {
    x = x * 1103515245u + 12345u;
    v[i] = float(x >> 8) / 65536.0f;
  }
  return std::make_unique<ZrUniformScalarField3>(dims, QB_FLOAT, box, v);
}

// Runs fn in a child process that, when this one is root, first becomes the
// unprivileged user, so that folder permissions apply. Returns the child's
// line of output (the error message), and its exit status in status.
std::string inUnprivilegedChild(const std::function<std::string()>& fn, int& status) {
  int fds[2];
  if (pipe(fds) != 0)
    return "pipe failed";
  pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    if (geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0))
      _exit(3);
    std::string msg = fn();
    ssize_t w = write(fds[1], msg.data(), msg.size());
    (void)w;
    _exit(0);
  }
  close(fds[1]);
  std::string out;
  char buf[512];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0)
    out.append(buf, size_t(n));
  close(fds[0]);
  int st = 0;
  waitpid(pid, &st, 0);
  status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return out;
}

// Sets the largest file this process may write (as a full disk would stop
// it: writes fail with an error instead of a signal) until destroyed.
class FileSizeLimit {
public:
  explicit FileSizeLimit(rlim_t bytes) {
    oldHandler = std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &old);
    rlimit r = old;
    r.rlim_cur = bytes;
    ok = setrlimit(RLIMIT_FSIZE, &r) == 0;
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, oldHandler);
  }
  bool ok = false;

private:
  rlimit old;
  void (*oldHandler)(int);
};

bool contains(const std::string& s, const char* what) { return s.find(what) != std::string::npos; }

} // namespace

TEST_F(ZrFaults, WriteIntoAMissingFolderSaysSoAndLeavesNothing) {
  auto field = makeField(6);
  std::string error;
  EXPECT_FALSE(ZrImageIO::write(field.get(), dir + "/missing/out.nii.gz", error));
  EXPECT_TRUE(contains(error, "No such file or directory")) << error;
  error.clear();
  SbMatrixd m;
  m.makeIdentity();
  EXPECT_FALSE(ZrTransformFiles::writeMatrix(m, dir + "/missing/m.txt", error));
  EXPECT_TRUE(contains(error, "No such file or directory")) << error;
  ZrLandmarkSet set(1);
  set.appendLandmark(QbVec3f(1, 2, 3));
  error.clear();
  EXPECT_FALSE(ZrPointSetIO::writeLandmarks(&set, dir + "/missing/lm.csv", error));
  EXPECT_FALSE(error.empty());
  EXPECT_TRUE(entries(dir).empty()) << joined(entries(dir));
}

TEST_F(ZrFaults, WriteIntoAReadOnlyFolderSaysSoAndLeavesNothing) {
  auto field = makeField(6);
  std::string ro = dir + "/ro";
  ASSERT_EQ(mkdir(ro.c_str(), 0755), 0);
  std::string old = ro + "/kept.nii";
  std::string error;
  ASSERT_TRUE(ZrImageIO::write(field.get(), old, error)) << error;
  std::string before = contents(old);
  ASSERT_EQ(chmod(ro.c_str(), 0555), 0);
  // The parent dir must be enterable by the unprivileged child.
  ASSERT_EQ(chmod(dir.c_str(), 0755), 0);

  for (const char* name : {"/out.nii.gz", "/out.nrrd", "/out.mha", "/kept.nii"}) {
    int status = -1;
    std::string msg = inUnprivilegedChild(
        [&] {
          std::string e;
          return ZrImageIO::write(field.get(), ro + name, e) ? std::string("written") : e;
        },
        status);
    ASSERT_EQ(status, 0) << "cannot drop privileges";
    EXPECT_TRUE(contains(msg, "Permission denied")) << name << ": " << msg;
  }
  int status = -1;
  std::string msg = inUnprivilegedChild(
      [&] {
        std::string e;
        SbMatrixd m;
        m.makeIdentity();
        return ZrTransformFiles::writeItkAffine(m, ro + "/t.tfm", e) ? std::string("written") : e;
      },
      status);
  EXPECT_TRUE(contains(msg, "Permission denied")) << msg;
  // Only the file that was there before, unchanged.
  EXPECT_EQ(joined(entries(ro)), "kept.nii ");
  EXPECT_EQ(contents(old), before);
}

TEST_F(ZrFaults, AFullDiskLeavesNoPartialFileAndKeepsTheOldOne) {
  auto field = makeField(24); // 55 kB of voxels
  std::string error;
  for (const char* name : {"/out.nii", "/out.nii.gz", "/out.nrrd", "/out.mha"}) {
    std::string path = dir + name;
    std::ofstream(path) << "the previous result";
    bool written;
    {
      FileSizeLimit limit(8192);
      ASSERT_TRUE(limit.ok);
      error.clear();
      written = ZrImageIO::write(field.get(), path, error);
    }
    EXPECT_FALSE(written) << name;
    EXPECT_TRUE(contains(error, "cannot write")) << name << ": " << error;
    EXPECT_EQ(contents(path), "the previous result") << name;
    EXPECT_EQ(entries(dir).size(), 1u) << joined(entries(dir));
    std::remove(path.c_str());
  }
  // Text outputs: the data stays in the stream's buffer until the file is
  // closed, which is where the failure shows.
  SbMatrixd m;
  m.makeIdentity();
  bool written;
  {
    FileSizeLimit limit(16);
    ASSERT_TRUE(limit.ok);
    error.clear();
    written = ZrTransformFiles::writeItkAffine(m, dir + "/t.tfm", error);
  }
  EXPECT_FALSE(written);
  EXPECT_TRUE(contains(error, "cannot write")) << error;
  EXPECT_TRUE(entries(dir).empty()) << joined(entries(dir));
  // Without the limit the same writes succeed.
  EXPECT_TRUE(ZrImageIO::write(field.get(), dir + "/out.nii.gz", error)) << error;
  EXPECT_TRUE(ZrTransformFiles::writeItkAffine(m, dir + "/t.tfm", error)) << error;
}

TEST_F(ZrFaults, AnAllocationTooLargeThrowsWithTheByteCount) {
  size_t huge = size_t(1) << 62;
  try {
    void* p = qbmalloc(huge);
    qbfree(p);
    FAIL() << "a request for 2^62 bytes was served";
  } catch (const QbMemoryException& e) {
    EXPECT_EQ(e.getNumBytes(), huge);
  }
  void* p = qbmalloc(16);
  try {
    p = qbrealloc(p, huge);
    FAIL() << "a request for 2^62 bytes was served";
  } catch (const QbMemoryException& e) {
    EXPECT_EQ(e.getNumBytes(), huge);
  }
  qbfree(p); // still the caller's after a failed qbrealloc
}

TEST_F(ZrFaults, AHeaderClaimingTerabytesIsRefused) {
  // A NIfTI-1 header of 32767 x 32767 x 1000 float voxels (4 TB), and no data.
  unsigned char h[352] = {};
  int32_t hdrSize = 348;
  std::memcpy(h, &hdrSize, 4);
  int16_t dim[8] = {3, 32767, 32767, 1000, 1, 1, 1, 1};
  std::memcpy(h + 40, dim, sizeof dim);
  int16_t type[2] = {16, 32}; // float, 32 bits
  std::memcpy(h + 70, type, sizeof type);
  float pixdim[8] = {1, 1, 1, 1, 1, 1, 1, 1};
  std::memcpy(h + 76, pixdim, sizeof pixdim);
  float voxOffset = 352;
  std::memcpy(h + 108, &voxOffset, 4);
  std::memcpy(h + 344, "n+1\0", 4);
  std::string path = dir + "/liar.nii";
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<char*>(h), sizeof h);
  std::string error;
  std::unique_ptr<ZrRegScalarField3> f(ZrImageIO::read(path, {}, nullptr, error));
  EXPECT_FALSE(f);
  // Refused before any memory is taken for the voxels.
  EXPECT_TRUE(contains(error, "is truncated or its header is wrong")) << error;
  EXPECT_TRUE(contains(error, "32767x32767x1000")) << error;
  EXPECT_TRUE(contains(error, "liar.nii")) << error;

  // NRRD files of raw and of gzip data that claim 20 GB, and one that keeps
  // its voxels in another file: that one is left to the reader, which fails
  // on the missing file.
  const struct {
    const char* encoding;
    const char* more;
    bool refused;
  } nrrd[] = {{"raw", "", true}, {"gzip", "", true}, {"raw", "data file: gone.raw\n", false}};
  for (const auto& c : nrrd) {
    path = dir + "/liar.nrrd";
    std::ofstream(path, std::ios::binary)
        << "NRRD0004\ntype: uint8\ndimension: 3\nsizes: 4 3 1754846549\nencoding: " << c.encoding
        << "\n"
        << c.more << "\n0123456789";
    f.reset(ZrImageIO::read(path, {}, nullptr, error));
    EXPECT_FALSE(f) << c.encoding << c.more;
    EXPECT_EQ(contains(error, "is truncated or its header is wrong"), c.refused)
        << c.encoding << c.more << ": " << error;
  }
}

// Orientations ITK's NIfTI reader cannot take (it aborts the process while
// working them out) get a message; a plain header with the affine unused,
// and a sound affine, read as before.
TEST_F(ZrFaults, ImpossibleNiftiOrientationsAreRefused) {
  struct Case {
    const char* what;
    int16_t sformCode;
    float row0[4];
    float quatB;
    int32_t hdrSize;
    const char* message; // null: readable
  };
  const float nan = std::nanf("");
  const Case cases[] = {
      {"no affine in use", 0, {0, 0, 0, 0}, 0, 348, nullptr},
      {"a sound affine", 1, {2, 0, 0, -3}, 0, 348, nullptr},
      {"a NaN in the affine", 1, {nan, 0, 0, 0}, 0, 348, "impossible orientation"},
      {"a singular affine in use", 1, {0, 0, 0, 0}, 0, 348, "impossible orientation"},
      {"an infinite quaternion", 0, {0, 0, 0, 0}, INFINITY, 348, "impossible orientation"},
      // ITK reads a header of the wrong size as an old Analyze one, with
      // the same fields.
      {"a wrong header size", 1, {nan, 0, 0, 0}, 0, 2396, "header is damaged"},
  };
  for (const Case& c : cases) {
    unsigned char h[352 + 8] = {};
    std::memcpy(h, &c.hdrSize, 4);
    int16_t dim[8] = {3, 2, 2, 2, 1, 1, 1, 1};
    std::memcpy(h + 40, dim, sizeof dim);
    int16_t type[2] = {2, 8}; // unsigned bytes
    std::memcpy(h + 70, type, sizeof type);
    float pixdim[8] = {1, 2, 2, 2, 1, 1, 1, 1};
    std::memcpy(h + 76, pixdim, sizeof pixdim);
    float voxOffset = 352;
    std::memcpy(h + 108, &voxOffset, 4);
    std::memcpy(h + 254, &c.sformCode, 2);
    std::memcpy(h + 256, &c.quatB, 4);
    const float rows[12] = {c.row0[0], c.row0[1], c.row0[2], c.row0[3], 0, 2, 0, 0, 0, 0, 2, 0};
    std::memcpy(h + 280, rows, sizeof rows);
    std::memcpy(h + 344, "n+1\0", 4);
    for (int v = 0; v < 8; v++)
      h[352 + v] = (unsigned char)(10 * v);
    const std::string path = dir + "/orientation.nii";
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<char*>(h), sizeof h);
    std::string error;
    std::unique_ptr<ZrRegScalarField3> f(ZrImageIO::read(path, {}, nullptr, error));
    EXPECT_EQ(f != nullptr, c.message == nullptr) << c.what << ": " << error;
    if (c.message)
      EXPECT_TRUE(contains(error, c.message)) << c.what << ": " << error;
  }
}

TEST_F(ZrFaults, ZrregWriteFaultsEndWithAMessageAndNoFile) {
  if (access(zrreg().c_str(), X_OK) != 0)
    GTEST_SKIP() << "no zrreg beside the package";
  auto field = makeField(24);
  std::string in = dir + "/in.nii", error;
  ASSERT_TRUE(ZrImageIO::write(field.get(), in, error)) << error;
  ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
  ASSERT_EQ(chmod(in.c_str(), 0644), 0);
  std::string out = dir + "/out";
  ASSERT_EQ(mkdir(out.c_str(), 0755), 0);
  std::string script = dir + "/s.txt";

  // A folder that does not exist.
  std::ofstream(script) << "load a " << in << "\nsave a " << out << "/missing/b.nii.gz\n";
  Shell r = shell(zrreg() + " run " + script);
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_TRUE(contains(r.output, "No such file or directory")) << r.output;

  // A full disk: the file size limit stands in for it.
  std::ofstream(script) << "load a " << in << "\nsave a " << out << "/b.nii.gz\n";
  r = shell("bash -c \"trap '' XFSZ; ulimit -f 16; exec " + zrreg() + " run " + script + "\"");
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_TRUE(contains(r.output, "cannot write")) << r.output;
  EXPECT_TRUE(entries(out).empty()) << joined(entries(out));

  // A read-only folder, for a user who may not write there. That user may
  // not be able to enter the checkout (a private home, a 0700 folder), so
  // zrreg and its libraries run from a copy in the test's own folder.
  ASSERT_EQ(chmod(out.c_str(), 0555), 0);
  std::string user = geteuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
  if (!user.empty() && shell("setpriv --help").status != 0)
    GTEST_SKIP() << "no setpriv to run zrreg as an unprivileged user";
  const std::string from = zrreg().substr(0, zrreg().rfind('/')), bin = dir + "/bin";
  ASSERT_EQ(mkdir(bin.c_str(), 0755), 0);
  for (const char* name : {"zrreg", "libzrcli.so", "libzrhost.so", "libzrregistration.so"}) {
    const std::string copy = "cp '" + from + "/" + name + "' '" + bin + "/' && chmod 0755 '" + bin;
    if (access((from + "/" + name).c_str(), R_OK) == 0) {
      ASSERT_EQ(shell(copy + "/" + name + "'").status, 0) << name;
    }
  }
  r = shell("env ZR_PACKAGE_DIR='" + bin + "' LD_LIBRARY_PATH='" + bin + "' " + user + bin +
            "/zrreg run " + script);
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_TRUE(contains(r.output, "Permission denied")) << r.output;
  EXPECT_TRUE(entries(out).empty()) << joined(entries(out));
}

TEST_F(ZrFaults, CtrlCInAnyPhaseEndsWith130AndNoPartialFile) {
  if (access(zrreg().c_str(), X_OK) != 0)
    GTEST_SKIP() << "no zrreg beside the package";
  Shell r = shell(zrreg() + " phantom --size 48 --out " + dir);
  ASSERT_EQ(r.status, 0) << r.output;
  std::string out = dir + "/out.nii.gz";
  std::string args = " affine --quiet --reference " + dir + "/reference.nii.gz --model " + dir +
                     "/model.nii.gz -o " + out;
  // Interrupts at moments from start-up to optimisation; a run that ends
  // before the signal exits with 0. (Before zrreg has set up its handler the
  // signal ends it at once, also with 130 and nothing written.)
  for (const char* when : {"0.02", "0.1", "0.3", "0.6"}) {
    std::remove(out.c_str());
    r = shell(std::string("timeout --preserve-status -s INT ") + when + " " + zrreg() + args);
    EXPECT_TRUE(r.status == 130 || r.status == 0) << when << ": " << r.status << " " << r.output;
    for (const std::string& name : entries(dir))
      EXPECT_NE(name.rfind(".zrreg-", 0), 0u) << when << ": temporary file left: " << name;
    if (access(out.c_str(), F_OK) == 0) {
      // Whatever was written is a whole image.
      std::string error;
      std::unique_ptr<ZrRegScalarField3> f(ZrImageIO::read(out, {}, nullptr, error));
      EXPECT_TRUE(f) << when << ": " << error;
    }
  }
}

// The quit cleanup of Ctrl-C unlinks the temporary files that were handed out
// and not yet renamed into place; other files, and names already committed,
// are left alone.
TEST_F(ZrFaults, QuitCleanupRemovesPendingTemporaries) {
  const std::string kept = dir + "/kept.txt", pending = dir + "/pending.nii";
  std::string error;
  ASSERT_TRUE(ZrAtomicFile::writeText(kept, "committed\n", error)) << error;
  const std::string tmp = ZrAtomicFile::temporaryName(pending);
  { std::ofstream(tmp) << "half an image"; }
  ASSERT_EQ(0, access(tmp.c_str(), F_OK));
  ZrAtomicFile::removeTemporaries();
  EXPECT_NE(0, access(tmp.c_str(), F_OK));
  EXPECT_EQ(0, access(kept.c_str(), F_OK));
  for (const std::string& name : entries(dir))
    EXPECT_NE(name.rfind(".zrreg-", 0), 0u) << name;
}
