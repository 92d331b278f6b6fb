// Clustered-dot cells: the spot functions, the one-cell rational screen of
// mode 1, the super-cells of mode 8 and the fixed 4 x 4 cell of mode 11.
//
// A cell is the integer vector (M, N) divided by R: R x R dots share one
// multi-cell whose corners lie on device pixels, so the matrix tiles the page
// exactly by (x mod w, y mod h). With square pixels the smallest such tile is
// W x W, W = (M^2 + N^2) / gcd(M, N). Non-square resolutions whose ratio is
// an integer build the same lattice in pixels of the lower resolution and
// sample it at the device's pixel centres, so the cell keeps its physical
// angle and frequency.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <vector>

#include "foundation/internal.h"
#include "screening/screening_internal.h"

namespace zt::screening {
namespace {

constexpr double kPi = 3.14159265358979323846;

struct Cell {
  int64_t m = 0, n = 0, r = 1;
};

struct Geometry {
  uint32_t base = 600;      // the lower resolution: the lattice's unit
  uint32_t sx = 1, sy = 1;  // device pixels a base pixel across and down
};

bool geometry_of(const ScreeningSettings *s, Geometry *g, const char *function) {
  const uint32_t xr = s->resolutionX != 0 ? s->resolutionX : 600;
  const uint32_t yr = s->resolutionY != 0 ? s->resolutionY : xr;
  g->base = std::min(xr, yr);
  if (xr % g->base != 0 || yr % g->base != 0 || xr / g->base > 16 || yr / g->base > 16) {
    ZT_LOG(kModule, function, "Resolution %u x %u is not supported by halftone screens", xr, yr);
    return false;
  }
  g->sx = xr / g->base;
  g->sy = yr / g->base;
  return true;
}

int64_t tile_side(const Cell &c) {
  const int64_t g = std::gcd(std::llabs(c.m), std::llabs(c.n));
  return g == 0 ? 0 : (c.m * c.m + c.n * c.n) / g;
}

double cell_lpi(const Cell &c, uint32_t base) {
  return base * static_cast<double>(c.r) / std::sqrt(static_cast<double>(c.m * c.m + c.n * c.n));
}

double cell_angle(const Cell &c) {
  return std::atan2(static_cast<double>(c.n), static_cast<double>(c.m)) * 180.0 / kPi;
}

double angle_error(double a, double b) {
  double d = std::fmod(std::fabs(a - b), 360.0);
  return d > 180.0 ? 360.0 - d : d;
}

// The best cell with R up to `max_r` whose device tile fits `max_side`:
// the first R that meets 0.5 % and 0.1 degree wins, else the closest overall.
bool search_cell(double lpi, double angle, const Geometry &g, int64_t max_r, uint32_t max_side, Cell *best,
                 bool want_levels) {
  const double period = g.base / lpi;
  const double ca = std::cos(angle * kPi / 180.0), sa = std::sin(angle * kPi / 180.0);
  double best_score = 1e300;
  bool found = false;
  for (int64_t r = 1; r <= max_r; ++r) {
    const double mx = r * period * ca, ny = r * period * sa;
    for (double m : {std::floor(mx), std::ceil(mx)}) {
      for (double n : {std::floor(ny), std::ceil(ny)}) {
        Cell c{static_cast<int64_t>(m), static_cast<int64_t>(n), r};
        if (c.m == 0 && c.n == 0) continue;
        const int64_t w = tile_side(c);
        if (w <= 0 || w * std::max(g.sx, g.sy) > max_side) continue;
        // A super-cell is worth its size only with all 256 tones, each within
        // 0.05 % of its nominal coverage (half a pixel of 1,000): smaller
        // tiles are skipped while larger ones fit the budget.
        if (want_levels && w * w * g.sx * g.sy < 1000 && w * 4 * std::max(g.sx, g.sy) <= max_side) continue;
        const double ef = std::fabs(cell_lpi(c, g.base) - lpi) / lpi;
        const double ea = angle_error(cell_angle(c), angle);
        const double score = std::max(ef / 0.005, ea / 0.1);
        if (score < best_score) {
          best_score = score;
          *best = c;
          found = true;
        }
      }
    }
    if (found && best_score <= 1.0) break;
  }
  return found;
}

// The rank of (x, y) in a Bayer matrix of 2^k >= both, bits interleaved.
uint32_t bayer(uint32_t x, uint32_t y) {
  uint32_t r = 0;
  for (int b = 11; b >= 0; --b) {
    const uint32_t xb = (x >> b) & 1u, yb = (y >> b) & 1u;
    r = (r << 2) | ((xb ^ yb) << 1) | yb;
  }
  // Reversing the bit pairs makes the low bits the coarse ones.
  uint32_t rev = 0;
  for (int i = 0; i < 12; ++i) rev = (rev << 2) | ((r >> (2 * i)) & 3u);
  return rev;
}

// Ranks every pixel of the device tile by the spot function at its centre,
// highest first (the dot grows from the highest values), ties by position.
int32_t render_cell(const Cell &c, const Geometry &g, uint32_t shape, uint8_t **matrix, uint32_t *width,
                    uint32_t *height, const char *function) {
  const int64_t w = tile_side(c);
  const size_t tw = static_cast<size_t>(w) * g.sx, th = static_cast<size_t>(w) * g.sy;
  *width = static_cast<uint32_t>(tw);
  *height = static_cast<uint32_t>(th);
  if (matrix == nullptr) return 0;
  const size_t area = tw * th;
  std::unique_ptr<uint8_t, decltype(&std::free)> out(static_cast<uint8_t *>(std::malloc(area)), &std::free);
  std::vector<double> value;
  std::vector<uint32_t> order, ranks, dot_order;
  if (out == nullptr) {
    ZT_LOG(kModule, function, "Cannot allocate memory");
    return -1;
  }
  value.resize(area);
  order.resize(area);
  ranks.resize(area);
  dot_order.resize(area);
  const double len2 = static_cast<double>(c.m * c.m + c.n * c.n);
  for (size_t y = 0; y < th; ++y) {
    const double py = (y + 0.5) / g.sy;
    for (size_t x = 0; x < tw; ++x) {
      const double px = (x + 0.5) / g.sx;
      const double u = c.r * (px * c.m + py * c.n) / len2;
      const double v = c.r * (-px * c.n + py * c.m) / len2;
      const double fu = u - std::floor(u), fv = v - std::floor(v);
      value[y * tw + x] = screeningSpotValue(shape, 2.0 * fu - 1.0, 2.0 * fv - 1.0);
      // Pixels at the same place in different dots tie; the dots then take
      // turns in a dispersed (Bayer) order instead of in scan order.
      const int64_t du = static_cast<int64_t>(std::floor(u)) % c.r,
                    dv = static_cast<int64_t>(std::floor(v)) % c.r;
      dot_order[y * tw + x] =
          bayer(static_cast<uint32_t>((du + c.r) % c.r), static_cast<uint32_t>((dv + c.r) % c.r));
    }
  }
  std::iota(order.begin(), order.end(), 0u);
  std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
    if (value[a] != value[b]) return value[a] > value[b];
    if (dot_order[a] != dot_order[b]) return dot_order[a] < dot_order[b];
    return a < b;
  });
  for (size_t i = 0; i < area; ++i) ranks[order[i]] = static_cast<uint32_t>(i);
  entries_from_ranks(ranks.data(), area, out.get());
  *matrix = out.release();
  return 0;
}

