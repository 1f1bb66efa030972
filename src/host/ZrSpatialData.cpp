#include "ZrSpatialData.h"

QB_TYPE_SOURCE(ZrSpatialData, ZrData, nullptr)

ZrSpatialData::ZrSpatialData(const ZrSpatialData& o)
    : ZrData(o), transformNode(o.transformNode ? new ZrTransformNode(*o.transformNode) : nullptr) {}

ZrSpatialData::~ZrSpatialData() { delete transformNode; }

QbBox3f ZrSpatialData::getBoundingBox() const {
  QbBox3f b;
  getBoundingBox(b.getValue());
  return b;
}

QbVec3f ZrSpatialData::getBoundingBoxOrigin() const {
  float b[6];
  getBoundingBox(b);
  return QbVec3f(b[0], b[2], b[4]);
}

QbVec3f ZrSpatialData::getBoundingBoxSize() const {
  float b[6];
  getBoundingBox(b);
  return QbVec3f(b[1] - b[0], b[3] - b[2], b[5] - b[4]);
}

void ZrSpatialData::getTransform(SbMatrix& m) const {
  if (transformNode)
    m.setValue(transformNode->getMatrix());
  else
    m.makeIdentity();
}

void ZrSpatialData::getTransform(SbMatrixd& m) const {
  if (transformNode)
    m = transformNode->getMatrix();
  else
    m.makeIdentity();
}

void ZrSpatialData::getInverseTransform(SbMatrix& m) const {
  // Inverted in double precision, then narrowed: a float inverse of a float
  // matrix would lose digits the double matrix still has.
  SbMatrixd d;
  getInverseTransform(d);
  m.setValue(d);
}

void ZrSpatialData::getInverseTransform(SbMatrixd& m) const {
  if (transformNode)
    m = transformNode->getMatrix().inverse();
  else
    m.makeIdentity();
}

ZrTransformNode* ZrSpatialData::getTransform(bool create) {
  if (!transformNode && create)
    transformNode = new ZrTransformNode;
  return transformNode;
}

void ZrSpatialData::setTransform(const SbMatrix& m) { setTransform(SbMatrixd(m)); }

void ZrSpatialData::setTransform(const SbMatrixd& m) { getTransform(true)->setMatrix(m); }

void ZrSpatialData::removeTransform() {
  delete transformNode;
  transformNode = nullptr;
}

void ZrSpatialData::copyTransform(const ZrSpatialData& other) {
  if (&other == this)
    return;
  if (!other.transformNode) {
    removeTransform();
    return;
  }
  if (transformNode)
    *transformNode = *other.transformNode;
  else
    transformNode = new ZrTransformNode(*other.transformNode);
}
