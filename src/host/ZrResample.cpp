#include "ZrResample.h"
#include "QbPrimType.h"
#include "ZrCurvilinearCoord3.h"
#include "ZrMessage.h"
#include "ZrSettingsMgr.h"
#include "ZrStackedLabelField3.h"
#include "ZrUniformLabelField3.h"
#include "ZrWorkArea.h"
#include "qbmalloc.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <omp.h>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// How the grey values are filtered
// --------------------------------
// Resampling is separable: one pass per axis whose node count changes, each a
// weighted sum of input nodes along that axis. x and y are done slice by
// slice (the x-reduced slice stays in cache), then z. Output node
// o of an axis of nIn -> nOut nodes sits at the input index
//     c(o) = o * (nIn - 1) / (nOut - 1),
// so that the first and last nodes stay on the box. The kernel K is scaled by
// the output spacing s = (nIn - 1) / (nOut - 1) when s > 1: the filter then
// has its cut-off at the new Nyquist frequency, which is what makes a
// reduction anti-aliased; when enlarging (s <= 1) the kernel keeps width 1
// and interpolates. Weights are normalised to sum 1, so constants are kept,
// also at the borders, where taps outside the lattice are left out.
//
// Entry 2, "Lanczos", the default, is the Lanczos window of order 3,
//     K(t) = sinc(t) sinc(t / 3) for |t| < 3.
// It is chosen over a Gaussian because it is far flatter in the pass band:
// a pyramid level keeps the contrast of structures a few voxels wide, which
// matters for the metrics on the coarse levels, while the stop band is still
// well damped. Its small negative lobes can overshoot at sharp edges; for
// integer voxel types results are rounded and clamped to the type's range.
// "Box" (moving average over the output spacing) and "Triangle" (linear
// interpolation, a tent over two output spacings) are the cheaper, softer
// alternatives.
//
// Coordinates
// -----------
// The filtering works in index space. For uniform coordinates, the fast path,
// index space is space up to a scale per axis, so the result is exact. For
// stacked coordinates the x-y box is kept and the new slice positions are the
// old ones interpolated linearly at c(o): first and last slice stay, and
// slices that were unevenly spaced are filtered as if they were even. For
// curvilinear coordinates the node positions are interpolated trilinearly in
// index space, which keeps the grid's shape, and the result has curvilinear
// coordinates too.
//
// Labels
// ------
// A label field is reduced by integer factors f per axis to ceil(n / f) nodes.
// Each output node takes the most frequent label among the input nodes within
// half an output spacing of its position c(o) (its block); a tie goes to the
// label with a node nearest to that position, then to the smaller label. Only
// labels present in the block can result. A block whose nodes all agree,
// the common case, is decided without counting.

namespace {
QbInterfaceOwner* createResample() { return new ZrResample; }
} // namespace

QB_TYPE_SOURCE(ZrResample, ZrCompModule, createResample)

