// Horizontal differencing over a whole block. Neighbouring samples of a
// raster row are close, so their differences cluster around zero and the
// codecs after us find more repeats. 16-bit samples are read in host order
// (the order the buffers hold them in); an odd byte at the end of a 16-bit
// block is not a sample and stays as it is.
#include <cstring>

#include "raster/compress_internal.h"

namespace zt::raster {
namespace {

inline uint16_t load16(const uint8_t *p) noexcept {
  uint16_t v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
inline void store16(uint8_t *p, uint16_t v) noexcept { std::memcpy(p, &v, sizeof v); }

}  // namespace

void delta_encode(const uint8_t *src, uint8_t *dst, size_t n, uint32_t bits) noexcept {
  if (n == 0) return;
  if (bits == 16) {
    const size_t samples = n / 2;
    uint16_t prev = 0;
    for (size_t i = 0; i < samples; ++i) {
      const uint16_t v = load16(src + 2 * i);
      store16(dst + 2 * i, static_cast<uint16_t>(v - prev));
      prev = v;
    }
    if (n & 1) dst[n - 1] = src[n - 1];
    return;
  }
  // Independent differences: the compiler vectorises this loop.
  dst[0] = src[0];
  for (size_t i = 1; i < n; ++i) dst[i] = static_cast<uint8_t>(src[i] - src[i - 1]);
}

void delta_decode(const uint8_t *src, uint8_t *dst, size_t n, uint32_t bits) noexcept {
  if (n == 0) return;
  if (bits == 16) {
    const size_t samples = n / 2;
    uint16_t sum = 0;
    for (size_t i = 0; i < samples; ++i) {
      sum = static_cast<uint16_t>(sum + load16(src + 2 * i));
      store16(dst + 2 * i, sum);
    }
    if (n & 1) dst[n - 1] = src[n - 1];
    return;
  }
  uint8_t sum = 0;
  for (size_t i = 0; i < n; ++i) {
    sum = static_cast<uint8_t>(sum + src[i]);
    dst[i] = sum;
  }
}

void delta_encode_in_place(uint8_t *buf, size_t n, uint32_t bits) noexcept {
  if (n == 0) return;
  if (bits == 16) {
    // Back to front, so every sample still holds its original when read.
    for (size_t i = n / 2; i-- > 1;)
      store16(buf + 2 * i, static_cast<uint16_t>(load16(buf + 2 * i) - load16(buf + 2 * i - 2)));
    return;
  }
  for (size_t i = n; i-- > 1;) buf[i] = static_cast<uint8_t>(buf[i] - buf[i - 1]);
}

void delta_decode_in_place(uint8_t *buf, size_t n, uint32_t bits) noexcept {
  delta_decode(buf, buf, n, bits);
}

}  // namespace zt::raster
