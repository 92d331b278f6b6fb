// Helper of the zt end-to-end test: writes test images with libpng, libtiff
// and libjpeg directly (not through zt), and measures zt's outputs against
// Little CMS. Kept apart from the program so the oracle shares no code with it.
//
//   gen FORMAT MODEL BITS W H OUT [flat V]   png|tif|jpg, grey|rgb|cmyk, 8|16
//   mean IMAGE                                 mean of every channel
//   patches PREVIEW INPUT PROFILE INTENT       worst ΔE2000 of the patch means
//
// Patch images are a grid of 4 x 2 patches of kPatch colours.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <jpeglib.h>
#include <lcms2.h>
#include <png.h>
#include <tiffio.h>

namespace {

struct Image {
  uint32_t w = 0, h = 0, c = 0, bits = 8;
  std::vector<uint16_t> px;  // w * h * c samples, at full 16-bit scale
};

const double kRgb[8][3] = {{0.8, 0.1, 0.1}, {0.1, 0.6, 0.2}, {0.15, 0.25, 0.7}, {0.9, 0.8, 0.2},
                           {0.5, 0.5, 0.5}, {0.3, 0.7, 0.8}, {0.7, 0.4, 0.6}, {0.95, 0.9, 0.85}};
const double kCmyk[8][4] = {{0.8, 0.1, 0.1, 0}, {0.1, 0.6, 0.2, 0}, {0, 0, 0, 0.5}, {0.3, 0.3, 0.3, 0.1},
                            {0.5, 0.5, 0, 0},   {0, 0.7, 0.8, 0},   {0.2, 0, 0.6, 0.2}, {0.05, 0.05, 0.05, 0}};

double patch_value(const std::string &model, int patch, int ch) {
  if (model == "grey") return 0.1 + 0.1 * patch;
  if (model == "rgb") return kRgb[patch][ch];
  return kCmyk[patch][ch];
}

Image make(const std::string &model, uint32_t bits, uint32_t w, uint32_t h, double flat) {
  Image im;
  im.w = w, im.h = h, im.bits = bits;
  im.c = model == "grey" ? 1 : model == "rgb" ? 3 : 4;
  im.px.resize(static_cast<size_t>(w) * h * im.c);
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      const int patch = static_cast<int>((y * 2 / h) * 4 + x * 4 / w);
      for (uint32_t ch = 0; ch < im.c; ++ch) {
        const double v = flat >= 0 ? flat : patch_value(model, patch, static_cast<int>(ch));
        im.px[(static_cast<size_t>(y) * w + x) * im.c + ch] = static_cast<uint16_t>(std::lround(v * 65535));
      }
    }
  return im;
}

uint16_t narrow(uint16_t v, uint32_t bits) { return bits == 8 ? static_cast<uint16_t>((v * 255u + 32767u) / 65535u) : v; }

// Row y at the image's depth, 16-bit samples big-endian (PNG) or in host
// order (TIFF). Each later page a little darker, so pages differ.
std::vector<uint8_t> row_bytes(const Image &im, uint32_t y, int page, bool big_endian) {
  const size_t n = static_cast<size_t>(im.w) * im.c;
  std::vector<uint8_t> row(n * im.bits / 8);
  for (size_t i = 0; i < n; ++i) {
    const uint16_t v = narrow(static_cast<uint16_t>(uint32_t{im.px[y * n + i]} * (10 - page) / 10), im.bits);
    if (im.bits == 8) row[i] = static_cast<uint8_t>(v);
    else if (big_endian) row[2 * i] = static_cast<uint8_t>(v >> 8), row[2 * i + 1] = static_cast<uint8_t>(v);
    else std::memcpy(&row[2 * i], &v, 2);
  }
  return row;
}

