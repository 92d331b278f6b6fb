// LZW with 9- to 12-bit codes packed most significant bit first: 0-255 are
// bytes, 256 Clear, 257 End of information, 258 the first string code.
//
// The encoder keeps its strings in an open-addressing hash table of 9,001
// entries keyed by (byte << 12) + prefix code. The code width grows when the
// next free code passes the largest code of the width. The table starts over
// (Clear, written at the width then current) when the next free code reaches
// 4,094, or when the compression ratio, checked every 10,000 input bytes, has
// not improved.
//
// A decoder adds each string one code later than the encoder, so it reads the
// next code at the width of its own next free code plus one. End of
// information goes out at that same width, as if the last code had made an
// entry, so that a reader never has to guess the width of the final code.
#include <algorithm>
#include <bit>
#include <cstring>

#include "foundation/internal.h"
#include "raster/compress_internal.h"

namespace zt::raster {
namespace {

constexpr uint32_t kClear = 256;
constexpr uint32_t kEnd = 257;
constexpr uint32_t kFirstFree = 258;
constexpr uint32_t kMinWidth = 9;
constexpr uint32_t kMaxWidth = 12;
constexpr uint32_t kTableFull = 4094;
constexpr uint32_t kNone = 65535;
constexpr uint64_t kCheckGap = 10000;
constexpr size_t kMinRoom = 5;

constexpr uint32_t max_code(uint32_t width) { return (1u << width) - 1; }

// Input bytes per 256 output bits; the second form keeps the shift from
// overflowing on long streams.
uint64_t ratio(uint64_t in_count, uint64_t out_bits) {
  if (in_count >= 0x800000) {
    const uint64_t r = out_bits >> 8;
    return r == 0 ? 0x7fffffff : in_count / r;
  }
  return out_bits == 0 ? 0x7fffffff : (in_count << 8) / out_bits;
}

}  // namespace

// The table is 36 KB of keys; std::fill compiles to wide stores.
void LzwEncoder::clear_table() noexcept { std::fill(keys_, keys_ + kHashSize, kEmpty); }

void LzwEncoder::reset() noexcept {
  clear_table();
  prefix_ = kNone;
  width_ = kMinWidth;
  max_code_ = max_code(kMinWidth);
  next_free_ = kFirstFree;
  acc_ = 0;
  acc_bits_ = 0;
  in_count_ = 0;
  out_bits_ = 0;
  checkpoint_ = kCheckGap;
  best_ratio_ = 0;
}

size_t LzwEncoder::encode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap) noexcept {
  // The hot state lives in locals and goes back at the end.
  uint64_t acc = acc_;
  uint32_t acc_bits = acc_bits_;
  uint32_t width = width_;
  uint32_t max = max_code_;
  uint32_t next_free = next_free_;
  uint32_t prefix = prefix_;
  uint64_t in_count = in_count_;
  uint64_t out_bits = out_bits_;
  size_t o = 0;

  auto put = [&](uint32_t code) {
    acc = (acc << width) | code;
    acc_bits += width;
    out_bits += width;
    while (acc_bits >= 8) {
      acc_bits -= 8;
      dst[o++] = static_cast<uint8_t>(acc >> acc_bits);
    }
  };
  auto save = [&] {
    acc_ = acc;
    acc_bits_ = acc_bits;
    width_ = width;
    max_code_ = max;
    next_free_ = next_free;
    prefix_ = prefix;
    in_count_ = in_count;
    out_bits_ = out_bits;
  };

  size_t i = 0;
  if (prefix == kNone && n > 0) {
    if (cap - o < kMinRoom) return kFail;
    put(kClear);
    prefix = src[0];
    ++in_count;
    i = 1;
  }
  for (; i < n; ++i) {
    const uint32_t c = src[i];
    ++in_count;
    const int32_t key = static_cast<int32_t>((c << 12) + prefix);
    int h = static_cast<int>((c << 5) ^ prefix);
    if (keys_[h] == key) {
      prefix = codes_[h];
      continue;
    }
    if (keys_[h] != kEmpty) {
      const int disp = h == 0 ? 1 : kHashSize - h;
      bool hit = false;
      do {
        h -= disp;
        if (h < 0) h += kHashSize;
        if (keys_[h] == key) {
          hit = true;
          break;
        }
      } while (keys_[h] != kEmpty);
      if (hit) {
        prefix = codes_[h];
        continue;
      }
    }
    // A new string: out goes its longest known prefix. The room check covers
    // that code, a Clear and the bits still pending.
    if (cap - o < kMinRoom) {
      save();
      return kFail;
    }
    put(prefix);
    prefix = c;
    keys_[h] = key;
    codes_[h] = static_cast<uint16_t>(next_free++);
    bool start_over = false;
    if (next_free == kTableFull) {
      start_over = true;
    } else if (next_free > max) {
      ++width;
      max = max_code(width);
    } else if (in_count >= checkpoint_) {
      checkpoint_ = in_count + kCheckGap;
      const uint64_t r = ratio(in_count, out_bits);
      if (r <= best_ratio_)
        start_over = true;
      else
        best_ratio_ = r;
    }
    if (start_over) {
      // The counts restart with the Clear itself; the checkpoint stays where
      // it was, so a fresh table gets a longer run before it is judged.
      clear_table();
      in_count = 0;
      out_bits = 0;
      best_ratio_ = 0;
      put(kClear);
      width = kMinWidth;
      max = max_code(kMinWidth);
      next_free = kFirstFree;
    }
  }
  save();
  return o;
}

