// The run-time type registry: lookup by name, derivation, creation.
#include "QbInterfaceOwner.h"
#include "QbTypeInfo.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

class TypeTestShape : public QbInterfaceOwner {
  QB_TYPE_HEADER(TypeTestShape)
public:
  virtual int corners() const = 0;
};

class TypeTestQuad : public TypeTestShape {
  QB_TYPE_HEADER(TypeTestQuad)
public:
  int corners() const override { return 4; }
  static QbInterfaceOwner* create() { return new TypeTestQuad; }
};

class TypeTestSquare : public TypeTestQuad {
  QB_TYPE_HEADER(TypeTestSquare)
public:
  static QbInterfaceOwner* create() { return new TypeTestSquare; }
};

} // namespace

QB_TYPE_SOURCE(TypeTestShape, QbInterfaceOwner, nullptr)
QB_TYPE_SOURCE(TypeTestQuad, TypeTestShape, TypeTestQuad::create)
QB_TYPE_SOURCE(TypeTestSquare, TypeTestQuad, TypeTestSquare::create)

TEST(QbTypeInfo, RegistryFindsTypesByName) {
  // Registered at load time, before any use of the classes.
  EXPECT_EQ(QbTypeInfo::fromName("TypeTestSquare"), TypeTestSquare::getClassTypeId());
  EXPECT_EQ(QbTypeInfo::fromName("TypeTestShape"), TypeTestShape::getClassTypeId());
  EXPECT_EQ(QbTypeInfo::fromName("QbInterfaceOwner"), QbInterfaceOwner::getClassTypeId());
  EXPECT_EQ(QbTypeInfo::fromName("TypeTestCircle"), nullptr);
  EXPECT_EQ(QbTypeInfo::fromName(nullptr), nullptr);
  EXPECT_STREQ(TypeTestQuad::getClassTypeId()->getName(), "TypeTestQuad");

  // Initialising again registers nothing new.
  const int count = QbTypeInfo::allTypes().size();
  TypeTestShape::initClass();
  TypeTestQuad::initClass();
  TypeTestSquare::initClass();
  EXPECT_EQ(QbTypeInfo::allTypes().size(), count);

  int found = 0;
  for (const QbTypeInfo* t : QbTypeInfo::allTypes())
    if (t == TypeTestShape::getClassTypeId() || t == TypeTestQuad::getClassTypeId() ||
        t == TypeTestSquare::getClassTypeId())
      found++;
  EXPECT_EQ(found, 3);
}

TEST(QbTypeInfo, SecondTypeOfTheSameNameIsNotFoundAndRecordsLeaveOnDestruction) {
  {
    QbTypeInfo duplicate("TypeTestQuad", nullptr, nullptr);
    EXPECT_EQ(QbTypeInfo::fromName("TypeTestQuad"), TypeTestQuad::getClassTypeId());
    QbTypeInfo local("TypeTestLocal", nullptr, QbInterfaceOwner::getClassTypeId());
    EXPECT_EQ(QbTypeInfo::fromName("TypeTestLocal"), &local);
  }
  EXPECT_EQ(QbTypeInfo::fromName("TypeTestLocal"), nullptr);
  EXPECT_EQ(QbTypeInfo::fromName("TypeTestQuad"), TypeTestQuad::getClassTypeId());
}

TEST(QbTypeInfo, DerivationChain) {
  const QbTypeInfo* square = TypeTestSquare::getClassTypeId();
  const QbTypeInfo* quad = TypeTestQuad::getClassTypeId();
  const QbTypeInfo* shape = TypeTestShape::getClassTypeId();
  const QbTypeInfo* root = QbInterfaceOwner::getClassTypeId();
  EXPECT_EQ(square->getParent(), quad);
  EXPECT_EQ(quad->getParent(), shape);
  EXPECT_EQ(shape->getParent(), root);
  EXPECT_EQ(root->getParent(), nullptr);

  EXPECT_TRUE(square->isOfType(square));
  EXPECT_TRUE(square->isOfType(shape));
  EXPECT_TRUE(square->isOfType(root));
  EXPECT_FALSE(quad->isOfType(square));
  EXPECT_FALSE(root->isOfType(shape));
  EXPECT_FALSE(square->isOfType(nullptr));
}

TEST(QbTypeInfo, CreationAndInterfaces) {
  EXPECT_FALSE(TypeTestShape::getClassTypeId()->canCreate());
  EXPECT_EQ(TypeTestShape::getClassTypeId()->createInstance(), nullptr);
  EXPECT_EQ(QbInterfaceOwner::getClassTypeId()->createInstance(), nullptr);

  const QbTypeInfo* byName = QbTypeInfo::fromName("TypeTestSquare");
  ASSERT_NE(byName, nullptr);
  std::unique_ptr<QbInterfaceOwner> obj(byName->createInstance());
  ASSERT_NE(obj, nullptr);
  // The virtual type id is the most derived one.
  EXPECT_EQ(obj->getTypeId(), TypeTestSquare::getClassTypeId());
  EXPECT_TRUE(obj->isOfType(TypeTestQuad::getClassTypeId()));
  auto* shape = dynamic_cast<TypeTestShape*>(obj->getInterface(TypeTestShape::getClassTypeId()));
  ASSERT_NE(shape, nullptr);
  EXPECT_EQ(shape->corners(), 4);

  std::unique_ptr<QbInterfaceOwner> quad(TypeTestQuad::getClassTypeId()->createInstance());
  EXPECT_EQ(quad->getTypeId(), TypeTestQuad::getClassTypeId());
  EXPECT_EQ(quad->getInterface(TypeTestSquare::getClassTypeId()), nullptr);
}
