// The AVX2 copies of the interleave kernels.
#define ZT_KERNEL_NS avx2
#include "raster/interleave_kernels.h"
