// Compress then decompress, over every combination of codec bits, the delta
// filter, the small scratch buffer and 8- or 16-bit samples (the first input
// byte), into a destination that is roomy or tight (the second): the block
// comes back exactly, or was stored raw, and nothing is written out of bounds.
#include <zt/compress.h>

#include "codec_fuzz_support.h"

namespace {

constexpr uint32_t kCodecs[] = {0x800, 0x4, 0x200, 0x8, 0x40};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::Reader in(data, size);
  const uint32_t combo = in.byte();
  const uint32_t room = in.byte();
  uint32_t flags = 0x1;
  for (int i = 0; i < 5; ++i)
    if (combo & (1u << i)) flags |= kCodecs[i];
  if (combo & 0x20) flags |= 0x1000;
  if (combo & 0x40) flags |= 0x20;
  const uint32_t bits = (combo & 0x80) ? 16 : 8;
  const std::vector<uint8_t> block = in.rest();
  const uint32_t n = static_cast<uint32_t>(block.size());
  const uint32_t capacity = room < 128 ? n + 64 : n * (room - 128) / 128;

  ZT_Compressor *c = ZT_CompressInit(flags, bits);
  ZT_Decompressor *d = ZT_DecompressInit(flags, bits);
  zt::fuzz::check(c != nullptr && d != nullptr);
  std::vector<uint8_t> packed(capacity);
  uint32_t block_flags = 0xABC00000;
  const uint32_t packed_size = ZT_Compress(c, block.data(), packed.data(), n, capacity, &block_flags);
  zt::fuzz::check(packed_size != ZT_COMPRESS_ERROR && packed_size <= capacity &&
                  (packed_size == 0 || packed_size < n));
  zt::fuzz::check((block_flags & ~0x1A7Du) == 0xABC00000);
  if (packed_size != 0) {
    zt::fuzz::check((block_flags & 0x1) && (block_flags & flags & 0xA4C) != 0);
    std::vector<uint8_t> back(n);
    zt::fuzz::check(ZT_Decompress(d, packed.data(), back.data(), packed_size, n, block_flags) == n);
    zt::fuzz::check(back == block);
  } else {
    zt::fuzz::check((block_flags & 0x1A7D) == 0);
  }
  ZT_CompressFree(c);
  ZT_DecompressFree(d);
  return 0;
}
