#include "ZrPortToggleList.h"

ZrPortToggleList::ZrPortToggleList(ZrCompModule* owner, const char* name, int numToggles)
    : ZrPort(owner, name, 0) {
  setNumEntries(numToggles);
}

void ZrPortToggleList::setNumEntries(int n) {
  ZrPort::setNumEntries(n);
  values.resize(getNumEntries(), 0);
}

int ZrPortToggleList::getValue(int toggle) const {
  return (toggle >= 0 && toggle < (int)values.size()) ? values[toggle] : 0;
}

void ZrPortToggleList::setValue(int toggle, int value) {
  if (toggle < 0 || toggle >= (int)values.size())
    return;
  values[toggle] = value != 0;
  touch();
}

bool ZrPortToggleList::setFromText(const std::string& text, std::string& error) {
  std::vector<std::pair<int, std::string>> items;
  if (!splitEntryValues(text, items, error))
    return false;
  std::vector<std::pair<int, int>> parsed;
  for (const auto& item : items) {
    int v;
    if (!parseOnOff(item.second, v)) {
      error = portRef() + ": '" + item.second + "' for " + entryRef(item.first) +
              " is not a toggle state; use on or off";
      return false;
    }
    parsed.emplace_back(item.first, v);
  }
  for (const auto& p : parsed)
    setValue(p.first, p.second);
  return true;
}

std::string ZrPortToggleList::getValueText() const {
  std::string s;
  for (size_t i = 0; i < values.size(); i++)
    s += std::string(i ? "," : "") + (values[i] ? "on" : "off");
  return s;
}

std::string ZrPortToggleList::describeEntry(int entry) const {
  return getValue(entry) ? "on" : "off";
}
