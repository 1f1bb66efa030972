// The histogram metrics: the binning rules of both axes, soft binning with
// clamping at and beyond the range, exact retraction of samples, the
// entropies on data with a known answer, and the overlap factor.
#include "RegNormMutualInformation.h"
#include "RegSimpleMutualInformation.h"
#include "ZrMessage.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

struct Binning {
  int bins;
  double min, scale;
};

Binning bin1D(QbPrimType type, int bins, double min, double max) {
  Binning b{bins, min, 1.0};
  RegMutualInformation::init1D(type, b.bins, b.min, b.scale, max);
  return b;
}

// The metrics report their bin counts; outside the tests that read them the
// messages are dropped.
class DropMessages : public ::testing::Environment {
  void SetUp() override {
    ZrMessage::getTheMsg()->setSink([](const std::string&) {});
  }
};
const auto* const kDrop = ::testing::AddGlobalTestEnvironment(new DropMessages);

double histogramSum(const RegMutualInformation& mi) {
  double s = 0;
  for (double h : mi.histogram)
    s += h;
  return s;
}

double at(const RegMutualInformation& mi, int i, int j) {
  return mi.histogram[i * mi.numBinsMod + j];
}

} // namespace

TEST(RegMutualInformation, Init1DBinRules) {
  struct Case {
    QbPrimType type;
    int requested;
    double min, max;
    int bins;
    double binMin, scale;
  } cases[] = {
      {QB_UINT8, 64, 0, 255, 64, 0, 63.0 / 255.0}, // 8-bit data: 4 grey values per bin
      {QB_UINT8, 64, 0, 10, 11, 0, 1.0},           // a narrow range: one bin per value
      {QB_FLOAT, 64, 0, 1, 64, 0, 63.0},           // float data keep the count
      {QB_UINT8, 64, 7, 7, 1, 7, 0.0},             // no width: one bin, no scale
      {QB_FLOAT, 64, 7, 7, 1, 7, 0.0},
      {QB_DOUBLE, 64, 7, 7, 1, 7, 0.0},
      {QB_INT16, 100, 0.4, 10.6, 12, 0, 1.0}, // integer limits rounded: 0 .. 11
      // The bin width is the rounded quotient: 1000 / 250 is exactly 4 values
      // a bin; 1000 / 222, about 4.5, rounds up to 5, which leaves 200 bins.
      {QB_INT32, 250, 0, 1000, 250, 0, 0.249},
      {QB_INT32, 222, 0, 1000, 200, 0, -1},
      // What the metric makes of the module's proposals for integer ranges.
      {QB_UINT16, 1, 0, 1, 2, 0, 1.0},
      {QB_UINT16, 100, 0, 100, 101, 0, 1.0},
      {QB_UINT16, 255, 0, 255, 256, 0, 1.0},
      {QB_UINT16, 256, 0, 256, 257, 0, 1.0},
      {QB_UINT16, 255, 0, 4095, 256, 0, 255.0 / 4095.0},
      // An empty or inverted request still leaves a usable histogram.
      {QB_UINT8, 0, 0, 255, 1, 0, -1},
      {QB_FLOAT, 0, 0, 1, 1, 0, -1},
      {QB_UINT8, 10, 20, 5, 1, 20, -1},
  };
  for (const Case& c : cases) {
    Binning b = bin1D(c.type, c.requested, c.min, c.max);
    EXPECT_EQ(b.bins, c.bins) << c.requested << " for " << c.min << ".." << c.max;
    if (c.scale >= 0) {
      EXPECT_EQ(b.min, c.binMin) << c.min << ".." << c.max;
      EXPECT_DOUBLE_EQ(b.scale, c.scale) << c.requested << " for " << c.min << ".." << c.max;
    }
  }
}

