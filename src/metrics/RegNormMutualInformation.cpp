#include "RegNormMutualInformation.h"

RegNormMutualInformation::RegNormMutualInformation(QbPrimType refType, QbPrimType modelType,
                                                   double refMin, double refMax, double modelMin,
                                                   double modelMax, int refBins, int modelBins,
                                                   double maxCoverage)
    : RegMutualInformation(refType, modelType, refMin, refMax, modelMin, modelMax, refBins,
                           modelBins, maxCoverage) {}

RegNormMutualInformation::~RegNormMutualInformation() {}

RegMetric* RegNormMutualInformation::clone() const { return new RegNormMutualInformation(*this); }

double RegNormMutualInformation::getResult() {
  if (numInside == 0)
    return -1000.0;
  double hRef, hMod, hJoint;
  getMarginalEntropies(hRef, hMod);
  getJointEntropy(hJoint);
  return resultOf(hRef, hMod, hJoint);
}

double RegNormMutualInformation::resultOf(double hRef, double hModel, double hJoint) const {
  // No guard against a joint entropy of 0 (two constant images): the
  // division gives infinity or NaN, which the optimizers see as such.
  return (hRef + hModel) * overlapWeight() / hJoint;
}
