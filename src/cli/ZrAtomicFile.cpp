#include "ZrAtomicFile.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {
// The last temporary names handed out, for removeTemporaries(). A slot is
// read by the signal handler only while its state is 2 (complete).
const int kSlots = 8;
char slotName[kSlots][4096];
std::atomic<int> slotState[kSlots];
std::atomic<unsigned> nextSlot{0};

void remember(const std::string& name) {
  if (name.size() >= sizeof slotName[0])
    return;
  const unsigned k = nextSlot.fetch_add(1) % kSlots;
  slotState[k].store(1);
  std::memcpy(slotName[k], name.c_str(), name.size() + 1);
  slotState[k].store(2);
}
} // namespace

std::string ZrAtomicFile::temporaryName(const std::string& path) {
  size_t slash = path.find_last_of('/');
  std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string name = dir + ".zrreg-" + std::to_string(getpid()) + "-" + base;
  remember(name);
  return name;
}

void ZrAtomicFile::removeTemporaries() {
  for (int k = 0; k < kSlots; k++)
    if (slotState[k].load() == 2)
      ::unlink(slotName[k]);
}

bool ZrAtomicFile::commit(const std::string& tmp, const std::string& path, std::string& error) {
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    error = "cannot write '" + path + "': " + std::strerror(errno);
    std::remove(tmp.c_str());
    return false;
  }
  return true;
}

bool ZrAtomicFile::writeText(const std::string& path, const std::string& text, std::string& error) {
  std::string tmp = temporaryName(path);
  FILE* f = std::fopen(tmp.c_str(), "w");
  if (!f) {
    error = "cannot write '" + path + "': " + std::strerror(errno);
    return false;
  }
  bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  ok = std::fclose(f) == 0 && ok;
  if (!ok) {
    error = "cannot write '" + path + "': " + std::strerror(errno);
    std::remove(tmp.c_str());
    return false;
  }
  return commit(tmp, path, error);
}

bool ZrAtomicFile::isDetachedFormat(const std::string& path) {
  std::string l = path;
  std::transform(l.begin(), l.end(), l.begin(), [](unsigned char c) { return std::tolower(c); });
  for (const char* suffix : {".mhd", ".hdr", ".nhdr", ".img", ".img.gz"}) {
    size_t n = std::strlen(suffix);
    if (l.size() >= n && l.compare(l.size() - n, n, suffix) == 0)
      return true;
  }
  return false;
}

std::vector<std::string> ZrAtomicFile::absentDataFiles(const std::string& path) {
  std::string l = path;
  std::transform(l.begin(), l.end(), l.begin(), [](unsigned char c) { return std::tolower(c); });
  // Header suffix, and the data suffixes its writers use.
  static const char* const pairs[][3] = {
      {".mhd", ".raw", ".zraw"}, {".nhdr", ".raw", ".raw.gz"}, {".hdr", ".img", ".img.gz"}};
  std::vector<std::string> names;
  for (const auto& p : pairs) {
    size_t n = std::strlen(p[0]);
    if (l.size() < n || l.compare(l.size() - n, n, p[0]) != 0)
      continue;
    for (int k = 1; k < 3; k++) {
      const std::string name = path.substr(0, path.size() - n) + p[k];
      struct stat st;
      if (stat(name.c_str(), &st) != 0 &&
          std::find(names.begin(), names.end(), name) == names.end())
        names.push_back(name);
    }
  }
  return names;
}

void ZrAtomicFile::removeWithData(const std::string& path, const std::vector<std::string>& data) {
  std::remove(path.c_str());
  for (const std::string& name : data)
    std::remove(name.c_str());
}
