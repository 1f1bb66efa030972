#pragma once
// Abstract transform of a registration: a vector of real parameters, of which
// a leading part is varied by the optimizers, and a natural step for each.
#include "QbDVector.h"
#include "SbVec3d.h"

class RegParametricTransform {
public:
  // The parameters. Optimizers write them in place between evaluations.
  QbDVector<double> paramVector;
  // Spare parameters of derived transforms; empty unless a subclass uses it.
  QbDVector<double> auxVector;

  RegParametricTransform() = default;
  RegParametricTransform(const RegParametricTransform&) = default;
  RegParametricTransform& operator=(const RegParametricTransform&) = default;
  // Empties both vectors and releases their storage.
  virtual ~RegParametricTransform();

  // A new transform for the inverse mapping, owned by the caller; null when a
  // transform cannot be inverted.
  virtual RegParametricTransform* makeInverse();
  // Shows the present state of the transform to the user.
  virtual void update() = 0;
  // Number of entries of paramVector.
  virtual int getParamVectorDim() const = 0;
  // Number of leading entries of paramVector that an optimizer may vary.
  virtual int getVariableParamVectorDim() const = 0;
  // Natural step of parameter `index` for data of extent `size`.
  virtual double getParamStep(int index, SbVec3d* size) const = 0;
  // Lets a transform precompute its steps for data of extent `size`; called
  // once per functional. Nothing to do here.
  virtual void computeParamStep(SbVec3d* size);
};
