/*
 * Block compressors for scanlines and tiles.
 *
 * A compressor is created for a set of codec flags and a sample depth. Each
 * ZT_Compress call tries every codec the flags enable (LZ4, PackBits, LZJB,
 * LZW, deflate, in that order), keeps the smallest result and records the
 * winner in the block flags; ZT_Decompress undoes a block from those flags.
 * The codecs are also available one by one: PackBits, streaming LZW, the delta
 * pre-filter, LZJB, and CCITT Group 4 (ITU-T T.6) for 1-bit rows.
 *
 * Sizes are in bytes. Functions returning a size return ZT_COMPRESS_ERROR
 * (all ones) on failure; status functions return 0 or -1. Source and
 * destination never overlap. Decoders never write more than the capacity they
 * are given nor read beyond the input length, and log one line and fail on a
 * corrupt or truncated stream; they may use the destination past the bytes
 * they produce as scratch. An encoder whose output would not fit its
 * destination fails without logging: that is how a caller learns a block does
 * not shrink enough.
 */
#ifndef ZT_COMPRESS_H
#define ZT_COMPRESS_H

#include <stdint.h>
#include <zt/api.h>

ZT_EXTERN_C_BEGIN

/* Codec flags of compressors and of blocks. */
#define ZT_COMPRESS_ON 0x1u /* compression on */
#define ZT_COMPRESS_PACKBITS 0x4u
#define ZT_COMPRESS_LZW 0x8u
#define ZT_COMPRESS_SCRATCH 0x20u /* scratch buffer the size of the input, not twice */
#define ZT_COMPRESS_DEFLATE 0x40u /* zlib format, level 6 */
#define ZT_COMPRESS_LZJB 0x200u
#define ZT_COMPRESS_LZ4 0x800u
#define ZT_COMPRESS_DELTA 0x1000u /* delta pre-filter before the codec */
#define ZT_COMPRESS_CODEC_MASK 0x1A7Du

/* The failure result of functions that return a size. */
#define ZT_COMPRESS_ERROR 0xFFFFFFFFu

/* Largest PackBits output for `n` input bytes: a lone byte between two pairs
 * costs two, so three bytes can take four. */
#define ZT_PACKBITS_MAX_SIZE(n) ((n) + ((n) + 2u) / 3u + 1u)

typedef struct ZT_Compressor ZT_Compressor;
typedef struct ZT_Decompressor ZT_Decompressor;
typedef struct ZT_LZWState ZT_LZWState;
typedef struct ZT_LZWDecodeState ZT_LZWDecodeState;
typedef struct ZT_CCITG4Encoder ZT_CCITG4Encoder;
typedef struct ZT_CCITG4Decoder ZT_CCITG4Decoder;

/* ---- Block driver ------------------------------------------------------- */

/* A compressor for `flags` (codec bits above) and samples of `bits` bits (1,
 * 2, 4 or 8 are differenced byte by byte, 16 as host-order 16-bit samples).
 * Flags with ZT_COMPRESS_ON and no codec bit take the codecs of the library
 * default (setCompressDefaultAlgorithm). NULL on unknown flags ("Unknown
 * compression mode %d"), an unsupported depth or no memory (logged). */
ZT_API ZT_Compressor *ZT_CompressInit(uint32_t flags, uint32_t bits);
/* Frees a compressor; NULL is accepted. */
ZT_API void ZT_CompressFree(ZT_Compressor *ctx);
/* Compresses `length` bytes of `src` into `dst` (room for `capacity` bytes).
 * Returns the best size and sets in *blockFlags the winning codec bit, plus
 * ZT_COMPRESS_DELTA when the pre-filter was applied, plus ZT_COMPRESS_ON; the
 * other bits of *blockFlags are kept. Returns 0, with the codec bits cleared,
 * when no codec shrank the block (or it is empty): the caller stores it raw.
 * ZT_COMPRESS_ERROR (logged) on NULL arguments or no memory. Once the largest
 * block has been seen, a call allocates nothing. */
ZT_API uint32_t ZT_Compress(ZT_Compressor *ctx, const uint8_t *src, uint8_t *dst, uint32_t length,
                            uint32_t capacity, uint32_t *blockFlags);
/* ZT_Compress with the delta pre-filter on, whatever the compressor's flags. */
ZT_API uint32_t deltaCompress(ZT_Compressor *ctx, const uint8_t *src, uint8_t *dst, uint32_t length,
                              uint32_t capacity, uint32_t *blockFlags);

