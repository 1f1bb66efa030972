#include "ZrPortButtonList.h"

ZrPortButtonList::ZrPortButtonList(ZrCompModule* owner, const char* name, int numButtons)
    : ZrPort(owner, name, 0) {
  setNumEntries(numButtons);
}

void ZrPortButtonList::setNumEntries(int n) {
  ZrPort::setNumEntries(n);
  hits.resize(getNumEntries(), 0);
  snapped.resize(getNumEntries(), 0);
}

bool ZrPortButtonList::hit(int button) {
  if (button < 0 || button >= getNumEntries() || !isSensitive(button))
    return false;
  hits[button] = 1;
  touch();
  return true;
}

bool ZrPortButtonList::wasHit(int button) const {
  if (button < 0 || button >= getNumEntries())
    return false;
  return hits[button] || (snapped[button] && isSensitive(button));
}

bool ZrPortButtonList::wasAnyHit() const {
  for (int i = 0; i < getNumEntries(); i++)
    if (wasHit(i))
      return true;
  return false;
}

void ZrPortButtonList::setSnap(int button, bool s) {
  if (button < 0 || button >= getNumEntries())
    return;
  snapped[button] = s;
  if (s)
    touch();
  else
    hits[button] = 0;
}

bool ZrPortButtonList::isSnapped(int button) const {
  return button >= 0 && button < getNumEntries() && snapped[button];
}

void ZrPortButtonList::clearHits() {
  for (int& h : hits)
    h = 0;
}

bool ZrPortButtonList::setFromText(const std::string& text, std::string& error) {
  std::vector<std::string> items;
  // A label that holds a comma is still one button.
  if (findEntry(text) >= 0)
    items.push_back(trim(text));
  else
    items = splitList(text);
  if (items.empty()) {
    error = portRef() + " needs a button; choose one of: " + entryList();
    return false;
  }
  std::vector<int> buttons;
  for (const std::string& item : items) {
    int b = findEntry(item);
    if (b < 0) {
      error = portRef() + " has no button '" + item + "'; choose one of: " + entryList();
      return false;
    }
    if (!isSensitive(b)) {
      error = portRef() + ": button '" + entryTitle(b) + "' is inactive";
      return false;
    }
    buttons.push_back(b);
  }
  for (int b : buttons)
    hit(b);
  return true;
}

std::string ZrPortButtonList::describeEntry(int entry) const {
  std::string s;
  if (hits[entry])
    s = "pressed";
  if (snapped[entry])
    s += s.empty() ? "snapped" : ", snapped";
  return s;
}
