// Threshold and pattern screening: the per-pixel loops of every matrix mode
// (1, 2, 5, 8, 11) and of the pattern mode (9), the level tables that let a
// matrix dither between two neighbouring drop sizes, and the input table.
#include <emmintrin.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "foundation/internal.h"
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

// Bit i of a byte moved to bit 7 - i: comparison masks come lowest pixel
// first, output bytes highest pixel first.
struct ReversedBits {
  uint8_t table[256];
  constexpr ReversedBits() : table() {
    for (int v = 0; v < 256; ++v) {
      int r = 0;
      for (int b = 0; b < 8; ++b) r |= ((v >> b) & 1) << (7 - b);
      table[v] = static_cast<uint8_t>(r);
    }
  }
};
constexpr ReversedBits kReversed;

// Spreads the 8 one-bit flags of a byte (pixel 0 in bit 7) over the planes
// of `code`.
inline void store_byte(uint8_t *out, uint32_t bytes_per_plane, uint32_t planes, uint32_t code, size_t at,
                       uint32_t bits) {
  for (uint32_t k = 0; k < planes; ++k)
    if ((code >> k) & 1u) out[static_cast<size_t>(k) * bytes_per_plane + at] |= static_cast<uint8_t>(bits);
}

// Two levels: a pixel prints where its value exceeds the entry (0 never does:
// entries are at least 0). Sixteen pixels a step: the row of the matrix is
// stored with its start repeated after its end (`ext`), so any 16 entries
// from any phase are contiguous. SSE2 is part of every x86-64 processor.
void threshold_two(const ScreeningObject *o, const uint8_t *in, uint8_t *out, uint32_t x0, uint32_t n,
                   const uint8_t *ext) {
  const uint32_t cw = o->cellWidth;
  const uint32_t code = o->dotCodes[1];
  const uint32_t planes = o->outputPlanes, bpp = o->bytesPerPlane;
  uint32_t mx = x0 % cw;
  uint32_t i = 0;
  const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
  if ((x0 & 7) == 0) {
    for (; i + 16 <= n; i += 16) {
      const __m128i v = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(in + i)), bias);
      const __m128i t = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(ext + mx)), bias);
      const uint32_t mask = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpgt_epi8(v, t)));
      const size_t at = (x0 + i) >> 3;
      if (planes == 1 && code == 1) {
        out[at] = kReversed.table[mask & 0xFF];
        out[at + 1] = kReversed.table[mask >> 8];
      } else {
        store_byte(out, bpp, planes, code, at, kReversed.table[mask & 0xFF]);
        store_byte(out, bpp, planes, code, at + 1, kReversed.table[mask >> 8]);
      }
      mx += 16;
      while (mx >= cw) mx -= cw;
    }
  }
  for (; i < n; ++i) {
    if (in[i] > ext[mx]) write_code(out, bpp, planes, x0 + i, code);
    if (++mx == cw) mx = 0;
  }
}

// Codes of eight pixels (pixel 0 first) into one byte of each plane.
inline void store_codes(uint8_t *out, uint32_t bytes_per_plane, uint32_t planes, size_t at,
                        const uint32_t *codes8) {
  for (uint32_t k = 0; k < planes; ++k) {
    uint32_t byte = 0;
    for (uint32_t b = 0; b < 8; ++b) byte = (byte << 1) | ((codes8[b] >> k) & 1u);
    out[static_cast<size_t>(k) * bytes_per_plane + at] |= static_cast<uint8_t>(byte);
  }
}

void threshold_multi(const ScreeningObject *o, const uint8_t *in, uint8_t *out, uint32_t x0, uint32_t n,
                     const uint8_t *ext) {
  const uint32_t cw = o->cellWidth;
  const uint8_t *base = o->levelBase;
  const uint8_t *frac = o->levelFraction, *frac2 = o->levelFraction + 256;
  const uint16_t *codes = o->dotCodes;
  const uint32_t top = o->levels - 1;
  // Code of each (value, shares above the entry) pair, looked up once a pixel.
  uint32_t code_of[3][256];
  for (uint32_t v = 0; v < 256; ++v)
    for (uint32_t up = 0; up < 3; ++up) code_of[up][v] = codes[base[v] + up <= top ? base[v] + up : top];
  uint32_t mx = x0 % cw;
  uint32_t i = 0;
  if ((x0 & 7) == 0) {
    uint32_t c8[8];
    for (; i + 8 <= n; i += 8) {
      for (uint32_t b = 0; b < 8; ++b) {
        const uint8_t v = in[i + b];
        c8[b] = code_of[(frac[v] > ext[mx] ? 1 : 0) + (frac2[v] > ext[mx] ? 1 : 0)][v];
        if (++mx == cw) mx = 0;
      }
      store_codes(out, o->bytesPerPlane, o->outputPlanes, (x0 + i) >> 3, c8);
    }
  }
  for (; i < n; ++i) {
    const uint8_t v = in[i];
    const uint32_t level = base[v] + (frac[v] > ext[mx] ? 1u : 0u) + (frac2[v] > ext[mx] ? 1u : 0u);
    if (level != 0) write_code(out, o->bytesPerPlane, o->outputPlanes, x0 + i, codes[level]);
    if (++mx == cw) mx = 0;
  }
}

