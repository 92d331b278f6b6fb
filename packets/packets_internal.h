// Shared by the packet modules: the storage-class registry as the encoder and
// decoder see it, the hexadecimal digit table and field access in items.
#pragma once

#include <zt/init.h>
#include <zt/packets.h>
#include <zt/threads.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace zt::packets {

inline constexpr const char *kModule = "packets";

// A field of an item at a byte offset; items are plain bytes laid out by
// their class, so fields need not be aligned.
template <typename T>
T load(const void *item, uint32_t offset) {
  T v;
  std::memcpy(&v, static_cast<const char *>(item) + offset, sizeof(T));
  return v;
}

template <typename T>
void store(void *item, uint32_t offset, T v) {
  std::memcpy(static_cast<char *>(item) + offset, &v, sizeof(T));
}

// Digit values of the 256 characters (0 for anything that is not a hex digit),
// and whether a character is a hex digit. Filled by ZT_packetsInitSubSystem.
extern uint8_t g_hex_value[256];
extern uint8_t g_hex_valid[256];
void fill_hex_tables();

// Frees the packet lists and storage classes the global record holds; start-up
// installs it as the record's release hook.
void release_globals(ZTGlobals *globals);

struct FieldType;  // packets/field_types.h

// A row of a registered class, resolved once against the field-type table so
// that the coders never look at a type number again.
struct Field {
  const FieldType *type;
  uint32_t number;     // the ZT_FT_* of the row
  uint32_t tag;
  const char *name;    // points into ClassInfo::names
  uint32_t width;      // bytes of the value, or of one element of an array
  uint32_t sub_class;  // nested lists and runs
  uint32_t offset;
  uint32_t offset2;    // the count, or the second value of a pair
};

struct ClassInfo {
  uint32_t number = 0;
  uint32_t item_size = 0;
  std::vector<Field> fields;         // the rows of types 1 to 31, in table order
  std::vector<std::string> names;    // owned copies the rows point into
  std::string name, extra1, extra2;
  uint32_t max_tag = 0;
  std::vector<int32_t> by_tag;       // dense tag -> row, -1 for none

  // Row index of `tag`, or -1.
  int32_t find(uint64_t tag) const {
    if (tag > max_tag) return -1;
    return by_tag[static_cast<size_t>(tag)];
  }
};

// Holds the current registry's read lock for its lifetime. lookup() gives
// NULL for an unknown class without logging.
class RegistryReader {
 public:
  RegistryReader();
  ~RegistryReader();
  RegistryReader(const RegistryReader &) = delete;
  RegistryReader &operator=(const RegistryReader &) = delete;
  const ClassInfo *lookup(uint32_t class_number) const;

 private:
  ZTStorageClasses *registry_;
};

// Logs "StorageClass: %d Not Decodable By System" from `function`.
void log_bad_class(const char *function, uint32_t class_number);

// Encoding with the registry already locked (nested calls).
int encode_item(const RegistryReader &reg, const ClassInfo &cls, ZTPacketMemory *pm, const void *item);
int encode_list(const RegistryReader &reg, const ClassInfo &cls, ZTPacketMemory *pm, const ZTListNode *list);

// Item helpers with the registry locked.
void free_fields(const RegistryReader &reg, const ClassInfo &cls, void *item);
void free_list(const RegistryReader &reg, const ClassInfo &cls, ZTListNode **list);
void *alloc_item(const ClassInfo &cls, const char *module, const char *function);
bool compare_items(const RegistryReader &reg, const ClassInfo &cls, const void *a, const void *b);
bool compare_lists(const RegistryReader &reg, const ClassInfo &cls, const ZTListNode *a, const ZTListNode *b);
// Copies what `src` owns into `dst`, a shallow copy of it; on failure `dst`
// holds only what was copied, so free_fields releases it.
bool dup_fields(const RegistryReader &reg, const ClassInfo &cls, const void *src, void *dst);
ZTListNode *dup_list(const RegistryReader &reg, const ClassInfo &cls, const ZTListNode *src, bool &ok);

}  // namespace zt::packets
