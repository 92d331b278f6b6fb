// The AVX2 form of the table interpolators' kernels (built with -mavx2 -mfma
// by its name): eight pixels per step, the corners fetched by gathers.
#define ZT_KERNEL_NS avx2
#include "colour/table_interpolator_kernels.h"
