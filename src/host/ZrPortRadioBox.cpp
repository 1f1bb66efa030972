#include "ZrPortRadioBox.h"

ZrPortRadioBox::ZrPortRadioBox(ZrCompModule* owner, const char* name, int numOptions)
    : ZrPort(owner, name, numOptions) {}

void ZrPortRadioBox::setValue(int v) {
  value = v;
  touch();
}

bool ZrPortRadioBox::setFromText(const std::string& text, std::string& error) {
  int option = findEntry(text);
  if (option < 0) {
    error = portRef() + " has no entry '" + trim(text) + "'; choose one of: " + entryList();
    return false;
  }
  if (!isSensitive(option)) {
    error = portRef() + ": entry '" + entryTitle(option) + "' is inactive";
    return false;
  }
  setValue(option);
  return true;
}

std::string ZrPortRadioBox::getValueText() const {
  if (value >= 0 && value < getNumEntries())
    return entryTitle(value);
  return std::to_string(value);
}

std::string ZrPortRadioBox::describeEntry(int entry) const {
  return entry == value ? "selected" : std::string();
}
