#include "ZrVertexSet.h"
#include <algorithm>

namespace {
QbInterfaceOwner* createVertexSet() { return new ZrVertexSet; }
} // namespace

QB_TYPE_SOURCE(ZrVertexSet, ZrSpatialData, createVertexSet)

ZrObject* ZrVertexSet::duplicate() const { return new ZrVertexSet(*this); }

void ZrVertexSet::getBoundingBox(float box[6]) const {
  QbBox3f b;
  for (const QbVec3f& p : points)
    b.extendBy(p.x, p.y, p.z);
  if (b.isEmpty())
    b = QbBox3f(0, 0, 0, 0, 0, 0); // no points: a point box at the origin
  std::copy(b.b, b.b + 6, box);
}
