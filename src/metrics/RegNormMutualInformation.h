#pragma once
// Normalised mutual information, (H(ref) + H(model)) / H(joint): 1 for
// independent data, 2 for data that determine each other. The default metric
// of the affine registration.
#include "RegMutualInformation.h"

class RegNormMutualInformation : public RegMutualInformation {
public:
  RegNormMutualInformation(QbPrimType refType, QbPrimType modelType, double refMin, double refMax,
                           double modelMin, double modelMax, int refBins, int modelBins,
                           double maxCoverage);
  ~RegNormMutualInformation() override;

  // A copy with the counts, parameters and histogram; the constructor is not
  // run, so nothing is printed and the bin rules are not applied again.
  RegMetric* clone() const override;
  // -1000.0 without samples.
  double getResult() override;

protected:
  RegNormMutualInformation(const RegNormMutualInformation& other) = default;
  double resultOf(double hRef, double hModel, double hJoint) const override;
};
