// The PackBits decoder on arbitrary streams, into a destination of a chosen
// size: it must stay inside both. What it accepts must survive our encoder
// and decoder unchanged.
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
  uint32_t n = 0;
  if (ZTPackbits_DeCompress(stream.data(), out.data(), static_cast<uint32_t>(stream.size()), capacity, &n) !=
      0)
    return 0;
  zt::fuzz::check(n <= capacity);
  std::vector<uint8_t> again(ZT_PACKBITS_MAX_SIZE(n));
  uint32_t m = 0;
  zt::fuzz::check(ZTPackbits_Compress(out.data(), again.data(), n, &m) == 0);
  std::vector<uint8_t> back(n);
  uint32_t k = 0;
  zt::fuzz::check(ZTPackbits_DeCompress(again.data(), back.data(), m, n, &k) == 0);
  zt::fuzz::check(k == n && std::equal(back.begin(), back.end(), out.begin()));
  return 0;
}
