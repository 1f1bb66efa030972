#pragma once
// Moves the points of a vertex set by a vector field, for example the dense
// displacement "VectorField" left by an elastic registration.
//
// Ports:
//   "data"         the ZrVertexSet to move
//   "VectorField"  the ZrField3 of displacements (three components)
//   "action"       one button "DoIt"
//
// Result 0 is a copy of the input named "result" whose point p becomes
// p + v(p). The input is never changed, and a second press recomputes from
// the input, not from the earlier result.
#include "ZrCompModule.h"
#include "ZrConnection.h"
#include "ZrPortDoIt.h"

class QbInterfaceOwner;

class ZrApplyDeformation : public ZrCompModule {
  QB_TYPE_HEADER(ZrApplyDeformation)
public:
  ZrApplyDeformation();
  ~ZrApplyDeformation() override;
  static QbInterfaceOwner* createInstance();

  ZrConnection portVectorField;
  ZrPortDoIt portAction;

  void compute() override;
};