TEST(RegMutualInformation, SoftBinningAndClamping) {
  // Float data over 0 .. 4 with 4 bins: scale 0.75, 5 bins, the top of the
  // range at index 3.
  RegNormMutualInformation mi(QB_FLOAT, QB_FLOAT, 0, 4, 0, 4, 4, 4, 0.0);
  ASSERT_EQ(mi.numBinsRef, 5);
  ASSERT_EQ(mi.refScale, 0.75);
  mi.reset();

  // ref 2 -> t = 1.5 (bins 1 and 2 half each); model 0 -> bin 0.
  mi.increment(2.0, 0.0);
  EXPECT_DOUBLE_EQ(at(mi, 1, 0), 0.5);
  EXPECT_DOUBLE_EQ(at(mi, 2, 0), 0.5);
  EXPECT_EQ(at(mi, 1, 1), 0.0);
  mi.reset();

  // Both shared: t = 0.75 on the reference axis, 2.25 on the model axis.
  mi.increment(1.0, 3.0);
  EXPECT_DOUBLE_EQ(at(mi, 0, 2), 0.25 * 0.75);
  EXPECT_DOUBLE_EQ(at(mi, 1, 2), 0.75 * 0.75);
  EXPECT_DOUBLE_EQ(at(mi, 0, 3), 0.25 * 0.25);
  EXPECT_DOUBLE_EQ(at(mi, 1, 3), 0.75 * 0.25);
  mi.reset();

  // Exactly at the top of the range: all weight in the last but one bin.
  mi.increment(4.0, 4.0);
  EXPECT_EQ(at(mi, 3, 3), 1.0);
  mi.reset();
  // Above it: shared up to t = 4, then all in the last bin, however far.
  mi.increment(4.5, 1e30);
  EXPECT_DOUBLE_EQ(at(mi, 3, 4), 0.625);
  EXPECT_DOUBLE_EQ(at(mi, 4, 4), 0.375);
  mi.reset();
  mi.increment(6.0, 1e30);
  EXPECT_EQ(at(mi, 4, 4), 1.0);
  mi.reset();
  // Below the range, just and far: the first bin; NaN too.
  mi.increment(-0.5, -1e30);
  EXPECT_EQ(at(mi, 0, 0), 1.0);
  mi.increment(-3.0, std::nan(""));
  EXPECT_EQ(at(mi, 0, 0), 2.0);
  // Clamped samples still count.
  EXPECT_EQ(mi.numInside, 2);
  EXPECT_EQ(mi.numTotal, 2);

  // A range of no width: everything in bin 0 with full weight.
  RegSimpleMutualInformation flat(QB_DOUBLE, QB_DOUBLE, 5, 5, 5, 5, 16, 16, 0.0);
  flat.reset();
  flat.increment(5.0, 17.0);
  flat.increment(-3.0, 5.0);
  EXPECT_EQ(at(flat, 0, 0), 2.0);
}

TEST(RegMutualInformation, DecrementCancelsIncrement) {
  RegNormMutualInformation mi(QB_INT16, QB_FLOAT, -100, 300, 0, 1, 32, 32, 0.0);
  mi.reset();
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> ref(-150, 350), model(-0.2, 1.2);
  std::vector<std::pair<double, double>> samples;
  for (int n = 0; n < 2000; n++) {
    samples.emplace_back(std::round(ref(rng)), model(rng));
    mi.increment(samples.back().first, samples.back().second);
  }
  // Every sample adds a weight of 1, clamped ones included.
  EXPECT_NEAR(histogramSum(mi), 2000.0, 1e-9);
  // Retracted in another order, they leave nothing behind.
  for (int n = 1999; n >= 0; n--)
    mi.decrement(samples[n].first, samples[n].second);
  EXPECT_EQ(mi.numInside, 0);
  EXPECT_EQ(mi.numTotal, 0);
  for (int e = 0; e < mi.histogram.size(); e++)
    ASSERT_NEAR(mi.histogram[e], 0.0, 1e-12) << e;
}

TEST(RegMutualInformation, EntropyLimits) {
  std::mt19937 rng(11);
  std::uniform_int_distribution<int> grey(0, 15);
  // Independent data: mutual information near 0, normalised near 1.
  RegSimpleMutualInformation smi(QB_UINT8, QB_UINT8, 0, 15, 0, 15, 16, 16, 0.0);
  RegNormMutualInformation nmi(QB_UINT8, QB_UINT8, 0, 15, 0, 15, 16, 16, 0.0);
  smi.reset();
  nmi.reset();
  for (int n = 0; n < 200000; n++) {
    const int a = grey(rng), b = grey(rng);
    smi.increment(a, b);
    nmi.increment(a, b);
  }
  EXPECT_NEAR(smi.getResult(), 0.0, 2e-3);
  EXPECT_NEAR(nmi.getResult(), 1.0, 1e-3);
  // The marginals of uniform grey values over 16 bins: log 16 each.
  double hRef, hMod;
  nmi.getMarginalEntropies(hRef, hMod);
  EXPECT_NEAR(hRef, std::log(16.0), 1e-3);
  EXPECT_NEAR(hMod, std::log(16.0), 1e-3);

  // Matched data, one grey value per bin: the joint entropy equals each
  // marginal one, so NMI is 2 and MI is the marginal entropy.
  nmi.reset();
  smi.reset();
  for (int n = 0; n < 5000; n++) {
    const int a = grey(rng);
    nmi.increment(a, a);
    smi.increment(a, a);
  }
  EXPECT_NEAR(nmi.getResult(), 2.0, 1e-12);
  double hJoint;
  nmi.getJointEntropy(hJoint);
  nmi.getMarginalEntropies(hRef, hMod);
  EXPECT_NEAR(hJoint, hRef, 1e-12);
  EXPECT_NEAR(smi.getResult(), hRef, 1e-12);

  // Matched continuous data: soft binning spreads the diagonal onto its
  // neighbours (2/3 on it, 1/6 on either side), which costs about 0.87 nats
  // of joint entropy, so NMI lies near 1.6 rather than at 2.
  RegNormMutualInformation cont(QB_FLOAT, QB_FLOAT, 0, 1, 0, 1, 32, 32, 0.0);
  cont.reset();
  std::uniform_real_distribution<double> u(0, 1);
  for (int n = 0; n < 50000; n++) {
    const double a = u(rng);
    cont.increment(a, a);
  }
  EXPECT_NEAR(cont.getResult(), 1.6, 0.02);

  // No sample: -1000.
  nmi.reset();
  smi.reset();
  EXPECT_EQ(nmi.getResult(), -1000.0);
  EXPECT_EQ(smi.getResult(), -1000.0);
}

