// Error diffusion with random weights (modes 3 and 10), bit for bit as the
// system fixes it: a shared table of 6,151 weight groups walked cyclically,
// serpentine lines, a carry to the next pixel, next-row shares behind, below
// and ahead, errors scaled by 8192 and divided with truncation.
#include <zt/random.h>

#include <cmath>
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

// Top: the top level when it is fixed at compile time (1 or 3, unmodulated),
// 0 for any level count and an optional modulation matrix.
template <typename T, int Planes, int Top>
void diffuse_line(ScreeningObject *o, const T *in, uint8_t *out, uint32_t width, uint32_t y) {
  constexpr bool Modulated = Top == 0;
  int32_t *cur = o->errorRowA + 4;
  int32_t *next = o->errorRowB + 4;
  const uint16_t *thr = o->thresholds;
  const uint16_t *den = o->densities;
  const uint16_t *codes = o->dotCodes;
  const uint32_t top = o->levels - 1;
  const int16_t *mod =
      Modulated && o->modulation != nullptr ? o->modulation + (y % o->cellHeight) * o->cellWidth : nullptr;
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
  // Small level counts keep thresholds, densities and codes in registers and
  // pick the level by counting the thresholds passed (they rise strictly, so
  // that is the walk down from the top): the carry's chain from one pixel to
  // the next then holds no table load.
  int32_t t[4] = {0, 0, 0, 0}, d[4] = {0, 0, 0, 0};
  uint32_t c[4] = {0, 0, 0, 0};
  if (Top > 0)
    for (int k = 0; k <= Top; ++k) {
      t[k] = thr[k];
      d[k] = den[k];
      c[k] = k == 0 ? 0u : codes[k];
    }
  for (uint32_t i = 0; i < width; ++i, x += dir) {
    const int32_t sample = in[x];
    int32_t e = 0;
    if (sample != 0) {
      const int32_t value = sample + static_cast<int32_t>((static_cast<int64_t>(carry) + cur[x]) / 8192);
      if (value != 0) {
        if constexpr (Top == 1) {
          const bool dot = value > t[1];
          e = value - (dot ? d[1] : d[0]);
          write_code<Planes>(out, bpp, planes, x, dot ? c[1] : 0u);
        } else if constexpr (Top == 3) {
          const int level = (value > t[1] ? 1 : 0) + (value > t[2] ? 1 : 0) + (value > t[3] ? 1 : 0);
          e = value - d[level];
          write_code<Planes>(out, bpp, planes, x, c[level]);
        } else {
          const int32_t m = Modulated && mod != nullptr ? mod[static_cast<size_t>(x) % cw] : 0;
          const uint32_t level = pick_level(value, m, thr, top);
          e = value - den[level];
          write_code<Planes>(out, bpp, planes, x, level != 0 ? codes[level] : 0u);
        }
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

template <typename T, int Top>
void diffuse_planes(ScreeningObject *o, const T *in, uint8_t *out, uint32_t width, uint32_t y) {
  if (o->byteOutput != 0) {
    diffuse_line<T, -1, 0>(o, in, out, width, y);
    return;
  }
  switch (o->outputPlanes) {
    case 1:
      diffuse_line<T, 1, Top>(o, in, out, width, y);
      break;
    case 2:
      diffuse_line<T, 2, Top>(o, in, out, width, y);
      break;
    case 3:
      diffuse_line<T, 3, Top>(o, in, out, width, y);
      break;
    case 4:
      diffuse_line<T, 4, Top>(o, in, out, width, y);
      break;
    case 5:
      diffuse_line<T, 5, Top>(o, in, out, width, y);
      break;
    case 6:
      diffuse_line<T, 6, Top>(o, in, out, width, y);
      break;
    default:
      diffuse_line<T, 0, Top>(o, in, out, width, y);
      break;
  }
}

template <typename T>
void diffuse_dispatch(ScreeningObject *o, const T *in, uint8_t *out, uint32_t width, uint32_t y) {
  if (o->modulation == nullptr && o->levels == 2)
    diffuse_planes<T, 1>(o, in, out, width, y);
  else if (o->modulation == nullptr && o->levels == 4)
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
