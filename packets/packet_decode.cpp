// The decoder: body text back into items and lists. Every count in a body is
// checked against the bytes that are left before anything is allocated, so a
// body can never ask for much more memory than its own size.
#include "foundation/internal.h"
#include "packets/packets_internal.h"

#include <zt/packets.h>

#include <charconv>
#include <cstdlib>
#include <cstring>

namespace zt::packets {

namespace {

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
  // The next line's tag without consuming it ("" at the end).
  bool peek_is(const char *two) const {
    return remaining() >= 3 && p_[0] == two[0] && p_[1] == two[1] && p_[2] == ' ';
  }

 private:
  const char *p_;
  const char *end_;
  int lineno_ = 0;
};

bool tag_is(const Line &l, const char *two) { return l.tag_len == 2 && l.tag[0] == two[0] && l.tag[1] == two[1]; }

// Digits until a blank or the end of the token; advances `p`.
uint64_t hex_value(const char *&p, const char *end) {
  uint64_t v = 0;
  while (p < end && *p != ' ' && *p != '\n') v = v * 16 + g_hex_value[static_cast<uint8_t>(*p++)];
  return v;
}

uint64_t hex_of(const char *p, size_t n) { return hex_value(p, p + n); }

void skip_blanks(const char *&p, const char *end) {
  while (p < end && *p == ' ') ++p;
}

void store_uint(char *p, uint32_t width, uint64_t v) {
  switch (width) {
    case 1: *reinterpret_cast<uint8_t *>(p) = static_cast<uint8_t>(v); break;
    case 2: { uint16_t x = static_cast<uint16_t>(v); std::memcpy(p, &x, 2); break; }
    default: { uint32_t x = static_cast<uint32_t>(v); std::memcpy(p, &x, 4); break; }
  }
}

double parse_double(const char *&p, const char *end) {
  const char *tok_end = p;
  while (tok_end < end && *tok_end != ' ' && *tok_end != '\n') ++tok_end;
  double v = 0;
  std::from_chars(p, tok_end, v);
  p = tok_end;
  return v;
}

void log_array_short(int lineno, uint32_t tag, uint32_t expected) {
  ZT_LOG(kModule, "MakeItemFromPacket", "Packet lineno: %d tag: %x Array Expecting %d Elements, Data Ends Early",
         lineno, tag, static_cast<int>(expected));
}

void *decode_item(const RegistryReader &reg, Reader &r, uint32_t expected_class);
ZTListNode *decode_list(const RegistryReader &reg, Reader &r, uint32_t expected_class, bool &ok);

// Frees what a field held before a repeated tag overwrites it.
void release_field(const RegistryReader &reg, const ZTFieldDesc &f, void *item) { free_field(reg, f, item); }

int decode_field(const RegistryReader &reg, Reader &r, const ClassInfo &cls, const ZTFieldDesc &f, void *item,
                 const Line &line) {
  const char *p = line.data;
  const char *end = line.data + line.data_len;
  const uint32_t off = f.offset;
  switch (f.type) {
    case 1: case 2: case 5: case 20: case 21: case 24: case 28: case 29:
      store<uint32_t>(item, off, static_cast<uint32_t>(hex_value(p, end)));
      return 0;
    case 3: case 6:
      store<uint16_t>(item, off, static_cast<uint16_t>(hex_value(p, end)));
      return 0;
    case 4: case 7:
      store<uint8_t>(item, off, static_cast<uint8_t>(hex_value(p, end)));
      return 0;
    case 13:
      store_uint(static_cast<char *>(item) + off, f.width == 1 || f.width == 2 ? f.width : 4, hex_value(p, end));
      return 0;
    case 8:
      store<double>(item, off, parse_double(p, end));
      return 0;
    case 25: case 26:
      store<uint64_t>(item, off, hex_value(p, end));
      return 0;
    case 14: {
      const uint32_t a = static_cast<uint32_t>(hex_value(p, end));
      skip_blanks(p, end);
      store<uint32_t>(item, off, a);
      store<uint32_t>(item, f.offset2, static_cast<uint32_t>(hex_value(p, end)));
      return 0;
    }
    case 9: {
      release_field(reg, f, item);
      char *s = static_cast<char *>(std::malloc(line.data_len + 1));
      if (s == nullptr) {
        ZT_LOG_NOMEM(kModule, "MakeItemFromPacket", line.data_len + 1);
        return -1;
      }
      std::memcpy(s, line.data, line.data_len);
      s[line.data_len] = '\0';
      store<char *>(item, off, s);
      return 0;
    }
    case 11: {
      const ClassInfo *sub = reg.lookup(f.sub_class);
      if (sub == nullptr) {
        log_bad_class("MakeItemFromPacket", f.sub_class);
        return -1;
      }
      release_field(reg, f, item);
      bool ok = true;
      ZTListNode *list = decode_list(reg, r, f.sub_class, ok);
      if (!ok) return -1;
      store<ZTListNode *>(item, off, list);
      return 0;
    }
    case 12: {
      const ClassInfo *sub = reg.lookup(f.sub_class);
      if (sub == nullptr) {
        log_bad_class("MakeItemFromPacket", f.sub_class);
        return -1;
      }
      release_field(reg, f, item);
      const uint64_t count = hex_value(p, end);
      // An item takes at least "SI x\nTI 0\n".
      if (count > r.remaining() / 10) {
        log_array_short(r.lineno(), f.tag, static_cast<uint32_t>(count));
        return -1;
      }
      // The run grows as items arrive, so memory follows what the body holds.
      char *run = nullptr;
      uint32_t have = 0;
      auto drop = [&] {
        for (uint32_t i = 0; i < have; ++i) free_fields(reg, *sub, run + static_cast<size_t>(i) * sub->item_size);
        std::free(run);
      };
      for (uint64_t i = 0; i < count; ++i) {
        void *one = decode_item(reg, r, f.sub_class);
        if (one == nullptr) {
          drop();
          return -1;
        }
        char *grown = static_cast<char *>(std::realloc(run, static_cast<size_t>(have + 1) * sub->item_size));
        if (grown == nullptr) {
          ZTPacketFreeItem(one, f.sub_class);
          drop();
          ZT_LOG_NOMEM(kModule, "MakeItemFromPacket", static_cast<size_t>(have + 1) * sub->item_size);
          return -1;
        }
        run = grown;
        std::memcpy(run + static_cast<size_t>(have) * sub->item_size, one, sub->item_size);
        std::memset(run + static_cast<size_t>(have) * sub->item_size, 0, sizeof(ZTListNode));
        std::free(one);
        ++have;
      }
      store<char *>(item, off, run);
      store<uint32_t>(item, f.offset2, have);
      return 0;
    }
    case 15: case 16: case 17: case 18: case 19: case 27: case 30: case 31: {
      release_field(reg, f, item);
      const uint64_t count = hex_value(p, end);
      // Every element needs a blank and a digit.
      if (count > line.data_len / 2) {
        log_array_short(r.lineno(), f.tag, static_cast<uint32_t>(count));
        return -1;
      }
      const uint32_t ew = f.type == 15 ? 8
                          : f.type == 16 ? (f.width == 1 || f.width == 2 ? f.width : 4)
                          : f.type == 18 ? 2
                          : f.type == 19 ? 1
                                         : 4;
      if (count == 0) {
        store<void *>(item, off, nullptr);
        store<uint32_t>(item, f.offset2, 0);
        return 0;
      }
      char *arr = static_cast<char *>(std::calloc(count, ew));
      if (arr == nullptr) {
        ZT_LOG_NOMEM(kModule, "MakeItemFromPacket", count * ew);
        return -1;
      }
      for (uint64_t i = 0; i < count; ++i) {
        skip_blanks(p, end);
        if (p >= end) {
          std::free(arr);
          log_array_short(r.lineno(), f.tag, static_cast<uint32_t>(count));
          return -1;
        }
        if (f.type == 15) {
          double d = parse_double(p, end);
          std::memcpy(arr + i * 8, &d, 8);
        } else {
          store_uint(arr + i * ew, ew, hex_value(p, end));
        }
      }
      store<char *>(item, off, arr);
      store<uint32_t>(item, f.offset2, static_cast<uint32_t>(count));
      return 0;
    }
    case 22: {
      release_field(reg, f, item);
      const uint64_t count = hex_value(p, end);
      if (p < end) ++p;
      const size_t left = static_cast<size_t>(end - p);
      for (uint64_t i = 0; i < count * 2 && i <= left; ++i) {
        const uint8_t c = i < left ? static_cast<uint8_t>(p[i]) : '\n';
        if (!g_hex_valid[c]) {
          ZT_LOG(kModule, "MakeItemFromPacket",
                 "BINARY Data Expecting %d Bytes Currrenty on: %d and encountered invalid character: %2.2x",
                 static_cast<int>(count), static_cast<int>(i / 2), c);
          return -1;
        }
      }
      if (count == 0) {
        store<void *>(item, off, nullptr);
        store<uint32_t>(item, f.offset2, 0);
        return 0;
      }
      auto *bin = static_cast<uint8_t *>(std::malloc(count));
      if (bin == nullptr) {
        ZT_LOG_NOMEM(kModule, "MakeItemFromPacket", count);
        return -1;
      }
      for (uint64_t i = 0; i < count; ++i)
        bin[i] = static_cast<uint8_t>(g_hex_value[static_cast<uint8_t>(p[2 * i])] << 4 |
                                      g_hex_value[static_cast<uint8_t>(p[2 * i + 1])]);
      store<uint8_t *>(item, off, bin);
      store<uint32_t>(item, f.offset2, static_cast<uint32_t>(count));
      return 0;
    }
    case 23: {
      release_field(reg, f, item);
      const uint64_t count = hex_value(p, end);
      if (p < end) ++p;
      if (count > 0 && p >= end) {
        ZT_LOG(kModule, "MakeItemFromPacket",
               "No Strings Found for String Array Packet line: <%*.*s>  With %d Elements",
               static_cast<int>(line.data_len), static_cast<int>(line.data_len), line.data, static_cast<int>(count));
        return -1;
      }
      // Each string costs at least its length digit and a blank.
      if (count > line.data_len / 2) {
        log_array_short(r.lineno(), f.tag, static_cast<uint32_t>(count));
        return -1;
      }
      if (count == 0) {
        store<void *>(item, off, nullptr);
        store<uint32_t>(item, f.offset2, 0);
        return 0;
      }
      char **strs = static_cast<char **>(std::calloc(count, sizeof(char *)));
      if (strs == nullptr) {
        ZT_LOG_NOMEM(kModule, "MakeItemFromPacket", count * sizeof(char *));
        return -1;
      }
      // Stored at once so that a failure below frees through the field.
      store<char **>(item, off, strs);
      store<uint32_t>(item, f.offset2, static_cast<uint32_t>(count));
      for (uint64_t i = 0; i < count; ++i) {
        if (i > 0) {
          if (p >= end || *p != ' ') {
            log_array_short(r.lineno(), f.tag, static_cast<uint32_t>(count));
            return -1;
          }
          ++p;
        }
        const uint64_t n = hex_value(p, end);
        if (p >= end || static_cast<uint64_t>(end - p - 1) < n) {
          log_array_short(r.lineno(), f.tag, static_cast<uint32_t>(count));
          return -1;
        }
        ++p;
        strs[i] = static_cast<char *>(std::malloc(n + 1));
        if (strs[i] == nullptr) {
          ZT_LOG_NOMEM(kModule, "MakeItemFromPacket", n + 1);
          return -1;
        }
        std::memcpy(strs[i], p, n);
        strs[i][n] = '\0';
        p += n;
      }
      return 0;
    }
    default:
      ZT_LOG(kModule, "MakeItemFromPacket", "TYPE: %d Unexpected in switch", static_cast<int>(f.type));
      (void)cls;
      return -1;
  }
}

void *decode_item(const RegistryReader &reg, Reader &r, uint32_t expected_class) {
  const char *fn = "MakeItemFromPacket";
  Line line;
  if (r.at_end()) {
    ZT_LOG(kModule, fn, "Packet lineno: %d Routine: %d Attempted To Read A TAG at End Of Packet, End Marker Must Be Missing",
           r.lineno() + 1, 1);
    return nullptr;
  }
  if (!r.next(line)) return nullptr;
  const int tl = static_cast<int>(line.tag_len), dl = static_cast<int>(line.data_len);
  if (!tag_is(line, "SI")) {
    ZT_LOG(kModule, fn, "Packet lineno: %d Expecting Begin Item Tag of: %s Instead got tag:%*.*s data:%*.*s",
           r.lineno(), "SI", tl, tl, line.tag, dl, dl, line.data);
    return nullptr;
  }
  const uint64_t number = hex_of(line.data, line.data_len);
  const ClassInfo *cls = number <= 65535 ? reg.lookup(static_cast<uint32_t>(number)) : nullptr;
  if (cls == nullptr) {
    ZT_LOG(kModule, fn,
           "Packet lineno: %d Begin Item , Illegal Storage Class %d Detected. Tag: %*.*s Data: %*.*s Aborting",
           r.lineno(), static_cast<int>(number), tl, tl, line.tag, dl, dl, line.data);
    return nullptr;
  }
  if (cls->number != expected_class) {
    ZT_LOG(kModule, fn, "Specified Storage Class Of %d, But Item Had A Storage Class Of  %d",
           static_cast<int>(expected_class), static_cast<int>(cls->number));
    return nullptr;
  }
  void *item = alloc_item(*cls, kModule, fn);
  if (item == nullptr) return nullptr;
  const char *name = cls->name.c_str();
  const unsigned id = cls->number;
  for (;;) {
    if (r.at_end()) {
      ZT_LOG(kModule, fn,
             "Packet lineno: %d Routine: %d Attempted To Read A TAG at End Of Packet, End Marker Must Be Missing",
             r.lineno() + 1, 1);
      break;
    }
    if (!r.next(line)) break;
    if (line.tag_len == 2) {
      if (tag_is(line, "TI")) return item;
      const char *abort_msg = nullptr;
      if (tag_is(line, "SI")) abort_msg = "Packet lineno: %d For Item Id %x(%s), Got Begin Item Tag. Expected TI TAG. Aborting";
      if (tag_is(line, "SL")) abort_msg = "Packet lineno: %d For Item Id %x(%s), Got Begin List Tag. Expected TI TAG. Aborting";
      if (tag_is(line, "TL")) abort_msg = "Packet lineno: %d For Item Id %x(%s), Got End List Tag. Expeced TI TAG. Aborting";
      if (abort_msg != nullptr) {
        ZTLogMessage(kModule, fn, 0, 1, 1, abort_msg, r.lineno(), id, name);
        break;
      }
    }
    const uint64_t tag = hex_of(line.tag, line.tag_len);
    if (tag == 0 || tag > cls->max_tag || line.tag_len > 16) {
      const int n = static_cast<int>(line.tag_len);
      ZT_LOG(kModule, fn, "Packet lineno: %d Tag %*.*s For Item Id %x(%s) Not Recognised (outside range) Ignoring This Tag",
             r.lineno(), n, n, line.tag, id, name);
      continue;
    }
    const int32_t row = cls->find(tag);
    if (row < 0) {
      ZT_LOG(kModule, fn, "Packet lineno: %d tag: %x Not Found in For Item: %x(%s) Ignoring Tag", r.lineno(),
             static_cast<unsigned>(tag), id, name);
      continue;
    }
    if (decode_field(reg, r, *cls, cls->fields[static_cast<size_t>(row)], item, line) != 0) break;
  }
  free_fields(reg, *cls, item);
  std::free(item);
  return nullptr;
}

ZTListNode *decode_list(const RegistryReader &reg, Reader &r, uint32_t expected_class, bool &ok) {
  const char *fn = "MakeListFromPacket";
  ok = false;
  Line line;
  if (r.at_end()) {
    ZT_LOG(kModule, fn, "Packet lineno: %d Routine: %d Attempted To Read A TAG at End Of Packet, End Marker Must Be Missing",
           r.lineno() + 1, 2);
    return nullptr;
  }
  if (!r.next(line)) return nullptr;
  const int tl = static_cast<int>(line.tag_len), dl = static_cast<int>(line.data_len);
  if (!tag_is(line, "SL")) {
    ZT_LOG(kModule, fn, "Packet line no: %d, Expecting Start list Tag of: %s Instead got tag:%*.*s Data:%*.*s",
           r.lineno(), "SL", tl, tl, line.tag, dl, dl, line.data);
    return nullptr;
  }
  const uint64_t number = hex_of(line.data, line.data_len);
  if (number != expected_class) {
    ZT_LOG(kModule, fn, "Specified Storage Class Of %d, But list Items Have A Storage Class  Of %d",
           static_cast<int>(expected_class), static_cast<int>(number));
    return nullptr;
  }
  const ClassInfo *cls = reg.lookup(expected_class);
  ZTListNode *list = nullptr;
  for (;;) {
    if (r.at_end()) {
      ZT_LOG(kModule, fn,
             "Packet lineno: %d Routine: %d Attempted To Read A TAG at End Of Packet, End Marker Must Be Missing",
             r.lineno() + 1, 2);
      break;
    }
    if (r.peek_is("TL")) {
      if (!r.next(line)) break;
      ok = true;
      return list;
    }
    void *item = decode_item(reg, r, expected_class);
    if (item == nullptr) break;
    AddList(&list, static_cast<ZTListNode *>(item));
  }
  if (cls != nullptr) free_list(reg, *cls, &list);
  return nullptr;
}

Reader reader_of(const ZTPacketMemory *pm) {
  const char *start = pm->data != nullptr ? pm->data + pm->read_offset : nullptr;
  const char *end = pm->data != nullptr ? pm->data + pm->body_length : nullptr;
  if (start > end) start = end;
  return Reader(start, end);
}

}  // namespace

}  // namespace zt::packets

