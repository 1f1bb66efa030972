#pragma once
// AVX2 form of the shared-cell probe walk of mutual information
// (reg_walkElasticBoxAddMI): eight voxels of a box row at a time go through
// the cell location, the interpolation and, for every probe, the new
// position, its interpolation along the probe's axis and the model bin. Only
// the histogram additions, and the rare probe that leaves its cell, stay
// scalar; they run voxel by voxel and probe by probe, as the scalar walk runs
// them. The operations are those of RegMetric::locateGrey, the interpolation
// steps and RegMutualInformation::binOf, in the same order and without fused
// multiply-adds, so every clone ends as the scalar walk leaves it, to the
// last bit.
#include "QbVec3f.h"
#include "RegElasticPointProbes.h"
#include "RegMetric.h"
#include "RegMutualInformation.h"
#include "reg_evaluateUniformSimd.h"

#include <cstddef>
#include <cstdint>

// What the probes of one control point share through a walk of its box.
struct RegElasticMIProbes {
  // The sampler geometry (alike in every clone) and the clones.
  const RegMetric* sampler;
  RegMutualInformation* const* mi;
  double* const* hist;
  // Probe k moves axis c[k] by row[k][x] times the voxel's y and z weights.
  const float* const* row;
  const int* c;
  int count;
  double refMin, refScale, modelMin, modelScale;
  int nRef, nMod;
};

// The columns of a box row where the point's x weight `unit` is not 0: one
// run [xa, xb] in the middle of the box. False if they are not one run of at
// least `least` columns.
inline bool reg_elasticBoxRun(const float* unit, int w, int least, int& xa, int& xb) {
  xa = 0;
  xb = w - 1;
  while (xa < w && unit[xa] == 0.0f)
    xa++;
  while (xb > xa && unit[xb] == 0.0f)
    xb--;
  if (xb - xa + 1 < least)
    return false;
  for (int x = xa; x <= xb; x++)
    if (unit[x] == 0.0f)
      return false;
  return true;
}

#ifdef ZR_UNIFORM_AVX2

// RegMetric::locateGrey along axis a for eight coordinates.
ZR_TARGET_AVX2 inline void reg_evaluateElasticLocateAvx2(const RegMetric* m, int a, __m256 x,
                                                         __m256i& v, __m256& fr) {
  __m256 p =
      _mm256_mul_ps(_mm256_sub_ps(x, _mm256_set1_ps(m->box[2 * a])), _mm256_set1_ps(m->scale[a]));
  __m256i vi = _mm256_cvttps_epi32(p);
  const int dim = m->dims[a];
  const __m256i below = _mm256_castps_si256(_mm256_cmp_ps(p, _mm256_setzero_ps(), _CMP_LT_OQ));
  // v + 1 >= dim, for positions not below the first voxel.
  const __m256i top =
      _mm256_andnot_si256(below, _mm256_cmpgt_epi32(vi, _mm256_set1_epi32(dim - 2)));
  vi = _mm256_andnot_si256(below, _mm256_blendv_epi8(vi, _mm256_set1_epi32(dim - 1), top));
  p = _mm256_blendv_ps(p, _mm256_set1_ps((float)(dim - 1)), _mm256_castsi256_ps(top));
  p = _mm256_andnot_ps(_mm256_castsi256_ps(below), p);
  v = vi;
  fr = _mm256_sub_ps(p, _mm256_cvtepi32_ps(vi));
}

ZR_TARGET_AVX2 inline __m256 reg_evaluateElasticLerpAvx2(__m256 a, __m256 b, __m256 f) {
  return _mm256_add_ps(a, _mm256_mul_ps(_mm256_sub_ps(b, a), f));
}

