// The VLIMG header reader on arbitrary bytes: it must refuse or accept
// without reading outside what it allocated, and what it accepts must be
// consistent (a tiled header has its table, planes match the depth array).
#include <zt/vlimg.h>

#include <vector>

#include "vlimg_fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (!zt::fuzz::write_input(data, size)) return 0;
  VLIMG_File *f = VLIMG_Open(zt::fuzz::vlimg_input_path().c_str(), VLIMG_MODE_READ);
  if (f == nullptr) return 0;
  uint32_t width = 0, height = 0;
  zt::fuzz::check(VLIMG_GetField(f, VLIMG_TAG_WIDTH, &width) == 0 && width > 0);
  zt::fuzz::check(VLIMG_GetField(f, VLIMG_TAG_HEIGHT, &height) == 0 && height > 0);
  const uint32_t planes = VLIMG_NumPlanes(f);
  zt::fuzz::check(planes > 0);
  std::vector<uint32_t> bpp(planes);
  uint32_t sum = 0;
  if (VLIMG_GetField(f, VLIMG_TAG_BPP_ARRAY, bpp.data()) == 0)
    for (uint32_t b : bpp) sum += b;
  zt::fuzz::check(sum == 0 || sum == VLIMG_BitsPerPixel(f));
  if (VLIMG_IsTiled(f)) {
    const uint32_t n = VLIMG_NumTiles(f);
    std::vector<VLIMG_TileEntry> table(n);
    zt::fuzz::check(n > 0 && VLIMG_GetField(f, VLIMG_TAG_TILETABLE, table.data()) == 0);
    for (const VLIMG_TileEntry &e : table) zt::fuzz::check(e.offset + e.size <= size);
  }
  VLIMG_Close(f);
  return 0;
}
