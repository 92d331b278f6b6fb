// Colour for the rip: a device link from the input's profile to the CMYK
// output profile, built once by Little CMS, sampled as a 33-point grid and
// applied to every pixel by the library's table interpolator; and the
// proof transform that turns the screened inks back into sRGB for previews.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <zt/table_interpolator.h>

namespace zt::tool {

inline constexpr uint32_t kGridPoints = 33;

std::vector<uint8_t> read_file_bytes(const std::string &path);

struct Profiles {
  std::vector<uint8_t> output;  // CMYK
  std::string output_name;
  int intent = 1;               // INTENT_* of Little CMS
};

// Converts planar lines (one row a channel) of 8-bit samples from the
// input's colour model to four ink rows.
class ColourLink {
 public:
  // `input` empty means: sRGB (3 channels), a 2.2 grey (1), or the output
  // profile itself (4: no conversion).
  ColourLink(uint32_t channels, const std::vector<uint8_t> &input, const std::string &input_name,
             const Profiles &profiles, uint32_t threads);
  ~ColourLink();
  ColourLink(const ColourLink &) = delete;
  ColourLink &operator=(const ColourLink &) = delete;
  // `src` holds `lines` lines of channels rows each (`width` bytes a row);
  // `dst` the same with four rows a line. Grey input is widened to three
  // rows in `scratch`.
  void convert(const uint8_t *src, uint8_t *dst, uint32_t width, uint32_t lines);
  bool identity() const { return interp_ == nullptr; }

 private:
  uint32_t channels_;
  ZT_TableInterpolator *interp_ = nullptr;
  std::vector<uint8_t> scratch_;
};

// The printed inks to sRGB, for previews: 8-bit CMYK pixels (interleaved) to
// 8-bit RGB.
class Proof {
 public:
  explicit Proof(const Profiles &profiles);
  ~Proof();
  Proof(const Proof &) = delete;
  Proof &operator=(const Proof &) = delete;
  void convert(const uint8_t *cmyk, uint8_t *rgb, uint32_t pixels);

 private:
  void *transform_ = nullptr;
};

// Checks that the bytes are an ICC profile of a colour space with
// `channels` channels (0: any); fails naming `name` otherwise.
void check_profile(const std::vector<uint8_t> &bytes, const std::string &name, uint32_t channels);

}  // namespace zt::tool
