#include "RegMutualInformation.h"

#include "ZrMessage.h"

#include <algorithm>
#include <cmath>
#include <cstring>

RegMutualInformation::RegMutualInformation(QbPrimType refType, QbPrimType modelType, double refMin,
                                           double refMax, double modelMin, double modelMax,
                                           int refBins, int modelBins, double maxCoverage)
    : RegMetric(maxCoverage), refType(refType), modelType(modelType), refMin(refMin), refScale(1.0),
      modelMin(modelMin), modelScale(1.0), refMax(refMax), modelMax(modelMax), numBinsRef(refBins),
      numBinsMod(modelBins) {
  init1D(refType, numBinsRef, this->refMin, refScale, refMax);
  init1D(modelType, numBinsMod, this->modelMin, modelScale, modelMax);
  // Integer ranges are kept as they were binned.
  if (qbPrimTypeIsInteger(refType))
    this->refMax = std::floor(refMax + 0.5);
  if (qbPrimTypeIsInteger(modelType))
    this->modelMax = std::floor(modelMax + 0.5);
  // One more bin per axis: the top of the range falls on the last but one
  // index, and the last bin only takes shared weight.
  numBinsRef++;
  numBinsMod++;
  ZrMessage::getTheMsg()->printf("numBinsRef, numBinsMod: %d %d", numBinsRef, numBinsMod);
  histogram.resize(numBinsRef * numBinsMod);
  for (double& h : histogram)
    h = 0.0;
}

RegMutualInformation::RegMutualInformation(const RegMutualInformation& other)
    : RegMetric(other.maxCoverage), refType(other.refType), modelType(other.modelType),
      histogram(other.histogram), refMin(other.refMin), refScale(other.refScale),
      modelMin(other.modelMin), modelScale(other.modelScale), refMax(other.refMax),
      modelMax(other.modelMax), numBinsRef(other.numBinsRef), numBinsMod(other.numBinsMod),
      partialVolume(other.partialVolume) {
  copyStatistics(other);
}

RegMutualInformation::~RegMutualInformation() {}

void RegMutualInformation::init1D(QbPrimType type, int& bins, double& min, double& scale,
                                  double max) {
  if (qbPrimTypeIsInteger(type)) {
    const int lo = (int)std::floor(min + 0.5);
    const int hi = (int)std::floor(max + 0.5);
    min = lo;
    max = hi;
    const int span = hi - lo;
    if (bins > span) {
      // One bin per grey value.
      bins = span + 1;
    } else if (lo < hi) {
      // A whole number of grey values per bin. The single-precision arithmetic
      // is part of the rule: it decides the bin count at the rounding edges.
      const float width = std::floor((float)span / (float)bins + 0.5f);
      bins = (int)((float)(span + 1) / width);
    }
    if (bins < 1)
      bins = 1;
  } else if (bins < 1) {
    // A non-positive request would leave a single bin after the extra one and
    // the binning would write below the histogram: one bin is the least.
    bins = 1;
  }
  if (min == max) {
    bins = 1;
    scale = 0.0;
    return;
  }
  scale = (double)(bins - 1) / (max - min);
}

void RegMutualInformation::reset() {
  numInside = 0;
  numTotal = 0;
  for (double& h : histogram)
    h = 0.0;
}

void RegMutualInformation::getState(RegMetric* other) const {
  RegMetric::getState(other);
  RegMutualInformation* mi = static_cast<RegMutualInformation*>(other);
  mi->histogram.resize(histogram.size());
  if (histogram.size() > 0)
    std::memcpy(mi->histogram.data(), histogram.data(), sizeof(double) * histogram.size());
}

void RegMutualInformation::getMarginalEntropies(double& ref, double& model) {
  ref = 0.0;
  model = 0.0;
  const double n = (double)numInside;
  const double* h = histogram.data();
  const int nr = numBinsRef, nm = numBinsMod;
  // One pass over the histogram. Each row sum runs over j in rising order and
  // each column sum over i in rising order, as two separate loops would add
  // them, so the sums are the same to the last bit; four rows at a time give
  // four independent chains of additions instead of one, and the column sums
  // accumulate along the rows in memory order.
  columnSums.resize(nm);
  double* col = columnSums.data();
  for (int j = 0; j < nm; j++)
    col[j] = 0.0;
  auto addRowEntropy = [&](double s) {
    const double p = s / n;
    if (p > 0)
      ref -= p * std::log(p);
  };
  int i = 0;
  for (; i + 4 <= nr; i += 4) {
    const double* r0 = h + (size_t)i * nm;
    const double *r1 = r0 + nm, *r2 = r1 + nm, *r3 = r2 + nm;
    double s0 = 0.0, s1 = 0.0, s2 = 0.0, s3 = 0.0;
    for (int j = 0; j < nm; j++) {
      s0 += r0[j];
      s1 += r1[j];
      s2 += r2[j];
      s3 += r3[j];
      col[j] = (((col[j] + r0[j]) + r1[j]) + r2[j]) + r3[j];
    }
    addRowEntropy(s0);
    addRowEntropy(s1);
    addRowEntropy(s2);
    addRowEntropy(s3);
  }
  for (; i < nr; i++) {
    const double* r0 = h + (size_t)i * nm;
    double s = 0.0;
    for (int j = 0; j < nm; j++) {
      s += r0[j];
      col[j] += r0[j];
    }
    addRowEntropy(s);
  }
  for (int j = 0; j < nm; j++) {
    const double p = col[j] / n;
    if (p > 0)
      model -= p * std::log(p);
  }
}