/* A decompressor for samples of `bits` bits; `flags` names the codecs expected
 * (their state is made now; others are made on first use). NULL as for
 * ZT_CompressInit. */
ZT_API ZT_Decompressor *ZT_DecompressInit(uint32_t flags, uint32_t bits);
/* Frees a decompressor; NULL is accepted. */
ZT_API void ZT_DecompressFree(ZT_Decompressor *ctx);
/* Undoes one block of `length` bytes as its `blockFlags` say (no codec bit:
 * stored raw, copied) into `dst` (room for `capacity` bytes). Returns the
 * number of bytes produced, or ZT_COMPRESS_ERROR (logged) on unknown flags
 * ("Unknown compression mode %d"), a corrupt or truncated block, or one that
 * does not fit. */
ZT_API uint32_t ZT_Decompress(ZT_Decompressor *ctx, const uint8_t *src, uint8_t *dst, uint32_t length,
                              uint32_t capacity, uint32_t blockFlags);

/* Sets the library-wide codecs that a compressor created with
 * ZT_COMPRESS_ON and no codec bit uses (none until set: such blocks are stored
 * raw). `flags` may hold codec bits, ZT_COMPRESS_ON and ZT_COMPRESS_DELTA;
 * 0, or -1 on any other bit ("Unknown compression mode %d"). */
ZT_API int32_t setCompressDefaultAlgorithm(uint32_t flags);

/* Compressor flags for a VLIMG compression type: 1 none, 5 LZW, 7 deflate,
 * 8 PackBits, 10 compression on without a codec, 11 LZJB, 13 LZ4; every type
 * but 8 adds ZT_COMPRESS_DELTA unless `tileStreaming` is non-zero. Any other
 * type logs "Unsupported compression mode %u encountered" and gives 0. */
ZT_API uint32_t ZT_CompressFlagsFromVLIMG(uint32_t compressionType, int32_t tileStreaming);
/* The same mapping, for image buffers read from a VLIMG file. */
ZT_API uint32_t ZT_ImageBufFlagsFromVLIMG(uint32_t compressionType, int32_t tileStreaming);

/* ---- PackBits ----------------------------------------------------------- */

/* Encodes `length` bytes; `dst` must hold ZT_PACKBITS_MAX_SIZE(length) bytes.
 * Sets *outLength; 0, or -1 (logged) on NULL arguments. */
ZT_API int32_t ZTPackbits_Compress(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t *outLength);
/* The same into `capacity` bytes: -1 without logging when it does not fit. */
ZT_API int32_t ZTPackbits_Compress_withDestSize(const uint8_t *src, uint8_t *dst, uint32_t length,
                                                uint32_t capacity, uint32_t *outLength);
/* Decodes all `length` bytes into at most `capacity` bytes; sets *outLength.
 * -1 (logged) on a truncated stream or one that does not fit. */
ZT_API int32_t ZTPackbits_DeCompress(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t capacity,
                                     uint32_t *outLength);

/* ---- LZW ---------------------------------------------------------------- */

/* A streaming LZW encoder (codes of 9 to 12 bits, most significant bit
 * first); NULL when memory runs out (logged). */
ZT_API ZT_LZWState *lzwCompressInit(void);
/* Encodes `length` more bytes of the current stream; whole bytes of output go
 * to `dst` and *outLength says how many. -1 (no log) when fewer than 5 bytes
 * of room remain at a code: reset the encoder before using it again. */
ZT_API int32_t lzwCompress(ZT_LZWState *state, const uint8_t *src, uint8_t *dst, uint32_t length,
                           uint32_t capacity, uint32_t *outLength);
/* Ends the stream: the pending code, End of information and the zero bits
 * that fill the last byte; the encoder is then ready for a new stream. -1
 * (no log) when fewer than 5 bytes of room remain. */
ZT_API int32_t lzwCompressEnd(ZT_LZWState *state, uint8_t *dst, uint32_t capacity, uint32_t *outLength);
/* Drops the current stream; the next call starts a new one. */
ZT_API void lzwCompressReset(ZT_LZWState *state);
/* Frees an encoder; NULL is accepted. */
ZT_API void lzwCompressFree(ZT_LZWState *state);
/* A streaming LZW decoder; NULL when memory runs out (logged). */
ZT_API ZT_LZWDecodeState *lzwDeCompressCreate(void);
/* Decodes the next `length` bytes of a stream (any split of the stream gives
 * the same output); writes all they complete to `dst` and sets *outLength.
 * Bytes after End of information are ignored. -1 (logged) on a corrupt
 * stream or output beyond `capacity`; the decoder then needs
 * lzwDeCompressEnd before the next stream. */
