#include "ZrImageIO.h"

#include "QbPrimType.h"
#include "SbMatrixd.h"
#include "ZrAtomicFile.h"
#include "ZrFileLayout.h"
#include "ZrGzipFile.h"
#include "ZrNiftiRawValues.h"
#include "ZrReaderGuard.h"
#include "ZrUniformLabelField3.h"
#include "ZrUniformScalarField3.h"
#include "qbmalloc.h"

#include <exception>
#include <itkImageIOBase.h>
#include <itkImageIOFactory.h>
// Included for its side effect: it registers every image I/O factory of the
// installed ITK in this translation unit.
#include <itkImageFileReader.h>
#include <itkMetaDataObject.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <limits>
#include <memory>
#include <sstream>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace {

using IOComponent = itk::IOComponentEnum;

// Our voxel type for an ITK component type; -1 when it must be converted.
int nativeType(IOComponent c) {
  switch (c) {
  case IOComponent::UCHAR:
    return QB_UINT8;
  case IOComponent::SHORT:
    return QB_INT16;
  case IOComponent::INT:
    return QB_INT32;
  case IOComponent::FLOAT:
    return QB_FLOAT;
  case IOComponent::DOUBLE:
    return QB_DOUBLE;
  case IOComponent::USHORT:
    return QB_UINT16;
  default:
    return -1;
  }
}

IOComponent itkComponent(int primType) {
  switch (primType) {
  case QB_UINT8:
    return IOComponent::UCHAR;
  case QB_INT16:
    return IOComponent::SHORT;
  case QB_INT32:
    return IOComponent::INT;
  case QB_FLOAT:
    return IOComponent::FLOAT;
  case QB_DOUBLE:
    return IOComponent::DOUBLE;
  case QB_UINT16:
    return IOComponent::USHORT;
  default:
    return IOComponent::UNKNOWNCOMPONENTTYPE;
  }
}

template <class S> void rangeOf(const void* src, size_t n, double& lo, double& hi) {
  const S* s = static_cast<const S*>(src);
  lo = std::numeric_limits<double>::max();
  hi = -lo;
  for (size_t i = 0; i < n; i++) {
    double v = double(s[i]);
    lo = std::min(lo, v);
    hi = std::max(hi, v);
  }
}

template <class S, class D> void convertValues(const void* src, void* dst, size_t n) {
  const S* s = static_cast<const S*>(src);
  D* d = static_cast<D*>(dst);
  for (size_t i = 0; i < n; i++)
    d[i] = static_cast<D>(s[i]);
}

// Converts the integer types a field cannot hold into one it can, exactly
// where the values allow: int8 to int16, the wide and unsigned types to int32
// when their range fits and to double otherwise. Returns the new type, or -1
// for a component type zrreg does not take (complex, unknown).
template <class S>
int convertInteger(const void* src, size_t n, void*& out, std::string& notice, const char* name) {
  double lo, hi;
  rangeOf<S>(src, n, lo, hi);
  int type;
  if (lo >= -32768 && hi <= 32767)
    type = QB_INT16;
  else if (lo >= -2147483648.0 && hi <= 2147483647.0)
    type = QB_INT32;
  else
    type = QB_DOUBLE;
  out = qbmalloc(std::max<size_t>(1, n * qbPrimTypeSize(type)));
  if (type == QB_INT16)
    convertValues<S, int16_t>(src, out, n);
  else if (type == QB_INT32)
    convertValues<S, int32_t>(src, out, n);
  else
    convertValues<S, double>(src, out, n);
  notice = std::string("voxels of type ") + name + " converted to " + qbPrimTypeName(type);
  return type;
}

int convertForeign(IOComponent c, const void* src, size_t n, void*& out, std::string& notice) {
  switch (c) {
  case IOComponent::CHAR:
    return convertInteger<int8_t>(src, n, out, notice, "int8");
  case IOComponent::UINT:
    return convertInteger<uint32_t>(src, n, out, notice, "uint32");
  case IOComponent::LONG:
    return convertInteger<long>(src, n, out, notice, "int64");
  case IOComponent::ULONG:
    return convertInteger<unsigned long>(src, n, out, notice, "uint64");
  case IOComponent::LONGLONG:
    return convertInteger<long long>(src, n, out, notice, "int64");
  case IOComponent::ULONGLONG:
    return convertInteger<unsigned long long>(src, n, out, notice, "uint64");
  default:
    return -1;
  }
}

