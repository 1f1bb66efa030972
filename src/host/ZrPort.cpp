#include "ZrPort.h"
#include "ZrCompModule.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>

ZrPort::ZrPort(ZrCompModule* o, const char* n, int numEntries) : owner(o), name(n ? n : "") {
  ZrPort::setNumEntries(numEntries);
  if (owner)
    owner->addPort(this);
}

ZrPort::~ZrPort() {
  if (owner)
    owner->removePort(this);
}

void ZrPort::setName(const char* newName) { name = newName ? newName : ""; }

void ZrPort::setLabel(const char* newTitle) { title = newTitle ? newTitle : ""; }

const char* ZrPort::getLabel(int entry) const {
  if (entry < 0 || entry >= (int)entryLabels.size())
    return "";
  return entryLabels[entry].c_str();
}

void ZrPort::setLabel(int entry, const char* label) {
  if (entry < 0 || entry >= (int)entryLabels.size())
    return;
  entryLabels[entry] = label ? label : "";
}

void ZrPort::setSensitivity(int entry, int value) {
  if (entry >= 0 && entry < (int)sensitivity.size())
    sensitivity[entry] = value != 0;
}

int ZrPort::getSensitivity(int entry) const {
  if (entry < 0 || entry >= (int)sensitivity.size())
    return 0;
  return sensitivity[entry];
}

void ZrPort::setNumEntries(int n) {
  if (n < 0)
    n = 0;
  entryLabels.resize(n);
  sensitivity.resize(n, 1);
}

std::string ZrPort::toText() const {
  std::string s = name + ": " + getKindName();
  if (!title.empty())
    s += " \"" + title + "\"";
  if (!visible)
    s += " (hidden)";
  s += "\n";
  for (int i = 0; i < getNumEntries(); i++) {
    std::string line = "    " + entryTitle(i);
    std::string value = describeEntry(i);
    if (!value.empty())
      line += " = " + value;
    if (!isSensitive(i))
      line += " (inactive)";
    s += line + "\n";
  }
  return s;
}

std::string ZrPort::entryTitle(int entry) const {
  std::string label = displayLabel(getLabel(entry));
  return label.empty() ? std::to_string(entry) : label;
}

std::string ZrPort::portRef() const { return "port '" + name + "'"; }

std::string ZrPort::entryRef(int entry) const {
  std::string s = "entry " + std::to_string(entry);
  std::string label = displayLabel(getLabel(entry));
  if (!label.empty())
    s += " (" + label + ")";
  return s;
}

int ZrPort::findEntry(const std::string& key) const {
  for (int i = 0; i < getNumEntries(); i++)
    if (labelMatches(getLabel(i), key))
      return i;
  long v;
  if (parseLong(key, v) && v >= 0 && v < getNumEntries())
    return (int)v;
  return -1;
}

std::string ZrPort::entryList() const {
  std::string s;
  for (int i = 0; i < getNumEntries(); i++) {
    if (i)
      s += ", ";
    s += entryTitle(i);
  }
  return s;
}

bool ZrPort::splitEntryValues(const std::string& text,
                              std::vector<std::pair<int, std::string>>& out,
                              std::string& error) const {
  out.clear();
  int n = getNumEntries();
  std::string labels = n > 1 ? " (" + entryList() + ")" : std::string();
  std::string expected = n == 1 ? "1 value" : std::to_string(n) + " values" + labels;
  std::vector<std::string> items = splitList(text);
  if (items.empty()) {
    error = portRef() + " needs " + expected;
    return false;
  }
  bool assignments = false;
  for (const std::string& item : items)
    if (item.find('=') != std::string::npos)
      assignments = true;
  if (assignments) {
    for (const std::string& item : items) {
      std::string key, value;
      if (!splitAssignment(item, key, value)) {
        error = portRef() + ": '" + item + "' is not of the form entry=value";
        return false;
      }
      int entry = findEntry(key);
      if (entry < 0) {
        error = portRef() + " has no entry '" + key + "'; choose one of: " + entryList();
        return false;
      }
      out.emplace_back(entry, value);
    }
    return true;
  }
  if ((int)items.size() != n) {
    error = portRef() + " needs " + expected + ", got " + std::to_string(items.size());
    return false;
  }
  for (int i = 0; i < n; i++)
    out.emplace_back(i, items[i]);
  return true;
}

std::string ZrPort::trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && std::isspace((unsigned char)s[b]))
    b++;
  while (e > b && std::isspace((unsigned char)s[e - 1]))
    e--;
  return s.substr(b, e - b);
}

std::string ZrPort::displayLabel(const std::string& label) {
  std::string t = trim(label);
  if (!t.empty() && t.back() == ':')
    t = trim(t.substr(0, t.size() - 1));
  return t;
}

std::string ZrPort::lower(const std::string& s) {
  std::string r = s;
  for (char& c : r)
    c = (char)std::tolower((unsigned char)c);
  return r;
}

bool ZrPort::labelMatches(const std::string& label, const std::string& text) {
  // Labels often end in a colon ("initial:"); that may be left out.
  std::string l = lower(displayLabel(label));
  return !l.empty() && l == lower(displayLabel(text));
}

std::vector<std::string> ZrPort::splitList(const std::string& text) {
  std::vector<std::string> items;
  std::string t = trim(text);
  if (t.empty())
    return items;
  if (t.find(',') != std::string::npos) {
    size_t start = 0;
    while (true) {
      size_t comma = t.find(',', start);
      items.push_back(trim(t.substr(start, comma - start)));
      if (comma == std::string::npos)
        break;
      start = comma + 1;
    }
  } else if (t.find('=') != std::string::npos) {
    items.push_back(t);
  } else {
    size_t i = 0;
    while (i < t.size()) {
      while (i < t.size() && std::isspace((unsigned char)t[i]))
        i++;
      size_t b = i;
      while (i < t.size() && !std::isspace((unsigned char)t[i]))
        i++;
      if (i > b)
        items.push_back(t.substr(b, i - b));
    }
  }
  return items;
}

bool ZrPort::splitAssignment(const std::string& item, std::string& key, std::string& value) {
  size_t eq = item.find('=');
  if (eq == std::string::npos)
    return false;
  key = trim(item.substr(0, eq));
  value = trim(item.substr(eq + 1));
  return true;
}

bool ZrPort::parseDouble(const std::string& s, double& v) {
  std::string t = trim(s);
  if (t.empty())
    return false;
  errno = 0;
  char* end = nullptr;
  v = std::strtod(t.c_str(), &end);
  return end && *end == '\0' && errno != ERANGE && std::isfinite(v);
}

bool ZrPort::parseLong(const std::string& s, long& v) {
  std::string t = trim(s);
  if (t.empty())
    return false;
  errno = 0;
  char* end = nullptr;
  v = std::strtol(t.c_str(), &end, 10);
  return end && *end == '\0' && errno != ERANGE;
}

bool ZrPort::parseOnOff(const std::string& s, int& v) {
  std::string t = lower(trim(s));
  if (t == "on" || t == "1" || t == "true" || t == "yes") {
    v = 1;
    return true;
  }
  if (t == "off" || t == "0" || t == "false" || t == "no") {
    v = 0;
    return true;
  }
  return false;
}

std::string ZrPort::formatFloat(float v) {
  char buf[64];
  for (int precision = 6; precision <= 9; precision++) {
    std::snprintf(buf, sizeof buf, "%.*g", precision, (double)v);
    if (std::strtof(buf, nullptr) == v)
      break;
  }
  return buf;
}
