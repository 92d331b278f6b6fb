// The codecs behind the compress family, as the driver and the exported shims
// see them. Every function here is noexcept and allocates nothing unless its
// name says so; sizes are size_t and kFail marks a failure that the function
// has already logged (decoders) or a result that does not fit (encoders, not
// logged).
#pragma once

#include <zt/compress.h>

#include "foundation/byte_order.h"

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

struct z_stream_s;
struct libdeflate_decompressor;

namespace zt::raster {

constexpr const char *kCompressModule = "compress";
constexpr size_t kFail = SIZE_MAX;

constexpr uint32_t kCodecs = ZT_COMPRESS_PACKBITS | ZT_COMPRESS_LZW | ZT_COMPRESS_DEFLATE | ZT_COMPRESS_LZJB | ZT_COMPRESS_LZ4;

// ---- PackBits ---------------------------------------------------------------

// Encodes into at most `cap` bytes; kFail when that is not enough.
size_t packbits_encode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap) noexcept;
// Decodes all `n` bytes into at most `cap`; kFail (logged as `fn`) when the
// stream is cut short or does not fit.
size_t packbits_decode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap, const char *fn) noexcept;

// ---- LZW --------------------------------------------------------------------

// The encoder's state lives between calls, so that a stream can be fed in
// pieces; the hash table (9,001 entries) is part of it.
class LzwEncoder {
 public:
  static constexpr int kHashSize = 9001;

  // Empty table, no stream started.
  LzwEncoder() noexcept { reset(); }
  void reset() noexcept;
  // Appends the codes for `n` input bytes; kFail when fewer than 5 bytes of
  // room remain at some code (the stream is then broken until reset()).
  size_t encode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap) noexcept;
  // Pending code, End of information, padding; then reset().
  size_t finish(uint8_t *dst, size_t cap) noexcept;

 private:
  static constexpr int32_t kEmpty = -1;

  void clear_table() noexcept;

  int32_t keys_[kHashSize];
  uint16_t codes_[kHashSize];
  uint32_t prefix_;    // 65535: none, the stream has not started
  uint32_t width_;     // 9 .. 12
  uint32_t max_code_;  // largest code of the width
  uint32_t next_free_;
  uint64_t acc_;  // pending bits, the newest in the low end
  uint32_t acc_bits_;
  uint64_t in_count_;    // input bytes since the last reset
  uint64_t out_bits_;    // output bits since the last reset
  uint64_t checkpoint_;  // in_count_ at which the ratio is next checked
  uint64_t best_ratio_;
};

class LzwDecoder {
 public:
  LzwDecoder() noexcept { reset(); }
  // Back to the start of a stream.
  void reset() noexcept;
  // Decodes `n` more bytes; kFail (logged as `fn`) on a corrupt stream or
  // output beyond `cap`.
  size_t decode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap, const char *fn) noexcept;
  // True once End of information was read.
  bool ended() const noexcept { return ended_; }
  bool failed() const noexcept { return failed_; }

 private:
  struct Entry {
    uint32_t pos;     // where the string stands in this call's output
    uint32_t head;    // its first (up to) four bytes, the first lowest
    uint16_t prefix;  // code of the string without its last byte
    uint16_t length;  // bytes in the string
    uint8_t last;     // its last byte
  };

  Entry table_[4096];
  uint64_t acc_;  // unread bits, the oldest at the top of the low acc_bits_
  uint32_t acc_bits_;
  uint32_t width_;
  uint32_t next_free_;
  uint32_t prev_;  // previous code; kNone after Clear
  bool ended_;
  bool failed_;
};

// ---- Delta ------------------------------------------------------------------

// `bits` 16 works on 16-bit samples, anything else on bytes.
void delta_encode(const uint8_t *src, uint8_t *dst, size_t n, uint32_t bits) noexcept;
void delta_decode(const uint8_t *src, uint8_t *dst, size_t n, uint32_t bits) noexcept;
void delta_encode_in_place(uint8_t *buf, size_t n, uint32_t bits) noexcept;
void delta_decode_in_place(uint8_t *buf, size_t n, uint32_t bits) noexcept;

// ---- LZJB -------------------------------------------------------------------

// The size, or kFail when the result does not fit `cap`.
size_t lzjb_encode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap) noexcept;
// kFail (logged as `fn`) on a corrupt stream or output beyond `cap`.
size_t lzjb_decode(const uint8_t *src, size_t n, uint8_t *dst, size_t cap, const char *fn) noexcept;

// ---- The block driver -------------------------------------------------------

struct ZStreamDeleter {
  void operator()(z_stream_s *zs) const noexcept;
};
// Deflate blocks are inflated whole by libdeflate, which reads zlib's format
// about twice as fast as zlib's streaming inflate; zlib still writes them,
// so the stored bytes stay zlib's own.
struct InflateDeleter {
  void operator()(libdeflate_decompressor *d) const noexcept;
};

// The object behind ZT_CompressInit. Its buffers grow to the largest block
// seen and stay, so that steady-state compression allocates nothing.
class BlockCompressor {
 public:
  // NULL after logging as `fn`.
  static std::unique_ptr<BlockCompressor> create(uint32_t flags, uint32_t bits, const char *fn) noexcept;
  // The best size (0: store raw) with the block flags set, or kFail (logged).
  size_t compress(const uint8_t *src, size_t n, uint8_t *dst, size_t cap, uint32_t *block_flags,
                  bool force_delta, const char *fn) noexcept;
  uint32_t flags() const noexcept { return flags_; }

 private:
  BlockCompressor(uint32_t flags, uint32_t bits) noexcept : flags_(flags), bits_(bits) {}
  bool reserve(std::unique_ptr<uint8_t[]> &buf, size_t &cap, size_t need, const char *fn) noexcept;
  size_t run_codec(uint32_t codec, const uint8_t *in, size_t n, uint8_t *out, size_t limit) noexcept;

  uint32_t flags_;
  uint32_t bits_;
  std::unique_ptr<uint8_t[]> scratch_;
  size_t scratch_cap_ = 0;
  std::unique_ptr<uint8_t[]> delta_;
  size_t delta_cap_ = 0;
  std::unique_ptr<LzwEncoder> lzw_;
  std::unique_ptr<z_stream_s, ZStreamDeleter> deflate_;
};

// The object behind ZT_DecompressInit.
class BlockDecompressor {
 public:
  static std::unique_ptr<BlockDecompressor> create(uint32_t flags, uint32_t bits, const char *fn) noexcept;
  // The size produced, or kFail (logged as `fn`).
  size_t decompress(const uint8_t *src, size_t n, uint8_t *dst, size_t cap, uint32_t block_flags,
                    const char *fn) noexcept;

 private:
  explicit BlockDecompressor(uint32_t bits) noexcept : bits_(bits) {}
  bool make_lzw(const char *fn) noexcept;
  bool make_inflate(const char *fn) noexcept;

  uint32_t bits_;
  std::unique_ptr<LzwDecoder> lzw_;
  std::unique_ptr<libdeflate_decompressor, InflateDeleter> inflate_;
};

// Checks a flag set and a depth for a compressor or decompressor; false after
// logging as `fn`.
bool check_flags_and_depth(uint32_t flags, uint32_t bits, const char *fn) noexcept;
// The codec bits a compressor created with "on, no codec" uses.
uint32_t default_algorithm() noexcept;
void set_default_algorithm(uint32_t flags) noexcept;
// The VLIMG compression type mapping; 0 after logging as `fn`.
uint32_t flags_from_vlimg(uint32_t type, bool tile_streaming, const char *fn) noexcept;

}  // namespace zt::raster
