#pragma once
// Output files that appear complete or not at all: data is written under a
// hidden temporary name in the target's folder (same extension, so image
// writers pick the same format) and renamed into place once it is complete.
#include <string>
#include <vector>

class ZrAtomicFile {
public:
  // ".zrreg-<pid>-<name>" beside path. The name is also remembered (the last
  // few), so that removeTemporaries() can take the file away if Ctrl-C ends
  // the process while it is being written.
  static std::string temporaryName(const std::string& path);
  // Unlinks the remembered temporary names. Async-signal-safe: for the
  // Ctrl-C handler's quit cleanup. A name already renamed into place or
  // removed is simply not found.
  static void removeTemporaries();
  // Renames tmp to path; on failure removes tmp and says why in error.
  static bool commit(const std::string& tmp, const std::string& path, std::string& error);
  // Writes text to path through a temporary file.
  static bool writeText(const std::string& path, const std::string& text, std::string& error);
  // Formats whose header names a separate data file (.mhd, .hdr, .nhdr, .img):
  // renaming the header would break that link, so they are written in place.
  static bool isDetachedFormat(const std::string& path);
  // The data files a writer may create beside the detached header path that
  // do not exist yet: a failed write removes them with the header, and files
  // that were there before are left alone.
  static std::vector<std::string> absentDataFiles(const std::string& path);
  // Removes path and the files of absentDataFiles, quietly.
  static void removeWithData(const std::string& path, const std::vector<std::string>& data);
};
