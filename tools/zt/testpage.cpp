// The built-in test page. Regions are laid out in millimetres so the page
// looks the same at every resolution; only the fine lines are in device
// pixels (1 to 4 wide), since they exist to show what the device resolves.
#include "testpage.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace zt::tool {

namespace {

constexpr double kWidthMm = 210.0, kHeightMm = 297.0, kMargin = 10.0;

struct Band {
  double top, bottom;  // mm
};
constexpr Band kTitle{10, 22}, kGreyRamp{26, 40}, kRampC{42, 52}, kRampM{53, 63}, kRampY{64, 74},
    kRampK{75, 85}, kPatches{90, 140}, kLines{145, 175}, kText{180, 205}, kPhoto{210, 287};

// Patches: two rows of eight, in ink percentages.
constexpr uint8_t kPatchInk[16][4] = {
    {100, 0, 0, 0},  {0, 100, 0, 0},  {0, 0, 100, 0},  {0, 0, 0, 100}, {0, 100, 100, 0}, {100, 0, 100, 0},
    {100, 100, 0, 0}, {40, 30, 30, 0}, {50, 0, 0, 0},   {0, 50, 0, 0},  {0, 0, 50, 0},    {0, 0, 0, 50},
    {25, 25, 25, 25}, {70, 10, 0, 0}, {0, 60, 40, 10}, {10, 40, 80, 0}};

inline uint8_t pct(uint8_t p) { return static_cast<uint8_t>((p * 255 + 50) / 100); }

// A small fixed hash: where the text-like shapes fall.
inline uint32_t hash(uint32_t a, uint32_t b) {
  uint32_t h = a * 0x9E3779B1u ^ (b + 0x7F4A7C15u) * 0x85EBCA77u;
  h ^= h >> 15;
  h *= 0x2C1B3C6Du;
  h ^= h >> 12;
  return h;
}

}  // namespace

namespace {
// ISO A sizes in millimetres, A0 ... A4.
constexpr double kIsoA[5][2] = {{841, 1189}, {594, 841}, {420, 594}, {297, 420}, {210, 297}};
}  // namespace

TestPage::TestPage(uint32_t xdpi, uint32_t ydpi, uint32_t size)
    : width_(static_cast<uint32_t>(std::lround(kIsoA[size][0] / 25.4 * xdpi))),
      height_(static_cast<uint32_t>(std::lround(kIsoA[size][1] / 25.4 * ydpi))),
      // The layout is the A4 one, in millimetres of A4, stretched to the sheet.
      xdpmm_(xdpi / 25.4 * kIsoA[size][0] / kWidthMm),
      ydpmm_(ydpi / 25.4 * kIsoA[size][1] / kHeightMm) {
  // The photo-like area: smooth waves along x, combined with waves along y
  // per line, so a line costs a multiply-add a pixel.
  for (int c = 0; c < 4; ++c) {
    wave_x_[c].resize(width_);
    for (uint32_t x = 0; x < width_; ++x) {
      const double u = (x / xdpmm_ - kMargin) / (kWidthMm - 2 * kMargin);
      wave_x_[c][x] = static_cast<float>(0.5 + 0.5 * std::sin(6.2831853 * (u * (0.6 + 0.35 * c) + 0.21 * c)));
    }
  }
}