// Readers of picture formats, whose two-component files are grey and alpha.
bool isPictureReader(itk::ImageIOBase* io) {
  const std::string kind = io->GetNameOfClass();
  return kind == "PNGImageIO" || kind == "TIFFImageIO" || kind == "BMPImageIO" ||
         kind == "JPEGImageIO";
}

// Turns nc interleaved components per voxel (grey and alpha, RGB, RGBA) into
// one, in place at the start of data: the grey value when every voxel is grey
// (R = G = B), otherwise the luminance 0.299 R + 0.587 G + 0.114 B, rounded
// for integer types. The alpha channel is dropped. Notes what was done.
template <class T> void pictureToGrey(void* data, size_t n, int nc, std::string& notice) {
  T* v = static_cast<T*>(data);
  const bool rgb = nc >= 3;
  bool grey = true, opaque = true;
  const int alpha = nc == 2 ? 1 : nc == 4 ? 3 : -1;
  const T full = std::numeric_limits<T>::is_integer ? std::numeric_limits<T>::max() : T(1);
  for (size_t i = 0; i < n; i++) {
    const T* p = v + i * nc;
    if (rgb && (p[0] != p[1] || p[0] != p[2]))
      grey = false;
    if (alpha >= 0 && p[alpha] != full)
      opaque = false;
  }
  for (size_t i = 0; i < n; i++) {
    const T* p = v + i * nc;
    if (grey) {
      v[i] = p[0];
    } else {
      const double y = 0.299 * double(p[0]) + 0.587 * double(p[1]) + 0.114 * double(p[2]);
      v[i] = std::numeric_limits<T>::is_integer ? T(std::floor(y + 0.5)) : T(y);
    }
  }
  if (!grey)
    notice = "colour voxels converted to their luminance (0.299 R + 0.587 G + 0.114 B)";
  if (!opaque)
    notice += std::string(notice.empty() ? "" : "; ") + "the alpha channel is ignored";
}

bool toGrey(IOComponent c, void* data, size_t n, int nc, std::string& notice) {
  switch (c) {
  case IOComponent::UCHAR:
    pictureToGrey<uint8_t>(data, n, nc, notice);
    return true;
  case IOComponent::USHORT:
    pictureToGrey<uint16_t>(data, n, nc, notice);
    return true;
  case IOComponent::SHORT:
    pictureToGrey<int16_t>(data, n, nc, notice);
    return true;
  case IOComponent::INT:
    pictureToGrey<int32_t>(data, n, nc, notice);
    return true;
  case IOComponent::FLOAT:
    pictureToGrey<float>(data, n, nc, notice);
    return true;
  case IOComponent::DOUBLE:
    pictureToGrey<double>(data, n, nc, notice);
    return true;
  default:
    return false;
  }
}

bool hasLabelIntent(const itk::MetaDataDictionary& dict) {
  std::string s;
  if (itk::ExposeMetaData<std::string>(dict, "intent_code", s)) {
    // NIfTI's label intent; some writers store the code's name instead.
    if (s == "1002" || s == "NIFTI_INTENT_LABEL")
      return true;
  }
  int code = 0;
  if (itk::ExposeMetaData<int>(dict, "intent_code", code) && code == 1002)
    return true;
  short scode = 0;
  if (itk::ExposeMetaData<short>(dict, "intent_code", scode) && scode == 1002)
    return true;
  return false;
}