namespace {

// Raw buffer from the utility allocator, released at scope end.
class RawBuffer {
public:
  explicit RawBuffer(size_t bytes) : p(qbmalloc(bytes)) {}
  ~RawBuffer() { qbfree(p); }
  RawBuffer(const RawBuffer&) = delete;
  RawBuffer& operator=(const RawBuffer&) = delete;
  void* get() const { return p; }

private:
  void* p;
};

int threadCount() { return std::max(1, ZrSettingsMgr::getInstance()->getNumThreads()); }

// Below this many voxels of work a loop runs on the calling thread alone:
// waking a team costs more than it saves.
const size_t kParallelMinWork = size_t(1) << 15;

// Position of output node o in the input's index space.
double nodeCenter(int o, int nIn, int nOut) {
  if (nOut > 1)
    return double(o) * double(nIn - 1) / double(nOut - 1);
  // One output node stands for the whole axis: it samples its middle.
  return 0.5 * double(nIn - 1);
}

// Output spacing in input nodes.
double outputSpacing(int nIn, int nOut) {
  return nOut > 1 ? double(nIn - 1) / double(nOut - 1) : double(nIn);
}

double kernelRadius(int filter) {
  switch (filter) {
  case ZrResample::FILTER_BOX:
    return 0.5;
  case ZrResample::FILTER_TRIANGLE:
    return 1.0;
  default:
    return 3.0;
  }
}

double kernelValue(int filter, double t) {
  const double a = std::fabs(t);
  switch (filter) {
  case ZrResample::FILTER_BOX:
    // The half weight at the edge splits a node shared by two outputs.
    return a < 0.5 ? 1.0 : (a == 0.5 ? 0.5 : 0.0);
  case ZrResample::FILTER_TRIANGLE:
    return a < 1.0 ? 1.0 - a : 0.0;
  default: {
    if (a < 1e-12)
      return 1.0;
    if (a >= 3.0)
      return 0.0;
    const double x = M_PI * a;
    return 3.0 * std::sin(x) * std::sin(x / 3.0) / (x * x);
  }
  }
}

// Weights of one axis: every output node reads `taps` consecutive input
// nodes from start[o]. Starts are shifted so that all reads stay inside the
// lattice; unused taps carry weight 0.
struct AxisFilter {
  int nIn = 0, nOut = 0, taps = 0;
  std::vector<int> start;
  std::vector<double> weight; // nOut * taps
};

void buildAxisFilter(AxisFilter& f, int nIn, int nOut, int filter) {
  f.nIn = nIn;
  f.nOut = nOut;
  const double scale = std::max(1.0, outputSpacing(nIn, nOut));
  const double radius = kernelRadius(filter) * scale;
  std::vector<int> lo(nOut), hi(nOut);
  f.taps = 1;
  for (int o = 0; o < nOut; o++) {
    const double c = nodeCenter(o, nIn, nOut);
    lo[o] = std::max(0, int(std::ceil(c - radius)));
    hi[o] = std::min(nIn - 1, int(std::floor(c + radius)));
    if (lo[o] > hi[o])
      lo[o] = hi[o] = std::min(nIn - 1, std::max(0, int(std::lround(c))));
    f.taps = std::max(f.taps, hi[o] - lo[o] + 1);
  }
  f.taps = std::min(f.taps, nIn);
  f.start.assign(nOut, 0);
  f.weight.assign(size_t(nOut) * f.taps, 0.0);
  for (int o = 0; o < nOut; o++) {
    const double c = nodeCenter(o, nIn, nOut);
    const int st = std::min(lo[o], nIn - f.taps);
    f.start[o] = st;
    double* w = &f.weight[size_t(o) * f.taps];
    double sum = 0.0;
    for (int i = lo[o]; i <= hi[o]; i++) {
      const double v = kernelValue(filter, (i - c) / scale);
      w[i - st] = v;
      sum += v;
    }
    if (std::fabs(sum) < 1e-12) {
      // Nothing under the kernel: take the nearest node.
      std::fill(w, w + f.taps, 0.0);
      const int n = std::min(nIn - 1, std::max(0, int(std::lround(c))));
      w[n - st] = 1.0;
      sum = 1.0;
    }
    for (int t = 0; t < f.taps; t++)
      w[t] /= sum;
  }
}

// Accumulated value to voxel type: integers rounded to nearest in the current
// rounding mode and clamped to the type's range, NaN to 0.
template <class T, class A> inline T toVoxel(A v) {
  if constexpr (std::is_floating_point<T>::value) {
    return T(v);
  } else {
    if (v != v)
      return T(0);
    if (v <= A(std::numeric_limits<T>::lowest()))
      return std::numeric_limits<T>::lowest();
    if (v >= A(std::numeric_limits<T>::max()))
      return std::numeric_limits<T>::max();
    return T(std::nearbyint(v));
  }
}

// The weights of one axis in the accumulation type.
template <class Acc> struct AxisKernel {
  int nIn, nOut, taps;
  const int* start;
  std::vector<Acc> w;
  explicit AxisKernel(const AxisFilter& f)
      : nIn(f.nIn), nOut(f.nOut), taps(f.taps), start(f.start.data()),
        w(f.weight.begin(), f.weight.end()) {}
};

// Along x: `rows` contiguous rows of nIn values become rows of nOut values.
// Eight rows at a time are interleaved into tmp (8 * nIn values, x slowest),
// so that one output position of all eight rows is a sum of contiguous
// groups of eight: the compiler vectorises it, and the eight sums do not wait
// on each other.
template <class Tin, class Tout, class Acc>
inline void reg_evaluateResampleRows(const Tin* in, Tout* out, size_t rows,
                                     const AxisKernel<Acc>& k, Acc* tmp) {
  const int nIn = k.nIn, nOut = k.nOut, taps = k.taps;
  const Acc* w = k.w.data();
  constexpr size_t B = 8;
  size_t q = 0;
  for (; q + B <= rows; q += B) {
    const Tin* row = in + q * nIn;
    for (int x = 0; x < nIn; x++)
      for (size_t b = 0; b < B; b++)
        tmp[size_t(x) * B + b] = Acc(row[b * nIn + x]);
    Tout* dst = out + q * nOut;
    for (int o = 0; o < nOut; o++) {
      const Acc* s = tmp + size_t(k.start[o]) * B;
      const Acc* wo = w + size_t(o) * taps;
      Acc acc[B] = {};
      for (int t = 0; t < taps; t++) {
        const Acc wt = wo[t];
        for (size_t b = 0; b < B; b++)
          acc[b] += wt * s[size_t(t) * B + b];
      }
      for (size_t b = 0; b < B; b++)
        dst[b * nOut + o] = toVoxel<Tout>(acc[b]);
    }
  }
  for (; q < rows; q++) {
    const Tin* row = in + q * nIn;
    Tout* dst = out + q * nOut;
    for (int o = 0; o < nOut; o++) {
      const Tin* s = row + k.start[o];
      const Acc* wo = w + size_t(o) * taps;
      Acc acc = 0;
      for (int t = 0; t < taps; t++)
        acc += wo[t] * Acc(s[t]);
      dst[o] = toVoxel<Tout>(acc);
    }
  }
}

// Along y or z: output line o (len contiguous values) is the weighted sum of
// the input lines start[o] + t, which lie `stride` values apart. The innermost
// loop runs over contiguous memory. acc holds len values.
template <class Tin, class Tout, class Acc>
inline void reg_evaluateResampleLine(const Tin* in, size_t stride, Tout* dst, size_t len, int o,
                                     const AxisKernel<Acc>& k, Acc* acc) {
  std::fill(acc, acc + len, Acc(0));
  const Acc* wo = k.w.data() + size_t(o) * k.taps;
  for (int t = 0; t < k.taps; t++) {
    const Acc wt = wo[t];
    if (wt == Acc(0))
      continue;
    const Tin* s = in + size_t(k.start[o] + t) * stride;
    for (size_t r = 0; r < len; r++)
      acc[r] += wt * Acc(s[r]);
  }
  for (size_t r = 0; r < len; r++)
    dst[r] = toVoxel<Tout>(acc[r]);
}

// The x and y passes, slice by slice, so that the x-reduced slice stays in
// the cache of its thread. Writes the x-y resampled slices to out (Tout: the
// voxel type when z does not change, else the accumulation type for the z
// pass). Returns false when a stop was requested.
template <class T, class Tout, class Acc>
bool reg_evaluateResampleSlices(const T* in, Tout* out, const int dIn[3], const int dOut[3],
                                const AxisKernel<Acc>& kx, const AxisKernel<Acc>& ky,
                                int numThreads, bool progress, float progressShare) {
  const bool cx = dIn[0] != dOut[0], cy = dIn[1] != dOut[1];
  const size_t nx = dIn[0], ny = dIn[1], mx = dOut[0], my = dOut[1];
  const long nz = dIn[2];
  ZrWorkArea* wa = ZrWorkArea::getTheWorkArea();
  std::atomic<bool> stop{false};
  std::atomic<long> done{0};
  const bool par = size_t(nz) * nx * ny >= kParallelMinWork;
#pragma omp parallel num_threads(numThreads) if (par)
  {
    std::vector<Acc> slice(cx && cy ? mx * ny : 0);
    std::vector<Acc> acc(cx ? mx : nx);
    std::vector<Acc> interleaved(cx ? 8 * nx : 0);
    const bool master = omp_get_thread_num() == 0;
#pragma omp for schedule(static)
    for (long z = 0; z < nz; z++) {
      if (stop.load(std::memory_order_relaxed))
        continue;
      if (wa->wasInterrupted(1)) {
        stop.store(true, std::memory_order_relaxed);
        continue;
      }
      const T* src = in + size_t(z) * nx * ny;
      Tout* dst = out + size_t(z) * mx * my;
      if (cx && cy) {
        reg_evaluateResampleRows<T, Acc, Acc>(src, slice.data(), ny, kx, interleaved.data());
        for (size_t o = 0; o < my; o++)
          reg_evaluateResampleLine<Acc, Tout, Acc>(slice.data(), mx, dst + o * mx, mx, int(o), ky,
                                                   acc.data());
      } else if (cx) {
        reg_evaluateResampleRows<T, Tout, Acc>(src, dst, ny, kx, interleaved.data());
      } else {
        for (size_t o = 0; o < my; o++)
          reg_evaluateResampleLine<T, Tout, Acc>(src, nx, dst + o * nx, nx, int(o), ky, acc.data());
      }
      const long d = done.fetch_add(1, std::memory_order_relaxed) + 1;
      if (progress && master)
        wa->setProgressValue(progressShare * float(d) / float(nz));
    }
  }
  return !stop.load();
}

// The z pass: output plane o from the input planes start[o] + t, split into
// rows so that both threads have work even for few planes.
template <class Tin, class T, class Acc>
bool reg_evaluateResampleZ(const Tin* in, T* out, const int dims[3], const AxisKernel<Acc>& kz,
                           int numThreads, bool progress, float progressFrom) {
  const size_t nx = dims[0], ny = dims[1];
  const long jobs = long(kz.nOut) * long(ny);
  ZrWorkArea* wa = ZrWorkArea::getTheWorkArea();
  std::atomic<bool> stop{false};
  std::atomic<long> done{0};
  const bool par = size_t(jobs) * nx * kz.taps >= kParallelMinWork;
#pragma omp parallel num_threads(numThreads) if (par)
  {
    std::vector<Acc> acc(nx);
    const bool master = omp_get_thread_num() == 0;
#pragma omp for schedule(static)
    for (long job = 0; job < jobs; job++) {
      if (stop.load(std::memory_order_relaxed))
        continue;
      if (wa->wasInterrupted(1)) {
        stop.store(true, std::memory_order_relaxed);
        continue;
      }
      const int o = int(job / long(ny));
      const size_t j = size_t(job % long(ny));
      reg_evaluateResampleLine<Tin, T, Acc>(in + j * nx, nx * ny, out + (size_t(o) * ny + j) * nx,
                                            nx, o, kz, acc.data());
      const long d = done.fetch_add(1, std::memory_order_relaxed) + 1;
      if (progress && master && (d & 255) == 0)
        wa->setProgressValue(progressFrom + (1.0f - progressFrom) * float(d) / float(jobs));
    }
  }
  return !stop.load();
}

// Grey resampling of one voxel type. Accumulation in double for double data,
// in float otherwise. x and y are resampled slice by slice; if z changes too,
// into an intermediate volume of the x-y resampled slices, which the z pass
// reads.
template <class T>
bool reg_evaluateResampleGrey(const T* in, T* out, const int dIn[3], const int dOut[3],
                              const AxisFilter filters[3], bool progress) {
  using Acc = typename std::conditional<std::is_same<T, double>::value, double, float>::type;
  const int numThreads = threadCount();
  const bool cx = dIn[0] != dOut[0], cy = dIn[1] != dOut[1], cz = dIn[2] != dOut[2];
  if (!cx && !cy && !cz) {
    std::memcpy(out, in, size_t(dIn[0]) * dIn[1] * dIn[2] * sizeof(T));
    return true;
  }
  const AxisKernel<Acc> kx(filters[0]), ky(filters[1]), kz(filters[2]);
  if (!cz)
    return reg_evaluateResampleSlices<T, T, Acc>(in, out, dIn, dOut, kx, ky, numThreads, progress,
                                                 1.0f);
  if (!cx && !cy)
    return reg_evaluateResampleZ<T, T, Acc>(in, out, dIn, kz, numThreads, progress, 0.0f);
  const int mid[3] = {dOut[0], dOut[1], dIn[2]};
  RawBuffer buf(size_t(mid[0]) * mid[1] * mid[2] * sizeof(Acc));
  Acc* inter = static_cast<Acc*>(buf.get());
  if (!reg_evaluateResampleSlices<T, Acc, Acc>(in, inter, dIn, dOut, kx, ky, numThreads, progress,
                                               0.5f))
    return false;
  return reg_evaluateResampleZ<Acc, T, Acc>(inter, out, mid, kz, numThreads, progress, 0.5f);
}

// Blocks of the label reduction along one axis.
struct LabelAxis {
  std::vector<int> lo, hi;
  std::vector<double> center;
};

void buildLabelAxis(LabelAxis& la, int nIn, int nOut) {
  const double half = 0.5 * outputSpacing(nIn, nOut);
  la.lo.resize(nOut);
  la.hi.resize(nOut);
  la.center.resize(nOut);
  for (int o = 0; o < nOut; o++) {
    const double c = nodeCenter(o, nIn, nOut);
    // A little slack, so that a node exactly half a spacing away belongs to
    // both neighbouring blocks rather than to one by rounding.
    int lo = std::max(0, int(std::ceil(c - half - 1e-9)));
    int hi = std::min(nIn - 1, int(std::floor(c + half + 1e-9)));
    if (lo > hi)
      lo = hi = std::min(nIn - 1, std::max(0, int(std::lround(c))));
    la.lo[o] = lo;
    la.hi[o] = hi;
    la.center[o] = c;
  }
}

template <class T>
bool reg_evaluateReduceLabels(const T* in, T* out, const int dIn[3], const int dOut[3],
                              const LabelAxis ax[3], bool progress) {
  constexpr bool kCounted = std::is_integral<T>::value && sizeof(T) <= 2;
  constexpr size_t kLabels = kCounted ? size_t(1) << (8 * sizeof(T)) : 0;
  // Keys that order like the labels: signed labels shifted by half the range.
  auto labelKey = [](T v) -> uint32_t {
    if constexpr (std::is_signed<T>::value)
      return uint32_t(int32_t(v) - int32_t(std::numeric_limits<T>::min()));
    else
      return uint32_t(v);
  };
  auto labelOfKey = [](uint32_t key) -> T {
    if constexpr (std::is_signed<T>::value)
      return T(int32_t(key) + int32_t(std::numeric_limits<T>::min()));
    else
      return T(key);
  };
  const int numThreads = threadCount();
  size_t maxBlock = 1;
  for (int a = 0; a < 3; a++) {
    int m = 1;
    for (int o = 0; o < dOut[a]; o++)
      m = std::max(m, ax[a].hi[o] - ax[a].lo[o] + 1);
    maxBlock *= size_t(m);
  }
  const size_t nx = size_t(dIn[0]), nxy = size_t(dIn[0]) * dIn[1];
  const long rows = long(dOut[1]) * dOut[2];
  ZrWorkArea* wa = ZrWorkArea::getTheWorkArea();
  std::atomic<bool> stop{false};
  std::atomic<long> done{0};
  const bool par = size_t(rows) * dOut[0] * maxBlock >= kParallelMinWork;

#pragma omp parallel num_threads(numThreads) if (par)
  {
    // (label, squared distance to the node) of the block's nodes.
    std::vector<std::pair<T, float>> block(kCounted ? 0 : maxBlock);
    std::pair<T, float>* b = block.data();
    // Labels of 8 and 16 bits are counted instead of sorted: per label its
    // count and the distance of its nearest node, and the labels the block
    // touched, to pick from and to clear.
    std::vector<uint32_t> counts(kCounted ? kLabels : 0);
    std::vector<float> nearest(kCounted ? kLabels : 0);
    std::vector<uint32_t> touched(kCounted ? maxBlock : 0);
    const bool master = omp_get_thread_num() == 0;
#pragma omp for schedule(static)
    for (long row = 0; row < rows; row++) {
      if (stop.load(std::memory_order_relaxed))
        continue;
      if (wa->wasInterrupted(1)) {
        stop.store(true, std::memory_order_relaxed);
        continue;
      }
      const int j = int(row % dOut[1]), k = int(row / dOut[1]);
      const int y0 = ax[1].lo[j], y1 = ax[1].hi[j], z0 = ax[2].lo[k], z1 = ax[2].hi[k];
      const double cy = ax[1].center[j], cz = ax[2].center[k];
      T* dst = out + (size_t(k) * dOut[1] + j) * dOut[0];
      for (int i = 0; i < dOut[0]; i++) {
        const int x0 = ax[0].lo[i], x1 = ax[0].hi[i];
        const T first = in[z0 * nxy + y0 * nx + x0];
        bool same = true;
        for (int z = z0; z <= z1 && same; z++)
          for (int y = y0; y <= y1 && same; y++) {
            const T* s = in + z * nxy + y * nx;
            for (int x = x0; x <= x1; x++)
              if (s[x] != first) {
                same = false;
                break;
              }
          }
        if (same) {
          dst[i] = first;
          continue;
        }
        const double cx = ax[0].center[i];
        if constexpr (kCounted) {
          // The most frequent label; between equally frequent ones the one
          // with the nearer node, and then the lower label.
          size_t n = 0;
          for (int z = z0; z <= z1; z++)
            for (int y = y0; y <= y1; y++) {
              const T* s = in + z * nxy + y * nx;
              const double dyz = (y - cy) * (y - cy) + (z - cz) * (z - cz);
              for (int x = x0; x <= x1; x++) {
                const uint32_t key = labelKey(s[x]);
                const float dist = float(dyz + (x - cx) * (x - cx));
                if (counts[key]++ == 0) {
                  touched[n++] = key;
                  nearest[key] = dist;
                } else if (dist < nearest[key]) {
                  nearest[key] = dist;
                }
              }
            }
          uint32_t best = touched[0];
          for (size_t t = 1; t < n; t++) {
            const uint32_t key = touched[t];
            if (counts[key] > counts[best] ||
                (counts[key] == counts[best] &&
                 (nearest[key] < nearest[best] || (nearest[key] == nearest[best] && key < best))))
              best = key;
          }
          for (size_t t = 0; t < n; t++)
            counts[touched[t]] = 0;
          dst[i] = labelOfKey(best);
          continue;
        }
        size_t n = 0;
        for (int z = z0; z <= z1; z++)
          for (int y = y0; y <= y1; y++) {
            const T* s = in + z * nxy + y * nx;
            const double dyz = (y - cy) * (y - cy) + (z - cz) * (z - cz);
            for (int x = x0; x <= x1; x++)
              b[n++] = std::make_pair(s[x], float(dyz + (x - cx) * (x - cx)));
          }
        // Sorted by label, and within a label by distance: each run is one
        // label, its first entry its nearest node.
        std::sort(b, b + n);
        T best = b[0].first;
        size_t bestCount = 0;
        float bestDist = 0.0f;
        for (size_t r = 0; r < n;) {
          size_t e = r + 1;
          while (e < n && b[e].first == b[r].first)
            e++;
          const size_t count = e - r;
          if (count > bestCount || (count == bestCount && b[r].second < bestDist)) {
            best = b[r].first;
            bestCount = count;
            bestDist = b[r].second;
          }
          r = e;
        }
        dst[i] = best;
      }
      const long d = done.fetch_add(1, std::memory_order_relaxed) + 1;
      if (progress && master && (d & 63) == 0)
        wa->setProgressValue(float(d) / float(rows));
    }
  }
  if (progress)
    wa->setProgressValue(1.0f);
  return !stop.load();
}

// Linear interpolation of a node property at index position c.
inline double lerpAt(const float* v, size_t stride, int n, double c) {
  if (n <= 1)
    return v[0];
  int i0 = int(std::floor(c));
  i0 = std::min(std::max(i0, 0), n - 2);
  const double t = c - i0;
  if (t <= 0.0)
    return v[i0 * stride];
  if (t >= 1.0)
    return v[(i0 + 1) * stride];
  return v[i0 * stride] + t * (double(v[(i0 + 1) * stride]) - double(v[i0 * stride]));
}

// The result field: the input's kind of field and coordinates, with nodes at
// the index positions centers[a][o] of the input. Null for coordinates of an
// unknown kind.
ZrRegScalarField3* createResultField(ZrRegScalarField3* field, bool label, const int dOut[3],
                                     const std::vector<double> centers[3], int type = -1) {
  const ZrCoord3* c = field->lattice.coords();
  const int* dIn = field->getDims();
  if (type < 0)
    type = field->primType();
  ZrRegScalarField3* result = nullptr;
  switch (c->coordType()) {
  case ZR_COORD_UNIFORM: {
    float box[6];
    c->getBoundingBox(box);
    if (label)
      result = new ZrUniformLabelField3(dOut, type, box);
    else
      result = new ZrUniformScalarField3(dOut, type, box);
    break;
  }
  case ZR_COORD_STACKED: {
    const ZrStackedCoord3* sc = static_cast<const ZrStackedCoord3*>(c);
    std::vector<float> z(dOut[2]);
    for (int k = 0; k < dOut[2]; k++)
      z[k] = float(lerpAt(sc->getZ(), 1, dIn[2], centers[2][k]));
    if (label)
      result = new ZrStackedLabelField3(dOut, type, sc->getXYBox(), z.data());
    else
      result = new ZrStackedScalarField3(dOut, type, sc->getXYBox(), z.data());
    break;
  }
  case ZR_COORD_CURVILINEAR: {
    const float* p = static_cast<const ZrCurvilinearCoord3*>(c)->getPositions();
    ZrCurvilinearCoord3* nc = new ZrCurvilinearCoord3(dOut);
    float* q = nc->getPositions();
    const size_t sx = 3, sy = 3 * size_t(dIn[0]), sz = sy * dIn[1];
    for (int k = 0; k < dOut[2]; k++)
      for (int j = 0; j < dOut[1]; j++)
        for (int i = 0; i < dOut[0]; i++, q += 3) {
          // Trilinear in index space: along x on the four surrounding rows,
          // then y, then z.
          const double cx = centers[0][i], cy = centers[1][j], cz = centers[2][k];
          const int j0 = std::min(std::max(int(std::floor(cy)), 0), std::max(dIn[1] - 2, 0));
          const int k0 = std::min(std::max(int(std::floor(cz)), 0), std::max(dIn[2] - 2, 0));
          const int j1 = std::min(j0 + 1, dIn[1] - 1), k1 = std::min(k0 + 1, dIn[2] - 1);
          const double ty = dIn[1] > 1 ? cy - j0 : 0.0, tz = dIn[2] > 1 ? cz - k0 : 0.0;
          for (int a = 0; a < 3; a++) {
            const float* base = p + a;
            const double v00 = lerpAt(base + j0 * sy + k0 * sz, sx, dIn[0], cx);
            const double v10 = lerpAt(base + j1 * sy + k0 * sz, sx, dIn[0], cx);
            const double v01 = lerpAt(base + j0 * sy + k1 * sz, sx, dIn[0], cx);
            const double v11 = lerpAt(base + j1 * sy + k1 * sz, sx, dIn[0], cx);
            const double v0 = v00 + ty * (v10 - v00), v1 = v01 + ty * (v11 - v01);
            q[a] = float(v0 + tz * (v1 - v0));
          }
        }
    result = new ZrRegScalarField3(dOut, type, nc);
    break;
  }
  }
  if (result)
    result->copyTransform(*field);
  return result;
}

bool validInput(ZrRegScalarField3* field) {
  if (!field || !qbPrimTypeIsVoxelType(field->primType()) || field->nDataVar() != 1)
    return false;
  const int* d = field->getDims();
  return d[0] >= 1 && d[1] >= 1 && d[2] >= 1;
}

ZrRegScalarField3* resampleGreyImpl(ZrRegScalarField3* field, const int dims[3], int filter,
                                    bool progress) {
  if (!validInput(field) || dims[0] < 1 || dims[1] < 1 || dims[2] < 1)
    return nullptr;
  if (filter < ZrResample::FILTER_BOX || filter > ZrResample::FILTER_LANCZOS)
    filter = ZrResample::FILTER_LANCZOS;
  const int* dIn = field->getDims();
  AxisFilter filters[3];
  std::vector<double> centers[3];
  for (int a = 0; a < 3; a++) {
    buildAxisFilter(filters[a], dIn[a], dims[a], filter);
    centers[a].resize(dims[a]);
    for (int o = 0; o < dims[a]; o++)
      centers[a][o] = nodeCenter(o, dIn[a], dims[a]);
  }
  // Filtered values are no labels: the result is a grey-value field even for
  // a label input.
  ZrRegScalarField3* result = createResultField(field, false, dims, centers);
  if (!result)
    return nullptr;
  bool ok = false;
  try {
    qbDispatchVoxelType(field->primType(), [&](auto t) {
      using T = decltype(t);
      ok = reg_evaluateResampleGrey<T>(static_cast<const T*>(field->lattice.dataPtr()),
                                       static_cast<T*>(result->lattice.dataPtr()), dIn, dims,
                                       filters, progress);
    });
  } catch (...) {
    delete result;
    throw;
  }
  if (!ok) {
    delete result;
    return nullptr;
  }
  return result;
}

ZrRegScalarField3* reduceLabelsImpl(ZrRegScalarField3* field, const int factors[3], bool progress) {
  if (!validInput(field))
    return nullptr;
  const int* dIn = field->getDims();
  int dOut[3];
  LabelAxis ax[3];
  std::vector<double> centers[3];
  for (int a = 0; a < 3; a++) {
    const int f = std::max(1, factors[a]);
    dOut[a] = (dIn[a] + f - 1) / f;
    buildLabelAxis(ax[a], dIn[a], dOut[a]);
    centers[a] = ax[a].center;
  }
  ZrRegScalarField3* result =
      createResultField(field, ZrResample::isLabelField(field), dOut, centers);
  if (!result)
    return nullptr;
  bool ok = false;
  qbDispatchVoxelType(field->primType(), [&](auto t) {
    using T = decltype(t);
    ok = reg_evaluateReduceLabels<T>(static_cast<const T*>(field->lattice.dataPtr()),
                                     static_cast<T*>(result->lattice.dataPtr()), dIn, dOut, ax,
                                     progress);
  });
  if (!ok) {
    delete result;
    return nullptr;
  }
  return result;
}

} // namespace

