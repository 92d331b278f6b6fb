// The page-setup reference cache: which page-setup record a 64-bit key (a
// job's page description) resolved to, so repeated pages skip the lookup.
#include "foundation/locks.h"
#include "foundation/startup.h"
#include "foundation/internal.h"

#include <zt/init.h>

#include <map>

namespace zt {
namespace {

// std::map is the ordered red-black tree the cache wants. Null outside
// ZT_InitSubSystems2 / ZT_DeInitSubSystems2.
struct PagesetupCache {
  pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
  std::map<uint64_t, uint32_t> *refs = nullptr;
};

constinit PagesetupCache g_cache;

}  // namespace

void pagesetup_cache_init() {
  WriteGuard guard(&g_cache.lock);
  if (g_cache.refs == nullptr) g_cache.refs = new (std::nothrow) std::map<uint64_t, uint32_t>();
  if (g_cache.refs == nullptr) ZT_LOG_NOMEM("init", "ZT_InitSubSystems2", sizeof(std::map<uint64_t, uint32_t>));
}

void pagesetup_cache_free() {
  WriteGuard guard(&g_cache.lock);
  delete g_cache.refs;
  g_cache.refs = nullptr;
}

}  // namespace zt

extern "C" {

ZT_API int32_t addPagesetupRef(uint64_t key, uint32_t id) {
  return zt::api_guard("init", "addPagesetupRef", -1, [&] {
    zt::WriteGuard guard(&zt::g_cache.lock);
    if (zt::g_cache.refs == nullptr) return -1;
    (*zt::g_cache.refs)[key] = id;
    return 0;
  });
}

ZT_API int32_t findPagesetupRef(uint64_t key, uint32_t *id) {
  zt::ReadGuard guard(&zt::g_cache.lock);
  if (zt::g_cache.refs == nullptr) return -1;
  auto found = zt::g_cache.refs->find(key);
  if (found == zt::g_cache.refs->end()) return -1;
  if (id != nullptr) *id = found->second;
  return 0;
}

ZT_API int32_t removePagesetupRefByKey(uint64_t key) {
  zt::WriteGuard guard(&zt::g_cache.lock);
  if (zt::g_cache.refs == nullptr) return -1;
  return zt::g_cache.refs->erase(key) != 0 ? 0 : -1;
}

ZT_API int32_t removePagesetupRefById(uint32_t id) {
  zt::WriteGuard guard(&zt::g_cache.lock);
  if (zt::g_cache.refs == nullptr) return -1;
  size_t erased = std::erase_if(*zt::g_cache.refs, [id](const auto &entry) { return entry.second == id; });
  return erased != 0 ? 0 : -1;
}

ZT_API void clearPagesetupRefsCache(void) {
  zt::WriteGuard guard(&zt::g_cache.lock);
  if (zt::g_cache.refs != nullptr) zt::g_cache.refs->clear();
}

}  // extern "C"
