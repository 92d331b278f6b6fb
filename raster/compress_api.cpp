// The exported compress family: thin shims that check their arguments, log
// what is wrong under their own name and call the codecs.
#include <zt/compress.h>

#include <memory>
#include <new>

#include "foundation/internal.h"
#include "raster/compress_internal.h"

using zt::api_guard;
using zt::raster::kCompressModule;
using zt::raster::kFail;

struct ZT_Compressor {
  std::unique_ptr<zt::raster::BlockCompressor> impl;
};
struct ZT_Decompressor {
  std::unique_ptr<zt::raster::BlockDecompressor> impl;
};
struct ZT_LZWState {
  zt::raster::LzwEncoder impl;
};
struct ZT_LZWDecodeState {
  zt::raster::LzwDecoder impl;
};

namespace {

uint32_t to_result(size_t size) { return size == kFail ? ZT_COMPRESS_ERROR : static_cast<uint32_t>(size); }

bool missing(const void *p, uint32_t length) { return p == nullptr && length != 0; }

uint32_t compress_block(ZT_Compressor *ctx, const uint8_t *src, uint8_t *dst, uint32_t length,
                        uint32_t capacity, uint32_t *blockFlags, bool force_delta, const char *fn) {
  if (ctx == nullptr || blockFlags == nullptr || missing(src, length) || (dst == nullptr && capacity != 0)) {
    ZT_LOG(kCompressModule, fn, "NULL compressor, buffer or block flags passed");
    return ZT_COMPRESS_ERROR;
  }
  return to_result(ctx->impl->compress(src, length, dst, capacity, blockFlags, force_delta, fn));
}

}  // namespace