std::string lowerName(const std::string& path) {
  std::string s = path;
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

bool endsWith(const std::string& s, const char* suffix) {
  size_t n = std::strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

void removeQuietly(const std::string& path) { std::remove(path.c_str()); }

// How many voxel bytes a byte of an attached NRRD file can hold at most, from
// its header (which ends at the first empty line): 1 for raw, hex and text
// data, 1032 for gzip, as deflate packs no more; 0 (unknown) for bzip2 and
// for voxels in a separate data file.
double nrrdBytesPerFileByte(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::string line, encoding;
  for (int n = 0; n < 1000 && std::getline(in, line) && !line.empty() && line != "\r"; n++) {
    std::string l = lowerName(line);
    if (l.rfind("data file:", 0) == 0 || l.rfind("datafile:", 0) == 0)
      return 0.0;
    if (l.rfind("encoding:", 0) == 0)
      encoding = l.substr(9);
  }
  encoding.erase(0, encoding.find_first_not_of(" \t"));
  encoding.erase(encoding.find_last_not_of(" \t\r") + 1);
  if (encoding == "raw" || encoding == "hex" || encoding == "txt" || encoding == "text" ||
      encoding == "ascii")
    return 1.0;
  if (encoding == "gzip" || encoding == "gz")
    return 1032.0;
  return 0.0;
}

} // namespace

ZrRegScalarField3* ZrImageIO::read(const std::string& path, const ReadOptions& options,
                                   ReadInfo* info, std::string& error) {
  ReadInfo localInfo;
  ReadInfo& inf = info ? *info : localInfo;
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    std::fclose(f);
  } else {
    error = "cannot open '" + path + "': " + std::strerror(errno);
    return nullptr;
  }
  itk::ImageIOBase::Pointer io = ZrReaderGuard::createReader(path, error);
  if (!io || !ZrReaderGuard::survives(path, io, error))
    return nullptr;
  // Not zero-filled: a header that claims more voxels than the file holds
  // then costs address space only, until the short read is reported.
  std::unique_ptr<char, void (*)(void*)> buffer(nullptr, qbfree);
  try {
    io->SetFileName(path);
    io->ReadImageInformation();
  } catch (const itk::ExceptionObject& e) {
    error = "cannot read '" + path + "': " + e.GetDescription();
    return nullptr;
  } catch (const std::exception& e) {
    // ITK's readers let some library errors through (a MetaImage data file
    // name with a '%' in it ends in std::length_error).
    error = "cannot read '" + path + "': its reader failed (" + e.what() + ")";
    return nullptr;
  }

  unsigned nd = io->GetNumberOfDimensions();
  if (nd < 2 || nd > 4) {
    error =
        "'" + path + "' has " + std::to_string(nd) + " dimensions; zrreg takes 2-D and 3-D images";
    return nullptr;
  }
  if (nd == 4 && io->GetDimensions(3) > 1) {
    error = "'" + path + "' is a 4-D image (" + std::to_string(io->GetDimensions(3)) +
            " volumes); extract one 3-D volume first";
    return nullptr;
  }
  // Pictures: a grey image stored as RGB or with a palette (which ITK expands
  // to RGB) is read as the grey image it is, a colour one as its luminance;
  // an alpha channel is dropped. Vector images stay refused.
  const int components = int(io->GetNumberOfComponents());
  const bool picture = io->GetPixelType() == itk::IOPixelEnum::RGB ||
                       io->GetPixelType() == itk::IOPixelEnum::RGBA ||
                       (components == 2 && isPictureReader(io));
  if (components != 1 && !(picture && components >= 2 && components <= 4)) {
    error = "'" + path + "' has " + std::to_string(components) + " components per voxel (" +
            io->GetPixelTypeAsString(io->GetPixelType()) + "); zrreg registers scalar images only";
    return nullptr;
  }
  const unsigned nd3 = std::min(nd, 3u);
  int dims[3] = {1, 1, 1};
  double spacing[3] = {1, 1, 1}, origin[3] = {0, 0, 0};
  double dir[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}; // dir[row][voxel axis]
  for (unsigned a = 0; a < nd3; a++) {
    size_t n = io->GetDimensions(a);
    if (n < 1 || n > size_t(std::numeric_limits<int>::max())) {
      error = "'" + path + "' has an invalid size along axis " + std::to_string(a);
      return nullptr;
    }
    dims[a] = int(n);
    spacing[a] = io->GetSpacing(a);
    origin[a] = io->GetOrigin(a);
    std::vector<double> d = io->GetDirection(a);
    for (unsigned r = 0; r < nd3 && r < d.size(); r++)
      dir[r][a] = d[r];
    if (!(spacing[a] > 0) || !std::isfinite(spacing[a])) {
      error = "'" + path + "' has a non-positive voxel spacing along axis " + std::to_string(a);
      return nullptr;
    }
    // Geometry lives in single precision: the extent and the origin must stay
    // far inside its range, or a written header would hold infinities.
    if (spacing[a] * dims[a] > 1e15) {
      char value[32];
      std::snprintf(value, sizeof value, "%g", spacing[a]);
      error = "'" + path + "' has an implausible voxel spacing of " + value + " along axis " +
              std::to_string(a);
      return nullptr;
    }
    bool finite = std::isfinite(origin[a]) && std::fabs(origin[a]) < 1e15;
    for (unsigned r = 0; r < nd3; r++)
      finite = finite && std::isfinite(dir[r][a]);
    if (!finite) {
      error = "'" + path + "' has a non-finite or implausible origin or orientation";
      return nullptr;
    }
  }
  int flat = (dims[0] == 1) + (dims[1] == 1) + (dims[2] == 1);
  if (flat > 1) {
    error = "'" + path + "' has only one voxel along more than one axis";
    return nullptr;
  }

  size_t numVoxels = size_t(dims[0]) * dims[1] * dims[2];
  IOComponent comp = io->GetComponentType();
  inf.fileType = itk::ImageIOBase::GetComponentTypeAsString(comp);
  if (comp == IOComponent::UNKNOWNCOMPONENTTYPE) {
    // ITK throws when asked the size of an unknown type.
    error = "'" + path + "' does not name a voxel type that zrreg knows";
    return nullptr;
  }
  size_t compSize = io->GetComponentSize();
  // Checked in floating point, where the product cannot wrap around.
  if (compSize == 0 ||
      double(dims[0]) * dims[1] * dims[2] * compSize * components > 0.25 * double(SIZE_MAX)) {
    error = "'" + path + "' claims a size of " + std::to_string(dims[0]) + "x" +
            std::to_string(dims[1]) + "x" + std::to_string(dims[2]) + " voxels of " +
            std::to_string(compSize) + " bytes, which no memory can hold";
    return nullptr;
  }
  // A header can claim more voxels than its file holds, and some of ITK's
  // readers then return the missing part as it happens to be instead of
  // failing, or first ask for the memory of an absurd claim. Where the voxels
  // are in the file itself, a file too short for them is refused:
  // uncompressed NIfTI and VTK hold them byte for byte, and deflate (.nii.gz,
  // compressed MetaImage, gzip NRRD) packs at most 1032 bytes into one.
  {
    std::string l = lowerName(path);
    struct stat st;
    double factor = endsWith(l, ".nii") || endsWith(l, ".vtk")      ? 1.0
                    : endsWith(l, ".nii.gz") || endsWith(l, ".mha") ? 1032.0
                    : endsWith(l, ".nrrd")                          ? nrrdBytesPerFileByte(path)
                                                                    : 0.0;
    double claimed = double(numVoxels) * compSize * components;
    // A single-file NIfTI has at least 352 bytes before its voxels.
    double header = endsWith(l, ".nii") ? 352.0 : 0.0;
    if (factor > 0 && stat(path.c_str(), &st) == 0 &&
        claimed + header > factor * double(st.st_size)) {
      error = "'" + path + "' is truncated or its header is wrong: it claims " +
              std::to_string(dims[0]) + "x" + std::to_string(dims[1]) + "x" +
              std::to_string(dims[2]) + " voxels (" + std::to_string(size_t(claimed)) +
              " bytes), more than its " + std::to_string(st.st_size) + " bytes can hold";
      return nullptr;
    }
  }
  try {
    buffer.reset(static_cast<char*>(qbmalloc(numVoxels * compSize * components)));
    itk::ImageIORegion region(nd);
    for (unsigned a = 0; a < nd; a++) {
      region.SetIndex(a, 0);
      region.SetSize(a, io->GetDimensions(a));
    }
    io->SetIORegion(region);
    io->Read(buffer.get());
  } catch (const itk::ExceptionObject& e) {
    error = "cannot read the voxels of '" + path + "': " + e.GetDescription();
    return nullptr;
  } catch (const QbMemoryException& e) {
    error =
        "not enough memory to read '" + path + "' (" + std::to_string(e.getNumBytes()) + " bytes)";
    return nullptr;
  } catch (const std::bad_alloc&) {
    error = "not enough memory to read '" + path + "'";
    return nullptr;
  } catch (const std::exception& e) {
    error = "cannot read the voxels of '" + path + "': its reader failed (" + e.what() + ")";
    return nullptr;
  }
  if (components > 1 && !toGrey(comp, buffer.get(), numVoxels, components, inf.notice)) {
    error = "'" + path + "' has colour voxels of type " + inf.fileType + ", which zrreg cannot use";
    return nullptr;
  }
  // ITK's NIfTI reader turns NaN and infinite floats into 0; the file's own
  // values go back in, so that the checks before a run see them.
  if (components == 1 && (comp == IOComponent::FLOAT || comp == IOComponent::DOUBLE) &&
      std::string(io->GetNameOfClass()) == "NiftiImageIO" &&
      ZrNiftiRawValues::restoreNonFinite(path, buffer.get(), numVoxels, 1, int(compSize), error) <
          0)
    return nullptr;

  int type = nativeType(comp);
  void* src = buffer.get();
  void* converted = nullptr;
  if (type < 0) {
    type = convertForeign(comp, src, numVoxels, converted, inf.notice);
    if (type < 0) {
      error = "'" + path + "' has voxels of type " + inf.fileType + ", which zrreg cannot use";
      return nullptr;
    }
    src = converted;
  }

  // Permute and flip the voxel axes towards the world axes they are nearest
  // to: greedily assign the largest remaining direction entry.
  int worldOf[3]; // voxel axis -> world axis
  int signOf[3];  // +1 or -1 per voxel axis
  bool usedRow[3] = {false, false, false}, usedCol[3] = {false, false, false};
  for (int step = 0; step < 3; step++) {
    int br = -1, bc = -1;
    double best = -1;
    for (int r = 0; r < 3; r++)
      for (int c = 0; c < 3; c++)
        if (!usedRow[r] && !usedCol[c] && std::fabs(dir[r][c]) > best) {
          best = std::fabs(dir[r][c]);
          br = r;
          bc = c;
        }
    usedRow[br] = usedCol[bc] = true;
    worldOf[bc] = br;
    signOf[bc] = dir[br][bc] < 0 ? -1 : 1;
  }
  // A flat axis keeps its place: flipping it changes nothing, but its new
  // direction column must keep the rotation proper.
  int newDims[3];
  double newSpacing[3], R[3][3]; // R[row][new axis]
  double newOrigin[3] = {origin[0], origin[1], origin[2]};
  for (int j = 0; j < 3; j++) {
    int a = worldOf[j];
    newDims[a] = dims[j];
    newSpacing[a] = spacing[j];
    for (int r = 0; r < 3; r++)
      R[r][a] = signOf[j] * dir[r][j];
    if (signOf[j] < 0)
      for (int r = 0; r < 3; r++)
        newOrigin[r] += dir[r][j] * spacing[j] * (dims[j] - 1);
  }
  double det = R[0][0] * (R[1][1] * R[2][2] - R[1][2] * R[2][1]) -
               R[0][1] * (R[1][0] * R[2][2] - R[1][2] * R[2][0]) +
               R[0][2] * (R[1][0] * R[2][1] - R[1][1] * R[2][0]);
  if (det < 0) {
    // Only a nearly diagonal-free direction matrix can get here; flip the
    // z voxel axis once more so that the kept matrix is a rotation.
    int j = 0;
    while (worldOf[j] != 2)
      j++;
    for (int r = 0; r < 3; r++)
      newOrigin[r] += dir[r][j] * signOf[j] * spacing[j] * (dims[j] - 1);
    signOf[j] = -signOf[j];
    for (int r = 0; r < 3; r++)
      R[r][2] = -R[r][2];
  }

  // Copy the voxels into the new order.
  size_t elem = qbPrimTypeSize(type);
  size_t oldStride[3] = {1, size_t(dims[0]), size_t(dims[0]) * dims[1]};
  ptrdiff_t step[3];
  size_t base = 0;
  for (int j = 0; j < 3; j++) {
    int a = worldOf[j];
    step[a] = signOf[j] > 0 ? ptrdiff_t(oldStride[j]) : -ptrdiff_t(oldStride[j]);
    if (signOf[j] < 0)
      base += oldStride[j] * (dims[j] - 1);
  }
  void* data = nullptr;
  try {
    data = qbmalloc(std::max<size_t>(1, numVoxels * elem));
  } catch (...) {
    qbfree(converted);
    error = "not enough memory to read '" + path + "'";
    return nullptr;
  }
  const char* s = static_cast<const char*>(src);
  char* d = static_cast<char*>(data);
  bool identityOrder = step[0] == 1 && step[1] == ptrdiff_t(oldStride[1]) &&
                       step[2] == ptrdiff_t(oldStride[2]) && base == 0;
  if (identityOrder) {
    std::memcpy(d, s, numVoxels * elem);
  } else {
    // A copy of a size known when compiled is one move rather than a call
    // (a 7 MB atlas: 18 ms against a few); `size` is a compile-time constant
    // for the usual widths and the element size otherwise.
    auto reorder = [&](auto size) {
      size_t out = 0;
      for (int k = 0; k < newDims[2]; k++)
        for (int jj = 0; jj < newDims[1]; jj++) {
          ptrdiff_t idx = ptrdiff_t(base) + k * step[2] + jj * step[1];
          for (int i = 0; i < newDims[0]; i++, out++, idx += step[0])
            std::memcpy(d + out * size, s + size_t(idx) * size, size);
        }
    };
    if (elem == 1)
      reorder(std::integral_constant<size_t, 1>());
    else if (elem == 2)
      reorder(std::integral_constant<size_t, 2>());
    else if (elem == 4)
      reorder(std::integral_constant<size_t, 4>());
    else if (elem == 8)
      reorder(std::integral_constant<size_t, 8>());
    else
      reorder(elem);
  }
  qbfree(converted);
  buffer.reset();

  // Local coordinates: world = R * local. The box starts at R^T * origin, so
  // with no rotation the box holds world coordinates and no transform is set.
  bool rotated = false;
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++)
      if (std::fabs(R[r][c] - (r == c ? 1.0 : 0.0)) > 1e-6)
        rotated = true;
  double localOrigin[3];
  for (int c = 0; c < 3; c++) {
    localOrigin[c] = 0;
    for (int r = 0; r < 3; r++)
      localOrigin[c] += (rotated ? R[r][c] : (r == c ? 1.0 : 0.0)) * newOrigin[r];
  }
  float box[6];
  for (int a = 0; a < 3; a++) {
    box[2 * a] = float(localOrigin[a]);
    box[2 * a + 1] = float(localOrigin[a] + newSpacing[a] * (newDims[a] - 1));
  }

  inf.order.dimension = nd == 2 ? 2 : 3;
  for (int j = 0; j < 3; j++) {
    inf.order.axisOf[j] = worldOf[j];
    inf.order.flip[j] = signOf[j] < 0;
    inf.order.dims[j] = newDims[j];
  }
  inf.labelIntent = hasLabelIntent(io->GetMetaDataDictionary());
  bool labels = options.asLabels || inf.labelIntent;
  if (labels && !qbPrimTypeIsInteger(type)) {
    // Label fields hold integers; a float file with whole values is fine.
    qbfree(data);
    error =
        "'" + path + "' holds " + qbPrimTypeName(type) + " voxels, which cannot be read as labels";
    return nullptr;
  }
  ZrRegScalarField3* field = nullptr;
  if (labels)
    field = new ZrUniformLabelField3(newDims, type, box, data);
  else
    field = new ZrUniformScalarField3(newDims, type, box, data);
  if (rotated) {
    // Row-vector convention: world = local * M, so M holds R transposed.
    SbMatrixd m;
    for (int r = 0; r < 3; r++)
      for (int c = 0; c < 3; c++)
        m[c][r] = R[r][c];
    field->setTransform(m);
  }
  return field;
}

