// The field types (ZT_FT_*): one row each, saying how wide the field is, how
// it is held, and how it is written, read, released, compared and copied.
// The encoder, the decoder and the item helpers only walk a class's rows and
// call through the row's type, so a new field type is one more row here.
#pragma once

#include "packets/packets_internal.h"
#include "packets/text_codec.h"

#include <cstdint>

namespace zt::packets {

// What a field holds at its offset.
enum class Shape : uint8_t {
  kNone,    // nothing: never written or read
  kScalar,  // a value of `width` bytes (a pair holds a second one at offset2)
  kString,  // a pointer to a zero-terminated string
  kArray,   // a pointer to `count` elements of `width` bytes, the count at offset2
  kList,    // a pointer to a list of items of the row's sub-class
  kRun,     // a pointer to `count` contiguous items of the sub-class, the count at offset2
};

// Who owns what the field refers to.
enum class Owner : uint8_t {
  kItem,     // the value lies inside the item itself
  kPointer,  // the item owns a separate allocation: freed and deep-copied with it
};

using EncodeFn = int (*)(const RegistryReader &reg, const Field &f, Writer &w, const void *item);
using DecodeFn = int (*)(const RegistryReader &reg, const Field &f, Reader &r, const Line &line, void *item);
using FreeFn = void (*)(const RegistryReader &reg, const Field &f, void *item);
using CompareFn = bool (*)(const RegistryReader &reg, const Field &f, const void *a, const void *b);
using CopyFn = bool (*)(const RegistryReader &reg, const Field &f, const void *src, void *dst);

struct FieldType {
  uint32_t number;        // ZT_FT_*
  uint32_t width;         // value or element bytes; 0: 1, 2 or 4 as the row declares
  Shape shape;
  Owner owner;
  bool uses_offset2;      // a count or a second value lives at offset2
  const char *log_label;  // LogPacketItem's word in front of the value
  // Appends the field's line (and any nested items); nothing for an empty
  // string, array, list or run. 0 or -1 (logged).
  EncodeFn encode;
  // Stores the value of `line`, releasing what a repeated tag held before.
  // 0 or -1 (logged).
  DecodeFn decode;
  // Releases what the field owns and clears it; NULL when it owns nothing.
  FreeFn release;
  // Equal by value; NULL when the field takes no part in comparison.
  CompareFn compare;
  // Fills the (cleared) field of `dst` with a copy of what `src` owns; NULL
  // when the shallow copy is already the copy.
  CopyFn copy;
};

// The row of a type number, or NULL for 0 (the end row) and numbers above 31.
const FieldType *field_type(uint32_t number);

// The bytes a field occupies at its offset (the count or second value at
// offset2 is always a uint32_t).
uint32_t field_bytes(const Field &f);

// Resolves a registered row against its type: the width in bytes of the value
// or of one array element.
uint32_t resolved_width(const FieldType &type, uint32_t declared);

}  // namespace zt::packets
