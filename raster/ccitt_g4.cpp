// CCITT Group 4 (ITU-T T.6): each row is coded against the row above (an
// all-white line for the first) in pass, vertical and horizontal modes, the
// horizontal runs in the modified-Huffman codes of T.4; the image ends with
// EOFB (two EOLs). Bits go most significant first, a set bit is black.
//
// The decoder is a state machine that stops between two codes whenever the
// input runs out and picks up there on the next call, so a stream may arrive
// in pieces of any size.
#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <new>
#include <utility>

#include "foundation/internal.h"
#include "foundation/byte_order.h"
#include "raster/ccitt_g4_internal.h"
#include "raster/ccitt_g4_tables.h"
#include "raster/compress_internal.h"

namespace zt::raster {
namespace {

// ---- Decoding tables, built at compile time from the code tables ----------

enum ModeKind : uint8_t {
  kModeInvalid,
  kModePass,
  kModeHorizontal,
  kModeVertical,
  kModeZeros,
  kModeExtension
};

struct ModeEntry {
  uint8_t kind;
  int8_t offset;  // a1 - b1 of a vertical code
  uint8_t length;
};

constexpr uint32_t kModePeek = 7;

constexpr std::array<ModeEntry, 1u << kModePeek> make_mode_table() {
  std::array<ModeEntry, 1u << kModePeek> table{};
  auto fill = [&table](g4::Code code, uint8_t kind, int8_t offset) {
    const uint32_t shift = kModePeek - code.length;
    for (uint32_t k = 0; k < (1u << shift); ++k)
      table[(uint32_t{code.bits} << shift) | k] = ModeEntry{kind, offset, code.length};
  };
  fill(g4::kPass, kModePass, 0);
  fill(g4::kHorizontal, kModeHorizontal, 0);
  for (int d = -3; d <= 3; ++d) fill(g4::kVertical[d + 3], kModeVertical, static_cast<int8_t>(d));
  // 0000000 may begin an EOL; 0000001 begins the extension codes of T.6.
  table[0] = ModeEntry{kModeZeros, 0, kModePeek};
  table[1] = ModeEntry{kModeExtension, 0, kModePeek};
  return table;
}

enum RunKind : uint8_t { kRunInvalid, kRunTerminating, kRunMakeup };

struct RunEntry {
  uint16_t run;
  uint8_t length;
  uint8_t kind;
};

constexpr uint32_t kRunPeek = 13;  // the longest run code

constexpr std::array<RunEntry, 1u << kRunPeek> make_run_table(const g4::Code (&term)[64],
                                                              const g4::Code (&makeup)[27]) {
  std::array<RunEntry, 1u << kRunPeek> table{};
  auto fill = [&table](g4::Code code, uint32_t run, uint8_t kind) {
    const uint32_t shift = kRunPeek - code.length;
    for (uint32_t k = 0; k < (1u << shift); ++k)
      table[(uint32_t{code.bits} << shift) | k] = RunEntry{static_cast<uint16_t>(run), code.length, kind};
  };
  for (uint32_t r = 0; r < 64; ++r) fill(term[r], r, kRunTerminating);
  for (uint32_t m = 0; m < 27; ++m) fill(makeup[m], 64 * (m + 1), kRunMakeup);
  for (uint32_t m = 0; m < 13; ++m) fill(g4::kExtMakeup[m], 1792 + 64 * m, kRunMakeup);
  return table;
}

constexpr auto kModeTable = make_mode_table();
constexpr auto kWhiteRuns = make_run_table(g4::kWhiteTerm, g4::kWhiteMakeup);
constexpr auto kBlackRuns = make_run_table(g4::kBlackTerm, g4::kBlackMakeup);

// ---- Rows and their changing elements --------------------------------------

// The first pixel at or after `pos` (< width) not of `colour`, or the width.
// Bits past the width in the last byte are never taken for pixels.
int32_t find_change(const uint8_t *row, int32_t pos, int32_t width, int colour) noexcept {
  const uint32_t flip = colour ? 0xFFu : 0u;
  const int32_t nbytes = (width + 7) >> 3;
  int32_t byte = pos >> 3;
  uint32_t b = (row[byte] ^ flip) & (0xFFu >> (pos & 7));
  int32_t found = -1;
  if (b != 0) {
    found = byte * 8 + std::countl_zero(static_cast<uint8_t>(b));
  } else {
    ++byte;
    const uint64_t flip64 = colour ? ~uint64_t{0} : 0;
    while (found < 0 && byte + 8 <= nbytes) {
      const uint64_t w = load_be64(row + byte) ^ flip64;
      if (w != 0) found = byte * 8 + std::countl_zero(w);
      byte += 8;
    }
    while (found < 0 && byte < nbytes) {
      b = row[byte] ^ flip;
      if (b != 0) found = byte * 8 + std::countl_zero(static_cast<uint8_t>(b));
      ++byte;
    }
  }
  return found < 0 || found > width ? width : found;
}

// Fills `changes` with the row's changing elements and three width sentinels.
void row_changes(const uint8_t *row, int32_t width, int32_t *changes) noexcept {
  uint32_t n = 0;
  int32_t pos = 0;
  int colour = 0;
  for (;;) {
    const int32_t p = find_change(row, pos, width, colour);
    if (p >= width) break;
    changes[n++] = p;
    colour ^= 1;
    pos = p;
  }
  changes[n] = changes[n + 1] = changes[n + 2] = width;
}

// b1: the first change of the reference row right of a0 whose colour is the
// opposite of a0's; changes to black sit at even indices. `ib` is where the
// previous search ended: a0 never moves left of the change before it.
inline uint32_t find_b1(const int32_t *ref, uint32_t ib, int32_t a0, int colour) noexcept {
  while (ib > 0 && ref[ib - 1] > a0) --ib;
  while (ref[ib] <= a0 || static_cast<int>(ib & 1) != colour) ++ib;
  return ib;
}

void set_black(uint8_t *row, int32_t from, int32_t to) noexcept {
  if (from >= to) return;
  const int32_t fb = from >> 3;
  const int32_t lb = (to - 1) >> 3;
  const uint8_t head = static_cast<uint8_t>(0xFFu >> (from & 7));
  const uint8_t tail = static_cast<uint8_t>(0xFFu << (7 - ((to - 1) & 7)));
  if (fb == lb) {
    row[fb] |= head & tail;
    return;
  }
  row[fb] |= head;
  if (lb > fb + 1) std::memset(row + fb + 1, 0xFF, static_cast<size_t>(lb - fb - 1));
  row[lb] |= tail;
}

}  // namespace

// ---- Encoder ------------------------------------------------------------------

std::unique_ptr<G4Encoder> G4Encoder::create(uint32_t width) noexcept {
  if (width == 0 || width > kG4MaxWidth) return nullptr;
  std::unique_ptr<G4Encoder> enc(new (std::nothrow) G4Encoder(width));
  if (!enc) return nullptr;
  enc->ref_.reset(new (std::nothrow) int32_t[width + 4]);
  enc->cur_.reset(new (std::nothrow) int32_t[width + 4]);
  if (!enc->ref_ || !enc->cur_) return nullptr;
  const int32_t w = static_cast<int32_t>(width);
  enc->ref_[0] = enc->ref_[1] = enc->ref_[2] = w;
  return enc;
}

void G4Encoder::put(uint32_t bits, uint32_t length) noexcept {
  acc_ = (acc_ << length) | bits;
  acc_bits_ += length;
  if (acc_bits_ >= 32) {
    if (out_cap_ - out_pos_ < 4) {
      overflow_ = true;
      acc_bits_ -= 32;  // keep the accumulator bounded; the output is lost anyway
      return;
    }
    acc_bits_ -= 32;
    const uint32_t word = static_cast<uint32_t>(acc_ >> acc_bits_);
    out_[out_pos_] = static_cast<uint8_t>(word >> 24);
    out_[out_pos_ + 1] = static_cast<uint8_t>(word >> 16);
    out_[out_pos_ + 2] = static_cast<uint8_t>(word >> 8);
    out_[out_pos_ + 3] = static_cast<uint8_t>(word);
    out_pos_ += 4;
  }
}

void G4Encoder::put_run(int colour, uint32_t run) noexcept {
  const g4::Code *term = colour ? g4::kBlackTerm : g4::kWhiteTerm;
  const g4::Code *makeup = colour ? g4::kBlackMakeup : g4::kWhiteMakeup;
  while (run >= 2560) {
    put(g4::kExtMakeup[12].bits, g4::kExtMakeup[12].length);
    run -= 2560;
  }
  if (run >= 64) {
    const uint32_t m = run >> 6;
    const g4::Code &code = m <= 27 ? makeup[m - 1] : g4::kExtMakeup[m - 28];
    put(code.bits, code.length);
    run &= 63;
  }
  put(term[run].bits, term[run].length);
}

bool G4Encoder::encode_row(const uint8_t *row) noexcept {
  const int32_t width = static_cast<int32_t>(width_);
  const int32_t *ref = ref_.get();
  int32_t *cur = cur_.get();
  row_changes(row, width, cur);
  int32_t a0 = -1;
  int colour = 0;
  uint32_t ia = 0;
  uint32_t ib = 0;
  while (a0 < width) {
    const int32_t a1 = cur[ia];
    ib = find_b1(ref, ib, a0, colour);
    const int32_t b1 = ref[ib];
    const int32_t b2 = ref[ib + 1];
    if (b2 < a1) {
      put(g4::kPass.bits, g4::kPass.length);
      a0 = b2;
      continue;
    }
    const int32_t d = a1 - b1;
    if (d >= -3 && d <= 3) {
      put(g4::kVertical[d + 3].bits, g4::kVertical[d + 3].length);
      a0 = a1;
      colour ^= 1;
      ++ia;
      continue;
    }
    const int32_t a2 = cur[ia + 1];
    put(g4::kHorizontal.bits, g4::kHorizontal.length);
    put_run(colour, static_cast<uint32_t>(a1 - (a0 < 0 ? 0 : a0)));
    put_run(colour ^ 1, static_cast<uint32_t>(a2 - a1));
    a0 = a2;
    ia += 2;
  }
  ref_.swap(cur_);
  return !overflow_;
}

size_t G4Encoder::encode(const uint8_t *src, uint32_t rows, size_t stride, uint8_t *dst,
                         size_t cap) noexcept {
  if (broken_) return kFail;
  out_ = dst;
  out_pos_ = 0;
  out_cap_ = cap;
  for (uint32_t r = 0; r < rows; ++r) {
    if (!encode_row(src + r * stride)) {
      broken_ = true;
      return kFail;
    }
  }
  return out_pos_;
}

size_t G4Encoder::finish(uint8_t *dst, size_t cap) noexcept {
  if (broken_) return kFail;
  out_ = dst;
  out_pos_ = 0;
  out_cap_ = cap;
  put(g4::kEol.bits, g4::kEol.length);
  put(g4::kEol.bits, g4::kEol.length);
  // At most 31 + 24 bits are pending now: flush whole bytes, then the rest.
  while (!overflow_ && acc_bits_ >= 8) {
    if (out_pos_ >= out_cap_) {
      overflow_ = true;
      break;
    }
    acc_bits_ -= 8;
    out_[out_pos_++] = static_cast<uint8_t>(acc_ >> acc_bits_);
  }
  if (!overflow_ && acc_bits_ > 0) {
    if (out_pos_ >= out_cap_) {
      overflow_ = true;
    } else {
      out_[out_pos_++] = static_cast<uint8_t>(acc_ << (8 - acc_bits_));
      acc_bits_ = 0;
    }
  }
  if (overflow_) {
    broken_ = true;
    return kFail;
  }
  return out_pos_;
}

// ---- Decoder ------------------------------------------------------------------

std::unique_ptr<G4Decoder> G4Decoder::create(uint32_t width, uint32_t height) noexcept {
  if (width == 0 || width > kG4MaxWidth || height == 0) return nullptr;
  std::unique_ptr<G4Decoder> dec(new (std::nothrow) G4Decoder(width, height));
  if (!dec) return nullptr;
  dec->ref_.reset(new (std::nothrow) int32_t[width + 4]);
  dec->cur_.reset(new (std::nothrow) int32_t[width + 4]);
  if (!dec->ref_ || !dec->cur_) return nullptr;
  const int32_t w = static_cast<int32_t>(width);
  dec->ref_[0] = dec->ref_[1] = dec->ref_[2] = w;
  return dec;
}

// The state lives in locals while we decode: the rows we write are bytes,
// which the compiler must assume could alias any member.
bool G4Decoder::decode(const uint8_t *src, size_t n, uint8_t *page, size_t stride, const char *fn) noexcept {
  if (failed_) {
    ZT_LOG(kG4Module, fn, "Group 4 stream already failed");
    return false;
  }
  const int32_t width = static_cast<int32_t>(width_);
  const size_t row_bytes = (width_ + 7) / 8;
  uint64_t acc = acc_;
  uint32_t bits = acc_bits_;
  State state = state_;
  int32_t a0 = a0_;
  int colour = colour_;
  uint32_t ib = ib_;
  uint32_t ncur = ncur_;
  uint32_t run = run_;
  uint32_t run1 = run1_;
  uint32_t row = row_;
  int32_t *ref = ref_.get();
  int32_t *cur = cur_.get();
  bool swapped = false;
  size_t i = 0;
  const char *fault = nullptr;

  // The unread bits sit at the top of `acc`, the oldest highest, zeros below
  // them: a peek is one shift (bits not yet arrived read as zeros) and the
  // table lookup that follows it waits on nothing else.
  auto peek = [&](uint32_t k) -> uint32_t { return static_cast<uint32_t>(acc >> (64 - k)); };
  auto consume = [&](uint32_t k) {
    acc <<= k;
    bits -= k;
  };

  while (state != State::kDone) {
    if (bits <= 32) {
      if (n - i >= 4) {
        acc |= uint64_t{load_be32(src + i)} << (32 - bits);
        i += 4;
        bits += 32;
      } else {
        while (bits <= 56 && i < n) {
          acc |= uint64_t{src[i++]} << (56 - bits);
          bits += 8;
        }
      }
    }
    // From here on a `break` with no fault means: wait for more input.
    bool row_complete = false;
    if (state == State::kMode) {
      if (bits == 0) break;
      const ModeEntry &m = kModeTable[peek(kModePeek)];
      if (m.kind == kModeVertical) {
        if (m.length > bits) break;
        consume(m.length);
        ib = find_b1(ref, ib, a0, colour);
        const int32_t a1 = ref[ib] + m.offset;
        if (a1 <= a0 || a1 > width) {
          fault = "Group 4 vertical mode outside the row";
          break;
        }
        if (a1 < width) cur[ncur++] = a1;
        a0 = a1;
        colour ^= 1;
        row_complete = a0 >= width;
      } else if (m.kind == kModeHorizontal) {
        if (m.length > bits) break;
        consume(m.length);
        state = State::kRun1;
        run = 0;
        continue;
      } else if (m.kind == kModePass) {
        if (m.length > bits) break;
        consume(m.length);
        ib = find_b1(ref, ib, a0, colour);
        const int32_t b2 = ref[ib + 1];
        if (b2 >= width) {
          fault = "Group 4 pass mode beyond the end of the row";
          break;
        }
        a0 = b2;
        continue;
      } else if (m.kind == kModeZeros) {
        if (bits < 12) break;  // an EOL perhaps, not all here yet
        if (peek(12) != 1) {
          fault = "Invalid Group 4 code";
          break;
        }
        consume(12);
        if (a0 != -1 || ncur != 0) {
          fault = "EOL inside a Group 4 row";
          break;
        }
        state = State::kEol;
        continue;
      } else {
        if (m.kind == kModeExtension && bits < kModePeek) break;
        fault = m.kind == kModeExtension ? "Group 4 extension codes (uncompressed mode) are not supported"
                                         : "Invalid Group 4 mode code";
        break;
      }
    } else if (state == State::kRun1 || state == State::kRun2) {
      const int run_colour = state == State::kRun1 ? colour : colour ^ 1;
      const RunEntry &e = (run_colour ? kBlackRuns : kWhiteRuns)[peek(kRunPeek)];
      if (e.kind == kRunInvalid) {
        if (bits < kRunPeek) break;
        fault = "Invalid Group 4 run code";
        break;
      }
      if (e.length > bits) break;
      consume(e.length);
      run += e.run;
      if (run > width_) {
        fault = "Group 4 run beyond the end of the row";
        break;
      }
      if (e.kind == kRunMakeup) continue;
      if (state == State::kRun1) {
        run1 = run;
        run = 0;
        state = State::kRun2;
        continue;
      }
      const int64_t a1 = int64_t{a0 < 0 ? 0 : a0} + run1;
      const int64_t a2 = a1 + run;
      if (a2 > width || (a0 >= 0 && a1 <= a0) || (a1 < width && a2 <= a1)) {
        fault = "Group 4 horizontal runs do not fit the row";
        break;
      }
      if (a1 < width) cur[ncur++] = static_cast<int32_t>(a1);
      if (a2 < width) cur[ncur++] = static_cast<int32_t>(a2);
      a0 = static_cast<int32_t>(a2);
      state = State::kMode;
      row_complete = a0 >= width;
    } else {  // State::kEol: the second half of EOFB
      if (bits < 12) break;
      if (peek(12) != 1) {
        fault = "Invalid Group 4 code after EOL";
        break;
      }
      consume(12);
      state = State::kDone;
      if (row < height_) {
        ZT_LOG(kG4Module, fn, "Group 4 data end after %u of %u rows", row, height_);
        failed_ = true;
      }
      break;
    }
    if (row_complete) {
      cur[ncur] = cur[ncur + 1] = cur[ncur + 2] = width;
      uint8_t *out = page + size_t{row} * stride;
      std::memset(out, 0, row_bytes);
      for (uint32_t k = 0; k < ncur; k += 2) set_black(out, cur[k], cur[k + 1]);
      std::swap(ref, cur);
      swapped = !swapped;
      ++row;
      ncur = 0;
      a0 = -1;
      colour = 0;
      ib = 0;
      if (row == height_) state = State::kDone;
    }
  }

  acc_ = acc;
  acc_bits_ = bits;
  state_ = state;
  a0_ = a0;
  colour_ = colour;
  ib_ = ib;
  ncur_ = ncur;
  run_ = run;
  run1_ = run1;
  row_ = row;
  if (swapped) ref_.swap(cur_);
  if (fault != nullptr) {
    ZT_LOG(kG4Module, fn, "%s in row %u", fault, row_);
    failed_ = true;
  }
  return !failed_;
}

}  // namespace zt::raster
