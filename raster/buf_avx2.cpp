// The AVX2 copies of the depth converters and the noise-dither kernel.
#define ZT_KERNEL_NS avx2
#include "raster/buf_kernels.h"
