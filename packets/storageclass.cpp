// The storage-class registry: numbered field tables that drive encoding and
// decoding, the built-in classes, and the packet subsystem's start-up.
#include "foundation/globals_internal.h"
#include "foundation/internal.h"
#include "packets/packets_internal.h"

#include <zt/packets.h>
#include <zt/threads.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <mutex>

struct ZTStorageClasses {
  pthread_rwlock_t lock;
  std::vector<std::unique_ptr<zt::packets::ClassInfo>> table;  // index = class number
  uint32_t highest = 0;
};

namespace zt::packets {

uint8_t g_hex_value[256];
uint8_t g_hex_valid[256];

namespace {

constexpr uint32_t kMaxClass = 65535;
// Tags index a dense table; one above this would make it large for no gain.
constexpr uint32_t kMaxTag = 65535;

constinit std::mutex g_current_mutex;
constinit std::atomic<ZTStorageClasses *> g_current{nullptr};
// The registry that start-up made, released at shut-down.
constinit ZTStorageClasses *g_owned = nullptr;

// Bytes that a field occupies at `offset` (and at offset2 where used), for the
// bounds check at registration.
uint32_t field_bytes(const ZTFieldDesc &f) {
  switch (f.type) {
    case 1: case 2: case 5: case 20: case 21: case 24: case 28: case 29: return 4;
    case 3: case 6: return 2;
    case 4: case 7: return 1;
    case 8: case 25: case 26: return 8;
    case 13: return f.width == 1 ? 1 : f.width == 2 ? 2 : 4;
    case 14: return 4;
    default: return sizeof(void *);
  }
}

bool uses_offset2(uint32_t type) {
  switch (type) {
    case 12: case 14: case 15: case 16: case 17: case 18: case 19: case 22: case 23: case 27:
    case 30: case 31:
      return true;
    default:
      return false;
  }
}

// Lower-level add into a given registry, under its write lock.
int add_class(ZTStorageClasses *reg, const ZTStorageClassDesc *d, uint32_t number) {
  const char *fn = "ZTAddStorageClass";
  if (d == nullptr || number > kMaxClass) {
    ZT_LOG(kModule, fn, "StorageClass: %d Not Decodable By System", static_cast<int>(number));
    return -1;
  }
  auto info = std::make_unique<ClassInfo>();
  info->number = number;
  info->item_size = d->item_size;
  info->name = d->name ? d->name : "";
  info->extra1 = d->extra1 ? d->extra1 : "";
  info->extra2 = d->extra2 ? d->extra2 : "";
  if (d->item_size < sizeof(ZTListNode)) {
    ZT_LOG(kModule, fn, "Storage Class %d: item size %u cannot hold the list node", static_cast<int>(number),
           d->item_size);
    return -1;
  }
  size_t rows = 0;
  while (d->fields != nullptr && rows < d->field_count && d->fields[rows].type != 0) ++rows;
  info->fields.assign(d->fields, d->fields + rows);
  info->names.reserve(rows);
  for (auto &f : info->fields) {
    info->names.emplace_back(f.name ? f.name : "");
  }
  for (size_t i = 0; i < rows; ++i) info->fields[i].name = info->names[i].c_str();

  std::lock_guard<std::mutex> serial(g_current_mutex);
  ZT_LOCK_WRITE(&reg->lock);
  struct Unlock {
    ZTStorageClasses *r;
    ~Unlock() { ZT_UNLOCK_WRITE(&r->lock); }
  } unlock{reg};

  if (number < reg->table.size() && reg->table[number]) {
    ZT_LOG(kModule, fn, "Storage Class of %d Already Exists", static_cast<int>(number));
    return -1;
  }
  for (size_t i = 0; i < rows; ++i) {
    const ZTFieldDesc &f = info->fields[i];
    if (f.type > 31) continue;
    if (f.type == 11 || f.type == 12) {
      if (f.sub_class >= reg->table.size() || !reg->table[f.sub_class]) {
        ZT_LOG(kModule, fn,
               "Storage Class: %d at entry: %d Refers  To An Unitialised StorageClass of: %d ALL Refererd to "
               "Classes Must Be Added Beforehand",
               static_cast<int>(number), static_cast<int>(i), static_cast<int>(f.sub_class));
        return -1;
      }
    }
    // Decoding writes where the table says; a row that points outside the
    // item would let a body write past it.
    bool bad = f.tag == 0 || f.tag > kMaxTag ||
               static_cast<uint64_t>(f.offset) + field_bytes(f) > d->item_size ||
               (uses_offset2(f.type) && static_cast<uint64_t>(f.offset2) + 4 > d->item_size);
    if (!bad) {
      for (size_t j = 0; j < i; ++j)
        if (info->fields[j].tag == f.tag && info->fields[j].type <= 31) bad = true;
    }
    if (bad) {
      ZT_LOG(kModule, fn, "Storage Class: %d at entry: %d has an invalid tag or offset", static_cast<int>(number),
             static_cast<int>(i));
      return -1;
    }
    if (f.tag > info->max_tag) info->max_tag = f.tag;
  }
  info->by_tag.assign(static_cast<size_t>(info->max_tag) + 1, -1);
  for (size_t i = 0; i < rows; ++i)
    if (info->fields[i].type <= 31) info->by_tag[info->fields[i].tag] = static_cast<int32_t>(i);
  if (number >= reg->table.size()) reg->table.resize(static_cast<size_t>(number) + 1);
  reg->table[number] = std::move(info);
  if (number > reg->highest) reg->highest = number;
  return 0;
}

#define ZT_F(type, tag, name, width, sub, st, member, count)                                          \
  ZTFieldDesc {                                                                                      \
    type, tag, name, width, sub, 0, 0, static_cast<uint32_t>(offsetof(st, member)),                  \
        static_cast<uint32_t>(count)                                                                 \
  }
#define ZT_OFF(st, member) offsetof(st, member)

int add_builtins(ZTStorageClasses *reg) {
  const ZTFieldDesc request[] = {
      ZT_F(5, 1, "Command", 0, 0, ZTRequestItem, command, 0),
      ZT_F(5, 2, "Flags", 0, 0, ZTRequestItem, flags, 0),
      ZT_F(5, 3, "DataClass", 0, 0, ZTRequestItem, data_class, 0),
      ZT_F(1, 4, "JobNumber", 0, 0, ZTRequestItem, job_number, 0),
      ZT_F(9, 5, "User", 0, 0, ZTRequestItem, user, 0),
      ZT_F(25, 6, "Time", 0, 0, ZTRequestItem, time, 0),
      ZTFieldDesc{}};
  const ZTFieldDesc child[] = {
      ZT_F(5, 1, "Id", 0, 0, ZTTestChild, id, 0),
      ZT_F(9, 2, "Label", 0, 0, ZTTestChild, label, 0),
      ZT_F(8, 3, "Value", 0, 0, ZTTestChild, value, 0),
      ZTFieldDesc{}};
  using A = ZTTestAll;
  const ZTFieldDesc all[] = {
      ZT_F(1, 1, "Int32", 0, 0, A, t1, 0),
      ZT_F(2, 2, "UInt32", 0, 0, A, t2, 0),
      ZT_F(3, 3, "Int16", 0, 0, A, t3, 0),
      ZT_F(4, 4, "Int8", 0, 0, A, t4, 0),
      ZT_F(5, 5, "UInt32b", 0, 0, A, t5, 0),
      ZT_F(6, 6, "UInt16", 0, 0, A, t6, 0),
      ZT_F(7, 7, "UInt8", 0, 0, A, t7, 0),
      ZT_F(8, 8, "Double", 0, 0, A, t8, 0),
      ZT_F(9, 9, "String", 0, 0, A, t9, 0),
      ZT_F(11, 0x11, "ChildList", 0, ZT_CLASS_TEST_CHILD, A, t11, 0),
      ZT_F(12, 0x12, "ChildRun", 0, ZT_CLASS_TEST_CHILD, A, t12, ZT_OFF(A, t12_count)),
      ZT_F(13, 0x13, "Width2", 2, 0, A, t13, 0),
      ZT_F(14, 0x14, "Pair", 0, 0, A, t14a, ZT_OFF(A, t14b)),
      ZT_F(15, 0x15, "Doubles", 0, 0, A, t15, ZT_OFF(A, t15_count)),
      ZT_F(16, 0x16, "Width2Array", 2, 0, A, t16, ZT_OFF(A, t16_count)),
      ZT_F(17, 0x17, "UInt32Array", 0, 0, A, t17, ZT_OFF(A, t17_count)),
      ZT_F(18, 0x18, "UInt16Array", 0, 0, A, t18, ZT_OFF(A, t18_count)),
      ZT_F(19, 0x19, "UInt8Array", 0, 0, A, t19, ZT_OFF(A, t19_count)),
      ZT_F(20, 0x20, "Value20", 0, 0, A, t20, 0),
      ZT_F(21, 0x21, "Value21", 0, 0, A, t21, 0),
      ZT_F(22, 0x22, "Binary", 0, 0, A, t22, ZT_OFF(A, t22_count)),
      ZT_F(23, 0x23, "Strings", 0, 0, A, t23, ZT_OFF(A, t23_count)),
      ZT_F(24, 0x24, "UInt32c", 0, 0, A, t24, 0),
      ZT_F(25, 0x25, "Int64", 0, 0, A, t25, 0),
      ZT_F(26, 0x26, "Int64b", 0, 0, A, t26, 0),
      ZT_F(27, 0x27, "Array27", 0, 0, A, t27, ZT_OFF(A, t27_count)),
      ZT_F(28, 0x28, "Value28", 0, 0, A, t28, 0),
      ZT_F(29, 0x29, "Value29", 0, 0, A, t29, 0),
      ZT_F(30, 0x30, "Array30", 0, 0, A, t30, ZT_OFF(A, t30_count)),
      ZT_F(31, 0x31, "Array31", 0, 0, A, t31, ZT_OFF(A, t31_count)),
      ZTFieldDesc{}};
  using R = ZTTestRecord;
  const ZTFieldDesc record[] = {
      ZT_F(5, 1, "JobNumber", 0, 0, R, job_number, 0),
      ZT_F(9, 2, "Name", 0, 0, R, name, 0),
      ZT_F(9, 3, "Owner", 0, 0, R, owner, 0),
      ZT_F(9, 4, "Media", 0, 0, R, media, 0),
      ZT_F(1, 5, "Copies", 0, 0, R, copies, 0),
      ZT_F(6, 6, "Priority", 0, 0, R, priority, 0),
      ZT_F(7, 7, "State", 0, 0, R, state, 0),
      ZT_F(8, 8, "WidthMM", 0, 0, R, width_mm, 0),
      ZT_F(8, 9, "HeightMM", 0, 0, R, height_mm, 0),
      ZT_F(25, 0xa, "Submitted", 0, 0, R, submitted, 0),
      ZT_F(17, 0xb, "InkLimits", 0, 0, R, ink_limits, ZT_OFF(R, ink_count)),
      ZTFieldDesc{}};
  auto desc = [](uint32_t n, uint32_t size, const ZTFieldDesc *f, uint32_t rows, const char *name) {
    return ZTStorageClassDesc{n, size, f, rows, name, "", ""};
  };
  const ZTStorageClassDesc descs[] = {
      desc(ZT_CLASS_REQUEST, sizeof(ZTRequestItem), request, 7, "Request"),
      desc(ZT_CLASS_TEST_CHILD, sizeof(ZTTestChild), child, 4, "TestChild"),
      desc(ZT_CLASS_TEST_ALL, sizeof(ZTTestAll), all, sizeof(all) / sizeof(all[0]), "TestAll"),
      desc(ZT_CLASS_TEST_RECORD, sizeof(ZTTestRecord), record, sizeof(record) / sizeof(record[0]), "TestRecord"),
  };
  for (const auto &d : descs)
    if (add_class(reg, &d, d.class_number) != 0) return -1;
  return 0;
}

}  // namespace

void fill_hex_tables() {
  for (int c = 0; c < 256; ++c) {
    int v = -1;
    if (c >= '0' && c <= '9') v = c - '0';
    if (c >= 'a' && c <= 'f') v = c - 'a' + 10;
    if (c >= 'A' && c <= 'F') v = c - 'A' + 10;
    g_hex_value[c] = static_cast<uint8_t>(v < 0 ? 0 : v);
    g_hex_valid[c] = v >= 0;
  }
}

void log_bad_class(const char *function, uint32_t class_number) {
  ZT_LOG(kModule, function, "StorageClass: %d Not Decodable By System", static_cast<int>(class_number));
}

RegistryReader::RegistryReader() {
  // The current registry is replaced only at start-up and shut-down, never
  // while records are being coded.
  registry_ = g_current.load(std::memory_order_acquire);
  if (registry_ != nullptr) ZT_LOCK_READ(&registry_->lock);
}

RegistryReader::~RegistryReader() {
  if (registry_ != nullptr) ZT_UNLOCK_READ(&registry_->lock);
}

const ClassInfo *RegistryReader::lookup(uint32_t class_number) const {
  if (registry_ == nullptr || class_number > registry_->highest || class_number >= registry_->table.size())
    return nullptr;
  return registry_->table[class_number].get();
}

}  // namespace zt::packets