bool ZrImageIO::canWrite(const std::string& path) {
  itk::ImageIOBase::Pointer io =
      itk::ImageIOFactory::CreateImageIO(path.c_str(), itk::ImageIOFactory::WriteMode);
  return io.IsNotNull();
}

bool ZrImageIO::write(const ZrRegScalarField3* field, const std::string& path, std::string& error,
                      std::string* notice, const FileOrder* order) {
  if (field->coordType() != ZR_COORD_UNIFORM) {
    error = "only fields on a uniform lattice can be written as images";
    return false;
  }
  itk::ImageIOBase::Pointer io =
      itk::ImageIOFactory::CreateImageIO(path.c_str(), itk::ImageIOFactory::WriteMode);
  if (!io) {
    error = "no image format is known for the name '" + path +
            "' (use .nii.gz, .nrrd, .mha, ...; see 'zrreg formats')";
    return false;
  }
  float box[6];
  field->getBoundingBox(box);
  SbMatrixd m;
  field->getTransform(m);
  ZrFileLayout layout;
  std::string notes;
  if (!layout.set(field->getDims(), box, m, order, error, &notes))
    return false;
  if (notice && !notes.empty())
    *notice = "'" + path + "': " + notes;

  io->SetPixelType(itk::IOPixelEnum::SCALAR);
  io->SetNumberOfComponents(1);
  io->SetComponentType(itkComponent(field->primType()));
  layout.describe(io);

  // The voxels in the file's order; the field's own memory when that is it.
  const size_t bytes = field->lattice.numNodes() * qbPrimTypeSize(field->primType());
  std::unique_ptr<char[]> reordered;
  const void* voxels = field->lattice.dataPtr();
  if (!layout.keepsFieldOrder()) {
    try {
      reordered.reset(new char[std::max<size_t>(1, bytes)]);
    } catch (const std::bad_alloc&) {
      error = "not enough memory to write '" + path + "'";
      return false;
    }
    layout.toFileOrder(voxels, reordered.get(), qbPrimTypeSize(field->primType()));
    voxels = reordered.get();
  }

  bool detached = ZrAtomicFile::isDetachedFormat(path);
  std::string target = detached ? path : ZrGzipFile::writeName(path);
  const std::vector<std::string> freshData = ZrAtomicFile::absentDataFiles(path);
  // Creating the file first gives the real reason (a missing or read-only
  // folder) where a writer would only print its own.
  if (FILE* probe = std::fopen(target.c_str(), "wb")) {
    std::fclose(probe);
  } else {
    error = "cannot write '" + path + "': " + std::strerror(errno);
    return false;
  }
  try {
    io->SetFileName(target);
    io->WriteImageInformation();
    io->Write(voxels);
  } catch (const itk::ExceptionObject& e) {
    ZrAtomicFile::removeWithData(target, freshData);
    error = "cannot write '" + path + "': " + e.GetDescription();
    return false;
  }
  std::string why;
  if (!writtenIntact(target, voxels, bytes, why)) {
    ZrAtomicFile::removeWithData(target, freshData);
    error = "cannot write '" + path + "': " + why;
    return false;
  }
  if (!detached && !ZrGzipFile::finish(target, path, error))
    return false;
  if (!detached && std::rename(target.c_str(), path.c_str()) != 0) {
    error = "cannot write '" + path + "': " + std::strerror(errno);
    removeQuietly(target);
    return false;
  }
  return true;
}

