#include "ZrPortMultiMenu.h"

ZrPortMultiMenu::ZrPortMultiMenu(ZrCompModule* owner, const char* name, int numMenus)
    : ZrPort(owner, name, 0) {
  setNumEntries(numMenus < 1 ? 1 : numMenus);
}

void ZrPortMultiMenu::setNumEntries(int n) {
  ZrPort::setNumEntries(n);
  menus.resize(getNumEntries());
}

void ZrPortMultiMenu::setNum(int menu, int numItems) {
  if (menu < 0)
    return;
  if (menu >= getNumMenus())
    setNumEntries(menu + 1);
  if (numItems < 0)
    numItems = 0;
  Menu& m = menus[menu];
  m.labels.resize(numItems);
  m.sensitive.resize(numItems, 1);
  if (m.index >= numItems && m.index != 0) {
    m.index = 0;
    touch();
  }
}

int ZrPortMultiMenu::getNum(int menu) const {
  return (menu >= 0 && menu < getNumMenus()) ? (int)menus[menu].labels.size() : 0;
}

void ZrPortMultiMenu::setLabel(int menu, int item, const char* label) {
  if (item < 0 || item >= getNum(menu))
    return;
  menus[menu].labels[item] = label ? label : "";
}

const char* ZrPortMultiMenu::getLabel(int menu, int item) const {
  if (item < 0 || item >= getNum(menu))
    return "";
  return menus[menu].labels[item].c_str();
}

void ZrPortMultiMenu::setIndex(int menu, int index) {
  if (menu < 0 || menu >= getNumMenus())
    return;
  menus[menu].index = index;
  touch();
}

int ZrPortMultiMenu::getIndex(int menu) const {
  return (menu >= 0 && menu < getNumMenus()) ? menus[menu].index : 0;
}

const char* ZrPortMultiMenu::getSelectedLabel(int menu) const {
  return getLabel(menu, getIndex(menu));
}

void ZrPortMultiMenu::setItemSensitivity(int menu, int item, int value) {
  if (item < 0 || item >= getNum(menu))
    return;
  menus[menu].sensitive[item] = value != 0;
}

int ZrPortMultiMenu::getItemSensitivity(int menu, int item) const {
  if (item < 0 || item >= getNum(menu))
    return 0;
  return menus[menu].sensitive[item];
}

std::string ZrPortMultiMenu::itemList(int menu, bool sensitiveOnly) const {
  std::string s;
  for (int i = 0; i < getNum(menu); i++) {
    if (sensitiveOnly && !getItemSensitivity(menu, i))
      continue;
    if (!s.empty())
      s += ", ";
    std::string label = displayLabel(getLabel(menu, i));
    s += label.empty() ? std::to_string(i) : label;
  }
  return s;
}

int ZrPortMultiMenu::findItem(int menu, const std::string& text) const {
  for (int i = 0; i < getNum(menu); i++)
    if (labelMatches(getLabel(menu, i), text))
      return i;
  long v;
  if (parseLong(text, v) && v >= 0 && v < getNum(menu))
    return (int)v;
  return -1;
}

bool ZrPortMultiMenu::setFromText(const std::string& text, std::string& error) {
  // A text that is an item of menu 0 as a whole is taken as such, even if it
  // holds a comma or a colon.
  // Items hold spaces ("Line search"), so only commas separate choices.
  std::vector<std::string> items;
  std::string t = trim(text);
  if (findItem(0, t) >= 0 || t.find(',') == std::string::npos) {
    if (!t.empty())
      items.push_back(t);
  } else {
    items = splitList(t);
  }
  if (items.empty()) {
    error = portRef() + " needs an entry; choose one of: " + itemList(0, true);
    return false;
  }
  std::vector<std::pair<int, int>> choices;
  for (const std::string& item : items) {
    int menu = 0;
    std::string value = item;
    size_t colon = item.find(':');
    long m;
    if (findItem(0, item) < 0 && colon != std::string::npos &&
        parseLong(item.substr(0, colon), m)) {
      if (m < 0 || m >= getNumMenus()) {
        error = portRef() + " has no menu " + std::to_string(m) + "; it has " +
                std::to_string(getNumMenus()) + (getNumMenus() == 1 ? " menu" : " menus");
        return false;
      }
      menu = (int)m;
      value = trim(item.substr(colon + 1));
    }
    std::string which = getNumMenus() > 1 ? " menu " + std::to_string(menu) : std::string();
    if (!isSensitive(menu)) {
      error = portRef() + which + " is inactive";
      return false;
    }
    int index = findItem(menu, value);
    if (index < 0) {
      error = portRef() + which + " has no entry '" + value +
              "'; choose one of: " + itemList(menu, true);
      return false;
    }
    if (!getItemSensitivity(menu, index)) {
      error = portRef() + which + ": entry '" + displayLabel(getLabel(menu, index)) +
              "' is inactive; choose one of: " + itemList(menu, true);
      return false;
    }
    choices.emplace_back(menu, index);
  }
  for (const auto& c : choices)
    setIndex(c.first, c.second);
  return true;
}

std::string ZrPortMultiMenu::getValueText() const {
  std::string s;
  for (int m = 0; m < getNumMenus(); m++) {
    if (m)
      s += ",";
    int index = getIndex(m);
    std::string label = (index >= 0 && index < getNum(m)) ? displayLabel(getLabel(m, index)) : "";
    std::string value = label.empty() ? std::to_string(index) : label;
    s += m ? std::to_string(m) + ":" + value : value;
  }
  return s;
}

std::string ZrPortMultiMenu::describeEntry(int menu) const {
  int index = getIndex(menu);
  std::string label =
      (index >= 0 && index < getNum(menu)) ? displayLabel(getLabel(menu, index)) : "";
  std::string s = label.empty() ? std::to_string(index) : label;
  s += "; choices: ";
  for (int i = 0; i < getNum(menu); i++) {
    if (i)
      s += ", ";
    std::string l = displayLabel(getLabel(menu, i));
    s += std::to_string(i) + " " + (l.empty() ? "-" : l);
    if (!getItemSensitivity(menu, i))
      s += " (inactive)";
  }
  return s;
}
