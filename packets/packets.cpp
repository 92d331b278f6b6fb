// Items and lists as tagged text: the encoder and the decoder, both driven by
// the storage class's field table.
#include "foundation/internal.h"
#include "packets/packets_internal.h"

#include <zt/packets.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace zt::packets {

namespace {

constexpr size_t kScratch = 8192;

// Lines are collected in an 8 KiB scratch buffer and handed to the packet
// memory in blocks, so a long list costs few appends.
class Writer {
 public:
  explicit Writer(ZTPacketMemory *pm) : pm_(pm) { buf_.reserve(kScratch); }
  ~Writer() = default;
  Writer(const Writer &) = delete;
  Writer &operator=(const Writer &) = delete;

  void hex(uint64_t v) {
    char tmp[16];
    int n = 0;
    do {
      tmp[n++] = "0123456789abcdef"[v & 15];
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

int encode_item_w(const RegistryReader &reg, const ClassInfo &cls, Writer &w, const void *item);

int encode_list_w(const RegistryReader &reg, const ClassInfo &cls, Writer &w, const ZTListNode *list) {
  w.word("SL", cls.number);
  for (const ZTListNode *n = list; n != nullptr; n = n->next) {
    if (encode_item_w(reg, cls, w, n) != 0) return -1;
  }
  w.word("TL", 0);
  return w.end_line();
}

uint32_t element_width(uint32_t type, uint32_t width) {
  switch (type) {
    case 15: return 8;
    case 16: return width == 1 ? 1 : width == 2 ? 2 : 4;
    case 18: return 2;
    case 19: return 1;
    default: return 4;
  }
}

uint64_t load_uint(const void *p, uint32_t width) {
  switch (width) {
    case 1: return load<uint8_t>(p, 0);
    case 2: return load<uint16_t>(p, 0);
    default: return load<uint32_t>(p, 0);
  }
}

int encode_field(const RegistryReader &reg, const ZTFieldDesc &f, Writer &w, const void *item) {
  const uint32_t off = f.offset;
  switch (f.type) {
    case 1: case 2: case 5: case 20: case 21: case 24: case 28: case 29:
      w.tag(f.tag);
      w.hex(load<uint32_t>(item, off));
      break;
    case 3:
      w.tag(f.tag);
      w.hex(static_cast<uint32_t>(static_cast<int32_t>(load<int16_t>(item, off))));
      break;
    case 4:
      w.tag(f.tag);
      w.hex(static_cast<uint32_t>(static_cast<int32_t>(load<int8_t>(item, off))));
      break;
    case 6:
      w.tag(f.tag);
      w.hex(load<uint16_t>(item, off));
      break;
    case 7:
      w.tag(f.tag);
      w.hex(load<uint8_t>(item, off));
      break;
    case 13:
      w.tag(f.tag);
      w.hex(load_uint(static_cast<const char *>(item) + off, f.width == 1 || f.width == 2 ? f.width : 4));
      break;
    case 8:
      w.tag(f.tag);
      w.dbl(load<double>(item, off));
      break;
    case 25: case 26:
      w.tag(f.tag);
      w.hex(load<uint64_t>(item, off));
      break;
    case 9: {
      const char *s = load<const char *>(item, off);
      if (s == nullptr || *s == '\0') return 0;
      w.tag(f.tag);
      w.bytes(s, std::strlen(s));
      break;
    }
    case 14:
      w.tag(f.tag);
      w.hex(load<uint32_t>(item, off));
      w.ch(' ');
      w.hex(load<uint32_t>(item, f.offset2));
      break;
    case 11: {
      const ZTListNode *list = load<const ZTListNode *>(item, off);
      if (list == nullptr) return 0;
      const ClassInfo *sub = reg.lookup(f.sub_class);
      if (sub == nullptr) {
        log_bad_class("MakePacketDataFromItem", f.sub_class);
        return -1;
      }
      w.tag(f.tag);
      w.ch('0');
      w.ch('\n');
      return encode_list_w(reg, *sub, w, list);
    }
    case 12: {
      const char *run = load<const char *>(item, off);
      const uint32_t count = load<uint32_t>(item, f.offset2);
      if (run == nullptr || count == 0) return 0;
      const ClassInfo *sub = reg.lookup(f.sub_class);
      if (sub == nullptr) {
        log_bad_class("MakePacketDataFromItem", f.sub_class);
        return -1;
      }
      w.tag(f.tag);
      w.hex(count);
      w.ch('\n');
      for (uint32_t i = 0; i < count; ++i) {
        if (encode_item_w(reg, *sub, w, run + static_cast<size_t>(i) * sub->item_size) != 0) return -1;
      }
      return 0;
    }
    case 15: case 16: case 17: case 18: case 19: case 27: case 30: case 31: {
      const char *arr = load<const char *>(item, off);
      const uint32_t count = load<uint32_t>(item, f.offset2);
      if (arr == nullptr || count == 0) return 0;
      const uint32_t ew = element_width(f.type, f.width);
      w.tag(f.tag);
      w.hex(count);
      for (uint32_t i = 0; i < count; ++i) {
        w.ch(' ');
        if (f.type == 15)
          w.dbl(load<double>(arr, i * 8));
        else
          w.hex(load_uint(arr + static_cast<size_t>(i) * ew, ew));
      }
      break;
    }
    case 22: {
      const auto *bin = load<const uint8_t *>(item, off);
      const uint32_t count = load<uint32_t>(item, f.offset2);
      if (bin == nullptr || count == 0) return 0;
      w.tag(f.tag);
      w.hex(count);
      w.ch(' ');
      for (uint32_t i = 0; i < count; ++i) {
        w.ch("0123456789abcdef"[bin[i] >> 4]);
        w.ch("0123456789abcdef"[bin[i] & 15]);
      }
      break;
    }
    case 23: {
      // Each string as its length, a blank and its bytes; strings are
      // separated by one blank, so strings may hold blanks.
      char *const *strs = load<char *const *>(item, off);
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
      break;
    }
    case 10:
    default:
      ZT_LOG(kModule, "MakePacketDataFromItem", "TYPE: %d Unexpected in switch", static_cast<int>(f.type));
      return -1;
  }
  w.ch('\n');
  return w.end_line();
}

int encode_item_w(const RegistryReader &reg, const ClassInfo &cls, Writer &w, const void *item) {
  w.word("SI", cls.number);
  for (const ZTFieldDesc &f : cls.fields) {
    if (f.type > 31) continue;
    if (encode_field(reg, f, w, item) != 0) return -1;
  }
  w.word("TI", 0);
  return w.end_line();
}

}  // namespace

int encode_item(const RegistryReader &reg, const ClassInfo &cls, ZTPacketMemory *pm, const void *item) {
  Writer w(pm);
  if (encode_item_w(reg, cls, w, item) != 0) return -1;
  return w.flush();
}

int encode_list(const RegistryReader &reg, const ClassInfo &cls, ZTPacketMemory *pm, const ZTListNode *list) {
  Writer w(pm);
  if (encode_list_w(reg, cls, w, list) != 0) return -1;
  return w.flush();
}

}  // namespace zt::packets

using namespace zt::packets;

extern "C" {

ZT_API int32_t MakePacketDataFromItem(ZTPacketMemory *pm, const void *item, uint32_t class_number) {
  return zt::api_guard<int32_t>(kModule, "MakePacketDataFromItem", -1, [&]() -> int32_t {
    if (pm == nullptr || item == nullptr) {
      ZT_LOG(kModule, "MakePacketDataFromItem", "PacketMemory Struct  Is NULL No Processing Done");
      return -1;
    }
    RegistryReader reg;
    const ClassInfo *cls = reg.lookup(class_number);
    if (cls == nullptr) {
      log_bad_class("MakePacketDataFromItem", class_number);
      return -1;
    }
    return encode_item(reg, *cls, pm, item);
  });
}

ZT_API int32_t MakePacketDataFromList(ZTPacketMemory *pm, const ZTListNode *list, uint32_t class_number) {
  return zt::api_guard<int32_t>(kModule, "MakePacketDataFromList", -1, [&]() -> int32_t {
    if (pm == nullptr) {
      ZT_LOG(kModule, "MakePacketDataFromList", "PacketMemory Struct Is NULL No Processing Done");
      return -1;
    }
    RegistryReader reg;
    const ClassInfo *cls = reg.lookup(class_number);
    if (cls == nullptr) {
      log_bad_class("MakePacketDataFromList", class_number);
      return -1;
    }
    return encode_list(reg, *cls, pm, list);
  });
}

ZT_API int32_t MakeOnePacketDataListFromArrayLists(ZTPacketMemory *pm, ZTListNode *const *lists, uint32_t count,
                                                   uint32_t class_number) {
  return zt::api_guard<int32_t>(kModule, "MakeOnePacketDataListFromArrayLists", -1, [&]() -> int32_t {
    const char *fn = "MakeOnePacketDataListFromArrayLists";
    if (lists == nullptr) {
      ZT_LOG(kModule, fn, "Passed A NULL Array To Try And Make packet from");
      return -1;
    }
    if (pm == nullptr) {
      ZT_LOG(kModule, fn, "PacketMemory Struct Is NULL No Processing Done");
      return -1;
    }
    RegistryReader reg;
    const ClassInfo *cls = reg.lookup(class_number);
    if (cls == nullptr) {
      log_bad_class(fn, class_number);
      return -1;
    }
    Writer w(pm);
    w.word("SL", class_number);
    for (uint32_t i = 0; i < count; ++i)
      for (const ZTListNode *n = lists[i]; n != nullptr; n = n->next)
        if (encode_item_w(reg, *cls, w, n) != 0) return -1;
    w.word("TL", 0);
    return w.flush();
  });
}

}  // extern "C"
