// zt merge: the pages of several VLIMG files, in order, in one file. Pages are
// copied with their header items and tiling; pixels pass through unchanged.
#include <algorithm>
#include <cstring>

#include <zt/vlimg.h>

#include "tool.h"
#include "vlimg_read.h"

namespace zt::tool {

namespace {

void copy_page(VlimgReader &r, const std::string &target, const std::string &shown, bool first) {
  VLIMG_File *in = r.file();
  Library::clear_message();
  VLIMG_File *out = VLIMG_Open(target.c_str(), first ? VLIMG_MODE_CREATE : VLIMG_MODE_APPEND);
  if (!out) fail_lib(shown + ": cannot write");
  struct Closer {
    VLIMG_File *f;
    ~Closer() {
      if (f) VLIMG_Close(f);
    }
  } closer{out};
  auto copy_u32 = [&](uint32_t tag) {
    uint32_t v = 0;
    if (VLIMG_GetField(in, tag, &v) == 0 && VLIMG_SetField(out, tag, &v) != 0) fail_lib(shown + ": header item " + std::to_string(tag));
  };
  auto copy_any = [&](uint32_t tag) {
    alignas(8) uint8_t v[64] = {};
    if (VLIMG_GetField(in, tag, v) == 0 && VLIMG_SetField(out, tag, v) != 0) fail_lib(shown + ": header item " + std::to_string(tag));
  };
  // The order matters: the image type (and separations) before the depths.
  for (uint32_t tag : {VLIMG_TAG_WIDTH, VLIMG_TAG_HEIGHT, VLIMG_TAG_COMPRESSION, VLIMG_TAG_IMAGETYPE,
                       VLIMG_TAG_NUMSEPS, VLIMG_TAG_RESOLUTIONUNIT, VLIMG_TAG_COLOURSPACE, VLIMG_TAG_ORIENTATION,
                       VLIMG_TAG_TILEFLAGS, VLIMG_TAG_PAGENUMBER})
    copy_u32(tag);
  for (uint32_t tag : {VLIMG_TAG_XRESOLUTION, VLIMG_TAG_YRESOLUTION, VLIMG_TAG_ICCPROFILE, VLIMG_TAG_TILEBLOB1,
                       VLIMG_TAG_TILEBLOB2})
    copy_any(tag);
  // Text items come out as a pointer and go in as the text itself.
  for (uint32_t tag : {VLIMG_TAG_DESCRIPTION, VLIMG_TAG_SOFTWARE, VLIMG_TAG_SEPNAMES}) {
    const char *text = nullptr;
    if (VLIMG_GetField(in, tag, &text) == 0 && text && VLIMG_SetField(out, tag, text) != 0)
      fail_lib(shown + ": header item " + std::to_string(tag));
  }
  std::vector<uint32_t> bpp(VLIMG_MAX_PLANES);
  if (VLIMG_GetField(in, VLIMG_TAG_BPP_ARRAY, bpp.data()) != 0 || VLIMG_SetField(out, VLIMG_TAG_BPP_ARRAY, bpp.data()) != 0)
    fail_lib(shown + ": bits-per-pixel array");
  Library::clear_message();
  const uint32_t h = r.u32(VLIMG_TAG_HEIGHT, 0);
  const size_t bpl = VLIMG_BytesPerLine(in);
  if (VLIMG_IsTiled(in)) {
    const uint32_t tw = r.u32(VLIMG_TAG_TILEWIDTH, 0), th = r.u32(VLIMG_TAG_TILEHEIGHT, 0);
    if (VLIMG_EnableTiling(out, tw, th) != 0) fail_lib(shown + ": cannot tile");
    const uint32_t tiles = VLIMG_NumTiles(in);
    std::vector<uint8_t> buf;
    for (uint32_t t = 0; t < tiles; ++t) {
      uint32_t w = 0, hh = 0;
      if (VLIMG_GetTileSize(in, t, &w, &hh) != 0) fail_lib(r.path() + ": tile " + std::to_string(t));
      const uint32_t stride = static_cast<uint32_t>((static_cast<uint64_t>(w) * VLIMG_BitsPerPixel(in) + 7) / 8);
      buf.resize(static_cast<size_t>(stride) * hh);
      if (VLIMG_ReadTile(in, t, buf.data(), stride) != 0) fail_lib(r.path() + ": cannot read tile " + std::to_string(t));
      if (VLIMG_WriteTile(out, t, buf.data(), stride) != 0) fail_lib(shown + ": cannot write tile " + std::to_string(t));
    }
  } else {
    std::vector<uint8_t> line(bpl);
    for (uint32_t y = 0; y < h; ++y) {
      if (VLIMG_ReadScanline(in, line.data()) != 0) fail_lib(r.path() + ": cannot read line " + std::to_string(y));
      if (VLIMG_WriteScanline(out, line.data()) != 0) fail_lib(shown + ": cannot write line " + std::to_string(y));
    }
  }
  closer.f = nullptr;
  if (VLIMG_Close(out) != 0) fail_lib(shown + ": cannot finish the page");
}

}  // namespace

int cmd_merge(int argc, char **argv) {
  Args a(argc, argv, 2);
  std::vector<std::string> inputs;
  std::string output, v;
  uint32_t threads = 0;
  while (!a.done()) {
    if (a.option("-o", v) || a.option("--output", v)) output = v;
    else if (a.option("--threads", v)) threads = parse_u32("--threads", v, 1, 64);
    else if (a.flag("--quiet") || a.flag("-q")) g_verbosity = Verbosity::kQuiet;
    else if (a.flag("--verbose") || a.flag("-v")) g_verbosity = Verbosity::kVerbose;
    else if (a.peek().size() > 1 && a.peek()[0] == '-') usage_error("unknown option '" + a.peek() + "'");
    else inputs.push_back(a.next());
  }
  if (inputs.empty()) usage_error("no input files given (zt merge A.vlimg B.vlimg ... -o OUT.vlimg)");
  if (output.empty()) usage_error("no output given (-o OUT.vlimg)");
  Library lib(threads ? threads : processor_count());
  OutputFile out(output);
  bool first = true;
  for (const std::string &in : inputs) {
    VlimgReader r(in);
    const uint32_t pages = r.count_pages();
    for (uint32_t p = 0; p < pages; ++p) {
      r.seek(p);
      copy_page(r, out.temp(), output, first);
      first = false;
      verbose("%s page %u copied", in.c_str(), p + 1);
    }
  }
  out.commit();
  return kOk;
}

}  // namespace zt::tool
