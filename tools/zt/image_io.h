// Page images in and out: PNG, TIFF and JPEG through their Debian libraries,
// read and written one line at a time so a page never has to fit in memory.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zt::tool {

// One page of an input image. Lines come in order, pixels interleaved,
// 16-bit samples in host order; for CMYK, 0 is no ink.
class ImageSource {
 public:
  virtual ~ImageSource() = default;
  uint32_t width = 0, height = 0;
  uint32_t channels = 0;  // 1 grey, 3 RGB, 4 CMYK
  uint32_t bits = 8;      // 8 or 16
  double xdpi = 0, ydpi = 0;  // 0: the file does not say
  std::vector<uint8_t> icc;   // embedded profile, may be empty
  std::string name;
  uint32_t bytes_per_line() const { return width * channels * (bits / 8); }
  virtual void read_line(uint8_t *dst) = 0;  // fails (throws) on a damaged file
};

// Pages in a file (TIFF directories; 1 for PNG and JPEG), and one page of it
// opened for reading. The format is found from the file's first bytes.
uint32_t image_page_count(const std::string &path);
std::unique_ptr<ImageSource> open_image(const std::string &path, uint32_t page);

// The largest input accepted: beyond this a page is not a page.
inline constexpr uint64_t kMaxInputPixels = 1ull << 31;
inline constexpr uint32_t kMaxInputSide = 1u << 20;

// Writers: lines of `channels` samples of `bits` bits (host order), written
// as they come. PNG takes 1, 2 (grey + alpha), 3 or 4 (RGBA) channels; TIFF
// any count (4: CMYK with `cmyk`).
class ImageSink {
 public:
  virtual ~ImageSink() = default;
  virtual void write_line(const uint8_t *line) = 0;
  virtual void finish() = 0;
};
std::unique_ptr<ImageSink> create_png(const std::string &path, const std::string &shown, uint32_t width,
                                      uint32_t height, uint32_t channels, uint32_t bits, double dpi,
                                      const std::vector<uint8_t> &icc);
std::unique_ptr<ImageSink> create_tiff(const std::string &path, const std::string &shown, uint32_t width,
                                       uint32_t height, uint32_t channels, uint32_t bits, bool cmyk, double xdpi,
                                       double ydpi, const std::vector<uint8_t> &icc);
bool ends_with(const std::string &s, const char *suffix);

}  // namespace zt::tool
