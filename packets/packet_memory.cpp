// Packet memory: the growable text buffer with a reserve in front of the data
// for a header, so that putting a header in front never moves the body.
#include "foundation/internal.h"
#include "packets/packets_internal.h"

#include <zt/packets.h>

#include <cstdlib>
#include <cstring>

using zt::packets::kModule;

namespace {

// Nothing we hold comes near this; a larger request is a corrupted length.
constexpr uint64_t kMaxPacketBytes = uint64_t{1} << 40;

uint64_t used_bytes(const ZTPacketMemory *pm) {
  return pm->raw == nullptr ? 0 : static_cast<uint64_t>(pm->ptr - pm->data);
}

void update_lengths(ZTPacketMemory *pm) {
  pm->body_length = used_bytes(pm);
  pm->total_length = pm->body_length + static_cast<uint64_t>(pm->data - pm->header);
}

// Moves the allocation to `raw_size` bytes with the data `new_reserve` bytes in.
int relocate(ZTPacketMemory *pm, uint64_t new_capacity, uint64_t new_reserve) {
  const uint64_t used = used_bytes(pm);
  const uint64_t header_len = pm->raw == nullptr ? 0 : static_cast<uint64_t>(pm->data - pm->header);
  const uint64_t old_reserve = pm->reserve;
  const uint64_t raw_size = new_reserve + new_capacity + 256;
  char *raw = static_cast<char *>(std::realloc(pm->raw, raw_size));
  if (raw == nullptr) {
    ZT_LOG(kModule, "MaintainPacketMemory", "Failed To Realloc %d Bytes Of Memory, Previous Size %d",
           static_cast<int>(raw_size), static_cast<int>(pm->capacity));
    return -1;
  }
  if (pm->raw == nullptr) std::memset(raw, 0, raw_size);
  if (new_reserve != old_reserve && used + header_len > 0) {
    std::memmove(raw + new_reserve - header_len, raw + old_reserve - header_len, used + header_len);
  }
  pm->raw = raw;
  pm->capacity = new_capacity;
  pm->reserve = new_reserve;
  pm->data = raw + new_reserve;
  pm->header = pm->data - header_len;
  pm->ptr = pm->data + used;
  *pm->ptr = '\0';
  return 0;
}

}  // namespace

extern "C" {

ZT_API ZTPacketMemory *InitAllocPacketMemory(uint32_t step) {
  auto *pm = static_cast<ZTPacketMemory *>(std::calloc(1, sizeof(ZTPacketMemory)));
  if (pm == nullptr) {
    ZT_LOG_NOMEM(kModule, "InitAllocPacketMemory", sizeof(ZTPacketMemory));
    return nullptr;
  }
  pm->step = step == 0 ? ZT_PACKET_DEFAULT_STEP : step;
  pm->reserve = ZT_PACKET_HEADER_RESERVE;
  return pm;
}

ZT_API void FreePacketMemory(ZTPacketMemory **packet_memory) {
  if (packet_memory == nullptr || *packet_memory == nullptr) return;
  std::free((*packet_memory)->raw);
  std::free(*packet_memory);
  *packet_memory = nullptr;
}

ZT_API int32_t MaintainPacketMemory(ZTPacketMemory *pm, uint64_t n) {
  const char *fn = "MaintainPacketMemory";
  if (pm == nullptr) {
    ZT_LOG(kModule, fn, "PacketMemory Struct Is NULL No Processing Done");
    return -1;
  }
  if (pm->raw != nullptr && pm->ptr < pm->data) {
    ZT_LOG(kModule, fn, "Corrupted packet memory detected (ptr < buf)");
    return -1;
  }
  const uint64_t used = used_bytes(pm);
  if (n > kMaxPacketBytes) {
    ZT_LOG(kModule, fn, "Failed To Realloc %d Bytes Of Memory, Previous Size %d", -1,
           static_cast<int>(pm->capacity));
    return -1;
  }
  if (pm->raw != nullptr && used <= pm->capacity && n + 1 < pm->capacity - used) return 0;
  // Before the first allocation the request counts the header reserve too.
  const uint64_t need = n + 1 + (pm->raw == nullptr ? ZT_PACKET_HEADER_RESERVE : 0);
  uint64_t capacity = need > pm->step ? pm->capacity + need + pm->step : pm->capacity + pm->step;
  // A single step may still fall short of what is already used plus n.
  if (capacity < used + n + 2) capacity = used + n + 2 + pm->step;
  if (relocate(pm, capacity, pm->reserve) != 0) return -1;
  if (pm->step < ZT_PACKET_MAX_STEP) {
    pm->step *= 2;
    if (pm->step > ZT_PACKET_MAX_STEP) pm->step = ZT_PACKET_MAX_STEP;
  }
  update_lengths(pm);
  return 0;
}

ZT_API int32_t AppendPacketMemory(ZTPacketMemory *pm, const void *data, uint64_t n) {
  if (MaintainPacketMemory(pm, n) != 0) return -1;
  if (n) std::memcpy(pm->ptr, data, n);
  pm->ptr += n;
  *pm->ptr = '\0';
  update_lengths(pm);
  return 0;
}

ZT_API int32_t MaintainPacketHeaderMemory(ZTPacketMemory *pm, uint64_t n) {
  const char *fn = "MaintainPacketHeaderMemory";
  if (pm == nullptr) {
    ZT_LOG(kModule, fn, "PacketMemory Struct Is NULL No Processing Done");
    return -1;
  }
  if (pm->raw == nullptr && MaintainPacketMemory(pm, 0) != 0) return -1;
  if (n > kMaxPacketBytes) {
    ZT_LOG(kModule, fn, "Failed To Realloc %d Bytes Of Memory, Previous Size %d", -1,
           static_cast<int>(pm->capacity));
    return -1;
  }
  if (n > pm->reserve) {
    // The data moves up once; the new reserve keeps the usual slack for the
    // next header.
    if (relocate(pm, pm->capacity, n + ZT_PACKET_HEADER_RESERVE) != 0) return -1;
  }
  pm->header = pm->data - n;
  update_lengths(pm);
  return 0;
}

ZT_API int32_t InsertDataBeforePMBuffer(ZTPacketMemory *pm, const void *bytes, uint64_t n) {
  if (pm == nullptr || (bytes == nullptr && n != 0)) {
    ZT_LOG(kModule, "InsertDataBeforePMBuffer", "PacketMemory Struct Is NULL No Processing Done");
    return -1;
  }
  const uint64_t header_len = pm->raw == nullptr ? 0 : static_cast<uint64_t>(pm->data - pm->header);
  if (MaintainPacketHeaderMemory(pm, header_len + n) != 0) return -1;
  if (n) std::memcpy(pm->header, bytes, n);
  return 0;
}

}  // extern "C"
