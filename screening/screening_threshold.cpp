// Threshold and pattern screening: the per-pixel loops of every matrix mode
// (1, 2, 5, 8, 11) and of the pattern mode (9), the level tables that let a
// matrix dither between two neighbouring drop sizes, and the input table.
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "foundation/zt_internal.h"
#include "raster/buf_internal.h"
#include "screening/screening_internal.h"

namespace zt::screening {
namespace {

// 16-bit rows are reduced through the library's 16-to-8 table in slices, so
// the loops below only ever see bytes.
constexpr uint32_t kSlice = 2048;

void write_code(uint8_t *out, uint32_t bytes_per_plane, uint32_t planes, uint32_t x, uint32_t code) {
  const uint8_t bit = static_cast<uint8_t>(0x80u >> (x & 7));
  uint8_t *p = out + (x >> 3);
  for (uint32_t k = 0; k < planes; ++k)
    if ((code >> k) & 1u) p[static_cast<size_t>(k) * bytes_per_plane] |= bit;
}

// Two levels: a pixel prints where its value exceeds the entry (0 never does:
// entries are at least 0). Whole output bytes at a time for one plane.
void threshold_two(const ScreeningObject *o, const uint8_t *in, uint8_t *out, uint32_t x0, uint32_t n,
                   const uint8_t *row) {
  const uint32_t cw = o->cellWidth;
  const uint32_t code = o->dotCodes[1];
  uint32_t mx = x0 % cw;
  if (o->outputPlanes == 1 && code == 1 && (x0 & 7) == 0) {
    uint32_t i = 0;
    for (; i + 8 <= n; i += 8) {
      uint32_t byte = 0;
      for (uint32_t b = 0; b < 8; ++b) {
        byte = (byte << 1) | (in[i + b] > row[mx] ? 1u : 0u);
        if (++mx == cw) mx = 0;
      }
      out[(x0 + i) >> 3] = static_cast<uint8_t>(byte);
    }
    for (; i < n; ++i) {
      if (in[i] > row[mx]) out[(x0 + i) >> 3] |= static_cast<uint8_t>(0x80u >> ((x0 + i) & 7));
      if (++mx == cw) mx = 0;
    }
    return;
  }
  for (uint32_t i = 0; i < n; ++i) {
    if (in[i] > row[mx]) write_code(out, o->bytesPerPlane, o->outputPlanes, x0 + i, code);
    if (++mx == cw) mx = 0;
  }
}

void threshold_multi(const ScreeningObject *o, const uint8_t *in, uint8_t *out, uint32_t x0, uint32_t n,
                     const uint8_t *row) {
  const uint32_t cw = o->cellWidth;
  const uint8_t *base = o->levelBase;
  const uint8_t *frac = o->levelFraction;
  const uint16_t *codes = o->dotCodes;
  uint32_t mx = x0 % cw;
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t v = in[i];
    const uint32_t level = base[v] + (frac[v] > row[mx] ? 1u : 0u);
    if (level != 0) write_code(out, o->bytesPerPlane, o->outputPlanes, x0 + i, codes[level]);
    if (++mx == cw) mx = 0;
  }
}

void pattern_span(const ScreeningObject *o, const uint8_t *in, uint8_t *out, uint32_t x0, uint32_t n, uint32_t ty) {
  const uint32_t cw = o->cellWidth;
  const uint32_t code = o->dotCodes[1];
  const size_t row_offset = static_cast<size_t>(ty) * o->patternStride;
  uint32_t mx = x0 % cw;
  for (uint32_t i = 0; i < n; ++i) {
    const uint8_t *tile = o->ditherScreens[in[i]];
    if (tile != nullptr && ((tile[row_offset + (mx >> 3)] >> (7 - (mx & 7))) & 1u) != 0)
      write_code(out, o->bytesPerPlane, o->outputPlanes, x0 + i, code);
    if (++mx == cw) mx = 0;
  }
}

template <typename Span>
void over_bytes(ScreeningObject *o, void *input, uint32_t width, Span span) {
  if (o->inputBits != 16) {
    span(static_cast<const uint8_t *>(input), 0u, width);
    return;
  }
  const uint16_t *in16 = static_cast<const uint16_t *>(input);
  const uint8_t *table = zt::raster::table16to8();
  uint8_t slice[kSlice];
  for (uint32_t x = 0; x < width; x += kSlice) {
    const uint32_t n = width - x < kSlice ? width - x : kSlice;
    for (uint32_t i = 0; i < n; ++i) slice[i] = table[in16[x + i]];
    span(slice, x, n);
  }
}

}  // namespace

