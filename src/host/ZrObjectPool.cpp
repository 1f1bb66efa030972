#include "ZrObjectPool.h"
#include "QbTypeInfo.h"
#include "ZrCompModule.h"
#include "ZrObject.h"

#include <cstring>

ZrObjectPool* ZrObjectPool::getTheObjectPool() {
  // Never destroyed: objects of a package unloaded before exit must not be
  // deleted by a static destructor.
  static ZrObjectPool* pool = new ZrObjectPool;
  return pool;
}

std::string ZrObjectPool::makeUniqueName(const char* name) const {
  std::string base = name ? name : "";
  if (!findObject(base.c_str()))
    return base;
  for (int n = 2;; n++) {
    std::string candidate = base + std::to_string(n);
    if (!findObject(candidate.c_str()))
      return candidate;
  }
}

void ZrObjectPool::addObject(ZrObject* obj) {
  if (!obj || contains(obj))
    return;
  std::string name = obj->getName();
  if (name.empty())
    name = obj->getTypeId()->getName();
  obj->setName(makeUniqueName(name.c_str()).c_str());
  obj->ref();
  objects.append(obj);
  obj->setInPool(true);
  // Values that a module's constructor gave its ports are its defaults, not
  // changes for its first update(). Connections keep their state.
  if (ZrCompModule* m = dynamic_cast<ZrCompModule*>(obj))
    if (!m->hasFired())
      m->untouchPorts(false);
}

void ZrObjectPool::removeObject(ZrObject* obj) {
  int i = objects.index(obj);
  if (i < 0)
    return;
  objects.remove(i);
  obj->setInPool(false);
  obj->unref();
}

ZrObject* ZrObjectPool::findObject(const char* name) const {
  if (!name)
    return nullptr;
  for (ZrObject* o : objects)
    if (std::strcmp(o->getName(), name) == 0)
      return o;
  return nullptr;
}

bool ZrObjectPool::contains(const ZrObject* obj) const {
  for (ZrObject* o : objects)
    if (o == obj)
      return true;
  return false;
}

void ZrObjectPool::clear() {
  // One at a time from the end: an object that dies may take others out of
  // the pool in its destructor.
  while (!objects.isEmpty())
    removeObject(objects.last());
}
