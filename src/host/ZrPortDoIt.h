#pragma once
// The single "DoIt" button that starts a module's work. It has a snap toggle
// like every button: snapped, the module computes on every run.
//
// Text: any text presses it ("", "hit", ...).
#include "ZrPortButtonList.h"

class ZrPortDoIt : public ZrPortButtonList {
public:
  ZrPortDoIt(ZrCompModule* owner, const char* name);

  using ZrPortButtonList::hit;
  using ZrPortButtonList::isSnapped;
  using ZrPortButtonList::setSnap;
  using ZrPortButtonList::wasHit;
  bool hit() { return hit(0); }
  bool wasHit() const { return wasHit(0); }
  void setSnap(bool s) { setSnap(0, s); }
  bool isSnapped() const { return isSnapped(0); }

  bool setFromText(const std::string& text, std::string& error) override;
  const char* getKindName() const override { return "button"; }
};