size_t LzwEncoder::finish(uint8_t *dst, size_t cap) noexcept {
  if (cap < kMinRoom) return kFail;
  uint64_t acc = acc_;
  uint32_t acc_bits = acc_bits_;
  size_t o = 0;
  auto put = [&](uint32_t code, uint32_t width) {
    acc = (acc << width) | code;
    acc_bits += width;
    while (acc_bits >= 8) {
      acc_bits -= 8;
      dst[o++] = static_cast<uint8_t>(acc >> acc_bits);
    }
  };
  uint32_t width = width_;
  if (prefix_ == kNone) {
    // An empty stream still reads as one: Clear, End of information.
    put(kClear, width);
  } else {
    put(prefix_, width);
    if (next_free_ + 1 > max_code_ && width < kMaxWidth) ++width;
  }
  put(kEnd, width);
  if (acc_bits > 0) dst[o++] = static_cast<uint8_t>(acc << (8 - acc_bits));
  reset();
  return o;
}

void LzwDecoder::reset() noexcept {
  for (uint32_t c = 0; c < 256; ++c) table_[c] = Entry{0, c, 0, 1, static_cast<uint8_t>(c)};
  acc_ = 0;
  acc_bits_ = 0;
  width_ = kMinWidth;
  next_free_ = kFirstFree;
  prev_ = kNone;
  ended_ = false;
  failed_ = false;
}

namespace {

constexpr uint32_t kNoPos = UINT32_MAX;

// Writes the (up to) four bytes of `head`; the room for all four is checked
// by the caller, and those past the string are scratch.
inline void put_head(uint8_t *to, uint32_t head) {
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(to, &head, 4);
  } else {
    for (int k = 0; k < 4; ++k) to[k] = static_cast<uint8_t>(head >> (8 * k));
  }
}

// Copies a string that stands earlier in the output (ending at or before
// `to`), in 16-byte blocks when there are 16 bytes of room to spare; the bytes
// past `len` are scratch that later strings overwrite.
inline void copy_string(uint8_t *to, const uint8_t *from, size_t len, size_t room) {
  if (room >= len + 16) {
    // A block may reach past the string into bytes this copy writes: each one
    // goes through a register, read whole before it is written.
    for (size_t k = 0; k < len; k += 16) {
      uint8_t block[16];
      std::memcpy(block, from + k, 16);
      std::memcpy(to + k, block, 16);
    }
  } else {
    std::memcpy(to, from, len);
  }
}

}  // namespace

