#pragma once
// What every zrreg command that runs a module shares: the loaded package, the
// session of objects, progress on stderr, Ctrl-C, --quiet and --threads.
#include "ZrCliSession.h"
#include "ZrPackageLoader.h"

#include <memory>
#include <string>

class ZrCompModule;
class ZrTerminalProgress;

class ZrRunContext {
public:
  ZrRunContext();
  ~ZrRunContext();
  // Loads the package and sets up progress and threads; false with a message
  // on stderr when the package cannot be loaded.
  bool start(bool quiet, int threads);
  ZrCliSession& session() { return sessionObj; }
  // True when Ctrl-C was pressed during the run.
  bool interrupted() const;

  // A registration module whose pyramid has a single level and that is set to
  // skip the finest level would not register at all: small images are then
  // registered at full resolution, with a notice. Ports the user set are left
  // alone (call before applying --set).
  static void keepSingleLevel(ZrCompModule* module, bool quiet);

  // Parses "--threads N" style values; false on a bad number.
  static bool parseInt(const char* text, int& value);

private:
  ZrPackageLoader loader;
  std::unique_ptr<ZrTerminalProgress> progress;
  // Declared last: its destructor empties the object pool before the
  // package is unloaded.
  ZrCliSession sessionObj;
};
