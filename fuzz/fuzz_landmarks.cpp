// Landmark CSV files: odd separators, headers, comments, ragged rows, numbers
// that do not parse or overflow. A set that reads is written back and read
// again, which must give the same number of sets and markers.
#include "FuzzSupport.h"
#include "ZrLandmarkSet.h"
#include "ZrPointSetIO.h"

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string path = zrfuzz::writeInput("landmarks.csv", data, size);
  std::string error;
  std::unique_ptr<ZrLandmarkSet> set(ZrPointSetIO::readLandmarks(path, error));
  if (!set) {
    if (error.empty())
      __builtin_trap();
    return 0;
  }
  std::string out = zrfuzz::scratchDir() + "/written.csv";
  if (!ZrPointSetIO::writeLandmarks(set.get(), out, error))
    __builtin_trap(); // the scratch folder is writable
  std::unique_ptr<ZrLandmarkSet> again(ZrPointSetIO::readLandmarks(out, error));
  if (!again || again->getNumSets() != set->getNumSets() ||
      again->getNumMarkers() != set->getNumMarkers())
    __builtin_trap();
  return 0;
}
