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
  template <class T> void evalAndIncrementGrey(float ref, float& value, T* data, QbVec3f* point);
  // Nearest-voxel sample, rounding by an added half voxel and clamping to the
  // lattice, then increment(ref, value).
  template <class T> void evalAndIncrementLabel(float ref, float& value, T* data, QbVec3f* point);

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

template <class T>
void RegMetric::evalAndIncrementGrey(float ref, float& value, T* data, QbVec3f* point) {
  for (int a = 0; a < 3; a++) {
    float p = ((*point)[a] - box[2 * a]) * scale[a];
    int v = (int)p;
    const int dim = dims[a];
    if (p < 0) {
      v = 0;
      if (boxSize[a] > 0 && p < -0.5f)
        inside = 0;
      p = 0;
    } else if (v + 1 >= dim) {
      v = dim - 1;
      if (inside && boxSize[a] > 0 && p - (float)(dim - 1) > 0.5f)
        inside = 0;
      p = (float)v;
    }
    pos[a] = p;
    voxel[a] = v;
    frac[a] = p - (float)v;
  }
  const int64_t nx = dims[0], ny = dims[1], nz = dims[2];
  offset = ((int64_t)voxel[2] * ny + voxel[1]) * nx + voxel[0];
  stepX = voxel[0] + 1 < nx ? 1 : 0;
  stepY = voxel[1] + 1 < ny ? nx : 0;
  stepZ = voxel[2] + 1 < nz ? nx * ny : 0;

  const T* p = data + offset;
  corner[0] = (float)p[0];                     // c000
  corner[1] = (float)p[stepX];                 // c100
  corner[2] = (float)p[stepY];                 // c010
  corner[3] = (float)p[stepY + stepX];         // c110
  corner[4] = (float)p[stepY + stepZ];         // c011
  corner[5] = (float)p[stepY + stepZ + stepX]; // c111
  corner[6] = (float)p[stepZ];                 // c001
  corner[7] = (float)p[stepZ + stepX];         // c101

  const float fx = frac[0], fy = frac[1], fz = frac[2];
  edge[0] = corner[0] + (corner[1] - corner[0]) * fx; // c000 - c100
  edge[1] = corner[6] + (corner[7] - corner[6]) * fx; // c001 - c101
  edge[2] = corner[2] + (corner[3] - corner[2]) * fx; // c010 - c110
  edge[3] = corner[4] + (corner[5] - corner[4]) * fx; // c011 - c111
  edge[4] = edge[0] + (edge[2] - edge[0]) * fy;
  edge[5] = edge[1] + (edge[3] - edge[1]) * fy;
  value = edge[4] + (edge[5] - edge[4]) * fz;
  increment((double)ref, (double)value);
}

template <class T>
void RegMetric::evalAndIncrementLabel(float ref, float& value, T* data, QbVec3f* point) {
  for (int a = 0; a < 3; a++) {
    const float p = ((*point)[a] - box[2 * a]) * scale[a] + 0.5f;
    int v = (int)p;
    if (v > dims[a] - 1)
      v = dims[a] - 1;
    else if (p < 0)
      v = 0;
    pos[a] = p;
    voxel[a] = v;
  }
  const int64_t index = ((int64_t)voxel[2] * dims[1] + voxel[1]) * dims[0] + voxel[0];
  value = (float)data[index];
  increment((double)ref, (double)value);
}
