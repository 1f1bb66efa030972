#pragma once
// A typed input of a compute module: it refers to one object of the pool (its
// source), holds a reference to it, and becomes new when it is connected,
// disconnected, or when its source fires.
#include "QbDArray.h"
#include "ZrPort.h"

class QbTypeInfo;
class ZrObject;

class ZrConnection : public ZrPort {
public:
  // type: the accepted type; null accepts any object.
  ZrConnection(ZrCompModule* owner, const char* name, const QbTypeInfo* type);
  ~ZrConnection() override;

  ZrObject* getSource() const { return src; }
  template <class T> T* source() const { return dynamic_cast<T*>(src); }
  bool isConnected() const { return src != nullptr; }

  // Connects to obj, replacing the present source. Refuses (returns false,
  // changes nothing) an object of none of the accepted types. Null
  // disconnects and returns true.
  bool connect(ZrObject* obj);
  void disconnect();

  // The accepted types: setType replaces them, addType adds one more.
  void setType(const QbTypeInfo* type);
  void addType(const QbTypeInfo* type);
  const QbDArray<const QbTypeInfo*>& getTypes() const { return types; }
  bool accepts(const ZrObject* obj) const;

  // Called by a source that is being destroyed: the connection lets go of it
  // without releasing a reference.
  void sourceDestroyed(ZrObject* obj);

  // The text is the name of an object in the pool; "" or "none" disconnects.
  bool setFromText(const std::string& text, std::string& error) override;
  std::string getValueText() const override;
  std::string toText() const override;
  const char* getKindName() const override { return "connection"; }

private:
  std::string typeNames() const;

  ZrObject* src = nullptr;
  QbDArray<const QbTypeInfo*> types;
};
