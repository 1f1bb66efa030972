#include "ZrThread.h"

#include <system_error>

ZrThread::~ZrThread() {
  if (thread.joinable())
    thread.join();
}

bool ZrThread::start() {
  if (thread.joinable())
    return false;
  error = nullptr;
  try {
    thread = std::thread([this] {
      try {
        run();
      } catch (...) {
        error = std::current_exception();
      }
    });
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void ZrThread::wait() {
  if (!thread.joinable())
    return;
  thread.join();
  if (error) {
    std::exception_ptr e = error;
    error = nullptr;
    std::rethrow_exception(e);
  }
}
