#include "QbInterfaceOwner.h"
#include "QbTypeInfo.h"

QbTypeInfo* QbInterfaceOwner::getClassTypeId() {
  static QbTypeInfo typeInfo("QbInterfaceOwner", nullptr, nullptr);
  return &typeInfo;
}

QbTypeInfo* QbInterfaceOwner::getTypeId() const { return getClassTypeId(); }

QbInterfaceOwner* QbInterfaceOwner::getInterface(const QbTypeInfo* t) {
  return isOfType(t) ? this : nullptr;
}

bool QbInterfaceOwner::isOfType(const QbTypeInfo* t) const { return getTypeId()->isOfType(t); }

static QbTypeInfo* qb_type_object_init_dummyQbInterfaceOwner = QbInterfaceOwner::getClassTypeId();
