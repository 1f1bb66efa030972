#include "ZrObject.h"
#include "ZrCompModule.h"
#include "ZrConnection.h"

QB_TYPE_SOURCE(ZrObject, QbInterfaceOwner, nullptr)

ZrObject::ZrObject() = default;

ZrObject::ZrObject(const ZrObject& o)
    : QbHandable(o), QbInterfaceOwner(o), name(o.name), iconVisible(o.iconVisible),
      touchMask(o.touchMask) {}

ZrObject& ZrObject::operator=(const ZrObject& o) {
  if (this != &o) {
    name = o.name;
    iconVisible = o.iconVisible;
    touchMask = o.touchMask;
  }
  return *this;
}

ZrObject::~ZrObject() {
  // Connections still reading this object let go of it; they hold no
  // reference any more that could be released.
  while (!downstream.isEmpty()) {
    ZrConnection* c = downstream.last();
    downstream.remove(downstream.size() - 1);
    c->sourceDestroyed(this);
  }
}

void ZrObject::setName(const char* newName) { name = newName ? newName : ""; }

void ZrObject::addDownstream(ZrConnection* c) {
  if (c && downstream.index(c) < 0)
    downstream.append(c);
}

void ZrObject::removeDownstream(ZrConnection* c) {
  int i = downstream.index(c);
  if (i >= 0)
    downstream.remove(i);
}

namespace {
// Holds a reference for the duration of a call, for objects that are
// reference counted at all (a count of 0 means the object is owned by hand,
// and taking and dropping a reference would delete it).
class KeepAlive {
public:
  explicit KeepAlive(const QbHandable* o) : obj(o && o->getRefCount() > 0 ? o : nullptr) {
    if (obj)
      obj->ref();
  }
  ~KeepAlive() {
    if (obj)
      obj->unref();
  }
  KeepAlive(const KeepAlive&) = delete;
  KeepAlive& operator=(const KeepAlive&) = delete;

private:
  const QbHandable* obj;
};

class FiringGuard {
public:
  explicit FiringGuard(bool& f) : flag(f) { flag = true; }
  ~FiringGuard() { flag = false; }
  FiringGuard(const FiringGuard&) = delete;
  FiringGuard& operator=(const FiringGuard&) = delete;

private:
  bool& flag;
};
} // namespace

void ZrObject::fire(int shouldCompute) {
  if (firing)
    return;
  KeepAlive keep(this);
  FiringGuard guard(firing);

  // Mark every reading connection first, so that a module reading this
  // object through several connections sees all of them new, and runs once.
  QbDArray<ZrConnection*> conns = downstream;
  QbDArray<ZrCompModule*> modules;
  for (ZrConnection* c : conns) {
    c->touch();
    ZrCompModule* m = c->getOwner();
    if (m && modules.index(m) < 0)
      modules.append(m);
  }
  for (ZrCompModule* m : modules) {
    // A module may have dropped its connection to this object, or died,
    // while an earlier one ran.
    bool stillReading = false;
    for (ZrConnection* c : downstream)
      if (c->getOwner() == m)
        stillReading = true;
    if (!stillReading)
      continue;
    KeepAlive keepModule(m);
    m->fire(shouldCompute);
  }
  untouch();
}
