// Scripts of 'zrreg run' through the session's script runner, with no package
// loaded (creating a module fails with a message). The scratch folder holds a
// small image, a landmark set and a mesh that scripts can load, list and
// save. Inputs that name a path with '/' are skipped, so a script only reads
// and writes inside the scratch folder.
#include "FuzzSupport.h"
#include "ZrCliSession.h"

#include <cstring>
#include <fstream>

namespace {

// The files a script can refer to by a plain name.
void makeFiles() {
  static bool made = false;
  if (made)
    return;
  made = true;
  const std::string& dir = zrfuzz::scratchDir();
  std::ofstream(dir + "/lm.csv") << "x1,y1,z1,x2,y2,z2\n0,0,0,1,1,1\n2,3,4,5,6,7\n";
  std::ofstream(dir + "/mesh.off") << "OFF\n4 2 0\n0 0 0\n1 0 0\n0 1 0\n0 0 1\n3 0 1 2\n3 0 2 3\n";
  std::ofstream(dir + "/pts.csv") << "0 0 0\n1 2 3\n";
  // A 4x3x2 MetaImage of 8-bit voxels.
  std::ofstream img(dir + "/img.mha", std::ios::binary);
  img << "ObjectType = Image\nNDims = 3\nDimSize = 4 3 2\nElementSpacing = 1 1 2\n"
         "ElementType = MET_UCHAR\nElementDataFile = LOCAL\n";
  for (int i = 0; i < 24; i++)
    img.put(char(i * 7 % 23));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (std::memchr(data, '/', size))
    return 0;
  makeFiles();
  if (chdir(zrfuzz::scratchDir().c_str()) != 0)
    __builtin_trap();
  std::string path = zrfuzz::writeInput("script.txt", data, size);
  std::string error;
  {
    ZrCliSession session; // empties the object pool when it ends
    if (!session.runScript(path, error) && error.empty())
      __builtin_trap();
  }
  return 0;
}
