#include "QbTypeInfo.h"

#include <cstring>
#include <mutex>

namespace {
struct Registry {
  std::mutex mutex;
  QbDArray<const QbTypeInfo*> types;
};
// Function-local so that it exists before any static type record registers.
Registry& registry() {
  static Registry* r = new Registry; // never destroyed: records outlive exit order
  return *r;
}
} // namespace

QbTypeInfo::QbTypeInfo(const char* n, CreateFunction c, const QbTypeInfo* p)
    : name(n), create(c), parent(p) {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.types.append(this);
}

QbTypeInfo::~QbTypeInfo() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  int i = r.types.index(this);
  if (i >= 0)
    r.types.remove(i);
}

bool QbTypeInfo::isOfType(const QbTypeInfo* t) const {
  if (!t)
    return false;
  for (const QbTypeInfo* x = this; x; x = x->parent)
    if (x == t)
      return true;
  return false;
}

const QbTypeInfo* QbTypeInfo::fromName(const char* n) {
  if (!n)
    return nullptr;
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  for (const QbTypeInfo* t : r.types)
    if (std::strcmp(t->name, n) == 0)
      return t;
  return nullptr;
}

QbDArray<const QbTypeInfo*> QbTypeInfo::allTypes() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.types;
}
