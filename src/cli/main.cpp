// zrreg: the command-line host of the registration package, its commands.
#include "QbMemoryException.h"
#include "QbTypeInfo.h"
#include "ZrAffineCommand.h"
#include "ZrApplyCommand.h"
#include "ZrBatchCommand.h"
#include "ZrCompModule.h"
#include "ZrDemo.h"
#include "ZrElasticCommands.h"
#include "ZrPackageLoader.h"
#include "ZrPhantomCommand.h"
#include "ZrRunContext.h"

#include <itkImageIOFactory.h>
#include <itkObjectFactoryBase.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

void printUsage(FILE* out) {
  std::fprintf(out, "usage: zrreg <command> [options]\n"
                    "\n"
                    "commands:\n"
                    "  version   print the versions of zrreg and of the registration package\n"
                    "  formats   list the image file formats zrreg can read and write\n"
                    "  affine    rigid/affine registration of a model onto reference images\n"
                    "  elastic   free-form (B-spline) registration\n"
                    "  apply     move an image (labels, another contrast) by found transforms\n"
                    "  apply-grid     warp an image by a saved control grid\n"
                    "  deform-points  move points or a mesh by a saved vector field\n"
                    "  batch     run many registrations from a table (CSV/TSV), or a shard of it\n"
                    "  ports     list the ports of a module class\n"
                    "  run       run a script of host commands\n"
                    "  phantom   write a synthetic head and a copy under a known transform\n"
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

bool isHelp(int argc, char** argv) {
  return argc > 1 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"));
}

int cmdPorts(int argc, char** argv) {
  if (isHelp(argc, argv) || argc < 2) {
    std::printf("usage: zrreg ports CLASS [--reference FILE] [--model FILE] [--labels]\n"
                "                   [--set PORT=VALUE ...]\n\n"
                "Lists every port of a module class with its title, entries, values, and\n"
                "whether it is shown and sensitive, after the module has updated on the given\n"
                "inputs. Scripts and --set address ports by these names.\n\n"
                "ZrAffineRegistration and ZrElasticRegistration are shown with the settings\n"
                "'zrreg affine' and 'zrreg elastic' give them, so the values are those a run\n"
                "of the command uses; --set applies settings on top, as the commands do.\n");
    return argc < 2 ? 2 : 0;
  }
  std::string reference, model;
  bool labels = false;
  std::vector<std::pair<std::string, std::string>> sets;
  for (int i = 2; i < argc; i++) {
    std::string a = argv[i];
    if ((a == "--reference" || a == "--model") && i + 1 < argc)
      (a == "--reference" ? reference : model) = argv[++i];
    else if (a == "--labels")
      labels = true;
    else if (a == "--set" && i + 1 < argc) {
      std::string kv = argv[++i];
      size_t eq = kv.find('=');
      if (eq == std::string::npos || eq == 0) {
        std::fprintf(stderr, "zrreg ports: --set takes PORT=VALUE, got '%s'\n", kv.c_str());
        return 2;
      }
      sets.emplace_back(kv.substr(0, eq), kv.substr(eq + 1));
    } else {
      std::fprintf(stderr, "zrreg ports: unknown option '%s'\n", a.c_str());
      return 2;
    }
  }
  ZrRunContext ctx;
  if (!ctx.start(true, 0))
    return 1;
  ZrCliSession& s = ctx.session();
  std::string error;
  ZrCompModule* m = s.createModule(argv[1], "", error);
  bool ok = m != nullptr;
  if (ok && !model.empty())
    ok = s.loadImage("model", model, labels, error) &&
         s.setPort(m, m->portData.getName(), "model", error);
  if (ok && !reference.empty())
    ok = s.loadImage("reference", reference, labels, error) &&
         s.setPort(m, "reference", "reference", error);
  if (ok) {
    s.fire(m, false, error);
    // The same order as the commands: their own settings, then the user's.
    const std::string cls = argv[1];
    if (cls == "ZrAffineRegistration")
      ZrAffineCommand::applyDefaults(m, true);
    else if (cls == "ZrElasticRegistration")
      ZrElasticCommands::applyDefaults(m, true);
    for (size_t k = 0; ok && k < sets.size(); k++) {
      ok = s.setPort(m, sets[k].first, sets[k].second, error);
      s.fire(m, false, error);
    }
  }
  if (!ok) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return 1;
  }
  std::fputs(ZrCliSession::describePorts(m).c_str(), stdout);
  return 0;
}

int cmdRun(int argc, char** argv) {
  if (isHelp(argc, argv) || argc != 2) {
    std::printf("usage: zrreg run SCRIPT\n\n"
                "Runs host commands from SCRIPT, one a line ('#' starts a comment):\n"
                "  load NAME FILE [labels]      read an image as object NAME\n"
                "  landmarks NAME FILE          read a landmark set (CSV: x y z per set)\n"
                "  vertices NAME FILE           read a vertex set (CSV or OFF)\n"
                "  create CLASS [NAME]          create a module\n"
                "  connect MODULE PORT OBJECT   connect an input\n"
                "  set MODULE PORT VALUE...     set a port ('zrreg ports CLASS' lists them)\n"
                "  hit MODULE PORT [BUTTON]     press a button (index or label)\n"
                "  update MODULE                let the module react to changed ports\n"
                "  compute MODULE               run the module\n"
                "  save OBJECT FILE             write an image, landmark or vertex set\n"
                "  ports MODULE | list | echo TEXT\n"
                "The script stops at the first failing line.\n");
    return argc != 2 && !isHelp(argc, argv) ? 2 : 0;
  }
  ZrRunContext ctx;
  if (!ctx.start(false, 0))
    return 1;
  std::string error;
  if (!ctx.session().runScript(argv[1], error)) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return ctx.interrupted() ? 130 : 1;
  }
  return 0;
}

} // namespace

static int dispatch(int argc, char** argv) {
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
    return ZrDemo::run(argc - 1, argv + 1);
  if (cmd == "affine")
    return ZrAffineCommand::run(argc - 1, argv + 1);
  if (cmd == "elastic")
    return ZrElasticCommands::runElastic(argc - 1, argv + 1);
  if (cmd == "apply")
    return ZrApplyCommand::run(argc - 1, argv + 1);
  if (cmd == "apply-grid")
    return ZrElasticCommands::runApplyGrid(argc - 1, argv + 1);
  if (cmd == "deform-points")
    return ZrElasticCommands::runDeformPoints(argc - 1, argv + 1);
  if (cmd == "phantom")
    return ZrPhantomCommand::run(argc - 1, argv + 1);
  if (cmd == "batch")
    return ZrBatchCommand::run(argc - 1, argv + 1);
  if (cmd == "ports")
    return cmdPorts(argc - 1, argv + 1);
  if (cmd == "run")
    return cmdRun(argc - 1, argv + 1);
  std::fprintf(stderr, "zrreg: unknown command '%s'\n\n", cmd.c_str());
  printUsage(stderr);
  return 2;
}

// The program proper, which the zrreg executable loads and calls (see
// launch.cpp). The package lets its memory exception pass; it ends the command
// here with a message instead of an abort. Outputs are only renamed into
// place once complete, so nothing half-written is left behind.
extern "C" __attribute__((visibility("default"))) int zrreg_main(int argc, char** argv) {
  try {
    return dispatch(argc, argv);
  } catch (const QbMemoryException& e) {
    std::fprintf(stderr,
                 "zrreg: out of memory (a request for %zu bytes failed); try smaller "
                 "images or fewer threads\n",
                 e.getNumBytes());
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "zrreg: out of memory\n");
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zrreg: %s\n", e.what());
  }
  return 1;
}
