#include "ZrPackageLoader.h"

#include <cstdlib>
#include <dlfcn.h>
#include <unistd.h>
#include <vector>

#ifndef ZR_PACKAGE_FILE
#define ZR_PACKAGE_FILE "libzrregistration.so"
#endif

ZrPackageLoader::~ZrPackageLoader() { unload(); }

std::string ZrPackageLoader::defaultPath() {
  if (const char* dir = std::getenv("ZR_PACKAGE_DIR"))
    return std::string(dir) + "/" + ZR_PACKAGE_FILE;
  std::vector<char> buf(4096);
  ssize_t n = readlink("/proc/self/exe", buf.data(), buf.size() - 1);
  if (n > 0) {
    std::string exe(buf.data(), size_t(n));
    std::string dir = exe.substr(0, exe.find_last_of('/'));
    std::string candidate = dir + "/" + ZR_PACKAGE_FILE;
    if (access(candidate.c_str(), R_OK) == 0)
      return candidate;
  }
  return ZR_PACKAGE_FILE;
}

bool ZrPackageLoader::load(const std::string& path, std::string& error) {
  unload();
  void* h = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (!h) {
    const char* e = dlerror();
    error = "cannot load the registration package '" + path + "': " + (e ? e : "unknown error");
    return false;
  }
  auto stampEntry = reinterpret_cast<const char* (*)()>(dlsym(h, "torvipackage_zrregistration"));
  auto ctor = reinterpret_cast<void (*)()>(dlsym(h, "soconstructor_zrregistration"));
  auto dtor = reinterpret_cast<void (*)()>(dlsym(h, "sodestructor_zrregistration"));
  if (!stampEntry || !ctor || !dtor) {
    error = "'" + path + "' is not a zrregistration package (its entries are missing)";
    dlclose(h);
    return false;
  }
  // The stamp: "|key|value|key|value|...|" followed by the closing marker.
  stampFields.clear();
  std::string s = stampEntry();
  std::vector<std::string> parts;
  size_t pos = 0;
  while (pos < s.size() && s[pos] == '|') {
    size_t next = s.find('|', pos + 1);
    if (next == std::string::npos)
      break;
    parts.push_back(s.substr(pos + 1, next - pos - 1));
    pos = next;
  }
  for (size_t i = 0; i + 1 < parts.size(); i += 2)
    stampFields[parts[i]] = parts[i + 1];
  if (stampFields.count("product") == 0) {
    error = "'" + path + "' has no readable build stamp";
    dlclose(h);
    return false;
  }
  handle = h;
  destructorEntry = dtor;
  ctor();
  return true;
}

void ZrPackageLoader::unload() {
  if (!handle)
    return;
  if (destructorEntry)
    destructorEntry();
  // The library stays mapped: objects it created may still be alive in the
  // host's pool until the process ends.
  handle = nullptr;
  destructorEntry = nullptr;
}

std::string ZrPackageLoader::version() const {
  auto get = [&](const char* k) {
    auto it = stampFields.find(k);
    return it == stampFields.end() ? std::string("?") : it->second;
  };
  return get("version_major") + "." + get("version_minor") + "." + get("version_patch");
}
