// The Group 4 decoder on arbitrary streams for a page of chosen width and
// height: fed whole and in pieces it must agree and stay inside the page; a
// page it decodes completely must come back the same through our encoder.
#include <zt/compress.h>

#include <algorithm>
#include <cstddef>

#include "codec_fuzz_support.h"

namespace {

struct Result {
  int32_t status;
  int32_t close;
  uint32_t rows;
};

Result decode(const std::vector<uint8_t> &stream, uint32_t width, uint32_t height, size_t chunk,
              std::vector<uint8_t> &page) {
  ZT_CCITG4Decoder *dec = CCITG4DecompressCreate(width, height);
  zt::fuzz::check(dec != nullptr);
  const uint32_t stride = (width + 7) / 8;
  Result r{0, 0, 0};
  for (size_t pos = 0; r.status == 0 && pos < stream.size(); pos += chunk) {
    const size_t n = std::min(chunk, stream.size() - pos);
    r.status =
        CCITG4DeCompress(dec, stream.data() + pos, static_cast<uint32_t>(n), page.data(), stride, &r.rows);
  }
  r.close = CCITG4DecompressClose(dec);
  return r;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::Reader in(data, size);
  const uint32_t width = 1 + in.u16() % 4200;
  const uint32_t height = 1 + in.byte() % 64;
  const size_t chunk = 1 + in.byte() % 16;
  const std::vector<uint8_t> stream = in.rest();
  const size_t stride = (width + 7) / 8;
  std::vector<uint8_t> whole(stride * height), pieces(stride * height);
  const Result a = decode(stream, width, height, stream.size() + 1, whole);
  const Result b = decode(stream, width, height, chunk, pieces);
  zt::fuzz::check(a.status == b.status && a.close == b.close && a.rows == b.rows);
  zt::fuzz::check(
      std::equal(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(a.rows * stride), pieces.begin()));
  if (a.status != 0 || a.close != 0) return 0;

  ZT_CCITG4Encoder *enc = CCITG4Create(width);
  std::vector<uint8_t> again(whole.size() * 2 + 64);
  uint32_t body = 0, end = 0;
  zt::fuzz::check(CCITG4Compress(enc, whole.data(), height, static_cast<uint32_t>(stride), again.data(),
                                 static_cast<uint32_t>(again.size()), &body) == 0);
  zt::fuzz::check(CCITG4Close(enc, again.data() + body, static_cast<uint32_t>(again.size() - body), &end) ==
                  0);
  again.resize(body + end);
  std::vector<uint8_t> back(whole.size());
  const Result c = decode(again, width, height, again.size(), back);
  zt::fuzz::check(c.status == 0 && c.close == 0 && back == whole);
  return 0;
}
