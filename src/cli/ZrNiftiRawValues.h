#pragma once
// The NaN and infinite values of a floating-point NIfTI file, as the file
// holds them.
//
// ITK's NIfTI reader replaces every NaN and infinite float by 0 while it
// reads, so a file full of holes would reach a registration as zeros and no
// check could see them. restoreNonFinite reads the voxel bytes of the file
// itself (through zlib, so .nii.gz as well) and puts each non-finite value
// back at its place in what ITK read. Files of other formats, integer data
// and files this reader does not understand are left as they are.
#include <cstddef>
#include <string>

class ZrNiftiRawValues {
public:
  // buffer: the values ITK read from path, numVoxels x components values of
  // single (valueSize 4) or double precision (valueSize 8), components
  // interleaved. Returns the number of non-finite values put back, or -1 when
  // the file could not be read (error then says why).
  static long restoreNonFinite(const std::string& path, void* buffer, size_t numVoxels,
                               int components, int valueSize, std::string& error);

  // Compares the values of the NIfTI file `path`, as the file holds them,
  // with `data` (laid out as restoreNonFinite's buffer), bit for bit and a
  // chunk at a time, so that no second copy of a large image is needed:
  // 1 when they agree, 0 when they differ or the file is short or cannot be
  // read, -1 when the file is no NIfTI file of that size and value width
  // without scaling (the caller then checks another way).
  static int compare(const std::string& path, const void* data, size_t numVoxels, int components,
                     int valueSize);

  // The datatype code of the NIfTI (or Analyze) file's header (16 for single
  // and 64 for double precision floats), 0 when the file's name or header is
  // no NIfTI one (a damaged header size, for one), -1 when it cannot be read
  // (error then says why).
  static int datatype(const std::string& path, std::string& error);

  // False, with a message, when the header of the NIfTI file `path` has the
  // wrong size, or holds a pixel size, quaternion or affine that is not
  // finite, or an affine in use that is singular: ITK's reader then aborts
  // the process while it works out the orientation. True for every other
  // file.
  static bool orientationSane(const std::string& path, std::string& error);

  // True for the file names ITK's NIfTI reader takes (.nii, .nii.gz, .hdr,
  // .img and their compressed forms).
  static bool isNiftiName(const std::string& path);
};
