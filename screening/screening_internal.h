// What the screening modules share: the module name for the log, the kernels
// each mode installs as an object's screenScanline, and the builders of the
// matrices and tables the modes screen through.
#pragma once

#include <zt/screening.h>

#include <cstddef>
#include <cstdint>

namespace zt::screening {

inline constexpr const char *kModule = "screening";

// Entries of the stochastic weight table: 6,151 groups of four.
inline constexpr uint32_t kWeightGroups = 6151;
inline constexpr uint32_t kWeightEntries = kWeightGroups * 4;
// Side of the blue-noise mask of modes 2 and 9.
inline constexpr uint32_t kMaskSide = 256;

// Error diffusion (modes 3 and 10): rows, the weight table (shared through
// the cache) and the kernel. 0, or -1 after logging.
int32_t create_stochastic_structs(ScreeningObject *object);
void release_stochastic_structs(ScreeningObject *object);
// Draws a fresh table into `table` (kWeightEntries entries).
void fill_weight_table(int32_t *table);
int32_t screen_error_diffusion(ScreeningObject *object, void *input, uint8_t *output, uint32_t width,
                               uint32_t y);

// The cache: looks a table up by key (taking a reference), or hands one over.
// Both under the cache's lock. add_table returns true when the cache took the
// table (the caller then holds one reference to it).
int32_t *cache_acquire(const char *key, int32_t **end);
bool cache_add(const char *key, int32_t *table, int32_t *end);
void cache_release(int32_t *table);

// Threshold screening through `matrix` (two levels or multi-level through the
// level tables) and pattern screening through `ditherScreens`.
int32_t screen_threshold(ScreeningObject *object, void *input, uint8_t *output, uint32_t width, uint32_t y);
int32_t screen_pattern(ScreeningObject *object, void *input, uint8_t *output, uint32_t width, uint32_t y);
// Builds levelTable (and levelRows where they fit) from the densities when
// levels > 2.
int32_t build_level_tables(ScreeningObject *object);
// Copies each matrix row with its first 16 entries repeated after it
// (matrixRows), so that vector loops read any 16 entries from any phase.
int32_t build_matrix_rows(ScreeningObject *object);

// Matrix entries for pixels ranked 0 ... area-1 (rank 0 prints first): the
// entry of rank r is the largest tone v with round(v * area / 255) <= r, so a
// flat tone v sets exactly round(v * area / 255) pixels and 255 sets all.
void entries_from_ranks(const uint32_t *ranks, size_t area, uint8_t *matrix);

// The fixed 4 x 4 cell.
void ordered4x4(uint8_t *matrix);

// The void-and-cluster ranks of a kMaskSide square mask for the aspect
// (resolutionY / resolutionX), built once a process and aspect; null when
// memory fails (logged under `function`).
const uint32_t *blue_noise_ranks(double aspect, const char *function);
// The mask of `channel`: the ranks shifted (and for odd channels mirrored) so
// that no two channels share an unchanged mask.
int32_t blue_noise_matrix(const ScreeningSettings *settings, uint8_t **matrix, uint32_t *side);
int32_t build_pattern_tiles(ScreeningObject *object, const ScreeningSettings *settings);

// Mode 5: the matrix read from the installation's screen folder.
int32_t load_vrfs(const ScreeningSettings *settings, uint8_t **matrix, uint32_t *mx, uint32_t *my);

// Applies the object's input table in place.
void apply_input_lut(ScreeningObject *object, void *input, uint32_t width);

}  // namespace zt::screening
