#pragma once
// AVX2 forms of the block loops of the uniform walk: the trilinear samples of
// four voxels at a time, and for mutual information the bins and weights of
// four sample pairs at a time. They carry out the same arithmetic in the same
// order as the scalar forms in reg_evaluateUniformRow.h and
// RegMutualInformation::binOf (no fused multiply-add), leaving out only clamps
// that cannot change a result, so their results are equal to the last bit;
// only the work per instruction differs.
//
// The forms are compiled for AVX2 by a function attribute and chosen at run
// time, so the build needs no machine-specific flags and runs anywhere.
// Elsewhere than on x86-64 with GCC or Clang only the scalar forms exist.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "SbVec3d.h"

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define ZR_UNIFORM_AVX2 1
#include <immintrin.h>
#define ZR_TARGET_AVX2 __attribute__((target("avx2")))
#endif

// Whether the walks take the AVX2 forms: true where the processor has AVX2.
// A test may switch it off to compare both forms.
inline bool& reg_evaluateUniformSimd() {
#ifdef ZR_UNIFORM_AVX2
  static bool use = __builtin_cpu_supports("avx2");
#else
  static bool use = false;
#endif
  return use;
}

#ifdef ZR_UNIFORM_AVX2

// Model voxels k[l] and k[l] + 1 of four positions l as doubles. The loads
// are plain ones: gathers are slower than these on the processors at hand.
template <class T> inline T reg_evaluateUniformLoad(const void* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

ZR_TARGET_AVX2 inline void reg_evaluateUniformPairAvx2(const uint8_t* m, const int64_t* k,
                                                       __m256d& left, __m256d& right) {
  const __m128i g = _mm_setr_epi32(
      reg_evaluateUniformLoad<uint16_t>(m + k[0]), reg_evaluateUniformLoad<uint16_t>(m + k[1]),
      reg_evaluateUniformLoad<uint16_t>(m + k[2]), reg_evaluateUniformLoad<uint16_t>(m + k[3]));
  left = _mm256_cvtepi32_pd(_mm_and_si128(g, _mm_set1_epi32(0xff)));
  right = _mm256_cvtepi32_pd(_mm_srli_epi32(g, 8));
}

// Two 16-bit values per 32-bit lane.
ZR_TARGET_AVX2 inline __m128i reg_evaluateUniformPairs16(const void* m, const int64_t* k) {
  const char* c = (const char*)m;
  return _mm_setr_epi32(reg_evaluateUniformLoad<int32_t>(c + 2 * k[0]),
                        reg_evaluateUniformLoad<int32_t>(c + 2 * k[1]),
                        reg_evaluateUniformLoad<int32_t>(c + 2 * k[2]),
                        reg_evaluateUniformLoad<int32_t>(c + 2 * k[3]));
}

ZR_TARGET_AVX2 inline void reg_evaluateUniformPairAvx2(const int16_t* m, const int64_t* k,
                                                       __m256d& left, __m256d& right) {
  const __m128i g = reg_evaluateUniformPairs16(m, k);
  left = _mm256_cvtepi32_pd(_mm_srai_epi32(_mm_slli_epi32(g, 16), 16));
  right = _mm256_cvtepi32_pd(_mm_srai_epi32(g, 16));
}

ZR_TARGET_AVX2 inline void reg_evaluateUniformPairAvx2(const uint16_t* m, const int64_t* k,
                                                       __m256d& left, __m256d& right) {
  const __m128i g = reg_evaluateUniformPairs16(m, k);
  left = _mm256_cvtepi32_pd(_mm_and_si128(g, _mm_set1_epi32(0xffff)));
  right = _mm256_cvtepi32_pd(_mm_srli_epi32(g, 16));
}

// Two 32-bit values per 64-bit lane, regrouped: the first ones to the low
// half, the second ones to the high half.
ZR_TARGET_AVX2 inline __m256i reg_evaluateUniformPairs32(const void* m, const int64_t* k) {
  const char* c = (const char*)m;
  const __m256i g = _mm256_setr_epi64x(reg_evaluateUniformLoad<int64_t>(c + 4 * k[0]),
                                       reg_evaluateUniformLoad<int64_t>(c + 4 * k[1]),
                                       reg_evaluateUniformLoad<int64_t>(c + 4 * k[2]),
                                       reg_evaluateUniformLoad<int64_t>(c + 4 * k[3]));
  return _mm256_permutevar8x32_epi32(g, _mm256_setr_epi32(0, 2, 4, 6, 1, 3, 5, 7));
}

ZR_TARGET_AVX2 inline void reg_evaluateUniformPairAvx2(const int32_t* m, const int64_t* k,
                                                       __m256d& left, __m256d& right) {
  const __m256i g = reg_evaluateUniformPairs32(m, k);
  left = _mm256_cvtepi32_pd(_mm256_castsi256_si128(g));
  right = _mm256_cvtepi32_pd(_mm256_extracti128_si256(g, 1));
}

ZR_TARGET_AVX2 inline void reg_evaluateUniformPairAvx2(const float* m, const int64_t* k,
                                                       __m256d& left, __m256d& right) {
  const __m256i g = reg_evaluateUniformPairs32(m, k);
  left = _mm256_cvtps_pd(_mm_castsi128_ps(_mm256_castsi256_si128(g)));
  right = _mm256_cvtps_pd(_mm_castsi128_ps(_mm256_extracti128_si256(g, 1)));
}

ZR_TARGET_AVX2 inline void reg_evaluateUniformPairAvx2(const double* m, const int64_t* k,
                                                       __m256d& left, __m256d& right) {
  left = _mm256_setr_pd(m[k[0]], m[k[1]], m[k[2]], m[k[3]]);
  right = _mm256_setr_pd(m[k[0] + 1], m[k[1] + 1], m[k[2] + 1], m[k[3] + 1]);
}

ZR_TARGET_AVX2 inline __m256d reg_evaluateUniformLerpAvx2(__m256d a, __m256d b, __m256d t) {
  return _mm256_add_pd(_mm256_mul_pd(_mm256_sub_pd(b, a), t), a);
}

// The trilinear samples of voxels first .. first + n - 1 (n at most 64) of a
// row that starts at v and advances by `step` into `out`, four at a time; a
// last group of fewer than four is sampled whole, so `out` holds n rounded
// up to a multiple of 4. A group whose reads could reach past the model's
// last voxel (a voxel's right neighbour is read before it is known to exist)
// is left to `scalar(m)`, which samples voxel first + m into out[m].
//
// Coordinates are clamped to the lattice, [0, dim - 1]. Inside voxels lie
// within half a voxel of it, and above dim - 1 the border voxel stands in for
// its missing neighbour, so the clamp changes no inside sample; it keeps the
// reads of a last group's outside voxels within the model.
//
// Two passes: the first finds the corner indices and fractions of all
// groups, the second reads and interpolates. Each group's work is then a
// short chain, so that the reads of many groups are under way at once; in
// one pass, the reads waited on the index arithmetic of their own group.
//
// With `pure`, pure[m] tells whether the eight voxels of sample m are equal
// (the sample then is their value), corner[u * 64 + m] holds its voxel u (bit
// 0 of u along x, bit 1 y, bit 2 z, the border replicated) and
// frac3[a * 64 + m] its fraction along axis a; `scalar(m)` sets them for its
// samples. Both arrays are aligned to 32 bytes.
template <class ModelT, class Scalar>
ZR_TARGET_AVX2 void
reg_evaluateUniformSampleBlockAvx2(const ModelT* model, int nx, int ny, int nz, const SbVec3d& v,
                                   const SbVec3d& step, int first, int n, double* out,
                                   Scalar&& scalar, bool* pure = nullptr, double* corner = nullptr,
                                   double* frac3 = nullptr) {
  constexpr int kGroups = 16;
  const __m256d zero = _mm256_setzero_pd();
  const __m128i one = _mm_set1_epi32(1);
  const __m128i vnx = _mm_set1_epi32(nx), vny = _mm_set1_epi32(ny), vnz = _mm_set1_epi32(nz);
  const __m256i row = _mm256_set1_epi64x(nx), plane = _mm256_set1_epi64x((int64_t)nx * ny);
  // Highest index whose right neighbour lies within the model.
  const __m256i safe = _mm256_set1_epi64x((int64_t)nx * ny * nz - 2);
  const __m256d ox = _mm256_set1_pd(v.x), oy = _mm256_set1_pd(v.y), oz = _mm256_set1_pd(v.z);
  const __m256d sx = _mm256_set1_pd(step.x), sy0 = _mm256_set1_pd(step.y),
                sz0 = _mm256_set1_pd(step.z);
  const __m256d lanes = _mm256_setr_pd(0.0, 1.0, 2.0, 3.0);
  const __m256d topX = _mm256_set1_pd(nx - 1), topY = _mm256_set1_pd(ny - 1),
                topZ = _mm256_set1_pd(nz - 1);
  alignas(32) int64_t k[kGroups][4][4];
  alignas(32) double frac[kGroups][4][4];
  bool group[kGroups];
  const int groups = (n + 3) / 4 < kGroups ? (n + 3) / 4 : kGroups;
  for (int g = 0; g < groups; g++) {
    const int m = 4 * g;
    const __m256d t = _mm256_add_pd(_mm256_set1_pd((double)(first + m)), lanes);
    const __m256d x =
        _mm256_min_pd(_mm256_max_pd(_mm256_add_pd(ox, _mm256_mul_pd(t, sx)), zero), topX);
    const __m256d y =
        _mm256_min_pd(_mm256_max_pd(_mm256_add_pd(oy, _mm256_mul_pd(t, sy0)), zero), topY);
    const __m256d z =
        _mm256_min_pd(_mm256_max_pd(_mm256_add_pd(oz, _mm256_mul_pd(t, sz0)), zero), topZ);
    const __m128i ix = _mm256_cvttpd_epi32(x), iy = _mm256_cvttpd_epi32(y),
                  iz = _mm256_cvttpd_epi32(z);
    _mm256_store_pd(frac[g][0], _mm256_sub_pd(x, _mm256_cvtepi32_pd(ix)));
    _mm256_store_pd(frac[g][1], _mm256_sub_pd(y, _mm256_cvtepi32_pd(iy)));
    _mm256_store_pd(frac[g][2], _mm256_sub_pd(z, _mm256_cvtepi32_pd(iz)));
    // Neighbours: all ones where the next voxel along the axis exists. At
    // the top of x the border voxel stands in for its missing neighbour,
    // kept as a mask in the fourth row of fractions.
    const __m128i hasX = _mm_cmplt_epi32(_mm_add_epi32(ix, one), vnx);
    _mm256_store_pd(frac[g][3], _mm256_castsi256_pd(_mm256_cvtepi32_epi64(hasX)));
    const __m256i sy =
        _mm256_and_si256(_mm256_cvtepi32_epi64(_mm_cmplt_epi32(_mm_add_epi32(iy, one), vny)), row);
    const __m256i sz = _mm256_and_si256(
        _mm256_cvtepi32_epi64(_mm_cmplt_epi32(_mm_add_epi32(iz, one), vnz)), plane);
    const __m128i zy = _mm_add_epi32(_mm_mullo_epi32(iz, vny), iy);
    const __m256i i000 = _mm256_add_epi64(_mm256_mul_epu32(_mm256_cvtepu32_epi64(zy), row),
                                          _mm256_cvtepu32_epi64(ix));
    const __m256i i010 = _mm256_add_epi64(i000, sy);
    const __m256i i001 = _mm256_add_epi64(i000, sz);
    const __m256i i011 = _mm256_add_epi64(i010, sz);
    group[g] = !_mm256_movemask_pd(_mm256_castsi256_pd(_mm256_cmpgt_epi64(i011, safe)));
    _mm256_store_si256((__m256i*)k[g][0], i000);
    _mm256_store_si256((__m256i*)k[g][1], i010);
    _mm256_store_si256((__m256i*)k[g][2], i001);
    _mm256_store_si256((__m256i*)k[g][3], i011);
  }
  for (int g = 0; g < groups; g++) {
    const int m = 4 * g;
    if (!group[g]) {
      for (int l = m; l < m + 4 && l < n; l++)
        scalar(l);
      continue;
    }
    __m256d c000, c100, c010, c110, c001, c101, c011, c111;
    reg_evaluateUniformPairAvx2(model, k[g][0], c000, c100);
    reg_evaluateUniformPairAvx2(model, k[g][1], c010, c110);
    reg_evaluateUniformPairAvx2(model, k[g][2], c001, c101);
    reg_evaluateUniformPairAvx2(model, k[g][3], c011, c111);
    const __m256d keep = _mm256_load_pd(frac[g][3]);
    c100 = _mm256_blendv_pd(c000, c100, keep);
    c110 = _mm256_blendv_pd(c010, c110, keep);
    c101 = _mm256_blendv_pd(c001, c101, keep);
    c111 = _mm256_blendv_pd(c011, c111, keep);
    const __m256d fx = _mm256_load_pd(frac[g][0]), fy = _mm256_load_pd(frac[g][1]),
                  fz = _mm256_load_pd(frac[g][2]);
    const __m256d e0 = reg_evaluateUniformLerpAvx2(c000, c100, fx);
    const __m256d e1 = reg_evaluateUniformLerpAvx2(c001, c101, fx);
    const __m256d e4 =
        reg_evaluateUniformLerpAvx2(e0, reg_evaluateUniformLerpAvx2(c010, c110, fx), fy);
    const __m256d value = reg_evaluateUniformLerpAvx2(
        e4, reg_evaluateUniformLerpAvx2(e1, reg_evaluateUniformLerpAvx2(c011, c111, fx), fy), fz);
    _mm256_storeu_pd(out + m, value);
    if (pure) {
      const __m256d c[8] = {c000, c100, c010, c110, c001, c101, c011, c111};
      for (int u = 0; u < 8; u++)
        _mm256_store_pd(corner + u * 64 + m, c[u]);
      _mm256_store_pd(frac3 + m, fx);
      _mm256_store_pd(frac3 + 64 + m, fy);
      _mm256_store_pd(frac3 + 128 + m, fz);
      const __m256d lo =
          _mm256_min_pd(_mm256_min_pd(_mm256_min_pd(c000, c100), _mm256_min_pd(c010, c110)),
                        _mm256_min_pd(_mm256_min_pd(c001, c101), _mm256_min_pd(c011, c111)));
      const __m256d hi =
          _mm256_max_pd(_mm256_max_pd(_mm256_max_pd(c000, c100), _mm256_max_pd(c010, c110)),
                        _mm256_max_pd(_mm256_max_pd(c001, c101), _mm256_max_pd(c011, c111)));
      const int same = _mm256_movemask_pd(_mm256_cmp_pd(lo, hi, _CMP_EQ_OQ));
      for (int l = 0; l < 4; l++)
        pure[m + l] = (same >> l) & 1;
    }
  }
  for (int m = 4 * groups; m < n; m++)
    scalar(m);
}

// The four lanes of a added as (0 + 1) + (2 + 3).
ZR_TARGET_AVX2 inline double reg_evaluateUniformSumAvx2(__m256d a) {
  const __m256d h = _mm256_hadd_pd(a, a);
  return _mm_cvtsd_f64(_mm_add_pd(_mm256_castpd256_pd128(h), _mm256_extractf128_pd(h, 1)));
}

// The partial volume of sample m of a block over bins of one value each,
// from the voxels and fractions reg_evaluateUniformSampleBlockAvx2 kept: the
// eight voxels' bins (value - low, clamped to [0, top]) and trilinear
// weights. Where the voxels fall into at most two bins, returns true with
// the bin of voxel 0 and the other one (the first voxel's in another bin;
// j1 == j0 where there is none) and the summed weights of each, added as
// reg_evaluateUniformLabelPair adds them.
ZR_TARGET_AVX2 inline bool reg_evaluateUniformLabelPairAvx2(const double* corner,
                                                            const double* frac3, int m, double low,
                                                            double top, int& j0, int& j1,
                                                            double& w0, double& w1) {
  const double* c = corner + m;
  const __m256d zero = _mm256_setzero_pd();
  const __m256d vlow = _mm256_set1_pd(low), vtop = _mm256_set1_pd(top);
  const __m256d lo = _mm256_min_pd(
      _mm256_max_pd(_mm256_sub_pd(_mm256_setr_pd(c[0], c[64], c[128], c[192]), vlow), zero), vtop);
  const __m256d hi = _mm256_min_pd(
      _mm256_max_pd(_mm256_sub_pd(_mm256_setr_pd(c[256], c[320], c[384], c[448]), vlow), zero),
      vtop);
  const double fx = frac3[m], fy = frac3[64 + m], fz = frac3[128 + m];
  const __m256d wxy = _mm256_mul_pd(_mm256_setr_pd(1.0 - fx, fx, 1.0 - fx, fx),
                                    _mm256_setr_pd(1.0 - fy, 1.0 - fy, fy, fy));
  const __m256d wlo = _mm256_mul_pd(wxy, _mm256_set1_pd(1.0 - fz));
  const __m256d whi = _mm256_mul_pd(wxy, _mm256_set1_pd(fz));
  const __m256d first = _mm256_permute4x64_pd(lo, 0);
  const __m256d eqLo = _mm256_cmp_pd(lo, first, _CMP_EQ_OQ);
  const __m256d eqHi = _mm256_cmp_pd(hi, first, _CMP_EQ_OQ);
  const int differ = ~(_mm256_movemask_pd(eqLo) | (_mm256_movemask_pd(eqHi) << 4)) & 0xff;
  alignas(32) double t[8];
  _mm256_store_pd(t, lo);
  _mm256_store_pd(t + 4, hi);
  const double second = differ ? t[__builtin_ctz(differ)] : t[0];
  const __m256d other = _mm256_set1_pd(second);
  const __m256d inLo = _mm256_cmp_pd(lo, other, _CMP_EQ_OQ);
  const __m256d inHi = _mm256_cmp_pd(hi, other, _CMP_EQ_OQ);
  if ((_mm256_movemask_pd(_mm256_or_pd(eqLo, inLo)) &
       _mm256_movemask_pd(_mm256_or_pd(eqHi, inHi))) != 0xf)
    return false;
  // Lane l holds voxels l and l + 4.
  w0 =
      reg_evaluateUniformSumAvx2(_mm256_add_pd(_mm256_and_pd(wlo, eqLo), _mm256_and_pd(whi, eqHi)));
  w1 =
      reg_evaluateUniformSumAvx2(_mm256_add_pd(_mm256_and_pd(wlo, inLo), _mm256_and_pd(whi, inHi)));
  j0 = (int)t[0];
  j1 = (int)second;
  return true;
}

// RegMutualInformation::binOf for four values: bins to bin[0 .. 4), the
// weights of each bin and the next as pairs to w[0 .. 8) (n bins on the
// axis).
ZR_TARGET_AVX2 inline void reg_evaluateUniformBinAvx2(__m256d value, __m256d min, __m256d scale,
                                                      int n, int* bin, double* w) {
  const __m256d zero = _mm256_setzero_pd(), one = _mm256_set1_pd(1.0);
  __m256d t = _mm256_mul_pd(_mm256_sub_pd(value, min), scale);
  // t above n to n, and (after that) t at or below -1, or NaN, to -1.
  t = _mm256_min_pd(_mm256_set1_pd((double)n), t);
  t = _mm256_max_pd(t, _mm256_set1_pd(-1.0));
  __m128i i = _mm256_cvttpd_epi32(t);
  __m256d f = _mm256_sub_pd(t, _mm256_cvtepi32_pd(i));
  f = _mm256_blendv_pd(f, zero, _mm256_cmp_pd(f, zero, _CMP_LT_OQ));
  // Below the range: full weight in bin 0.
  const __m256d below =
      _mm256_castsi256_pd(_mm256_cvtepi32_epi64(_mm_cmplt_epi32(i, _mm_setzero_si128())));
  __m256d w0 = _mm256_blendv_pd(_mm256_sub_pd(one, f), one, below);
  __m256d w1 = _mm256_blendv_pd(f, zero, below);
  i = _mm_max_epi32(i, _mm_setzero_si128());
  // At or above bin n - 1: full weight in bin n - 1, counted from bin n - 2.
  const __m128i last = _mm_set1_epi32(n - 2);
  const __m128i above = _mm_cmpgt_epi32(i, last);
  const __m256d aboveD = _mm256_castsi256_pd(_mm256_cvtepi32_epi64(above));
  i = _mm_blendv_epi8(i, last, above);
  w0 = _mm256_blendv_pd(w0, zero, aboveD);
  w1 = _mm256_blendv_pd(w1, one, aboveD);
  _mm_storeu_si128((__m128i*)bin, i);
  const __m256d lo = _mm256_unpacklo_pd(w0, w1), hi = _mm256_unpackhi_pd(w0, w1);
  _mm256_storeu_pd(w, _mm256_permute2f128_pd(lo, hi, 0x20));
  _mm256_storeu_pd(w + 4, _mm256_permute2f128_pd(lo, hi, 0x31));
}

// Bins and weight pairs of values[0 .. n), four at a time; the last n % 4 are
// left to `scalar(m)`.
//
// Where no value lies below the range (or is NaN), as the samples of a model
// whose range the histogram spans always do, only the top needs a clamp: a
// block first checks that, and then takes the short form, whose results are
// those of the full one.
template <class Scalar>
ZR_TARGET_AVX2 void reg_evaluateUniformBinBlockAvx2(const double* values, int n, double min,
                                                    double scale, int bins, int* bin, double* w,
                                                    Scalar&& scalar) {
  const __m256d vmin = _mm256_set1_pd(min), vscale = _mm256_set1_pd(scale);
  const int whole = n - n % 4;
  __m256d above = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
  for (int m = 0; m < whole; m += 4)
    above = _mm256_and_pd(above, _mm256_cmp_pd(_mm256_loadu_pd(values + m), vmin, _CMP_GE_OQ));
  if (_mm256_movemask_pd(above) == 0xf && scale >= 0.0) {
    // t at or above bins - 1 ends in bin bins - 2 with all its weight on the
    // next bin, as binOf() puts it.
    const __m256d top = _mm256_set1_pd((double)(bins - 1)), one = _mm256_set1_pd(1.0);
    const __m128i last = _mm_set1_epi32(bins - 2);
    for (int m = 0; m < whole; m += 4) {
      const __m256d t = _mm256_min_pd(
          _mm256_mul_pd(_mm256_sub_pd(_mm256_loadu_pd(values + m), vmin), vscale), top);
      const __m128i i = _mm_min_epi32(_mm256_cvttpd_epi32(t), last);
      const __m256d f = _mm256_sub_pd(t, _mm256_cvtepi32_pd(i));
      const __m256d w0 = _mm256_sub_pd(one, f);
      _mm_storeu_si128((__m128i*)(bin + m), i);
      const __m256d lo = _mm256_unpacklo_pd(w0, f), hi = _mm256_unpackhi_pd(w0, f);
      _mm256_storeu_pd(w + 2 * m, _mm256_permute2f128_pd(lo, hi, 0x20));
      _mm256_storeu_pd(w + 2 * m + 4, _mm256_permute2f128_pd(lo, hi, 0x31));
    }
  } else {
    for (int m = 0; m < whole; m += 4)
      reg_evaluateUniformBinAvx2(_mm256_loadu_pd(values + m), vmin, vscale, bins, bin + m,
                                 w + 2 * m);
  }
  for (int m = whole; m < n; m++)
    scalar(m);
}

// RegUniformJointHistogram::add() on `h`: the four weights of a sample,
// (a0 b0, a0 b1, a1 b0, a1 b1), go to its slot in one addition of four.
template <class Histogram>
ZR_TARGET_AVX2 void reg_evaluateUniformAddAvx2(Histogram& h, int n, const int* i, const int* j,
                                               const double* a, const double* b) {
  for (int m = 0; m < n; m++) {
    const size_t slot = 4 * ((size_t)i[m] * h.stride + j[m]);
    const __m256d aa = _mm256_permute4x64_pd(_mm256_castpd128_pd256(_mm_loadu_pd(a + 2 * m)), 0x50);
    const __m256d bb = _mm256_broadcast_pd((const __m128d*)(b + 2 * m));
    double* q = ((m & 1) ? h.odd : h.slots) + slot;
    _mm256_storeu_pd(q, _mm256_add_pd(_mm256_loadu_pd(q), _mm256_mul_pd(aa, bb)));
  }
}

#endif
