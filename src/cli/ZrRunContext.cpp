#include "ZrRunContext.h"

#include "ZrAtomicFile.h"

#include "ZrCompModule.h"
#include "ZrMessage.h"
#include "ZrPortIntTextN.h"
#include "ZrPortMultiMenu.h"
#include "ZrPortToggleList.h"
#include "ZrRegScalarField3.h"
#include "ZrSettingsMgr.h"
#include "ZrStackedLabelField3.h"
#include "ZrTerminalProgress.h"
#include "ZrUniformLabelField3.h"
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
  // A Ctrl-C that quits while an output is being written takes its
  // temporary file away with it.
  ZrTerminalProgress::setQuitCleanup(&ZrAtomicFile::removeTemporaries);
  return true;
}

bool ZrRunContext::interrupted() const { return ZrWorkArea::getTheWorkArea()->wasInterrupted(); }

void ZrRunContext::notice(const std::string& text) {
  if (!ZrMessage::getTheMsg()->isQuiet())
    std::fprintf(stderr, "zrreg: %s\n", text.c_str());
}

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
    notice("the reference is small enough for a single resolution level; registering at full "
           "resolution with the direction search only");
}

bool ZrRunContext::checkPair(const ZrRegScalarField3* reference, const ZrRegScalarField3* model,
                             std::string& error) {
  auto flatAxis = [](const ZrRegScalarField3* f) {
    for (int a = 0; a < 3; a++)
      if (f->getDims()[a] == 1)
        return a;
    return -1;
  };
  const int r = flatAxis(reference), m = flatAxis(model);
  if (r >= 0 && m >= 0 && r != m) {
    static const char axis[] = "xyz";
    error = std::string("the reference is flat along ") + axis[r] + " but the model along " +
            axis[m] + "; a 2-D pair must be flat along the same axis";
    return false;
  }
  return true;
}

bool ZrRunContext::checkMetric(ZrCompModule* module, bool labelInput, std::string& error) {
  auto* metric = dynamic_cast<ZrPortMultiMenu*>(module->getPort("metric"));
  if (!labelInput || !metric)
    return true;
  // Label numbers are names, not intensities: a squared difference of them
  // means nothing. The information metrics and the label difference compare
  // classes and stay allowed.
  const char* name = metric->getLabel(0, metric->getIndex(0));
  if (name && std::string(name) == "Euclidean") {
    error = "the Euclidean metric compares grey values and cannot be used with label images; "
            "use --set metric=\"Normalized Mutual Information\" (or \"Label difference\" when "
            "both images are labels)";
    return false;
  }
  return true;
}

bool ZrRunContext::isLabelField(const ZrRegScalarField3* field) {
  return field && (field->isOfType(ZrUniformLabelField3::getClassTypeId()) ||
                   field->isOfType(ZrStackedLabelField3::getClassTypeId()));
}
