#include "ZrNiftiRawValues.h"

#include <zlib.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace {

std::string lower(std::string s) {
  for (char& c : s)
    c = char(std::tolower((unsigned char)c));
  return s;
}

bool endsWith(const std::string& s, const char* suffix) {
  const size_t n = std::strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

void swapBytes(unsigned char* p, int n) { std::reverse(p, p + n); }

template <class T> T readAt(const unsigned char* h, size_t at, bool swap) {
  unsigned char b[sizeof(T)];
  std::memcpy(b, h + at, sizeof(T));
  if (swap)
    swapBytes(b, sizeof(T));
  T v;
  std::memcpy(&v, b, sizeof(T));
  return v;
}

struct GzFile {
  gzFile f = nullptr;
  explicit GzFile(const std::string& path) : f(gzopen(path.c_str(), "rb")) {}
  ~GzFile() {
    if (f)
      gzclose(f);
  }
};

bool readable(const std::string& path) {
  GzFile g(path);
  return g.f != nullptr;
}

// The file beside path with its extension `from` replaced by `to`, with or
// without ".gz"; empty if neither exists.
std::string companion(const std::string& path, const char* from, const char* to) {
  const std::string l = lower(path);
  std::string stem;
  for (const char* ext : {".gz", ""}) {
    const std::string full = std::string(from) + ext;
    if (endsWith(l, full.c_str())) {
      stem = path.substr(0, path.size() - full.size());
      break;
    }
  }
  if (stem.empty())
    return std::string();
  for (const char* ext : {"", ".gz"}) {
    std::string candidate = stem + to + ext;
    if (readable(candidate))
      return candidate;
  }
  return std::string();
}

} // namespace

bool ZrNiftiRawValues::isNiftiName(const std::string& path) {
  const std::string l = lower(path);
  for (const char* ext : {".nii", ".nii.gz", ".hdr", ".hdr.gz", ".img", ".img.gz"})
    if (endsWith(l, ext))
      return true;
  return false;
}

long ZrNiftiRawValues::restoreNonFinite(const std::string& path, void* buffer, size_t numVoxels,
                                        int components, int valueSize, std::string& error) {
  if (!isNiftiName(path) || components < 1 || (valueSize != 4 && valueSize != 8))
    return 0;
  const std::string l = lower(path);
  std::string headerPath = path;
  if (endsWith(l, ".img") || endsWith(l, ".img.gz"))
    headerPath = companion(path, ".img", ".hdr");
  if (headerPath.empty())
    return 0;

  unsigned char h[540];
  {
    GzFile g(headerPath);
    if (!g.f) {
      error = "cannot open '" + headerPath + "'";
      return -1;
    }
    const int got = gzread(g.f, h, sizeof h);
    if (got < 348)
      return 0;
  }
  int32_t size;
  std::memcpy(&size, h, 4);
  bool swap = false;
  if (size != 348 && size != 540) {
    swapBytes(reinterpret_cast<unsigned char*>(&size), 4);
    swap = true;
    if (size != 348 && size != 540)
      return 0;
  }
  const bool two = size == 540;
  const int datatype = two ? readAt<int16_t>(h, 12, swap) : readAt<int16_t>(h, 70, swap);
  // 16: 32-bit float, 64: 64-bit float. Anything else holds no NaN.
  if (!((datatype == 16 && valueSize == 4) || (datatype == 64 && valueSize == 8)))
    return 0;
  int64_t dim[8];
  for (int i = 0; i < 8; i++)
    dim[i] = two ? readAt<int64_t>(h, 16 + 8 * i, swap) : readAt<int16_t>(h, 40 + 2 * i, swap);
  double offset = two ? double(readAt<int64_t>(h, 168, swap)) : readAt<float>(h, 108, swap);
  if (dim[0] < 1 || dim[0] > 7)
    return 0;
  double count = 1;
  for (int i = 1; i <= dim[0]; i++)
    count *= double(std::max<int64_t>(dim[i], 1));
  if (count != double(numVoxels) * components)
    return 0;
  const bool single = two ? std::memcmp(h + 4, "n+2", 4) == 0 : std::memcmp(h + 344, "n+1", 4) == 0;
  std::string dataPath = path;
  if (!single) {
    if (endsWith(l, ".hdr") || endsWith(l, ".hdr.gz"))
      dataPath = companion(path, ".hdr", ".img");
    if (dataPath.empty())
      return 0;
  } else if (!(offset >= double(size))) {
    return 0;
  }
  if (!(offset >= 0) || offset > 1e12)
    return 0;

  GzFile g(dataPath);
  if (!g.f) {
    error = "cannot open '" + dataPath + "'";
    return -1;
  }
  if (offset > 0 && gzseek(g.f, z_off_t(offset), SEEK_SET) < 0) {
    error = "cannot read the voxels of '" + dataPath + "'";
    return -1;
  }
  // The file holds one component after the other, each a whole volume; the
  // buffer holds the components of a voxel side by side.
  const size_t total = numVoxels * size_t(components);
  const size_t chunkValues = (size_t(1) << 20) / size_t(valueSize);
  std::vector<unsigned char> chunk(chunkValues * size_t(valueSize));
  unsigned char* out = static_cast<unsigned char*>(buffer);
  long restored = 0;
  for (size_t done = 0; done < total;) {
    const size_t want = std::min(chunkValues, total - done);
    const int got = gzread(g.f, chunk.data(), unsigned(want * size_t(valueSize)));
    if (got < int(want * size_t(valueSize))) {
      // ITK read the file, so a short read here is not worth a failure: what
      // was checked stays checked.
      break;
    }
    for (size_t k = 0; k < want; k++) {
      unsigned char* v = chunk.data() + k * size_t(valueSize);
      if (swap)
        swapBytes(v, valueSize);
      double x;
      if (valueSize == 4) {
        float f;
        std::memcpy(&f, v, 4);
        x = f;
      } else {
        std::memcpy(&x, v, 8);
      }
      if (std::isfinite(x))
        continue;
      const size_t r = done + k;
      const size_t at = (r % numVoxels) * size_t(components) + r / numVoxels;
      std::memcpy(out + at * size_t(valueSize), v, size_t(valueSize));
      restored++;
    }
    done += want;
  }
  return restored;
}