ZrResample::ZrResample()
    : ZrCompModule(ZrRegScalarField3::getClassTypeId()), portMode(this, "mode", 2),
      portResolution(this, "resolution", 3), portVoxelSize(this, "voxelSize", 3),
      portFilter(this, "filter", 1), portLabelFactors(this, "labelFactors", 3),
      portAction(this, "action", 1) {
  portMode.setLabel("Mode");
  portMode.setLabel(0, "Dimensions");
  portMode.setLabel(1, "Voxel size");
  portMode.setValue(MODE_DIMENSIONS);

  static const char* const axisLabels[3] = {"x", "y", "z"};
  portResolution.setLabel("Resolution");
  portVoxelSize.setLabel("Voxel size");
  portLabelFactors.setLabel("Label reduction");
  for (int a = 0; a < 3; a++) {
    portResolution.setLabel(a, axisLabels[a]);
    portResolution.setMinMax(a, 1, std::numeric_limits<int>::max());
    portResolution.setValue(a, 64);
    portVoxelSize.setLabel(a, axisLabels[a]);
    portVoxelSize.setMinMax(a, 0.0f, std::numeric_limits<float>::max());
    portVoxelSize.setValue(a, 1.0f);
    portLabelFactors.setLabel(a, axisLabels[a]);
    portLabelFactors.setMinMax(a, 1, std::numeric_limits<int>::max());
    portLabelFactors.setValue(a, 2);
  }

  portFilter.setLabel("Filter");
  portFilter.setNum(0, 3);
  portFilter.setLabel(0, FILTER_BOX, "Box");
  portFilter.setLabel(0, FILTER_TRIANGLE, "Triangle");
  portFilter.setLabel(0, FILTER_LANCZOS, "Lanczos");
  portFilter.setIndex(0, FILTER_LANCZOS);

  portAction.setLabel("Action");
  portAction.setLabel(0, "Apply");
}