// Every string is the previous code's string plus one byte. Strings of up to
// four bytes are kept whole in their entries and written with one store; a
// longer one was written out earlier, and within one call its entry records
// where, so it is one copy from there. Entries made in earlier calls point into
// buffers we no longer have; those strings are rebuilt from the prefix chain.
size_t LzwDecoder::decode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap, const char *fn) noexcept {
  if (failed_) {
    ZT_LOG(kCompressModule, fn, "LZW stream already failed; end it before decoding more");
    return kFail;
  }
  if (ended_) return 0;
  uint64_t acc = acc_;
  uint32_t acc_bits = acc_bits_;
  uint32_t width = width_;
  uint32_t next_free = next_free_;
  uint32_t prev = prev_;
  uint32_t prev_pos = kNoPos;      // the previous code's output is not in this call's
  uint32_t local_min = next_free;  // entries from here on were made in this call
  Entry *const table = table_;
  size_t i = 0;
  size_t o = 0;
  const char *fault = nullptr;

  // Writes the string of `code` (an entry of `len` bytes) at dst + o.
  auto put_string = [&](uint32_t code, const Entry &e, size_t len) {
    if (len <= 4 && cap - o >= 4) {
      put_head(dst + o, e.head);
    } else if (code >= local_min && e.pos != kNoPos) {
      copy_string(dst + o, dst + e.pos, len, cap - o);
    } else {
      uint8_t *q = dst + o + len - 1;
      while (code >= 256) {
        *q-- = table[code].last;
        code = table[code].prefix;
      }
      *q = static_cast<uint8_t>(code);
    }
  };

  for (;;) {
    if (acc_bits < width) {
      if (n - i >= 4) {
        acc = (acc << 32) | load_be32(src + i);
        i += 4;
        acc_bits += 32;
      } else {
        while (acc_bits < width && i < n) {
          acc = (acc << 8) | src[i++];
          acc_bits += 8;
        }
        if (acc_bits < width) break;
      }
    }
    acc_bits -= width;
    const uint32_t code = static_cast<uint32_t>(acc >> acc_bits) & max_code(width);

    if (code == kClear) {
      width = kMinWidth;
      next_free = kFirstFree;
      prev = kNone;
      local_min = kFirstFree;
      continue;
    }
    if (code == kEnd) {
      ended_ = true;
      break;
    }
    if (prev == kNone) {
      if (code > 255) {
        fault = "LZW stream starts a table with a string code";
        break;
      }
      if (o >= cap) {
        fault = "";
        break;
      }
      dst[o] = static_cast<uint8_t>(code);
      prev = code;
      prev_pos = static_cast<uint32_t>(o);
      ++o;
      continue;
    }
    if (code > next_free) {
      fault = "LZW stream holds a code not yet defined";
      break;
    }
    if (next_free >= 4096) {
      fault = "LZW stream overflows the code table";
      break;
    }
    const Entry &p = table[prev];
    const size_t at = o;
    uint32_t first;
    if (code < next_free) {
      // Bytes (codes below 256) are one-byte entries, so they take the same
      // path as short strings, without a branch on which they are.
      const Entry &e = table[code];
      const size_t len = e.length;
      if (cap - o < len) {
        fault = "";
        break;
      }
      put_string(code, e, len);
      first = e.head & 0xFF;
      o += len;
    } else {
      // The string being defined: the previous one plus its own first byte.
      const size_t len = size_t{p.length} + 1;
      if (cap - o < len) {
        fault = "";
        break;
      }
      first = p.head & 0xFF;
      if (len <= 4 && cap - o >= 4) {
        put_head(dst + o, p.head | (first << (8 * p.length)));
      } else {
        if (prev_pos != kNoPos)
          copy_string(dst + o, dst + prev_pos, p.length, cap - o);
        else
          put_string(prev, p, p.length);
        dst[o + p.length] = static_cast<uint8_t>(first);
      }
      o += len;
    }
    const uint32_t head = p.length >= 4 ? p.head : p.head | (first << (8 * p.length));
    table[next_free] = Entry{prev_pos, head, static_cast<uint16_t>(prev), static_cast<uint16_t>(p.length + 1),
                             static_cast<uint8_t>(first)};
    ++next_free;
    prev = code;
    prev_pos = static_cast<uint32_t>(at);
    if (next_free + 1 > max_code(width) && width < kMaxWidth) ++width;
  }

  acc_ = acc;
  acc_bits_ = acc_bits;
  width_ = width;
  next_free_ = next_free;
  prev_ = prev;
  if (fault != nullptr) {
    failed_ = true;
    if (*fault == '\0')
      ZT_LOG(kCompressModule, fn, "Decompressed block does not fit in %zu bytes", cap);
    else
      ZT_LOG(kCompressModule, fn, "%s", fault);
    return kFail;
  }
  return o;
}

}  // namespace zt::raster
