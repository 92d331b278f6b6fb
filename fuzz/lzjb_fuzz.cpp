// The LZJB decoder on arbitrary streams, into a destination of a chosen size;
// what it accepts must survive our encoder and decoder unchanged.
#include <zt/compress.h>

#include <algorithm>

#include "codec_fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::Reader in(data, size);
  const uint32_t capacity = in.u16();
  const std::vector<uint8_t> stream = in.rest();
  std::vector<uint8_t> out(capacity);
  const uint32_t n =
      lzjb_decompress(stream.data(), out.data(), static_cast<uint32_t>(stream.size()), capacity);
  if (n == ZT_COMPRESS_ERROR) return 0;
  zt::fuzz::check(n <= capacity);
  std::vector<uint8_t> again(n + n / 8 + 32);
  const uint32_t m = lzjb_compress(out.data(), again.data(), n, static_cast<uint32_t>(again.size()));
  if (m >= n) return 0;  // did not shrink: nothing to undo
  std::vector<uint8_t> back(n);
  zt::fuzz::check(lzjb_decompress(again.data(), back.data(), m, n) == n);
  zt::fuzz::check(std::equal(back.begin(), back.end(), out.begin()));
  return 0;
}
