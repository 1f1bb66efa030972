#pragma once
// Root of the host's typed objects: a type id and the interface query.
class QbTypeInfo;

class QbInterfaceOwner {
public:
  virtual ~QbInterfaceOwner() = default;
  static QbTypeInfo* getClassTypeId();
  virtual QbTypeInfo* getTypeId() const;
  // This object as an owner of the interface of type t, or null when it does
  // not offer it. The default offers every type the object is of; classes
  // override it to offer more or fewer. Cast the result with dynamic_cast.
  virtual QbInterfaceOwner* getInterface(const QbTypeInfo* t);
  bool isOfType(const QbTypeInfo* t) const;
};
