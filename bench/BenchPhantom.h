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

inline std::unique_ptr<ZrUniformScalarField3> makePhantom(double shift) {
  auto f = std::make_unique<ZrUniformScalarField3>(kDims, QB_UINT8, kBox);
  uint8_t* data = static_cast<uint8_t*>(f->lattice.dataPtr());
  size_t idx = 0;
  for (int k = 0; k < kDims[2]; k++)
    for (int j = 0; j < kDims[1]; j++)
      for (int i = 0; i < kDims[0]; i++, idx++) {
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