// The voxels v .. v + 7 (columns x .. x + 7 of the box) of one row with the
// point's y and z weights fy and fz: every probe's sample is added to its
// clone; added[k] counts them.
template <class T>
ZR_TARGET_AVX2 void reg_evaluateElasticProbesAvx2(const RegElasticMIProbes& s, const T* ref,
                                                  const T* model, const float* cachedSamples,
                                                  const QbVec3f* grid, size_t v, int x, double fy,
                                                  double fz, int64_t* added) {
  const RegMetric* m = s.sampler;
  alignas(32) float pos[3][8];
  for (int l = 0; l < 8; l++)
    for (int a = 0; a < 3; a++)
      pos[a][l] = grid[v + l][a];
  __m256 g[3], fr[3];
  __m256i vs[3];
  alignas(32) int cell[3][8];
  for (int a = 0; a < 3; a++) {
    g[a] = _mm256_load_ps(pos[a]);
    reg_evaluateElasticLocateAvx2(m, a, g[a], vs[a], fr[a]);
    _mm256_store_si256((__m256i*)cell[a], vs[a]);
  }
  // The eight corners of each voxel's cell, corner by corner.
  alignas(32) float corner[8][8];
  for (int l = 0; l < 8; l++) {
    const int vv[3] = {cell[0][l], cell[1][l], cell[2][l]};
    int64_t sx, sy, sz;
    const int64_t off = m->greyCorners(vv, sx, sy, sz);
    float c[8];
    RegMetric::loadCorners(model + off, sx, sy, sz, c);
    for (int k = 0; k < 8; k++)
      corner[k][l] = c[k];
  }
  __m256 c[8];
  for (int k = 0; k < 8; k++)
    c[k] = _mm256_load_ps(corner[k]);
  // lerpX and lerpY of the voxel's own position.
  const __m256 e0 = reg_evaluateElasticLerpAvx2(c[0], c[1], fr[0]);
  const __m256 e1 = reg_evaluateElasticLerpAvx2(c[6], c[7], fr[0]);
  const __m256 e2 = reg_evaluateElasticLerpAvx2(c[2], c[3], fr[0]);
  const __m256 e3 = reg_evaluateElasticLerpAvx2(c[4], c[5], fr[0]);
  const __m256 e4 = reg_evaluateElasticLerpAvx2(e0, e2, fr[1]);
  const __m256 e5 = reg_evaluateElasticLerpAvx2(e1, e3, fr[1]);

  int refBin[8];
  double refW[8][2];
  for (int l = 0; l < 8; l++)
    RegMutualInformation::binOf((double)(float)ref[v + l], s.refMin, s.refScale, s.nRef, refBin[l],
                                refW[l][0], refW[l][1]);
  const __m256 cached = _mm256_loadu_ps(cachedSamples + v);

  const int count = s.count;
  alignas(32) int bin[RegElasticPointProbes::kMax][8];
  alignas(32) double w[RegElasticPointProbes::kMax][16];
  alignas(32) float moved[RegElasticPointProbes::kMax][8];
  int leaves[RegElasticPointProbes::kMax];
  const __m256d yw = _mm256_set1_pd(fy), zw = _mm256_set1_pd(fz);
  const __m256d modelMin = _mm256_set1_pd(s.modelMin), modelScale = _mm256_set1_pd(s.modelScale);
  for (int k = 0; k < count; k++) {
    const int a = s.c[k];
    // inc = (float)(row * fy); the new coordinate (float)(g + inc * fz).
    const __m256 r = _mm256_loadu_ps(s.row[k] + x);
    const __m128 incLo =
        _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(r)), yw));
    const __m128 incHi =
        _mm256_cvtpd_ps(_mm256_mul_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(r, 1)), yw));
    const __m128 paLo = _mm256_cvtpd_ps(_mm256_add_pd(_mm256_cvtps_pd(_mm256_castps256_ps128(g[a])),
                                                      _mm256_mul_pd(_mm256_cvtps_pd(incLo), zw)));
    const __m128 paHi =
        _mm256_cvtpd_ps(_mm256_add_pd(_mm256_cvtps_pd(_mm256_extractf128_ps(g[a], 1)),
                                      _mm256_mul_pd(_mm256_cvtps_pd(incHi), zw)));
    const __m256 pa = _mm256_set_m128(paHi, paLo);
    const __m256 same = _mm256_cmp_ps(pa, g[a], _CMP_EQ_OQ);
    __m256i va;
    __m256 fa;
    reg_evaluateElasticLocateAvx2(m, a, pa, va, fa);
    __m256 value;
    if (a == 2) {
      value = reg_evaluateElasticLerpAvx2(e4, e5, fa);
    } else if (a == 1) {
      value = reg_evaluateElasticLerpAvx2(reg_evaluateElasticLerpAvx2(e0, e2, fa),
                                          reg_evaluateElasticLerpAvx2(e1, e3, fa), fr[2]);
    } else {
      const __m256 f0 = reg_evaluateElasticLerpAvx2(c[0], c[1], fa);
      const __m256 f1 = reg_evaluateElasticLerpAvx2(c[6], c[7], fa);
      const __m256 f2 = reg_evaluateElasticLerpAvx2(c[2], c[3], fa);
      const __m256 f3 = reg_evaluateElasticLerpAvx2(c[4], c[5], fa);
      value = reg_evaluateElasticLerpAvx2(reg_evaluateElasticLerpAvx2(f0, f2, fr[1]),
                                          reg_evaluateElasticLerpAvx2(f1, f3, fr[1]), fr[2]);
    }
    // A voxel that does not move adds its cached sample.
    value = _mm256_blendv_ps(value, cached, same);
    reg_evaluateUniformBinAvx2(_mm256_cvtps_pd(_mm256_castps256_ps128(value)), modelMin, modelScale,
                               s.nMod, bin[k], w[k]);
    reg_evaluateUniformBinAvx2(_mm256_cvtps_pd(_mm256_extractf128_ps(value, 1)), modelMin,
                               modelScale, s.nMod, bin[k] + 4, w[k] + 8);
    const __m256 otherCell =
        _mm256_castsi256_ps(_mm256_xor_si256(_mm256_cmpeq_epi32(va, vs[a]), _mm256_set1_epi32(-1)));
    leaves[k] = _mm256_movemask_ps(_mm256_andnot_ps(same, otherCell));
    if (leaves[k])
      _mm256_store_ps(moved[k], pa);
  }

  // addWeights() of every sample: the pairs of bins (j, j + 1) of the two
  // reference bins in one addition each.
  for (int l = 0; l < 8; l++) {
    const __m128d a0 = _mm_set1_pd(refW[l][0]), a1 = _mm_set1_pd(refW[l][1]);
    const size_t rowOffset = (size_t)refBin[l] * s.nMod;
    for (int k = 0; k < count; k++) {
      int j;
      __m128d b;
      if (leaves[k] >> l & 1) {
        QbVec3f p = grid[v + l];
        p[s.c[k]] = moved[k][l];
        const float value = s.mi[k]->sampleGrey<T, false>(model, &p);
        double b0, b1;
        RegMutualInformation::binOf((double)value, s.modelMin, s.modelScale, s.nMod, j, b0, b1);
        b = _mm_setr_pd(b0, b1);
      } else {
        j = bin[k][l];
        b = _mm_load_pd(w[k] + 2 * l);
      }
      double* h = s.hist[k] + rowOffset + j;
      _mm_storeu_pd(h, _mm_add_pd(_mm_loadu_pd(h), _mm_mul_pd(a0, b)));
      _mm_storeu_pd(h + s.nMod, _mm_add_pd(_mm_loadu_pd(h + s.nMod), _mm_mul_pd(a1, b)));
    }
  }
  for (int k = 0; k < count; k++)
    added[k] += 8;
}