bool check_settings(const ScreeningSettings *s, uint8_t **matrix, uint32_t *width, uint32_t *height,
                    const char *function) {
  (void)matrix;
  if (s == nullptr || width == nullptr || height == nullptr) {
    ZT_LOG(kModule, function, "Cannot allocate memory");
    return false;
  }
  if (!(s->linesPerInch > 1.0) || !std::isfinite(s->linesPerInch)) {
    ZT_LOG(kModule, function, "Bad LPI %f, value must be greater than 1.0", s->linesPerInch);
    return false;
  }
  if (!std::isfinite(s->angle)) {
    ZT_LOG(kModule, function, "non invertible matrix encountered");
    return false;
  }
  return true;
}

void report(const Cell &c, const Geometry &g, double *lpi, double *angle) {
  if (lpi != nullptr) *lpi = cell_lpi(c, g.base);
  if (angle != nullptr) *angle = cell_angle(c);
}

}  // namespace

void entries_from_ranks(const uint32_t *ranks, size_t area, uint8_t *matrix) {
  // count[v] = round(v * area / 255) pixels print at tone v; the entry of a
  // rank is the largest v that leaves it blank.
  size_t count[256];
  for (uint32_t v = 0; v < 256; ++v)
    count[v] = static_cast<size_t>(std::floor(v * static_cast<double>(area) / 255.0 + 0.5));
  std::vector<uint8_t> entry_of_rank(area);
  uint32_t v = 0;
  for (size_t r = 0; r < area; ++r) {
    while (v < 254 && count[v + 1] <= r) ++v;
    entry_of_rank[r] = static_cast<uint8_t>(v);
  }
  for (size_t i = 0; i < area; ++i) matrix[i] = entry_of_rank[ranks[i]];
}

void ordered4x4(uint8_t *matrix) {
  static const int kRanks[16] = {1, 9, 3, 11, 13, 5, 15, 7, 4, 12, 2, 10, 16, 8, 14, 6};
  // The divisor is 15, not 16: rank 16 gives 272, whose complement keeps the
  // low byte 239. The screens printed so far carry that wrap; we keep it.
  for (int i = 0; i < 16; ++i) {
    const int v = static_cast<int>(kRanks[i] * 255.0 / (16 - 1));
    matrix[i] = static_cast<uint8_t>(~v & 0xFF);
  }
}

}  // namespace zt::screening

using namespace zt::screening;

