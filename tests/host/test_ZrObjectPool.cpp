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
  Counted* add(const char* name = nullptr) {
    Counted* c = new Counted(name);
    pool->addObject(c);
    return c;
  }
  ZrObjectPool* pool = ZrObjectPool::getTheObjectPool();
};

} // namespace

TEST_F(PoolTest, NamesAreMadeUnique) {
  Counted *a = add("Control-points"), *b = add("Control-points"), *c = add("Control-points");
  Counted *unnamed = add(), *unnamed2 = add();
  EXPECT_STREQ(a->getName(), "Control-points");
  EXPECT_STREQ(b->getName(), "Control-points2");
  EXPECT_STREQ(c->getName(), "Control-points3");
  EXPECT_STREQ(unnamed->getName(), "Counted");
  EXPECT_STREQ(unnamed2->getName(), "Counted2");
  EXPECT_EQ(pool->findObject("Control-points2"), b);
  EXPECT_EQ(pool->findObject("control-points2"), nullptr); // names are exact

  // A freed name is given out again, the first free number is taken.
  pool->removeObject(b);
  Counted* d = add("Control-points");
  EXPECT_STREQ(d->getName(), "Control-points2");
  EXPECT_EQ(pool->makeUniqueName("Control-points"), "Control-points4");
  // Adding twice changes nothing.
  pool->addObject(d);
  EXPECT_EQ(pool->getNumObjects(), 5);
  EXPECT_EQ(d->getRefCount(), 1);
  EXPECT_STREQ(d->getName(), "Control-points2");

  // A copy is outside the pool and gets a name of its own on entering it.
  a->hideIcon();
  Counted* copy = new Counted(*a);
  EXPECT_FALSE(copy->isIconVisible());
  EXPECT_FALSE(copy->isInPool());
  EXPECT_EQ(copy->getRefCount(), 0);
  pool->addObject(copy);
  EXPECT_STREQ(copy->getName(), "Control-points4");
}

TEST_F(PoolTest, RemovalAndClearDropThePoolsReference) {
  // Someone else holds a reference: the object leaves the pool but lives.
  Counted* a = add("a");
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
  pool->removeObject(add("b"));
  EXPECT_EQ(Counted::deaths, 2);

  for (int i = 0; i < 10; i++)
    add("x");
  Counted* kept = add("kept");
  kept->ref();
  pool->clear();
  EXPECT_EQ(pool->getNumObjects(), 0);
  EXPECT_EQ(Counted::deaths, 12);
  EXPECT_EQ(kept->getRefCount(), 1);
  EXPECT_FALSE(kept->isInPool());
  kept->unref();
}
