// The blue-noise mask of mode 2 and the pattern tiles of mode 9 cut from it.
//
// The mask is built by void-and-cluster: a sparse random pattern is relaxed
// until no dot sits in a tighter cluster than the largest void, then dots are
// ranked by removing the tightest clusters (below the start) and filling the
// largest voids (above it). Distances are physical, so on a 720 x 1440 device
// the dots are spread evenly on paper rather than in pixels. One mask a
// process and aspect is kept; each channel sees it shifted (odd channels also
// mirrored), so no two channels share a mask unchanged.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "foundation/internal.h"
#include "screening/screening_internal.h"

namespace zt::screening {
namespace {

constexpr uint32_t kSide = kMaskSide;
constexpr uint32_t kArea = kSide * kSide;
constexpr double kSigma = 1.5;

std::mutex g_masks_mutex;
std::map<int64_t, std::unique_ptr<uint32_t[]>> g_masks;

struct Filter {
  int radius_x = 0, radius_y = 0;
  std::vector<double> weights;  // (2 ry + 1) x (2 rx + 1)
};

Filter make_filter(double aspect) {
  // Pixel pitches relative to their geometric mean: dx across, dy down.
  const double dx = std::sqrt(aspect), dy = 1.0 / std::sqrt(aspect);
  Filter f;
  f.radius_x = static_cast<int>(std::ceil(3.5 * kSigma / dx));
  f.radius_y = static_cast<int>(std::ceil(3.5 * kSigma / dy));
  if (f.radius_x > static_cast<int>(kSide / 2) - 1) f.radius_x = kSide / 2 - 1;
  if (f.radius_y > static_cast<int>(kSide / 2) - 1) f.radius_y = kSide / 2 - 1;
  const int w = 2 * f.radius_x + 1;
  f.weights.resize(static_cast<size_t>(w) * (2 * f.radius_y + 1));
  for (int j = -f.radius_y; j <= f.radius_y; ++j)
    for (int i = -f.radius_x; i <= f.radius_x; ++i) {
      const double px = i * dx, py = j * dy;
      f.weights[static_cast<size_t>(j + f.radius_y) * w + (i + f.radius_x)] =
          std::exp(-(px * px + py * py) / (2.0 * kSigma * kSigma));
    }
  return f;
}

class VoidAndCluster {
 public:
  explicit VoidAndCluster(double aspect)
      : filter_(make_filter(aspect)), energy_(kArea, 0.0), dots_(kArea, 0) {}

  void build(uint32_t *ranks) {
    // A fixed generator: the mask is part of the product's look, the same in
    // every run.
    uint64_t state = 0x9E3779B97F4A7C15ull;
    const uint32_t initial = kArea / 10;
    uint32_t placed = 0;
    while (placed < initial) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      const uint32_t p = static_cast<uint32_t>(state % kArea);
      if (dots_[p] == 0) {
        toggle(p, 1);
        ++placed;
      }
    }
    for (uint32_t guard = 0; guard < kArea; ++guard) {
      const uint32_t cluster = extreme(1, true);
      toggle(cluster, -1);
      const uint32_t hole = extreme(0, false);
      toggle(hole, 1);
      if (hole == cluster) break;
    }
    std::vector<uint8_t> prototype(dots_);
    std::vector<double> prototype_energy(energy_);
    for (uint32_t rank = initial; rank-- > 0;) {
      const uint32_t cluster = extreme(1, true);
      toggle(cluster, -1);
      ranks[cluster] = rank;
    }
    dots_ = prototype;
    energy_ = prototype_energy;
    // Above the start the largest void among the blanks is also the tightest
    // cluster of blanks (the filter sums to a constant), so one rule serves
    // both halves.
    for (uint32_t rank = initial; rank < kArea; ++rank) {
      const uint32_t hole = extreme(0, false);
      toggle(hole, 1);
      ranks[hole] = rank;
    }
  }

 private:
  void toggle(uint32_t p, int sign) {
    dots_[p] = sign > 0 ? 1 : 0;
    const int px = static_cast<int>(p % kSide), py = static_cast<int>(p / kSide);
    const int w = 2 * filter_.radius_x + 1;
    for (int j = -filter_.radius_y; j <= filter_.radius_y; ++j) {
      const uint32_t yy = static_cast<uint32_t>(py + j + static_cast<int>(kSide)) % kSide;
      const double *row = &filter_.weights[static_cast<size_t>(j + filter_.radius_y) * w];
      double *e = &energy_[static_cast<size_t>(yy) * kSide];
      for (int i = -filter_.radius_x; i <= filter_.radius_x; ++i) {
        const uint32_t xx = static_cast<uint32_t>(px + i + static_cast<int>(kSide)) % kSide;
        e[xx] += sign * row[i + filter_.radius_x];
      }
    }
  }

