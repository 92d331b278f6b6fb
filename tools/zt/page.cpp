// zt page: the built-in test page as an image, for looking at it and for
// feeding the same page to other renderers (the benchmark gives the
// PostScript form to Ghostscript).
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "colour.h"
#include "image_io.h"
#include "testpage.h"
#include "tool.h"

namespace zt::tool {

int cmd_page(int argc, char **argv) {
  Args a(argc, argv, 2);
  std::string output, v;
  uint32_t xdpi = 150, ydpi = 150, size = 4;
  while (!a.done()) {
    if (a.option("-o", v) || a.option("--output", v)) output = v;
    else if (a.option("--dpi", v)) {
      const size_t sep = v.find_first_of("xX");
      xdpi = parse_u32("--dpi", v.substr(0, sep), 1, 20000);
      ydpi = sep == std::string::npos ? xdpi : parse_u32("--dpi", v.substr(sep + 1), 1, 20000);
    } else if (a.option("--page-size", v)) {
      if (v.size() != 2 || (v[0] != 'A' && v[0] != 'a') || v[1] < '0' || v[1] > '4')
        usage_error("--page-size: '" + v + "' is not A0, A1, A2, A3 or A4");
      size = static_cast<uint32_t>(v[1] - '0');
    } else if (a.flag("--quiet") || a.flag("-q")) g_verbosity = Verbosity::kQuiet;
    else if (a.flag("--verbose") || a.flag("-v")) g_verbosity = Verbosity::kVerbose;
    else usage_error("unknown argument '" + a.peek() + "'");
  }
  if (output.empty()) usage_error("no output given (-o OUT.tif, OUT.png or OUT.ps)");
  const bool png = ends_with(output, ".png"), ps = ends_with(output, ".ps");
  if (!png && !ps && !ends_with(output, ".tif") && !ends_with(output, ".tiff"))
    usage_error(output + ": the output must end in .png, .tif, .tiff or .ps");
  TestPage page(xdpi, ydpi, size);
  const uint32_t w = page.width(), h = page.height();
  std::vector<uint8_t> planar(static_cast<size_t>(w) * 4), cmyk(static_cast<size_t>(w) * 4), rgb(static_cast<size_t>(w) * 3);
  auto interleave = [&] {
    for (uint32_t x = 0; x < w; ++x)
      for (int c = 0; c < 4; ++c) cmyk[4 * x + c] = planar[static_cast<size_t>(c) * w + x];
  };
  OutputFile out(output);
  const std::vector<uint8_t> profile = read_file_bytes(ZT_DEFAULT_CMYK_PROFILE);
  if (ps) {
    // One CMYK image filling an A4 page; PostScript's CMYK is ink amounts too.
    FILE *f = std::fopen(out.temp().c_str(), "wb");
    if (!f) fail(output + ": " + std::strerror(errno));
    const double pw = w * 72.0 / xdpi, ph = h * 72.0 / ydpi;
    std::fprintf(f,
                 "%%!PS-Adobe-3.0\n%%%%BoundingBox: 0 0 %.0f %.0f\n%%%%Pages: 1\n%%%%EndComments\n%%%%Page: 1 1\n"
                 "<< /PageSize [%.3f %.3f] >> setpagedevice\n"
                 "%.3f %.3f scale /DeviceCMYK setcolorspace\n"
                 "<< /ImageType 1 /Width %u /Height %u /BitsPerComponent 8 /Decode [0 1 0 1 0 1 0 1]\n"
                 "   /ImageMatrix [%u 0 0 -%u 0 %u] /DataSource currentfile >> image\n",
                 pw, ph, pw, ph, pw, ph, w, h, w, h, h);
    for (uint32_t y = 0; y < h; ++y) {
      page.draw(y, planar.data());
      interleave();
      if (std::fwrite(cmyk.data(), 1, cmyk.size(), f) != cmyk.size()) break;
    }
    std::fprintf(f, "\nshowpage\n%%%%EOF\n");
    const bool bad = std::fflush(f) != 0 || std::ferror(f);
    if (std::fclose(f) != 0 || bad) fail(output + ": " + std::strerror(errno));
  } else if (png) {
    Profiles profiles;
    profiles.output = profile;
    profiles.output_name = ZT_DEFAULT_CMYK_PROFILE;
    Proof proof(profiles);
    auto sink = create_png(out.temp(), output, w, h, 3, 8, xdpi, {});
    for (uint32_t y = 0; y < h; ++y) {
      page.draw(y, planar.data());
      interleave();
      proof.convert(cmyk.data(), rgb.data(), w);
      sink->write_line(rgb.data());
    }
    sink->finish();
  } else {
    auto sink = create_tiff(out.temp(), output, w, h, 4, 8, true, xdpi, ydpi, profile);
    for (uint32_t y = 0; y < h; ++y) {
      page.draw(y, planar.data());
      interleave();
      sink->write_line(cmyk.data());
    }
    sink->finish();
  }
  out.commit();
  return kOk;
}

}  // namespace zt::tool
