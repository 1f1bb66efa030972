#pragma once
// A row of on/off toggles.
//
// Text: one value for a single toggle; for several, one value per toggle in
// order ("on,off"), or assignments "toggle=value" where toggle is a label or
// an index ("Fast mode=on, 0=off"). Values are on/off, 1/0, true/false,
// yes/no.
#include "ZrPort.h"

class ZrPortToggleList : public ZrPort {
public:
  ZrPortToggleList(ZrCompModule* owner, const char* name, int numToggles = 1);

  void setNum(int n) { setNumEntries(n); }
  int getNum() const { return getNumEntries(); }

  // 1 for on, 0 for off.
  int getValue(int toggle = 0) const;
  void setValue(int toggle, int value);

  bool setFromText(const std::string& text, std::string& error) override;
  std::string getValueText() const override;
  const char* getKindName() const override { return "toggles"; }

protected:
  void setNumEntries(int n) override;
  std::string describeEntry(int entry) const override;

private:
  std::vector<int> values;
};