extern "C" {

ZT_API double screeningSpotValue(uint32_t shape, double x, double y) {
  const double ax = std::fabs(x), ay = std::fabs(y), s = ax + ay;
  switch (shape) {
    case 0:
      return 1.0 - x * x - y * y;
    case 1:
      return x * x + y * y - 1.0;
    case 2:
      return 1.0 - x * x - 0.7 * y * y;
    case 3:
      return x * x + 0.7 * y * y - 1.0;
    case 4:
      if (s < 0.75) return 1.0 - ax * ax - ay * ay;
      if (s >= 1.25) return (ax - 1.0) * (ax - 1.0) + (ay - 1.0) * (ay - 1.0) - 1.0;
      return 1.0 - 0.85 * ax - ay;
    case 6:
      return 1.0 - ay;
    default:
      if (s <= 1.0) return 1.0 - ax * ax - ay * ay;
      return (ax - 1.0) * (ax - 1.0) + (ay - 1.0) * (ay - 1.0) - 1.0;
  }
}

ZT_API int32_t SuperCellCreate_rational(const ScreeningSettings *settings, uint8_t **matrix, uint32_t *width,
                                        uint32_t *height, double *effectiveLpi, double *effectiveAngle) {
  const char *function = "SuperCellCreate_rational";
  return zt::api_guard<int32_t>(kModule, function, -1, [&]() -> int32_t {
    if (!check_settings(settings, matrix, width, height, function)) return -1;
    Geometry g;
    if (!geometry_of(settings, &g, function)) return -1;
    Cell c;
    if (!search_cell(settings->linesPerInch, settings->angle, g, 1, 1u << 20, &c, false)) {
      ZT_LOG(kModule, function, "non invertible matrix encountered");
      return -1;
    }
    if (render_cell(c, g, settings->spotShape, matrix, width, height, function) != 0) return -1;
    report(c, g, effectiveLpi, effectiveAngle);
    return 0;
  });
}

ZT_API int32_t SuperCellCreate(const ScreeningSettings *settings, uint8_t **matrix, uint32_t *width,
                               uint32_t *height, double *effectiveLpi, double *effectiveAngle) {
  const char *function = "SuperCellCreate";
  return zt::api_guard<int32_t>(kModule, function, -1, [&]() -> int32_t {
    if (!check_settings(settings, matrix, width, height, function)) return -1;
    Geometry g;
    if (!geometry_of(settings, &g, function)) return -1;
    const uint32_t max_side = settings->maxTileSide != 0 ? std::min(settings->maxTileSide, 8192u) : 1024u;
    Cell c;
    if ((settings->flags & ZT_SCREEN_FLAG_CMYK_SET) != 0) {
      int32_t v[3];
      if (screeningDefaultCMYKCell(settings->channel, v) != 0) return -1;
      // Every channel's vector is scaled by the same k and its dots by the
      // same R, so every frequency scales by R / k and the residual stays
      // zero; (R, k) is the pair closest to the requested frequency whose
      // tile (10 k pixels) fits.
      const double base_lpi = cell_lpi(Cell{3, 1, 1}, g.base);
      double best_error = 1e300;
      int64_t best_k = 0, best_r = 0;
      for (int64_t k = 1; 10 * k * std::max(g.sx, g.sy) <= max_side && k <= 512; ++k) {
        const int64_t r = std::max<int64_t>(1, std::llround(settings->linesPerInch * k / base_lpi));
        const double error = std::fabs(base_lpi * r / k - settings->linesPerInch);
        if (error < best_error * 0.999) {
          best_error = error;
          best_k = k;
          best_r = r;
        }
      }
      c = Cell{v[0] * best_k, v[1] * best_k, v[2] * best_r};
      if (best_k == 0) {
        ZT_LOG(kModule, function, "non invertible matrix encountered");
        return -1;
      }
    } else if (!search_cell(settings->linesPerInch, settings->angle, g, 64, max_side, &c, true)) {
      ZT_LOG(kModule, function, "non invertible matrix encountered");
      return -1;
    }
    if (render_cell(c, g, settings->spotShape, matrix, width, height, function) != 0) return -1;
    report(c, g, effectiveLpi, effectiveAngle);
    return 0;
  });
}

ZT_API int32_t screeningDefaultCMYKCell(uint32_t channel, int32_t *cell) {
  // C (3,1), M (1,3) and K (5,5) in two-dot super-cells: the first-order
  // term f_C1 + f_K2 - f_M1 is exactly zero, (0.3,0.1) + (-0.2,0.2) - (0.1,0.3).
  static const int32_t kCells[4][3] = {{3, 1, 1}, {1, 3, 1}, {3, 0, 1}, {5, 5, 2}};
  if (cell == nullptr || channel > 3) {
    ZT_LOG(kModule, "screeningDefaultCMYKCell", "Uknown screening mode requested");
    return -1;
  }
  std::memcpy(cell, kCells[channel], sizeof kCells[channel]);
  return 0;
}

}  // extern "C"
