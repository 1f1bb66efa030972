#include "ZrVectorImageIO.h"

#include "SbMatrixd.h"
#include "ZrAtomicFile.h"
#include "ZrFileLayout.h"
#include "ZrGzipFile.h"
#include "ZrImageIO.h"
#include "ZrNiftiRawValues.h"
#include "ZrReaderGuard.h"
#include "ZrRegScalarField3.h"
#include "ZrRegVectorField3.h"
#include "ZrUniformCoord3.h"

#include <exception>
#include <itkImageIOBase.h>
#include <itkImageIOFactory.h>
// Included for its side effect: it registers ITK's image I/O factories here.
#include <itkImageFileReader.h>

#include "qbmalloc.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

struct Geometry {
  int dims[3];
  float box[6];
  SbMatrixd m; // local -> world, row vectors
};

bool writeImage(const Geometry& g, const float* worldVectors, const std::string& path,
                const ZrImageIO::FileOrder* order, std::string& error,
                std::vector<float>* release = nullptr) {
  itk::ImageIOBase::Pointer io =
      itk::ImageIOFactory::CreateImageIO(path.c_str(), itk::ImageIOFactory::WriteMode);
  if (!io) {
    error = "no image format is known for the name '" + path + "'";
    return false;
  }
  ZrFileLayout layout;
  if (!layout.set(g.dims, g.box, g.m, order, error, nullptr))
    return false;
  const size_t n = size_t(g.dims[0]) * g.dims[1] * g.dims[2];
  // A 2-D field whose vectors all lie in its plane is written with two
  // components, as 2-D displacement fields are.
  unsigned nd = unsigned(layout.dimension), nc = 3;
  if (nd == 2) {
    bool planar = true;
    for (size_t i = 0; i < n && planar; i++)
      planar = worldVectors[3 * i + 2] == 0.0f;
    if (planar)
      nc = 2;
  }
  // Vectors already in the file's order are written as they stand: a fine
  // field is large.
  std::vector<float> vectors;
  const float* out = worldVectors;
  if (nc == 3 && !layout.keepsFieldOrder()) {
    vectors.resize(3 * n);
    layout.toFileOrder(worldVectors, vectors.data(), 3 * sizeof(float));
    out = vectors.data();
  } else if (nc == 2) {
    vectors.resize(2 * n);
    out = vectors.data();
    std::vector<float> ordered(3 * n);
    layout.toFileOrder(worldVectors, ordered.data(), 3 * sizeof(float));
    for (size_t i = 0; i < n; i++) {
      vectors[2 * i] = ordered[3 * i];
      vectors[2 * i + 1] = ordered[3 * i + 1];
    }
  }
  if (release && out != worldVectors)
    std::vector<float>().swap(*release);
  io->SetPixelType(itk::IOPixelEnum::VECTOR);
  io->SetNumberOfComponents(nc);
  io->SetComponentType(itk::IOComponentEnum::FLOAT);
  layout.describe(io);
  std::string tmp = ZrGzipFile::writeName(path);
  bool detached = ZrAtomicFile::isDetachedFormat(path);
  std::string target = detached ? path : tmp;
  const std::vector<std::string> freshData = ZrAtomicFile::absentDataFiles(path);
  try {
    io->SetFileName(target);
    io->WriteImageInformation();
    io->Write(out);
  } catch (const itk::ExceptionObject& e) {
    ZrAtomicFile::removeWithData(target, freshData);
    error = "cannot write '" + path + "': " + e.GetDescription();
    return false;
  }
  std::string why;
  if (!ZrImageIO::writtenIntact(target, out, nc * n * sizeof(float), why)) {
    ZrAtomicFile::removeWithData(target, freshData);
    error = "cannot write '" + path + "': " + why;
    return false;
  }
  if (!detached && !ZrGzipFile::finish(tmp, path, error))
    return false;
  return detached || ZrAtomicFile::commit(tmp, path, error);
}

} // namespace

bool ZrVectorImageIO::write(const ZrRegVectorField3* field, const std::string& path,
                            std::string& error, const ZrImageIO::FileOrder* order) {
  if (field->coordType() != ZR_COORD_UNIFORM || field->nDataVar() != 3 || field->primType() != 3) {
    error = "only uniform three-component float fields can be written as vector images";
    return false;
  }
  Geometry g;
  for (int a = 0; a < 3; a++)
    g.dims[a] = field->getDims()[a];
  field->getBoundingBox(g.box);
  field->getTransform(g.m);
  size_t n = field->lattice.numNodes();
  const float* v = static_cast<const float*>(field->lattice.dataPtr());
  std::vector<float> world(3 * n);
  for (size_t i = 0; i < n; i++)
    for (int c = 0; c < 3; c++)
      world[3 * i + c] =
          float(v[3 * i] * g.m[0][c] + v[3 * i + 1] * g.m[1][c] + v[3 * i + 2] * g.m[2][c]);
  return writeImage(g, world.data(), path, order, error, &world);
}

