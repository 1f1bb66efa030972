#include "ZrLandmarkSet.h"
#include <algorithm>

namespace {
QbInterfaceOwner* createLandmarkSet() { return new ZrLandmarkSet(1); }
} // namespace

QB_TYPE_SOURCE(ZrLandmarkSet, ZrSpatialData, createLandmarkSet)

ZrLandmarkSet::ZrLandmarkSet(int numSets) { sets.resize(std::max(numSets, 1)); }

ZrObject* ZrLandmarkSet::duplicate() const { return new ZrLandmarkSet(*this); }

void ZrLandmarkSet::getBoundingBox(float box[6]) const {
  QbBox3f b;
  for (const QbDArray<QbVec3f>& s : sets)
    for (int m = 0; m < numMarkers; m++)
      b.extendBy(s[m].x, s[m].y, s[m].z);
  if (b.isEmpty())
    b = QbBox3f(0, 0, 0, 0, 0, 0); // no markers: a point box at the origin
  std::copy(b.b, b.b + 6, box);
}

void ZrLandmarkSet::setNumSets(int n) {
  n = std::max(n, 1);
  const int old = sets.size();
  sets.resize(n);
  for (int s = old; s < n; s++)
    sets[s] = sets[0];
}

void ZrLandmarkSet::setNumMarkers(int n) {
  n = std::max(n, 0);
  for (QbDArray<QbVec3f>& s : sets)
    s.resize(n); // new entries are value-initialised: the origin
  numMarkers = n;
}

void ZrLandmarkSet::appendLandmark(const QbVec3f* positions, int numPositions) {
  if (numPositions < 0)
    numPositions = sets.size();
  for (int s = 0; s < sets.size(); s++)
    sets[s].append(s < numPositions ? positions[s] : positions[0]);
  numMarkers++;
}
