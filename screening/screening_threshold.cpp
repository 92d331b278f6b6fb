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

// Multi-level through the level of each (value, entry) pair: any number of
// levels, and the reference the sixteen-pixel loop is checked against.
void threshold_multi(const ScreeningObject *o, const uint8_t *in, uint8_t *out, uint32_t x0, uint32_t n,
                     const uint8_t *ext) {
  const uint32_t cw = o->cellWidth;
  const uint8_t *table = o->levelTable;
  const uint16_t *codes = o->dotCodes;
  uint32_t mx = x0 % cw;
  uint32_t i = 0;
  if ((x0 & 7) == 0) {
    uint32_t c8[8];
    for (; i + 8 <= n; i += 8) {
      for (uint32_t b = 0; b < 8; ++b) {
        c8[b] = codes[table[in[i + b] * 256u + ext[mx]]];
        if (++mx == cw) mx = 0;
      }
      store_codes(out, o->bytesPerPlane, o->outputPlanes, (x0 + i) >> 3, c8);
    }
  }
  for (; i < n; ++i) {
    const uint32_t level = table[in[i] * 256u + ext[mx]];
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

namespace {

// Adjacent ranges: between two drop densities the share of pixels at the
// darker drop rises linearly, the lowest entries first, so the mean density
// follows the tone. Clustered cells grow their dots this way.
void adjacent_levels(const double *d, uint32_t top, uint8_t *table) {
  for (uint32_t v = 0; v < 256; ++v) {
    uint8_t *row = table + v * 256;
    std::memset(row, 0, 256);
    for (uint32_t k = 1; k <= top; ++k) {
      const double f = v <= d[k - 1] ? 0.0 : v >= d[k] ? 1.0 : (v - d[k - 1]) / (d[k] - d[k - 1]);
      // A full level holds every entry, 255 too (screen files may use it).
      const uint32_t q = f >= 1.0 ? 256 : static_cast<uint32_t>(std::floor(f * 255.0 + 0.5));
      for (uint32_t m = 0; m < q; ++m) ++row[m];
    }
  }
}

// The blue-noise mask trades pixels around each inner drop density j for
// its lighter and darker neighbours, so the texture does not collapse to
// one level at j and jump just above it. The traded pixels, those not at
// j, are the minority there; they are taken from ONE end of the mask's
// ranks (the top for odd j, the bottom for even j), so that they form a
// single blue-noise set. Two sets from both ends laid over each other are
// not blue and chain into worms. The ends alternate because the pixels left
// behind by one transition sit at the end the next transition starts from.
//
// Around j, M entries (255ths of the pixels) are traded: U go to j + 1 and
// D = M - U to j - 1, with U hi - D lo = 255 (v - d[j]) so the mean follows
// the tone. For every pixel's level to rise with the tone, U must never fall,
// D never rise, and M fall then rise (while it falls the traded range loses
// its innermost pixels to j; while it rises it gains pixels from j, which
// go to j + 1). Outside the window M is the plain V of the adjacent ranges;
// inside, a quadratic through the V's vertex rounds it off, which keeps the
// slopes within the V's (the bounds the rules above set) and trades about a
// quarter of the pixels at j itself.

// Half-width of the window on each side of a drop density, as a share of
// the spacing on that side: a half lets neighbouring windows just meet.
constexpr double kTradeWindow = 0.5;
// What leaving the shape weighs against missing the mean (both in entries
// times their spacing). Below one, so that with even drops an entry off the
// shape is worth a mean hit exactly; much lower and the shares drift far
// from the shape chasing means that uneven drops cannot hit anyway.
constexpr double kLeaveShape = 0.45;
// How many entries either side of the shape's shares are tried first.
constexpr int kReach = 8;

struct Trade {
  uint32_t traded, up, valley;  // M, U and M where M stopped falling
  bool rising;
};

void overlapped_levels(const double *d, uint32_t top, uint8_t *table) {
  // M of the previous drop's last tone: its pixels at j and at j - 2 lie
  // within that many entries of this drop's far end and must not fall below
  // j, so this drop's M starts no higher than the rest.
  uint32_t last_traded = 0;
  uint32_t first = 0;
  for (uint32_t j = 1; j < top; ++j) {
    const double lo = d[j] - d[j - 1], hi = d[j + 1] - d[j];
    // The tones this drop answers for: up to the midpoint to the next one.
    uint32_t last = j + 1 == top ? 255 : static_cast<uint32_t>(std::floor((d[j] + d[j + 1]) / 2));
    if (last + 1 < first) last = first - 1;
    // The window reaches half the spacing on each side, so neighbouring
    // windows meet at the midpoints, where the V is one half.
    const bool window = lo >= 1 && hi >= 1;
    const double a = kTradeWindow * lo, b = kTradeWindow * hi;
    auto shape = [&](double s) {
      if (window && s > -a && s < b) {
        // The quadratic from the V's value and slope at -a to those at b,
        // controlled by the vertex; x(t) = -a (1 - t)^2 + b t^2.
        const double t = std::fabs(b - a) < 1e-9 ? (a + s) / (2 * a)
                                                 : (std::sqrt(a * a + (b - a) * (a + s)) - a) / (b - a);
        return a / lo * (1 - t) * (1 - t) + b / hi * t * t;
      }
      const double m = s < 0 ? (lo > 0 ? -s / lo : 1.0) : hi > 0 ? s / hi : s > 0 ? 1.0 : 0.0;
      return m > 1 ? 1.0 : m;
    };
    auto round255 = [](double m) { return static_cast<uint32_t>(std::floor(m * 255.0 + 0.5)); };
    // The tone where M stops falling: the middle of the shape's lowest run.
    uint32_t low = first, high = first;
    for (uint32_t v = first; v <= last; ++v) {
      const uint32_t m = round255(shape(v - d[j])), least = round255(shape(low - d[j]));
      if (m < least) low = high = v;
      if (m == least) high = v;
    }
    const uint32_t turn = (low + high) / 2;
    Trade tr{255 - last_traded, 0, 0, false};
    uint32_t down = tr.traded;
    for (uint32_t v = first; v <= last; ++v) {
      const double s = v - d[j];
      const bool falling = v <= turn;
      // The shares the shape asks for, then the U and D (whole entries)
      // within the rules that come nearest to both them and the tone's mean.
      // One entry moves the mean by its spacing over 255 (a third of a tone
      // with even drops), so the two are weighed together; weighing the
      // shares one by one (not only M) lets D fall towards the shape even
      // where a step that holds D would hit the mean exactly.
      const double share = shape(s);
      const double ideal_up = lo + hi > 0 ? 255.0 * (s + share * lo) / (lo + hi) : 0;
      const double ideal_down = lo + hi > 0 ? 255.0 * (share * hi - s) / (lo + hi) : 0;
      // M falls only before the turn and rises only after it, except that it
      // turns early when the pixels at j - 1 run out before the shape's
      // lowest point (drops close together): only a rising M can then carry
      // the tone.
      const bool may_fall = !tr.rising && falling, may_rise = tr.rising || !falling || down == 0;
      uint32_t traded = tr.traded, up = tr.up;
      double best = 1e300;
      auto consider = [&](int u0, int u1, int d0, int d1) {
        for (int u = u0; u <= u1; ++u)
          for (int dd = d0; dd <= d1 && u + dd <= 255; ++dd) {
            const uint32_t cand = static_cast<uint32_t>(u + dd);
            if ((cand < tr.traded && !may_fall) || (cand > tr.traded && !may_rise)) continue;
            const double miss =
                std::fabs(u * hi - dd * lo - 255.0 * s) +
                kLeaveShape * (std::fabs(u - ideal_up) * hi + std::fabs(dd - ideal_down) * lo);
            if (miss < best) {
              best = miss;
              traded = cand;
              up = static_cast<uint32_t>(u);
            }
          }
      };
      const int iu = static_cast<int>(std::floor(ideal_up + 0.5)),
                id = static_cast<int>(std::floor(ideal_down + 0.5));
      const int least_up = static_cast<int>(tr.up), most_down = static_cast<int>(down);
      consider(std::max(least_up, iu - kReach), std::min(255, std::max(least_up, iu) + kReach),
               std::max(0, std::min(most_down, id) - kReach), std::min(most_down, std::max(0, id + kReach)));
      // Far from the shape (the rules held the shares away): every choice.
      if (best == 1e300) consider(least_up, 255, 0, most_down);
      if (!tr.rising && (!falling || traded > tr.traded)) {
        tr.valley = tr.traded;
        tr.rising = true;
      }
      tr.traded = traded;
      tr.up = up;
      down = traded - up;
      uint8_t *row = table + v * 256;
      for (uint32_t m = 0; m < 255; ++m) {
        const uint32_t p = (j & 1u) != 0 ? m : 254 - m;
        uint32_t level = j;
        if (!tr.rising) {
          if (p >= 255 - up)
            level = j + 1;
          else if (p >= 255 - traded)
            level = j - 1;
        } else if (p >= 255 - tr.valley && p < 255 - tr.valley + down) {
          level = j - 1;
        } else if (p >= 255 - traded) {
          level = j + 1;
        }
        row[m] = static_cast<uint8_t>(level);
      }
      row[255] = row[254];
    }
    last_traded = tr.traded;
    first = last + 1;
  }
}

}  // namespace

int32_t build_level_tables(ScreeningObject *object) {
  if (object->levels <= 2) return 0;
  object->levelTable = static_cast<uint8_t *>(std::malloc(256 * 256));
  if (object->levelTable == nullptr) {
    ZT_LOG(kModule, "CreateScreeningObject", "Cannot allocate memory for thresholds");
    return -1;
  }
  const uint32_t top = object->levels - 1;
  double d[256];
  for (uint32_t k = 0; k <= top; ++k)
    d[k] = object->inputBits == 16 ? object->densities[k] * 255.0 / 65535.0 : object->densities[k];
  uint8_t *table = object->levelTable;
  if (object->mode == ZT_SCREEN_BLUE_NOISE)
    overlapped_levels(d, top, table);
  else
    adjacent_levels(d, top, table);
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
      while (v < 255 && table[(v + 1) * 256 + m] < level) ++v;
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
  const bool multi = object->levelTable != nullptr;
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
