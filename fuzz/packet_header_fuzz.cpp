// The header-from-buffer parser and the body that follows it: arbitrary bytes
// as a received buffer. Nothing may crash, a header never claims more bytes
// than it was given, and a body is taken only when all of it is there.
#include <zt/init.h>
#include <zt/log.h>
#include <zt/packets.h>

#include <cstdint>
#include <cstdlib>

#include "scratch_dir.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::ScratchDir::enter("header");
  ZT_InitSubSystems();
  LogErrorDisable(1);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ZTPacketHeader header{};
  if (ReadPacketHeaderFromBuffer(data, size, &header) != 0) return 0;
  if (header.header_bytes > size) std::abort();
  ZTPacketMemory *pm = nullptr;
  const uint64_t rest = size - header.header_bytes;
  const int rc = ReadPacketBodyFromBuffer(data + header.header_bytes, rest, &header, &pm);
  if (rc == 0 && (pm == nullptr || pm->body_length != header.field4 || header.field4 > rest)) std::abort();
  if (rc != 0 && pm != nullptr) std::abort();
  FreePacketMemory(&pm);
  return 0;
}
