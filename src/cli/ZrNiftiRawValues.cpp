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

namespace {

// The voxel values of a NIfTI file as it stores them, opened at the first
// value: one component after the other, each a whole volume.
struct VoxelStream {
  std::unique_ptr<GzFile> file;
  bool swap = false;
  int datatype = 0;
  // Bytes per value, from the header.
  int valueBytes = 0;
  // Values as stored are values as read (no scaling).
  bool unscaled = true;
};

// Opens the voxels of `path` when its header says it holds numVoxels x
// components values: 1, -1 when a file cannot be opened or read (error says
// why), 0 when it is no NIfTI file this reader understands or holds another
// number of values.
const int kDamagedHeader = -2;

// Reads the header of the NIfTI (or Analyze) file `path` into h: its size
// (348 or 540), 0 when the file is no such file or too short for a header,
// kDamagedHeader when its header size field is wrong, -1 when the file cannot
// be opened (error says why). swap tells whether its bytes are swapped.
int readHeader(const std::string& path, unsigned char (&h)[540], bool& swap, std::string& error) {
  if (!ZrNiftiRawValues::isNiftiName(path))
    return 0;
  const std::string l = lower(path);
  std::string headerPath = path;
  if (endsWith(l, ".img") || endsWith(l, ".img.gz"))
    headerPath = companion(path, ".img", ".hdr");
  if (headerPath.empty())
    return 0;
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
  swap = false;
  if (size != 348 && size != 540) {
    swapBytes(reinterpret_cast<unsigned char*>(&size), 4);
    swap = true;
    if (size != 348 && size != 540)
      return kDamagedHeader;
  }
  return size;
}

int openVoxels(const std::string& path, size_t numVoxels, int components, VoxelStream& out,
               std::string& error) {
  if (components < 1)
    return 0;
  const std::string l = lower(path);
  unsigned char h[540];
  bool swap = false;
  const int size = readHeader(path, h, swap, error);
  if (size <= 0)
    return size == -1 ? -1 : 0;
  const bool two = size == 540;
  out.swap = swap;
  out.datatype = two ? readAt<int16_t>(h, 12, swap) : readAt<int16_t>(h, 70, swap);
  out.valueBytes = (two ? readAt<int16_t>(h, 14, swap) : readAt<int16_t>(h, 72, swap)) / 8;
  const double slope = two ? readAt<double>(h, 176, swap) : readAt<float>(h, 112, swap);
  const double inter = two ? readAt<double>(h, 184, swap) : readAt<float>(h, 116, swap);
  out.unscaled = (slope == 0 || slope == 1) && inter == 0;
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

  out.file.reset(new GzFile(dataPath));
  if (!out.file->f) {
    error = "cannot open '" + dataPath + "'";
    return -1;
  }
  if (offset > 0 && gzseek(out.file->f, z_off_t(offset), SEEK_SET) < 0) {
    error = "cannot read the voxels of '" + dataPath + "'";
    return -1;
  }
  return 1;
}

// Calls visit(values, first, count) for the stored values in chunks of 1 MB,
// `first` the index of the chunk's first value in storage order; false when
// the file ends early.
template <class Visit>
bool forStoredValues(VoxelStream& s, size_t total, int valueSize, Visit&& visit) {
  const size_t chunkValues = (size_t(1) << 20) / size_t(valueSize);
  std::vector<unsigned char> chunk(chunkValues * size_t(valueSize));
  for (size_t done = 0; done < total;) {
    const size_t want = std::min(chunkValues, total - done);
    const int got = gzread(s.file->f, chunk.data(), unsigned(want * size_t(valueSize)));
    if (got < int(want * size_t(valueSize)))
      return false;
    if (s.swap)
      for (size_t k = 0; k < want; k++)
        swapBytes(chunk.data() + k * size_t(valueSize), valueSize);
    visit(chunk.data(), done, want);
    done += want;
  }
  return true;
}

} // namespace