void TestPage::draw(uint32_t y, uint8_t *cmyk) const {
  const size_t w = width_;
  std::memset(cmyk, 0, w * 4);
  uint8_t *row[4] = {cmyk, cmyk + w, cmyk + 2 * w, cmyk + 3 * w};
  const double ymm = (y + 0.5) / ydpmm_;
  const uint32_t x0 = static_cast<uint32_t>(kMargin * xdpmm_);
  const uint32_t x1 = static_cast<uint32_t>((kWidthMm - kMargin) * xdpmm_);
  const uint32_t span = std::max<uint32_t>(x1 - x0, 1);
  auto in = [ymm](const Band &b) { return ymm >= b.top && ymm < b.bottom; };

  if (in(kTitle)) {
    // A solid bar in each ink, the page's registration strip.
    for (uint32_t x = x0; x < x1; ++x) row[((x - x0) * 4) / span][x] = 255;
  } else if (in(kGreyRamp)) {
    // Three-ink grey over the upper half, black alone below.
    const bool black = ymm >= (kGreyRamp.top + kGreyRamp.bottom) / 2;
    for (uint32_t x = x0; x < x1; ++x) {
      const uint8_t v = static_cast<uint8_t>((x - x0) * 255u / span);
      if (black)
        row[3][x] = v;
      else
        row[0][x] = row[1][x] = row[2][x] = v;
    }
  } else if (in(kRampC) || in(kRampM) || in(kRampY) || in(kRampK)) {
    const int c = in(kRampC) ? 0 : in(kRampM) ? 1 : in(kRampY) ? 2 : 3;
    // Eleven steps of 10 % above, a continuous ramp below.
    const bool stepped = ymm < (kRampC.bottom - kRampC.top) / 2 + (c == 0   ? kRampC.top
                                                                  : c == 1 ? kRampM.top
                                                                  : c == 2 ? kRampY.top
                                                                           : kRampK.top);
    for (uint32_t x = x0; x < x1; ++x) {
      const uint32_t f = (x - x0) * 255u / span;
      row[c][x] = stepped ? pct(static_cast<uint8_t>(((x - x0) * 11u / span) * 10)) : static_cast<uint8_t>(f);
    }
  } else if (in(kPatches)) {
    const double ph = (kPatches.bottom - kPatches.top) / 2;
    const int r = ymm < kPatches.top + ph ? 0 : 1;
    const double in_patch = ymm - kPatches.top - r * ph;
    if (in_patch > 1.5 && in_patch < ph - 1.5) {
      for (uint32_t x = x0; x < x1; ++x) {
        const uint32_t col = (x - x0) * 8u / span;
        const double pxmm = (x - x0) / xdpmm_ - col * (kWidthMm - 2 * kMargin) / 8;
        if (pxmm < 1.5 || pxmm > (kWidthMm - 2 * kMargin) / 8 - 1.5) continue;
        const uint8_t *ink = kPatchInk[r * 8 + col];
        for (int c = 0; c < 4; ++c) row[c][x] = pct(ink[c]);
      }
    }
  } else if (in(kLines)) {
    // Left half: vertical lines 1, 2, 3, 4 pixels wide with equal gaps, in
    // black; right half: horizontal lines the same, in magenta; a thin cyan
    // diagonal crosses both.
    const uint32_t mid = x0 + span / 2;
    const uint32_t ly = y - static_cast<uint32_t>(kLines.top * ydpmm_);
    for (uint32_t x = x0; x < mid; ++x) {
      const uint32_t lx = x - x0, group = (lx * 4) / (mid - x0) + 1;
      if (lx % (2 * group) < group) row[3][x] = 255;
    }
    const uint32_t band = static_cast<uint32_t>((kLines.bottom - kLines.top) * ydpmm_) / 4 + 1;
    const uint32_t group = std::min<uint32_t>(ly / band + 1, 4);
    if (ly % (2 * group) < group)
      for (uint32_t x = mid; x < x1; ++x) row[1][x] = 255;
    const uint32_t dx = x0 + static_cast<uint32_t>(static_cast<double>(ly) * span / ((kLines.bottom - kLines.top) * ydpmm_));
    if (dx < x1) row[0][dx] = 255;
  } else if (in(kText)) {
    // Rows of "words": little blocks of letter-like strokes, 2.5 mm high.
    const double line_mm = 3.5, glyph_mm = 1.6;
    const double t = ymm - kText.top;
    const uint32_t text_line = static_cast<uint32_t>(t / line_mm);
    const double in_line = t - text_line * line_mm;
    if (in_line < 2.5) {
      const uint32_t stroke_row = static_cast<uint32_t>(in_line / 2.5 * 5);
      for (uint32_t x = x0; x < x1; ++x) {
        const double xm = (x - x0) / xdpmm_;
        const uint32_t glyph = static_cast<uint32_t>(xm / glyph_mm);
        const uint32_t h = hash(glyph, text_line);
        if (h % 7 == 0) continue;  // a space between words
        const double gx = xm - glyph * glyph_mm;
        if (gx > 1.2) continue;     // the gap between letters
        const uint32_t col = static_cast<uint32_t>(gx / 1.2 * 3);
        if ((h >> (stroke_row * 3 + col)) & 1 || col == 0) row[text_line % 3 == 2 ? 0 : 3][x] = 255;
      }
    }
  } else if (in(kPhoto)) {
    const double v = (ymm - kPhoto.top) / (kPhoto.bottom - kPhoto.top);
    float wy[4];
    for (int c = 0; c < 4; ++c)
      wy[c] = static_cast<float>(0.5 + 0.5 * std::cos(6.2831853 * (v * (0.5 + 0.3 * c) + 0.37 * c)));
    const float kscale = static_cast<float>(v * v) * 0.6f;
    for (uint32_t x = x0; x < x1; ++x) {
      row[0][x] = static_cast<uint8_t>(255.0f * (0.15f + 0.7f * wave_x_[0][x] * wy[0]));
      row[1][x] = static_cast<uint8_t>(255.0f * (0.1f + 0.6f * wave_x_[1][x] * wy[1]));
      row[2][x] = static_cast<uint8_t>(255.0f * (0.1f + 0.8f * wave_x_[2][x] * wy[2]));
      row[3][x] = static_cast<uint8_t>(255.0f * kscale * wave_x_[3][x] * wy[3]);
    }
  }
}

}  // namespace zt::tool
