#pragma once
// A row of floating-point fields, each with a label and limits.
//
// Code may set any value. Text is refused outside the limits. Text: one
// number per field, separated by commas or spaces ("1,2" or "1 2"), or
// assignments "field=value" where field is a label or an index.
#include "ZrPort.h"

class ZrPortFloatTextN : public ZrPort {
public:
  ZrPortFloatTextN(ZrCompModule* owner, const char* name, int numFields = 1);

  void setNum(int n) { setNumEntries(n); }
  int getNum() const { return getNumEntries(); }

  float getValue(int field = 0) const;
  void setValue(int field, float value);
  // All fields.
  void setValue(float value);
  void setValues(const float* values);

  // Limits for text input, inclusive. Without limits any finite value is taken.
  void setMinMax(int field, float min, float max);
  void setMinMax(float min, float max);
  float getMinValue(int field) const;
  float getMaxValue(int field) const;

  bool setFromText(const std::string& text, std::string& error) override;
  std::string getValueText() const override;
  const char* getKindName() const override { return "float values"; }

protected:
  void setNumEntries(int n) override;
  std::string describeEntry(int entry) const override;

private:
  std::vector<float> values;
  std::vector<float> mins;
  std::vector<float> maxs;
};