void write_png(const Image &im, const char *path) {
  FILE *f = std::fopen(path, "wb");
  png_structp p = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(p);
  png_init_io(p, f);
  png_set_IHDR(p, info, im.w, im.h, static_cast<int>(im.bits), im.c == 1 ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_write_info(p, info);
  for (uint32_t y = 0; y < im.h; ++y) png_write_row(p, row_bytes(im, y, 0, true).data());
  png_write_end(p, nullptr);
  png_destroy_write_struct(&p, &info);
  std::fclose(f);
}

void write_tiff(const Image &im, const char *path, int pages) {
  TIFF *t = TIFFOpen(path, "w");
  for (int page = 0; page < pages; ++page) {
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, im.w);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, im.h);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, static_cast<uint16_t>(im.c));
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, static_cast<uint16_t>(im.bits));
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, im.c == 1 ? PHOTOMETRIC_MINISBLACK : im.c == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_SEPARATED);
    TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, 16);
    TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
    if (pages > 1) TIFFSetField(t, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE), TIFFSetField(t, TIFFTAG_PAGENUMBER, page, pages);
    for (uint32_t y = 0; y < im.h; ++y) TIFFWriteScanline(t, row_bytes(im, y, page, false).data(), y, 0);
    TIFFWriteDirectory(t);
  }
  TIFFClose(t);
}

void write_jpeg(const Image &im, const char *path) {
  FILE *f = std::fopen(path, "wb");
  jpeg_compress_struct c{};
  jpeg_error_mgr err{};
  c.err = jpeg_std_error(&err);
  jpeg_create_compress(&c);
  jpeg_stdio_dest(&c, f);
  c.image_width = im.w;
  c.image_height = im.h;
  c.input_components = static_cast<int>(im.c);
  c.in_color_space = im.c == 1 ? JCS_GRAYSCALE : im.c == 3 ? JCS_RGB : JCS_CMYK;
  jpeg_set_defaults(&c);
  jpeg_set_quality(&c, 95, TRUE);
  jpeg_start_compress(&c, TRUE);
  for (uint32_t y = 0; y < im.h; ++y) {
    std::vector<uint8_t> row = row_bytes(im, y, 0, false);  // the test asks JPEGs at 8 bits only
    // CMYK JPEGs are stored inverted, as Photoshop writes them beside its
    // Adobe marker (which libjpeg adds for CMYK).
    if (im.c == 4)
      for (uint8_t &v : row) v = static_cast<uint8_t>(255 - v);
    JSAMPROW r = row.data();
    jpeg_write_scanlines(&c, &r, 1);
  }
  jpeg_finish_compress(&c);
  jpeg_destroy_compress(&c);
  std::fclose(f);
}

Image read_png(const char *path) {
  Image im;
  png_image img{};
  img.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&img, path)) {
    std::fprintf(stderr, "%s: %s\n", path, img.message);
    std::exit(2);
  }
  img.format = (img.format & PNG_FORMAT_FLAG_COLOR) ? PNG_FORMAT_RGB : PNG_FORMAT_GRAY;
  im.w = img.width, im.h = img.height, im.c = PNG_IMAGE_SAMPLE_CHANNELS(img.format);
  std::vector<uint8_t> buf(PNG_IMAGE_SIZE(img));
  png_image_finish_read(&img, nullptr, buf.data(), 0, nullptr);
  im.px.assign(buf.begin(), buf.end());
  return im;
}

std::vector<double> region_mean(const Image &im, uint32_t x0, uint32_t y0, uint32_t x1, uint32_t y1) {
  std::vector<double> m(im.c, 0.0);
  for (uint32_t y = y0; y < y1; ++y)
    for (uint32_t x = x0; x < x1; ++x)
      for (uint32_t ch = 0; ch < im.c; ++ch) m[ch] += im.px[(static_cast<size_t>(y) * im.w + x) * im.c + ch];
  for (double &v : m) v /= static_cast<double>(x1 - x0) * (y1 - y0);
  return m;
}

