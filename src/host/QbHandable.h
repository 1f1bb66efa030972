#pragma once
// Intrusive reference count. An object starts with count 0; unref() deletes it
// when the count falls to 0. Objects never referenced are deleted by hand.
#include <atomic>

class QbHandable {
public:
  QbHandable() = default;
  QbHandable(const QbHandable&) : refCount(0) {}
  QbHandable& operator=(const QbHandable&) { return *this; }
  virtual ~QbHandable() = default;

  void ref() const { refCount.fetch_add(1, std::memory_order_relaxed); }
  void unref() const {
    if (refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
      delete this;
  }
  // Decrement without deleting.
  void unrefNoDelete() const { refCount.fetch_sub(1, std::memory_order_acq_rel); }
  int getRefCount() const { return refCount.load(std::memory_order_relaxed); }

private:
  mutable std::atomic<int> refCount{0};
};
