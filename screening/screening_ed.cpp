// Error diffusion with random weights (modes 3 and 10), bit for bit as the
// system fixes it: a shared table of 6,151 weight groups walked cyclically,
// serpentine lines, a carry to the next pixel, next-row shares behind, below
// and ahead, errors scaled by 8192 and divided with truncation.
#include <zt/random.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/internal.h"
#include "screening/screening_internal.h"

namespace zt::screening {
namespace {

int32_t weight(double x) { return static_cast<int32_t>(std::floor(8192.0 * x + 0.5)); }

void cache_key(const ScreeningObject *object, char *key, size_t size) {
  std::snprintf(key, size, "%x%x", object->mode, object->inputBits);
}

// The level of `value`: the highest L >= 1 with value > thresholds[L] + m,
// else 0. Thresholds rise strictly, so for many levels a binary search finds
// the same L as the walk down from the top.
inline uint32_t pick_level(int32_t value, int32_t m, const uint16_t *thr, uint32_t top) {
  if (top <= 7) {
    uint32_t level = top;
    while (level >= 1 && !(value > thr[level] + m)) --level;
    return level;
  }
  if (!(value > thr[1] + m)) return 0;
  uint32_t lo = 1, hi = top;
  while (lo < hi) {
    const uint32_t mid = (lo + hi + 1) / 2;
    if (value > thr[mid] + m)
      lo = mid;
    else
      hi = mid - 1;
  }
  return lo;
}

// Planes > 0: that many bit-planes, unrolled; 0: the general loop over
// outputPlanes; -1: one byte a pixel (16-to-8 objects).
// Branch-free: whether a pixel prints is as random as the screen itself, so
// every plane byte is or-ed with its bit or with 0.
template <int Planes>
inline void write_code(uint8_t *out, uint32_t bytes_per_plane, uint32_t planes, ptrdiff_t x, uint32_t code) {
  if constexpr (Planes < 0) {
    out[x] = static_cast<uint8_t>(code);
  } else {
    const uint32_t shift = 7u - static_cast<uint32_t>(x & 7);
    uint8_t *p = out + (x >> 3);
    const uint32_t n = Planes > 0 ? static_cast<uint32_t>(Planes) : planes;
    for (uint32_t k = 0; k < n; ++k)
      p[static_cast<size_t>(k) * bytes_per_plane] |= static_cast<uint8_t>(((code >> k) & 1u) << shift);
  }
}

// The walk as stated, pixel by pixel: any level count, an optional
// modulation matrix, byte output. The short-chain loop below takes the
// common cases and gives the same bits.
template <typename T, int Planes>
void diffuse_line(ScreeningObject *o, const T *in, uint8_t *out, uint32_t width, uint32_t y) {
  int32_t *cur = o->errorRowA + 4;
  int32_t *next = o->errorRowB + 4;
  const uint16_t *thr = o->thresholds;
  const uint16_t *den = o->densities;
  const uint16_t *codes = o->dotCodes;
  const uint32_t top = o->levels - 1;
  const int16_t *mod =
      o->modulation != nullptr ? o->modulation + (y % o->cellHeight) * o->cellWidth : nullptr;
  const uint32_t cw = o->cellWidth;
  const int32_t *w = o->weightCursor;
  const int32_t *const w_start = o->weightTable;
  const int32_t *const w_end = o->weightTableEnd;
  const uint32_t bpp = o->bytesPerPlane;
  const uint32_t planes = o->outputPlanes;
  const ptrdiff_t dir = o->serpentine != 0 ? -1 : 1;
  ptrdiff_t x = dir < 0 ? static_cast<ptrdiff_t>(width) - 1 : 0;
  // The walk clears only the entry ahead of each pixel; the one under the
  // first pixel and the slack one behind it would otherwise keep growing.
  next[x] = 0;
  next[x - dir] = 0;
  int32_t carry = 0;
  for (uint32_t i = 0; i < width; ++i, x += dir) {
    const int32_t sample = in[x];
    int32_t e = 0;
    if (sample != 0) {
      const int32_t value = sample + static_cast<int32_t>((static_cast<int64_t>(carry) + cur[x]) / 8192);
      if (value != 0) {
        const int32_t m = mod != nullptr ? mod[static_cast<size_t>(x) % cw] : 0;
        const uint32_t level = pick_level(value, m, thr, top);
        e = value - den[level];
        write_code<Planes>(out, bpp, planes, x, level != 0 ? codes[level] : 0u);
      }
    }
    // The entry ahead is cleared before each pixel and set when the pixel
    // spreads error: one store either way.
    if (e != 0) {
      next[x - dir] += w[0] * e;
      next[x + dir] = w[1] * e;
      next[x] += w[3] * e;
      carry = w[2] * e;
      w += 4;
      if (w == w_end) w = w_start;
    } else {
      next[x + dir] = 0;
    }
  }
  o->weightCursor = const_cast<int32_t *>(w);
  int32_t *swap = o->errorRowA;
  o->errorRowA = o->errorRowB;
  o->errorRowB = swap;
  o->serpentine = o->serpentine != 0 ? 0u : 1u;
}

// Two or four levels, unmodulated, the lightest level empty (density 0),
// bit-planes out: the same walk with the carry's chain from one pixel to the
// next cut to the sum, the truncating division, the level choice and the
// carry's product. The thresholds and the candidate errors are taken
// relative to the pixel's own tone before its carried error is known, so
// the choice is a few sign masks on that error alone; a zero pixel
// gets a threshold it cannot pass and keeps none of the error, and a value
// of 0 cannot pass a threshold and leaves an error of 0 - 0 (density 0), so
// both give no dot and no error without a branch. The three next-row entries
// a pixel touches (behind, under, ahead) are summed in registers and each
// stored once, in the order the walk adds to it; a pixel that spreads no
// error (rare: a branch the processor predicts) adds nothing and keeps the
// carry and the cursor. The planes' bits gather in one register, a byte a
// plane, until the walk leaves their byte. The loop is short enough that
// its instruction count matters as much as the chain, hence the per-tone
// threshold table and the pre-spread codes.
template <typename T, int Planes, int Top, int Dir>
void diffuse_run(ScreeningObject *o, const T *in, uint8_t *out, uint32_t width) {
  const int32_t *cur = o->errorRowA + 4;
  int32_t *next = o->errorRowB + 4;
  const uint16_t *thr = o->thresholds;
  const uint16_t *den = o->densities;
  const uint16_t *codes = o->dotCodes;
  const int32_t t1 = thr[1], t2 = Top == 3 ? thr[2] : 0, t3 = Top == 3 ? thr[3] : 0;
  const int32_t d1 = den[1];
  const int32_t s1 = den[1], s2 = Top == 3 ? den[2] - den[1] : 0, s3 = Top == 3 ? den[3] - den[2] : 0;
  // Each level's code spread one plane a byte (plane k in bit 0 of byte k),
  // so a pixel's bits for every plane are placed with one shift. Level 0
  // prints nothing, whatever code the profile gives the paper.
  uint64_t spread[4] = {0, 0, 0, 0};
  for (int l = 1; l <= Top; ++l)
    for (int k = 0; k < Planes; ++k) spread[l] |= static_cast<uint64_t>((codes[l] >> k) & 1u) << (8 * k);
  // Eight-bit input: each tone's thresholds less the tone, looked up
  // rather than formed; a zero pixel's can never be passed. (Far above any
  // carried error, which stays within a few times the full scale, and far
  // enough from the int32 limits that the differences below cannot
  // overflow.)
  constexpr int32_t kNever = 1 << 30;
  struct Relative {
    int32_t t1, t2, t3, pad;
  };
  Relative table[sizeof(T) == 1 ? 256 : 1];
  if constexpr (sizeof(T) == 1)
    for (int32_t v = 0; v < 256; ++v)
      table[v] = v == 0 ? Relative{kNever, kNever, kNever, 0} : Relative{t1 - v, t2 - v, t3 - v, 0};
  const int32_t *w = o->weightCursor;
  const int32_t *const w_end = o->weightTableEnd;
  const size_t bpp = o->bytesPerPlane;
  // The carry is kept 64 bits wide (its product is formed so), which spares
  // the chain a sign extension before the 64-bit sum.
  int64_t carry = 0;
  int32_t behind = 0, under = 0;
  uint64_t bits = 0;
  ptrdiff_t x = Dir < 0 ? static_cast<ptrdiff_t>(width) - 1 : 0;
  const ptrdiff_t x_end = Dir < 0 ? -1 : static_cast<ptrdiff_t>(width);
  const ptrdiff_t last_in_byte = Dir < 0 ? 0 : 7;
  for (; x != x_end; x += Dir) {
    const int32_t sample = in[x];
    const int32_t keep = -static_cast<int32_t>(sample != 0);
    Relative u;
    if constexpr (sizeof(T) == 1) {
      u = table[sample];
    } else {
      u.t1 = sample != 0 ? t1 - sample : kNever;
      u.t2 = sample != 0 ? t2 - sample : kNever;
      u.t3 = sample != 0 ? t3 - sample : kNever;
    }
    const int32_t q = static_cast<int32_t>((carry + cur[x]) / 8192);
    // m_k is all ones where the value passes threshold k: masks, not
    // selects, so that the compiler cannot turn the choice into a branch
    // (it is as random as the screen and would miss half the time).
    const int32_t m1 = (u.t1 - q) >> 31;
    int32_t taken;  // the density of the level chosen
    uint64_t placed;
    if constexpr (Top == 1) {
      taken = m1 & d1;
      placed = spread[1] & static_cast<uint64_t>(static_cast<int64_t>(m1));
    } else {
      // Thresholds rise, so the passed ones are a prefix: the masked steps
      // add up to the level's density, and the number passed is the level.
      const int32_t m2 = (u.t2 - q) >> 31;
      const int32_t m3 = (u.t3 - q) >> 31;
      taken = (m1 & s1) + ((m2 & s2) + (m3 & s3));
      placed = spread[-(m1 + m2 + m3)];
    }
    // (The value less the level's density, grouped so that the value is
    // formed while the level is chosen.)
    const int32_t e = ((q & keep) + sample) - taken;
    if (e != 0) [[likely]] {
      const int32_t w0 = w[0], w1 = w[1], w2 = w[2], w3 = w[3];
      next[x - Dir] = behind + w0 * e;
      behind = under + w3 * e;
      under = w1 * e;
      carry = static_cast<int64_t>(w2) * e;
      w += 4;
      // (The table's start is fetched again only when the cursor wraps:
      // one register less in the loop.)
      if (w == w_end) [[unlikely]]
        w = o->weightTable;
    } else {
      next[x - Dir] = behind;
      behind = under;
      under = 0;
    }
    bits |= placed << (7u - static_cast<uint32_t>(x & 7));
    if ((x & 7) == last_in_byte) {
      for (int k = 0; k < Planes; ++k)
        out[k * bpp + static_cast<size_t>(x >> 3)] = static_cast<uint8_t>(bits >> (8 * k));
      bits = 0;
    }
  }
  x -= Dir;  // the last pixel
  next[x] = behind;
  next[x + Dir] = under;
  if ((x & 7) != last_in_byte)
    for (int k = 0; k < Planes; ++k)
      out[k * bpp + static_cast<size_t>(x >> 3)] = static_cast<uint8_t>(bits >> (8 * k));
  o->weightCursor = const_cast<int32_t *>(w);
}

template <typename T, int Planes, int Top>
void diffuse_fast(ScreeningObject *o, const T *in, uint8_t *out, uint32_t width) {
  if (width == 0) return;
  if (o->serpentine != 0)
    diffuse_run<T, Planes, Top, -1>(o, in, out, width);
  else
    diffuse_run<T, Planes, Top, 1>(o, in, out, width);
  int32_t *swap = o->errorRowA;
  o->errorRowA = o->errorRowB;
  o->errorRowB = swap;
  o->serpentine = o->serpentine != 0 ? 0u : 1u;
}

template <typename T, int Planes, int Top>
void diffuse_some(ScreeningObject *o, const T *in, uint8_t *out, uint32_t width, uint32_t y) {
  if constexpr (Top > 0)
    diffuse_fast<T, Planes, Top>(o, in, out, width);
  else
    diffuse_line<T, Planes>(o, in, out, width, y);
}

template <typename T, int Top>
void diffuse_planes(ScreeningObject *o, const T *in, uint8_t *out, uint32_t width, uint32_t y) {
  if (o->byteOutput != 0) {
    diffuse_line<T, -1>(o, in, out, width, y);
    return;
  }
  switch (o->outputPlanes) {
    case 1:
      diffuse_some<T, 1, Top>(o, in, out, width, y);
      break;
    case 2:
      diffuse_some<T, 2, Top>(o, in, out, width, y);
      break;
    case 3:
      diffuse_some<T, 3, Top>(o, in, out, width, y);
      break;
    case 4:
      diffuse_some<T, 4, Top>(o, in, out, width, y);
      break;
    case 5:
      diffuse_some<T, 5, Top>(o, in, out, width, y);
      break;
    case 6:
      diffuse_some<T, 6, Top>(o, in, out, width, y);
      break;
    default:
      diffuse_line<T, 0>(o, in, out, width, y);
      break;
  }
}

template <typename T>
void diffuse_dispatch(ScreeningObject *o, const T *in, uint8_t *out, uint32_t width, uint32_t y) {
  // The short-chain loops need an empty lightest level (densities[0] = 0,
  // as every evenly spaced or profile level set has).
  const bool plain = o->modulation == nullptr && o->densities[0] == 0;
  if (plain && o->levels == 2)
    diffuse_planes<T, 1>(o, in, out, width, y);
  else if (plain && o->levels == 4)
    diffuse_planes<T, 3>(o, in, out, width, y);
  else
    diffuse_planes<T, 0>(o, in, out, width, y);
}

}  // namespace

void fill_weight_table(int32_t *table) {
  for (uint32_t g = 0; g < kWeightGroups; ++g) {
    const int32_t r1 = ZT_randomIntInRange(0, 22);
    const int32_t r2 = ZT_randomIntInRange(0, 110);
    int32_t *group = table + 4 * g;
    group[0] = weight((44 - r1) / 176.0);
    group[1] = weight(r1 / 176.0);
    group[2] = weight((132 - r2) / 176.0);
    group[3] = weight(r2 / 176.0);
  }
}

int32_t create_stochastic_structs(ScreeningObject *object) {
  const size_t row = static_cast<size_t>(object->width) + 8;
  object->errorRowA = static_cast<int32_t *>(std::calloc(row, sizeof(int32_t)));
  object->errorRowB = static_cast<int32_t *>(std::calloc(row, sizeof(int32_t)));
  if (object->errorRowA == nullptr || object->errorRowB == nullptr) {
    ZT_LOG(kModule, "CreateStochasticStructs", "Cannot allocate memory for error array");
    return -1;
  }
  char key[32];
  cache_key(object, key, sizeof key);
  int32_t *end = nullptr;
  int32_t *table = cache_acquire(key, &end);
  if (table != nullptr) {
    object->cached = 1;
  } else {
    table = static_cast<int32_t *>(std::malloc(kWeightEntries * sizeof(int32_t)));
    if (table == nullptr) {
      ZT_LOG(kModule, "CreateStochasticStructs", "Cannot allocate memory for blue noise array");
      return -1;
    }
    fill_weight_table(table);
    end = table + kWeightEntries;
    object->cached = cache_add(key, table, end) ? 1 : 0;
  }
  object->weightTable = table;
  object->weightTableEnd = end;
  // Channels that share a table start at different groups, so that their
  // weight sequences (and with them their dot patterns) do not line up.
  object->weightCursor = table + 4 * ZT_randomIntInRange(0, static_cast<int32_t>(kWeightGroups) - 1);
  object->serpentine = 0;
  if (object->cellWidth == 0) object->cellWidth = 1;
  if (object->cellHeight == 0) object->cellHeight = 1;
  return 0;
}

void release_stochastic_structs(ScreeningObject *object) {
  std::free(object->errorRowA);
  std::free(object->errorRowB);
  object->errorRowA = object->errorRowB = nullptr;
  if (object->weightTable != nullptr) {
    if (object->cached != 0)
      cache_release(object->weightTable);
    else
      std::free(object->weightTable);
  }
  object->weightTable = object->weightTableEnd = object->weightCursor = nullptr;
  object->cached = 0;
}

int32_t screen_error_diffusion(ScreeningObject *object, void *input, uint8_t *output, uint32_t width,
                               uint32_t y) {
  apply_input_lut(object, input, width);
  std::memset(output, 0, object->outputBytes);
  if (object->inputBits == 16)
    diffuse_dispatch(object, static_cast<const uint16_t *>(input), output, width, y);
  else
    diffuse_dispatch(object, static_cast<const uint8_t *>(input), output, width, y);
  return 0;
}

}  // namespace zt::screening
