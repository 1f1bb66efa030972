#pragma once
// Compressed NIfTI outputs (.nii.gz) written fast: ITK's NIfTI writer
// compresses at zlib's default level on one thread, which for a float
// displacement field of a 1 mm head (85 MB that compress by a fifth at any
// level) takes longer than the registration's last level. The image is
// written uncompressed and checked, and then compressed here by libdeflate at
// its fastest level, in independent blocks on all of the process's threads. The blocks
// are gzip members one after the other, which zlib, ITK, nibabel and gzip
// read as one stream.
#include <string>

class ZrGzipFile {
public:
  // Whether path names a compressed NIfTI file (".nii.gz", any case).
  static bool isCompressedNifti(const std::string& path);
  // path without its ".gz".
  static std::string plainName(const std::string& path);
  // Compresses the file from into the file to (made or replaced). On failure
  // says why in error (to may be left half-written: the caller removes it).
  static bool compress(const std::string& from, const std::string& to, std::string& error);
  // The temporary name under which an output for path is written first
  // (ZrAtomicFile::temporaryName): that of the plain file for a .nii.gz.
  static std::string writeName(const std::string& path);
  // For a .nii.gz path: compresses the complete plain file `written` into
  // path's temporary name and removes it; `written` becomes that name. On
  // failure nothing is left and error says why. Other paths pass.
  static bool finish(std::string& written, const std::string& path, std::string& error);
};
