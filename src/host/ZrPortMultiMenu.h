#pragma once
// One or more option menus side by side. Each menu has its own entries, a
// selected index and a sensitivity; single items can be made insensitive too.
//
// The entries of the port (getNumEntries(), setSensitivity()) are the menus;
// setLabel(int, const char*) and setNum(int), setIndex(int) without a menu
// number refer to the items of menu 0.
//
// Text: an item label (case-insensitive) or an index for menu 0, and
// "menu:item" for any menu; several comma separated.
#include "ZrPort.h"

class ZrPortMultiMenu : public ZrPort {
public:
  ZrPortMultiMenu(ZrCompModule* owner, const char* name, int numMenus = 1);

  int getNumMenus() const { return (int)menus.size(); }
  void setNumMenus(int n) { setNumEntries(n); }

  // Number of items of a menu. Growing adds unlabelled items; shrinking below
  // the selected index selects item 0, the module's default choice. A menu
  // index beyond the last adds menus.
  void setNum(int menu, int numItems);
  void setNum(int numItems) { setNum(0, numItems); }
  int getNum(int menu = 0) const;

  using ZrPort::getLabel;
  using ZrPort::setLabel;
  void setLabel(int menu, int item, const char* label);
  const char* getLabel(int menu, int item) const;
  const char* getLabel(int item) const override { return getLabel(0, item); }
  void setLabel(int item, const char* label) override { setLabel(0, item, label); }

  // The selected item. Code may set any index; text only an existing,
  // sensitive item of a sensitive menu.
  void setIndex(int index) { setIndex(0, index); }
  void setIndex(int menu, int index);
  int getIndex(int menu = 0) const;
  // The label of the selected item, "" if it has none.
  const char* getSelectedLabel(int menu = 0) const;

  void setItemSensitivity(int menu, int item, int value);
  int getItemSensitivity(int menu, int item) const;

  bool setFromText(const std::string& text, std::string& error) override;
  std::string getValueText() const override;
  const char* getKindName() const override { return "menu"; }

protected:
  void setNumEntries(int n) override;
  std::string entryTitle(int entry) const override { return "menu " + std::to_string(entry); }
  std::string describeEntry(int entry) const override;

private:
  struct Menu {
    std::vector<std::string> labels;
    std::vector<int> sensitive;
    int index = 0;
  };
  std::string itemList(int menu, bool sensitiveOnly) const;
  int findItem(int menu, const std::string& text) const;
  std::vector<Menu> menus;
};
