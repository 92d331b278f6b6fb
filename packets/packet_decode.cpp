// The decoder: body text back into items and lists. This file frames items
// and lists and finds each line's row; the row's type reads the value
// (packets/field_types.h). Every count in a body is checked against the bytes
// that are left before anything is allocated, so a body can never ask for
// much more memory than its own size.
#include "foundation/internal.h"
#include "packets/field_types.h"
#include "packets/packets_internal.h"
#include "packets/text_codec.h"

#include <zt/packets.h>

#include <cstdlib>

namespace zt::packets {

namespace {

bool tag_is(const Line &l, const char *two) { return l.tag_len == 2 && l.tag[0] == two[0] && l.tag[1] == two[1]; }

}  // namespace

void *decode_item_text(const RegistryReader &reg, Reader &r, uint32_t expected_class) {
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
      if (r.note_ignored_tag())
        ZT_LOG(kModule, fn,
               "Packet lineno: %d Tag %*.*s For Item Id %x(%s) Not Recognised (outside range) Ignoring This Tag",
               r.lineno(), n, n, line.tag, id, name);
      continue;
    }
    const int32_t row = cls->find(tag);
    if (row < 0) {
      if (r.note_ignored_tag())
        ZT_LOG(kModule, fn, "Packet lineno: %d tag: %x Not Found in For Item: %x(%s) Ignoring Tag", r.lineno(),
               static_cast<unsigned>(tag), id, name);
      continue;
    }
    const Field &f = cls->fields[static_cast<size_t>(row)];
    if (f.type->decode(reg, f, r, line, item) != 0) break;
  }
  free_fields(reg, *cls, item);
  std::free(item);
  return nullptr;
}

ZTListNode *decode_list_text(const RegistryReader &reg, Reader &r, uint32_t expected_class, bool &ok) {
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
    void *item = decode_item_text(reg, r, expected_class);
    if (item == nullptr) break;
    AddList(&list, static_cast<ZTListNode *>(item));
  }
  if (cls != nullptr) free_list(reg, *cls, &list);
  return nullptr;
}

namespace {

// The summary of the ignored tags that were not logged one by one.
void log_unlogged_tags(const Reader &r, const char *function) {
  if (const uint64_t more = r.unlogged_ignored_tags())
    ZT_LOG(kModule, function, "... and %llu more tags ignored", static_cast<unsigned long long>(more));
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
    void *item = decode_item_text(reg, r, class_number);
    log_unlogged_tags(r, "MakeItemFromPacket");
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
    ZTListNode *list = decode_list_text(reg, r, class_number, ok);
    log_unlogged_tags(r, "MakeListFromPacket");
    if (ok) pm->read_offset = static_cast<uint64_t>(r.position() - pm->data);
    return list;
  });
}

}  // extern "C"
