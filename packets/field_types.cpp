// The field-type table and the operations its rows point to. Every operation
// reads the field where the class's row says it lies; widths are resolved at
// registration, so nothing here looks at a type number.
#include "packets/field_types.h"

#include "foundation/internal.h"
#include "packets/packets_internal.h"
#include "packets/text_codec.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace zt::packets {

namespace {

constexpr const char *kEncoder = "MakePacketDataFromItem";
constexpr const char *kDecoder = "MakeItemFromPacket";

// ---- shared helpers ------------------------------------------------------

uint32_t count_of(const Field &f, const void *item) {
  return load<const void *>(item, f.offset) == nullptr ? 0 : load<uint32_t>(item, f.offset2);
}

bool same_double(double a, double b) { return a == b || (std::isnan(a) && std::isnan(b)); }

bool same_string(const char *a, const char *b) { return std::strcmp(a ? a : "", b ? b : "") == 0; }

void log_array_short(int lineno, uint32_t tag, uint64_t expected) {
  ZT_LOG(kModule, kDecoder, "Packet lineno: %d tag: %x Array Expecting %d Elements, Data Ends Early", lineno, tag,
         static_cast<int>(static_cast<uint32_t>(expected)));
}

// The sub-class of a nested field, or NULL after logging from `function`.
const ClassInfo *sub_class_of(const RegistryReader &reg, const Field &f, const char *function) {
  const ClassInfo *sub = reg.lookup(f.sub_class);
  if (sub == nullptr) log_bad_class(function, f.sub_class);
  return sub;
}

// ---- values held in the item ---------------------------------------------

// T is the field as stored; signed fields are written sign-extended to 32 bits.
template <typename T>
int encode_int(const RegistryReader &, const Field &f, Writer &w, const void *item) {
  w.tag(f.tag);
  if constexpr (std::is_signed_v<T>)
    w.hex(static_cast<uint32_t>(static_cast<int32_t>(load<T>(item, f.offset))));
  else
    w.hex(load<T>(item, f.offset));
  w.ch('\n');
  return 0;
}

// Reading keeps the low bits of whatever the line holds.
template <typename T>
int decode_int(const RegistryReader &, const Field &f, Reader &, const Line &line, void *item) {
  const char *p = line.data;
  store<std::make_unsigned_t<T>>(item, f.offset,
                                 static_cast<std::make_unsigned_t<T>>(hex_value(p, line.data + line.data_len)));
  return 0;
}

int encode_declared(const RegistryReader &, const Field &f, Writer &w, const void *item) {
  w.tag(f.tag);
  w.hex(load_uint(static_cast<const char *>(item) + f.offset, f.width));
  w.ch('\n');
  return 0;
}

int decode_declared(const RegistryReader &, const Field &f, Reader &, const Line &line, void *item) {
  const char *p = line.data;
  store_uint(static_cast<char *>(item) + f.offset, f.width, hex_value(p, line.data + line.data_len));
  return 0;
}

bool compare_bytes(const RegistryReader &, const Field &f, const void *a, const void *b) {
  return std::memcmp(static_cast<const char *>(a) + f.offset, static_cast<const char *>(b) + f.offset, f.width) == 0;
}

int encode_double(const RegistryReader &, const Field &f, Writer &w, const void *item) {
  w.tag(f.tag);
  w.dbl(load<double>(item, f.offset));
  w.ch('\n');
  return 0;
}

int decode_double(const RegistryReader &, const Field &f, Reader &, const Line &line, void *item) {
  const char *p = line.data;
  store<double>(item, f.offset, parse_double(p, line.data + line.data_len));
  return 0;
}

bool compare_double(const RegistryReader &, const Field &f, const void *a, const void *b) {
  return same_double(load<double>(a, f.offset), load<double>(b, f.offset));
}

int encode_pair(const RegistryReader &, const Field &f, Writer &w, const void *item) {
  w.tag(f.tag);
  w.hex(load<uint32_t>(item, f.offset));
  w.ch(' ');
  w.hex(load<uint32_t>(item, f.offset2));
  w.ch('\n');
  return 0;
}

int decode_pair(const RegistryReader &, const Field &f, Reader &, const Line &line, void *item) {
  const char *p = line.data;
  const char *end = line.data + line.data_len;
  const uint32_t a = static_cast<uint32_t>(hex_value(p, end));
  skip_blanks(p, end);
  store<uint32_t>(item, f.offset, a);
  store<uint32_t>(item, f.offset2, static_cast<uint32_t>(hex_value(p, end)));
  return 0;
}

bool compare_pair(const RegistryReader &, const Field &f, const void *a, const void *b) {
  return load<uint32_t>(a, f.offset) == load<uint32_t>(b, f.offset) &&
         load<uint32_t>(a, f.offset2) == load<uint32_t>(b, f.offset2);
}

int encode_unexpected(const RegistryReader &, const Field &f, Writer &, const void *) {
  ZT_LOG(kModule, kEncoder, "TYPE: %d Unexpected in switch", static_cast<int>(f.number));
  return -1;
}

int decode_unexpected(const RegistryReader &, const Field &f, Reader &, const Line &, void *) {
  ZT_LOG(kModule, kDecoder, "TYPE: %d Unexpected in switch", static_cast<int>(f.number));
  return -1;
}

// ---- strings ----------------------------------------------------------

int encode_string(const RegistryReader &, const Field &f, Writer &w, const void *item) {
  const char *s = load<const char *>(item, f.offset);
  if (s == nullptr || *s == '\0') return 0;
  w.tag(f.tag);
  w.bytes(s, std::strlen(s));
  w.ch('\n');
  return 0;
}

void free_string(const RegistryReader &, const Field &f, void *item) {
  std::free(load<char *>(item, f.offset));
  store<char *>(item, f.offset, nullptr);
}

int decode_string(const RegistryReader &reg, const Field &f, Reader &, const Line &line, void *item) {
  free_string(reg, f, item);
  char *s = static_cast<char *>(std::malloc(line.data_len + 1));
  if (s == nullptr) {
    ZT_LOG_NOMEM(kModule, kDecoder, line.data_len + 1);
    return -1;
  }
  std::memcpy(s, line.data, line.data_len);
  s[line.data_len] = '\0';
  store<char *>(item, f.offset, s);
  return 0;
}

bool compare_string(const RegistryReader &, const Field &f, const void *a, const void *b) {
  return same_string(load<const char *>(a, f.offset), load<const char *>(b, f.offset));
}

bool copy_string(const RegistryReader &, const Field &f, const void *src, void *dst) {
  const char *s = load<const char *>(src, f.offset);
  if (s == nullptr) return true;
  char *copy = strdup(s);
  if (copy == nullptr) return false;
  store<char *>(dst, f.offset, copy);
  return true;
}

// ---- nested lists ----------------------------------------------------------

int encode_list_field(const RegistryReader &reg, const Field &f, Writer &w, const void *item) {
  const ZTListNode *list = load<const ZTListNode *>(item, f.offset);
  if (list == nullptr) return 0;
  const ClassInfo *sub = sub_class_of(reg, f, kEncoder);
  if (sub == nullptr) return -1;
  w.tag(f.tag);
  w.ch('0');
  w.ch('\n');
  return encode_list_text(reg, *sub, w, list);
}

void free_list_field(const RegistryReader &reg, const Field &f, void *item) {
  ZTListNode *list = load<ZTListNode *>(item, f.offset);
  if (list == nullptr) return;
  if (const ClassInfo *sub = reg.lookup(f.sub_class)) {
    free_list(reg, *sub, &list);
  } else {
    FreeList(&list);
  }
  store<ZTListNode *>(item, f.offset, nullptr);
}

int decode_list_field(const RegistryReader &reg, const Field &f, Reader &r, const Line &, void *item) {
  if (sub_class_of(reg, f, kDecoder) == nullptr) return -1;
  free_list_field(reg, f, item);
  bool ok = true;
  ZTListNode *list = decode_list_text(reg, r, f.sub_class, ok);
  if (!ok) return -1;
  store<ZTListNode *>(item, f.offset, list);
  return 0;
}

bool compare_list_field(const RegistryReader &reg, const Field &f, const void *a, const void *b) {
  const ClassInfo *sub = reg.lookup(f.sub_class);
  return sub != nullptr &&
         compare_lists(reg, *sub, load<const ZTListNode *>(a, f.offset), load<const ZTListNode *>(b, f.offset));
}

bool copy_list_field(const RegistryReader &reg, const Field &f, const void *src, void *dst) {
  const ClassInfo *sub = reg.lookup(f.sub_class);
  if (sub == nullptr) return false;
  bool ok = true;
  ZTListNode *copy = dup_list(reg, *sub, load<const ZTListNode *>(src, f.offset), ok);
  if (!ok) return false;
  store<ZTListNode *>(dst, f.offset, copy);
  return true;
}

// ---- runs of nested items ------------------------------------------------

int encode_run(const RegistryReader &reg, const Field &f, Writer &w, const void *item) {
  const char *run = load<const char *>(item, f.offset);
  const uint32_t count = load<uint32_t>(item, f.offset2);
  if (run == nullptr || count == 0) return 0;
  const ClassInfo *sub = sub_class_of(reg, f, kEncoder);
  if (sub == nullptr) return -1;
  w.tag(f.tag);
  w.hex(count);
  w.ch('\n');
  for (uint32_t i = 0; i < count; ++i) {
    if (encode_item_text(reg, *sub, w, run + static_cast<size_t>(i) * sub->item_size) != 0) return -1;
  }
  return 0;
}

void free_run(const RegistryReader &reg, const Field &f, void *item) {
  char *run = load<char *>(item, f.offset);
  if (run == nullptr) return;
  const uint32_t n = load<uint32_t>(item, f.offset2);
  if (const ClassInfo *sub = reg.lookup(f.sub_class))
    for (uint32_t i = 0; i < n; ++i) free_fields(reg, *sub, run + static_cast<size_t>(i) * sub->item_size);
  std::free(run);
  store<char *>(item, f.offset, nullptr);
  store<uint32_t>(item, f.offset2, 0);
}

int decode_run(const RegistryReader &reg, const Field &f, Reader &r, const Line &line, void *item) {
  const ClassInfo *sub = sub_class_of(reg, f, kDecoder);
  if (sub == nullptr) return -1;
  free_run(reg, f, item);
  const char *p = line.data;
  const uint64_t count = hex_value(p, line.data + line.data_len);
  // An item takes at least "SI x\nTI 0\n".
  if (count > r.remaining() / 10) {
    log_array_short(r.lineno(), f.tag, count);
    return -1;
  }
  // The run grows as items arrive, doubling up to the announced count, so
  // memory follows what the body holds and a long run costs few moves.
  const uint64_t size = sub->item_size;
  char *run = nullptr;
  uint64_t have = 0, capacity = 0;
  auto drop = [&] {
    for (uint64_t i = 0; i < have; ++i) free_fields(reg, *sub, run + i * size);
    std::free(run);
  };
  for (uint64_t i = 0; i < count; ++i) {
    void *one = decode_item_text(reg, r, f.sub_class);
    if (one == nullptr) {
      drop();
      return -1;
    }
    if (have == capacity) {
      const uint64_t want = capacity == 0 ? (count < 16 ? count : 16) : (capacity > count / 2 ? count : capacity * 2);
      uint64_t bytes = 0;
      char *grown = checked_mul(want, size, &bytes) ? static_cast<char *>(std::realloc(run, bytes)) : nullptr;
      if (grown == nullptr) {
        ZTPacketFreeItem(one, f.sub_class);
        drop();
        ZT_LOG_NOMEM(kModule, kDecoder, bytes);
        return -1;
      }
      run = grown;
      capacity = want;
    }
    std::memcpy(run + have * size, one, size);
    std::memset(run + have * size, 0, sizeof(ZTListNode));
    std::free(one);
    ++have;
  }
  store<char *>(item, f.offset, run);
  store<uint32_t>(item, f.offset2, static_cast<uint32_t>(have));
  return 0;
}

bool compare_run(const RegistryReader &reg, const Field &f, const void *a, const void *b) {
  const ClassInfo *sub = reg.lookup(f.sub_class);
  const uint32_t n = count_of(f, a);
  if (sub == nullptr || n != count_of(f, b)) return false;
  const char *ra = load<const char *>(a, f.offset), *rb = load<const char *>(b, f.offset);
  for (uint32_t i = 0; i < n; ++i)
    if (!compare_items(reg, *sub, ra + static_cast<size_t>(i) * sub->item_size,
                       rb + static_cast<size_t>(i) * sub->item_size))
      return false;
  return true;
}

bool copy_run(const RegistryReader &reg, const Field &f, const void *src, void *dst) {
  const ClassInfo *sub = reg.lookup(f.sub_class);
  const uint32_t n = count_of(f, src);
  if (sub == nullptr) return false;
  if (n == 0) return true;
  const char *run = load<const char *>(src, f.offset);
  char *copy = static_cast<char *>(std::calloc(n, sub->item_size));
  if (copy == nullptr) return false;
  store<char *>(dst, f.offset, copy);
  for (uint32_t i = 0; i < n; ++i) {
    const size_t at = static_cast<size_t>(i) * sub->item_size;
    std::memcpy(copy + at, run + at, sub->item_size);
    if (!dup_fields(reg, *sub, run + at, copy + at)) {
      // Later entries still alias the source; cut the run to what is ours.
      store<uint32_t>(dst, f.offset2, i + 1);
      return false;
    }
  }
  return true;
}

// ---- arrays of numbers and binary blocks ---------------------------------

template <bool kDoubles>
int encode_numbers(const RegistryReader &, const Field &f, Writer &w, const void *item) {
  const char *arr = load<const char *>(item, f.offset);
  const uint32_t count = load<uint32_t>(item, f.offset2);
  if (arr == nullptr || count == 0) return 0;
  w.tag(f.tag);
  w.hex(count);
  for (uint32_t i = 0; i < count; ++i) {
    w.ch(' ');
    if constexpr (kDoubles)
      w.dbl(load<double>(arr, i * 8));
    else
      w.hex(load_uint(arr + static_cast<size_t>(i) * f.width, f.width));
  }
  w.ch('\n');
  return 0;
}

void free_block(const RegistryReader &, const Field &f, void *item) {
  std::free(load<void *>(item, f.offset));
  store<void *>(item, f.offset, nullptr);
  store<uint32_t>(item, f.offset2, 0);
}

void store_empty(const Field &f, void *item) {
  store<void *>(item, f.offset, nullptr);
  store<uint32_t>(item, f.offset2, 0);
}

template <bool kDoubles>
int decode_numbers(const RegistryReader &reg, const Field &f, Reader &r, const Line &line, void *item) {
  free_block(reg, f, item);
  const char *p = line.data;
  const char *end = line.data + line.data_len;
  const uint64_t count = hex_value(p, end);
  // Every element needs a blank and a digit.
  if (count > line.data_len / 2) {
    log_array_short(r.lineno(), f.tag, count);
    return -1;
  }
  if (count == 0) {
    store_empty(f, item);
    return 0;
  }
  const uint64_t ew = f.width;
  uint64_t bytes = 0;
  char *arr = checked_mul(count, ew, &bytes) ? static_cast<char *>(std::malloc(bytes)) : nullptr;
  if (arr == nullptr) {
    ZT_LOG_NOMEM(kModule, kDecoder, bytes);
    return -1;
  }
  for (uint64_t i = 0; i < count; ++i) {
    skip_blanks(p, end);
    if (p >= end) {
      std::free(arr);
      log_array_short(r.lineno(), f.tag, count);
      return -1;
    }
    if constexpr (kDoubles) {
      const double d = parse_double(p, end);
      std::memcpy(arr + i * 8, &d, 8);
    } else {
      store_uint(arr + i * ew, f.width, hex_value(p, end));
    }
  }
  store<char *>(item, f.offset, arr);
  store<uint32_t>(item, f.offset2, static_cast<uint32_t>(count));
  return 0;
}

template <bool kDoubles>
bool compare_numbers(const RegistryReader &, const Field &f, const void *a, const void *b) {
  const uint32_t n = count_of(f, a);
  if (n != count_of(f, b)) return false;
  if (n == 0) return true;
  const char *pa = load<const char *>(a, f.offset), *pb = load<const char *>(b, f.offset);
  if constexpr (kDoubles) {
    for (uint32_t i = 0; i < n; ++i)
      if (!same_double(load<double>(pa, i * 8), load<double>(pb, i * 8))) return false;
    return true;
  } else {
    return std::memcmp(pa, pb, static_cast<size_t>(n) * f.width) == 0;
  }
}

bool copy_block(const RegistryReader &, const Field &f, const void *src, void *dst) {
  const uint32_t n = count_of(f, src);
  if (n == 0) return true;
  uint64_t bytes = 0;
  char *copy = checked_mul(n, f.width, &bytes) ? static_cast<char *>(std::malloc(bytes)) : nullptr;
  if (copy == nullptr) return false;
  std::memcpy(copy, load<const char *>(src, f.offset), bytes);
  store<char *>(dst, f.offset, copy);
  return true;
}

int encode_binary(const RegistryReader &, const Field &f, Writer &w, const void *item) {
  const auto *bin = load<const uint8_t *>(item, f.offset);
  const uint32_t count = load<uint32_t>(item, f.offset2);
  if (bin == nullptr || count == 0) return 0;
  w.tag(f.tag);
  w.hex(count);
  w.ch(' ');
  for (uint32_t i = 0; i < count; ++i) {
    w.ch(kHexDigits[bin[i] >> 4]);
    w.ch(kHexDigits[bin[i] & 15]);
  }
  w.ch('\n');
  return 0;
}

int decode_binary(const RegistryReader &reg, const Field &f, Reader &, const Line &line, void *item) {
  free_block(reg, f, item);
  const char *p = line.data;
  const char *end = line.data + line.data_len;
  const uint64_t count = hex_value(p, end);
  if (p < end) ++p;
  const size_t left = static_cast<size_t>(end - p);
  // A count whose digits do not fit 64 bits runs into the end of the line
  // like any other count the line cannot hold.
  uint64_t digits = 0;
  if (!checked_mul(count, 2, &digits)) digits = UINT64_MAX;
  for (uint64_t i = 0; i < digits && i <= left; ++i) {
    const uint8_t c = i < left ? static_cast<uint8_t>(p[i]) : '\n';
    if (!g_hex_valid[c]) {
      ZT_LOG(kModule, kDecoder,
             "BINARY Data Expecting %d Bytes Currrenty on: %d and encountered invalid character: %2.2x",
             static_cast<int>(count), static_cast<int>(i / 2), c);
      return -1;
    }
  }
  if (count == 0) {
    store_empty(f, item);
    return 0;
  }
  auto *bin = static_cast<uint8_t *>(std::malloc(count));
  if (bin == nullptr) {
    ZT_LOG_NOMEM(kModule, kDecoder, count);
    return -1;
  }
  for (uint64_t i = 0; i < count; ++i)
    bin[i] = static_cast<uint8_t>(g_hex_value[static_cast<uint8_t>(p[2 * i])] << 4 |
                                  g_hex_value[static_cast<uint8_t>(p[2 * i + 1])]);
  store<uint8_t *>(item, f.offset, bin);
  store<uint32_t>(item, f.offset2, static_cast<uint32_t>(count));
  return 0;
}

// ---- arrays of strings ---------------------------------------------------

// Each string as its length, a blank and its bytes; strings are separated by
// one blank, so strings may hold blanks.
int encode_strings(const RegistryReader &, const Field &f, Writer &w, const void *item) {
  char *const *strs = load<char *const *>(item, f.offset);
  const uint32_t count = load<uint32_t>(item, f.offset2);
  if (strs == nullptr || count == 0) return 0;
  w.tag(f.tag);
  w.hex(count);
  w.ch(' ');
  for (uint32_t i = 0; i < count; ++i) {
    const char *s = strs[i] ? strs[i] : "";
    const size_t n = std::strlen(s);
    if (i) w.ch(' ');
    w.hex(n);
    w.ch(' ');
    w.bytes(s, n);
  }
  w.ch('\n');
  return 0;
}

void free_strings(const RegistryReader &, const Field &f, void *item) {
  char **strs = load<char **>(item, f.offset);
  if (strs == nullptr) return;
  const uint32_t n = load<uint32_t>(item, f.offset2);
  for (uint32_t i = 0; i < n; ++i) std::free(strs[i]);
  std::free(strs);
  store<char **>(item, f.offset, nullptr);
  store<uint32_t>(item, f.offset2, 0);
}

int decode_strings(const RegistryReader &reg, const Field &f, Reader &r, const Line &line, void *item) {
  free_strings(reg, f, item);
  const char *p = line.data;
  const char *end = line.data + line.data_len;
  const uint64_t count = hex_value(p, end);
  if (p < end) ++p;
  if (count > 0 && p >= end) {
    ZT_LOG(kModule, kDecoder, "No Strings Found for String Array Packet line: <%*.*s>  With %d Elements",
           static_cast<int>(line.data_len), static_cast<int>(line.data_len), line.data, static_cast<int>(count));
    return -1;
  }
  // Each string costs at least its length digit and a blank.
  if (count > line.data_len / 2) {
    log_array_short(r.lineno(), f.tag, count);
    return -1;
  }
  if (count == 0) {
    store_empty(f, item);
    return 0;
  }
  uint64_t bytes = 0;
  char **strs =
      checked_mul(count, sizeof(char *), &bytes) ? static_cast<char **>(std::calloc(1, bytes)) : nullptr;
  if (strs == nullptr) {
    ZT_LOG_NOMEM(kModule, kDecoder, bytes);
    return -1;
  }
  // Stored at once so that a failure below frees through the field.
  store<char **>(item, f.offset, strs);
  store<uint32_t>(item, f.offset2, static_cast<uint32_t>(count));
  for (uint64_t i = 0; i < count; ++i) {
    if (i > 0) {
      if (p >= end || *p != ' ') {
        log_array_short(r.lineno(), f.tag, count);
        return -1;
      }
      ++p;
    }
    const uint64_t n = hex_value(p, end);
    if (p >= end || static_cast<uint64_t>(end - p - 1) < n) {
      log_array_short(r.lineno(), f.tag, count);
      return -1;
    }
    ++p;
    strs[i] = static_cast<char *>(std::malloc(n + 1));
    if (strs[i] == nullptr) {
      ZT_LOG_NOMEM(kModule, kDecoder, n + 1);
      return -1;
    }
    std::memcpy(strs[i], p, n);
    strs[i][n] = '\0';
    p += n;
  }
  return 0;
}

bool compare_strings(const RegistryReader &, const Field &f, const void *a, const void *b) {
  const uint32_t n = count_of(f, a);
  if (n != count_of(f, b)) return false;
  if (n == 0) return true;
  const auto *pa = load<const char *const *>(a, f.offset);
  const auto *pb = load<const char *const *>(b, f.offset);
  for (uint32_t i = 0; i < n; ++i)
    if (!same_string(pa[i], pb[i])) return false;
  return true;
}

bool copy_strings(const RegistryReader &, const Field &f, const void *src, void *dst) {
  const uint32_t n = count_of(f, src);
  if (n == 0) return true;
  const auto *from = load<const char *const *>(src, f.offset);
  auto **copy = static_cast<char **>(std::calloc(n, sizeof(char *)));
  if (copy == nullptr) return false;
  store<char **>(dst, f.offset, copy);
  for (uint32_t i = 0; i < n; ++i) {
    if (from[i] == nullptr) continue;
    copy[i] = strdup(from[i]);
    if (copy[i] == nullptr) return false;
  }
  return true;
}

// ---- the table -------------------------------------------------------------

constexpr uint32_t kPtr = sizeof(void *);
constexpr uint32_t kDeclared = 0;

// Rows that share a form differ only in their number and width.
constexpr FieldType u32_row(uint32_t number) {
  return {number, 4, Shape::kScalar, Owner::kItem, false, "Data:",
          encode_int<uint32_t>, decode_int<uint32_t>, nullptr, compare_bytes, nullptr};
}
constexpr FieldType u64_row(uint32_t number) {
  return {number, 8, Shape::kScalar, Owner::kItem, false, "Data:",
          encode_int<uint64_t>, decode_int<uint64_t>, nullptr, compare_bytes, nullptr};
}
constexpr FieldType numbers_row(uint32_t number, uint32_t width) {
  return {number, width, Shape::kArray, Owner::kPointer, true, "ATOMARRAY:",
          encode_numbers<false>, decode_numbers<false>, free_block, compare_numbers<false>, copy_block};
}

constexpr FieldType kTypes[32] = {
    {ZT_FT_END, 0, Shape::kNone, Owner::kItem, false, "Data:", nullptr, nullptr, nullptr, nullptr, nullptr},
    u32_row(ZT_FT_INT32),
    u32_row(ZT_FT_UINT32),
    {ZT_FT_INT16, 2, Shape::kScalar, Owner::kItem, false, "Data:",
     encode_int<int16_t>, decode_int<int16_t>, nullptr, compare_bytes, nullptr},
    {ZT_FT_INT8, 1, Shape::kScalar, Owner::kItem, false, "Data:",
     encode_int<int8_t>, decode_int<int8_t>, nullptr, compare_bytes, nullptr},
    u32_row(ZT_FT_UINT32B),
    {ZT_FT_UINT16, 2, Shape::kScalar, Owner::kItem, false, "Data:",
     encode_int<uint16_t>, decode_int<uint16_t>, nullptr, compare_bytes, nullptr},
    {ZT_FT_UINT8, 1, Shape::kScalar, Owner::kItem, false, "Data:",
     encode_int<uint8_t>, decode_int<uint8_t>, nullptr, compare_bytes, nullptr},
    {ZT_FT_DOUBLE, 8, Shape::kScalar, Owner::kItem, false, "Data:",
     encode_double, decode_double, nullptr, compare_double, nullptr},
    {ZT_FT_STRING, kPtr, Shape::kString, Owner::kPointer, false, "Data:",
     encode_string, decode_string, free_string, compare_string, copy_string},
    {ZT_FT_NONE, kPtr, Shape::kNone, Owner::kItem, false, "Data:",
     encode_unexpected, decode_unexpected, nullptr, nullptr, nullptr},
    {ZT_FT_LIST, kPtr, Shape::kList, Owner::kPointer, false, "LIST:",
     encode_list_field, decode_list_field, free_list_field, compare_list_field, copy_list_field},
    {ZT_FT_ITEMS, kPtr, Shape::kRun, Owner::kPointer, true, "ARRAY:",
     encode_run, decode_run, free_run, compare_run, copy_run},
    {ZT_FT_UINTW, kDeclared, Shape::kScalar, Owner::kItem, false, "Data:",
     encode_declared, decode_declared, nullptr, compare_bytes, nullptr},
    {ZT_FT_PAIR, 4, Shape::kScalar, Owner::kItem, true, "Data:",
     encode_pair, decode_pair, nullptr, compare_pair, nullptr},
    {ZT_FT_DOUBLE_ARRAY, 8, Shape::kArray, Owner::kPointer, true, "ATOMARRAY:",
     encode_numbers<true>, decode_numbers<true>, free_block, compare_numbers<true>, copy_block},
    numbers_row(ZT_FT_UINTW_ARRAY, kDeclared),
    numbers_row(ZT_FT_UINT32_ARRAY, 4),
    numbers_row(ZT_FT_UINT16_ARRAY, 2),
    numbers_row(ZT_FT_UINT8_ARRAY, 1),
    u32_row(ZT_FT_VALUE20),
    u32_row(ZT_FT_VALUE21),
    {ZT_FT_BINARY, 1, Shape::kArray, Owner::kPointer, true, "Data:",
     encode_binary, decode_binary, free_block, compare_numbers<false>, copy_block},
    {ZT_FT_STRING_ARRAY, kPtr, Shape::kArray, Owner::kPointer, true, "STRARRAY:",
     encode_strings, decode_strings, free_strings, compare_strings, copy_strings},
    u32_row(ZT_FT_UINT32C),
    u64_row(ZT_FT_INT64),
    u64_row(ZT_FT_INT64B),
    numbers_row(ZT_FT_ARRAY27, 4),
    u32_row(ZT_FT_VALUE28),
    u32_row(ZT_FT_VALUE29),
    numbers_row(ZT_FT_ARRAY30, 4),
    numbers_row(ZT_FT_ARRAY31, 4),
};

// The table is indexed by type number; a row out of place would give a field
// another type's coders.
constexpr bool rows_in_order() {
  for (uint32_t i = 0; i < 32; ++i)
    if (kTypes[i].number != i) return false;
  return true;
}
static_assert(rows_in_order(), "kTypes rows must stand at their type number");

}  // namespace

const FieldType *field_type(uint32_t number) {
  if (number == ZT_FT_END || number >= sizeof kTypes / sizeof kTypes[0]) return nullptr;
  return &kTypes[number];
}

uint32_t resolved_width(const FieldType &type, uint32_t declared) {
  if (type.width != kDeclared) return type.width;
  // Any declared width other than 1 or 2 bytes means 4.
  return declared == sizeof(uint8_t) || declared == sizeof(uint16_t) ? declared : uint32_t{sizeof(uint32_t)};
}

uint32_t field_bytes(const Field &f) { return f.type->shape == Shape::kScalar ? f.width : kPtr; }

}  // namespace zt::packets
