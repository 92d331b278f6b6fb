// libtiff as an independent codec: one-strip TIFF files built and read in
// memory, so that its PackBits, LZW and Group 4 coders can read what ours
// write (raw strips) and write what ours must read. The codec tests use it as
// their oracle and the compressor benchmark as its peer.
#pragma once

#ifdef ZT_HAVE_TIFF

#include <tiffio.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

namespace zt::test {

struct TiffImage {
  uint32_t width = 0;
  uint32_t height = 0;
  uint16_t bits = 8;     // per sample
  uint16_t samples = 1;  // per pixel
  uint16_t compression = COMPRESSION_NONE;
  size_t row_bytes() const { return (size_t{width} * samples * bits + 7) / 8; }
};

class MemoryTiff {
 public:
  MemoryTiff() = default;
  explicit MemoryTiff(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {}
  const std::vector<uint8_t> &bytes() const { return bytes_; }
  void clear() { bytes_.clear(); }

  TIFF *open(const char *mode) {
    pos_ = 0;
    return TIFFClientOpen("memory", mode, this, read_proc, write_proc, seek_proc, close_proc, size_proc,
                          map_proc, unmap_proc);
  }

 private:
  static tmsize_t read_proc(thandle_t h, void *buf, tmsize_t size) {
    auto *m = static_cast<MemoryTiff *>(h);
    const size_t n =
        std::min(static_cast<size_t>(size), m->bytes_.size() - std::min(m->pos_, m->bytes_.size()));
    if (n) std::memcpy(buf, m->bytes_.data() + m->pos_, n);
    m->pos_ += n;
    return static_cast<tmsize_t>(n);
  }
  static tmsize_t write_proc(thandle_t h, void *buf, tmsize_t size) {
    auto *m = static_cast<MemoryTiff *>(h);
    const size_t n = static_cast<size_t>(size);
    if (m->pos_ + n > m->bytes_.size()) m->bytes_.resize(m->pos_ + n);
    std::memcpy(m->bytes_.data() + m->pos_, buf, n);
    m->pos_ += n;
    return size;
  }
  static toff_t seek_proc(thandle_t h, toff_t off, int whence) {
    auto *m = static_cast<MemoryTiff *>(h);
    if (whence == SEEK_SET)
      m->pos_ = off;
    else if (whence == SEEK_CUR)
      m->pos_ += off;
    else
      m->pos_ = m->bytes_.size() + off;
    return m->pos_;
  }
  static int close_proc(thandle_t) { return 0; }
  static toff_t size_proc(thandle_t h) { return static_cast<MemoryTiff *>(h)->bytes_.size(); }
  static int map_proc(thandle_t, void **, toff_t *) { return 0; }
  static void unmap_proc(thandle_t, void *, toff_t) {}

  std::vector<uint8_t> bytes_;
  size_t pos_ = 0;
};

inline void set_fields(TIFF *tif, const TiffImage &img) {
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, img.width);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, img.height);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, img.bits);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, img.samples);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, img.compression);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC,
               img.bits == 1 ? PHOTOMETRIC_MINISWHITE
                             : (img.samples == 4 ? PHOTOMETRIC_SEPARATED : PHOTOMETRIC_MINISBLACK));
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_FILLORDER, FILLORDER_MSB2LSB);
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, img.height);
}

// A TIFF file whose one strip holds `raw`, coded as img.compression says.
inline MemoryTiff tiff_from_raw_strip(const TiffImage &img, const std::vector<uint8_t> &raw) {
  MemoryTiff m;
  TIFF *tif = m.open("w");
  set_fields(tif, img);
  TIFFWriteRawStrip(tif, 0, const_cast<uint8_t *>(raw.data()), static_cast<tmsize_t>(raw.size()));
  TIFFClose(tif);
  return m;
}

// A TIFF file of `pixels` (rows of img.row_bytes()), coded by libtiff.
inline MemoryTiff tiff_encode(const TiffImage &img, const std::vector<uint8_t> &pixels) {
  MemoryTiff m;
  TIFF *tif = m.open("w");
  set_fields(tif, img);
  TIFFWriteEncodedStrip(tif, 0, const_cast<uint8_t *>(pixels.data()), static_cast<tmsize_t>(pixels.size()));
  TIFFClose(tif);
  return m;
}

// The decoded strip, empty when libtiff fails.
inline std::vector<uint8_t> tiff_decode(MemoryTiff &m, const TiffImage &img) {
  TIFF *tif = m.open("r");
  if (tif == nullptr) return {};
  std::vector<uint8_t> out(img.row_bytes() * img.height);
  const tmsize_t got = TIFFReadEncodedStrip(tif, 0, out.data(), static_cast<tmsize_t>(out.size()));
  TIFFClose(tif);
  if (got != static_cast<tmsize_t>(out.size())) return {};
  return out;
}

// The strip as stored.
inline std::vector<uint8_t> tiff_raw_strip(MemoryTiff &m) {
  TIFF *tif = m.open("r");
  if (tif == nullptr) return {};
  uint64_t *counts = nullptr;
  TIFFGetField(tif, TIFFTAG_STRIPBYTECOUNTS, &counts);
  std::vector<uint8_t> raw(counts ? static_cast<size_t>(counts[0]) : 0);
  if (!raw.empty()) TIFFReadRawStrip(tif, 0, raw.data(), static_cast<tmsize_t>(raw.size()));
  TIFFClose(tif);
  return raw;
}

}  // namespace zt::test

#endif
