#include "ZrReaderGuard.h"
#include "ZrNiftiRawValues.h"

#include "ZrAtomicFile.h"

#include <exception>
#include <itkImageIOFactory.h>
#include <itkObjectFactoryBase.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#define ZR_GUARD_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZR_GUARD_SANITIZED 1
#endif
#endif
#ifdef ZR_GUARD_SANITIZED
#include <sanitizer/common_interface_defs.h>
#endif

namespace {

std::string lowerName(const std::string& path) {
  std::string s = path;
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
  return s;
}

bool endsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// The format a reader class reads, as users know it ("NiftiImageIO" ->
// "NIfTI").
std::string formatName(const itk::ImageIOBase* io) {
  std::string kind = io->GetNameOfClass();
  if (endsWith(kind, "ImageIO"))
    kind.resize(kind.size() - 7);
  static const char* const known[][2] = {{"Nifti", "NIfTI"},    {"Nrrd", "NRRD"},
                                         {"Meta", "MetaImage"}, {"GDCM", "DICOM"},
                                         {"Gipl", "GIPL"},      {"Stimulate", "Stimulate"}};
  for (const auto& k : known)
    if (kind == k[0])
      return k[1];
  return kind;
}

// Checks the text header of a MetaImage file (.mha, .mhd) before ITK's reader
// sees it: that reader loops for hours on an absurd NDims and divides by
// values it never checked. NDims must be a whole number from 1 to 8, DimSize
// as many whole numbers above zero, and the spacing and origin keys as many
// finite numbers.
bool metaHeaderSane(const std::string& path, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  std::string line;
  long nDims = -1;
  std::vector<std::pair<std::string, std::string>> entries;
  for (int count = 0; count < 200 && std::getline(in, line); count++) {
    const size_t eq = line.find('=');
    if (eq == std::string::npos)
      continue;
    auto trim = [](std::string t) {
      const char* ws = " \t\r";
      t.erase(0, t.find_first_not_of(ws));
      t.erase(t.find_last_not_of(ws) + 1);
      return t;
    };
    const std::string key = trim(line.substr(0, eq)), value = trim(line.substr(eq + 1));
    if (key == "ElementDataFile")
      break;
    if (key == "NDims") {
      char* end = nullptr;
      nDims = std::strtol(value.c_str(), &end, 10);
      if (value.empty() || *end || nDims < 1 || nDims > 8) {
        error = "'" + path + "' has a malformed MetaImage header: NDims = " + value;
        return false;
      }
    } else {
      entries.emplace_back(key, value);
    }
  }
  if (nDims < 0)
    return true; // the reader itself reports a header without NDims
  for (const auto& e : entries) {
    const bool dims = e.first == "DimSize";
    if (!dims && e.first != "ElementSpacing" && e.first != "ElementSize" && e.first != "Offset" &&
        e.first != "Origin" && e.first != "Position")
      continue;
    std::istringstream words(e.second);
    std::string word;
    long n = 0;
    bool ok = true;
    while (words >> word) {
      char* end = nullptr;
      const double v = std::strtod(word.c_str(), &end);
      ok = ok && *end == 0 && std::isfinite(v) && (!dims || (v >= 1 && v == std::floor(v)));
      n++;
    }
    if (!ok || n < nDims) {
      error = "'" + path + "' has a malformed MetaImage header: " + e.first + " = " + e.second;
      return false;
    }
  }
  return true;
}

// Follows the directory chain of a TIFF file (classic or BigTIFF) before the
// TIFF library does: the copy inside ITK counts directories without noticing
// a chain that loops back on itself, and then never returns. Every directory
// must lie inside the file and be visited once.
bool tiffChainSane(const std::string& path, std::string& error) {
  std::ifstream in(path, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t size = bytes.size();
  if (size < 8 || !((bytes[0] == 'I' && bytes[1] == 'I') || (bytes[0] == 'M' && bytes[1] == 'M')))
    return true; // not TIFF: the reader says so itself
  const bool little = bytes[0] == 'I';
  auto number = [&](size_t at, int width) {
    uint64_t v = 0;
    for (int k = 0; k < width; k++) {
      const uint64_t b = static_cast<unsigned char>(bytes[at + k]);
      v |= little ? b << (8 * k) : b << (8 * (width - 1 - k));
    }
    return v;
  };
  const uint64_t version = number(2, 2);
  if (version != 42 && version != 43)
    return true;
  const bool big = version == 43;
  if (big && size < 16)
    return true;
  const int offsetWidth = big ? 8 : 4, countWidth = big ? 8 : 2, entryWidth = big ? 20 : 12;
  uint64_t offset = number(big ? 8 : 4, offsetWidth);
  std::vector<uint64_t> seen;
  while (offset != 0) {
    const std::string where = "'" + path + "' is a corrupt TIFF file: ";
    if (std::find(seen.begin(), seen.end(), offset) != seen.end()) {
      error = where + "its chain of directories loops";
      return false;
    }
    if (seen.size() > 100000 || offset > size || size - offset < uint64_t(countWidth)) {
      error = where + "a directory lies beyond the end of the file";
      return false;
    }
    seen.push_back(offset);
    const uint64_t count = number(size_t(offset), countWidth);
    // In floating point, where a huge count cannot wrap around.
    if (double(offset) + countWidth + double(count) * entryWidth + offsetWidth > double(size)) {
      error = where + "a directory lies beyond the end of the file";
      return false;
    }
    offset = number(size_t(offset + countWidth + count * entryWidth), offsetWidth);
  }
  return true;
}

// Reads header and voxels with a fresh reader of io's kind; only the child of
// survives runs this.
void readEverything(const std::string& path, itk::ImageIOBase* io) {
  itk::LightObject::Pointer copy = io->CreateAnother();
  auto* reader = dynamic_cast<itk::ImageIOBase*>(copy.GetPointer());
  if (!reader)
    return;
  reader->SetFileName(path);
  reader->ReadImageInformation();
  const unsigned nd = reader->GetNumberOfDimensions();
  // The parent refuses what it cannot hold before it reads voxels; so does
  // the probe (a quarter of the address space, as there).
  double bytes = double(reader->GetComponentSize()) * reader->GetNumberOfComponents();
  itk::ImageIORegion region(nd);
  for (unsigned a = 0; a < nd; a++) {
    region.SetIndex(a, 0);
    region.SetSize(a, reader->GetDimensions(a));
    bytes *= double(reader->GetDimensions(a));
  }
  if (!(bytes > 0) || bytes > 0.25 * double(SIZE_MAX))
    return;
  // Nor does the probe take memory for more voxels than the file could hold
  // (deflate packs at most 1032 bytes into one); the parent then refuses the
  // file or reads it under its own checks. Formats with a separate data
  // file are read in full.
  struct stat st;
  if (!ZrAtomicFile::isDetachedFormat(path) && stat(path.c_str(), &st) == 0 &&
      bytes > 1032.0 * double(st.st_size))
    return;
  std::unique_ptr<char[]> data(new char[size_t(bytes)]);
  reader->SetIORegion(region);
  reader->Read(data.get());
}

} // namespace

itk::ImageIOBase::Pointer ZrReaderGuard::createReader(const std::string& path, std::string& error) {
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    std::fclose(f);
  } else {
    error = "cannot open '" + path + "': " + std::strerror(errno);
    return nullptr;
  }
  const std::string name = lowerName(path);
  try {
    bool claimed = false;
    std::string kinds;
    for (itk::LightObject::Pointer& object :
         itk::ObjectFactoryBase::CreateAllInstance("itkImageIOBase")) {
      auto* io = dynamic_cast<itk::ImageIOBase*>(object.GetPointer());
      if (!io)
        continue;
      bool mine = false;
      for (const std::string& ext : io->GetSupportedReadExtensions())
        mine = mine || (!ext.empty() && endsWith(name, lowerName(ext)));
      if (!mine)
        continue;
      claimed = true;
      if (std::string(io->GetNameOfClass()) == "TIFFImageIO" && !tiffChainSane(path, error))
        return nullptr;
      if (io->CanReadFile(path.c_str()))
        return io;
      kinds += (kinds.empty() ? "" : " or ") + formatName(io);
    }
    if (claimed) {
      error = "'" + path + "' is not a valid " + kinds + " file (corrupt or of another format)";
      return nullptr;
    }
    itk::ImageIOBase::Pointer io =
        itk::ImageIOFactory::CreateImageIO(path.c_str(), itk::ImageIOFactory::ReadMode);
    if (!io)
      error = "'" + path + "' is not an image file that zrreg can read (see 'zrreg formats')";
    return io;
  } catch (const itk::ExceptionObject& e) {
    error = "cannot read '" + path + "': " + e.GetDescription();
    return nullptr;
  } catch (const std::exception& e) {
    error = "cannot read '" + path + "': its reader failed (" + e.what() + ")";
    return nullptr;
  }
}

