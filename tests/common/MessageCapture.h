#pragma once
// The message stream captured while the object lives, and kept off the
// terminal.
#include "ZrMessage.h"

#include <string>
#include <vector>

class MessageCapture {
public:
  MessageCapture() {
    old = ZrMessage::getTheMsg()->setSink([this](const std::string& t) { messages.push_back(t); });
  }
  ~MessageCapture() { ZrMessage::getTheMsg()->setSink(old); }
  // The messages that begin with `prefix`, and how many there are.
  std::vector<std::string> starting(const std::string& prefix) const {
    std::vector<std::string> r;
    for (const std::string& m : messages)
      if (m.compare(0, prefix.size(), prefix) == 0)
        r.push_back(m);
    return r;
  }
  int count(const std::string& prefix) const { return int(starting(prefix).size()); }
  std::vector<std::string> messages;

private:
  ZrMessage::Sink old;
};