bool ZrImageIO::checkFinite(const ZrRegScalarField3* field, const char* role, std::string& error) {
  const size_t n = field->lattice.numNodes();
  bool bad = false;
  qbDispatchVoxelType(field->primType(), [&](auto tag) {
    using T = decltype(tag);
    if (std::numeric_limits<T>::is_integer)
      return;
    const T* v = static_cast<const T*>(field->lattice.dataPtr());
    for (size_t i = 0; i < n && !bad; i++)
      bad = !std::isfinite(double(v[i]));
  });
  if (bad)
    error = std::string("the ") + role +
            " image contains NaN or infinite voxels; replace them (for example by 0) first";
  return !bad;
}

bool ZrImageIO::checkUsable(const ZrRegScalarField3* field, const char* role, std::string& error) {
  const int* dims = field->getDims();
  int flat = (dims[0] == 1) + (dims[1] == 1) + (dims[2] == 1);
  if (flat > 1) {
    error = std::string("the ") + role + " image has only one voxel along more than one axis";
    return false;
  }
  if (!checkFinite(field, role, error))
    return false;
  size_t n = field->lattice.numNodes();
  bool constant = true;
  double first = 0;
  qbDispatchVoxelType(field->primType(), [&](auto tag) {
    using T = decltype(tag);
    const T* v = static_cast<const T*>(field->lattice.dataPtr());
    if (n)
      first = double(v[0]);
    for (size_t i = 0; i < n && constant; i++)
      constant = double(v[i]) == first;
  });
  if (constant) {
    error = std::string("the ") + role + " image is constant (every voxel is " +
            std::to_string(first) + "); there is nothing to register";
    return false;
  }
  return true;
}