bool ZrReaderGuard::survives(const std::string& path, itk::ImageIOBase* io, std::string& error) {
  const std::string kind = io->GetNameOfClass();
  if (kind == "NiftiImageIO")
    return ZrNiftiRawValues::orientationSane(path, error);
  if (kind == "NrrdImageIO" || kind == "VTKImageIO")
    return true;
  if (kind == "MetaImageIO" && !metaHeaderSane(path, error))
    return false;
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0)
    return true; // no probe possible: read as usual
  if (child == 0) {
    // A crash here must end only this process, quietly and without leaving
    // crash reports of the parent's handlers behind.
    for (int sig : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
      std::signal(sig, SIG_DFL);
    std::signal(SIGINT, SIG_DFL);
    // A reader that never returns must not outlive a parent that gave up.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == 1)
      _exit(0);
    // What a failing reader prints would only repeat the parent's message.
    if (FILE* null = std::fopen("/dev/null", "w"))
      dup2(fileno(null), STDERR_FILENO);
#ifdef ZR_GUARD_SANITIZED
    __sanitizer_set_death_callback(nullptr);
#endif
    try {
      readEverything(path, io);
    } catch (...) {
      // The parent meets the same exception and reports it.
    }
    _exit(0);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0) {
    if (errno != EINTR)
      return true;
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
    return true;
  // Ctrl-C reaches the child too; the parent's own handling of it follows.
  if (WIFSIGNALED(status) && WTERMSIG(status) == SIGINT)
    return true;
  std::string how = WIFSIGNALED(status) ? std::string(strsignal(WTERMSIG(status)))
                                        : "exit status " + std::to_string(WEXITSTATUS(status));
  error = "'" + path + "' is corrupt: the " + formatName(io) + " reader failed on it (" + how + ")";
  return false;
}
