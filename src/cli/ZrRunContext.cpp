#include "ZrRunContext.h"

#include "ZrCompModule.h"
#include "ZrMessage.h"
#include "ZrPortIntTextN.h"
#include "ZrPortToggleList.h"
#include "ZrSettingsMgr.h"
#include "ZrTerminalProgress.h"
#include "ZrWorkArea.h"

#include <cstdio>
#include <cstdlib>

ZrRunContext::ZrRunContext() = default;

ZrRunContext::~ZrRunContext() {
  if (progress) {
    progress->detach();
    ZrTerminalProgress::uninstallSigintHandler();
  }
}

bool ZrRunContext::start(bool quiet, int threads) {
  std::string error;
  if (!loader.load(ZrPackageLoader::defaultPath(), error)) {
    std::fprintf(stderr, "zrreg: %s\n", error.c_str());
    return false;
  }
  if (threads > 0)
    ZrSettingsMgr::getInstance()->setNumThreads(threads);
  ZrMessage::getTheMsg()->setQuiet(quiet);
  if (!quiet) {
    progress.reset(new ZrTerminalProgress());
    progress->attach(ZrWorkArea::getTheWorkArea());
  }
  ZrTerminalProgress::installSigintHandler();
  return true;
}

bool ZrRunContext::interrupted() const { return ZrWorkArea::getTheWorkArea()->wasInterrupted(); }

bool ZrRunContext::parseInt(const char* text, int& value) {
  if (!text)
    return false;
  char* end = nullptr;
  long v = std::strtol(text, &end, 10);
  if (end == text || *end || v < -1000000 || v > 1000000)
    return false;
  value = int(v);
  return true;
}

void ZrRunContext::keepSingleLevel(ZrCompModule* module, bool quiet) {
  auto* coarsest = dynamic_cast<ZrPortIntTextN*>(module->getPort("coarsestResolution"));
  auto* options = dynamic_cast<ZrPortToggleList*>(module->getPort("options"));
  if (!coarsest || !options || !options->getValue(0))
    return;
  for (int a = 0; a < coarsest->getNumEntries(); a++)
    if (coarsest->getValue(a) > 1)
      return;
  options->setValue(0, 0);
  module->fire(0);
  module->untouchPorts(true);
  if (!quiet)
    std::fprintf(stderr, "zrreg: the reference is small enough for a single resolution level; "
                         "registering at full resolution (--set options=off,... to change)\n");
}
