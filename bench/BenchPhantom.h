#pragma once
// The head-sized pair of the benchmarks: 181 x 217 x 181 bytes of 1 mm, an
// ellipsoid of tissue-like grey values with inner structure and texture, 0
// outside; the model is the same shifted by `shift` voxels along x.
#include "QbPrimType.h"
#include "ZrUniformScalarField3.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>

const int kDims[3] = {181, 217, 181};
const float kBox[6] = {0, 180, 0, 216, 0, 180};

// `reduce` > 1 gives the same head on voxels `reduce` times as large, as a
// level of a resolution pyramid (2: 91 x 109 x 91 voxels of 2 mm).
inline std::unique_ptr<ZrUniformScalarField3> makePhantom(double shift, int reduce = 1) {
  const int dims[3] = {(kDims[0] - 1) / reduce + 1, (kDims[1] - 1) / reduce + 1,
                       (kDims[2] - 1) / reduce + 1};
  const float box[6] = {0, float(reduce * (dims[0] - 1)), 0, float(reduce * (dims[1] - 1)),
                        0, float(reduce * (dims[2] - 1))};
  auto f = std::make_unique<ZrUniformScalarField3>(dims, QB_UINT8, box);
  uint8_t* data = static_cast<uint8_t*>(f->lattice.dataPtr());
  size_t idx = 0;
  for (int kk = 0; kk < dims[2]; kk++)
    for (int jj = 0; jj < dims[1]; jj++)
      for (int ii = 0; ii < dims[0]; ii++, idx++) {
        const int i = ii * reduce, j = jj * reduce, k = kk * reduce;
        const double x = (i + shift - 90) / 75.0, y = (j - 108) / 95.0, z = (k - 90) / 80.0;
        const double r = x * x + y * y + z * z;
        double v = 0;
        if (r < 1.0) {
          v = r < 0.55 ? 110 + 40 * std::sin(9 * x) * std::cos(7 * y) : 200;
          v += 15 * std::sin(0.9 * i) * std::sin(0.7 * j + 0.5 * k);
        }
        data[idx] = (uint8_t)std::max(0.0, std::min(255.0, v));
      }
  return f;
}
