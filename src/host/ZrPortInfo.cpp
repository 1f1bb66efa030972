#include "ZrPortInfo.h"
#include "ZrMessage.h"

ZrPortInfo::ZrPortInfo(ZrCompModule* owner, const char* name) : ZrPort(owner, name, 0) {}

void ZrPortInfo::setValue(const char* format, ...) {
  va_list args;
  va_start(args, format);
  text = ZrMessage::vformat(format, args);
  va_end(args);
  touch();
}

bool ZrPortInfo::setFromText(const std::string&, std::string& error) {
  error = portRef() + " shows information and cannot be set";
  return false;
}

std::string ZrPortInfo::toText() const {
  std::string s = std::string(getName()) + ": " + getKindName();
  if (*getLabel())
    s += std::string(" \"") + getLabel() + "\"";
  s += " = \"" + text + "\"";
  if (!isVisible())
    s += " (hidden)";
  return s + "\n";
}
