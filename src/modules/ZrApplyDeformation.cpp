#include "ZrApplyDeformation.h"

#include "ZrField3.h"
#include "ZrLocation3.h"
#include "ZrMessage.h"
#include "ZrVertexSet.h"

#include <algorithm>
#include <memory>
#include <vector>

QB_TYPE_SOURCE(ZrApplyDeformation, ZrCompModule, ZrApplyDeformation::createInstance)

QbInterfaceOwner* ZrApplyDeformation::createInstance() { return new ZrApplyDeformation; }

ZrApplyDeformation::ZrApplyDeformation()
    : ZrCompModule(ZrVertexSet::getClassTypeId()),
      portVectorField(this, "VectorField", ZrField3::getClassTypeId()), portAction(this, "action") {
  portAction.setLabel(0, "DoIt");
  // The button's snap toggle starts on: connecting a vertex set and a field
  // is enough to get the moved points, and they follow every change of
  // either input.
  portAction.setSnap(true);
}

ZrApplyDeformation::~ZrApplyDeformation() = default;

void ZrApplyDeformation::compute() {
  if (!portAction.wasHit())
    return;

  ZrVertexSet* input = portData.source<ZrVertexSet>();
  if (!input) {
    ZrMessage::getTheMsg()->printf("Please connect a ZrVertexSet to the data input.\n");
    return;
  }
  ZrField3* field = portVectorField.source<ZrField3>();
  if (!field) {
    ZrMessage::getTheMsg()->printf("Please connect a ZrField3 to the VectorField input.\n");
    return;
  }

  ZrVertexSet* result = dynamic_cast<ZrVertexSet*>(getResult(0));
  if (!result) {
    result = static_cast<ZrVertexSet*>(input->duplicate());
    result->setName("result");
    setResult(0, result);
  }

  // The result always starts from the input's points, so a second press does
  // not move the points twice.
  const int n = input->getNumPoints();
  result->setNumPoints(n);
  const QbVec3f* in = input->getCoords();
  QbVec3f* out = result->getCoords();

  // Room for every component of the field; a displacement uses the first
  // three. The buffer is deliberately not cleared between points: a point
  // outside the field takes whatever the evaluation left there.
  std::vector<float> buffer(std::max(3, field->nDataVar()), 0.0f);
  float* v = buffer.data();
  std::unique_ptr<ZrLocation3> location(field->createLocation());
  for (int i = 0; i < n; i++) {
    const QbVec3f p = in[i];
    location->set(p[0], p[1], p[2]);
    field->eval(location.get(), v);
    out[i] = QbVec3f(p[0] + v[0], p[1] + v[1], p[2] + v[2]);
  }

  result->touch(0xffffffffu);
  result->fire(1);
}