  // The dot (state 1) of highest energy, or the blank (state 0) of lowest.
  uint32_t extreme(uint8_t state, bool highest) const {
    uint32_t best = 0;
    double value = highest ? -1e300 : 1e300;
    for (uint32_t p = 0; p < kArea; ++p) {
      if (dots_[p] != state) continue;
      if (highest ? energy_[p] > value : energy_[p] < value) {
        value = energy_[p];
        best = p;
      }
    }
    return best;
  }

  Filter filter_;
  std::vector<double> energy_;
  std::vector<uint8_t> dots_;
};

}  // namespace

const uint32_t *blue_noise_ranks(double aspect, const char *function) {
  const int64_t key = std::llround(aspect * 1000.0);
  std::lock_guard<std::mutex> guard(g_masks_mutex);
  auto it = g_masks.find(key);
  if (it != g_masks.end()) return it->second.get();
  std::unique_ptr<uint32_t[]> ranks(new (std::nothrow) uint32_t[kArea]);
  if (ranks == nullptr) {
    ZT_LOG(kModule, function, "Cannot allocate memory for blue noise array");
    return nullptr;
  }
  VoidAndCluster(aspect).build(ranks.get());
  const uint32_t *result = ranks.get();
  g_masks.emplace(key, std::move(ranks));
  return result;
}

int32_t blue_noise_matrix(const ScreeningSettings *settings, uint8_t **matrix, uint32_t *side) {
  const uint32_t xr = settings->resolutionX != 0 ? settings->resolutionX : 600;
  const uint32_t yr = settings->resolutionY != 0 ? settings->resolutionY : xr;
  const uint32_t *ranks = blue_noise_ranks(static_cast<double>(yr) / xr, "CreateStochasticIIScreen");
  if (ranks == nullptr) return -1;
  std::vector<uint32_t> shifted(kArea);
  const uint32_t c = settings->channel;
  const uint32_t sx = (c * 37u) % kSide, sy = (c * 71u) % kSide;
  const bool mirror = (c & 1u) != 0;
  for (uint32_t y = 0; y < kSide; ++y)
    for (uint32_t x = 0; x < kSide; ++x) {
      const uint32_t ux = mirror ? kSide - 1 - x : x;
      shifted[y * kSide + x] = ranks[((y + sy) % kSide) * kSide + (ux + sx) % kSide];
    }
  uint8_t *out = static_cast<uint8_t *>(std::malloc(kArea));
  if (out == nullptr) {
    ZT_LOG(kModule, "CreateStochasticIIScreen", "Cannot allocate memory for blue noise array");
    return -1;
  }
  entries_from_ranks(shifted.data(), kArea, out);
  *matrix = out;
  *side = kSide;
  return 0;
}

int32_t build_pattern_tiles(ScreeningObject *object, const ScreeningSettings *settings) {
  uint8_t *mask = nullptr;
  uint32_t side = 0;
  if (blue_noise_matrix(settings, &mask, &side) != 0) return -1;
  // The object keeps the mask: screening compares with it directly.
  object->matrix = mask;
  const uint32_t stride = (side + 7) / 8;
  object->cellWidth = object->cellHeight = side;
  if (build_matrix_rows(object) != 0) return -1;
  object->patternStride = stride;
  // Tile v prints where v exceeds the mask: every dot of v is in v + 1, so a
  // gradient never reshuffles its texture.
  for (uint32_t v = 1; v < 256; ++v) {
    uint8_t *tile = static_cast<uint8_t *>(std::calloc(static_cast<size_t>(stride) * side, 1));
    if (tile == nullptr) {
      ZT_LOG(kModule, "CreateScreeningObject", "Cannot allocate memory for the dither screens");
      return -1;
    }
    object->ditherScreens[v] = tile;
    for (uint32_t y = 0; y < side; ++y)
      for (uint32_t x = 0; x < side; ++x)
        if (v > mask[y * side + x]) tile[y * stride + x / 8] |= static_cast<uint8_t>(0x80u >> (x & 7));
  }
  return 0;
}

}  // namespace zt::screening
