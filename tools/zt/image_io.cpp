// PNG, TIFF and JPEG through libpng, libtiff and libjpeg-turbo. Each library
// reports errors its own way (longjmp, handler callbacks); every one ends
// here as a Failure naming the file and the reason.
#include "image_io.h"

#include <csetjmp>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include <jpeglib.h>
#include <png.h>
#include <tiffio.h>

#include "tool.h"

namespace zt::tool {

bool ends_with(const std::string &s, const char *suffix) {
  const size_t n = std::strlen(suffix);
  if (s.size() < n) return false;
  for (size_t i = 0; i < n; ++i)
    if (std::tolower(static_cast<unsigned char>(s[s.size() - n + i])) != suffix[i]) return false;
  return true;
}

namespace {

void check_size(const std::string &path, uint64_t w, uint64_t h) {
  if (w == 0 || h == 0)
    fail(path + ": the image is empty (" + std::to_string(w) + " x " + std::to_string(h) + " pixels)");
  if (w > kMaxInputSide || h > kMaxInputSide || w * h > kMaxInputPixels)
    fail(path + ": " + std::to_string(w) + " x " + std::to_string(h) +
         " pixels is larger than a page can be (at most 2^31 pixels, 2^20 a side)");
}

enum class Format { kPng, kTiff, kJpeg };

Format sniff(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f) fail(path + ": " + std::strerror(errno));
  uint8_t head[8] = {};
  const size_t n = std::fread(head, 1, sizeof head, f);
  const bool read_error = std::ferror(f);
  std::fclose(f);
  if (read_error) fail(path + ": " + std::strerror(errno));
  if (n >= 8 && std::memcmp(head, "\x89PNG\r\n\x1a\n", 8) == 0) return Format::kPng;
  if (n >= 4 && (std::memcmp(head, "II*\0", 4) == 0 || std::memcmp(head, "MM\0*", 4) == 0 ||
                 std::memcmp(head, "II+\0", 4) == 0 || std::memcmp(head, "MM\0+", 4) == 0))
    return Format::kTiff;
  if (n >= 3 && head[0] == 0xFF && head[1] == 0xD8 && head[2] == 0xFF) return Format::kJpeg;
  if (n == 0) fail(path + ": the file is empty");
  fail(path + ": not a PNG, TIFF or JPEG file");
}

// ---- PNG -------------------------------------------------------------------

struct PngError {
  char message[256] = "damaged PNG data";
};

void png_error_fn(png_structp png, png_const_charp msg) {
  auto *e = static_cast<PngError *>(png_get_error_ptr(png));
  std::snprintf(e->message, sizeof e->message, "%s", msg);
  png_longjmp(png, 1);
}
void png_warning_fn(png_structp, png_const_charp) {}

// The C libraries' handles live in base classes whose destructors release
// them: a reader or writer whose constructor fails half-way throws, and only
// what is already constructed (the bases) is destroyed then.
struct PngReadHandles {
  PngReadHandles() = default;
  PngReadHandles(const PngReadHandles &) = delete;
  PngReadHandles &operator=(const PngReadHandles &) = delete;
  ~PngReadHandles() {
    if (png_) png_destroy_read_struct(&png_, &info_, nullptr);
    if (file_) std::fclose(file_);
  }
  FILE *file_ = nullptr;
  png_structp png_ = nullptr;
  png_infop info_ = nullptr;
  PngError err_;
};

class PngSource : public ImageSource, private PngReadHandles {
 public:
  explicit PngSource(const std::string &path) {
    name = path;
    file_ = std::fopen(path.c_str(), "rb");
    if (!file_) fail(path + ": " + std::strerror(errno));
    png_ = png_create_read_struct(PNG_LIBPNG_VER_STRING, &err_, png_error_fn, png_warning_fn);
    info_ = png_ ? png_create_info_struct(png_) : nullptr;
    if (!info_) fail(path + ": out of memory");
    if (!start()) fail(path + ": " + err_.message);
    check_size(path, width, height);
  }
  void read_line(uint8_t *dst) override {
    if (!row(dst)) fail(name + ": " + err_.message);
  }

