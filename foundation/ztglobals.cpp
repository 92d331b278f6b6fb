// The library's one global record, shared by the host's subsystems under its
// read-write lock.
#include "foundation/zt_internal.h"

#include <zt/init.h>
#include <zt/lists.h>
#include <zt/packets.h>
#include <zt/threads.h>

#include <atomic>
#include <cstdlib>

struct ZTGlobals {
  pthread_rwlock_t lock;
  void *database;
  void *storage_classes;
  struct {
    ZTListNode *list;
    void *side_buffer;
  } packet_lists[3];
  ZTVariables variables;
};

namespace {

constinit std::atomic<ZTGlobals *> g_globals{nullptr};

}  // namespace

extern "C" {

ZT_API ZTGlobals *ZTInitGlobals(void) {
  if (ZTGlobals *existing = g_globals.load()) {
    ZT_LOG("ZTGlobals", "ZTInitGlobals", "Globals Already Initialesd, Address: %p", static_cast<void *>(existing));
    return nullptr;
  }
  auto *globals = static_cast<ZTGlobals *>(std::calloc(1, sizeof(ZTGlobals)));
  if (globals == nullptr) {
    ZT_LOG_NOMEM("ZTGlobals", "ZTInitGlobals", sizeof(ZTGlobals));
    return nullptr;
  }
  ZT_LOCK_INIT(&globals->lock);
  ZTGlobals *expected = nullptr;
  if (!g_globals.compare_exchange_strong(expected, globals)) {
    ZT_LOCK_DESTROY(&globals->lock);
    std::free(globals);
    ZT_LOG("ZTGlobals", "ZTInitGlobals", "Globals Already Initialesd, Address: %p", static_cast<void *>(expected));
    return nullptr;
  }
  return globals;
}

ZT_API ZTGlobals *ZTGetGlobals(void) { return g_globals.load(); }

ZT_API void ZTDestroyGlobals(void) {
  ZTGlobals *globals = g_globals.exchange(nullptr);
  if (globals == nullptr) return;
  // The lists go first: freeing them reads their classes' field tables.
  constexpr uint32_t kListClasses[3] = {12, 18, 22};
  for (int i = 0; i < 3; ++i) {
    ZTPacketFreeList(&globals->packet_lists[i].list, kListClasses[i]);
    std::free(globals->packet_lists[i].side_buffer);
  }
  if (globals->storage_classes != nullptr)
    ZTDestroyStorageClasses(static_cast<ZTStorageClasses *>(globals->storage_classes));
  ZTFreeVariables(&globals->variables);
  ZT_LOCK_DESTROY(&globals->lock);
  std::free(globals);
}

}  // extern "C"
