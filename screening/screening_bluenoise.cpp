// The blue-noise mask of mode 2 and the pattern tiles of mode 9 cut from it.
//
// The mask is built by void-and-cluster: a sparse random pattern is relaxed
// until no dot sits in a tighter cluster than the largest void, then dots are
// ranked by removing the tightest clusters (below the start) and filling the
// largest voids (above it). Distances are physical, so on a 720 x 1440 device
// the dots are spread evenly on paper rather than in pixels. One mask a
// process and aspect is kept; each channel sees it shifted (odd channels also
// mirrored), so no two channels share a mask unchanged.
#include <algorithm>
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
// Rows are searched in blocks of this many entries, each keeping its own
// extremes, so a toggle only rescans the blocks its filter reached.
constexpr uint32_t kBlock = 32;
constexpr uint32_t kBlocksPerRow = kSide / kBlock;

std::mutex g_masks_mutex;
std::map<int64_t, std::unique_ptr<uint32_t[]>> g_masks;

// Sigma over the minority's mean spacing below and above the middle, its
// least value, and the density of the relaxed start. Chosen by measuring
// the flat patches' spectra and worm index over a grid of these: a smaller
// ratio in the highlights and a sparse start (so that most highlight ranks
// are placed by filling voids rather than by thinning a denser pattern)
// gave the highest cut-off; the shadows are filled from the middle and
// liked a slightly wider filter.
constexpr double kLowerScale = 0.32;
constexpr double kUpperScale = 0.45;
constexpr double kLeastSigma = 1.0;
constexpr double kStart = 0.03;

// Void-and-cluster with a filter that follows the minority density: sigma
// in proportion to the mean dot spacing 1 / sqrt(g), so a highlight's dots
// (eleven pixels apart at 1/128) still see their neighbours, where a fixed
// sigma of 1.5 leaves them in a flat, tied energy field and lets them line
// up. Extremes are kept per block of a row and per row, refreshed only where
// a toggle reached, which keeps a 256 x 256 mask to a fraction of a second.
class VoidAndCluster {
 public:
  explicit VoidAndCluster(double aspect)
      : dx_(std::sqrt(aspect)),
        dy_(1.0 / std::sqrt(aspect)),
        energy_(kArea, 0.0),
        dots_(kArea, 0),
        block_hi_(kArea / kBlock),
        block_lo_(kArea / kBlock),
        block_dirty_(kArea / kBlock, 1),
        row_hi_(kSide),
        row_lo_(kSide),
        row_dirty_(kSide, 1) {}

  void build(uint32_t *ranks) {
    // A fixed generator: the mask is part of the product's look, the same in
    // every run.
    uint64_t state = 0x9E3779B97F4A7C15ull;
    const uint32_t initial = static_cast<uint32_t>(kArea * kStart);
    uint32_t placed = 0;
    while (placed < initial) {
      state ^= state << 13;
      state ^= state >> 7;
      state ^= state << 17;
      const uint32_t p = static_cast<uint32_t>(state % kArea);
      if (dots_[p] == 0) {
        dots_[p] = 1;
        ++placed;
      }
    }
    set_sigma(initial, true);
    for (uint32_t guard = 0; guard < kArea; ++guard) {
      const uint32_t cluster = extreme(true);
      toggle(cluster, -1);
      const uint32_t hole = extreme(false);
      toggle(hole, 1);
      if (hole == cluster) break;
    }
    const std::vector<uint8_t> prototype(dots_);
    for (uint32_t rank = initial; rank-- > 0;) {
      set_sigma(rank + 1, false);
      const uint32_t cluster = extreme(true);
      toggle(cluster, -1);
      ranks[cluster] = rank;
    }
    dots_ = prototype;
    sigma_ = 0;
    // Above the start the largest void among the blanks is also the tightest
    // cluster of blanks (the filter sums to a constant), so one rule serves
    // both halves; only the minority that sets sigma changes, and past the
    // middle the blanks' spacing is judged a little wider.
    for (uint32_t rank = initial; rank < kArea; ++rank) {
      if (rank == kArea / 2) {
        scale_ = kUpperScale;
        sigma_ = 0;
      }
      set_sigma(rank < kArea / 2 ? rank : kArea - rank, false);
      const uint32_t hole = extreme(false);
      toggle(hole, 1);
      ranks[hole] = rank;
    }
  }

