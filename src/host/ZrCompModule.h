#pragma once
// Base of the compute modules. A module reads data objects through its
// connections, is configured by its ports, and leaves its output as result
// objects in the pool.
//
// The host drives a module through fire(): update() lets the module react to
// what changed (ports and connections report that with their new flags),
// compute() does the work when asked for, and afterwards all new flags and
// button hits are cleared.
#include "QbDArray.h"
#include "ZrConnection.h"
#include "ZrObject.h"

class ZrData;
class ZrPort;

class ZrCompModule : public ZrObject {
  QB_TYPE_HEADER(ZrCompModule)
public:
  // dataType: the type that the data port accepts; null means ZrData.
  explicit ZrCompModule(const QbTypeInfo* dataType = nullptr);
  ~ZrCompModule() override;

  // Reacts to new ports and connections. Empty in the base.
  virtual void update() {}
  // Does the module's work. Empty in the base.
  virtual void compute() {}

  // update(), then compute() if shouldCompute is non-zero, then clears the
  // new flags of all ports and connections, and the button hits when compute()
  // ran. A module that is already being fired is not fired again.
  void fire(int shouldCompute = 1) override;
  bool isFiring() const { return firing; }
  // True once fire() has run.
  bool hasFired() const { return fired; }

  // Ports, connections included, in their order.
  int getNumPorts() const { return ports.size(); }
  ZrPort* getPort(int i) const { return (i >= 0 && i < ports.size()) ? ports[i] : nullptr; }
  // By name; an exact match first, else a case-insensitive one. Null if none.
  ZrPort* getPort(const char* name) const;
  const QbDArray<ZrPort*>& getPorts() const { return ports; }
  // Moves a port: ports are ordered by a key that is their construction
  // index unless moved, so moving to a position beyond the number of ports
  // (say 1000) puts a port last, after every port not moved that far. Ports
  // with equal keys keep their relative order.
  void movePort(ZrPort* port, int position);
  // Clears the new flags of all ports (connections too if withConnections),
  // leaving button hits as they are.
  void untouchPorts(bool withConnections = true);
  // Releases all pressed buttons.
  void clearHits();

  // Result slots. setResult references the object and adds it to the object
  // pool if it is not there; the object it replaces is released (it stays in
  // the pool if it is there). Null empties the slot. id is a tag kept with the
  // result.
  ZrData* getResult(int slot = 0) const;
  unsigned int getResultId(int slot = 0) const;
  void setResult(int slot, ZrData* data, unsigned int id = 0);
  void setResult(ZrData* data) { setResult(0, data); }
  int getNumResults() const { return results.size(); }

  // Maintained by ZrPort's constructor and destructor.
  void addPort(ZrPort* port);
  void removePort(ZrPort* port);

private:
  // Declared before portData, so that it outlives every port of the module.
  QbDArray<ZrPort*> ports;
  int nextPortKey = 0;
  QbDArray<ZrData*> results;
  QbDArray<unsigned int> resultIds;
  bool fired = false;

public:
  // The data port, named "data"; modules may rename and retype it.
  ZrConnection portData;
};
