#pragma once
// Plain mutual information, H(ref) + H(model) - H(joint): 0 for independent
// data, larger the more the model values tell about the reference values.
#include "RegMutualInformation.h"

class RegSimpleMutualInformation : public RegMutualInformation {
public:
  RegSimpleMutualInformation(QbPrimType refType, QbPrimType modelType, double refMin, double refMax,
                             double modelMin, double modelMax, int refBins, int modelBins,
                             double maxCoverage);
  ~RegSimpleMutualInformation() override;

  // A copy with the counts, parameters and histogram; the constructor is not
  // run, so nothing is printed and the bin rules are not applied again.
  RegMetric* clone() const override;
  // -1000.0 without samples.
  double getResult() override;

protected:
  RegSimpleMutualInformation(const RegSimpleMutualInformation& other) = default;
  double resultOf(double hRef, double hModel, double hJoint) const override;
};