 private:
  // Sigma for `minority` pixels of the minority colour; the field is rebuilt
  // when it drifts by more than a few per cent from the one in use.
  void set_sigma(uint32_t minority, bool force) {
    const double g = static_cast<double>(minority < 1 ? 1 : minority) / kArea;
    double s = scale_ / std::sqrt(g);
    if (s < kLeastSigma) s = kLeastSigma;
    if (s > kSide / 8.0) s = kSide / 8.0;
    if (!force && sigma_ > 0 && std::fabs(s - sigma_) <= 0.04 * sigma_) return;
    sigma_ = s;
    rx_ = static_cast<int>(std::ceil(4.0 * s / dx_));
    ry_ = static_cast<int>(std::ceil(4.0 * s / dy_));
    if (rx_ > static_cast<int>(kSide / 2) - 1) rx_ = kSide / 2 - 1;
    if (ry_ > static_cast<int>(kSide / 2) - 1) ry_ = kSide / 2 - 1;
    wx_.assign(2 * rx_ + 1, 0.0);
    wy_.assign(2 * ry_ + 1, 0.0);
    double sx = 0, sy = 0;
    for (int i = -rx_; i <= rx_; ++i) sx += wx_[i + rx_] = std::exp(-(i * dx_) * (i * dx_) / (2 * s * s));
    for (int j = -ry_; j <= ry_; ++j) sy += wy_[j + ry_] = std::exp(-(j * dy_) * (j * dy_) / (2 * s * s));
    // The field is the sum of the minority's filters, taken directly: the
    // filter widens as the minority thins, so the cost stays near a constant
    // multiple of the area. With blanks in the minority the dots' field is
    // the filter's total less theirs.
    std::fill(energy_.begin(), energy_.end(), 0.0);
    uint32_t ones = 0;
    for (uint8_t d : dots_) ones += d;
    const uint8_t minority_state = ones * 2 <= kArea ? 1 : 0;
    for (uint32_t p = 0; p < kArea; ++p)
      if (dots_[p] == minority_state) spread(p, 1.0, false);
    if (minority_state == 0)
      for (double &e : energy_) e = sx * sy - e;
    std::fill(block_dirty_.begin(), block_dirty_.end(), 1);
    std::fill(row_dirty_.begin(), row_dirty_.end(), 1);
  }

  void spread(uint32_t p, double sign, bool mark) {
    const int px = static_cast<int>(p % kSide), py = static_cast<int>(p / kSide);
    const uint32_t first = static_cast<uint32_t>(px - rx_ + static_cast<int>(kSide)) % kSide;
    for (int j = -ry_; j <= ry_; ++j) {
      const uint32_t yy = static_cast<uint32_t>(py + j + static_cast<int>(kSide)) % kSide;
      const double wj = sign * wy_[j + ry_];
      double *e = &energy_[static_cast<size_t>(yy) * kSide];
      uint32_t xx = first;
      for (int i = 0; i <= 2 * rx_; ++i) {
        e[xx] += wj * wx_[i];
        if (++xx == kSide) xx = 0;
      }
      if (!mark) continue;
      row_dirty_[yy] = 1;
      uint8_t *blocks = &block_dirty_[static_cast<size_t>(yy) * kBlocksPerRow];
      const uint32_t span = static_cast<uint32_t>(2 * rx_ + 1);
      const uint32_t b0 = first / kBlock, b1 = (first + span - 1) / kBlock;
      for (uint32_t b = b0; b <= b1; ++b) blocks[b % kBlocksPerRow] = 1;
    }
  }

  void toggle(uint32_t p, int sign) {
    dots_[p] = sign > 0 ? 1 : 0;
    spread(p, sign, true);
    block_dirty_[p / kBlock] = 1;
    row_dirty_[p / kSide] = 1;
  }

  struct Best {
    double value;
    uint32_t at;
  };

  void refresh_block(uint32_t b) {
    Best hi{-1e300, kArea}, lo{1e300, kArea};
    const uint32_t p0 = b * kBlock;
    for (uint32_t p = p0; p < p0 + kBlock; ++p) {
      const double e = energy_[p];
      if (dots_[p] != 0) {
        if (e > hi.value) hi = {e, p};
      } else if (e < lo.value) {
        lo = {e, p};
      }
    }
    block_hi_[b] = hi;
    block_lo_[b] = lo;
    block_dirty_[b] = 0;
  }

  void refresh_row(uint32_t y) {
    Best hi{-1e300, kArea}, lo{1e300, kArea};
    for (uint32_t b = y * kBlocksPerRow; b < (y + 1) * kBlocksPerRow; ++b) {
      if (block_dirty_[b] != 0) refresh_block(b);
      if (block_hi_[b].value > hi.value) hi = block_hi_[b];
      if (block_lo_[b].value < lo.value) lo = block_lo_[b];
    }
    row_hi_[y] = hi;
    row_lo_[y] = lo;
    row_dirty_[y] = 0;
  }

  // The dot of highest energy (tightest cluster) or the blank of lowest
  // (largest void); the first in raster order on a tie.
  uint32_t extreme(bool cluster) {
    Best best{cluster ? -1e300 : 1e300, 0};
    for (uint32_t y = 0; y < kSide; ++y) {
      if (row_dirty_[y] != 0) refresh_row(y);
      const Best &b = cluster ? row_hi_[y] : row_lo_[y];
      if (b.at == kArea) continue;
      if (cluster ? b.value > best.value : b.value < best.value) best = b;
    }
    return best.at;
  }

  double dx_, dy_;
  double scale_ = kLowerScale, sigma_ = 0;
  int rx_ = 0, ry_ = 0;
  std::vector<double> wx_, wy_;
  std::vector<double> energy_;
  std::vector<uint8_t> dots_;
  std::vector<Best> block_hi_, block_lo_;
  std::vector<uint8_t> block_dirty_;
  std::vector<Best> row_hi_, row_lo_;
  std::vector<uint8_t> row_dirty_;
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
