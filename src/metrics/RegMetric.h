#pragma once
// Abstract similarity measure between reference and model samples. Samples
// are added one by one (and may be taken out again); getResult() is the
// objective, larger meaning a better match. The value -1000.0 means that no
// sample counted.
//
// Overlap rule of all metrics: when maxCoverage > 0 and the covered fraction
// numInside / numTotal is less than a fifth of maxCoverage, the result is
// weighted by (numInside / numTotal) * 5 / maxCoverage.
//
// A metric also carries a small sampler (box, dims, scale, ...) so that an
// evaluator can interpolate the model at a transformed point and add the pair
// in one call. Its state makes a metric object usable by one thread only.
#include "QbVec3f.h"

#include <cstdint>

class RegMetric {
public:
  // Samples that entered the statistic.
  int64_t numInside = 0;
  // All samples looked at, including those outside the model.
  int64_t numTotal = 0;
  // Largest fraction of the reference the model can cover; 0 or less switches
  // the overlap rule off.
  double maxCoverage = 0.0;

  // Sampling state. The owner points `box` (xmin, xmax, ymin, ymax, zmin,
  // zmax of the model) and `dims` (nx, ny, nz) at storage that outlives the
  // evaluation, fills `scale` and `boxSize`, and sets `inside` to 1.
  const float* box = nullptr;
  const int* dims = nullptr;
  // Voxels per world unit, (dim - 1) / (max - min), 0 for an axis of no extent.
  float scale[3] = {0, 0, 0};
  // Voxel, fraction inside it and position in voxel units of the last sample.
  int voxel[3] = {0, 0, 0};
  float frac[3] = {0, 0, 0};
  float pos[3] = {0, 0, 0};
  // max - min per axis.
  float boxSize[3] = {0, 0, 0};
  // Linear index of the corner voxel of the last sample, and the offsets to
  // its neighbours (0 at the top edge of the lattice).
  int64_t offset = 0;
  int64_t stepX = 0, stepY = 0, stepZ = 0;
  // Cleared by evalAndIncrementGrey when a sample lies more than half a voxel
  // outside the lattice on an axis with extent.
  int inside = 1;
  // Corners (c000, c100, c010, c110, c011, c111, c001, c101) and intermediate
  // values (e0..e5) of the last trilinear interpolation.
  float corner[8] = {0, 0, 0, 0, 0, 0, 0, 0};
  float edge[6] = {0, 0, 0, 0, 0, 0};

  explicit RegMetric(double maxCoverage = 0.0) : maxCoverage(maxCoverage) {}

  // A new metric of the same class, owned by the caller, with the counts,
  // maxCoverage, accumulators and bin parameters; the sampling state is not
  // copied.
  virtual RegMetric* clone() const = 0;
  virtual ~RegMetric();
  // Zeroes the counts and accumulators; parameters stay.
  virtual void reset() = 0;
  virtual double getResult() = 0;
  // Overwrites the counts (and, in subclasses, the accumulators) of `other`,
  // which must be of the same class.
  virtual void getState(RegMetric* other) const;
  // Adds one sample pair.
  virtual void increment(double ref, double model) = 0;
  // Removes a sample pair that an earlier increment() added.
  virtual void decrement(double ref, double model) = 0;
  // Marginal entropies of the two sample sets; 0.0 for metrics without
  // histograms.
  virtual void getMarginalEntropies(double& ref, double& model) = 0;

  // Trilinear sample of `data` (x fastest) at the world position `point`,
  // stored in `value`, then increment(ref, value). Positions outside the
  // lattice read the clamped border.
  template <class T> void evalAndIncrementGrey(float ref, float& value, T* data, QbVec3f* point) {
    value = sampleGrey(data, point);
    increment((double)ref, (double)value);
  }
  // Nearest-voxel sample, rounding by an added half voxel and clamping to the
  // lattice, then increment(ref, value).
  template <class T> void evalAndIncrementLabel(float ref, float& value, T* data, QbVec3f* point) {
    value = sampleLabel(data, point);
    increment((double)ref, (double)value);
  }
  // The sampling halves of the two calls above, without the increment, for
  // walks that add the pair through a call bound at compile time. With
  // KeepState false the voxel, fractions, corners and intermediate values stay
  // in registers instead of the fields above (the value, and the clearing of
  // `inside`, are the same); a walk that never reads them saves the stores.
  template <class T, bool KeepState = true> float sampleGrey(const T* data, const QbVec3f* point);
  template <class T, bool KeepState = true> float sampleLabel(const T* data, const QbVec3f* point);

