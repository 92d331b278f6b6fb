// zt info: the header items of every page, by name, and the tiles.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <zt/compress.h>
#include <zt/vlimg.h>

#include "tool.h"
#include "vlimg_read.h"

namespace zt::tool {

namespace {

enum class Kind { kU32, kU64, kFloat, kDouble, kText, kBlob, kBpp };
struct TagInfo {
  uint32_t tag;
  const char *name;
  Kind kind;
};
const TagInfo kTags[] = {
    {VLIMG_TAG_WIDTH, "width", Kind::kU32},
    {VLIMG_TAG_HEIGHT, "height", Kind::kU32},
    {VLIMG_TAG_COMPRESSION, "compression", Kind::kU32},
    {VLIMG_TAG_IMAGETYPE, "image_type", Kind::kU32},
    {VLIMG_TAG_XRESOLUTION, "x_resolution", Kind::kFloat},
    {VLIMG_TAG_YRESOLUTION, "y_resolution", Kind::kFloat},
    {VLIMG_TAG_RESOLUTIONUNIT, "resolution_unit", Kind::kU32},
    {VLIMG_TAG_COLOURSPACE, "colour_space", Kind::kU32},
    {VLIMG_TAG_ORIENTATION, "orientation", Kind::kU32},
    {VLIMG_TAG_VERSION, "version", Kind::kDouble},
    {VLIMG_TAG_DESCRIPTION, "description", Kind::kText},
    {VLIMG_TAG_SOFTWARE, "software", Kind::kText},
    {VLIMG_TAG_BPP_ARRAY, "bits_per_plane", Kind::kBpp},
    {VLIMG_TAG_SEPNAMES, "separation_names", Kind::kText},
    {VLIMG_TAG_NUMSEPS, "separations", Kind::kU32},
    {VLIMG_TAG_TILEWIDTH, "tile_width", Kind::kU32},
    {VLIMG_TAG_TILEHEIGHT, "tile_height", Kind::kU32},
    {VLIMG_TAG_ICCPROFILE, "icc_profile_bytes", Kind::kBlob},
    {VLIMG_TAG_TILEFLAGS, "tile_flags", Kind::kU32},
    {VLIMG_TAG_TILEBLOB1, "tile_blob1_bytes", Kind::kBlob},
    {VLIMG_TAG_TILEBLOB2, "tile_blob2_bytes", Kind::kBlob},
    {VLIMG_TAG_MIPMAPLEVEL, "mipmap_level", Kind::kU32},
    {VLIMG_TAG_NEWFILE, "new_file", Kind::kU32},
    {VLIMG_TAG_NEXTPAGE, "next_page_offset", Kind::kU64},
    {VLIMG_TAG_PAGENUMBER, "page_number", Kind::kU32},
};

const char *compression_name(uint32_t c) {
  switch (c) {
    case VLIMG_COMPRESSION_NONE: return "none";
    case VLIMG_COMPRESSION_LZW: return "lzw";
    case VLIMG_COMPRESSION_DEFLATE: return "deflate";
    case VLIMG_COMPRESSION_PACKBITS: return "packbits";
    case VLIMG_COMPRESSION_DEFAULT: return "default";
    case VLIMG_COMPRESSION_LZJB: return "lzjb";
    case VLIMG_COMPRESSION_LZ4: return "lz4";
    default: return "unknown";
  }
}
const char *type_name(uint32_t t) {
  switch (t) {
    case VLIMG_IMAGETYPE_GREY: return "grey";
    case VLIMG_IMAGETYPE_RGB: return "rgb";
    case VLIMG_IMAGETYPE_CMYK: return "cmyk";
    case VLIMG_IMAGETYPE_SEPARATED: return "separated";
    case VLIMG_IMAGETYPE_HEXACHROME: return "hexachrome";
    case VLIMG_IMAGETYPE_CMYKOG: return "cmykog";
    case VLIMG_IMAGETYPE_CMYKOGV: return "cmykogv";
    case VLIMG_IMAGETYPE_LAB: return "lab";
    case VLIMG_IMAGETYPE_MASK: return "mask";
    default: return "unknown";
  }
}

std::string json_escape(const std::string &s) {
  std::string o;
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') o += '\\', o += static_cast<char>(c);
    else if (c < 0x20) {
      char b[8];
      std::snprintf(b, sizeof b, "\\u%04x", c);
      o += b;
    } else o += static_cast<char>(c);
  }
  return o;
}

struct Item {
  std::string name, text;  // text as shown; JSON value in json
  std::string json;
};

std::vector<Item> page_items(VlimgReader &r) {
  std::vector<Item> items;
  VLIMG_File *f = r.file();
  for (const TagInfo &t : kTags) {
    Item it{t.name, "", ""};
    switch (t.kind) {
      case Kind::kU32: {
        uint32_t v = 0;
        if (VLIMG_GetField(f, t.tag, &v) != 0) continue;
        it.text = std::to_string(v);
        it.json = it.text;
        if (t.tag == VLIMG_TAG_COMPRESSION) it.text += std::string(" (") + compression_name(v) + ")";
        if (t.tag == VLIMG_TAG_IMAGETYPE) it.text += std::string(" (") + type_name(v) + ")";
        break;
      }
      case Kind::kU64: {
        uint64_t v = 0;
        if (VLIMG_GetField(f, t.tag, &v) != 0) continue;
        it.text = it.json = std::to_string(v);
        break;
      }
      case Kind::kFloat: {
        float v = 0;
        if (VLIMG_GetField(f, t.tag, &v) != 0) continue;
        char b[32];
        std::snprintf(b, sizeof b, "%g", static_cast<double>(v));
        it.text = it.json = b;
        break;
      }
      case Kind::kDouble: {
        double v = 0;
        if (VLIMG_GetField(f, t.tag, &v) != 0) continue;
        char b[32];
        std::snprintf(b, sizeof b, "%g", v);
        it.text = it.json = b;
        break;
      }
      case Kind::kText: {
        const char *v = nullptr;
        if (VLIMG_GetField(f, t.tag, &v) != 0 || !v) continue;
        it.text = v;
        it.json = "\"" + json_escape(v) + "\"";
        break;
      }
      case Kind::kBlob: {
        VLIMG_Blob b{};
        if (VLIMG_GetField(f, t.tag, &b) != 0) continue;
        it.text = it.json = std::to_string(b.length);
        break;
      }
      case Kind::kBpp: {
        std::vector<uint32_t> v(VLIMG_MAX_PLANES);
        if (VLIMG_GetField(f, t.tag, v.data()) != 0) continue;
        v.resize(VLIMG_NumPlanes(f));
        it.json = "[";
        for (size_t i = 0; i < v.size(); ++i) {
          if (i) {
            it.text += ' ';
            it.json += ',';
          }
          it.text += std::to_string(v[i]);
          it.json += std::to_string(v[i]);
        }
        it.json += "]";
        break;
      }
    }
    items.push_back(it);
  }
  Library::clear_message();
  return items;
}

std::string codec_names(uint32_t flags) {
  if ((flags & ZT_COMPRESS_CODEC_MASK) == 0 || !(flags & ZT_COMPRESS_ON)) return "raw";
  std::string s;
  auto add = [&](uint32_t bit, const char *n) {
    if (!(flags & bit)) return;
    if (!s.empty()) s += '+';
    s += n;
  };
  add(ZT_COMPRESS_LZ4, "lz4");
  add(ZT_COMPRESS_PACKBITS, "packbits");
  add(ZT_COMPRESS_LZJB, "lzjb");
  add(ZT_COMPRESS_LZW, "lzw");
  add(ZT_COMPRESS_DEFLATE, "deflate");
  add(ZT_COMPRESS_DELTA, "delta");
  return s.empty() ? "raw" : s;
}

}  // namespace

