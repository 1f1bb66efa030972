#pragma once
// Data object with a place in space: a local bounding box and an optional
// transform that carries local coordinates into world coordinates (row
// vectors: world = local * M).
#include "QbBox3f.h"
#include "QbVec3f.h"
#include "SbMatrix.h"
#include "SbMatrixd.h"
#include "ZrData.h"
#include "ZrTransformNode.h"

class ZrSpatialData : public ZrData {
  QB_TYPE_HEADER(ZrSpatialData)
public:
  ZrSpatialData() = default;
  ZrSpatialData(const ZrSpatialData& o);
  ZrSpatialData& operator=(const ZrSpatialData&) = delete;
  ~ZrSpatialData() override;

  // Local bounding box: xmin, xmax, ymin, ymax, zmin, zmax.
  virtual void getBoundingBox(float box[6]) const = 0;
  QbBox3f getBoundingBox() const;
  QbVec3f getBoundingBoxOrigin() const;
  QbVec3f getBoundingBoxSize() const;

  // The matrix, identity when none was set.
  void getTransform(SbMatrix& m) const;
  void getTransform(SbMatrixd& m) const;
  void getInverseTransform(SbMatrix& m) const;
  void getInverseTransform(SbMatrixd& m) const;
  // The node, or null when no transform was ever set. With create true a node
  // (identity) is made if there is none.
  ZrTransformNode* getTransform(bool create);
  const ZrTransformNode* getTransformNode() const { return transformNode; }
  virtual void setTransform(const SbMatrix& m);
  virtual void setTransform(const SbMatrixd& m);
  // Drops the node: the object has no transform again.
  void removeTransform();
  // Copies the transform (or its absence) of another object.
  void copyTransform(const ZrSpatialData& other);

protected:
  ZrTransformNode* transformNode = nullptr; // owned
};
