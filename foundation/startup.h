// The foundation's module initialisers, called by start-up in its fixed order.
#pragma once

#include <cstdint>

namespace zt {

// The start time and work counter.
void timing_static_init();
void timing_static_free();

// The per-user scratch directory.
void scratch_dir_init();
void scratch_dir_free();

// The job and scratch-file numbers, read from and written back to the
// installation's sequence files.
void sequence_numbers_load();
void sequence_numbers_dump();

// The page-setup reference cache.
void pagesetup_cache_init();
void pagesetup_cache_free();

}  // namespace zt
