// CCITT Group 4 (ITU-T T.6) coding of 1-bit rows, as the ccitg4 shims use it.
// Both sides work on a row's changing elements: the positions where the
// colour differs from the pixel before (the pixel before the first being
// white), ending in three copies of the width so that the b1/b2 search never
// runs off the list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace zt::raster {

// The widest row either direction takes: rows past it would make the change
// lists larger than any page.
inline constexpr uint32_t kG4MaxWidth = 1u << 24;

constexpr const char *kG4Module = "ccitg4";

class G4Encoder {
 public:
  // NULL when memory runs out.
  static std::unique_ptr<G4Encoder> create(uint32_t width) noexcept;

  // Appends the codes of `rows` rows; the whole bytes go to dst. kFail when
  // they do not fit, after which the encoder is broken.
  size_t encode(const uint8_t *src, uint32_t rows, size_t stride, uint8_t *dst, size_t cap) noexcept;
  // EOFB and the zero bits filling the last byte; kFail when they do not fit.
  size_t finish(uint8_t *dst, size_t cap) noexcept;
  bool broken() const noexcept { return broken_; }
  uint32_t width() const noexcept { return width_; }

 private:
  explicit G4Encoder(uint32_t width) noexcept : width_(width) {}
  bool encode_row(const uint8_t *row) noexcept;
  void put(uint32_t bits, uint32_t length) noexcept;
  void put_run(int colour, uint32_t run) noexcept;

  uint32_t width_;
  std::unique_ptr<int32_t[]> ref_;  // changes of the row above
  std::unique_ptr<int32_t[]> cur_;
  uint64_t acc_ = 0;  // pending bits, the newest at the low end
  uint32_t acc_bits_ = 0;
  uint8_t *out_ = nullptr;  // where encode() writes, and its room
  size_t out_pos_ = 0;
  size_t out_cap_ = 0;
  bool overflow_ = false;
  bool broken_ = false;
};

class G4Decoder {
 public:
  // NULL when memory runs out.
  static std::unique_ptr<G4Decoder> create(uint32_t width, uint32_t height) noexcept;

  // Decodes the next `n` bytes, writing finished rows into `page`. false
  // (logged as `fn`) on a corrupt stream or one ending early.
  bool decode(const uint8_t *src, size_t n, uint8_t *page, size_t stride, const char *fn) noexcept;
  uint32_t rows_done() const noexcept { return row_; }
  uint32_t width() const noexcept { return width_; }
  uint32_t height() const noexcept { return height_; }
  bool failed() const noexcept { return failed_; }

 private:
  enum class State : uint8_t { kMode, kRun1, kRun2, kEol, kDone };

  G4Decoder(uint32_t width, uint32_t height) noexcept : width_(width), height_(height) {}

  uint32_t width_;
  uint32_t height_;
  uint32_t row_ = 0;
  std::unique_ptr<int32_t[]> ref_;
  std::unique_ptr<int32_t[]> cur_;
  uint32_t ncur_ = 0;
  int32_t a0_ = -1;
  int colour_ = 0;
  uint32_t ib_ = 0;    // where the b1 search starts
  uint32_t run_ = 0;   // make-up total of the run being read
  uint32_t run1_ = 0;  // first run of horizontal mode
  uint64_t acc_ = 0;   // unread bits at the top, the oldest highest, zeros below
  uint32_t acc_bits_ = 0;
  State state_ = State::kMode;
  bool failed_ = false;
};

}  // namespace zt::raster