bool ZrVectorImageIO::writeOnLattice(const ZrRegScalarField3* lattice, const float* worldVectors,
                                     const std::string& path, std::string& error,
                                     const ZrImageIO::FileOrder* order,
                                     std::vector<float>* release) {
  if (lattice->coordType() != ZR_COORD_UNIFORM) {
    error = "the reference is not on a uniform grid";
    return false;
  }
  Geometry g;
  for (int a = 0; a < 3; a++)
    g.dims[a] = lattice->getDims()[a];
  lattice->getBoundingBox(g.box);
  lattice->getTransform(g.m);
  return writeImage(g, worldVectors, path, order, error, release);
}

ZrRegVectorField3* ZrVectorImageIO::read(const std::string& path, std::string& error) {
  itk::ImageIOBase::Pointer io = ZrReaderGuard::createReader(path, error);
  if (!io || !ZrReaderGuard::survives(path, io, error))
    return nullptr;
  std::vector<float> data;
  int dims[3] = {1, 1, 1};
  double spacing[3] = {1, 1, 1}, origin[3] = {0, 0, 0},
         dir[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  unsigned nc = 3;
  try {
    io->SetFileName(path);
    io->ReadImageInformation();
    unsigned nd = io->GetNumberOfDimensions();
    nc = io->GetNumberOfComponents();
    // Three components, or two in a 2-D file (the vectors of its plane).
    if (nd < 2 || nd > 3 || !(nc == 3 || (nc == 2 && nd == 2))) {
      error = "'" + path + "' is not a 2-D or 3-D image of three-component vectors";
      return nullptr;
    }
    // ITK's NIfTI reader takes a header of the wrong size for an old
    // Analyze one, and on some such files (complex values; the fuzzer found
    // one) it leaves its image pointing into the caller's buffer and frees
    // that pointer when it is destroyed. The vector images zrreg reads are
    // floats under a sound header: anything else is refused before ITK reads
    // its voxels.
    if (ZrNiftiRawValues::isNiftiName(path)) {
      const int type = ZrNiftiRawValues::datatype(path, error);
      if (type < 0)
        return nullptr;
      if (type == 0) {
        error = "'" + path + "' is no NIfTI file: its header is damaged";
        return nullptr;
      }
      if (type != 16 && type != 64) {
        error = "'" + path + "' does not hold float vectors";
        return nullptr;
      }
    }
    for (unsigned a = 0; a < nd; a++) {
      dims[a] = int(io->GetDimensions(a));
      spacing[a] = io->GetSpacing(a);
      origin[a] = io->GetOrigin(a);
      std::vector<double> d = io->GetDirection(a);
      for (unsigned r = 0; r < nd && r < d.size(); r++)
        dir[r][a] = d[r];
      if (dims[a] < 1 || !(spacing[a] > 0) || !std::isfinite(spacing[a])) {
        error = "'" + path + "' has an invalid size or spacing along axis " + std::to_string(a);
        return nullptr;
      }
      // The geometry goes into single precision, and from there into the
      // headers of written files: it must stay far inside that range.
      bool finite =
          spacing[a] * dims[a] < 1e15 && std::isfinite(origin[a]) && std::fabs(origin[a]) < 1e15;
      for (unsigned r = 0; r < nd; r++)
        finite = finite && std::isfinite(dir[r][a]);
      if (!finite) {
        error = "'" + path + "' has an implausible spacing, origin or orientation";
        return nullptr;
      }
    }
    size_t n = size_t(dims[0]) * dims[1] * dims[2];
    // A header can claim more vectors than its file holds: refuse a single
    // file too short for them (uncompressed NIfTI byte for byte, deflate at
    // most 1032 bytes from one) before taking the memory.
    double claimed = double(dims[0]) * dims[1] * dims[2] * nc * io->GetComponentSize();
    std::string l = path;
    for (char& c : l)
      c = char(std::tolower((unsigned char)c));
    auto endsWith = [&](const char* suffix) {
      size_t k = std::strlen(suffix);
      return l.size() >= k && l.compare(l.size() - k, k, suffix) == 0;
    };
    double factor = endsWith(".nii") ? 1.0 : endsWith(".nii.gz") || endsWith(".mha") ? 1032.0 : 0.0;
    struct stat st;
    if (claimed > 0.25 * double(SIZE_MAX) ||
        (factor > 0 && stat(path.c_str(), &st) == 0 && claimed > factor * double(st.st_size))) {
      error = "'" + path + "' is truncated or its header is wrong: it claims " +
              std::to_string(dims[0]) + "x" + std::to_string(dims[1]) + "x" +
              std::to_string(dims[2]) + " vectors, more than its size can hold";
      return nullptr;
    }
    // Read as stored, then convert to float. Not zero-filled: memory is only
    // touched as the reader fills it.
    std::unique_ptr<char, void (*)(void*)> raw(
        static_cast<char*>(qbmalloc(n * nc * io->GetComponentSize())), qbfree);
    itk::ImageIORegion region(nd);
    for (unsigned a = 0; a < nd; a++) {
      region.SetIndex(a, 0);
      region.SetSize(a, io->GetDimensions(a));
    }
    io->SetIORegion(region);
    io->Read(raw.get());
    auto comp = io->GetComponentType();
    // ITK's NIfTI reader turns NaN and infinite floats into 0: put the
    // file's own values back so that they are refused below.
    if ((comp == itk::IOComponentEnum::FLOAT || comp == itk::IOComponentEnum::DOUBLE) &&
        std::string(io->GetNameOfClass()) == "NiftiImageIO" &&
        ZrNiftiRawValues::restoreNonFinite(path, raw.get(), n, int(nc), int(io->GetComponentSize()),
                                           error) < 0)
      return nullptr;
    data.assign(3 * n, 0.0f);
    for (size_t k = 0; k < nc * n; k++) {
      const size_t i = 3 * (k / nc) + k % nc;
      if (comp == itk::IOComponentEnum::FLOAT)
        data[i] = reinterpret_cast<const float*>(raw.get())[k];
      else if (comp == itk::IOComponentEnum::DOUBLE)
        data[i] = float(reinterpret_cast<const double*>(raw.get())[k]);
      else {
        error = "'" + path + "' does not hold float vectors";
        return nullptr;
      }
      if (!std::isfinite(data[i])) {
        error = "'" + path + "' holds NaN or infinite vectors";
        return nullptr;
      }
    }
  } catch (const itk::ExceptionObject& e) {
    error = "cannot read '" + path + "': " + e.GetDescription();
    return nullptr;
  } catch (const QbMemoryException& e) {
    error =
        "not enough memory to read '" + path + "' (" + std::to_string(e.getNumBytes()) + " bytes)";
    return nullptr;
  } catch (const std::bad_alloc&) {
    error = "not enough memory to read '" + path + "'";
    return nullptr;
  } catch (const std::exception& e) {
    error = "cannot read '" + path + "': its reader failed (" + e.what() + ")";
    return nullptr;
  }
  // Local coordinates: world = D * local with the box at D^T * origin, as for
  // scalar images, but without reordering the voxels (the lattice keeps the
  // file's order, so a field written here comes back node for node).
  bool rotated = false;
  for (int r = 0; r < 3; r++)
    for (int c = 0; c < 3; c++)
      if (std::fabs(dir[r][c] - (r == c)) > 1e-6)
        rotated = true;
  ZrRegVectorField3* f = ZrRegVectorField3::create(dims, 3, 3, ZR_COORD_UNIFORM);
  if (!f) {
    error = "not enough memory for '" + path + "'";
    return nullptr;
  }
  float box[6];
  for (int a = 0; a < 3; a++) {
    double lo = 0;
    for (int r = 0; r < 3; r++)
      lo += (rotated ? dir[r][a] : (r == a)) * origin[r];
    box[2 * a] = float(lo);
    box[2 * a + 1] = float(lo + spacing[a] * (dims[a] - 1));
  }
  static_cast<ZrUniformCoord3*>(f->lattice.coords())->setBoundingBox(box);
  float* out = f->floatData();
  size_t n = size_t(dims[0]) * dims[1] * dims[2];
  for (size_t i = 0; i < n; i++)
    for (int c = 0; c < 3; c++) {
      // local vector = world vector * D (row form of D^T applied).
      double s = 0;
      for (int r = 0; r < 3; r++)
        s += data[3 * i + r] * (rotated ? dir[r][c] : (r == c));
      out[3 * i + c] = float(s);
    }
  if (rotated) {
    SbMatrixd m;
    for (int r = 0; r < 3; r++)
      for (int c = 0; c < 3; c++)
        m[c][r] = dir[r][c];
    f->setTransform(m);
  }
  return f;
}
