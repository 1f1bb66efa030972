#pragma once
// Several point sets with equal marker counts; marker m of every set belong
// together. Coordinates are packed per set as x, y, z floats.
#include "QbDArray.h"
#include "QbVec3f.h"
#include "ZrSpatialData.h"

class ZrLandmarkSet : public ZrSpatialData {
  QB_TYPE_HEADER(ZrLandmarkSet)
public:
  explicit ZrLandmarkSet(int numSets = 1);
  ZrLandmarkSet(const ZrLandmarkSet& o) = default;
  ZrObject* duplicate() const override;
  void getBoundingBox(float box[6]) const override; // of all sets
  using ZrSpatialData::getBoundingBox;

  int getNumSets() const { return sets.size(); }
  // New sets are filled with copies of set 0's positions (zeros if there are
  // none); fewer sets drop the last ones. At least 1.
  void setNumSets(int n);
  int getNumMarkers() const { return numMarkers; }
  // New markers are at the origin; fewer markers drop the last ones.
  void setNumMarkers(int n);
  void resize(int n) { setNumMarkers(n); }
  // No markers; the sets stay.
  void clear() { setNumMarkers(0); }

  QbVec3f* getCoords(int set = 0) { return sets[set].data(); }
  const QbVec3f* getCoords(int set = 0) const { return sets[set].data(); }
  QbVec3f getPosition(int marker, int set = 0) const { return sets[set][marker]; }
  void setPosition(const QbVec3f& p, int marker, int set = 0) { sets[set][marker] = p; }
  // Appends one marker: positions[s] for set s (the first position for all
  // sets when only one is given).
  void appendLandmark(const QbVec3f* positions, int numPositions = -1);
  void appendLandmark(const QbVec3f& p) { appendLandmark(&p, 1); }

private:
  QbDArray<QbDArray<QbVec3f>> sets;
  int numMarkers = 0;
};
