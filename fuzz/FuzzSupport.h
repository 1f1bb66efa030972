#pragma once
// What the fuzz targets share: the loaders of zrreg read files by name, so each
// input is written to a file in a private scratch folder first.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace zrfuzz {

// A folder of this process, made on first use and removed at exit.
inline const std::string& scratchDir() {
  static const std::string dir = [] {
    char tmpl[] = "/tmp/zrfuzz-XXXXXX";
    const char* d = mkdtemp(tmpl);
    if (!d) {
      std::perror("zrfuzz: mkdtemp");
      std::abort();
    }
    std::string s = d;
    static std::string forCleanup;
    forCleanup = s;
    std::atexit([] { std::system(("rm -rf '" + forCleanup + "'").c_str()); });
    return s;
  }();
  return dir;
}

// Writes the bytes to scratchDir()/name and returns the full path.
inline std::string writeInput(const std::string& name, const uint8_t* data, size_t size) {
  std::string path = scratchDir() + "/" + name;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) {
    std::perror(path.c_str());
    std::abort();
  }
  if (size && std::fwrite(data, 1, size, f) != size) {
    std::perror(path.c_str());
    std::abort();
  }
  std::fclose(f);
  return path;
}

} // namespace zrfuzz
