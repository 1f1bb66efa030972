#include "RegMutualInformation.h"

#include "ZrMessage.h"

#include <cmath>

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
      modelMax(other.modelMax), numBinsRef(other.numBinsRef), numBinsMod(other.numBinsMod) {
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
  for (int i = 0; i < histogram.size(); i++)
    mi->histogram[i] = histogram[i];
}

void RegMutualInformation::increment(double ref, double model) {
  numTotal++;
  addToHistogram(histogram.data(), ref, model, refMin, refScale, numBinsRef, modelMin, modelScale,
                 numBinsMod, 1.0);
  numInside++;
}

void RegMutualInformation::decrement(double ref, double model) {
  numTotal--;
  addToHistogram(histogram.data(), ref, model, refMin, refScale, numBinsRef, modelMin, modelScale,
                 numBinsMod, -1.0);
  numInside--;
}

void RegMutualInformation::getMarginalEntropies(double& ref, double& model) {
  ref = 0.0;
  model = 0.0;
  const double n = (double)numInside;
  const double* h = histogram.data();
  for (int i = 0; i < numBinsRef; i++) {
    double s = 0.0;
    for (int j = 0; j < numBinsMod; j++)
      s += h[(size_t)i * numBinsMod + j];
    const double p = s / n;
    if (p > 0)
      ref -= p * std::log(p);
  }
  for (int j = 0; j < numBinsMod; j++) {
    double s = 0.0;
    for (int i = 0; i < numBinsRef; i++)
      s += h[(size_t)i * numBinsMod + j];
    const double p = s / n;
    if (p > 0)
      model -= p * std::log(p);
  }
}

void RegMutualInformation::getJointEntropy(double& h) const {
  h = 0.0;
  const double n = (double)numInside;
  for (int i = histogram.size() - 1; i >= 0; i--) {
    const double p = histogram[i] / n;
    if (p > 0)
      h -= p * std::log(p);
  }
}

double RegMutualInformation::overlapWeight() const {
  const double f = (double)numInside / (double)numTotal;
  if (maxCoverage > 0 && f / maxCoverage < 0.2)
    return f * 5.0 / maxCoverage;
  return 1.0;
}
