#include "ZrPortIntTextN.h"

#include <climits>

ZrPortIntTextN::ZrPortIntTextN(ZrCompModule* owner, const char* name, int numFields)
    : ZrPort(owner, name, 0) {
  setNumEntries(numFields);
}

void ZrPortIntTextN::setNumEntries(int n) {
  ZrPort::setNumEntries(n);
  values.resize(getNumEntries(), 0);
  mins.resize(getNumEntries(), INT_MIN);
  maxs.resize(getNumEntries(), INT_MAX);
}

int ZrPortIntTextN::getValue(int field) const {
  return (field >= 0 && field < (int)values.size()) ? values[field] : 0;
}

void ZrPortIntTextN::setValue(int field, int value) {
  if (field < 0 || field >= (int)values.size())
    return;
  values[field] = value;
  touch();
}

void ZrPortIntTextN::setValue(int value) {
  for (int& v : values)
    v = value;
  touch();
}

void ZrPortIntTextN::setValues(const int* v) {
  for (size_t i = 0; i < values.size(); i++)
    values[i] = v[i];
  touch();
}

void ZrPortIntTextN::setMinMax(int field, int min, int max) {
  if (field < 0 || field >= (int)values.size())
    return;
  mins[field] = min;
  maxs[field] = max;
}

void ZrPortIntTextN::setMinMax(int min, int max) {
  for (size_t i = 0; i < values.size(); i++)
    setMinMax((int)i, min, max);
}

int ZrPortIntTextN::getMinValue(int field) const {
  return (field >= 0 && field < (int)mins.size()) ? mins[field] : INT_MIN;
}

int ZrPortIntTextN::getMaxValue(int field) const {
  return (field >= 0 && field < (int)maxs.size()) ? maxs[field] : INT_MAX;
}

bool ZrPortIntTextN::setFromText(const std::string& text, std::string& error) {
  std::vector<std::pair<int, std::string>> items;
  if (!splitEntryValues(text, items, error))
    return false;
  std::vector<std::pair<int, int>> parsed;
  for (const auto& item : items) {
    int i = item.first;
    long v;
    if (!parseLong(item.second, v) || v < INT_MIN || v > INT_MAX) {
      double d;
      bool number = parseDouble(item.second, d);
      error = portRef() + ": '" + item.second + "' for " + entryRef(i) +
              (number ? " is not a whole number" : " is not a number");
      return false;
    }
    if (v < mins[i] || v > maxs[i]) {
      error = portRef() + ": " + item.second + " for " + entryRef(i) +
              " is out of range; allowed: " + std::to_string(mins[i]) + " to " +
              std::to_string(maxs[i]);
      return false;
    }
    parsed.emplace_back(i, (int)v);
  }
  for (const auto& p : parsed)
    setValue(p.first, p.second);
  return true;
}

std::string ZrPortIntTextN::getValueText() const {
  std::string s;
  for (size_t i = 0; i < values.size(); i++)
    s += (i ? "," : "") + std::to_string(values[i]);
  return s;
}

std::string ZrPortIntTextN::describeEntry(int entry) const {
  std::string s = std::to_string(getValue(entry));
  bool hasMin = mins[entry] > INT_MIN, hasMax = maxs[entry] < INT_MAX;
  if (hasMin && hasMax)
    s += " [" + std::to_string(mins[entry]) + " to " + std::to_string(maxs[entry]) + "]";
  else if (hasMin)
    s += " [at least " + std::to_string(mins[entry]) + "]";
  else if (hasMax)
    s += " [at most " + std::to_string(maxs[entry]) + "]";
  return s;
}
