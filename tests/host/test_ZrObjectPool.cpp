// The object pool: unique names, references, removal and clearing.
#include "ZrData.h"
#include "ZrObjectPool.h"

#include <gtest/gtest.h>

class Counted : public ZrData {
  QB_TYPE_HEADER(Counted)
public:
  explicit Counted(const char* name = nullptr) {
    if (name)
      setName(name);
  }
  ~Counted() override { deaths++; }
  static int deaths;
};
int Counted::deaths = 0;
QB_TYPE_SOURCE(Counted, ZrData, nullptr)

namespace {

class PoolTest : public ::testing::Test {
protected:
  void SetUp() override { Counted::deaths = 0; }
  void TearDown() override { pool->clear(); }
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
};

} // namespace

TEST_F(PoolTest, NamesAreMadeUnique) {
  EXPECT_EQ(ZrObjectPool::getTheObjectPool(), pool);
  Counted* a = new Counted("Control-points");
  Counted* b = new Counted("Control-points");
  Counted* c = new Counted("Control-points");
  Counted* unnamed = new Counted;
  Counted* unnamed2 = new Counted;
  pool->addObject(a);
  pool->addObject(b);
  pool->addObject(c);
  pool->addObject(unnamed);
  pool->addObject(unnamed2);
  EXPECT_STREQ(a->getName(), "Control-points");
  EXPECT_STREQ(b->getName(), "Control-points2");
  EXPECT_STREQ(c->getName(), "Control-points3");
  EXPECT_STREQ(unnamed->getName(), "Counted");
  EXPECT_STREQ(unnamed2->getName(), "Counted2");

  EXPECT_EQ(pool->findObject("Control-points2"), b);
  EXPECT_EQ(pool->findObject("control-points2"), nullptr); // names are exact
  EXPECT_EQ(pool->findObject(nullptr), nullptr);
  ASSERT_EQ(pool->getNumObjects(), 5);
  EXPECT_EQ(pool->getObject(3), unnamed);

  // A freed name is given out again, the first free number is taken.
  pool->removeObject(b);
  Counted* d = new Counted("Control-points");
  pool->addObject(d);
  EXPECT_STREQ(d->getName(), "Control-points2");
  EXPECT_EQ(pool->makeUniqueName("Control-points"), "Control-points4");
  EXPECT_EQ(pool->makeUniqueName("fresh"), "fresh");

  // Adding twice changes nothing.
  pool->addObject(d);
  EXPECT_EQ(pool->getNumObjects(), 5);
  EXPECT_EQ(d->getRefCount(), 1);
  EXPECT_STREQ(d->getName(), "Control-points2");
}

TEST_F(PoolTest, RemovalDropsThePoolsReference) {
  Counted* a = new Counted("a");
  pool->addObject(a);
  EXPECT_TRUE(a->isInPool());
  EXPECT_EQ(a->getRefCount(), 1);

  // Someone else holds a reference: the object leaves the pool but lives.
  a->ref();
  pool->removeObject(a);
  EXPECT_FALSE(a->isInPool());
  EXPECT_FALSE(pool->contains(a));
  EXPECT_EQ(Counted::deaths, 0);
  pool->removeObject(a); // not in the pool: nothing happens
  EXPECT_EQ(a->getRefCount(), 1);
  a->unref();
  EXPECT_EQ(Counted::deaths, 1);

  // The pool's reference alone: removal kills.
  Counted* b = new Counted("b");
  pool->addObject(b);
  pool->removeObject(b);
  EXPECT_EQ(Counted::deaths, 2);
  pool->addObject(nullptr);
  pool->removeObject(nullptr);
}

TEST_F(PoolTest, ClearRemovesEverything) {
  for (int i = 0; i < 10; i++)
    pool->addObject(new Counted("x"));
  Counted* kept = new Counted("kept");
  kept->ref();
  pool->addObject(kept);
  EXPECT_EQ(pool->getNumObjects(), 11);
  pool->clear();
  EXPECT_EQ(pool->getNumObjects(), 0);
  EXPECT_EQ(Counted::deaths, 10);
  EXPECT_EQ(kept->getRefCount(), 1);
  EXPECT_FALSE(kept->isInPool());
  kept->unref();
}

TEST_F(PoolTest, DuplicatesAreOutsideThePool) {
  Counted* a = new Counted("orig");
  pool->addObject(a);
  a->hideIcon();
  a->touch(2);
  Counted* copy = new Counted(*a);
  EXPECT_STREQ(copy->getName(), "orig");
  EXPECT_FALSE(copy->isIconVisible());
  EXPECT_EQ(copy->getTouchMask(), 2u);
  EXPECT_FALSE(copy->isInPool());
  EXPECT_EQ(copy->getRefCount(), 0);
  EXPECT_TRUE(copy->getDownstream().isEmpty());
  pool->addObject(copy);
  EXPECT_STREQ(copy->getName(), "orig2");
}
