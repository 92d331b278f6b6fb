// The streaming LZW decoder on arbitrary streams: fed whole and fed in pieces
// of a chosen size it must agree, stay inside its destination, and what it
// accepts must survive our encoder and decoder unchanged.
#include <zt/compress.h>

#include <algorithm>

#include "codec_fuzz_support.h"

namespace {

// Decodes `stream` in pieces of `chunk`; false when the decoder refused it.
bool decode(ZT_LZWDecodeState *dec, const std::vector<uint8_t> &stream, size_t chunk,
            std::vector<uint8_t> &out) {
  size_t produced = 0;
  bool ok = true;
  for (size_t pos = 0; ok && pos < stream.size(); pos += chunk) {
    const size_t n = std::min(chunk, stream.size() - pos);
    uint32_t got = 0;
    ok = lzwDeCompress(dec, stream.data() + pos, out.data() + produced, static_cast<uint32_t>(n),
                       static_cast<uint32_t>(out.size() - produced), &got) == 0;
    if (ok) produced += got;
  }
  ok = lzwDeCompressEnd(dec) == 0 && ok;
  out.resize(produced);
  return ok;
}

ZT_LZWDecodeState *g_dec;
ZT_LZWState *g_enc;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  g_dec = lzwDeCompressCreate();
  g_enc = lzwCompressInit();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::Reader in(data, size);
  const size_t chunk = 1 + in.byte() % 64;
  const uint32_t capacity = in.u16() * 4;
  const std::vector<uint8_t> stream = in.rest();
  std::vector<uint8_t> whole(capacity), pieces(capacity);
  const bool ok = decode(g_dec, stream, stream.size() + 1, whole);
  const bool ok_pieces = decode(g_dec, stream, chunk, pieces);
  zt::fuzz::check(ok == ok_pieces);
  if (!ok) return 0;
  zt::fuzz::check(whole == pieces);

  lzwCompressReset(g_enc);
  std::vector<uint8_t> again(whole.size() * 2 + 16);
  uint32_t body = 0, end = 0;
  zt::fuzz::check(lzwCompress(g_enc, whole.data(), again.data(), static_cast<uint32_t>(whole.size()),
                              static_cast<uint32_t>(again.size()), &body) == 0);
  zt::fuzz::check(
      lzwCompressEnd(g_enc, again.data() + body, static_cast<uint32_t>(again.size() - body), &end) == 0);
  again.resize(body + end);
  std::vector<uint8_t> back(whole.size());
  zt::fuzz::check(decode(g_dec, again, again.size(), back));
  zt::fuzz::check(back == whole);
  return 0;
}
