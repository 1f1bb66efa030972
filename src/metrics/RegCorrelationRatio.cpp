#include "RegCorrelationRatio.h"

#include <cmath>

RegCorrelationRatio::RegCorrelationRatio(double refLow, double refHigh, double modelLow,
                                         double modelHigh, double maxCoverage)
    : RegMetric(maxCoverage), refLow(refLow), refHigh(refHigh), modelLow(modelLow),
      modelHigh(modelHigh) {}

RegCorrelationRatio::RegCorrelationRatio(const RegCorrelationRatio& other)
    : RegMetric(other.maxCoverage), sumRefSq(other.sumRefSq), sumModelSq(other.sumModelSq),
      sumProduct(other.sumProduct), sumRef(other.sumRef), sumModel(other.sumModel),
      refLow(other.refLow), refHigh(other.refHigh), modelLow(other.modelLow),
      modelHigh(other.modelHigh), refOffset(other.refOffset), modelOffset(other.modelOffset) {
  copyStatistics(other);
}

RegCorrelationRatio::~RegCorrelationRatio() {}

RegMetric* RegCorrelationRatio::clone() const { return new RegCorrelationRatio(*this); }

void RegCorrelationRatio::reset() {
  sumRefSq = sumModelSq = sumProduct = sumRef = sumModel = 0.0;
  numInside = 0;
  numTotal = 0;
}

void RegCorrelationRatio::increment(double ref, double model) {
  numTotal++;
  if (inRefWindow(ref) && inModelWindow(model)) {
    const double a = ref - refOffset, b = model - modelOffset;
    sumRefSq += a * a;
    sumModelSq += b * b;
    sumProduct += a * b;
    sumRef += a;
    sumModel += b;
    numInside++;
  }
}

void RegCorrelationRatio::decrement(double ref, double model) {
  numTotal--;
  if (inRefWindow(ref) && inModelWindow(model)) {
    const double a = ref - refOffset, b = model - modelOffset;
    sumRefSq -= a * a;
    sumModelSq -= b * b;
    sumProduct -= a * b;
    sumRef -= a;
    sumModel -= b;
    numInside--;
  }
}

double RegCorrelationRatio::getResult() {
  const int64_t count = numInside;
  if (count == 0)
    return -1000.0;
  const double n = (double)count;
  // The sums of a and b become their means, in place.
  sumRef /= n;
  sumModel /= n;
  const double mr = sumRef, mm = sumModel;
  // A constant image makes a factor under the root 0; the quotient is then
  // NaN or infinite, as it comes.
  double c =
      (sumProduct - n * mr * mm) / std::sqrt((sumRefSq - n * mr * mr) * (sumModelSq - n * mm * mm));
  if (c < 0)
    c = -c;
  // The next evaluation subtracts the means found here.
  refOffset += mr;
  modelOffset += mm;
  const double f = n / (double)numTotal;
  if (maxCoverage > 0 && f / maxCoverage < 0.2)
    c *= f * 5.0 / maxCoverage;
  return c;
}

void RegCorrelationRatio::getState(RegMetric* other) const {
  RegMetric::getState(other);
  RegCorrelationRatio* o = static_cast<RegCorrelationRatio*>(other);
  o->sumRefSq = sumRefSq;
  o->sumModelSq = sumModelSq;
  o->sumProduct = sumProduct;
  o->sumRef = sumRef;
  o->sumModel = sumModel;
}

void RegCorrelationRatio::getMarginalEntropies(double& ref, double& model) {
  ref = 0.0;
  model = 0.0;
}