long ZrNiftiRawValues::restoreNonFinite(const std::string& path, void* buffer, size_t numVoxels,
                                        int components, int valueSize, std::string& error) {
  if (valueSize != 4 && valueSize != 8)
    return 0;
  VoxelStream s;
  const int opened = openVoxels(path, numVoxels, components, s, error);
  if (opened <= 0)
    return opened;
  // 16: 32-bit float, 64: 64-bit float. Anything else holds no NaN.
  if (!((s.datatype == 16 && valueSize == 4) || (s.datatype == 64 && valueSize == 8)))
    return 0;
  // The buffer holds the components of a voxel side by side.
  unsigned char* out = static_cast<unsigned char*>(buffer);
  long restored = 0;
  // ITK read the file, so a short read here is not worth a failure: what
  // was checked stays checked.
  forStoredValues(s, numVoxels * size_t(components), valueSize,
                  [&](const unsigned char* values, size_t first, size_t count) {
                    for (size_t k = 0; k < count; k++) {
                      const unsigned char* v = values + k * size_t(valueSize);
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
                      const size_t r = first + k;
                      const size_t at = (r % numVoxels) * size_t(components) + r / numVoxels;
                      std::memcpy(out + at * size_t(valueSize), v, size_t(valueSize));
                      restored++;
                    }
                  });
  return restored;
}

int ZrNiftiRawValues::compare(const std::string& path, const void* data, size_t numVoxels,
                              int components, int valueSize) {
  VoxelStream s;
  std::string ignored;
  const int opened = openVoxels(path, numVoxels, components, s, ignored);
  if (opened == 0 || (opened > 0 && (s.valueBytes != valueSize || !s.unscaled)))
    return -1;
  if (opened < 0)
    return 0;
  const unsigned char* in = static_cast<const unsigned char*>(data);
  bool same = true;
  const bool whole =
      forStoredValues(s, numVoxels * size_t(components), valueSize,
                      [&](const unsigned char* values, size_t first, size_t count) {
                        if (!same)
                          return;
                        if (components == 1) {
                          same = std::memcmp(values, in + first * size_t(valueSize),
                                             count * size_t(valueSize)) == 0;
                          return;
                        }
                        for (size_t k = 0; k < count && same; k++) {
                          const size_t r = first + k;
                          const size_t at = (r % numVoxels) * size_t(components) + r / numVoxels;
                          same = std::memcmp(values + k * size_t(valueSize),
                                             in + at * size_t(valueSize), size_t(valueSize)) == 0;
                        }
                      });
  return whole && same ? 1 : 0;
}

int ZrNiftiRawValues::datatype(const std::string& path, std::string& error) {
  unsigned char h[540];
  bool swap = false;
  const int size = readHeader(path, h, swap, error);
  if (size <= 0)
    return size == -1 ? -1 : 0;
  return size == 540 ? readAt<int16_t>(h, 12, swap) : readAt<int16_t>(h, 70, swap);
}

bool ZrNiftiRawValues::orientationSane(const std::string& path, std::string& error) {
  unsigned char h[540];
  bool swap = false;
  std::string ignored;
  const int size = readHeader(path, h, swap, ignored);
  // ITK's reader takes a header of the wrong size for an old Analyze one and
  // goes on with the same fields.
  if (size == kDamagedHeader) {
    error = "'" + path + "' is no NIfTI file: its header is damaged";
    return false;
  }
  if (size <= 0)
    return true; // no header this reader knows, or none to read: ITK decides
  const bool two = size == 540;
  auto value = [&](size_t one, size_t twoAt) {
    return two ? readAt<double>(h, twoAt, swap) : double(readAt<float>(h, one, swap));
  };
  bool finite = true;
  // pixdim[0 .. 3], the quaternion and its offset, the three rows of the
  // affine.
  for (int i = 0; i < 4; i++)
    finite = finite && std::isfinite(value(76 + 4 * i, 104 + 8 * i));
  for (int i = 0; i < 6; i++)
    finite = finite && std::isfinite(value(256 + 4 * i, 352 + 8 * i));
  double row[3][4];
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 4; c++) {
      row[r][c] = value(280 + 16 * r + 4 * c, 400 + 32 * r + 8 * c);
      finite = finite && std::isfinite(row[r][c]);
    }
  const int sformCode = two ? readAt<int32_t>(h, 348, swap) : readAt<int16_t>(h, 254, swap);
  const double det = row[0][0] * (row[1][1] * row[2][2] - row[1][2] * row[2][1]) -
                     row[0][1] * (row[1][0] * row[2][2] - row[1][2] * row[2][0]) +
                     row[0][2] * (row[1][0] * row[2][1] - row[1][1] * row[2][0]);
  if (finite && (sformCode == 0 || (std::isfinite(det) && det != 0)))
    return true;
  error = "'" + path + "' has an impossible orientation in its header (" +
          (finite ? "a singular affine" : "values that are not finite") + ")";
  return false;
}
