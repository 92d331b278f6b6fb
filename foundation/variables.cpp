// The variables record the host hands over: the installation root that every
// file of the installation is found under.
#include "foundation/internal.h"

#include <zt/init.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zt {
namespace {

constinit std::atomic<ZTVariables *> g_variables{nullptr};

char *copy_root(const char *root) {
  size_t length = std::strlen(root);
  // "/" stays "/": stripping it would leave the relative empty root.
  while (length > 1 && root[length - 1] == '/') --length;
  char *copy = static_cast<char *>(std::malloc(length + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, root, length);
  copy[length] = '\0';
  return copy;
}

}  // namespace
}  // namespace zt

extern "C" {

ZT_API int32_t ZTSetVariables(const char *root) {
  if (root == nullptr) {
    ZT_LOG("ZTGlobals", "ZTSetVariables", "NULL root directory passed");
    return -1;
  }
  auto *variables = static_cast<ZTVariables *>(std::calloc(1, sizeof(ZTVariables)));
  char *copy = zt::copy_root(root);
  if (variables == nullptr || copy == nullptr) {
    std::free(variables);
    std::free(copy);
    ZT_LOG_NOMEM("ZTGlobals", "ZTSetVariables", sizeof(ZTVariables) + std::strlen(root) + 1);
    return -1;
  }
  variables->root = copy;
  ZTVariables *old = zt::g_variables.exchange(variables);
  ZTFreeVariables(old);
  std::free(old);
  return 0;
}

ZT_API ZTVariables *ZTGetVariables(void) {
  ZTVariables *variables = zt::g_variables.load();
  if (variables == nullptr) {
    std::fputs("Panic: NULL variables structure ieee. exiting...\n", stderr);
    std::exit(10);
  }
  return variables;
}

ZT_API void ZTReleaseVariables(void) {
  ZTVariables *old = zt::g_variables.exchange(nullptr);
  ZTFreeVariables(old);
  std::free(old);
}

ZT_API void ZTFreeVariables(ZTVariables *variables) {
  if (variables == nullptr) return;
  std::free(variables->root);
  variables->root = nullptr;
}

ZT_API char *ZTMakeRootPath(const char *relative) {
  const char *root = ZTGetVariables()->root;
  if (relative == nullptr) relative = "";
  size_t size = std::strlen(root) + 1 + std::strlen(relative) + 1;
  char *path = static_cast<char *>(std::malloc(size));
  if (path == nullptr) {
    ZT_LOG_NOMEM("ZTGlobals", "ZTMakeRootPath", size);
    return nullptr;
  }
  std::snprintf(path, size, "%s/%s", root, relative);
  return path;
}

}  // extern "C"
