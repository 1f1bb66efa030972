// Vertex sets and meshes of one format (ZR_FUZZ_EXT: ".csv" or ".off"):
// counts that lie, faces with out-of-range or negative indices, polygons of
// any size, truncated files. A set that reads is written back and read again.
#include "FuzzSupport.h"
#include "ZrPointSetIO.h"
#include "ZrVertexSet.h"

#include <memory>

#ifndef ZR_FUZZ_EXT
#define ZR_FUZZ_EXT ".off"
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string path = zrfuzz::writeInput(std::string("vertices") + ZR_FUZZ_EXT, data, size);
  std::string error;
  std::unique_ptr<ZrVertexSet> set(ZrPointSetIO::readVertices(path, error));
  if (!set) {
    if (error.empty())
      __builtin_trap();
    return 0;
  }
  std::string out = zrfuzz::scratchDir() + "/written" + ZR_FUZZ_EXT;
  if (!ZrPointSetIO::writeVertices(set.get(), out, error))
    __builtin_trap();
  std::unique_ptr<ZrVertexSet> again(ZrPointSetIO::readVertices(out, error));
  if (!again || again->getNumPoints() != set->getNumPoints())
    __builtin_trap();
  return 0;
}
