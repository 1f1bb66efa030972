#pragma once
// Base of the parameters and inputs of a compute module. A port has a name in
// lower camel case, by which scripts and the command line address it, a title
// shown to the user, a number of entries with labels and a sensitivity each,
// a visibility, and a new flag that tells the module's update() that the
// port changed since the module last ran.
//
// A port registers with its owner module in its constructor, so a module's
// ports are listed in the order in which they were constructed.
//
// Values set from code are taken as they are; values set from text (a script
// or the command line) are checked, and a bad text changes nothing and
// leaves a message that names the port, the entry and what is accepted.
#include <string>
#include <vector>

class ZrCompModule;

class ZrPort {
public:
  // owner may be null for a port that belongs to no module.
  ZrPort(ZrCompModule* owner, const char* name, int numEntries = 1);
  virtual ~ZrPort();
  ZrPort(const ZrPort&) = delete;
  ZrPort& operator=(const ZrPort&) = delete;

  ZrCompModule* getOwner() const { return owner; }
  const char* getName() const { return name.c_str(); }
  void setName(const char* newName);

  // The title of the port.
  const char* getLabel() const { return title.c_str(); }
  void setLabel(const char* newTitle);
  // The label of one entry (for a multi menu: an item of menu 0).
  virtual const char* getLabel(int entry) const;
  virtual void setLabel(int entry, const char* label);

  int getNumEntries() const { return (int)sensitivity.size(); }

  void show() { visible = true; }
  void hide() { visible = false; }
  bool isVisible() const { return visible; }

  // Non-zero value: the entry can be used. Entries start sensitive.
  void setSensitivity(int entry, int value);
  int getSensitivity(int entry) const;
  bool isSensitive(int entry) const { return getSensitivity(entry) != 0; }

  // The new flag: set when the value changes, cleared after the owner ran.
  bool isNew() const { return newFlag; }
  void touch() { newFlag = true; }
  void untouch(bool all = true) { newFlag = false; }
  // Releases pressed buttons; the owner calls it after compute().
  virtual void clearHits() {}

  // Sets the value from text. On failure returns false, leaves the port as it
  // was, and puts a message into error.
  virtual bool setFromText(const std::string& text, std::string& error) = 0;
  // The current value in the form setFromText() reads.
  virtual std::string getValueText() const = 0;
  // A description for help output: name, kind, title, and one line per entry
  // with label, value, limits and state. Lines end in '\n'.
  virtual std::string toText() const;
  // A short word for the kind of port, used in descriptions.
  virtual const char* getKindName() const = 0;

  // Ordering key among the owner's ports; see ZrCompModule::movePort().
  int getPosition() const { return position; }
  void setPositionKey(int p) { position = p; }

protected:
  // Changes the number of entries; new entries are sensitive, unlabelled.
  virtual void setNumEntries(int n);
  // The name of an entry in descriptions: its label, or its index.
  virtual std::string entryTitle(int entry) const;
  // The value part of the description line of an entry.
  virtual std::string describeEntry(int entry) const { return std::string(); }

  // "port 'name'", the start of every message.
  std::string portRef() const;
  // "entry 1 (final)" or "entry 1".
  std::string entryRef(int entry) const;
  // The entry named by key: its label (case-insensitive, a trailing ':' may
  // be left out) or its index. -1 if none.
  int findEntry(const std::string& key) const;
  // The labels (or indices where unlabelled) of all entries, comma separated.
  std::string entryList() const;
  // Reads a text that gives one value per entry, in order, or assignments
  // "entry=value" that name entries by label or index. Fills (entry, value
  // text) pairs; false with a message when the text fits neither form.
  bool splitEntryValues(const std::string& text, std::vector<std::pair<int, std::string>>& out,
                        std::string& error) const;

  static std::string trim(const std::string& s);
  // A label as messages show it: trimmed, without a trailing ':'.
  static std::string displayLabel(const std::string& label);
  static std::string lower(const std::string& s);
  // Label comparison as findEntry() does it.
  static bool labelMatches(const std::string& label, const std::string& text);
  // Splits a list: at commas if there is one; else a text with '=' is one
  // item ("Fast mode=on"); else at white space. Items are trimmed; an empty
  // text gives no items.
  static std::vector<std::string> splitList(const std::string& text);
  // "key=value" into its two trimmed parts. False when there is no '='.
  static bool splitAssignment(const std::string& item, std::string& key, std::string& value);
  // Whole-string number parsing; false on trailing junk, overflow, non-finite.
  static bool parseDouble(const std::string& s, double& v);
  static bool parseLong(const std::string& s, long& v);
  // on/off, 1/0, true/false, yes/no.
  static bool parseOnOff(const std::string& s, int& v);
  // The shortest text that reads back as the same float.
  static std::string formatFloat(float v);

  std::vector<std::string> entryLabels;
  std::vector<int> sensitivity;

private:
  ZrCompModule* owner;
  std::string name;
  std::string title;
  bool visible = true;
  bool newFlag = false;
  int position = 0;
};
