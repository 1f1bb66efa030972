#pragma once
// A thread of its own for a piece of work: derive, put the work in run(),
// call start() and later wait(). A derived class must wait() before it is
// destroyed; the base destructor only waits as a last resort, when the
// derived part is already gone.
#include <exception>
#include <thread>

class ZrThread {
public:
  ZrThread() = default;
  virtual ~ZrThread();
  ZrThread(const ZrThread&) = delete;
  ZrThread& operator=(const ZrThread&) = delete;

  // Runs run() on a new thread. False if the thread is already started and
  // not waited for, or if no thread could be made.
  bool start();
  // Blocks until run() has returned. An exception that left run() is thrown
  // here. Does nothing if the thread was not started.
  void wait();
  // Started and not yet waited for.
  bool isStarted() const { return thread.joinable(); }

protected:
  virtual void run() = 0;

private:
  std::thread thread;
  std::exception_ptr error;
};
