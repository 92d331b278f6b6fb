// The tagged-text form of items as the field types write and read it: the
// line writer, the line scanner and the hexadecimal helpers, and the item and
// list framing ("SI"/"TI", "SL"/"TL") that nested fields recurse into.
#pragma once

#include "foundation/internal.h"
#include "packets/packets_internal.h"

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>

namespace zt::packets {

inline constexpr const char kHexDigits[] = "0123456789abcdef";

// Lines are collected in an 8 KiB scratch buffer and handed to the packet
// memory in blocks, so a long list costs few appends.
class Writer {
 public:
  static constexpr size_t kScratch = 8192;

  explicit Writer(ZTPacketMemory *pm) : pm_(pm) { buf_.reserve(kScratch); }
  Writer(const Writer &) = delete;
  Writer &operator=(const Writer &) = delete;

  void hex(uint64_t v) {
    char tmp[16];
    int n = 0;
    do {
      tmp[n++] = kHexDigits[v & 15];
      v >>= 4;
    } while (v != 0);
    while (n > 0) buf_.push_back(tmp[--n]);
  }
  void dbl(double v) {
    char tmp[40];
    int n = std::snprintf(tmp, sizeof tmp, "%.14g", v);
    buf_.append(tmp, static_cast<size_t>(n));
  }
  void ch(char c) { buf_.push_back(c); }
  void bytes(const char *s, size_t n) { buf_.append(s, n); }
  void tag(uint32_t t) {
    hex(t);
    ch(' ');
  }
  void word(const char *w, uint64_t v) {
    buf_.append(w);
    ch(' ');
    hex(v);
    ch('\n');
  }
  // Hands full blocks to the packet memory.
  int end_line() {
    if (buf_.size() >= kScratch) return flush();
    return 0;
  }
  int flush() {
    if (buf_.empty()) return 0;
    int rc = AppendPacketMemory(pm_, buf_.data(), buf_.size());
    buf_.clear();
    return rc;
  }

 private:
  ZTPacketMemory *pm_;
  std::string buf_;
};

// One line of the body: the tag, and the data after the first blank.
struct Line {
  const char *tag;
  size_t tag_len;
  const char *data;
  size_t data_len;
};

class Reader {
 public:
  Reader(const char *p, const char *end) : p_(p), end_(end) {}
  bool at_end() const { return p_ >= end_; }
  int lineno() const { return lineno_; }
  const char *position() const { return p_; }
  size_t remaining() const { return static_cast<size_t>(end_ - p_); }

  // Cuts the next line; false (logged) when it has no tag, no data or no LF.
  bool next(Line &line) {
    ++lineno_;
    const char *start = p_;
    const char *lf = static_cast<const char *>(std::memchr(p_, '\n', remaining()));
    const char *stop = lf ? lf : end_;
    const char *space = static_cast<const char *>(std::memchr(start, ' ', static_cast<size_t>(stop - start)));
    const size_t line_len = static_cast<size_t>(stop - start);
    const char *fault = nullptr;
    if (space == start || (space == nullptr && stop == start)) {
      fault = "Packet lineno: %d No Tag Detected In Packet. Failed To Parse Data:%*.*s%s";
    } else if (space == nullptr || space + 1 == stop) {
      fault = "Packet lineno: %d No Data Detected In Packet. Failed To Parse Data:%*.*s%s";
    } else if (lf == nullptr) {
      fault = "Packet lineno: %d LF Missing In Packet. Failed To Parse Data:%*.*s%s";
    }
    if (fault != nullptr) {
      const int shown = static_cast<int>(line_len > 50 ? 50 : line_len);
      ZTLogMessage(kModule, "MakeItemFromPacket", 0, 1, 1, fault, lineno_, shown, shown, start,
                   line_len > 50 ? "..." : "");
      return false;
    }
    line.tag = start;
    line.tag_len = static_cast<size_t>(space - start);
    line.data = space + 1;
    line.data_len = static_cast<size_t>(stop - space - 1);
    p_ = lf + 1;
    return true;
  }
  // Ignored tags are counted per body: the first few are logged one by one,
  // the rest in one summary, so a hostile body cannot fill the log with a
  // record per line. True when this one is still to be logged.
  static constexpr uint64_t kLoggedIgnoredTags = 3;
  bool note_ignored_tag() { return ++ignored_tags_ <= kLoggedIgnoredTags; }
  uint64_t unlogged_ignored_tags() const {
    return ignored_tags_ > kLoggedIgnoredTags ? ignored_tags_ - kLoggedIgnoredTags : 0;
  }

  // Whether the next line's tag is `two` (two characters), without consuming it.
  bool peek_is(const char *two) const {
    return remaining() >= 3 && p_[0] == two[0] && p_[1] == two[1] && p_[2] == ' ';
  }

 private:
  const char *p_;
  const char *end_;
  int lineno_ = 0;
  uint64_t ignored_tags_ = 0;
};

// Digits until a blank or the end of the token; advances `p`.
inline uint64_t hex_value(const char *&p, const char *end) {
  uint64_t v = 0;
  while (p < end && *p != ' ' && *p != '\n') v = v * 16 + g_hex_value[static_cast<uint8_t>(*p++)];
  return v;
}

inline uint64_t hex_of(const char *p, size_t n) { return hex_value(p, p + n); }

inline void skip_blanks(const char *&p, const char *end) {
  while (p < end && *p == ' ') ++p;
}

inline double parse_double(const char *&p, const char *end) {
  const char *tok_end = p;
  while (tok_end < end && *tok_end != ' ' && *tok_end != '\n') ++tok_end;
  double v = 0;
  std::from_chars(p, tok_end, v);
  p = tok_end;
  return v;
}

// Unsigned integers of 1, 2 or 4 bytes (any other width is 4).
inline uint64_t load_uint(const void *p, uint32_t width) {
  if (width == sizeof(uint8_t)) return load<uint8_t>(p, 0);
  if (width == sizeof(uint16_t)) return load<uint16_t>(p, 0);
  return load<uint32_t>(p, 0);
}

inline void store_uint(void *p, uint32_t width, uint64_t v) {
  if (width == sizeof(uint8_t))
    store<uint8_t>(p, 0, static_cast<uint8_t>(v));
  else if (width == sizeof(uint16_t))
    store<uint16_t>(p, 0, static_cast<uint16_t>(v));
  else
    store<uint32_t>(p, 0, static_cast<uint32_t>(v));
}

// The framing, with the registry locked. The encoders return 0 or -1; the
// decoders give the new item or list, or NULL after logging (`ok` tells an
// empty list from a failure).
int encode_item_text(const RegistryReader &reg, const ClassInfo &cls, Writer &w, const void *item);
int encode_list_text(const RegistryReader &reg, const ClassInfo &cls, Writer &w, const ZTListNode *list);
void *decode_item_text(const RegistryReader &reg, Reader &r, uint32_t expected_class);
ZTListNode *decode_list_text(const RegistryReader &reg, Reader &r, uint32_t expected_class, bool &ok);

}  // namespace zt::packets