ZT_API int32_t lzwDeCompress(ZT_LZWDecodeState *state, const uint8_t *src, uint8_t *dst, uint32_t length,
                             uint32_t capacity, uint32_t *outLength);
/* Ends a stream and readies the decoder for the next: 0 when End of
 * information was read, -1 (logged) when the stream was cut short or failed. */
ZT_API int32_t lzwDeCompressEnd(ZT_LZWDecodeState *state);
/* Frees a decoder; NULL is accepted. */
ZT_API void lzwDeCompressFree(ZT_LZWDecodeState *state);

/* ---- Delta pre-filter --------------------------------------------------- */

/* Horizontal differencing over a whole block: each sample minus the previous
 * one (the first minus 0), modulo 256 for `bits` 1, 2, 4 or 8 and modulo
 * 65536 for 16 (host-order samples; an odd last byte is left as it is).
 * Decoding is the running sum. In place, or from `src` into `dst`. 0, or -1
 * (logged) on NULL buffers or another depth. */
ZT_API int32_t deltaEncodeBuffer(uint8_t *buf, uint32_t length, uint32_t bits);
ZT_API int32_t deltaDecodeBuffer(uint8_t *buf, uint32_t length, uint32_t bits);
ZT_API int32_t deltaEncodeToBuffer(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t bits);
ZT_API int32_t deltaDecodeToBuffer(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t bits);

/* ---- LZJB --------------------------------------------------------------- */

/* Encodes into at most `capacity` bytes; returns the size, or `length` when
 * the result would not be smaller than that or not fit. */
ZT_API uint32_t lzjb_compress(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t capacity);
/* Decodes all `length` bytes into at most `capacity` bytes; returns the size,
 * or ZT_COMPRESS_ERROR (logged) on a corrupt stream or one that does not fit. */
ZT_API uint32_t lzjb_decompress(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t capacity);

/* ---- CCITT Group 4 ------------------------------------------------------ */

/* Rows are `width` pixels packed most significant bit first, a set bit being
 * black (inked), as a min-is-white reader sees them; bits past the width in a
 * row's last byte are ignored on encoding and written as 0 on decoding. The
 * first row is coded against an all-white line; the image ends with EOFB. */

/* An encoder for rows of `width` pixels (1 or more); NULL (logged) otherwise
 * or when memory runs out. */
ZT_API ZT_CCITG4Encoder *CCITG4Create(uint32_t width);
/* Encodes `rows` rows starting at `src`, `stride` bytes apart, appending to
 * the stream; whole bytes go to `dst` (*outLength says how many), the last
 * partial byte stays in the encoder. -1 (no log) when the output does not fit:
 * the encoder can then only be closed. -1 (logged) on NULL arguments or a
 * stride shorter than a row. */
ZT_API int32_t CCITG4Compress(ZT_CCITG4Encoder *enc, const uint8_t *src, uint32_t rows, uint32_t stride,
                              uint8_t *dst, uint32_t capacity, uint32_t *outLength);
/* Ends the image (EOFB and the zero bits that fill the last byte) into `dst`
 * and frees the encoder. With `dst` NULL it only frees. -1 (no log) when the
 * end does not fit; the encoder is freed all the same. NULL is accepted. */
ZT_API int32_t CCITG4Close(ZT_CCITG4Encoder *enc, uint8_t *dst, uint32_t capacity, uint32_t *outLength);
/* A decoder of an image of `width` × `height` pixels (both 1 or more); NULL
 * (logged) otherwise or when memory runs out. */
ZT_API ZT_CCITG4Decoder *CCITG4DecompressCreate(uint32_t width, uint32_t height);
/* Decodes the next `length` bytes of the stream (any split of the stream gives
 * the same rows) into `page`, which holds the image's `height` rows `stride`
 * bytes apart and is the same buffer on every call; *rowsDone counts the rows
 * complete so far. Input after EOFB or after the last row is ignored. -1
 * (logged) on a corrupt stream or one ending before the last row. */
ZT_API int32_t CCITG4DeCompress(ZT_CCITG4Decoder *dec, const uint8_t *src, uint32_t length, uint8_t *page,
                                uint32_t stride, uint32_t *rowsDone);
/* Frees the decoder: 0 when every row was decoded, -1 (logged) when the
 * stream stopped short. NULL is accepted (0). */
ZT_API int32_t CCITG4DecompressClose(ZT_CCITG4Decoder *dec);

ZT_EXTERN_C_END

#endif