// RegMutualInformation::decrement(ref[v + l], cached[v + l]) for l < 4; the
// counts are left to the caller.
template <class T>
ZR_TARGET_AVX2 void reg_evaluateElasticTakeOutAvx2(RegMutualInformation* mi, const T* ref,
                                                   const float* cached, size_t v) {
  const __m256d r =
      _mm256_setr_pd((double)ref[v], (double)ref[v + 1], (double)ref[v + 2], (double)ref[v + 3]);
  int i[4], j[4];
  alignas(32) double a[8], b[8];
  reg_evaluateUniformBinAvx2(r, _mm256_set1_pd(mi->refMin), _mm256_set1_pd(mi->refScale),
                             mi->numBinsRef, i, a);
  reg_evaluateUniformBinAvx2(_mm256_cvtps_pd(_mm_loadu_ps(cached + v)),
                             _mm256_set1_pd(mi->modelMin), _mm256_set1_pd(mi->modelScale),
                             mi->numBinsMod, j, b);
  double* hist = mi->histogram.data();
  const int nMod = mi->numBinsMod;
  // row += -1 * (a b) is row - a b.
  for (int l = 0; l < 4; l++) {
    double* h = hist + (size_t)i[l] * nMod + j[l];
    const __m128d bb = _mm_load_pd(b + 2 * l);
    _mm_storeu_pd(h, _mm_sub_pd(_mm_loadu_pd(h), _mm_mul_pd(_mm_set1_pd(a[2 * l]), bb)));
    _mm_storeu_pd(h + nMod,
                  _mm_sub_pd(_mm_loadu_pd(h + nMod), _mm_mul_pd(_mm_set1_pd(a[2 * l + 1]), bb)));
  }
}

#endif
