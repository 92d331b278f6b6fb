// The library's one global record, shared by the host's subsystems under its
// read-write lock.
#include "foundation/globals_internal.h"
#include "foundation/internal.h"

#include <atomic>
#include <cstdlib>

namespace {

constinit std::atomic<ZTGlobals *> g_globals{nullptr};
constinit std::atomic<zt::GlobalsReleaseHook> g_release_hook{nullptr};

}  // namespace

void zt::globals_set_release_hook(GlobalsReleaseHook hook) { g_release_hook.store(hook); }

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
  if (zt::GlobalsReleaseHook hook = g_release_hook.load()) hook(globals);
  ZTFreeVariables(&globals->variables);
  ZT_LOCK_DESTROY(&globals->lock);
  std::free(globals);
}

}  // extern "C"
