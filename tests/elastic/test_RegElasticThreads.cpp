// The gradient workers, made and run directly: with the processor count
// raised by hand, createThreads() builds them and the gradient goes through
// them, and it must equal the serial loop's entry for entry.
#include "ElasticTestSupport.h"

#include "RegElasticFunctionalRegularThread.h"
#include "RegElasticFunctionalThread.h"

#include <gtest/gtest.h>

using namespace elastictest;

namespace {

struct ThreadCase {
  bool twoD;
  bool regular;
  MetricKind kind;
  float energyWeight, jacobianWeight;
  int workers;
};

class ElasticThreads : public ::testing::TestWithParam<ThreadCase> {};

TEST_P(ElasticThreads, WorkersGiveTheSerialGradient) {
  const ThreadCase c = GetParam();
  ElasticSetup s;
  s.build(c.twoD, c.regular, c.kind, 6, 0.2, c.energyWeight, c.jacobianWeight);
  RegElasticFunctional& f = *s.functional;
  // The processor count is the constant 1: no worker exists.
  EXPECT_EQ(1, f.getNumberOfProcessors());
  EXPECT_EQ(0, f.threads.size());
  QbDVector<double>& p = s.transform->paramVector;
  const QbDVector<double> start = p;
  for (int keepAll : {1, 0}) {
    f.numThreads = 1;
    QbDVector<double> serial(p.size());
    const double vSerial = f.evaluate(serial, 0.3, keepAll);
    EXPECT_EQ(start, p);

    f.numThreads = (short)c.workers;
    f.createThreads();
    RegElasticFunctionalRegular* r = dynamic_cast<RegElasticFunctionalRegular*>(&f);
    EXPECT_EQ(c.workers, r ? r->regularThreads.size() : f.threads.size());
    QbDVector<double> parallel(p.size(), 99.0);
    const double vParallel = f.evaluate(parallel, 0.3, keepAll);
    EXPECT_EQ(vSerial, vParallel);
    EXPECT_EQ(start, p);
    int nonZero = 0;
    for (int i = 0; i < p.size(); i++) {
      EXPECT_DOUBLE_EQ(serial[i], parallel[i]) << i << " keepAll " << keepAll;
      nonZero += parallel[i] != 0.0;
    }
    EXPECT_GT(nonZero, 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Forms, ElasticThreads,
                         ::testing::Values(ThreadCase{false, false, MSD, 0, 0, 3},
                                           ThreadCase{false, false, CORR, 0, 0, 4},
                                           ThreadCase{false, false, NMI, 1.0f, 0.5f, 3},
                                           ThreadCase{false, true, NMI, 0, 0, 3},
                                           ThreadCase{true, true, LABEL, 0, 0, 5},
                                           ThreadCase{false, true, MSD, 1.0f, 0.5f, 3},
                                           ThreadCase{true, true, MI, 1.0f, 0.5f, 4}));

// More workers than parameters: the surplus return at once.
TEST(ElasticThreadsEdge, MoreWorkersThanParameters) {
  ElasticSetup s;
  s.makeData(true, MSD);
  s.makeTransform(4, true);
  s.perturb(0.2);
  s.makeFunctional(true, MSD);
  const int n = s.transform->paramVector.size();
  ASSERT_EQ(48, n);
  QbDVector<double> serial(n), parallel(n, 99.0);
  s.functional->evaluate(serial, 0.3, 1);
  s.functional->numThreads = 50;
  s.functional->createThreads();
  s.functional->evaluate(parallel, 0.3, 1);
  EXPECT_EQ(serial, parallel);
}

} // namespace