int cmd_info(int argc, char **argv) {
  Args a(argc, argv, 2);
  std::string path;
  bool json = false;
  while (!a.done()) {
    if (a.flag("--json")) json = true;
    else if (a.flag("--quiet") || a.flag("-q")) g_verbosity = Verbosity::kQuiet;
    else if (a.flag("--verbose") || a.flag("-v")) g_verbosity = Verbosity::kVerbose;
    else if (a.peek().size() > 1 && a.peek()[0] == '-') usage_error("unknown option '" + a.peek() + "'");
    else if (path.empty()) path = a.next();
    else usage_error("one file at a time");
  }
  if (path.empty()) usage_error("no file given (zt info FILE.vlimg)");
  Library lib(1);
  VlimgReader r(path);
  const uint32_t pages = r.count_pages();
  std::string out;
  if (json) out += "{\"file\":\"" + json_escape(path) + "\",\"pages\":" + std::to_string(pages) + ",\"page\":[";
  else out += path + ": " + std::to_string(pages) + " page(s)\n";
  for (uint32_t p = 0; p < pages; ++p) {
    r.seek(p);
    const std::vector<Item> items = page_items(r);
    VLIMG_File *f = r.file();
    const uint32_t planes = VLIMG_NumPlanes(f), bits = VLIMG_BitsPerPixel(f);
    const uint64_t bpl = VLIMG_BytesPerLine(f);
    const uint32_t height = r.u32(VLIMG_TAG_HEIGHT, 0);
    const uint64_t raw_bytes = bpl * height;
    const uint32_t tiles = VLIMG_NumTiles(f);
    uint64_t stored = 0;
    uint32_t raw_tiles = 0;
    std::vector<std::pair<std::string, uint32_t>> codecs;
    if (tiles) {
      std::vector<VLIMG_TileEntry> table(tiles);
      if (VLIMG_GetField(f, VLIMG_TAG_TILETABLE, table.data()) != 0) fail_lib(path + ": cannot read the tile table");
      for (const VLIMG_TileEntry &t : table) {
        stored += t.size;
        if (t.flags == 0) ++raw_tiles;
        const std::string n = codec_names(t.flags);
        auto it = std::find_if(codecs.begin(), codecs.end(), [&](auto &c) { return c.first == n; });
        if (it == codecs.end()) codecs.emplace_back(n, 1);
        else ++it->second;
      }
    }
    if (json) {
      out += std::string(p ? "," : "") + "{\"index\":" + std::to_string(p + 1) + ",\"header\":{";
      for (size_t i = 0; i < items.size(); ++i) out += (i ? ",\"" : "\"") + items[i].name + "\":" + items[i].json;
      out += "},\"planes\":" + std::to_string(planes) + ",\"bits_per_pixel\":" + std::to_string(bits) +
             ",\"bytes_per_line\":" + std::to_string(bpl) + ",\"raw_bytes\":" + std::to_string(raw_bytes) +
             ",\"tiled\":" + (tiles ? "true" : "false") + ",\"tiles\":" + std::to_string(tiles);
      if (tiles) {
        out += ",\"stored_bytes\":" + std::to_string(stored) + ",\"raw_tiles\":" + std::to_string(raw_tiles) + ",\"codecs\":{";
        for (size_t i = 0; i < codecs.size(); ++i)
          out += (i ? ",\"" : "\"") + codecs[i].first + "\":" + std::to_string(codecs[i].second);
        out += "}";
      }
      out += "}";
    } else {
      out += "page " + std::to_string(p + 1) + ":\n";
      for (const Item &it : items) {
        char line[512];
        std::snprintf(line, sizeof line, "  %-18s %s\n", it.name.c_str(), it.text.c_str());
        out += line;
      }
      char line[512];
      std::snprintf(line, sizeof line, "  %-18s %u planes, %u bits a pixel, %llu bytes a line, %llu bytes unpacked\n",
                    "pixels", planes, bits, static_cast<unsigned long long>(bpl),
                    static_cast<unsigned long long>(raw_bytes));
      out += line;
      if (tiles) {
        std::snprintf(line, sizeof line, "  %-18s %u tiles, %llu bytes stored (%.1f%%), %u stored raw;", "tiles", tiles,
                      static_cast<unsigned long long>(stored), raw_bytes ? 100.0 * stored / raw_bytes : 0.0, raw_tiles);
        out += line;
        for (auto &c : codecs) out += " " + c.first + " x" + std::to_string(c.second);
        out += "\n";
      } else {
        out += "  tiles              none (stored by scanline)\n";
      }
    }
  }
  if (json) out += "]}\n";
  std::fputs(out.c_str(), stdout);
  if (std::fflush(stdout) != 0) fail("standard output: cannot write");
  return kOk;
}

}  // namespace zt::tool