void RegMutualInformation::getJointEntropy(double& h) const {
  h = 0.0;
  const double n = (double)numInside;
  const double* e = histogram.data();
  if (n > 0) {
    // With a positive count, p > 0 exactly where the entry is, so empty and
    // negative (rounding) entries are passed over before the division.
    for (int i = histogram.size() - 1; i >= 0; i--) {
      if (!(e[i] > 0))
        continue;
      const double p = e[i] / n;
      if (p > 0)
        h -= p * std::log(p);
    }
    return;
  }
  for (int i = histogram.size() - 1; i >= 0; i--) {
    const double p = e[i] / n;
    if (p > 0)
      h -= p * std::log(p);
  }
}

namespace {
inline double xLogX(double x) { return x > 0 ? x * std::log(x) : 0.0; }
} // namespace

void RegMutualInformation::getEntropySums(EntropySums& s) const {
  const int nr = numBinsRef, nm = numBinsMod;
  const double* h = histogram.data();
  s.rows.assign(nr, 0.0);
  s.cols.assign(nm, 0.0);
  s.joint = 0.0;
  for (int i = 0; i < nr; i++)
    for (int j = 0; j < nm; j++) {
      const double e = h[(size_t)i * nm + j];
      s.rows[i] += e;
      s.cols[j] += e;
      s.joint += xLogX(e);
    }
  s.ref = 0.0;
  for (double r : s.rows)
    s.ref += xLogX(r);
  s.model = 0.0;
  for (double c : s.cols)
    s.model += xLogX(c);
}

double RegMutualInformation::getResultNear(const RegMutualInformation& base, EntropySums& s) {
  const int nr = numBinsRef, nm = numBinsMod;
  if (numInside <= 0 || base.histogram.size() != histogram.size() || s.rows.size() != (size_t)nr ||
      s.cols.size() != (size_t)nm)
    return getResult();
  s.rowChange.assign(nr, 0.0);
  s.colChange.assign(nm, 0.0);
  const double* h = histogram.data();
  const double* b = base.histogram.data();
  double joint = 0.0;
  for (int i = 0; i < nr; i++) {
    const double* hr = h + (size_t)i * nm;
    const double* br = b + (size_t)i * nm;
    // Eight entries at a time are passed over when none differs.
    for (int j0 = 0; j0 < nm; j0 += 8) {
      const int j1 = std::min(j0 + 8, nm);
      bool differ = false;
      for (int j = j0; j < j1; j++)
        differ |= hr[j] != br[j];
      if (!differ)
        continue;
      for (int j = j0; j < j1; j++)
        if (hr[j] != br[j]) {
          const double d = hr[j] - br[j];
          s.rowChange[i] += d;
          s.colChange[j] += d;
          joint += xLogX(hr[j]) - xLogX(br[j]);
        }
    }
  }
  double ref = s.ref, model = s.model;
  for (int i = 0; i < nr; i++)
    if (s.rowChange[i] != 0.0)
      ref += xLogX(s.rows[i] + s.rowChange[i]) - xLogX(s.rows[i]);
  for (int j = 0; j < nm; j++)
    if (s.colChange[j] != 0.0)
      model += xLogX(s.cols[j] + s.colChange[j]) - xLogX(s.cols[j]);
  joint += s.joint;
  const double n = (double)numInside, logN = std::log(n);
  return resultOf(logN - ref / n, logN - model / n, logN - joint / n);
}

double RegMutualInformation::overlapWeight() const {
  const double f = (double)numInside / (double)numTotal;
  if (maxCoverage > 0 && f / maxCoverage < 0.2)
    return f * 5.0 / maxCoverage;
  return 1.0;
}
