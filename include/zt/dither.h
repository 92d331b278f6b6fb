/*
 * Dithering of deep samples to 8 bits: 16-bit samples, and 24-bit values held
 * in 32-bit words. Noise comes from three process-wide tables of triangular
 * noise built by ditherStaticInit (library start-up) and read-only after it;
 * each context walks one table from a random start, and its cursor carries
 * over from call to call so that successive lines continue the sequence.
 * A context belongs to one thread at a time.
 */
#ifndef ZT_DITHER_H
#define ZT_DITHER_H

#include <stddef.h>
#include <stdint.h>
#include <zt/dither_context.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Builds (ditherStaticInit) and frees the noise tables. Called by library
 * start-up and shut-down; ditherStaticInit is idempotent and returns 0, or -1
 * after logging "Cannot allocate memory". */
ZT_API int32_t ditherStaticInit(void);
ZT_API void ditherStaticFree(void);

/* Sets a context up: method 0 means 2, noise kind 0 means 3. Method 2 attaches
 * its noise table at a random start (no table while the tables are not built;
 * the context then rounds through the 16-to-8 table). Returns 0, -1 for a null
 * context. */
ZT_API int32_t ditherSetup(DitherContext *context, uint32_t method, uint32_t noiseKind);
/* `width` 16-bit samples in, `width` bytes out. Null context: nothing written. */
ZT_API void ditherBuf16To8(DitherContext *context, uint8_t *out, const uint16_t *in, uint32_t width);
/* `width` words of 0..0xFFFFFF in, `width` bytes out. Null context: nothing written. */
ZT_API void ditherBuf24To8(DitherContext *context, uint8_t *out, const uint32_t *in, uint32_t width);
/* Whole-image screening (method 5): one 16-to-8 error-diffusion screening
 * object a channel for lines of `width` samples. ditherSetupImage accepts 16
 * bits in and 8 out only, else logs "%u bpp to %u bpp transformation not
 * implemented"; both give 0, or -1 (logged, nothing left attached). */
ZT_API int32_t ditherSetupImage(DitherContext *context, uint32_t inputBits, uint32_t channels,
                                uint32_t outputBits, uint32_t width);
ZT_API int32_t ditherSetupImage16to8(DitherContext *context, uint32_t width, uint32_t channels);
/* Screens one image line: channel c's `width` samples at in + c * stride,
 * its bytes to out + c * stride; then raises lineNumber. 0, or -1 (logged)
 * for a context without channel objects. */
ZT_API int32_t ditherImage16To8(DitherContext *context, uint8_t *out, uint16_t *in, uint32_t width,
                                size_t stride);
/* Releases what the context holds (the channel screening objects too);
 * frees the context itself (allocated with malloc) when freeContext is
 * non-zero. Null is ignored. */
ZT_API void ditherCleanup(DitherContext *context, int32_t freeContext);
/* A random value of triangular distribution on [low, high] peaking at mode. */
ZT_API double TPDF(double low, double mode, double high);

ZT_EXTERN_C_END

#endif
