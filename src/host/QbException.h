#pragma once
// Exception of the utility library, with a message.
#include <exception>
#include <string>

class QbException : public std::exception {
public:
  explicit QbException(std::string message) : msg(std::move(message)) {}
  const char* what() const noexcept override { return msg.c_str(); }

private:
  std::string msg;
};
