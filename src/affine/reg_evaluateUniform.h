#pragma once
// Entry of the uniform-grid evaluation of one reference lattice: picks the
// family that fits the metric. Squared difference is tried first, then
// correlation, then mutual information; a metric of none of these classes is
// not evaluated. A label-difference metric derives from squared difference
// and would be evaluated as such, which is why it is only ever paired with
// the general functional.
#include "RegCorrelationRatio.h"
#include "RegMeanSquaredDifference.h"
#include "RegMutualInformation.h"
#include "reg_evaluateUniformCorr.h"
#include "reg_evaluateUniformMI.h"
#include "reg_evaluateUniformMSD.h"

template <class RefT, class ModelT>
void reg_evaluateUniform(const RefT* ref, const ModelT* model, const QbVec3i& refDims,
                         const ZrCoord3* coords, const SbMatrixd& matrix, const QbVec3i& flags,
                         const SbVec3d& step, RegMetric* metric, const double* clip,
                         const int* modelDims, unsigned int numThreads) {
  if (RegMeanSquaredDifference* msd = dynamic_cast<RegMeanSquaredDifference*>(metric))
    reg_evaluateUniformMSD(ref, model, refDims, coords, matrix, flags, step, msd, clip, modelDims,
                           numThreads);
  else if (RegCorrelationRatio* corr = dynamic_cast<RegCorrelationRatio*>(metric))
    reg_evaluateUniformCorr(ref, model, refDims, coords, matrix, flags, step, corr, clip, modelDims,
                            numThreads);
  else if (RegMutualInformation* mi = dynamic_cast<RegMutualInformation*>(metric))
    reg_evaluateUniformMI(ref, model, refDims, coords, matrix, flags, step, mi, clip, modelDims,
                          numThreads);
}
