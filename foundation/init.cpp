// Start-up and shut-down of every subsystem, in one fixed order. This file is
// the composition root: the one place that reaches every layer, so no other
// module needs to know who comes before or after it.
//
// ZT_InitSubSystems brings up, in order: random numbers, process timing, the
// time functions, the log, the default task queues, the scratch directory,
// the thread pool, packets, the image-buffer cache, the dithering tables, the
// image-file module, the screening cache, resampling, colour management and
// the table interpolators, cryptography, and last the periodic-task thread.
// Modules that are not built yet take their place in that order when they are.
#include "colour/cms_internal.h"
#include "foundation/globals_internal.h"
#include "foundation/log_internal.h"
#include "foundation/periodic_internal.h"
#include "foundation/simd_dispatch.h"
#include "foundation/startup.h"
#include "packets/packets_internal.h"
#include "raster/buf_internal.h"
#include "raster/interleave_internal.h"
#include "raster/vlimg_internal.h"

#include <zt/dither.h>
#include <zt/imagebuf.h>
#include <zt/init.h>
#include <zt/packets.h>
#include <zt/random.h>
#include <zt/resample.h>
#include <zt/screening.h>
#include <zt/table_interpolator.h>
#include <zt/threadpool.h>
#include <zt/threads.h>
#include <zt/zttime.h>

#include <atomic>
#include <mutex>

namespace {

// Start-up and shut-down are rare and may be called from any thread; one mutex
// keeps two of them from interleaving.
constinit std::mutex g_init_mutex;
constinit std::atomic<bool> g_initialised{false};
constinit std::atomic<bool> g_initialised2{false};

}  // namespace

extern "C" {

ZT_API void ZT_InitSubSystems(void) {
  std::lock_guard<std::mutex> guard(g_init_mutex);
  if (g_initialised.load()) return;
  zt::simd_static_init();
  ZT_randomInit();
  zt::timing_static_init();
  ZT_InitTimeSubSystem();
  zt::log_static_init();
  pthread_taskq_init_default();
  zt::scratch_dir_init();
  threadpoolStaticInit();
  ZT_packetsInitSubSystem();
  zt::globals_set_release_hook(&zt::packets::release_globals);
  zt::raster::buf_kernels_init();
  zt::raster::interleave_kernels_init();
  ZT_ImageBufInitSubSystem();
  ditherStaticInit();
  zt::raster::vlimg::vlimg_static_init();
  screeningCacheInit();
  resampleStaticInit();
  ZTCMSStaticInit();
  TableInterpolatorStaticInit();
  g_initialised.store(true);
  zt::periodic_start();
}

ZT_API void ZT_DeInitSubSystems(void) {
  std::lock_guard<std::mutex> guard(g_init_mutex);
  if (!g_initialised.load()) return;
  zt::periodic_stop();
  ZT_packetsDeInitSubSystem();
  // The pool ends the periodic thread, so the task records can go after it.
  threadpoolStaticFree();
  zt::periodic_free_all();
  ZT_ImageBufDeinitSubSystem();
  TableInterpolatorStaticFree();
  ZTCMSStaticFree();
  resampleStaticFree();
  screeningCacheFree();
  zt::raster::vlimg::vlimg_static_free();
  ditherStaticFree();
  zt::timing_static_free();
  zt::scratch_dir_free();
  pthread_taskq_destroy_default();
  zt::log_static_free();
  deinitTimeSubSystem();
  ZT_randomDeInit();
  g_initialised.store(false);
}

ZT_API void ZT_InitSubSystems2(void) {
  std::lock_guard<std::mutex> guard(g_init_mutex);
  if (g_initialised2.load()) return;
  // Ends the process with its panic message when the host set no root.
  ZTGetVariables();
  zt::pagesetup_cache_init();
  zt::sequence_numbers_load();
  g_initialised2.store(true);
}

ZT_API void ZT_DeInitSubSystems2(void) {
  std::lock_guard<std::mutex> guard(g_init_mutex);
  if (!g_initialised2.load()) return;
  zt::pagesetup_cache_free();
  zt::sequence_numbers_dump();
  g_initialised2.store(false);
}

}  // extern "C"
