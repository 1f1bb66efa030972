#pragma once
// A set of mutually exclusive options; one is selected.
//
// Code may select any value; text only an existing, sensitive option, named
// by label (case-insensitive) or index.
#include "ZrPort.h"

class ZrPortRadioBox : public ZrPort {
public:
  ZrPortRadioBox(ZrCompModule* owner, const char* name, int numOptions = 2);

  void setNum(int n) { setNumEntries(n); }
  int getNum() const { return getNumEntries(); }

  int getValue() const { return value; }
  void setValue(int v);

  bool setFromText(const std::string& text, std::string& error) override;
  std::string getValueText() const override;
  const char* getKindName() const override { return "radio box"; }

protected:
  std::string describeEntry(int entry) const override;

private:
  int value = 0;
};
