// The block driver: every enabled codec compresses the block (after the delta
// pre-filter when asked), the smallest result wins and the block flags name
// it. Codecs write alternately into the caller's destination and our scratch
// buffer, whichever does not hold the best result so far, so that at most one
// copy happens per block. Each codec is held to one byte less than the best
// so far and to the destination's room: a result that could not win is
// abandoned as soon as it grows too long.
#include <libdeflate.h>
#include <lz4.h>
#include <zlib.h>

#include <atomic>
#include <bit>
#include <climits>
#include <cstring>
#include <new>

#include "foundation/internal.h"
#include "raster/compress_internal.h"

namespace zt::raster {
namespace {

constexpr int kDeflateLevel = 6;

// Tried in this order; on equal sizes the earlier codec stays.
constexpr uint32_t kCodecOrder[] = {ZT_COMPRESS_LZ4, ZT_COMPRESS_PACKBITS, ZT_COMPRESS_LZJB, ZT_COMPRESS_LZW, ZT_COMPRESS_DEFLATE};

constinit std::atomic<uint32_t> g_default_algorithm{0};

bool depth_ok(uint32_t bits) { return bits == 1 || bits == 2 || bits == 4 || bits == 8 || bits == 16; }

}  // namespace

void ZStreamDeleter::operator()(z_stream_s *zs) const noexcept {
  deflateEnd(zs);
  delete zs;
}
void InflateDeleter::operator()(libdeflate_decompressor *d) const noexcept { libdeflate_free_decompressor(d); }

bool check_flags_and_depth(uint32_t flags, uint32_t bits, const char *fn) noexcept {
  if ((flags & ~ZT_COMPRESS_CODEC_MASK) != 0) {
    ZT_LOG(kCompressModule, fn, "Unknown compression mode %d", static_cast<int>(flags));
    return false;
  }
  if (!depth_ok(bits)) {
    ZT_LOG(kCompressModule, fn, "Unsupported sample depth %u", bits);
    return false;
  }
  return true;
}

uint32_t default_algorithm() noexcept { return g_default_algorithm.load(std::memory_order_relaxed); }
void set_default_algorithm(uint32_t flags) noexcept {
  g_default_algorithm.store(flags, std::memory_order_relaxed);
}

uint32_t flags_from_vlimg(uint32_t type, bool tile_streaming, const char *fn) noexcept {
  uint32_t flags;
  switch (type) {
    case 1:
      flags = 0;
      break;
    case 5:
      flags = ZT_COMPRESS_ON | ZT_COMPRESS_LZW;
      break;
    case 7:
      flags = ZT_COMPRESS_ON | ZT_COMPRESS_DEFLATE;
      break;
    case 8:
      flags = ZT_COMPRESS_ON | ZT_COMPRESS_PACKBITS;
      break;
    case 10:
      flags = ZT_COMPRESS_ON | ZT_COMPRESS_SCRATCH;
      break;
    case 11:
      flags = ZT_COMPRESS_ON | ZT_COMPRESS_LZJB;
      break;
    case 13:
      flags = ZT_COMPRESS_ON | ZT_COMPRESS_LZ4;
      break;
    default:
      ZT_LOG(kCompressModule, fn, "Unsupported compression mode %u encountered", type);
      return 0;
  }
  // Tile streams are cut at arbitrary rows, where a running difference would
  // not restart; PackBits gains nothing from it.
  if (type != 8 && !tile_streaming) flags |= ZT_COMPRESS_DELTA;
  return flags;
}

// ---- Compressor ---------------------------------------------------------------

std::unique_ptr<BlockCompressor> BlockCompressor::create(uint32_t flags, uint32_t bits,
                                                         const char *fn) noexcept {
  if (!check_flags_and_depth(flags, bits, fn)) return nullptr;
  if ((flags & ZT_COMPRESS_ON) && (flags & kCodecs) == 0) flags |= default_algorithm() & (kCodecs | ZT_COMPRESS_DELTA);
  std::unique_ptr<BlockCompressor> c(new (std::nothrow) BlockCompressor(flags, bits));
  if (!c) {
    ZT_LOG(kCompressModule, fn, "Cannot allocate memory");
    return nullptr;
  }
  if (flags & ZT_COMPRESS_LZW) {
    c->lzw_.reset(new (std::nothrow) LzwEncoder);
    if (!c->lzw_) {
      ZT_LOG(kCompressModule, fn, "Cannot allocate lzw compression object");
      return nullptr;
    }
  }
  if (flags & ZT_COMPRESS_DEFLATE) {
    auto *zs = new (std::nothrow) z_stream{};
    if (zs == nullptr || deflateInit(zs, kDeflateLevel) != Z_OK) {
      delete zs;
      ZT_LOG(kCompressModule, fn, "Cannot allocate zip compression object");
      return nullptr;
    }
    c->deflate_.reset(zs);
  }
  return c;
}

bool BlockCompressor::reserve(std::unique_ptr<uint8_t[]> &buf, size_t &cap, size_t need,
                              const char *fn) noexcept {
  if (need <= cap) return true;
  const bool had = buf != nullptr;
  buf.reset(new (std::nothrow) uint8_t[need]);
  if (!buf) {
    cap = 0;
    ZT_LOG(kCompressModule, fn, had ? "Cannot reallocate memory" : "Cannot allocate memory");
    return false;
  }
  cap = need;
  return true;
}

size_t BlockCompressor::run_codec(uint32_t codec, const uint8_t *in, size_t n, uint8_t *out,
                                  size_t limit) noexcept {
  switch (codec) {
    case ZT_COMPRESS_LZ4: {
      if (n > LZ4_MAX_INPUT_SIZE) return kFail;
      const int room = limit > INT_MAX ? INT_MAX : static_cast<int>(limit);
      const int r = LZ4_compress_default(reinterpret_cast<const char *>(in), reinterpret_cast<char *>(out),
                                         static_cast<int>(n), room);
      return r > 0 ? static_cast<size_t>(r) : kFail;
    }
    case ZT_COMPRESS_PACKBITS:
      return packbits_encode(in, n, out, limit);
    case ZT_COMPRESS_LZJB:
      return lzjb_encode(in, n, out, limit);
    case ZT_COMPRESS_LZW: {
      lzw_->reset();
      const size_t body = lzw_->encode(in, n, out, limit);
      if (body == kFail) return kFail;
      const size_t end = lzw_->finish(out + body, limit - body);
      return end == kFail ? kFail : body + end;
    }
    case ZT_COMPRESS_DEFLATE: {
      z_stream *zs = deflate_.get();
      if (deflateReset(zs) != Z_OK) return kFail;
      zs->next_in = const_cast<Bytef *>(in);
      zs->avail_in = static_cast<uInt>(n);
      zs->next_out = out;
      zs->avail_out = limit > UINT_MAX ? UINT_MAX : static_cast<uInt>(limit);
      return deflate(zs, Z_FINISH) == Z_STREAM_END ? static_cast<size_t>(zs->total_out) : kFail;
    }
    default:
      return kFail;
  }
}

size_t BlockCompressor::compress(const uint8_t *src, size_t n, uint8_t *dst, size_t cap,
                                 uint32_t *block_flags, bool force_delta, const char *fn) noexcept {
  *block_flags &= ~ZT_COMPRESS_CODEC_MASK;
  const uint32_t codecs = flags_ & kCodecs;
  if (n == 0 || codecs == 0) return 0;

  const size_t scratch_need = (flags_ & ZT_COMPRESS_SCRATCH) ? n : 2 * n;
  if (std::popcount(codecs) > 1 && !reserve(scratch_, scratch_cap_, scratch_need, fn)) return kFail;

  const uint8_t *in = src;
  const bool delta = force_delta || (flags_ & ZT_COMPRESS_DELTA);
  if (delta) {
    if (!reserve(delta_, delta_cap_, n, fn)) return kFail;
    delta_encode(src, delta_.get(), n, bits_);
    in = delta_.get();
  }

  uint8_t *const targets[2] = {dst, scratch_.get()};
  const size_t rooms[2] = {cap, scratch_cap_};
  size_t best = n;
  int best_target = -1;
  uint32_t winner = 0;
  for (uint32_t codec : kCodecOrder) {
    if ((codecs & codec) == 0) continue;
    const int t = best_target == 0 ? 1 : 0;
    size_t limit = best - 1;
    if (limit > cap) limit = cap;
    if (limit > rooms[t]) limit = rooms[t];
    if (limit == 0) break;
    const size_t size = run_codec(codec, in, n, targets[t], limit);
    if (size != kFail && size >= 1 && size < best) {
      best = size;
      best_target = t;
      winner = codec;
    }
  }
  if (best_target < 0) return 0;
  if (best_target == 1) std::memcpy(dst, scratch_.get(), best);
  *block_flags |= winner | ZT_COMPRESS_ON | (delta ? ZT_COMPRESS_DELTA : 0);
  return best;
}

// ---- Decompressor -------------------------------------------------------------

std::unique_ptr<BlockDecompressor> BlockDecompressor::create(uint32_t flags, uint32_t bits,
                                                             const char *fn) noexcept {
  if (!check_flags_and_depth(flags, bits, fn)) return nullptr;
  std::unique_ptr<BlockDecompressor> d(new (std::nothrow) BlockDecompressor(bits));
  if (!d) {
    ZT_LOG(kCompressModule, fn, "Cannot allocate memory");
    return nullptr;
  }
  if ((flags & ZT_COMPRESS_LZW) && !d->make_lzw(fn)) return nullptr;
  if ((flags & ZT_COMPRESS_DEFLATE) && !d->make_inflate(fn)) return nullptr;
  return d;
}

bool BlockDecompressor::make_lzw(const char *fn) noexcept {
  if (lzw_) return true;
  lzw_.reset(new (std::nothrow) LzwDecoder);
  if (!lzw_) ZT_LOG(kCompressModule, fn, "Cannot allocate lzw compression object");
  return lzw_ != nullptr;
}

bool BlockDecompressor::make_inflate(const char *fn) noexcept {
  if (inflate_) return true;
  inflate_.reset(libdeflate_alloc_decompressor());
  if (!inflate_) ZT_LOG(kCompressModule, fn, "Cannot allocate zip compression object");
  return inflate_ != nullptr;
}

size_t BlockDecompressor::decompress(const uint8_t *src, size_t n, uint8_t *dst, size_t cap,
                                     uint32_t block_flags, const char *fn) noexcept {
  // The scratch bit says nothing about the stream.
  const uint32_t mode = block_flags & ZT_COMPRESS_CODEC_MASK & ~ZT_COMPRESS_SCRATCH;
  if (mode == 0) {
    if (n > cap) {
      ZT_LOG(kCompressModule, fn, "Decompressed block does not fit in %zu bytes", cap);
      return kFail;
    }
    if (n > 0) std::memcpy(dst, src, n);
    return n;
  }
  const uint32_t codec = mode & kCodecs;
  if ((mode & ZT_COMPRESS_ON) == 0 || std::popcount(codec) != 1 || (mode & ~(kCodecs | ZT_COMPRESS_ON | ZT_COMPRESS_DELTA)) != 0) {
    ZT_LOG(kCompressModule, fn, "Unknown compression mode %d", static_cast<int>(block_flags));
    return kFail;
  }

  size_t out = kFail;
  switch (codec) {
    case ZT_COMPRESS_LZ4: {
      if (n > INT_MAX) {
        ZT_LOG(kCompressModule, fn, "LZ4 block of %zu bytes is too long", n);
        return kFail;
      }
      const int room = cap > INT_MAX ? INT_MAX : static_cast<int>(cap);
      const int r = LZ4_decompress_safe(reinterpret_cast<const char *>(src), reinterpret_cast<char *>(dst),
                                        static_cast<int>(n), room);
      if (r < 0) {
        ZT_LOG(kCompressModule, fn, "LZ4 block is corrupt or does not fit in %zu bytes", cap);
        return kFail;
      }
      out = static_cast<size_t>(r);
      break;
    }
    case ZT_COMPRESS_PACKBITS:
      out = packbits_decode(src, n, dst, cap, fn);
      break;
    case ZT_COMPRESS_LZJB:
      out = lzjb_decode(src, n, dst, cap, fn);
      break;
    case ZT_COMPRESS_LZW: {
      if (!make_lzw(fn)) return kFail;
      lzw_->reset();
      out = lzw_->decode(src, n, dst, cap, fn);
      if (out != kFail && !lzw_->ended()) {
        ZT_LOG(kCompressModule, fn, "LZW block is cut short");
        out = kFail;
      }
      break;
    }
    case ZT_COMPRESS_DEFLATE: {
      if (!make_inflate(fn)) return kFail;
      // Bytes after the end of the stream are left alone, as zlib's inflate does.
      size_t used = 0, made = 0;
      switch (libdeflate_zlib_decompress_ex(inflate_.get(), src, n, dst, cap, &used, &made)) {
        case LIBDEFLATE_SUCCESS:
          out = made;
          break;
        case LIBDEFLATE_INSUFFICIENT_SPACE:
          ZT_LOG(kCompressModule, fn, "Decompressed block does not fit in %zu bytes", cap);
          break;
        default:
          ZT_LOG(kCompressModule, fn, "Deflate block is corrupt or cut short");
          break;
      }
      break;
    }
    default:
      break;
  }
  if (out == kFail) return kFail;
  if (mode & ZT_COMPRESS_DELTA) delta_decode_in_place(dst, out, bits_);
  return out;
}

}  // namespace zt::raster
