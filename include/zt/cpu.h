/*
 * The processor's vector features and the level the library's per-pixel
 * kernels run at. The level is chosen once at start-up from the processor;
 * ZT_SIMD=baseline in the environment (or ZT_SetSimdLevel) forces the scalar
 * forms. Every level gives bit-identical results.
 */
#ifndef ZT_CPU_H
#define ZT_CPU_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

#define ZT_CPU_SSE2 (1u << 0)
#define ZT_CPU_SSE41 (1u << 1)
#define ZT_CPU_AVX (1u << 2)
#define ZT_CPU_AVX2 (1u << 3)
#define ZT_CPU_FMA (1u << 4)
#define ZT_CPU_BMI2 (1u << 5)

#define ZT_SIMD_BASELINE 0
#define ZT_SIMD_AVX2 1

/* The ZT_CPU_* features the processor and the operating system support. */
ZT_API uint32_t ZT_CpuFeatures(void);
/* The highest level the processor can run. */
ZT_API int32_t ZT_SimdBestLevel(void);
/* The level the kernels run at now. */
ZT_API int32_t ZT_SimdLevel(void);
/* Chooses the level (for tests and benchmarks); a level above what the
 * processor runs is lowered to it. Every kernel table is refilled at once, so
 * call it while no kernel runs. Returns the level now in force. */
ZT_API int32_t ZT_SetSimdLevel(int32_t level);

ZT_EXTERN_C_END

#endif
