// zrreg: the command-line host of the registration package.
#include "ZrPackageLoader.h"
#include "QbTypeInfo.h"

#include <itkImageIOFactory.h>
#include <itkObjectFactoryBase.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

void printUsage(FILE* out) {
  std::fprintf(out, "usage: zrreg <command> [options]\n"
                    "\n"
                    "commands:\n"
                    "  version   print the versions of zrreg and of the registration package\n"
                    "  formats   list the image file formats zrreg can read and write\n"
                    "  demo      run the built-in demonstration (no input needed)\n"
                    "\n"
                    "zrreg <command> --help shows the options of a command.\n");
}

int loadPackage(ZrPackageLoader& loader) {
  std::string error;
  if (!loader.load(ZrPackageLoader::defaultPath(), error)) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return 1;
  }
  return 0;
}

int cmdVersion(int argc, char** argv) {
  if (argc > 1 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"))) {
    std::printf("usage: zrreg version\n\nPrints the versions of zrreg and of the loaded "
                "registration package.\n");
    return 0;
  }
  ZrPackageLoader loader;
  if (int rc = loadPackage(loader))
    return rc;
  std::printf("zrreg %s\n", loader.version().c_str());
  for (const auto& kv : loader.stamp())
    if (!kv.second.empty())
      std::printf("  %-14s %s\n", kv.first.c_str(), kv.second.c_str());
  return 0;
}

int cmdFormats(int argc, char** argv) {
  if (argc > 1 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"))) {
    std::printf("usage: zrreg formats\n\nLists the image input/output modules available.\n");
    return 0;
  }
  for (auto* f : itk::ObjectFactoryBase::GetRegisteredFactories())
    std::printf("  %s\n", f->GetDescription());
  return 0;
}

int cmdDemo(int argc, char** argv) {
  if (argc > 1 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"))) {
    std::printf("usage: zrreg demo\n\nLoads the registration package and shows what it "
                "offers.\n");
    return 0;
  }
  ZrPackageLoader loader;
  if (int rc = loadPackage(loader))
    return rc;
  std::printf("zrregistration %s loaded.\n", loader.version().c_str());
  int modules = 0;
  const QbTypeInfo* compModule = QbTypeInfo::fromName("ZrCompModule");
  for (const QbTypeInfo* t : QbTypeInfo::allTypes())
    if (compModule && t != compModule && t->isOfType(compModule) && t->canCreate()) {
      std::printf("  module: %s\n", t->getName());
      modules++;
    }
  if (modules == 0)
    std::printf("This build of the package registers no modules yet, so there is nothing to "
                "demonstrate.\n");
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    printUsage(stderr);
    return 2;
  }
  std::string cmd = argv[1];
  if (cmd == "--help" || cmd == "-h" || cmd == "help") {
    printUsage(stdout);
    return 0;
  }
  if (cmd == "version" || cmd == "--version")
    return cmdVersion(argc - 1, argv + 1);
  if (cmd == "formats")
    return cmdFormats(argc - 1, argv + 1);
  if (cmd == "demo")
    return cmdDemo(argc - 1, argv + 1);
  std::fprintf(stderr, "zrreg: unknown command '%s'\n\n", cmd.c_str());
  printUsage(stderr);
  return 2;
}