ZrResample::~ZrResample() = default;

bool ZrResample::isLabelField(ZrRegScalarField3* field) {
  return field && (field->getInterface(ZrUniformLabelField3::getClassTypeId()) ||
                   field->getInterface(ZrStackedLabelField3::getClassTypeId()));
}

ZrRegScalarField3* ZrResample::resampleGrey(ZrRegScalarField3* field, const int dims[3],
                                            int filter) {
  return resampleGreyImpl(field, dims, filter, false);
}

ZrRegScalarField3* ZrResample::subsample(ZrRegScalarField3* field, const int steps[3]) {
  if (!validInput(field) || field->lattice.coords()->coordType() != ZR_COORD_UNIFORM)
    return nullptr;
  const int* dIn = field->getDims();
  float box[6];
  field->lattice.coords()->getBoundingBox(box);
  int step[3], dOut[3];
  for (int a = 0; a < 3; a++) {
    step[a] = std::max(1, steps[a]);
    dOut[a] = (dIn[a] - 1) / step[a] + 1;
    if (dIn[a] > 1)
      box[2 * a + 1] = box[2 * a] + (box[2 * a + 1] - box[2 * a]) *
                                        float(double((dOut[a] - 1) * step[a]) / (dIn[a] - 1));
  }
  ZrRegScalarField3* result = isLabelField(field)
                                  ? new ZrUniformLabelField3(dOut, field->primType(), box)
                                  : new ZrUniformScalarField3(dOut, field->primType(), box);
  result->copyTransform(*field);
  qbDispatchVoxelType(field->primType(), [&](auto t) {
    using T = decltype(t);
    const T* in = static_cast<const T*>(field->lattice.dataPtr());
    T* out = static_cast<T*>(result->lattice.dataPtr());
    for (int k = 0; k < dOut[2]; k++)
      for (int j = 0; j < dOut[1]; j++) {
        const T* row = in + (size_t(k) * step[2] * dIn[1] + size_t(j) * step[1]) * dIn[0];
        T* o = out + (size_t(k) * dOut[1] + j) * dOut[0];
        for (int i = 0; i < dOut[0]; i++)
          o[i] = row[size_t(i) * step[0]];
      }
  });
  return result;
}

