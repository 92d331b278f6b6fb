// ZT_Decompress on arbitrary blocks under arbitrary block flags, for 8- and
// 16-bit samples: every codec's decoder (LZ4 and inflate included) must stay
// inside the block and the destination.
#include <zt/compress.h>

#include "codec_fuzz_support.h"

namespace {

ZT_Decompressor *g_dec[2];

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  g_dec[0] = ZT_DecompressInit(0, 8);
  g_dec[1] = ZT_DecompressInit(0, 16);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::Reader in(data, size);
  // Mostly well-formed flags (one codec, maybe delta), sometimes anything.
  static const uint32_t kCodecs[] = {0x800, 0x4, 0x200, 0x8, 0x40};
  const uint32_t pick = in.byte();
  uint32_t flags = pick < 240 ? (kCodecs[pick % 5] | 0x1 | ((pick & 0x10) ? 0x1000u : 0u)) : in.u16();
  if (pick >= 240 && (pick & 1)) flags |= 0x10000;
  const uint32_t capacity = in.u16() * 8;
  const std::vector<uint8_t> block = in.rest();
  std::vector<uint8_t> out(capacity);
  const uint32_t n = ZT_Decompress(g_dec[pick & 1], block.data(), out.data(),
                                   static_cast<uint32_t>(block.size()), capacity, flags);
  zt::fuzz::check(n == ZT_COMPRESS_ERROR || n <= capacity);
  return 0;
}