extern "C" {

// ---- Block driver ---------------------------------------------------------------

ZT_API ZT_Compressor *ZT_CompressInit(uint32_t flags, uint32_t bits) {
  return api_guard<ZT_Compressor *>(kCompressModule, "ZT_CompressInit", nullptr, [&]() -> ZT_Compressor * {
    auto impl = zt::raster::BlockCompressor::create(flags, bits, "ZT_CompressInit");
    if (!impl) return nullptr;
    auto *ctx = new ZT_Compressor;
    ctx->impl = std::move(impl);
    return ctx;
  });
}

ZT_API void ZT_CompressFree(ZT_Compressor *ctx) { delete ctx; }

ZT_API uint32_t ZT_Compress(ZT_Compressor *ctx, const uint8_t *src, uint8_t *dst, uint32_t length,
                            uint32_t capacity, uint32_t *blockFlags) {
  return compress_block(ctx, src, dst, length, capacity, blockFlags, false, "ZT_Compress");
}

ZT_API uint32_t deltaCompress(ZT_Compressor *ctx, const uint8_t *src, uint8_t *dst, uint32_t length,
                              uint32_t capacity, uint32_t *blockFlags) {
  return compress_block(ctx, src, dst, length, capacity, blockFlags, true, "deltaCompress");
}

ZT_API ZT_Decompressor *ZT_DecompressInit(uint32_t flags, uint32_t bits) {
  return api_guard<ZT_Decompressor *>(
      kCompressModule, "ZT_DecompressInit", nullptr, [&]() -> ZT_Decompressor * {
        auto impl = zt::raster::BlockDecompressor::create(flags, bits, "ZT_DecompressInit");
        if (!impl) return nullptr;
        auto *ctx = new ZT_Decompressor;
        ctx->impl = std::move(impl);
        return ctx;
      });
}

ZT_API void ZT_DecompressFree(ZT_Decompressor *ctx) { delete ctx; }

ZT_API uint32_t ZT_Decompress(ZT_Decompressor *ctx, const uint8_t *src, uint8_t *dst, uint32_t length,
                              uint32_t capacity, uint32_t blockFlags) {
  if (ctx == nullptr || missing(src, length) || (dst == nullptr && capacity != 0)) {
    ZT_LOG(kCompressModule, "ZT_Decompress", "NULL decompressor or buffer passed");
    return ZT_COMPRESS_ERROR;
  }
  return to_result(ctx->impl->decompress(src, length, dst, capacity, blockFlags, "ZT_Decompress"));
}

ZT_API int32_t setCompressDefaultAlgorithm(uint32_t flags) {
  using namespace zt::raster;
  if ((flags & ~(kCodecs | ZT_COMPRESS_ON | ZT_COMPRESS_DELTA)) != 0) {
    ZT_LOG(kCompressModule, "setCompressDefaultAlgorithm", "Unknown compression mode %d",
           static_cast<int>(flags));
    return -1;
  }
  set_default_algorithm(flags);
  return 0;
}

ZT_API uint32_t ZT_CompressFlagsFromVLIMG(uint32_t compressionType, int32_t tileStreaming) {
  return zt::raster::flags_from_vlimg(compressionType, tileStreaming != 0, "ZT_CompressFlagsFromVLIMG");
}

ZT_API uint32_t ZT_ImageBufFlagsFromVLIMG(uint32_t compressionType, int32_t tileStreaming) {
  return zt::raster::flags_from_vlimg(compressionType, tileStreaming != 0, "ZT_ImageBufFlagsFromVLIMG");
}

// ---- PackBits -------------------------------------------------------------------

ZT_API int32_t ZTPackbits_Compress(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t *outLength) {
  if (outLength == nullptr || missing(src, length) || missing(dst, length)) {
    ZT_LOG(kCompressModule, "ZTPackbits_Compress", "NULL buffer passed");
    return -1;
  }
  const size_t size = zt::raster::packbits_encode(src, length, dst, ZT_PACKBITS_MAX_SIZE(size_t{length}));
  *outLength = static_cast<uint32_t>(size);
  return 0;
}

ZT_API int32_t ZTPackbits_Compress_withDestSize(const uint8_t *src, uint8_t *dst, uint32_t length,
                                                uint32_t capacity, uint32_t *outLength) {
  if (outLength == nullptr || missing(src, length) || missing(dst, capacity)) {
    ZT_LOG(kCompressModule, "ZTPackbits_Compress_withDestSize", "NULL buffer passed");
    return -1;
  }
  const size_t size = zt::raster::packbits_encode(src, length, dst, capacity);
  if (size == kFail) return -1;
  *outLength = static_cast<uint32_t>(size);
  return 0;
}

ZT_API int32_t ZTPackbits_DeCompress(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t capacity,
                                     uint32_t *outLength) {
  if (outLength == nullptr || missing(src, length) || missing(dst, capacity)) {
    ZT_LOG(kCompressModule, "ZTPackbits_DeCompress", "NULL buffer passed");
    return -1;
  }
  const size_t size = zt::raster::packbits_decode(src, length, dst, capacity, "ZTPackbits_DeCompress");
  if (size == kFail) return -1;
  *outLength = static_cast<uint32_t>(size);
  return 0;
}

// ---- LZW ------------------------------------------------------------------------

ZT_API ZT_LZWState *lzwCompressInit(void) {
  auto *state = new (std::nothrow) ZT_LZWState;
  if (state == nullptr) ZT_LOG(kCompressModule, "lzwCompressInit", "Cannot allocate lzw compression object");
  return state;
}

ZT_API int32_t lzwCompress(ZT_LZWState *state, const uint8_t *src, uint8_t *dst, uint32_t length,
                           uint32_t capacity, uint32_t *outLength) {
  if (state == nullptr || outLength == nullptr || missing(src, length) || missing(dst, capacity)) {
    ZT_LOG(kCompressModule, "lzwCompress", "NULL state or buffer passed");
    return -1;
  }
  const size_t size = state->impl.encode(src, length, dst, capacity);
  if (size == kFail) return -1;
  *outLength = static_cast<uint32_t>(size);
  return 0;
}

ZT_API int32_t lzwCompressEnd(ZT_LZWState *state, uint8_t *dst, uint32_t capacity, uint32_t *outLength) {
  if (state == nullptr || outLength == nullptr || missing(dst, capacity)) {
    ZT_LOG(kCompressModule, "lzwCompressEnd", "NULL state or buffer passed");
    return -1;
  }
  const size_t size = state->impl.finish(dst, capacity);
  if (size == kFail) return -1;
  *outLength = static_cast<uint32_t>(size);
  return 0;
}

ZT_API void lzwCompressReset(ZT_LZWState *state) {
  if (state != nullptr) state->impl.reset();
}

ZT_API void lzwCompressFree(ZT_LZWState *state) { delete state; }

ZT_API ZT_LZWDecodeState *lzwDeCompressCreate(void) {
  auto *state = new (std::nothrow) ZT_LZWDecodeState;
  if (state == nullptr) ZT_LOG(kCompressModule, "lzwDeCompressCreate", "Cannot allocate memory");
  return state;
}

ZT_API int32_t lzwDeCompress(ZT_LZWDecodeState *state, const uint8_t *src, uint8_t *dst, uint32_t length,
                             uint32_t capacity, uint32_t *outLength) {
  if (state == nullptr || outLength == nullptr || missing(src, length) || missing(dst, capacity)) {
    ZT_LOG(kCompressModule, "lzwDeCompress", "NULL state or buffer passed");
    return -1;
  }
  const size_t size = state->impl.decode(src, length, dst, capacity, "lzwDeCompress");
  if (size == kFail) return -1;
  *outLength = static_cast<uint32_t>(size);
  return 0;
}

ZT_API int32_t lzwDeCompressEnd(ZT_LZWDecodeState *state) {
  if (state == nullptr) {
    ZT_LOG(kCompressModule, "lzwDeCompressEnd", "NULL state passed");
    return -1;
  }
  const bool failed = state->impl.failed();
  const bool ended = state->impl.ended();
  state->impl.reset();
  if (failed) return -1;  // logged where it failed
  if (!ended) {
    ZT_LOG(kCompressModule, "lzwDeCompressEnd", "LZW stream is cut short");
    return -1;
  }
  return 0;
}

ZT_API void lzwDeCompressFree(ZT_LZWDecodeState *state) { delete state; }

// ---- Delta ----------------------------------------------------------------------

namespace {

bool delta_args_ok(const void *a, const void *b, uint32_t length, uint32_t bits, const char *fn) {
  if (missing(a, length) || missing(b, length)) {
    ZT_LOG(kCompressModule, fn, "NULL buffer passed");
    return false;
  }
  if (bits != 1 && bits != 2 && bits != 4 && bits != 8 && bits != 16) {
    ZT_LOG(kCompressModule, fn, "Unsupported sample depth %u", bits);
    return false;
  }
  return true;
}

}  // namespace

ZT_API int32_t deltaEncodeBuffer(uint8_t *buf, uint32_t length, uint32_t bits) {
  if (!delta_args_ok(buf, buf, length, bits, "deltaEncodeBuffer")) return -1;
  zt::raster::delta_encode_in_place(buf, length, bits);
  return 0;
}

ZT_API int32_t deltaDecodeBuffer(uint8_t *buf, uint32_t length, uint32_t bits) {
  if (!delta_args_ok(buf, buf, length, bits, "deltaDecodeBuffer")) return -1;
  zt::raster::delta_decode_in_place(buf, length, bits);
  return 0;
}

ZT_API int32_t deltaEncodeToBuffer(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t bits) {
  if (!delta_args_ok(src, dst, length, bits, "deltaEncodeToBuffer")) return -1;
  zt::raster::delta_encode(src, dst, length, bits);
  return 0;
}

ZT_API int32_t deltaDecodeToBuffer(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t bits) {
  if (!delta_args_ok(src, dst, length, bits, "deltaDecodeToBuffer")) return -1;
  zt::raster::delta_decode(src, dst, length, bits);
  return 0;
}

// ---- LZJB -----------------------------------------------------------------------

ZT_API uint32_t lzjb_compress(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t capacity) {
  if (missing(src, length) || missing(dst, capacity)) {
    ZT_LOG(kCompressModule, "lzjb_compress", "NULL buffer passed");
    return ZT_COMPRESS_ERROR;
  }
  const size_t size = zt::raster::lzjb_encode(src, length, dst, capacity);
  return size == kFail || size >= length ? length : static_cast<uint32_t>(size);
}

ZT_API uint32_t lzjb_decompress(const uint8_t *src, uint8_t *dst, uint32_t length, uint32_t capacity) {
  if (missing(src, length) || missing(dst, capacity)) {
    ZT_LOG(kCompressModule, "lzjb_decompress", "NULL buffer passed");
    return ZT_COMPRESS_ERROR;
  }
  return to_result(zt::raster::lzjb_decode(src, length, dst, capacity, "lzjb_decompress"));
}

}  // extern "C"