 private:
  bool start() {
    if (setjmp(png_jmpbuf(png_))) return false;
    png_init_io(png_, file_);
    png_set_user_limits(png_, kMaxInputSide, kMaxInputSide);
    png_read_info(png_, info_);
    png_uint_32 w = 0, h = 0;
    int depth = 0, type = 0, interlace = 0;
    png_get_IHDR(png_, info_, &w, &h, &depth, &type, &interlace, nullptr, nullptr);
    if (interlace != PNG_INTERLACE_NONE) {
      std::snprintf(err_.message, sizeof err_.message, "interlaced PNG is not supported");
      return false;
    }
    if (type == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png_);
    if (type == PNG_COLOR_TYPE_GRAY && depth < 8) png_set_expand_gray_1_2_4_to_8(png_);
    if (type & PNG_COLOR_MASK_ALPHA) png_set_strip_alpha(png_);
    if (depth == 16) png_set_swap(png_);
    png_read_update_info(png_, info_);
    width = w;
    height = h;
    channels = png_get_channels(png_, info_);
    bits = png_get_bit_depth(png_, info_);
    png_uint_32 rx = 0, ry = 0;
    int unit = 0;
    if (png_get_pHYs(png_, info_, &rx, &ry, &unit) && unit == PNG_RESOLUTION_METER && rx > 0 && ry > 0) {
      xdpi = rx * 0.0254;
      ydpi = ry * 0.0254;
    }
    png_charp icc_name = nullptr;
    int compression = 0;
    png_bytep profile = nullptr;
    png_uint_32 length = 0;
    if (png_get_iCCP(png_, info_, &icc_name, &compression, &profile, &length) && profile && length)
      icc.assign(profile, profile + length);
    return true;
  }
  bool row(uint8_t *dst) {
    if (setjmp(png_jmpbuf(png_))) return false;
    png_read_row(png_, dst, nullptr);
    return true;
  }
};

// ---- TIFF --------------------------------------------------------------------

thread_local std::string t_tiff_error;

void tiff_error(const char *module, const char *format, va_list ap) {
  if (!t_tiff_error.empty()) return;
  char buf[256];
  std::vsnprintf(buf, sizeof buf, format, ap);
  t_tiff_error = buf;
}
void tiff_warning(const char *, const char *, va_list) {}

void tiff_fail(const std::string &path, const char *what) {
  std::string reason = t_tiff_error.empty() ? what : t_tiff_error;
  t_tiff_error.clear();
  fail(path + ": " + reason);
}

TIFF *tiff_open(const std::string &path, const char *mode) {
  TIFFSetErrorHandler(tiff_error);
  TIFFSetWarningHandler(tiff_warning);
  t_tiff_error.clear();
  TIFF *t = TIFFOpen(path.c_str(), mode);
  if (!t) tiff_fail(path, "cannot open the TIFF file");
  return t;
}

struct TiffHandle {
  TiffHandle() = default;
  TiffHandle(const TiffHandle &) = delete;
  TiffHandle &operator=(const TiffHandle &) = delete;
  ~TiffHandle() {
    if (tif_) TIFFClose(tif_);
  }
  TIFF *tif_ = nullptr;
};

class TiffSource : public ImageSource, private TiffHandle {
 public:
  TiffSource(const std::string &path, uint32_t page) {
    name = path;
    tif_ = tiff_open(path, "r");
    if (!TIFFSetDirectory(tif_, static_cast<tdir_t>(page))) tiff_fail(path, "no such page");
    uint32_t w = 0, h = 0;
    uint16_t spp = 1, bps = 1, photometric = 0, planar = PLANARCONFIG_CONTIG, extra = 0;
    uint16_t *extra_types = nullptr;
    TIFFGetField(tif_, TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(tif_, TIFFTAG_IMAGELENGTH, &h);
    TIFFGetFieldDefaulted(tif_, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(tif_, TIFFTAG_BITSPERSAMPLE, &bps);
    TIFFGetFieldDefaulted(tif_, TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(tif_, TIFFTAG_EXTRASAMPLES, &extra, &extra_types);
    if (!TIFFGetField(tif_, TIFFTAG_PHOTOMETRIC, &photometric)) photometric = PHOTOMETRIC_MINISBLACK;
    check_size(path, w, h);
    width = w;
    height = h;
    if (bps != 8 && bps != 16) fail(path + ": " + std::to_string(bps) + "-bit samples are not supported");
    if (planar != PLANARCONFIG_CONTIG) fail(path + ": separate sample planes are not supported");
    if (TIFFIsTiled(tif_)) fail(path + ": tiled TIFF input is not supported");
    bits = bps;
    invert_ = photometric == PHOTOMETRIC_MINISWHITE;
    switch (photometric) {
      case PHOTOMETRIC_MINISBLACK:
      case PHOTOMETRIC_MINISWHITE: channels = 1; break;
      case PHOTOMETRIC_RGB: channels = 3; break;
      case PHOTOMETRIC_SEPARATED: channels = 4; break;
      default: fail(path + ": photometric interpretation " + std::to_string(photometric) + " is not supported");
    }
    if (spp < channels) fail(path + ": " + std::to_string(spp) + " samples a pixel do not make the colour model");
    file_spp_ = spp;
    float rx = 0, ry = 0;
    uint16_t unit = RESUNIT_INCH;
    TIFFGetFieldDefaulted(tif_, TIFFTAG_RESOLUTIONUNIT, &unit);
    if (TIFFGetField(tif_, TIFFTAG_XRESOLUTION, &rx) && TIFFGetField(tif_, TIFFTAG_YRESOLUTION, &ry) && rx > 0 &&
        ry > 0 && unit != RESUNIT_NONE) {
      xdpi = unit == RESUNIT_CENTIMETER ? rx * 2.54 : rx;
      ydpi = unit == RESUNIT_CENTIMETER ? ry * 2.54 : ry;
    }
    uint32_t icc_len = 0;
    void *icc_data = nullptr;
    if (TIFFGetField(tif_, TIFFTAG_ICCPROFILE, &icc_len, &icc_data) && icc_data && icc_len)
      icc.assign(static_cast<uint8_t *>(icc_data), static_cast<uint8_t *>(icc_data) + icc_len);
    line_.resize(TIFFScanlineSize64(tif_));
    if (line_.size() < static_cast<uint64_t>(width) * spp * (bits / 8)) fail(path + ": inconsistent line size");
  }
  void read_line(uint8_t *dst) override {
    if (TIFFReadScanline(tif_, line_.data(), row_++, 0) < 0) tiff_fail(name, "cannot read a line");
    const uint32_t bps = bits / 8;
    if (file_spp_ == channels) {
      std::memcpy(dst, line_.data(), static_cast<size_t>(width) * channels * bps);
    } else {
      for (uint32_t x = 0; x < width; ++x)
        std::memcpy(dst + static_cast<size_t>(x) * channels * bps, line_.data() + static_cast<size_t>(x) * file_spp_ * bps,
                    channels * bps);
    }
    if (invert_) {
      if (bits == 8)
        for (uint32_t x = 0; x < width; ++x) dst[x] = static_cast<uint8_t>(255 - dst[x]);
      else
        for (uint32_t x = 0; x < width; ++x) reinterpret_cast<uint16_t *>(dst)[x] ^= 0xFFFF;
    }
  }

 private:
  uint32_t file_spp_ = 1, row_ = 0;
  bool invert_ = false;
  std::vector<uint8_t> line_;
};

// ---- JPEG --------------------------------------------------------------------

struct JpegError {
  jpeg_error_mgr mgr;
  jmp_buf jump;
  char message[JMSG_LENGTH_MAX] = "damaged JPEG data";
};

void jpeg_error_exit(j_common_ptr cinfo) {
  auto *e = reinterpret_cast<JpegError *>(cinfo->err);
  (*cinfo->err->format_message)(cinfo, e->message);
  longjmp(e->jump, 1);
}
void jpeg_quiet(j_common_ptr, int) {}

struct JpegReadHandles {
  JpegReadHandles() = default;
  JpegReadHandles(const JpegReadHandles &) = delete;
  JpegReadHandles &operator=(const JpegReadHandles &) = delete;
  ~JpegReadHandles() {
    if (created_) jpeg_destroy_decompress(&cinfo_);
    if (file_) std::fclose(file_);
  }
  FILE *file_ = nullptr;
  jpeg_decompress_struct cinfo_{};
  JpegError err_;
  bool created_ = false;
};

class JpegSource : public ImageSource, private JpegReadHandles {
 public:
  explicit JpegSource(const std::string &path) {
    name = path;
    file_ = std::fopen(path.c_str(), "rb");
    if (!file_) fail(path + ": " + std::strerror(errno));
    cinfo_.err = jpeg_std_error(&err_.mgr);
    err_.mgr.error_exit = jpeg_error_exit;
    err_.mgr.emit_message = jpeg_quiet;
    jpeg_create_decompress(&cinfo_);
    created_ = true;
    if (!start()) fail(path + ": " + err_.message);
    check_size(path, width, height);
  }
  void read_line(uint8_t *dst) override {
    if (!row(dst)) fail(name + ": " + err_.message);
    if (adobe_inverted_)
      for (uint32_t i = 0; i < width * 4; ++i) dst[i] = static_cast<uint8_t>(255 - dst[i]);
    else if (channels == 4) {
      // Plain CMYK JPEGs store ink amounts as they are.
    }
  }

 private:
  bool start() {
    if (setjmp(err_.jump)) return false;
    jpeg_stdio_src(&cinfo_, file_);
    jpeg_save_markers(&cinfo_, JPEG_APP0 + 2, 0xFFFF);
    jpeg_read_header(&cinfo_, TRUE);
    if (cinfo_.jpeg_color_space == JCS_CMYK || cinfo_.jpeg_color_space == JCS_YCCK) {
      cinfo_.out_color_space = JCS_CMYK;
      adobe_inverted_ = cinfo_.saw_Adobe_marker;
    } else if (cinfo_.num_components == 1) {
      cinfo_.out_color_space = JCS_GRAYSCALE;
    } else {
      cinfo_.out_color_space = JCS_RGB;
    }
    width = cinfo_.image_width;
    height = cinfo_.image_height;
    if (width == 0 || height == 0 || width > kMaxInputSide || height > kMaxInputSide) return true;
    JOCTET *profile = nullptr;
    unsigned int length = 0;
    if (jpeg_read_icc_profile(&cinfo_, &profile, &length) && profile) {
      icc.assign(profile, profile + length);
      std::free(profile);
    }
    if (cinfo_.density_unit == 1 && cinfo_.X_density && cinfo_.Y_density) {
      xdpi = cinfo_.X_density;
      ydpi = cinfo_.Y_density;
    } else if (cinfo_.density_unit == 2 && cinfo_.X_density && cinfo_.Y_density) {
      xdpi = cinfo_.X_density * 2.54;
      ydpi = cinfo_.Y_density * 2.54;
    }
    jpeg_start_decompress(&cinfo_);
    channels = cinfo_.output_components;
    bits = 8;
    return true;
  }
  bool row(uint8_t *dst) {
    if (setjmp(err_.jump)) return false;
    JSAMPROW rows[1] = {dst};
    if (jpeg_read_scanlines(&cinfo_, rows, 1) != 1) {
      std::snprintf(err_.message, sizeof err_.message, "the image data end early");
      return false;
    }
    return true;
  }
  bool adobe_inverted_ = false;
};

// ---- Writers -------------------------------------------------------------------

struct PngWriteHandles {
  PngWriteHandles() = default;
  PngWriteHandles(const PngWriteHandles &) = delete;
  PngWriteHandles &operator=(const PngWriteHandles &) = delete;
  ~PngWriteHandles() {
    if (png_) png_destroy_write_struct(&png_, &info_);
    if (file_) std::fclose(file_);
  }
  FILE *file_ = nullptr;
  png_structp png_ = nullptr;
  png_infop info_ = nullptr;
  PngError err_;
};

class PngSink : public ImageSink, private PngWriteHandles {
 public:
  PngSink(const std::string &path, const std::string &shown, uint32_t w, uint32_t h, uint32_t channels,
          uint32_t bits, double dpi, const std::vector<uint8_t> &icc)
      : shown_(shown) {
    file_ = std::fopen(path.c_str(), "wb");
    if (!file_) fail(shown + ": " + std::strerror(errno));
    png_ = png_create_write_struct(PNG_LIBPNG_VER_STRING, &err_, png_error_fn, png_warning_fn);
    info_ = png_ ? png_create_info_struct(png_) : nullptr;
    if (!info_) fail(shown + ": out of memory");
    static const int kTypes[] = {0, PNG_COLOR_TYPE_GRAY, PNG_COLOR_TYPE_GRAY_ALPHA, PNG_COLOR_TYPE_RGB,
                                 PNG_COLOR_TYPE_RGB_ALPHA};
    if (!begin(w, h, kTypes[channels], static_cast<int>(bits), dpi, icc)) fail(shown + ": " + err_.message);
  }
  void write_line(const uint8_t *line) override {
    if (!row(line)) fail(shown_ + ": " + err_.message);
  }
  void finish() override {
    if (!end()) fail(shown_ + ": " + err_.message);
    const bool bad = std::fflush(file_) != 0 || std::ferror(file_);
    const int closed = std::fclose(file_);
    file_ = nullptr;
    if (bad || closed != 0) fail(shown_ + ": " + std::strerror(errno));
  }

 private:
  bool begin(uint32_t w, uint32_t h, int type, int bits, double dpi, const std::vector<uint8_t> &icc) {
    if (setjmp(png_jmpbuf(png_))) return false;
    png_init_io(png_, file_);
    png_set_compression_level(png_, 6);
    png_set_IHDR(png_, info_, w, h, bits, type, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    if (dpi > 0) {
      const auto ppm = static_cast<png_uint_32>(dpi / 0.0254 + 0.5);
      png_set_pHYs(png_, info_, ppm, ppm, PNG_RESOLUTION_METER);
    }
    if (!icc.empty())
      png_set_iCCP(png_, info_, "icc", PNG_COMPRESSION_TYPE_BASE, icc.data(), static_cast<png_uint_32>(icc.size()));
    else if (type == PNG_COLOR_TYPE_RGB || type == PNG_COLOR_TYPE_RGB_ALPHA)
      png_set_sRGB_gAMA_and_cHRM(png_, info_, PNG_sRGB_INTENT_PERCEPTUAL);
    png_write_info(png_, info_);
    if (bits == 16) png_set_swap(png_);
    return true;
  }
  bool row(const uint8_t *line) {
    if (setjmp(png_jmpbuf(png_))) return false;
    png_write_row(png_, line);
    return true;
  }
  bool end() {
    if (setjmp(png_jmpbuf(png_))) return false;
    png_write_end(png_, nullptr);
    return true;
  }
  std::string shown_;
};

class TiffSink : public ImageSink, private TiffHandle {
 public:
  TiffSink(const std::string &path, const std::string &shown, uint32_t w, uint32_t h, uint32_t channels,
           uint32_t bits, bool cmyk, double xdpi, double ydpi, const std::vector<uint8_t> &icc)
      : shown_(shown), bytes_(static_cast<size_t>(w) * channels * (bits / 8)), line_(bytes_) {
    tif_ = tiff_open(path, "w");
    TIFFSetField(tif_, TIFFTAG_IMAGEWIDTH, w);
    TIFFSetField(tif_, TIFFTAG_IMAGELENGTH, h);
    TIFFSetField(tif_, TIFFTAG_SAMPLESPERPIXEL, static_cast<uint16_t>(channels));
    TIFFSetField(tif_, TIFFTAG_BITSPERSAMPLE, static_cast<uint16_t>(bits));
    TIFFSetField(tif_, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif_, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE);
    TIFFSetField(tif_, TIFFTAG_PHOTOMETRIC, cmyk                ? PHOTOMETRIC_SEPARATED
                                           : channels >= 3 ? PHOTOMETRIC_RGB
                                                           : PHOTOMETRIC_MINISBLACK);
    if (channels == 2 || (channels > 3 && !cmyk) || channels > 4) {
      const uint16_t extra_count = static_cast<uint16_t>(channels - (cmyk ? 4 : channels >= 3 ? 3 : 1));
      std::vector<uint16_t> types(extra_count, EXTRASAMPLE_UNSPECIFIED);
      TIFFSetField(tif_, TIFFTAG_EXTRASAMPLES, extra_count, types.data());
    }
    if (cmyk) TIFFSetField(tif_, TIFFTAG_INKSET, INKSET_CMYK);
    TIFFSetField(tif_, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif_, 0));
    if (xdpi > 0 && ydpi > 0) {
      TIFFSetField(tif_, TIFFTAG_XRESOLUTION, static_cast<float>(xdpi));
      TIFFSetField(tif_, TIFFTAG_YRESOLUTION, static_cast<float>(ydpi));
      TIFFSetField(tif_, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
    }
    if (!icc.empty()) TIFFSetField(tif_, TIFFTAG_ICCPROFILE, static_cast<uint32_t>(icc.size()), icc.data());
  }
  void write_line(const uint8_t *line) override {
    std::memcpy(line_.data(), line, bytes_);
    if (TIFFWriteScanline(tif_, line_.data(), row_++, 0) < 0) tiff_fail(shown_, "cannot write a line");
  }
  void finish() override {
    if (!TIFFFlush(tif_)) tiff_fail(shown_, "cannot write the file");
    TIFFClose(tif_);
    tif_ = nullptr;
    if (!t_tiff_error.empty()) tiff_fail(shown_, "cannot write the file");
  }

 private:
  std::string shown_;
  size_t bytes_;
  std::vector<uint8_t> line_;
  uint32_t row_ = 0;
};

}  // namespace

uint32_t image_page_count(const std::string &path) {
  if (sniff(path) != Format::kTiff) return 1;
  TIFF *t = tiff_open(path, "r");
  const uint32_t n = TIFFNumberOfDirectories(t);
  TIFFClose(t);
  if (n == 0) fail(path + ": the TIFF file has no pages");
  return n;
}

std::unique_ptr<ImageSource> open_image(const std::string &path, uint32_t page) {
  switch (sniff(path)) {
    case Format::kPng: return std::make_unique<PngSource>(path);
    case Format::kTiff: return std::make_unique<TiffSource>(path, page);
    case Format::kJpeg: return std::make_unique<JpegSource>(path);
  }
  fail(path + ": unknown format");
}

std::unique_ptr<ImageSink> create_png(const std::string &path, const std::string &shown, uint32_t width,
                                      uint32_t height, uint32_t channels, uint32_t bits, double dpi,
                                      const std::vector<uint8_t> &icc) {
  return std::make_unique<PngSink>(path, shown, width, height, channels, bits, dpi, icc);
}

std::unique_ptr<ImageSink> create_tiff(const std::string &path, const std::string &shown, uint32_t width,
                                       uint32_t height, uint32_t channels, uint32_t bits, bool cmyk, double xdpi,
                                       double ydpi, const std::vector<uint8_t> &icc) {
  return std::make_unique<TiffSink>(path, shown, width, height, channels, bits, cmyk, xdpi, ydpi, icc);
}

}  // namespace zt::tool
