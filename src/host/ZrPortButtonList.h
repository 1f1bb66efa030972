#pragma once
// A row of push buttons. A hit lasts until the owner module has computed.
// A button can be snapped: it then counts as pressed on every run, as long as
// it is sensitive. A hit on an insensitive button is refused.
//
// Text: the label or index of the button to press; several comma separated.
#include "ZrPort.h"

class ZrPortButtonList : public ZrPort {
public:
  ZrPortButtonList(ZrCompModule* owner, const char* name, int numButtons = 1);

  void setNum(int n) { setNumEntries(n); }
  int getNum() const { return getNumEntries(); }

  // Presses the button; makes the port new. False (nothing happens) for an
  // insensitive or non-existent button.
  bool hit(int button);
  // Pressed since the last compute, or snapped and sensitive.
  bool wasHit(int button) const;
  // True if any button counts as pressed.
  bool wasAnyHit() const;

  // Snapping a button presses it for every run; unsnapping releases it.
  void setSnap(int button, bool snapped);
  bool isSnapped(int button) const;

  void clearHits() override;

  bool setFromText(const std::string& text, std::string& error) override;
  // Buttons hold no value: always "".
  std::string getValueText() const override { return std::string(); }
  const char* getKindName() const override { return "buttons"; }

protected:
  void setNumEntries(int n) override;
  std::string describeEntry(int entry) const override;

private:
  std::vector<int> hits;
  std::vector<int> snapped;
};
