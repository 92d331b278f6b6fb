/*
 * The library's random-number generator: one generator for the process behind
 * a lock, so that every thread draws from the same sequence. Seeding it makes
 * a run repeat exactly (as long as the draws happen in the same order).
 */
#ifndef ZT_RANDOM_H
#define ZT_RANDOM_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Sets up the generator, seeded from the clock and the process id. Idempotent. */
ZT_API void ZT_randomInit(void);
ZT_API void ZT_randomDeInit(void);
/* Restarts the sequence from `seed`. */
ZT_API void ZT_randomSeed(uint64_t seed);
/* A uniform integer in [lo, hi], both ends included; lo when hi < lo. */
ZT_API int32_t ZT_randomIntInRange(int32_t lo, int32_t hi);
/* 32 uniform random bits. */
ZT_API uint32_t ZT_random32(void);

ZT_EXTERN_C_END

#endif
