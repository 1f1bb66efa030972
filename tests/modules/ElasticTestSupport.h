#pragma once
// Test volumes of the elastic modules, generated in code: a smooth image of
// Gaussian blobs and its copy under a known smooth deformation, label
// versions of both, and helpers that drive modules through their ports.
#include "QbPrimType.h"
#include "ZrCompModule.h"
#include "ZrObjectPool.h"
#include "ZrUniformLabelField3.h"
#include "ZrUniformScalarField3.h"
#include "ZrWorkArea.h"

#include <cmath>
#include <functional>

namespace elastic_test {

// The smooth test image: a background with four anisotropic blobs, on the
// box [0, 31] in x and y and [0, 23] in z (in voxels of a 32 x 32 x 24
// lattice).
inline double blobImage(double x, double y, double z) {
  struct Blob {
    double cx, cy, cz, sx, sy, sz, a;
  };
  static const Blob blobs[] = {{11, 13, 11, 5, 4, 4, 120},
                               {21, 10, 13, 3.5, 4.5, 3.5, 90},
                               {15, 22, 10, 4, 3, 4.5, 70},
                               {20, 20, 16, 3, 3, 3, 60}};
  // A gentle texture keeps the background from being one flat value, which
  // histogram metrics could not place.
  double v = 40.0 + 15.0 * std::sin(0.45 * x + 0.2 * z) * std::sin(0.5 * y - 0.15 * z);
  for (const Blob& b : blobs) {
    const double dx = (x - b.cx) / b.sx, dy = (y - b.cy) / b.sy, dz = (z - b.cz) / b.sz;
    v += b.a * std::exp(-0.5 * (dx * dx + dy * dy + dz * dz));
  }
  return v;
}

// A smooth deformation of at most `amplitude` along each axis, zero on the
// faces of the box [0, extent] of each axis. A flat box (extent 0 in z)
// does not move in z.
struct Deformation {
  double amplitude = 1.5;
  double extent[3] = {31, 31, 23};
  void operator()(const double p[3], double u[3]) const {
    const double pi = 3.14159265358979323846;
    double s[3];
    for (int a = 0; a < 3; a++)
      s[a] = extent[a] > 0 ? std::sin(pi * p[a] / extent[a]) : 1.0;
    const double c1 = std::cos(pi * p[1] / extent[1]);
    const double c2 = extent[2] > 0 ? std::cos(pi * p[2] / extent[2]) : 1.0;
    u[0] = amplitude * s[0] * s[1] * s[2] * c1;
    u[1] = -amplitude * s[0] * s[1] * s[2] * c2;
    u[2] = extent[2] > 0 ? 0.7 * amplitude * s[0] * s[1] * s[2] : 0.0;
  }
};

// A field of the given type whose node at p = index * spacing holds f(p).
template <class F>
ZrUniformScalarField3* makeField(const int dims[3], int type, F f, bool label = false,
                                 double spacing = 1.0) {
  const float box[6] = {0.0f, (float)((dims[0] - 1) * spacing),
                        0.0f, (float)((dims[1] - 1) * spacing),
                        0.0f, (float)((dims[2] - 1) * spacing)};
  ZrUniformScalarField3* field = label ? new ZrUniformLabelField3(dims, type, box)
                                       : new ZrUniformScalarField3(dims, type, box);
  size_t idx = 0;
  for (int k = 0; k < dims[2]; k++)
    for (int j = 0; j < dims[1]; j++)
      for (int i = 0; i < dims[0]; i++, idx++)
        field->lattice.setValue(idx, f(i * spacing, j * spacing, k * spacing));
  return field;
}

// The model: the blob image itself (a flat model cuts it at z = zShift).
inline ZrUniformScalarField3* makeModel(const int dims[3], int type = QB_FLOAT,
                                        double spacing = 1.0, double valueScale = 1.0,
                                        double zShift = 0.0) {
  return makeField(
      dims, type,
      [=](double x, double y, double z) { return valueScale * blobImage(x, y, z + zShift); }, false,
      spacing);
}

// The reference: reference(p) = model(p + u(p)), so that the ideal transform
// maps p to p + u(p).
inline ZrUniformScalarField3* makeReference(const int dims[3], const Deformation& u,
                                            int type = QB_FLOAT, double spacing = 1.0,
                                            double valueScale = 1.0, double zShift = 0.0) {
  return makeField(
      dims, type,
      [&](double x, double y, double z) {
        const double p[3] = {x, y, z};
        double d[3];
        u(p, d);
        return valueScale * blobImage(x + d[0], y + d[1], z + d[2] + zShift);
      },
      false, spacing);
}

// Labels: 1 inside the blob image's level set above 60, 2 above 100, else 0.
inline double labelOf(double v) { return v > 100.0 ? 2.0 : (v > 60.0 ? 1.0 : 0.0); }

inline void addToPool(ZrObject* o, const char* name) {
  o->setName(name);
  ZrObjectPool::getTheObjectPool()->addObject(o);
}

// Squared difference of two fields of equal lattices over the nodes where
// `inside` holds.
inline double squaredDifference(const ZrRegScalarField3& a, const ZrRegScalarField3& b,
                                const std::function<bool(int, int, int)>& inside) {
  const int* d = a.getDims();
  double s = 0.0;
  size_t idx = 0;
  for (int k = 0; k < d[2]; k++)
    for (int j = 0; j < d[1]; j++)
      for (int i = 0; i < d[0]; i++, idx++)
        if (inside(i, j, k)) {
          const double e = a.lattice.getValueAsDouble(idx) - b.lattice.getValueAsDouble(idx);
          s += e * e;
        }
  return s;
}

} // namespace elastic_test
