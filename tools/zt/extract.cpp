// zt extract: a page, or one plane of it, as a PNG or TIFF.
#include <algorithm>
#include <cstring>

#include <zt/vlimg.h>

#include "image_io.h"
#include "tool.h"
#include "vlimg_read.h"

namespace zt::tool {

int cmd_extract(int argc, char **argv) {
  Args a(argc, argv, 2);
  std::string path, output, v;
  uint32_t page = 1, channel = 0;
  while (!a.done()) {
    if (a.option("-o", v) || a.option("--output", v)) output = v;
    else if (a.option("--page", v)) page = parse_u32("--page", v, 1, 1u << 30);
    else if (a.option("--channel", v)) channel = parse_u32("--channel", v, 1, VLIMG_MAX_PLANES);
    else if (a.flag("--quiet") || a.flag("-q")) g_verbosity = Verbosity::kQuiet;
    else if (a.flag("--verbose") || a.flag("-v")) g_verbosity = Verbosity::kVerbose;
    else if (a.peek().size() > 1 && a.peek()[0] == '-') usage_error("unknown option '" + a.peek() + "'");
    else if (path.empty()) path = a.next();
    else usage_error("one file at a time");
  }
  if (path.empty()) usage_error("no file given (zt extract FILE.vlimg -o OUT.png)");
  if (output.empty()) usage_error("no output given (-o OUT.png or OUT.tif)");
  const bool png = ends_with(output, ".png");
  if (!png && !ends_with(output, ".tif") && !ends_with(output, ".tiff"))
    usage_error(output + ": the output must end in .png, .tif or .tiff");

  Library lib(processor_count());
  VlimgReader r(path);
  const uint32_t pages = r.count_pages();
  if (page > pages) fail(path + ": has " + std::to_string(pages) + " page(s), no page " + std::to_string(page));
  r.seek(page - 1);
  VLIMG_File *f = r.file();
  const uint32_t w = r.u32(VLIMG_TAG_WIDTH, 0), h = r.u32(VLIMG_TAG_HEIGHT, 0);
  const uint32_t type = r.u32(VLIMG_TAG_IMAGETYPE, 0);
  const std::vector<uint32_t> bpp = r.bpp();
  const uint32_t planes = static_cast<uint32_t>(bpp.size());
  if (channel > planes) fail(path + ": page " + std::to_string(page) + " has " + std::to_string(planes) + " planes, no plane " + std::to_string(channel));
  for (uint32_t b : bpp)
    if (b > 8) fail(path + ": planes of more than 8 bits are not supported by extract");
  const uint32_t out_ch = channel ? 1 : planes;
  if (png && out_ch != 1 && out_ch != 3)
    usage_error(output + ": PNG holds grey or RGB; give --channel K or write a .tif");
  std::vector<uint32_t> offset(planes);
  uint32_t bits = 0;
  for (uint32_t p = 0; p < planes; ++p) offset[p] = bits, bits += bpp[p];
  const bool cmyk = !png && out_ch == 4 && type == VLIMG_IMAGETYPE_CMYK;
  float xres = 0, yres = 0;
  VLIMG_GetField(f, VLIMG_TAG_XRESOLUTION, &xres);
  VLIMG_GetField(f, VLIMG_TAG_YRESOLUTION, &yres);
  Library::clear_message();

  OutputFile out(output);
  auto sink = png ? create_png(out.temp(), output, w, h, out_ch, 8, xres, {})
                  : create_tiff(out.temp(), output, w, h, out_ch, 8, cmyk, xres, yres, {});
  const uint32_t band = std::max<uint32_t>(1, r.u32(VLIMG_TAG_TILEHEIGHT, 64));
  const size_t bpl = VLIMG_BytesPerLine(f);
  std::vector<uint8_t> lines(bpl * band), row(static_cast<size_t>(w) * out_ch);
  for (uint32_t y = 0; y < h; y += band) {
    const uint32_t n = std::min(band, h - y);
    r.read_lines(y, n, lines.data(), bpl);
    for (uint32_t l = 0; l < n; ++l) {
      const uint8_t *src = &lines[l * bpl];
      for (uint32_t x = 0; x < w; ++x)
        for (uint32_t c = 0; c < out_ch; ++c) {
          const uint32_t p = channel ? channel - 1 : c;
          const uint64_t bit = static_cast<uint64_t>(x) * bits + offset[p];
          uint32_t code = 0;
          for (uint32_t b = 0; b < bpp[p]; ++b)
            code = code << 1 | ((src[(bit + b) >> 3] >> (7 - ((bit + b) & 7))) & 1u);
          // Codes scaled to the full 8 bits so a plane is visible as it is.
          const uint32_t top = (1u << bpp[p]) - 1;
          row[static_cast<size_t>(x) * out_ch + c] = static_cast<uint8_t>(top ? (code * 255 + top / 2) / top : 0);
        }
      sink->write_line(row.data());
    }
  }
  sink->finish();
  out.commit();
  return kOk;
}

}  // namespace zt::tool