ZrRegScalarField3* ZrResample::resampleLabelsNearest(ZrRegScalarField3* field, const int dims[3]) {
  if (!validInput(field) || dims[0] < 1 || dims[1] < 1 || dims[2] < 1)
    return nullptr;
  const int* dIn = field->getDims();
  std::vector<double> centers[3];
  std::vector<size_t> offset[3];
  const size_t strides[3] = {1, size_t(dIn[0]), size_t(dIn[0]) * dIn[1]};
  for (int a = 0; a < 3; a++) {
    centers[a].resize(dims[a]);
    offset[a].resize(dims[a]);
    for (int o = 0; o < dims[a]; o++) {
      centers[a][o] = nodeCenter(o, dIn[a], dims[a]);
      const long i = std::lround(centers[a][o]);
      offset[a][o] = size_t(std::min(std::max(i, 0L), long(dIn[a] - 1))) * strides[a];
    }
  }
  ZrRegScalarField3* result = createResultField(field, isLabelField(field), dims, centers);
  if (!result)
    return nullptr;
  qbDispatchVoxelType(field->primType(), [&](auto t) {
    using T = decltype(t);
    const T* in = static_cast<const T*>(field->lattice.dataPtr());
    T* out = static_cast<T*>(result->lattice.dataPtr());
    const long slices = dims[2];
#pragma omp parallel for num_threads(threadCount())                                                \
    schedule(static) if (size_t(dims[0]) * dims[1] * dims[2] >= kParallelMinWork)
    for (long k = 0; k < slices; k++) {
      T* row = out + size_t(k) * dims[0] * dims[1];
      for (int j = 0; j < dims[1]; j++, row += dims[0]) {
        const T* line = in + offset[2][k] + offset[1][j];
        for (int i = 0; i < dims[0]; i++)
          row[i] = line[offset[0][i]];
      }
    }
  });
  return result;
}

