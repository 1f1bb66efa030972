// Vector images (saved control grids and displacement fields) of one format
// (ZR_FUZZ_EXT) through the vector image reader: wrong component counts and
// types, lying sizes, NaN vectors, truncated data. A field that reads is
// written back.
#include "FuzzSupport.h"
#include "ZrRegVectorField3.h"
#include "ZrVectorImageIO.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#ifndef ZR_FUZZ_EXT
#define ZR_FUZZ_EXT ".nii.gz"
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // As in fuzz_image.cpp: ITK 5.2's PNG reader aborts on corrupt chunks.
  static const uint8_t png[4] = {0x89, 'P', 'N', 'G'};
  if (size >= 4 && std::memcmp(data, png, 4) == 0)
    return 0;
  std::string path = zrfuzz::writeInput(std::string("grid") + ZR_FUZZ_EXT, data, size);
  std::string error;
  std::unique_ptr<ZrRegVectorField3> field(ZrVectorImageIO::read(path, error));
  if (std::getenv("ZR_FUZZ_VERBOSE"))
    std::fprintf(stderr, "%s\n", field ? "read" : error.c_str());
  if (!field) {
    if (error.empty())
      __builtin_trap();
    return 0;
  }
  std::string out = zrfuzz::scratchDir() + "/written" + ZR_FUZZ_EXT;
  ZrVectorImageIO::write(field.get(), out, error);
  return 0;
}
