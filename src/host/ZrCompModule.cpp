#include "ZrCompModule.h"
#include "ZrData.h"
#include "ZrObjectPool.h"
#include "ZrPort.h"

#include <algorithm>
#include <cstring>
#include <strings.h>

QB_TYPE_SOURCE(ZrCompModule, ZrObject, nullptr)

ZrCompModule::ZrCompModule(const QbTypeInfo* dataType)
    : portData(this, "data", dataType ? dataType : ZrData::getClassTypeId()) {}

ZrCompModule::~ZrCompModule() {
  for (int i = 0; i < results.size(); i++)
    if (results[i]) {
      ZrData* d = results[i];
      results[i] = nullptr;
      d->unref();
    }
}

namespace {
class FlagGuard {
public:
  explicit FlagGuard(bool& f) : flag(f) { flag = true; }
  ~FlagGuard() { flag = false; }
  FlagGuard(const FlagGuard&) = delete;
  FlagGuard& operator=(const FlagGuard&) = delete;

private:
  bool& flag;
};

// Holds a reference for the duration of a call. An object with a count of 0
// is owned by hand and is left alone.
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
} // namespace

void ZrCompModule::fire(int shouldCompute) {
  if (firing)
    return;
  // A module in the pool may be removed from it by its own compute(); it
  // stays alive until this call is over.
  KeepAlive keep(this);
  FlagGuard guard(firing);
  fired = true;
  update();
  if (shouldCompute)
    compute();
  untouchPorts(true);
  // Without a compute() the hits wait for the next run that computes.
  if (shouldCompute)
    clearHits();
}

ZrPort* ZrCompModule::getPort(const char* name) const {
  if (!name)
    return nullptr;
  for (ZrPort* p : ports)
    if (std::strcmp(p->getName(), name) == 0)
      return p;
  for (ZrPort* p : ports)
    if (strcasecmp(p->getName(), name) == 0)
      return p;
  return nullptr;
}

void ZrCompModule::movePort(ZrPort* port, int position) {
  int i = ports.index(port);
  if (i < 0)
    return;
  port->setPositionKey(position);
  // Stable, so that ports of equal keys keep their order; the moved port
  // goes behind those that already had its key.
  ports.remove(i);
  int j = 0;
  while (j < ports.size() && ports[j]->getPosition() <= position)
    j++;
  ports.insert(j, port);
}

void ZrCompModule::untouchPorts(bool withConnections) {
  for (ZrPort* p : ports)
    if (withConnections || !dynamic_cast<ZrConnection*>(p))
      p->untouch();
}

void ZrCompModule::clearHits() {
  for (ZrPort* p : ports)
    p->clearHits();
}

ZrData* ZrCompModule::getResult(int slot) const {
  return (slot >= 0 && slot < results.size()) ? results[slot] : nullptr;
}

unsigned int ZrCompModule::getResultId(int slot) const {
  return (slot >= 0 && slot < resultIds.size()) ? resultIds[slot] : 0;
}

void ZrCompModule::setResult(int slot, ZrData* data, unsigned int id) {
  if (slot < 0)
    return;
  if (slot >= results.size()) {
    if (!data)
      return;
    results.resize(slot + 1);
    resultIds.resize(slot + 1);
  }
  resultIds[slot] = id;
  ZrData* old = results[slot];
  if (old == data)
    return;
  if (data) {
    data->ref();
    if (!data->isInPool())
      ZrObjectPool::getTheObjectPool()->addObject(data);
  }
  results[slot] = data;
  if (old)
    old->unref();
}

void ZrCompModule::addPort(ZrPort* port) {
  if (!port || ports.index(port) >= 0)
    return;
  port->setPositionKey(nextPortKey++);
  // Behind every port whose key is not larger: a new port joins the end,
  // but stays ahead of ports moved far back.
  int j = 0;
  while (j < ports.size() && ports[j]->getPosition() <= port->getPosition())
    j++;
  ports.insert(j, port);
}

void ZrCompModule::removePort(ZrPort* port) {
  int i = ports.index(port);
  if (i >= 0)
    ports.remove(i);
}
