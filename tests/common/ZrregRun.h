#pragma once
// zrreg as the tests run it: the executable beside the package (the tests'
// environment names its folder), and the exit status and output of a
// command line.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>

inline std::string zrreg() {
  const char* d = std::getenv("ZR_PACKAGE_DIR");
  return std::string(d ? d : ".") + "/zrreg";
}

struct Shell {
  int status = -1;    // -1 when the command did not exit by itself
  std::string output; // standard output and standard error together
};

inline Shell shell(const std::string& command) {
  Shell r;
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (!p)
    return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0)
    r.output.append(buf, n);
  const int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

// zrreg with the arguments given; the second form stores the output and
// returns the exit status.
inline Shell run(const std::string& args) { return shell(zrreg() + " " + args); }
inline int run(const std::string& args, std::string* output) {
  Shell r = run(args);
  *output = r.output;
  return r.status;
}
