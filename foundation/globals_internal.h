// The global record's layout, for the layers that keep their own parts in it.
#pragma once

#include <zt/init.h>
#include <zt/lists.h>
#include <zt/threads.h>

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

namespace zt {

// Releases what a higher layer keeps in the record (packets: its lists and
// storage classes). Foundation cannot name those layers; start-up installs the
// hook when it brings packets up, and ZTDestroyGlobals calls it first.
using GlobalsReleaseHook = void (*)(ZTGlobals *globals);
void globals_set_release_hook(GlobalsReleaseHook hook);

}  // namespace zt
