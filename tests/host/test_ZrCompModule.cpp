// Compute modules: loops of firing, connections holding their sources, and
// a module removed during its own compute.
#include "ZrCompModule.h"
#include "ZrData.h"
#include "ZrObjectPool.h"

#include <gtest/gtest.h>

// A data type of the tests.
class TestField : public ZrData {
  QB_TYPE_HEADER(TestField)
public:
  ~TestField() override { deaths++; }
  static int deaths;
};
int TestField::deaths = 0;
QB_TYPE_SOURCE(TestField, ZrData, nullptr)

namespace {

// Counts its update() and compute() calls.
class TestModule : public ZrCompModule {
public:
  TestModule() : ZrCompModule(TestField::getClassTypeId()) {}
  void update() override { updates++; }
  void compute() override {
    computes++;
    if (onCompute)
      onCompute(this);
  }
  int updates = 0, computes = 0;
  void (*onCompute)(TestModule*) = nullptr;
};

class ModuleTest : public ::testing::Test {
protected:
  void TearDown() override { ZrObjectPool::getTheObjectPool()->clear(); }
};

} // namespace

TEST_F(ModuleTest, LoopsOfFiringEndAtTheFiringObject) {
  // The module's compute fires the very object it reads: the second fire is
  // ignored instead of recursing.
  TestModule m;
  TestField* field = new TestField;
  field->ref();
  m.portData.connect(field);
  m.onCompute = [](TestModule* self) { self->portData.getSource()->fire(1); };
  field->fire(1);
  EXPECT_EQ(m.computes, 1);
  EXPECT_EQ(m.updates, 1);
  // And the module firing itself from compute() does nothing either.
  m.onCompute = [](TestModule* self) { self->fire(1); };
  m.fire(1);
  EXPECT_EQ(m.computes, 2);
  m.portData.disconnect();
  field->unref();
}

TEST_F(ModuleTest, ConnectionsHoldTheirSourcesAlive) {
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  TestField::deaths = 0;
  TestModule m;
  TestField* field = new TestField;
  pool->addObject(field);
  m.portData.connect(field);
  pool->removeObject(field);
  EXPECT_EQ(TestField::deaths, 0);
  EXPECT_EQ(m.portData.getSource(), field);
  m.portData.disconnect();
  EXPECT_EQ(TestField::deaths, 1);
  EXPECT_TRUE(m.portData.isNew());

  // An object destroyed by hand leaves its readers disconnected.
  TestField* byHand = new TestField;
  m.portData.connect(byHand);
  m.portData.untouch();
  byHand->unrefNoDelete();
  delete byHand;
  EXPECT_EQ(m.portData.getSource(), nullptr);
  EXPECT_TRUE(m.portData.isNew());

  // A module's connections release their sources when it dies.
  TestField* held = new TestField;
  pool->addObject(held);
  {
    TestModule reader;
    reader.portData.connect(held);
    EXPECT_EQ(held->getRefCount(), 2);
  }
  EXPECT_EQ(held->getRefCount(), 1);
}

TEST_F(ModuleTest, ModuleRemovedDuringItsOwnComputeSurvivesTheCall) {
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
  TestModule* m = new TestModule;
  pool->addObject(m);
  m->onCompute = [](TestModule* self) { ZrObjectPool::getTheObjectPool()->removeObject(self); };
  m->fire(1); // must not touch freed memory (checked under sanitizers)
  EXPECT_EQ(pool->getNumObjects(), 0);
}