ZrRegScalarField3* ZrResample::smoothGrey(ZrRegScalarField3* field, float sigma) {
  if (!validInput(field) || !(sigma > 0.0f))
    return nullptr;
  const int* d = field->getDims();
  std::vector<double> centers[3];
  for (int a = 0; a < 3; a++) {
    centers[a].resize(d[a]);
    for (int i = 0; i < d[a]; i++)
      centers[a][i] = i;
  }
  ZrRegScalarField3* result = createResultField(field, false, d, centers, QB_FLOAT);
  if (!result)
    return nullptr;
  const int radius = std::max(1, int(std::ceil(4.0f * sigma - 1e-6f)));
  std::vector<float> kernel(2 * radius + 1);
  double sum = 0.0;
  for (int t = -radius; t <= radius; t++)
    sum += kernel[t + radius] = float(std::exp(-0.5 * double(t) * t / (double(sigma) * sigma)));
  for (float& k : kernel)
    k = float(k / sum);
  float* out = static_cast<float*>(result->lattice.dataPtr());
  const size_t n = size_t(d[0]) * d[1] * d[2];
  qbDispatchVoxelType(field->primType(), [&](auto t) {
    using T = decltype(t);
    const T* in = static_cast<const T*>(field->lattice.dataPtr());
    for (size_t i = 0; i < n; i++)
      out[i] = float(in[i]);
  });
  // One pass per axis, each line through a copy of itself.
  const size_t strides[3] = {1, size_t(d[0]), size_t(d[0]) * d[1]};
  for (int a = 0; a < 3; a++) {
    const int len = d[a];
    if (len < 2)
      continue;
    const size_t stride = strides[a];
    const long lines = long(n / len);
    const int b = (a + 1) % 3, c = (a + 2) % 3;
#pragma omp parallel num_threads(threadCount()) if (n >= kParallelMinWork)
    {
      std::vector<float> line(len);
#pragma omp for schedule(static)
      for (long l = 0; l < lines; l++) {
        const size_t base = size_t(l % d[b]) * strides[b] + size_t(l / d[b]) * strides[c];
        for (int i = 0; i < len; i++)
          line[i] = out[base + i * stride];
        for (int i = 0; i < len; i++) {
          float v = 0.0f;
          for (int t = -radius; t <= radius; t++)
            v += kernel[t + radius] * line[std::min(std::max(i + t, 0), len - 1)];
          out[base + i * stride] = v;
        }
      }
    }
  }
  return result;
}

