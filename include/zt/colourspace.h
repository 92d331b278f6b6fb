/*
 * Colour-space identifiers, their channel counts, ICC colour-space signatures
 * and fill characters, and the rendering intents.
 *
 * Every raster, scanline buffer, image file and conversion of the library
 * names its colour space by one of the identifiers below; every module asks
 * these functions rather than keeping a table of its own.
 *
 * Two identifiers map to the ICC signature "GRAY": 0 (black only, one
 * subtractive channel) and 14 (additive grey). Reading a "GRAY" signature
 * always gives 14, and writing 0 gives "GRAY": identifier 0 written out and
 * read back becomes 14. That asymmetry is deliberate.
 */
#ifndef ZT_COLOURSPACE_H
#define ZT_COLOURSPACE_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Colour-space identifiers (signed 32-bit). Identifiers 3, 5, 8 and 10 are
 * held by raster formats the colour functions do not use. */
#define ZT_CS_BLACK 0              /* 1 channel, subtractive */
#define ZT_CS_RGB 1                /* 3 channels, additive */
#define ZT_CS_CMYK 2               /* 4 */
#define ZT_CS_RESERVED3 3          /* 1 */
#define ZT_CS_LAB 4                /* 3; fill 128, the neutral a and b */
#define ZT_CS_RESERVED5 5          /* 3 */
#define ZT_CS_CMYK_2 6             /* 6: CMYK plus two further inks */
#define ZT_CS_MULTICOLOUR6 7       /* 6 */
#define ZT_CS_RESERVED8 8          /* 1 */
#define ZT_CS_CHANNELS8 9          /* 8 */
#define ZT_CS_RESERVED10 10        /* 1 */
#define ZT_CS_NCOLOUR 11           /* count taken from the profile */
#define ZT_CS_CMYK_RGB 12          /* 7: CMYK plus red, green and blue */
#define ZT_CS_CHANNELS10 13        /* 10 */
#define ZT_CS_GREY 14              /* 1 channel, additive */
#define ZT_CS_CHANNELS11 15        /* 11 */
#define ZT_CS_CMYK_NCOLOUR 16      /* count taken from the paper profile */
#define ZT_CS_CMYK_CMYK_NCOLOUR 17 /* the paper profile's count + 4 */
#define ZT_CS_UNKNOWN_ICC 18       /* an ICC colour space with no identifier */

/* Rendering intents: the ICC values, and -1 for none or the default. */
#define ZT_INTENT_NONE (-1)
#define ZT_INTENT_PERCEPTUAL 0
#define ZT_INTENT_RELATIVE_COLORIMETRIC 1
#define ZT_INTENT_SATURATION 2
#define ZT_INTENT_ABSOLUTE_COLORIMETRIC 3

/* ICC colour-space signatures are four ASCII characters, the first in the
 * most significant byte. */
#define ZT_ICC_SIGNATURE(a, b, c, d)                                                                 \
  (((uint32_t)(uint8_t)(a) << 24) | ((uint32_t)(uint8_t)(b) << 16) | ((uint32_t)(uint8_t)(c) << 8) | \
   (uint32_t)(uint8_t)(d))
/* What ZT_ICCcolourspaceFromServercolourspace gives for an identifier without
 * a signature: -1 as an unsigned 32-bit value. */
#define ZT_ICC_NO_SIGNATURE 0xFFFFFFFFu

/* "GRAY" -> 14, "RGB " -> 1, "CMYK" -> 2, "1CLR" ... "9CLR" and "ACLR" ...
 * "GCLR" -> 11, "MCH6" -> 7; any other signature -> 18 (never an error). */
ZT_API int32_t ZT_ServercolourspaceFromICCcolourspace(uint32_t signature);
/* 0 and 14 -> "GRAY", 1 -> "RGB ", 2 -> "CMYK", 6 -> "6CLR", 7 -> "MCH6",
 * 12 -> "7CLR"; every other identifier (CIELAB included) ->
 * ZT_ICC_NO_SIGNATURE. */
ZT_API uint32_t ZT_ICCcolourspaceFromServercolourspace(int32_t identifier);
/* 1 for RGB (1) and additive grey (14), else 0. */
ZT_API int32_t isAdditiveColourspace(int32_t identifier);
/* The byte value that means "no ink" or "background": 255 for 1 and 14, 128
 * for CIELAB (4), 0 for every other value. */
ZT_API uint8_t fillcharFromColourspace(int32_t identifier);
/* 255 for "RGB " and "GRAY", 0 for every other signature. */
ZT_API uint8_t fillcharFromICCColourspace(uint32_t signature);
/* The channel count; 1 for 11, 16, 17, every value above 15 and negative
 * values, whose real counts come from a profile or do not exist. */
ZT_API int32_t NumberofBandsFromColourSpace(int32_t identifier);
/* The intent unchanged for -1 ... 3, else 0 (perceptual). */
ZT_API int32_t toIccIntent(int32_t intent);
ZT_API int32_t fromIccIntent(int32_t intent);

/* Whether a raster display list can be made in `identifier`. Refuses, with
 * one logged line and -1: identifiers above 17, negative ones and 3, 5, 8, 10
 * and 11 ("Unknown colourspace %d requested"); 16 without a paper profile
 * ("CMYK+Ncolour colourspace requires a paperprofile") and 17 without one
 * ("CMYK+CMYK+Ncolour colourspace requires a paperprofile"). Otherwise 0. */
ZT_API int32_t ZT_CheckDisplayListColourspace(int32_t identifier, int32_t has_paper_profile);

ZT_EXTERN_C_END

#endif
