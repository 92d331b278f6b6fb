// Whole VLIMG files on arbitrary bytes: every page of the chain, its
// scanlines or tiles and its mipmap links. Reads fail or succeed; nothing may
// crash, hang on a looping chain or read outside its buffers.
#include <zt/vlimg.h>

#include <vector>

#include "vlimg_fuzz_support.h"

namespace {

// Keeps one input's buffers small: a page may announce far more than the
// input holds, and the harness, not the library, would pay for it.
constexpr uint64_t kMaxBuffer = 16u << 20;
constexpr uint32_t kMaxPages = 8;

void read_current_page(VLIMG_File *f) {
  uint32_t height = 0;
  VLIMG_GetField(f, VLIMG_TAG_HEIGHT, &height);
  const uint64_t line = VLIMG_BytesPerLine(f);
  if (!VLIMG_IsTiled(f)) {
    if (line == 0 || line > kMaxBuffer) return;
    std::vector<uint8_t> buf(line);
    for (uint32_t y = 0; y < height && y < 4096; ++y)
      if (VLIMG_ReadScanline(f, buf.data()) != 0) break;
    VLIMG_GoToStartOfData(f);
    return;
  }
  const uint32_t n = VLIMG_NumTiles(f);
  const uint32_t bits = VLIMG_BitsPerPixel(f);
  std::vector<uint8_t> tile;
  for (uint32_t i = 0; i < n && i < 1024; ++i) {
    uint32_t w = 0, h = 0;
    if (VLIMG_GetTileSize(f, i, &w, &h) != 0) return;
    const uint64_t stride = (uint64_t{w} * bits + 7) / 8;
    if (stride * h > kMaxBuffer) return;
    tile.resize(stride * h);
    VLIMG_ReadTile(f, i, tile.data(), static_cast<uint32_t>(stride));
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  VLIMGSetupThreads(2);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (!zt::fuzz::write_input(data, size)) return 0;
  VLIMG_File *f = VLIMG_Open(zt::fuzz::vlimg_input_path().c_str(), VLIMG_MODE_READ);
  if (f == nullptr) return 0;
  read_current_page(f);
  const int32_t mipmaps = VLIMG_NumMipmaps(f);
  for (int32_t level = 1; level <= mipmaps && level < 4; ++level)
    if (VLIMG_SeekToMipmap(f, static_cast<uint32_t>(level)) == 0) read_current_page(f);
  for (uint32_t page = 1; page < kMaxPages; ++page) {
    if (VLIMG_SeekToPage(f, page) != 0) break;
    read_current_page(f);
  }
  VLIMG_Close(f);
  return 0;
}
