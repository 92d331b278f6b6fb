// The storage-class registry: numbered field tables that drive encoding and
// decoding, the built-in classes, and the packet subsystem's start-up.
#include "foundation/globals_internal.h"
#include "foundation/internal.h"
#include "packets/field_types.h"
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
  while (d->fields != nullptr && rows < d->field_count && d->fields[rows].type != ZT_FT_END) ++rows;

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
  // Rows of types above the table are kept out: nothing reads them.
  info->fields.reserve(rows);
  info->names.reserve(rows);
  for (size_t i = 0; i < rows; ++i) {
    const ZTFieldDesc &row = d->fields[i];
    const FieldType *type = field_type(row.type);
    if (type == nullptr) continue;
    const Field f{type, row.type, row.tag, nullptr, resolved_width(*type, row.width), row.sub_class, row.offset,
                  row.offset2};
    if (type->shape == Shape::kList || type->shape == Shape::kRun) {
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
               (type->uses_offset2 && static_cast<uint64_t>(f.offset2) + 4 > d->item_size);
    for (const Field &earlier : info->fields)
      if (earlier.tag == f.tag) bad = true;
    if (bad) {
      ZT_LOG(kModule, fn, "Storage Class: %d at entry: %d has an invalid tag or offset", static_cast<int>(number),
             static_cast<int>(i));
      return -1;
    }
    if (f.tag > info->max_tag) info->max_tag = f.tag;
    info->fields.push_back(f);
    info->names.emplace_back(row.name ? row.name : "");
  }
  // The names are placed once the vector no longer moves.
  for (size_t i = 0; i < info->fields.size(); ++i) info->fields[i].name = info->names[i].c_str();
  info->by_tag.assign(static_cast<size_t>(info->max_tag) + 1, -1);
  for (size_t i = 0; i < info->fields.size(); ++i) info->by_tag[info->fields[i].tag] = static_cast<int32_t>(i);
  if (number >= reg->table.size()) reg->table.resize(static_cast<size_t>(number) + 1);
  reg->table[number] = std::move(info);
  if (number > reg->highest) reg->highest = number;
  return 0;
}

int add_builtins(ZTStorageClasses *reg) {
  const ZTFieldDesc request[] = {
      {ZT_FT_UINT32B, 1, "Command", 0, 0, 0, 0, offsetof(ZTRequestItem, command), 0},
      {ZT_FT_UINT32B, 2, "Flags", 0, 0, 0, 0, offsetof(ZTRequestItem, flags), 0},
      {ZT_FT_UINT32B, 3, "DataClass", 0, 0, 0, 0, offsetof(ZTRequestItem, data_class), 0},
      {ZT_FT_INT32, 4, "JobNumber", 0, 0, 0, 0, offsetof(ZTRequestItem, job_number), 0},
      {ZT_FT_STRING, 5, "User", 0, 0, 0, 0, offsetof(ZTRequestItem, user), 0},
      {ZT_FT_INT64, 6, "Time", 0, 0, 0, 0, offsetof(ZTRequestItem, time), 0},
      {}};
  const ZTStorageClassDesc desc{ZT_CLASS_REQUEST, sizeof(ZTRequestItem), request,
                                sizeof request / sizeof request[0], "Request", "", ""};
  return add_class(reg, &desc, ZT_CLASS_REQUEST);
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
