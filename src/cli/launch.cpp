// zrreg: loads the program proper (libzrcli.so, beside this executable) and
// runs it. The split lets the parallel runtime's settings be chosen before the
// runtime is loaded, which reads them once, at its loading.
//
// `affine` lets its threads sleep while they wait for each other, unless the
// user chose a waiting policy. Threads that spin while they wait for the rest
// of their team burn a core that a busy machine's other programs need, and on
// such a machine the team often waits for a thread that has no core: on a
// 2-core machine under a load of 6, a 2-thread run took 2.3 to 2.8 s of CPU
// where sleeping waits took 1.7 s (the time of one thread) and less wall
// time. On an idle machine a sleeping wait costs a wake-up of some
// microseconds per parallel pass, against milliseconds of work in each.
// (The program used to start itself again to get there, which cost a second
// loading of its libraries, about 0.05 s a run.)
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#ifndef ZR_CLI_FILE
#define ZR_CLI_FILE "libzrcli.so"
#endif

namespace {

// The folder of this executable, with a trailing slash, or "" if unknown.
std::string ownFolder() {
  std::vector<char> buf(4096);
  const ssize_t n = readlink("/proc/self/exe", buf.data(), buf.size() - 1);
  if (n <= 0)
    return "";
  const std::string exe(buf.data(), size_t(n));
  const size_t slash = exe.find_last_of('/');
  return slash == std::string::npos ? "" : exe.substr(0, slash + 1);
}

} // namespace

int main(int argc, char** argv) {
  if (argc > 1 && !std::strcmp(argv[1], "affine") && !std::getenv("OMP_WAIT_POLICY") &&
      !std::getenv("GOMP_SPINCOUNT"))
    setenv("OMP_WAIT_POLICY", "passive", 1);
  // Beside this executable, or else wherever the loader finds libraries (a
  // zrreg copied away from its build).
  std::string path = ownFolder() + ZR_CLI_FILE;
  if (access(path.c_str(), R_OK) != 0)
    path = ZR_CLI_FILE;
  void* program = dlopen(path.c_str(), RTLD_LAZY | RTLD_GLOBAL);
  if (!program) {
    const char* e = dlerror();
    std::fprintf(stderr, "zrreg: cannot load %s: %s\n", path.c_str(), e ? e : "unknown error");
    return 1;
  }
  auto run = reinterpret_cast<int (*)(int, char**)>(dlsym(program, "zrreg_main"));
  if (!run) {
    std::fprintf(stderr, "zrreg: %s has no zrreg_main\n", path.c_str());
    return 1;
  }
  return run(argc, argv);
}
