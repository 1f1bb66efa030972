#include "ZrConnection.h"
#include "QbTypeInfo.h"
#include "ZrObject.h"
#include "ZrObjectPool.h"

ZrConnection::ZrConnection(ZrCompModule* owner, const char* name, const QbTypeInfo* type)
    : ZrPort(owner, name, 0) {
  if (type)
    types.append(type);
}

ZrConnection::~ZrConnection() { disconnect(); }

bool ZrConnection::accepts(const ZrObject* obj) const {
  if (!obj)
    return false;
  if (types.isEmpty())
    return true;
  for (const QbTypeInfo* t : types)
    if (obj->isOfType(t))
      return true;
  return false;
}

bool ZrConnection::connect(ZrObject* obj) {
  if (!obj) {
    disconnect();
    return true;
  }
  if (!accepts(obj))
    return false;
  // Reference the new source before releasing the old one, which may be the
  // same object.
  obj->ref();
  disconnect();
  src = obj;
  src->addDownstream(this);
  touch();
  return true;
}

void ZrConnection::disconnect() {
  if (!src)
    return;
  ZrObject* old = src;
  src = nullptr;
  old->removeDownstream(this);
  touch();
  old->unref();
}

void ZrConnection::sourceDestroyed(ZrObject* obj) {
  if (obj != src)
    return;
  src = nullptr;
  touch();
}

void ZrConnection::setType(const QbTypeInfo* type) {
  types.clear();
  if (type)
    types.append(type);
}

void ZrConnection::addType(const QbTypeInfo* type) {
  if (type && types.index(type) < 0)
    types.append(type);
}

std::string ZrConnection::typeNames() const {
  if (types.isEmpty())
    return "any object";
  std::string s;
  for (int i = 0; i < types.size(); i++) {
    if (i)
      s += i + 1 == types.size() ? " or " : ", ";
    s += types[i]->getName();
  }
  return s;
}

bool ZrConnection::setFromText(const std::string& text, std::string& error) {
  std::string t = trim(text);
  if (t.empty() || lower(t) == "none") {
    disconnect();
    return true;
  }
  ZrObject* obj = ZrObjectPool::getTheObjectPool()->findObject(t.c_str());
  if (!obj) {
    error = portRef() + ": there is no object named '" + t + "'";
    return false;
  }
  if (!accepts(obj)) {
    error =
        portRef() + " accepts " + typeNames() + "; '" + t + "' is a " + obj->getTypeId()->getName();
    return false;
  }
  connect(obj);
  return true;
}

std::string ZrConnection::getValueText() const { return src ? src->getName() : std::string(); }

std::string ZrConnection::toText() const {
  std::string s = std::string(getName()) + ": connection to " + typeNames();
  if (*getLabel())
    s += std::string(" \"") + getLabel() + "\"";
  s += " = " + (src ? std::string(src->getName()) : std::string("none"));
  if (!isVisible())
    s += " (hidden)";
  return s + "\n";
}