// The mean of the middle half (each way) of patch p of the 4 x 2 grid, as
// three channels of 0 ... 1 (grey repeated): away from the edges the
// resampler blurs.
std::vector<double> patch_mean(const Image &im, int p) {
  const int col = p % 4, row = p / 4;
  auto at = [](uint32_t size, int parts, double where) { return static_cast<uint32_t>(size * where / parts); };
  const std::vector<double> m = region_mean(im, at(im.w, 4, col + 0.25), at(im.h, 2, row + 0.25),
                                            at(im.w, 4, col + 0.75), at(im.h, 2, row + 0.75));
  std::vector<double> rgb(3);
  for (int c = 0; c < 3; ++c) rgb[c] = m[im.c == 1 ? 0 : c] / 255.0;
  return rgb;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) return 2;
  const std::string cmd = argv[1];
  if (cmd == "gen" && argc >= 8) {
    const std::string fmt = argv[2], model = argv[3];
    const uint32_t bits = std::atoi(argv[4]), w = std::atoi(argv[5]), h = std::atoi(argv[6]);
    const double flat = argc >= 10 && std::string(argv[8]) == "flat" ? std::atof(argv[9]) : -1;
    const int pages = argc >= 10 && std::string(argv[8]) == "pages" ? std::atoi(argv[9]) : 1;
    const Image im = make(model, bits, w, h, flat);
    if (fmt == "png") write_png(im, argv[7]);
    else if (fmt == "tif") write_tiff(im, argv[7], pages);
    else write_jpeg(im, argv[7]);
    return 0;
  }
  if (cmd == "mean" && argc >= 3) {
    const Image im = read_png(argv[2]);
    const std::vector<double> m = region_mean(im, 0, 0, im.w, im.h);
    for (double v : m) std::printf("%.3f ", v);
    std::printf("\n");
    return 0;
  }
  if (cmd == "patches" && argc >= 6) {
    // The preview's patch means against Little CMS: input sRGB colour ->
    // output profile with the intent -> back to Lab (relative colorimetric).
    const Image pv = read_png(argv[2]);
    const Image in = read_png(argv[3]);
    cmsHPROFILE srgb = cmsCreate_sRGBProfile(), lab = cmsCreateLab4Profile(nullptr);
    cmsHPROFILE out = cmsOpenProfileFromFile(argv[4], "r");
    const int intent = std::atoi(argv[5]);
    cmsHTRANSFORM to_cmyk = cmsCreateTransform(srgb, TYPE_RGB_DBL, out, TYPE_CMYK_DBL, intent, 0);
    cmsHTRANSFORM cmyk_lab = cmsCreateTransform(out, TYPE_CMYK_DBL, lab, TYPE_Lab_DBL, INTENT_RELATIVE_COLORIMETRIC, 0);
    cmsHTRANSFORM rgb_lab = cmsCreateTransform(srgb, TYPE_RGB_DBL, lab, TYPE_Lab_DBL, INTENT_RELATIVE_COLORIMETRIC, 0);
    double worst = 0;
    for (int p = 0; p < 8; ++p) {
      std::vector<double> rgb = patch_mean(in, p), got_rgb = patch_mean(pv, p);
      double cmyk[4], want_lab[3], got_lab[3];
      cmsDoTransform(to_cmyk, rgb.data(), cmyk, 1);
      cmsDoTransform(cmyk_lab, cmyk, want_lab, 1);
      cmsDoTransform(rgb_lab, got_rgb.data(), got_lab, 1);
      const cmsCIELab a{want_lab[0], want_lab[1], want_lab[2]}, b{got_lab[0], got_lab[1], got_lab[2]};
      const double de = cmsCIE2000DeltaE(&a, &b, 1, 1, 1);
      std::printf("patch %d: want Lab %.1f %.1f %.1f got %.1f %.1f %.1f dE2000 %.2f\n", p, a.L, a.a, a.b, b.L, b.a, b.b, de);
      worst = std::max(worst, de);
    }
    std::printf("worst %.2f\n", worst);
    return 0;
  }
  std::fprintf(stderr, "zt_tool_check: bad arguments\n");
  return 2;
}
