// The built-in test page: A4 (or the A4 layout stretched to a larger ISO
// size) in the output's inks, drawn a line at a time at any resolution.
#pragma once

#include <cstdint>
#include <vector>

namespace zt::tool {

class TestPage {
 public:
  // `size` 4 is A4, 3 A3, ... 0 A0.
  TestPage(uint32_t xdpi, uint32_t ydpi, uint32_t size = 4);
  uint32_t width() const { return width_; }
  uint32_t height() const { return height_; }
  // Line y as four rows (C, M, Y, K) of width() bytes each; 0 is no ink.
  void draw(uint32_t y, uint8_t *cmyk) const;

 private:
  uint32_t width_, height_;
  double xdpmm_, ydpmm_;
  std::vector<float> wave_x_[4];
};

}  // namespace zt::tool
