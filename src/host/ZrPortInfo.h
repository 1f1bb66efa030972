#pragma once
// A line of text that a module shows to the user. Read-only for scripts.
#include "ZrMessage.h"
#include "ZrPort.h"

class ZrPortInfo : public ZrPort {
public:
  ZrPortInfo(ZrCompModule* owner, const char* name);

  // printf-style.
  void setValue(const char* format, ...) ZR_PRINTF_FORMAT(2, 3);
  const char* getValue() const { return text.c_str(); }

  // Always refused: the text is the module's to set.
  bool setFromText(const std::string& text, std::string& error) override;
  std::string getValueText() const override { return text; }
  std::string toText() const override;
  const char* getKindName() const override { return "info"; }

private:
  std::string text;
};