// Multi-level, sixteen pixels a step: level >= k exactly where the value
// exceeds the level-k row of levelRows, so each level is one comparison and
// each plane the union of the levels whose code sets it.
void threshold_levels(const ScreeningObject *o, const uint8_t *in, uint8_t *out, uint32_t x0, uint32_t n,
                      uint32_t ty) {
  const uint32_t cw = o->cellWidth, top = o->levels - 1, planes = o->outputPlanes, bpp = o->bytesPerPlane;
  const size_t stride = static_cast<size_t>(cw) + 16, level_size = stride * o->cellHeight;
  const uint8_t *rows = o->levelRows + static_cast<size_t>(ty) * stride;
  const __m128i bias = _mm_set1_epi8(static_cast<char>(0x80));
  uint32_t mx = x0 % cw;
  uint32_t i = 0;
  uint32_t ge[18];
  if ((x0 & 7) == 0) {
    for (; i + 16 <= n; i += 16) {
      const __m128i v = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(in + i)), bias);
      ge[0] = 0xFFFF;
      for (uint32_t k = 1; k <= top; ++k) {
        const uint8_t *g = rows + (k - 1) * level_size + mx;
        const __m128i t = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(g)), bias);
        ge[k] = static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpgt_epi8(v, t)));
      }
      ge[top + 1] = 0;
      const size_t at = (x0 + i) >> 3;
      for (uint32_t p = 0; p < planes; ++p) {
        uint32_t bits = 0;
        for (uint32_t l = 1; l <= top; ++l)
          if ((o->dotCodes[l] >> p) & 1u) bits |= ge[l] & ~ge[l + 1];
        out[static_cast<size_t>(p) * bpp + at] |= kReversed.table[bits & 0xFF];
        out[static_cast<size_t>(p) * bpp + at + 1] |= kReversed.table[bits >> 8];
      }
      mx += 16;
      while (mx >= cw) mx -= cw;
    }
  }
  for (; i < n; ++i) {
    uint32_t level = 0;
    while (level < top && in[i] > rows[level * level_size + mx]) ++level;
    if (level != 0) write_code(out, bpp, planes, x0 + i, o->dotCodes[level]);
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

int32_t build_matrix_rows(ScreeningObject *object) {
  const size_t stride = static_cast<size_t>(object->cellWidth) + 16;
  object->matrixRows = static_cast<uint8_t *>(std::malloc(stride * object->cellHeight));
  if (object->matrixRows == nullptr) {
    ZT_LOG(kModule, "CreateScreeningObject", "Cannot allocate memory for thresholds");
    return -1;
  }
  for (uint32_t y = 0; y < object->cellHeight; ++y) {
    const uint8_t *row = object->matrix + static_cast<size_t>(y) * object->cellWidth;
    for (size_t x = 0; x < stride; ++x) object->matrixRows[y * stride + x] = row[x % object->cellWidth];
  }
  return 0;
}

int32_t build_level_tables(ScreeningObject *object) {
  if (object->levels <= 2) return 0;
  // levelFraction holds two tables: the share of pixels one level above the
  // base, then two levels above (non-zero only where ranges overlap).
  object->levelBase = static_cast<uint8_t *>(std::malloc(256));
  object->levelFraction = static_cast<uint8_t *>(std::malloc(512));
  if (object->levelBase == nullptr || object->levelFraction == nullptr) {
    ZT_LOG(kModule, "CreateScreeningObject", "Cannot allocate memory for thresholds");
    return -1;
  }
  const uint32_t top = object->levels - 1;
  double d[256];
  for (uint32_t k = 0; k <= top; ++k)
    d[k] = object->inputBits == 16 ? object->densities[k] * 255.0 / 65535.0 : object->densities[k];
  // cover(k, v): the share of pixels at level k or above at tone v. Between
  // two drop densities it rises linearly from one to the other, so the mean
  // density follows the tone. The blue-noise mask overlaps the ranges: around
  // each inner drop density up to half of that drop's pixels trade for its
  // lighter and darker neighbours, in proportions that keep the mean. With
  // plain adjacent ranges every pixel sits at one level right at a drop's
  // density and the texture then jumps as the next drop comes in.
  const bool overlap = object->mode == ZT_SCREEN_BLUE_NOISE;
  constexpr double kTrade = kLevelTrade;
  auto cover = [&](uint32_t k, double v) {
    double f = v <= d[k - 1] ? 0.0 : v >= d[k] ? 1.0 : (v - d[k - 1]) / (d[k] - d[k - 1]);
    if (!overlap) return f;
    // The exchange around density j: `up` of the pixels go to j + 1, and
    // `up` * (d[j+1] - d[j]) / (d[j] - d[j-1]) to j - 1. It swells and
    // fades smoothly (a new drop enters a few pixels at a time) over half
    // the nearer spacing each side, so neighbouring exchanges never meet,
    // and it is capped where a share would fall as the tone rises
    // (the smooth step's steepest slope is 1.5).
    auto bump = [&](uint32_t j, double &up, double &down) {
      up = down = 0;
      if (j == 0 || j >= top) return;
      const double lo = d[j] - d[j - 1], hi = d[j + 1] - d[j];
      const double width = 0.5 * std::fmin(lo, hi);
      const double t = 1 - std::fabs(v - d[j]) / width;
      if (t <= 0) return;
      const double peak = std::fmin(kTrade * lo / (lo + hi), width / (1.5 * hi));
      up = peak * t * t * (3 - 2 * t);
      down = up * hi / lo;
    };
    double up = 0, down = 0;
    bump(k - 1, up, down);
    f += up;
    bump(k, up, down);
    f -= down;
    return f < 0 ? 0.0 : f > 1 ? 1.0 : f;
  };
  uint8_t *base = object->levelBase, *first = object->levelFraction, *second = object->levelFraction + 256;
  std::vector<uint8_t> last(top + 1, 0);
  for (uint32_t v = 0; v < 256; ++v) {
    uint32_t full = 0;
    uint8_t share[2] = {0, 0};
    uint8_t above = 255;
    for (uint32_t k = 1; k <= top; ++k) {
      const double f = cover(k, v);
      // Rounded to the mask's 255ths, never falling with the tone and never
      // above the level below it, so each pixel's level only rises.
      uint8_t q = f >= 1.0 ? 255 : static_cast<uint8_t>(std::floor(f * 255.0 + 0.5));
      if (q < last[k]) q = last[k];
      if (q > above) q = above;
      last[k] = above = q;
      if (f >= 1.0 && full + 1 == k) {
        full = k;
      } else if (k - full <= 2) {
        share[k - full - 1] = q;
      }
    }
    base[v] = static_cast<uint8_t>(full);
    first[v] = share[0];
    second[v] = share[1];
  }
  if (top > 16 || object->matrixRows == nullptr) return 0;
  // Row k - 1 holds, for each entry m, the largest value whose level stays
  // below k; levels grow with the value, so "above it" is "level >= k".
  const size_t stride = static_cast<size_t>(object->cellWidth) + 16, size = stride * object->cellHeight;
  object->levelRows = static_cast<uint8_t *>(std::malloc(size * top));
  if (object->levelRows == nullptr) {
    ZT_LOG(kModule, "CreateScreeningObject", "Cannot allocate memory for thresholds");
    return -1;
  }
  uint8_t below[16][256];
  for (uint32_t m = 0; m < 256; ++m) {
    uint32_t v = 0;
    for (uint32_t level = 1; level <= top; ++level) {
      while (v < 255 && base[v + 1] + (first[v + 1] > m ? 1u : 0u) + (second[v + 1] > m ? 1u : 0u) < level)
        ++v;
      below[level - 1][m] = static_cast<uint8_t>(v);
    }
  }
  for (size_t i = 0; i < size; ++i)
    for (uint32_t level = 1; level <= top; ++level)
      object->levelRows[(level - 1) * size + i] = below[level - 1][object->matrixRows[i]];
  return 0;
}

int32_t screen_threshold(ScreeningObject *object, void *input, uint8_t *output, uint32_t width, uint32_t y) {
  apply_input_lut(object, input, width);
  std::memset(output, 0, object->outputBytes);
  const uint8_t *row =
      object->matrixRows + static_cast<size_t>(y % object->cellHeight) * (object->cellWidth + 16);
  const bool multi = object->levelBase != nullptr;
  const uint32_t ty = y % object->cellHeight;
  over_bytes(object, input, width, [&](const uint8_t *in, uint32_t x0, uint32_t n) {
    if (object->levelRows != nullptr)
      threshold_levels(object, in, output, x0, n, ty);
    else if (multi)
      threshold_multi(object, in, output, x0, n, row);
    else
      threshold_two(object, in, output, x0, n, row);
  });
  return 0;
}

// The tiles are nested cuts of the channel's mask (tile v holds the pixels
// whose entry is below v), so comparing with the mask gives every tile's bit
// at the speed of a threshold screen.
int32_t screen_pattern(ScreeningObject *object, void *input, uint8_t *output, uint32_t width, uint32_t y) {
  return screen_threshold(object, input, output, width, y);
}

}  // namespace zt::screening
