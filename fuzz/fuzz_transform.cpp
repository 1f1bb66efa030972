// Transform files: the same bytes go to the 4x4 matrix reader and to the
// reader of ITK's text transform format. A matrix that reads is written and
// read back.
#include "FuzzSupport.h"
#include "SbMatrixd.h"
#include "ZrTransformFiles.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string error;
  SbMatrixd a;
  std::string matrix = zrfuzz::writeInput("matrix.txt", data, size);
  if (ZrTransformFiles::readMatrix(matrix, a, error)) {
    std::string out = zrfuzz::scratchDir() + "/written.txt";
    SbMatrixd b;
    if (!ZrTransformFiles::writeMatrix(a, out, error) ||
        !ZrTransformFiles::readMatrix(out, b, error))
      __builtin_trap();
  } else if (error.empty()) {
    __builtin_trap();
  }
  error.clear();
  std::string tfm = zrfuzz::writeInput("transform.tfm", data, size);
  if (ZrTransformFiles::readItkAffine(tfm, a, error)) {
    std::string out = zrfuzz::scratchDir() + "/written.tfm";
    SbMatrixd b;
    if (!ZrTransformFiles::writeItkAffine(a, out, error) ||
        !ZrTransformFiles::readItkAffine(out, b, error))
      __builtin_trap();
  } else if (error.empty()) {
    __builtin_trap();
  }
  return 0;
}
