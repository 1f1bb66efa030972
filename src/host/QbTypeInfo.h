#pragma once
// Run-time type record of the host: a class name, a creation function, the
// parent type, and a registry that finds a type by its name.
#include "QbDArray.h"

class QbInterfaceOwner;

class QbTypeInfo {
public:
  typedef QbInterfaceOwner* (*CreateFunction)();

  // Registers the type under its name. A second type of the same name is kept
  // but not found by name.
  QbTypeInfo(const char* name, CreateFunction create, const QbTypeInfo* parent);
  ~QbTypeInfo();
  QbTypeInfo(const QbTypeInfo&) = delete;
  QbTypeInfo& operator=(const QbTypeInfo&) = delete;

  const char* getName() const { return name; }
  const QbTypeInfo* getParent() const { return parent; }
  // True if this type is t or derives from it.
  bool isOfType(const QbTypeInfo* t) const;
  // A new object of the type, or null for an abstract type.
  QbInterfaceOwner* createInstance() const { return create ? create() : nullptr; }
  bool canCreate() const { return create != nullptr; }

  // The registered type of that name, or null.
  static const QbTypeInfo* fromName(const char* name);
  // All registered types, in order of registration.
  static QbDArray<const QbTypeInfo*> allTypes();

private:
  const char* name;
  CreateFunction create;
  const QbTypeInfo* parent;
};

// Declares the type operations in a class body. getTypeId is virtual through
// QbInterfaceOwner.
#define QB_TYPE_HEADER(cls)                                                                        \
public:                                                                                            \
  static QbTypeInfo* getClassTypeId();                                                             \
  QbTypeInfo* getTypeId() const override;                                                          \
  static void initClass();                                                                         \
                                                                                                   \
private:

// Defines them in the class's source file; createFn is null for an abstract
// class. The file-scope variable makes the type exist once the library loads.
#define QB_TYPE_SOURCE(cls, parent, createFn)                                                      \
  QbTypeInfo* cls::getClassTypeId() {                                                              \
    static QbTypeInfo typeInfo(#cls, createFn, parent::getClassTypeId());                          \
    return &typeInfo;                                                                              \
  }                                                                                                \
  QbTypeInfo* cls::getTypeId() const { return getClassTypeId(); }                                  \
  void cls::initClass() { getClassTypeId(); }                                                      \
  static QbTypeInfo* qb_type_object_init_dummy##cls = cls::getClassTypeId();