TEST(RegMutualInformation, OverlapFactorMultiplies) {
  std::mt19937 rng(3);
  std::uniform_int_distribution<int> grey(0, 31);
  for (int normalised = 0; normalised < 2; normalised++) {
    std::unique_ptr<RegMutualInformation> mi;
    if (normalised)
      mi.reset(new RegNormMutualInformation(QB_UINT8, QB_UINT8, 0, 31, 0, 31, 32, 32, 1.0));
    else
      mi.reset(new RegSimpleMutualInformation(QB_UINT8, QB_UINT8, 0, 31, 0, 31, 32, 32, 1.0));
    mi->reset();
    for (int n = 0; n < 1000; n++) {
      const int a = grey(rng);
      mi->increment(a, (a * 7 + grey(rng) / 8) % 32);
    }
    const double full = mi->getResult();
    // 10% inside: the covered fraction is half of the threshold 0.2.
    mi->numTotal = 10000;
    EXPECT_NEAR(mi->getResult(), full * 0.5, 1e-12);
    // At 20% the factor is 1 again.
    mi->numTotal = 5000;
    EXPECT_NEAR(mi->getResult(), full, 1e-12);
    // The threshold is relative to maxCoverage: with 0.25, 4% weighs 0.8.
    mi->maxCoverage = 0.25;
    mi->numTotal = 25000;
    EXPECT_NEAR(mi->getResult(), full * 0.8, 1e-12);
    // Without maxCoverage there is no factor at any overlap.
    mi->maxCoverage = 0.0;
    mi->numTotal = 1000000;
    EXPECT_NEAR(mi->getResult(), full, 1e-12);
  }
}

// A state's result found from a nearby base through the entries that differ
// equals its own getResult() up to rounding, for both forms: states that
// share the base's histogram, differ in a few samples, differ in most, or
// empty a row and a column the base had; no samples at all gives -1000.
TEST(RegMutualInformation, ResultNearABaseIsTheResult) {
  struct Change {
    const char* what;
    int moved;        // samples taken out and put back elsewhere
    bool emptyGrey31; // every sample of reference grey 31 taken out
  };
  const Change changes[] = {
      {"none", 0, false}, {"a few", 20, false}, {"most", 3000, false}, {"a row", 0, true}};
  for (int normalised = 0; normalised < 2; normalised++) {
    auto make = [&]() -> std::unique_ptr<RegMutualInformation> {
      if (normalised)
        return std::make_unique<RegNormMutualInformation>(QB_UINT8, QB_FLOAT, 0, 63, 0, 1, 64, 48,
                                                          1.0);
      return std::make_unique<RegSimpleMutualInformation>(QB_UINT8, QB_FLOAT, 0, 63, 0, 1, 64, 48,
                                                          1.0);
    };
    std::unique_ptr<RegMutualInformation> base = make();
    base->reset();
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> grey(0, 63);
    std::uniform_real_distribution<double> noise(-0.1, 0.1);
    std::vector<std::pair<double, double>> samples;
    for (int n = 0; n < 4000; n++) {
      const int a = grey(rng);
      samples.emplace_back(a, a / 63.0 + noise(rng));
      base->increment(samples.back().first, samples.back().second);
    }
    RegMutualInformation::EntropySums sums;
    base->getEntropySums(sums);
    for (const Change& c : changes) {
      std::unique_ptr<RegMutualInformation> state(
          static_cast<RegMutualInformation*>(base->clone()));
      for (int n = 0; n < c.moved; n++) {
        const auto& s = samples[n];
        state->decrement(s.first, s.second);
        state->increment(s.first, s.second + 0.05);
      }
      if (c.emptyGrey31)
        for (const auto& s : samples)
          if (s.first == 31)
            state->decrement(s.first, s.second);
      const double own = state->getResult();
      EXPECT_NEAR(state->getResultNear(*base, sums), own, 1e-12 * std::fabs(own))
          << c.what << (normalised ? " NMI" : " MI");
    }
    std::unique_ptr<RegMutualInformation> empty(static_cast<RegMutualInformation*>(base->clone()));
    empty->reset();
    EXPECT_EQ(-1000.0, empty->getResultNear(*base, sums));
  }
}