using namespace zt::packets;

void zt::packets::release_globals(ZTGlobals *globals) {
  // The lists go first: freeing them reads their classes' field tables.
  constexpr uint32_t kListClasses[3] = {12, 18, 22};
  for (int i = 0; i < 3; ++i) {
    ZTPacketFreeList(&globals->packet_lists[i].list, kListClasses[i]);
    std::free(globals->packet_lists[i].side_buffer);
    globals->packet_lists[i].side_buffer = nullptr;
  }
  if (globals->storage_classes != nullptr)
    ZTDestroyStorageClasses(static_cast<ZTStorageClasses *>(globals->storage_classes));
  globals->storage_classes = nullptr;
}

extern "C" {

ZT_API ZTStorageClasses *ZTInitStorageClasses(void) {
  return zt::api_guard<ZTStorageClasses *>(kModule, "ZTInitStorageClasses", nullptr, []() -> ZTStorageClasses * {
    auto reg = std::make_unique<ZTStorageClasses>();
    ZT_LOCK_INIT(&reg->lock);
    if (add_builtins(reg.get()) != 0) {
      ZT_LOCK_DESTROY(&reg->lock);
      return nullptr;
    }
    std::lock_guard<std::mutex> guard(g_current_mutex);
    ZTStorageClasses *expected = nullptr;
    g_current.compare_exchange_strong(expected, reg.get());
    return reg.release();
  });
}

ZT_API void ZTDestroyStorageClasses(ZTStorageClasses *classes) {
  if (classes == nullptr) return;
  {
    std::lock_guard<std::mutex> guard(g_current_mutex);
    ZTStorageClasses *expected = classes;
    g_current.compare_exchange_strong(expected, nullptr);
    if (g_owned == classes) g_owned = nullptr;
  }
  ZT_LOCK_DESTROY(&classes->lock);
  delete classes;
}

ZT_API int32_t ZTAddStorageClass(const ZTStorageClassDesc *description, uint32_t class_number) {
  return zt::api_guard<int32_t>(kModule, "ZTAddStorageClass", -1, [&]() -> int32_t {
    ZTStorageClasses *reg = g_current.load();
    if (reg == nullptr) {
      log_bad_class("ZTAddStorageClass", class_number);
      return -1;
    }
    return add_class(reg, description, class_number);
  });
}

ZT_API int32_t ZTStorageClassExists(uint32_t class_number) {
  RegistryReader reader;
  return reader.lookup(class_number) != nullptr ? 1 : 0;
}

ZT_API void ZT_packetsInitSubSystem(void) {
  fill_hex_tables();
  {
    std::lock_guard<std::mutex> guard(g_current_mutex);
    if (g_owned != nullptr) return;
  }
  ZTStorageClasses *reg = ZTInitStorageClasses();
  std::lock_guard<std::mutex> guard(g_current_mutex);
  g_owned = reg;
}

ZT_API void ZT_packetsDeInitSubSystem(void) {
  ZTStorageClasses *reg = nullptr;
  {
    std::lock_guard<std::mutex> guard(g_current_mutex);
    reg = g_owned;
  }
  ZTDestroyStorageClasses(reg);
}

}  // extern "C"