// Reads a file just written back and compares its voxels with the field's.
// Some of ITK's writers only print an error when the disk is full or a write
// fails, so this is how a short or broken file is caught before it replaces
// anything. A check that cannot get the memory is skipped.
bool ZrImageIO::writtenIntact(const std::string& file, const void* data, size_t bytes,
                              std::string& why) {
  try {
    itk::ImageIOBase::Pointer io =
        itk::ImageIOFactory::CreateImageIO(file.c_str(), itk::ImageIOFactory::ReadMode);
    if (!io) {
      why = "the file written cannot be read back (is the disk full?)";
      return false;
    }
    io->SetFileName(file);
    io->ReadImageInformation();
    if (size_t(io->GetImageSizeInBytes()) != bytes) {
      why = "the file written holds " + std::to_string(io->GetImageSizeInBytes()) +
            " bytes of voxels instead of " + std::to_string(bytes);
      return false;
    }
    // A NIfTI file is compared as it is stored, a chunk at a time, without a
    // second copy of the image; other formats are read back whole.
    const size_t valueBytes = io->GetComponentSize(), components = io->GetNumberOfComponents();
    if (valueBytes > 0 && components > 0 && bytes % (valueBytes * components) == 0) {
      const int same = ZrNiftiRawValues::compare(file, data, bytes / (valueBytes * components),
                                                 int(components), int(valueBytes));
      if (same == 0) {
        why = "the file written differs from the data (is the disk full?)";
        return false;
      }
      if (same == 1)
        return true;
    }
    std::unique_ptr<char[]> back(new char[std::max<size_t>(1, bytes)]);
    itk::ImageIORegion region(io->GetNumberOfDimensions());
    for (unsigned a = 0; a < io->GetNumberOfDimensions(); a++) {
      region.SetIndex(a, 0);
      region.SetSize(a, io->GetDimensions(a));
    }
    io->SetIORegion(region);
    io->Read(back.get());
    // NaN and infinite floats come back from ITK's NIfTI reader as 0.
    const auto comp = io->GetComponentType();
    if ((comp == IOComponent::FLOAT || comp == IOComponent::DOUBLE) &&
        std::string(io->GetNameOfClass()) == "NiftiImageIO") {
      const size_t valueSize = io->GetComponentSize(), nc = io->GetNumberOfComponents();
      std::string ignored;
      ZrNiftiRawValues::restoreNonFinite(file, back.get(), bytes / (valueSize * nc), int(nc),
                                         int(valueSize), ignored);
    }
    if (std::memcmp(back.get(), data, bytes) != 0) {
      why = "the file written differs from the data (is the disk full?)";
      return false;
    }
  } catch (const itk::ExceptionObject& e) {
    why = std::string("the file written is incomplete (is the disk full?): ") + e.GetDescription();
    return false;
  } catch (const std::bad_alloc&) {
  }
  return true;
}