using namespace zt::packets;

extern "C" {

ZT_API void *MakeItemFromPacket(ZTPacketMemory *pm, uint32_t class_number) {
  return zt::api_guard<void *>(kModule, "MakeItemFromPacket", nullptr, [&]() -> void * {
    if (pm == nullptr) {
      ZT_LOG(kModule, "MakeItemFromPacket", "PacketMemory Struct  Is NULL No Processing Done");
      return nullptr;
    }
    RegistryReader reg;
    if (reg.lookup(class_number) == nullptr) {
      log_bad_class("MakeItemFromPacket", class_number);
      return nullptr;
    }
    Reader r = reader_of(pm);
    void *item = decode_item(reg, r, class_number);
    if (item != nullptr) pm->read_offset = static_cast<uint64_t>(r.position() - pm->data);
    return item;
  });
}

ZT_API ZTListNode *MakeListFromPacket(ZTPacketMemory *pm, uint32_t class_number) {
  return zt::api_guard<ZTListNode *>(kModule, "MakeListFromPacket", nullptr, [&]() -> ZTListNode * {
    if (pm == nullptr) {
      ZT_LOG(kModule, "MakeListFromPacket", "PacketMemory Struct Is NULL No Processing Done");
      return nullptr;
    }
    RegistryReader reg;
    if (reg.lookup(class_number) == nullptr) {
      log_bad_class("MakeListFromPacket", class_number);
      return nullptr;
    }
    Reader r = reader_of(pm);
    bool ok = false;
    ZTListNode *list = decode_list(reg, r, class_number, ok);
    if (ok) pm->read_offset = static_cast<uint64_t>(r.position() - pm->data);
    return list;
  });
}

}  // extern "C"
