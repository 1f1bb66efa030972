#pragma once
// Base of everything that can live in the object pool: data objects and
// modules. An object has a name, an icon that is shown or hidden, a record of
// changes (touch), and the connections of modules that read it.
#include "QbDArray.h"
#include "QbHandable.h"
#include "QbInterfaceOwner.h"
#include "QbTypeInfo.h"
#include <string>

class ZrConnection;

class ZrObject : public QbHandable, public QbInterfaceOwner {
  QB_TYPE_HEADER(ZrObject)
public:
  ZrObject();
  // A copy has the name, icon state and touch state of the original, but is in
  // no pool, is read by no connection and has a reference count of 0.
  ZrObject(const ZrObject& o);
  // Copies name, icon state and touch state; pool membership and downstream
  // connections stay those of this object.
  ZrObject& operator=(const ZrObject& o);
  ~ZrObject() override;

  const char* getName() const { return name.c_str(); }
  // Sets the name as given; the pool makes names unique when it adds an object.
  virtual void setName(const char* newName);
  void setLabel(const char* newName) { setName(newName); }

  void showIcon() { iconVisible = true; }
  void hideIcon() { iconVisible = false; }
  bool isIconVisible() const { return iconVisible; }

  // Records a change: mask bits are or-ed into the touch state (-1 all).
  void touch(unsigned int mask = 0xffffffffu) { touchMask |= mask; }
  // Clears the touch state.
  void untouch(bool all = true) { touchMask = 0; }
  bool isNew() const { return touchMask != 0; }
  unsigned int getTouchMask() const { return touchMask; }

  // Tells the modules that read this object that it changed: each of their
  // connections to it becomes new, and each such module's update() runs, and
  // its compute() too when shouldCompute is non-zero. Then untouches.
  virtual void fire(int shouldCompute = 1);

  // A copy, owned by the caller, or null for objects that cannot be copied.
  virtual ZrObject* duplicate() const { return nullptr; }

  bool isInPool() const { return inPool; }

  // Maintained by ZrConnection and ZrObjectPool.
  void addDownstream(ZrConnection* c);
  void removeDownstream(ZrConnection* c);
  const QbDArray<ZrConnection*>& getDownstream() const { return downstream; }
  void setInPool(bool b) { inPool = b; }

protected:
  std::string name;
  bool iconVisible = true;
  bool inPool = false;
  unsigned int touchMask = 0;
  QbDArray<ZrConnection*> downstream;
  // Set while fire() runs, so that a loop of connections back to this object
  // does not fire it again.
  bool firing = false;
};
