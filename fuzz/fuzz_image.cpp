// Image files of one format (ZR_FUZZ_EXT, e.g. ".nii.gz") through the image
// reader of zrreg: headers that lie about sizes, types and geometry, and
// truncated or corrupt data must give an error message, never a crash. A file
// that reads is checked for use and written back, as a command would.
#include "FuzzSupport.h"
#include "ZrImageIO.h"
#include "ZrRegScalarField3.h"

#include <memory>

#ifndef ZR_FUZZ_EXT
#define ZR_FUZZ_EXT ".nii"
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string path = zrfuzz::writeInput(std::string("input") + ZR_FUZZ_EXT, data, size);
  std::string error;
  ZrImageIO::ReadInfo info;
  std::unique_ptr<ZrRegScalarField3> field(
      ZrImageIO::read(path, ZrImageIO::ReadOptions(), &info, error));
  if (!field) {
    if (error.empty())
      __builtin_trap(); // a failed read must say why
    return 0;
  }
  ZrImageIO::checkUsable(field.get(), "reference", error);
  const int* dims = field->getDims();
  if (size_t(dims[0]) * dims[1] * dims[2] <= (1u << 16)) {
    std::string out = zrfuzz::scratchDir() + "/output" + ZR_FUZZ_EXT;
    ZrImageIO::write(field.get(), out, error);
  }
  return 0;
}
