#pragma once
// Loads the registration package with dlopen, reads its build stamp and calls
// its constructor entry; the destructor entry runs on unload.
#include <map>
#include <string>

class ZrPackageLoader {
public:
  ZrPackageLoader() = default;
  ~ZrPackageLoader();
  ZrPackageLoader(const ZrPackageLoader&) = delete;
  ZrPackageLoader& operator=(const ZrPackageLoader&) = delete;

  // Loads the library at path. On failure returns false and sets error.
  bool load(const std::string& path, std::string& error);
  void unload();
  bool isLoaded() const { return handle != nullptr; }
  // The stamp's fields: vendor, product, version_major, ...
  const std::map<std::string, std::string>& stamp() const { return stampFields; }
  std::string version() const;

  // Where the package is looked for: $ZR_PACKAGE_DIR, then the folder of the
  // running executable, then the loader's own search path.
  static std::string defaultPath();

private:
  void* handle = nullptr;
  void (*destructorEntry)() = nullptr;
  std::map<std::string, std::string> stampFields;
};