ZrRegScalarField3* ZrResample::reduceLabels(ZrRegScalarField3* field, const int factors[3]) {
  return reduceLabelsImpl(field, factors, false);
}

void ZrResample::update() {
  if (!portData.isNew())
    return;
  ZrRegScalarField3* field = portData.source<ZrRegScalarField3>();
  const bool label = isLabelField(field);
  // A label field is reduced by factors; the grey settings do not apply to it.
  for (int a = 0; a < 3; a++) {
    portResolution.setSensitivity(a, !label);
    portVoxelSize.setSensitivity(a, !label);
    portLabelFactors.setSensitivity(a, label || !field);
  }
  portMode.setSensitivity(0, !label);
  portMode.setSensitivity(1, !label);
  portFilter.setSensitivity(0, !label);
  if (!field)
    return;
  const int* d = field->getDims();
  float box[6];
  field->getBoundingBox(box);
  for (int a = 0; a < 3; a++) {
    portResolution.setValue(a, d[a]);
    const float extent = box[2 * a + 1] - box[2 * a];
    portVoxelSize.setValue(a, d[a] > 1 ? extent / (d[a] - 1) : extent);
  }
}

void ZrResample::compute() {
  if (!portAction.wasHit(0))
    return;
  ZrRegScalarField3* field = portData.source<ZrRegScalarField3>();
  if (!field) {
    ZrMessage::getTheMsg()->printf("ZrResample: no scalar field connected.\n");
    return;
  }
  if (!validInput(field)) {
    ZrMessage::getTheMsg()->printf("ZrResample: cannot resample %s.\n", field->getName());
    return;
  }

  ZrWorkArea* wa = ZrWorkArea::getTheWorkArea();
  wa->startWorking("Resampling %s ...", field->getName());
  ZrRegScalarField3* result = nullptr;
  try {
    if (isLabelField(field)) {
      int factors[3];
      for (int a = 0; a < 3; a++)
        factors[a] = portLabelFactors.getValue(a);
      result = reduceLabelsImpl(field, factors, true);
    } else {
      int dims[3];
      const int* dIn = field->getDims();
      float box[6];
      field->getBoundingBox(box);
      for (int a = 0; a < 3; a++) {
        if (portMode.getValue() == MODE_VOXEL_SIZE) {
          // As many nodes as the spacing fits into the extent, ends included;
          // a flat axis or a spacing of 0 keeps the present count.
          const double extent = double(box[2 * a + 1]) - box[2 * a];
          const double size = portVoxelSize.getValue(a);
          dims[a] =
              (extent > 0.0 && size > 0.0) ? int(std::floor(extent / size + 0.5)) + 1 : dIn[a];
        } else {
          dims[a] = portResolution.getValue(a);
        }
        dims[a] = std::max(dims[a], 1);
      }
      result = resampleGreyImpl(field, dims, portFilter.getIndex(0), true);
    }
  } catch (const QbMemoryException&) {
    ZrMessage::getTheMsg()->printf("ZrResample: not enough memory to resample %s.\n",
                                   field->getName());
    result = nullptr;
  }
  wa->stopWorking();
  if (!result)
    return;
  result->setName((std::string(field->getName()) + ".resampled").c_str());
  setResult(0, result);
}
