// The run-time type registry: lookup by name, a second type of a taken name,
// derivation, creation and interfaces.
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

TEST(QbTypeInfo, RegistryDerivationAndCreation) {
  // Registered at load time, before any use of the classes; initialising
  // again registers nothing new.
  const QbTypeInfo* square = TypeTestSquare::getClassTypeId();
  const QbTypeInfo* quad = TypeTestQuad::getClassTypeId();
  const QbTypeInfo* shape = TypeTestShape::getClassTypeId();
  const QbTypeInfo* root = QbInterfaceOwner::getClassTypeId();
  EXPECT_EQ(QbTypeInfo::fromName("TypeTestSquare"), square);
  EXPECT_EQ(QbTypeInfo::fromName("TypeTestCircle"), nullptr);
  EXPECT_EQ(QbTypeInfo::fromName(nullptr), nullptr);
  const int count = QbTypeInfo::allTypes().size();
  TypeTestShape::initClass();
  TypeTestQuad::initClass();
  TypeTestSquare::initClass();
  EXPECT_EQ(QbTypeInfo::allTypes().size(), count);
  {
    // A second type of a taken name is not found; a record leaves the
    // registry with its life.
    QbTypeInfo duplicate("TypeTestQuad", nullptr, nullptr);
    EXPECT_EQ(QbTypeInfo::fromName("TypeTestQuad"), quad);
    QbTypeInfo local("TypeTestLocal", nullptr, root);
    EXPECT_EQ(QbTypeInfo::fromName("TypeTestLocal"), &local);
  }
  EXPECT_EQ(QbTypeInfo::fromName("TypeTestLocal"), nullptr);
  EXPECT_EQ(QbTypeInfo::fromName("TypeTestQuad"), quad);

  EXPECT_EQ(square->getParent(), quad);
  EXPECT_EQ(root->getParent(), nullptr);
  EXPECT_TRUE(square->isOfType(shape));
  EXPECT_TRUE(square->isOfType(root));
  EXPECT_FALSE(quad->isOfType(square));
  EXPECT_FALSE(square->isOfType(nullptr));

  EXPECT_FALSE(shape->canCreate());
  EXPECT_EQ(shape->createInstance(), nullptr);
  std::unique_ptr<QbInterfaceOwner> obj(square->createInstance());
  ASSERT_NE(obj, nullptr);
  EXPECT_EQ(obj->getTypeId(), square); // the most derived one
  auto* s = dynamic_cast<TypeTestShape*>(obj->getInterface(shape));
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(s->corners(), 4);
  std::unique_ptr<QbInterfaceOwner> q(quad->createInstance());
  EXPECT_EQ(q->getInterface(square), nullptr);
}
