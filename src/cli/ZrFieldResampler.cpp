#include "ZrFieldResampler.h"

#include "QbPrimType.h"
#include "SbMatrixd.h"
#include "ZrEvalNN.h"
#include "ZrEvalStandard.h"
#include "ZrFieldEvaluator.h"
#include "ZrLocation3.h"
#include "ZrUniformLabelField3.h"
#include "ZrUniformScalarField3.h"

#include <memory>

ZrRegScalarField3* ZrFieldResampler::resample(ZrRegScalarField3* source,
                                              const ZrRegScalarField3* target) {
  if (target->coordType() != ZR_COORD_UNIFORM)
    return nullptr;
  const int* dims = target->getDims();
  float box[6];
  target->getBoundingBox(box);
  bool labels = source->getTypeId()->isOfType(ZrUniformLabelField3::getClassTypeId());
  ZrUniformScalarField3* out = labels ? new ZrUniformLabelField3(dims, source->primType(), box)
                                      : new ZrUniformScalarField3(dims, source->primType(), box);
  out->copyTransform(*target);

  // Target local -> world -> source local, as one matrix.
  SbMatrixd toWorld, fromWorld;
  target->getTransform(toWorld);
  source->getInverseTransform(fromWorld);
  SbMatrixd m = toWorld * fromWorld;

  double step[3];
  for (int a = 0; a < 3; a++)
    step[a] = dims[a] > 1 ? (double(box[2 * a + 1]) - box[2 * a]) / (dims[a] - 1) : 0;
  const size_t nx = dims[0], ny = dims[1];
#pragma omp parallel
  {
    std::unique_ptr<ZrFieldEvaluator> eval(labels ? ZrEvalNN::createEval(source) : nullptr);
    if (!eval)
      eval.reset(new ZrEvalStandard(source));
    std::unique_ptr<ZrLocation3> loc(eval->createLocation());
    double value = 0;
#pragma omp for schedule(dynamic)
    for (int k = 0; k < dims[2]; k++)
      for (int j = 0; j < dims[1]; j++)
        for (int i = 0; i < dims[0]; i++) {
          SbVec3d p(box[0] + i * step[0], box[2] + j * step[1], box[4] + k * step[2]), q;
          m.multVecMatrix(p, q);
          float v = 0;
          if (loc->set(float(q[0]), float(q[1]), float(q[2])))
            eval->eval(loc.get(), &v);
          value = v;
          out->lattice.setValue((size_t(k) * ny + j) * nx + i, value);
        }
  }
  return out;
}