void apply_input_lut(ScreeningObject *object, void *input, uint32_t width) {
  if (object->inputLut == nullptr) return;
  if (object->inputBits == 16) {
    const uint16_t *lut = static_cast<const uint16_t *>(object->inputLut);
    uint16_t *p = static_cast<uint16_t *>(input);
    for (uint32_t i = 0; i < width; ++i) p[i] = lut[p[i]];
  } else {
    const uint8_t *lut = static_cast<const uint8_t *>(object->inputLut);
    uint8_t *p = static_cast<uint8_t *>(input);
    for (uint32_t i = 0; i < width; ++i) p[i] = lut[p[i]];
  }
}

int32_t build_level_tables(ScreeningObject *object) {
  if (object->levels <= 2) return 0;
  object->levelBase = static_cast<uint8_t *>(std::malloc(256));
  object->levelFraction = static_cast<uint8_t *>(std::malloc(256));
  if (object->levelBase == nullptr || object->levelFraction == nullptr) {
    ZT_LOG(kModule, "CreateScreeningObject", "Cannot allocate memory for thresholds");
    return -1;
  }
  const uint32_t top = object->levels - 1;
  double d[256];
  for (uint32_t k = 0; k <= top; ++k)
    d[k] = object->inputBits == 16 ? object->densities[k] * 255.0 / 65535.0 : object->densities[k];
  uint32_t k = 0;
  for (uint32_t v = 0; v < 256; ++v) {
    while (k < top && d[k + 1] <= v) ++k;
    if (k == top || v < d[0]) {
      object->levelBase[v] = static_cast<uint8_t>(v < d[0] ? 0 : top);
      object->levelFraction[v] = 0;
      continue;
    }
    // The share of the darker drop that keeps the mean density at v.
    const double f = (v - d[k]) / (d[k + 1] - d[k]);
    object->levelBase[v] = static_cast<uint8_t>(k);
    object->levelFraction[v] = static_cast<uint8_t>(std::floor(f * 255.0 + 0.5));
  }
  return 0;
}

int32_t screen_threshold(ScreeningObject *object, void *input, uint8_t *output, uint32_t width, uint32_t y) {
  apply_input_lut(object, input, width);
  std::memset(output, 0, object->outputBytes);
  const uint8_t *row = object->matrix + static_cast<size_t>(y % object->cellHeight) * object->cellWidth;
  const bool multi = object->levelBase != nullptr;
  over_bytes(object, input, width, [&](const uint8_t *in, uint32_t x0, uint32_t n) {
    if (multi)
      threshold_multi(object, in, output, x0, n, row);
    else
      threshold_two(object, in, output, x0, n, row);
  });
  return 0;
}

int32_t screen_pattern(ScreeningObject *object, void *input, uint8_t *output, uint32_t width, uint32_t y) {
  apply_input_lut(object, input, width);
  std::memset(output, 0, object->outputBytes);
  const uint32_t ty = y % object->cellHeight;
  over_bytes(object, input, width,
             [&](const uint8_t *in, uint32_t x0, uint32_t n) { pattern_span(object, in, output, x0, n, ty); });
  return 0;
}

}  // namespace zt::screening
