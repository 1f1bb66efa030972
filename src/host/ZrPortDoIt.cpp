#include "ZrPortDoIt.h"

ZrPortDoIt::ZrPortDoIt(ZrCompModule* owner, const char* name) : ZrPortButtonList(owner, name, 1) {
  setLabel(0, "DoIt");
}

bool ZrPortDoIt::setFromText(const std::string&, std::string& error) {
  if (!hit(0)) {
    error = portRef() + ": the button is inactive";
    return false;
  }
  return true;
}
