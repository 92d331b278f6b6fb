// The exported CCITT Group 4 family: argument checks and logging around the
// encoder and decoder objects.
#include <zt/compress.h>

#include <memory>

#include "foundation/internal.h"
#include "raster/ccitt_g4_internal.h"
#include "raster/compress_internal.h"

using zt::raster::kFail;
using zt::raster::kG4Module;

struct ZT_CCITG4Encoder {
  std::unique_ptr<zt::raster::G4Encoder> impl;
};
struct ZT_CCITG4Decoder {
  std::unique_ptr<zt::raster::G4Decoder> impl;
};


extern "C" {

ZT_API ZT_CCITG4Encoder *CCITG4Create(uint32_t width) {
  if (width == 0 || width > zt::raster::kG4MaxWidth) {
    ZT_LOG(kG4Module, "CCITG4Create", "Cannot code rows of %u pixels", width);
    return nullptr;
  }
  return zt::api_guard<ZT_CCITG4Encoder *>(kG4Module, "CCITG4Create", nullptr, [&]() -> ZT_CCITG4Encoder * {
    auto impl = zt::raster::G4Encoder::create(width);
    if (!impl) {
      ZT_LOG(kG4Module, "CCITG4Create", "Cannot allocate memory");
      return nullptr;
    }
    auto *enc = new ZT_CCITG4Encoder;
    enc->impl = std::move(impl);
    return enc;
  });
}

ZT_API int32_t CCITG4Compress(ZT_CCITG4Encoder *enc, const uint8_t *src, uint32_t rows, uint32_t stride,
                              uint8_t *dst, uint32_t capacity, uint32_t *outLength) {
  if (enc == nullptr || outLength == nullptr || (src == nullptr && rows != 0) ||
      (dst == nullptr && capacity != 0)) {
    ZT_LOG(kG4Module, "CCITG4Compress", "NULL encoder or buffer passed");
    return -1;
  }
  const uint32_t row_bytes = (enc->impl->width() + 7) / 8;
  if (rows > 1 && stride < row_bytes) {
    ZT_LOG(kG4Module, "CCITG4Compress", "Row stride %u is shorter than a row of %u bytes", stride, row_bytes);
    return -1;
  }
  if (enc->impl->broken()) {
    ZT_LOG(kG4Module, "CCITG4Compress", "Encoder ran out of room earlier; close it");
    return -1;
  }
  const size_t size = enc->impl->encode(src, rows, stride, dst, capacity);
  if (size == kFail) return -1;
  *outLength = static_cast<uint32_t>(size);
  return 0;
}

ZT_API int32_t CCITG4Close(ZT_CCITG4Encoder *enc, uint8_t *dst, uint32_t capacity, uint32_t *outLength) {
  if (enc == nullptr) return 0;
  std::unique_ptr<ZT_CCITG4Encoder> owned(enc);
  if (dst == nullptr) return 0;
  const size_t size = enc->impl->finish(dst, capacity);
  if (size == kFail) return -1;
  if (outLength != nullptr) *outLength = static_cast<uint32_t>(size);
  return 0;
}

ZT_API ZT_CCITG4Decoder *CCITG4DecompressCreate(uint32_t width, uint32_t height) {
  if (width == 0 || width > zt::raster::kG4MaxWidth || height == 0) {
    ZT_LOG(kG4Module, "CCITG4DecompressCreate", "Cannot decode an image of %u x %u pixels", width, height);
    return nullptr;
  }
  return zt::api_guard<ZT_CCITG4Decoder *>(
      kG4Module, "CCITG4DecompressCreate", nullptr, [&]() -> ZT_CCITG4Decoder * {
        auto impl = zt::raster::G4Decoder::create(width, height);
        if (!impl) {
          ZT_LOG(kG4Module, "CCITG4DecompressCreate", "Cannot allocate memory");
          return nullptr;
        }
        auto *dec = new ZT_CCITG4Decoder;
        dec->impl = std::move(impl);
        return dec;
      });
}

ZT_API int32_t CCITG4DeCompress(ZT_CCITG4Decoder *dec, const uint8_t *src, uint32_t length, uint8_t *page,
                                uint32_t stride, uint32_t *rowsDone) {
  if (dec == nullptr || page == nullptr || (src == nullptr && length != 0)) {
    ZT_LOG(kG4Module, "CCITG4DeCompress", "NULL decoder or buffer passed");
    return -1;
  }
  const uint32_t row_bytes = (dec->impl->width() + 7) / 8;
  if (stride < row_bytes && dec->impl->height() > 1) {
    ZT_LOG(kG4Module, "CCITG4DeCompress", "Row stride %u is shorter than a row of %u bytes", stride,
           row_bytes);
    return -1;
  }
  const bool ok = dec->impl->decode(src, length, page, stride, "CCITG4DeCompress");
  if (rowsDone != nullptr) *rowsDone = dec->impl->rows_done();
  return ok ? 0 : -1;
}

ZT_API int32_t CCITG4DecompressClose(ZT_CCITG4Decoder *dec) {
  if (dec == nullptr) return 0;
  std::unique_ptr<ZT_CCITG4Decoder> owned(dec);
  if (dec->impl->failed()) return -1;  // logged where it failed
  if (dec->impl->rows_done() < dec->impl->height()) {
    ZT_LOG(kG4Module, "CCITG4DecompressClose", "Group 4 data end after %u of %u rows", dec->impl->rows_done(),
           dec->impl->height());
    return -1;
  }
  return 0;
}

}  // extern "C"
