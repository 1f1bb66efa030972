// Compute modules: how the host drives them (update, compute, new flags,
// button hits), firing from data objects and connections.
#include "ZrCompModule.h"
#include "ZrData.h"
#include "ZrObjectPool.h"
#include "ZrPortButtonList.h"
#include "ZrPortFloatTextN.h"
#include "ZrPortMultiMenu.h"
#include "ZrPortToggleList.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

// Data types of the tests.
class TestField : public ZrData {
  QB_TYPE_HEADER(TestField)
public:
  ~TestField() override { deaths++; }
  static int deaths;
};
int TestField::deaths = 0;
QB_TYPE_SOURCE(TestField, ZrData, nullptr)

class TestLabelField : public TestField {
  QB_TYPE_HEADER(TestLabelField)
};
QB_TYPE_SOURCE(TestLabelField, TestField, nullptr)

class TestPoints : public ZrData {
  QB_TYPE_HEADER(TestPoints)
};
QB_TYPE_SOURCE(TestPoints, ZrData, nullptr)

namespace {

// Records what it saw in each update() and compute().
class TestModule : public ZrCompModule {
public:
  TestModule()
      : ZrCompModule(TestField::getClassTypeId()), portReference(this, "reference", nullptr),
        portStep(this, "step", 2), portOptions(this, "options", 1), portAction(this, "action", 2) {
    portData.setName("model");
    portReference.setType(TestField::getClassTypeId());
    portAction.setLabel(0, "Apply");
    portAction.setLabel(1, "Reset");
    portStep.setValue(0, 50.0f);
  }

  void update() override {
    updates++;
    std::string s;
    if (portData.isNew())
      s += "model ";
    if (portReference.isNew())
      s += "reference ";
    if (portStep.isNew())
      s += "step ";
    if (portAction.isNew())
      s += "action ";
    seen.push_back(s);
    // update() may set ports; they are new until the run is over.
    if (portData.isNew())
      portStep.setValue(1, 2.0f);
  }
  void compute() override {
    computes++;
    if (portAction.wasHit(0))
      applies++;
    if (onCompute)
      onCompute(this);
  }

  ZrConnection portReference;
  ZrPortFloatTextN portStep;
  ZrPortToggleList portOptions;
  ZrPortButtonList portAction;
  int updates = 0, computes = 0, applies = 0;
  std::vector<std::string> seen;
  void (*onCompute)(TestModule*) = nullptr;
};

class ModuleTest : public ::testing::Test {
protected:
  void TearDown() override { ZrObjectPool::getTheObjectPool()->clear(); }
};

} // namespace

TEST_F(ModuleTest, FireRunsUpdateAndComputeThenClearsFlagsAndHits) {
  TestModule m;
  m.portAction.hit(0);
  m.portStep.setValue(0, 1.0f);
  EXPECT_TRUE(m.portStep.isNew());

  m.fire(1);
  EXPECT_EQ(m.updates, 1);
  EXPECT_EQ(m.computes, 1);
  EXPECT_EQ(m.applies, 1);
  EXPECT_EQ(m.seen.back(), "step action ");
  EXPECT_FALSE(m.portStep.isNew());
  EXPECT_FALSE(m.portAction.isNew());
  EXPECT_FALSE(m.portAction.wasHit(0));

  // Without compute the hit survives, the flags do not.
  m.portAction.hit(0);
  m.fire(0);
  EXPECT_EQ(m.computes, 1);
  EXPECT_FALSE(m.portAction.isNew());
  EXPECT_TRUE(m.portAction.wasHit(0));
  m.fire(1);
  EXPECT_EQ(m.applies, 2);
  EXPECT_EQ(m.seen.back(), "");

  // A snapped button applies on every computing run.
  m.portAction.setSnap(0, true);
  m.fire(1);
  m.fire(1);
  EXPECT_EQ(m.applies, 4);
}

TEST_F(ModuleTest, FiringDataUpdatesTheModulesThatReadIt) {
  TestModule a, b;
  TestField* field = new TestField;
  field->ref(); // owned by the test
  ASSERT_TRUE(a.portData.connect(field));
  ASSERT_TRUE(b.portData.connect(field));
  ASSERT_TRUE(b.portReference.connect(field));
  a.fire(0);
  b.fire(0);
  // Outside the pool, the value the constructor set counts as new.
  EXPECT_EQ(a.seen.back(), "model step ");
  EXPECT_EQ(a.portStep.getValue(1), 2.0f);
  a.portStep.setValue(1, 3.0f);
  a.fire(0);

  field->touch();
  field->fire(0);
  // Each reader ran once, saw the connections to the field new, and did not
  // compute.
  EXPECT_EQ(a.updates, 3);
  EXPECT_EQ(b.updates, 2);
  EXPECT_EQ(a.seen.back(), "model ");
  EXPECT_EQ(b.seen.back(), "model reference ");
  EXPECT_EQ(a.computes, 0);
  EXPECT_FALSE(a.portData.isNew());
  EXPECT_FALSE(field->isNew());

  a.portAction.hit(0);
  field->fire(1);
  EXPECT_EQ(a.applies, 1);
  EXPECT_EQ(b.computes, 1);

  // A reader that disconnects is no longer told.
  b.portData.disconnect();
  b.portReference.disconnect();
  field->fire(1);
  EXPECT_EQ(b.updates, 3);
  EXPECT_EQ(a.updates, 5);
  a.portData.disconnect();
  field->unref();
}

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
