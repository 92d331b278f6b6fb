// The AVX2 copies of the resampler's inner loops.
#define ZT_KERNEL_NS avx2
#include "screening/resample_kernels.h"
