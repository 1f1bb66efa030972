#include "ZrPortFloatTextN.h"

#include <cfloat>

ZrPortFloatTextN::ZrPortFloatTextN(ZrCompModule* owner, const char* name, int numFields)
    : ZrPort(owner, name, 0) {
  setNumEntries(numFields);
}

void ZrPortFloatTextN::setNumEntries(int n) {
  ZrPort::setNumEntries(n);
  values.resize(getNumEntries(), 0.0f);
  mins.resize(getNumEntries(), -FLT_MAX);
  maxs.resize(getNumEntries(), FLT_MAX);
}

float ZrPortFloatTextN::getValue(int field) const {
  return (field >= 0 && field < (int)values.size()) ? values[field] : 0.0f;
}

void ZrPortFloatTextN::setValue(int field, float value) {
  if (field < 0 || field >= (int)values.size())
    return;
  values[field] = value;
  touch();
}

void ZrPortFloatTextN::setValue(float value) {
  for (float& v : values)
    v = value;
  touch();
}

void ZrPortFloatTextN::setValues(const float* v) {
  for (size_t i = 0; i < values.size(); i++)
    values[i] = v[i];
  touch();
}

void ZrPortFloatTextN::setMinMax(int field, float min, float max) {
  if (field < 0 || field >= (int)values.size())
    return;
  mins[field] = min;
  maxs[field] = max;
}

void ZrPortFloatTextN::setMinMax(float min, float max) {
  for (size_t i = 0; i < values.size(); i++)
    setMinMax((int)i, min, max);
}

float ZrPortFloatTextN::getMinValue(int field) const {
  return (field >= 0 && field < (int)mins.size()) ? mins[field] : -FLT_MAX;
}

float ZrPortFloatTextN::getMaxValue(int field) const {
  return (field >= 0 && field < (int)maxs.size()) ? maxs[field] : FLT_MAX;
}

bool ZrPortFloatTextN::setFromText(const std::string& text, std::string& error) {
  std::vector<std::pair<int, std::string>> items;
  if (!splitEntryValues(text, items, error))
    return false;
  std::vector<std::pair<int, float>> parsed;
  for (const auto& item : items) {
    int i = item.first;
    double d;
    if (!parseDouble(item.second, d) || d > FLT_MAX || d < -FLT_MAX) {
      error = portRef() + ": '" + item.second + "' for " + entryRef(i) + " is not a number";
      return false;
    }
    float v = (float)d;
    if (v < mins[i] || v > maxs[i]) {
      error = portRef() + ": " + item.second + " for " + entryRef(i) +
              " is out of range; allowed: " + formatFloat(mins[i]) + " to " + formatFloat(maxs[i]);
      return false;
    }
    parsed.emplace_back(i, v);
  }
  for (const auto& p : parsed)
    setValue(p.first, p.second);
  return true;
}

std::string ZrPortFloatTextN::getValueText() const {
  std::string s;
  for (size_t i = 0; i < values.size(); i++)
    s += (i ? "," : "") + formatFloat(values[i]);
  return s;
}

std::string ZrPortFloatTextN::describeEntry(int entry) const {
  std::string s = formatFloat(getValue(entry));
  bool hasMin = mins[entry] > -FLT_MAX, hasMax = maxs[entry] < FLT_MAX;
  if (hasMin && hasMax)
    s += " [" + formatFloat(mins[entry]) + " to " + formatFloat(maxs[entry]) + "]";
  else if (hasMin)
    s += " [at least " + formatFloat(mins[entry]) + "]";
  else if (hasMax)
    s += " [at most " + formatFloat(maxs[entry]) + "]";
  return s;
}
