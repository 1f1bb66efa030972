#pragma once
// What every zrreg command that runs a module shares: the loaded package, the
// session of objects, progress on stderr, Ctrl-C, --quiet and --threads.
#include "ZrCliSession.h"
#include "ZrPackageLoader.h"

#include <memory>
#include <string>

class ZrCompModule;
class ZrRegScalarField3;
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

  // Makes a registration module optimise on its finest level too. The
  // module's own default skips that level, which is fast but costs accuracy
  // that users of a command-line tool expect; with `always` false this is
  // done only where the pyramid has a single level, which would otherwise
  // not be registered at all. A single level also runs without the switch to
  // the gradient search, which would otherwise do the whole run. Call before
  // applying --set, so that the user's settings win.
  static void useFinestLevel(ZrCompModule* module, bool always, bool quiet);

  // Prints "zrreg: <text>" on stderr unless the run is quiet: remarks that
  // are not errors (a conversion made, a setting changed). --quiet leaves
  // errors only.
  static void notice(const std::string& text);

  // Parses "--threads N" style values; false on a bad number.
  static bool parseInt(const char* text, int& value);

  // Checks a reference and a model against each other before a run: two flat
  // images must be flat along the same axis (the package would stop with no
  // result), and the module's metric must suit label inputs.
  static bool checkPair(const ZrRegScalarField3* reference, const ZrRegScalarField3* model,
                        std::string& error);
  static bool checkMetric(ZrCompModule* module, bool labelInput, std::string& error);
  // True for the label fields (uniform or stacked) that loading made.
  static bool isLabelField(const ZrRegScalarField3* field);

private:
  ZrPackageLoader loader;
  std::unique_ptr<ZrTerminalProgress> progress;
  // Declared last: its destructor empties the object pool before the
  // package is unloaded.
  ZrCliSession sessionObj;
};
