#pragma once
// A set of points, for example the vertices of a surface.
#include "QbDArray.h"
#include "QbVec3f.h"
#include "ZrSpatialData.h"

class ZrVertexSet : public ZrSpatialData {
  QB_TYPE_HEADER(ZrVertexSet)
public:
  ZrVertexSet() = default;
  ZrVertexSet(const ZrVertexSet& o) = default;
  ZrObject* duplicate() const override;
  void getBoundingBox(float box[6]) const override;
  using ZrSpatialData::getBoundingBox;

  int getNumPoints() const { return points.size(); }
  void setNumPoints(int n) { points.resize(n); }
  QbVec3f* getCoords() { return points.data(); }
  const QbVec3f* getCoords() const { return points.data(); }
  void appendPoint(const QbVec3f& p) { points.append(p); }

  // Optional triangles of a surface (three point indices each), carried along
  // so a mesh survives a deformation of its points.
  QbDArray<int> triangles;

private:
  QbDArray<QbVec3f> points;
};
