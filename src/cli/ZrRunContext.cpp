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

void ZrRunContext::useFinestLevel(ZrCompModule* module, bool always, bool quiet) {
  auto* coarsest = dynamic_cast<ZrPortIntTextN*>(module->getPort("coarsestResolution"));
  auto* options = dynamic_cast<ZrPortToggleList*>(module->getPort("options"));
  if (!coarsest || !options || !options->getValue(0))
    return;
  bool singleLevel = true;
  for (int a = 0; a < coarsest->getNumEntries(); a++)
    singleLevel &= coarsest->getValue(a) <= 1;
  if (!always && !singleLevel)
    return;
  options->setValue(0, 0);
  // With one level, switching to the gradient search on the finest level
  // would leave the whole run to it; the direction search does better from a
  // distant start.
  std::string ignored;
  if (singleLevel)
    if (ZrPort* gradient = module->getPort("nLevelsGradient"))
      gradient->setFromText("0,0.0001", ignored);
  module->fire(0);
  module->untouchPorts(true);
  if (singleLevel && !quiet)
    std::fprintf(stderr, "zrreg: the reference is small enough for a single resolution level; "
                         "registering at full resolution with the direction search only\n");
}
