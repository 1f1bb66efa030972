#pragma once
// A row of integer fields, each with a label and limits.
//
// Code may set any value. Text is refused outside the limits or when not a
// whole number. Text: one number per field, separated by commas or spaces, or
// assignments "field=value" where field is a label or an index.
#include "ZrPort.h"

class ZrPortIntTextN : public ZrPort {
public:
  ZrPortIntTextN(ZrCompModule* owner, const char* name, int numFields = 1);

  void setNum(int n) { setNumEntries(n); }
  int getNum() const { return getNumEntries(); }

  int getValue(int field = 0) const;
  void setValue(int field, int value);
  // All fields.
  void setValue(int value);
  void setValues(const int* values);

  // Limits for text input, inclusive.
  void setMinMax(int field, int min, int max);
  void setMinMax(int min, int max);
  int getMinValue(int field) const;
  int getMaxValue(int field) const;

  bool setFromText(const std::string& text, std::string& error) override;
  std::string getValueText() const override;
  const char* getKindName() const override { return "integer values"; }

protected:
  void setNumEntries(int n) override;
  std::string describeEntry(int entry) const override;

private:
  std::vector<int> values;
  std::vector<int> mins;
  std::vector<int> maxs;
};
