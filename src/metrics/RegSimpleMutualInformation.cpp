#include "RegSimpleMutualInformation.h"

RegSimpleMutualInformation::RegSimpleMutualInformation(QbPrimType refType, QbPrimType modelType,
                                                       double refMin, double refMax,
                                                       double modelMin, double modelMax,
                                                       int refBins, int modelBins,
                                                       double maxCoverage)
    : RegMutualInformation(refType, modelType, refMin, refMax, modelMin, modelMax, refBins,
                           modelBins, maxCoverage) {}

RegSimpleMutualInformation::~RegSimpleMutualInformation() {}

RegMetric* RegSimpleMutualInformation::clone() const {
  return new RegSimpleMutualInformation(*this);
}

double RegSimpleMutualInformation::getResult() {
  if (numInside == 0)
    return -1000.0;
  double hRef, hMod, hJoint;
  getMarginalEntropies(hRef, hMod);
  getJointEntropy(hJoint);
  return resultOf(hRef, hMod, hJoint);
}

double RegSimpleMutualInformation::resultOf(double hRef, double hModel, double hJoint) const {
  return (hRef + hModel - hJoint) * overlapWeight();
}