  // The steps of sampleGrey(), for walks that sample near one position many
  // times and reuse what a move leaves alone. Axis a of the world coordinate
  // `x`: the voxel `v` (clamped to the lattice), the fraction `fr` inside it
  // and the position `p` in voxel units; true where the sample lies more
  // than half a voxel outside on an axis with extent.
  inline bool locateGrey(int a, float x, int& v, float& fr, float& p) const {
    p = (x - box[2 * a]) * scale[a];
    v = (int)p;
    const int dim = dims[a];
    bool out = false;
    if (p < 0) {
      v = 0;
      out = boxSize[a] > 0 && p < -0.5f;
      p = 0;
    } else if (v + 1 >= dim) {
      v = dim - 1;
      out = boxSize[a] > 0 && p - (float)(dim - 1) > 0.5f;
      p = (float)v;
    }
    fr = p - (float)v;
    return out;
  }
  // Linear index of the corner voxel `v` and the offsets to its neighbours
  // (0 at the top edge of the lattice).
  inline int64_t greyCorners(const int* v, int64_t& sx, int64_t& sy, int64_t& sz) const {
    const int64_t nx = dims[0], ny = dims[1], nz = dims[2];
    sx = v[0] + 1 < nx ? 1 : 0;
    sy = v[1] + 1 < ny ? nx : 0;
    sz = v[2] + 1 < nz ? nx * ny : 0;
    return ((int64_t)v[2] * ny + v[1]) * nx + v[0];
  }
  // The eight corners, in the order of `corner`.
  template <class T>
  static inline void loadCorners(const T* p, int64_t sx, int64_t sy, int64_t sz, float* c) {
    c[0] = (float)p[0];
    c[1] = (float)p[sx];
    c[2] = (float)p[sy];
    c[3] = (float)p[sy + sx];
    c[4] = (float)p[sy + sz];
    c[5] = (float)p[sy + sz + sx];
    c[6] = (float)p[sz];
    c[7] = (float)p[sz + sx];
  }
  // e0..e3 along x, e4 and e5 along y, and the value along z.
  static inline void lerpX(const float* c, float fx, float* e) {
    e[0] = c[0] + (c[1] - c[0]) * fx; // c000 - c100
    e[1] = c[6] + (c[7] - c[6]) * fx; // c001 - c101
    e[2] = c[2] + (c[3] - c[2]) * fx; // c010 - c110
    e[3] = c[4] + (c[5] - c[4]) * fx; // c011 - c111
  }
  static inline void lerpY(float* e, float fy) {
    e[4] = e[0] + (e[2] - e[0]) * fy;
    e[5] = e[1] + (e[3] - e[1]) * fy;
  }
  static inline float lerpZ(const float* e, float fz) { return e[4] + (e[5] - e[4]) * fz; }

protected:
  RegMetric(const RegMetric&) = default;
  RegMetric& operator=(const RegMetric&) = default;
  // Copies counts and maxCoverage, as clone() needs; the sampling state keeps
  // its initial values.
  void copyStatistics(const RegMetric& other) {
    numInside = other.numInside;
    numTotal = other.numTotal;
    maxCoverage = other.maxCoverage;
  }
};

template <class T, bool KeepState>
inline float RegMetric::sampleGrey(const T* data, const QbVec3f* point) {
  float ps[3], fr[3];
  int vs[3];
  for (int a = 0; a < 3; a++)
    if (locateGrey(a, (*point)[a], vs[a], fr[a], ps[a]))
      inside = 0;
  int64_t sx, sy, sz;
  const int64_t off = greyCorners(vs, sx, sy, sz);
  float c[8], e[6];
  loadCorners(data + off, sx, sy, sz, c);
  lerpX(c, fr[0], e);
  lerpY(e, fr[1]);
  if (KeepState) {
    for (int a = 0; a < 3; a++) {
      pos[a] = ps[a];
      voxel[a] = vs[a];
      frac[a] = fr[a];
    }
    offset = off;
    stepX = sx;
    stepY = sy;
    stepZ = sz;
    for (int k = 0; k < 8; k++)
      corner[k] = c[k];
    for (int k = 0; k < 6; k++)
      edge[k] = e[k];
  }
  return lerpZ(e, fr[2]);
}

template <class T, bool KeepState>
inline float RegMetric::sampleLabel(const T* data, const QbVec3f* point) {
  int vs[3];
  for (int a = 0; a < 3; a++) {
    const float p = ((*point)[a] - box[2 * a]) * scale[a] + 0.5f;
    int v = (int)p;
    if (v > dims[a] - 1)
      v = dims[a] - 1;
    else if (p < 0)
      v = 0;
    vs[a] = v;
    if (KeepState) {
      pos[a] = p;
      voxel[a] = v;
    }
  }
  const int64_t index = ((int64_t)vs[2] * dims[1] + vs[1]) * dims[0] + vs[0];
  return (float)data[index];
}
