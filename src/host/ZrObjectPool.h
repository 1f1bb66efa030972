#pragma once
// The object pool: every data object and module the user works with. The pool
// holds a reference to each object and keeps names unique.
#include "QbDArray.h"
#include <string>

class ZrObject;

class ZrObjectPool {
public:
  static ZrObjectPool* getTheObjectPool();

  // Adds obj and references it. A name that is empty or taken is made unique:
  // an empty name becomes the class name, and a number (2, 3, ...) is appended
  // to a taken one. A module that has never run enters with its ports
  // untouched, so that defaults set by its constructor do not count as
  // changes. Adding an object twice does nothing.
  void addObject(ZrObject* obj);
  // Takes obj out and drops the pool's reference: the object dies unless a
  // connection or a module still references it.
  void removeObject(ZrObject* obj);
  // The object of that name, or null.
  ZrObject* findObject(const char* name) const;
  bool contains(const ZrObject* obj) const;

  int getNumObjects() const { return objects.size(); }
  ZrObject* getObject(int i) const { return objects[i]; }
  const QbDArray<ZrObject*>& getObjects() const { return objects; }

  // Removes every object, the latest added first.
  void clear();

  // name if no object bears it, else name with the first free number
  // appended.
  std::string makeUniqueName(const char* name) const;

private:
  ZrObjectPool() = default;
  QbDArray<ZrObject*> objects;
};
