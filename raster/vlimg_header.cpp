// Page headers: parsing with every check made before a number is used, writing
// in our fixed item order, the reserved tile table and the page chain.
#include <bit>
#include <cmath>
#include <cstring>
#include <unordered_set>

#include "foundation/internal.h"
#include "raster/vlimg_internal.h"

namespace zt::raster::vlimg {

namespace {

constexpr uint32_t kKnownCompressions[] = {1, 5, 7, 8, 10, 11, 13};

bool known_compression(uint32_t c) {
  for (uint32_t k : kKnownCompressions)
    if (k == c) return true;
  return false;
}

bool valid_depth(uint32_t bits) { return bits == 1 || bits == 2 || bits == 4 || bits == 8 || bits == 16; }

// A separation name: printable, no brackets or bar, 1 to 63 bytes.
bool valid_name(const std::string &s) {
  if (s.empty() || s.size() > 63) return false;
  for (unsigned char ch : s)
    if (ch < 0x20 || ch == '[' || ch == ']' || ch == '|') return false;
  return true;
}

// "p:v,p:v,...": at least two points, p strictly increasing, both 0 to 100.
bool valid_curve(const std::string &s) {
  size_t i = 0, points = 0;
  int last = -1;
  auto number = [&](int *out) {
    if (i >= s.size() || s[i] < '0' || s[i] > '9') return false;
    int v = 0;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') {
      v = v * 10 + (s[i++] - '0');
      if (v > 100) return false;
    }
    *out = v;
    return true;
  };
  for (;;) {
    int p = 0, v = 0;
    if (!number(&p) || i >= s.size() || s[i++] != ':' || !number(&v) || p <= last) return false;
    last = p;
    ++points;
    if (i == s.size()) break;
    if (s[i++] != ',') return false;
  }
  return points >= 2;
}

}  // namespace

uint32_t planes_of(uint32_t image_type, uint32_t numseps) {
  switch (image_type) {
    case 1:
    case 10:
      return 1;
    case 2:
    case 9:
      return 3;
    case 3:
      return 4;
    case 4:
      return numseps;
    case 6:
    case 7:
      return 6;
    case 8:
      return 7;
    default:
      return 0;
  }
}

int64_t count_separations(const std::string &text, const char **why) {
  int64_t count = 0;
  size_t i = 0;
  *why = "Problem parsing sep names";
  while (i < text.size()) {
    if (text[i] != '[') return -1;
    const size_t close = text.find(']', i);
    if (close == std::string::npos) return -1;
    const std::string entry = text.substr(i + 1, close - i - 1);
    i = close + 1;
    const size_t bar = entry.find('|');
    const std::string name = entry.substr(0, bar);
    if (!valid_name(name)) return -1;
    if (bar != std::string::npos) {
      if (!valid_curve(entry.substr(bar + 1))) {
        *why = "Problem parsing dotgain curve for specials";
        return -1;
      }
      ++count;
      continue;
    }
    // "Ncolour" stands for the first N process separations.
    if (name.size() == 7 && name[0] >= '1' && name[0] <= '9' && name.compare(1, 6, "colour") == 0) {
      count += name[0] - '0';
    } else {
      ++count;
    }
  }
  return count;
}

// ---- Reading ---------------------------------------------------------------------

namespace {

// Reads header numbers through the file's buffer.
struct ItemReader {
  FileIo &io;
  bool u16(uint32_t *v) {
    uint8_t b[2];
    if (!io.read(b, 2)) return false;
    *v = uint32_t{b[0]} << 8 | b[1];
    return true;
  }
  bool u32(uint32_t *v) {
    uint8_t b[4];
    if (!io.read(b, 4)) return false;
    *v = zt::load_be32(b);
    return true;
  }
  bool u64(uint64_t *v) {
    uint8_t b[8];
    if (!io.read(b, 8)) return false;
    *v = zt::load_be64(b);
    return true;
  }
  bool f32(float *v) {
    uint32_t bits = 0;
    if (!u32(&bits)) return false;
    std::memcpy(v, &bits, 4);
    return true;
  }
  bool f64(double *v) {
    uint64_t bits = 0;
    if (!u64(&bits)) return false;
    std::memcpy(v, &bits, 8);
    return true;
  }
  bool bytes(std::vector<uint8_t> *out, uint32_t n) {
    out->resize(n);
    return io.read(out->data(), n);
  }
  bool text(std::string *out, uint32_t n) {
    out->resize(n);
    if (!io.read(out->data(), n)) return false;
    while (!out->empty() && out->back() == '\0') out->pop_back();
    return true;
  }
};

constexpr const char *kReadError = "Read error while processing VLIMG header";

// The sizes that follow from a header, checked so that no product wraps and
// every block fits the codecs' 32-bit lengths.
bool check_sizes(const Header &h, const char *fn) {
  uint64_t bits = 0, page = 0;
  if (!checked_mul(h.width, h.bits_per_pixel, &bits) || (bits + 7) / 8 > UINT32_MAX - kBlockHeaderSize ||
      !checked_mul((bits + 7) / 8, h.height, &page) || page > (uint64_t{1} << 62)) {
    ZT_LOG(kModule, fn, "Image of %u x %u pixels at %u bits per pixel is too large", h.width, h.height,
           h.bits_per_pixel);
    return false;
  }
  if (h.tiled()) {
    uint64_t tile_bits = 0, tile = 0;
    if (!checked_mul(h.tile_width, h.bits_per_pixel, &tile_bits) ||
        !checked_mul((tile_bits + 7) / 8, h.tile_height, &tile) || tile > UINT32_MAX - kBlockHeaderSize ||
        tile_count(h) == 0) {
      ZT_LOG(kModule, fn, "Tiles of %u x %u pixels at %u bits per pixel are too large", h.tile_width,
             h.tile_height, h.bits_per_pixel);
      return false;
    }
  }
  return true;
}

// The checks the tile table can only have once the header's end is known.
bool check_tiles(const VLIMG_File *f, const Header &h, uint64_t data_start, const char *fn) {
  const uint64_t file_size = f->io.size();
  for (uint32_t i = 0; i < h.tiles.size(); ++i) {
    const VLIMG_TileEntry &e = h.tiles[i];
    uint32_t x = 0, y = 0, w = 0, hh = 0;
    tile_rect(h, i, &x, &y, &w, &hh);
    const uint64_t raw = tile_line_bytes(h, w) * hh;
    if (e.width != w || e.height != hh) {
      ZT_LOG(kModule, fn, "Tile %u is %u x %u, the page needs %u x %u there", i, e.width, e.height, w, hh);
      return false;
    }
    if (e.offset < data_start) {
      ZT_LOG(kModule, fn, "Tile %u at offset %llu overlaps the header", i,
             static_cast<unsigned long long>(e.offset));
      return false;
    }
    const bool raw_type = h.compression == 1;
    if ((raw_type && e.size != raw) ||
        (!raw_type && (e.size < kBlockHeaderSize || e.size > raw + kBlockHeaderSize))) {
      ZT_LOG(kModule, fn, "Tile %u announces %u bytes, more than it holds", i, e.size);
      return false;
    }
    if (e.offset > file_size || e.size > file_size - e.offset) {
      ZT_LOG(kModule, fn, "Tile %u lies past the end of the file", i);
      return false;
    }
  }
  return true;
}

}  // namespace

int32_t read_header(VLIMG_File *f, const char *fn) {
  f->header_ok = false;
  f->line = 0;
  Header h;
  FileIo &io = f->io;
  ItemReader in{io};
  f->page_start = io.tell();
  f->next_value_pos = 0;
  uint8_t mark[2];
  if (!io.read(mark, 2)) {
    ZT_LOG(kModule, fn, "%s", kReadError);
    return -1;
  }
  if (mark[0] != 0x42 || mark[1] != 0x42) return -1;
  uint32_t id = 0, reserved = 0;
  if (!in.u32(&id) || !in.u32(&reserved)) {
    ZT_LOG(kModule, fn, "%s", kReadError);
    return -1;
  }
  if (id != kMagic) {
    ZT_LOG(kModule, fn, "Not a VL IMG file id = %x", id);
    return -1;
  }
  for (;;) {
    uint32_t tag = 0, length = 0, type = 0, count = 0;
    if (!in.u32(&tag) || !in.u32(&length) || !in.u16(&type) || !in.u32(&count)) {
      ZT_LOG(kModule, fn, "%s", kReadError);
      return -1;
    }
    if (length < 6) {
      ZT_LOG(kModule, fn, "Item %u has a length of %u, below the 6 of a bare item", tag, length);
      return -1;
    }
    const uint32_t payload = length - 6;
    const uint64_t here = io.tell();
    if (payload > 0 && (here > io.size() || payload > io.size() - here)) {
      ZT_LOG(kModule, fn, "Item %u of %u bytes runs past the end of the file", tag, payload);
      return -1;
    }
    // A known tag whose payload is not the size of its value cannot be read.
    bool logged = false;
    auto need = [&](uint32_t bytes) {
      if (payload == bytes) return true;
      logged = true;
      ZT_LOG(kModule, fn, "Item %u has %u bytes of value, expected %u", tag, payload, bytes);
      return false;
    };
    bool ok = true;
    switch (tag) {
      case 0:
        ZT_LOG(kModule, fn, "undefined tag encountered");
        return -1;
      case 1:
        ok = need(4) && in.u32(&h.width);
        break;
      case 2:
        ok = need(4) && in.u32(&h.height);
        break;
      case 3:
        ok = need(2) && in.u16(&h.compression);
        break;
      case 5:
        if (!(ok = need(2) && in.u16(&h.image_type))) break;
        if (h.image_type == 4 && !h.has(22)) {
          ZT_LOG(kModule, fn, "Could not find numseps tag for Separated image");
          return -1;
        }
        h.planes = planes_of(h.image_type, h.numseps);
        if (h.planes == 0) {
          ZT_LOG(kModule, fn, "Cannot handle imagetype %d", static_cast<int>(h.image_type));
          return -1;
        }
        break;
      case 6:
        ok = need(4) && in.f32(&h.xres);
        break;
      case 7:
        ok = need(4) && in.f32(&h.yres);
        break;
      case 8:
        ok = need(2) && in.u16(&h.res_unit);
        break;
      case 9:
        ok = need(4) && in.u32(&h.colourspace);
        break;
      case 10: {
        double d = 0;
        if (!(ok = need(8) && in.f64(&d))) break;
        if (!(d >= 0 && d <= UINT32_MAX) || d != std::floor(d)) {
          ZT_LOG(kModule, fn, "Item 10 holds %g, not a colour-space id", d);
          return -1;
        }
        h.colourspace = static_cast<uint32_t>(d);
        h.mark(9);
        break;
      }
      case 11:
        ok = need(2) && in.u16(&h.orientation);
        break;
      case 14:
        ok = need(8) && in.f64(&h.version);
        break;
      case 15:
        ok = in.text(&h.description, payload);
        break;
      case 16:
        ok = need(0);
        break;
      case 17:
        ok = in.text(&h.software, payload);
        break;
      case 19:
      case 20: {
        if (!h.has(5)) {
          ZT_LOG(kModule, fn, "Got bpp before colourspace");
          return -1;
        }
        if (count != h.planes) {
          ZT_LOG(kModule, fn, "Inconsistent number of planes. Expected %d but got %d instead",
                 static_cast<int>(h.planes), static_cast<int>(count));
          return -1;
        }
        const uint32_t entry = tag == 19 ? 2 : 4;
        if (uint64_t{count} * entry != payload) {
          ZT_LOG(kModule, fn, "Failed to read bpp array");
          return -1;
        }
        h.bpp.assign(count, 0);
        h.bpp_tag = tag;
        for (uint32_t i = 0; i < count; ++i) {
          if (!(tag == 19 ? in.u16(&h.bpp[i]) : in.u32(&h.bpp[i]))) {
            ZT_LOG(kModule, fn, "Failed to read bpp array");
            return -1;
          }
          if (!valid_depth(h.bpp[i])) {
            ZT_LOG(kModule, fn, "Plane %u has %u bits per pixel, which we cannot store", i, h.bpp[i]);
            return -1;
          }
        }
        break;
      }
      case 21: {
        if (!h.has(22)) {
          ZT_LOG(kModule, fn, "Saw sep definitions before numseps");
          return -1;
        }
        if (!(ok = in.text(&h.sepnames, payload))) break;
        const char *why = nullptr;
        if (count_separations(h.sepnames, &why) < 0) {
          ZT_LOG(kModule, fn, "%s", why);
          return -1;
        }
        break;
      }
      case 22:
        if (!(ok = need(4) && in.u32(&h.numseps))) break;
        if (h.numseps == 0 || h.numseps > VLIMG_MAX_PLANES) {
          ZT_LOG(kModule, fn, "A separated image of %u separations is not supported", h.numseps);
          return -1;
        }
        break;
      case 23:
        ok = need(4) && in.u32(&h.tile_width);
        break;
      case 24:
        ok = need(4) && in.u32(&h.tile_height);
        break;
      case 25: {
        if (!h.has(1) || !h.has(2) || !h.tiled()) {
          ZT_LOG(kModule, fn, "Tile table before the image and tile sizes");
          return -1;
        }
        const uint32_t expected = tile_count(h);
        if (count != expected || uint64_t{count} * kTileEntrySize != payload) {
          ZT_LOG(kModule, fn, "Tile table of %u entries in %u bytes; the page has %u tiles", count, payload,
                 expected);
          return -1;
        }
        // The payload was checked against the file's size above, so this
        // allocation is paid for by bytes that exist.
        h.tiles.assign(count, VLIMG_TileEntry{});
        std::vector<uint8_t> raw;
        if (!(ok = in.bytes(&raw, payload))) break;
        for (uint32_t i = 0; i < count; ++i) {
          const uint8_t *p = raw.data() + size_t{i} * kTileEntrySize;
          VLIMG_TileEntry &e = h.tiles[i];
          e.width = zt::load_be32(p);
          e.height = zt::load_be32(p + 4);
          e.offset = zt::load_be64(p + 8);
          e.size = zt::load_be32(p + 16);
          e.flags = zt::load_be32(p + 20);
          if (e.width > h.width || e.height > h.height || e.offset < 1) {
            ZT_LOG(
                kModule, fn,
                "Corrupt tile table encountered at tile %d, tile width = %d, tile height = %d, offset = %lx",
                static_cast<int>(i), static_cast<int>(e.width), static_cast<int>(e.height),
                static_cast<unsigned long>(e.offset));
            return -1;
          }
        }
        break;
      }
      case 26:
        if (!in.bytes(&h.icc, payload)) {
          ZT_LOG(kModule, fn, "Error reading embedded ICC profile");
          return -1;
        }
        break;
      case 27:
        ok = need(4) && in.u32(&h.tile_flags);
        break;
      case 28:
        ok = in.bytes(&h.blob1, payload);
        break;
      case 29:
        ok = in.bytes(&h.blob2, payload);
        break;
      case 30:
        ok = need(4) && in.u32(&h.mipmap_level);
        break;
      case 31:
        ok = need(4) && in.u32(&h.new_file);
        break;
      case 32:
        f->next_value_pos = io.tell();
        ok = need(8) && in.u64(&h.next_page);
        break;
      case 33:
        ok = need(4) && in.u32(&h.page_number);
        break;
      default:
        if (!io.skip(payload)) {
          ZT_LOG(kModule, fn, "Failed to skip over tag");
          return -1;
        }
        continue;
    }
    if (!ok) {
      // need() has logged a size mismatch; anything else was a short read.
      if (!logged) ZT_LOG(kModule, fn, "%s", kReadError);
      return -1;
    }
    h.mark(tag);
    if (tag == 16) break;
  }
  if (!h.has(1) || h.width == 0) {
    ZT_LOG(kModule, fn, "width is undefined");
    return -1;
  }
  if (!h.has(2) || h.height == 0) {
    ZT_LOG(kModule, fn, "height is undefined");
    return -1;
  }
  if (!h.has(3)) {
    ZT_LOG(kModule, fn, "compression type is undefined");
    return -1;
  }
  if (!known_compression(h.compression)) {
    ZT_LOG(kModule, fn, "Unsupported compression mode %u encountered", h.compression);
    return -1;
  }
  if (!h.has(5)) {
    ZT_LOG(kModule, fn, "image type is undefined");
    return -1;
  }
  if (h.planes == 0) {
    ZT_LOG(kModule, fn, "number of planes is undefined");
    return -1;
  }
  if (h.bpp.empty()) h.bpp.assign(h.planes, 8);
  if (h.bpp.size() != h.planes) {
    ZT_LOG(kModule, fn, "Inconsistent number of planes. Expected %d but got %d instead",
           static_cast<int>(h.planes), static_cast<int>(h.bpp.size()));
    return -1;
  }
  h.bits_per_pixel = 0;
  for (uint32_t b : h.bpp) h.bits_per_pixel += b;
  if (!check_sizes(h, fn)) return -1;
  if (h.tiled() && h.tiles.empty()) {
    ZT_LOG(kModule, fn, "corrupted tiled image encountered");
    return -1;
  }
  const uint64_t data_start = io.tell();
  if (h.tiled() && !check_tiles(f, h, data_start, fn)) return -1;
  f->h = std::move(h);
  f->data_start = data_start;
  f->header_ok = true;
  return prepare_codec(f, fn) ? 0 : -1;
}

// ---- Writing ---------------------------------------------------------------------

namespace {

struct ItemWriter {
  FileIo &io;
  bool item(uint32_t tag, uint16_t type, uint32_t count, const void *payload, uint32_t n) {
    uint8_t head[14];
    zt::store_be32(head, tag);
    zt::store_be32(head + 4, n + 6);
    zt::store_be16(head + 8, type);
    zt::store_be32(head + 10, count);
    return io.write(head, 14) && (n == 0 || io.write(payload, n));
  }
  // One big-endian value of 2, 4 or 8 bytes; floats go as their bits.
  template <typename U>
  bool scalar(uint32_t tag, uint16_t type, U v) {
    uint8_t b[sizeof(U)];
    if constexpr (sizeof(U) == 2) zt::store_be16(b, v);
    if constexpr (sizeof(U) == 4) zt::store_be32(b, v);
    if constexpr (sizeof(U) == 8) zt::store_be64(b, v);
    return item(tag, type, 1, b, sizeof(U));
  }
  bool u16(uint32_t tag, uint32_t v) { return scalar(tag, kTypeU16, static_cast<uint16_t>(v)); }
  bool u32(uint32_t tag, uint32_t v) { return scalar(tag, kTypeU32, v); }
  bool u64(uint32_t tag, uint64_t v) { return scalar(tag, kTypeU64, v); }
  bool f32(uint32_t tag, float v) { return scalar(tag, kTypeFloat, std::bit_cast<uint32_t>(v)); }
  bool f64(uint32_t tag, double v) { return scalar(tag, kTypeDouble, std::bit_cast<uint64_t>(v)); }
  bool text(uint32_t tag, const std::string &s) {
    return item(tag, kTypeText, static_cast<uint32_t>(s.size()), s.data(), static_cast<uint32_t>(s.size()));
  }
  bool bytes(uint32_t tag, const std::vector<uint8_t> &b) {
    return item(tag, kTypeBytes, static_cast<uint32_t>(b.size()), b.data(), static_cast<uint32_t>(b.size()));
  }
};

}  // namespace

bool write_prologue(VLIMG_File *f, bool new_file, uint64_t next_value) {
  static const uint8_t kPrologue[10] = {0x42, 0x42, 0x0B, 0x0A, 0x13, 0x40, 0, 0, 0, 0};
  ItemWriter out{f->io};
  f->page_start = f->io.tell();
  if (!f->io.write(kPrologue, 10) || !out.f64(14, kVersion)) return false;
  if (new_file && !out.u32(31, 1)) return false;
  f->next_value_pos = f->io.tell() + 14;
  f->next_value = next_value;
  f->h.version = kVersion;
  f->h.next_page = next_value;
  if (new_file) {
    f->h.new_file = 1;
    f->h.mark(31);
  }
  f->h.mark(14);
  f->h.mark(32);
  return out.u64(32, next_value);
}

int32_t write_header(VLIMG_File *f, const char *fn) {
  Header &h = f->h;
  if (!h.has(1) || h.width == 0) {
    ZT_LOG(kModule, fn, "width is undefined");
    return -1;
  }
  if (!h.has(2) || h.height == 0) {
    ZT_LOG(kModule, fn, "height is undefined");
    return -1;
  }
  if (!h.has(3) || !known_compression(h.compression)) {
    ZT_LOG(kModule, fn, "compression type is undefined");
    return -1;
  }
  if (!h.has(5)) {
    ZT_LOG(kModule, fn, "image type is undefined");
    return -1;
  }
  if (h.image_type == 4 && (!h.has(22) || h.numseps == 0)) {
    ZT_LOG(kModule, fn, "numseps is undefined");
    return -1;
  }
  h.planes = planes_of(h.image_type, h.numseps);
  if (h.planes == 0) {
    ZT_LOG(kModule, fn, "Cannot handle imagetype %d", static_cast<int>(h.image_type));
    return -1;
  }
  if (h.bpp.empty()) {
    h.bpp.assign(h.planes, 8);
    h.bpp_tag = 19;
  }
  if (h.bpp.size() != h.planes) {
    ZT_LOG(kModule, fn, "bpp array is undefined");
    return -1;
  }
  h.bits_per_pixel = 0;
  for (uint32_t b : h.bpp) h.bits_per_pixel += b;
  if (h.bits_per_pixel == 0) {
    ZT_LOG(kModule, fn, "bits per pixel is undefined");
    return -1;
  }
  if (h.image_type == 4) {
    const char *why = nullptr;
    const int64_t names = h.sepnames.empty() ? 0 : count_separations(h.sepnames, &why);
    if (names != h.numseps) {
      ZT_LOG(kModule, fn, "Not all separation names are defined, sepname array length = %d, numseps = %d",
             static_cast<int>(names < 0 ? 0 : names), static_cast<int>(h.numseps));
      return -1;
    }
  }
  if (!check_sizes(h, fn)) return -1;

  ItemWriter out{f->io};
  bool ok = out.u32(1, h.width) && out.u32(2, h.height) && out.u16(3, h.compression);
  if (ok && h.image_type == 4) ok = out.u32(22, h.numseps);
  ok = ok && out.u16(5, h.image_type);
  if (ok) {
    std::vector<uint8_t> array(h.planes * (h.bpp_tag == 20 ? 4u : 2u));
    for (uint32_t i = 0; i < h.planes; ++i) {
      if (h.bpp_tag == 20)
        zt::store_be32(array.data() + 4 * i, h.bpp[i]);
      else
        zt::store_be16(array.data() + 2 * i, static_cast<uint16_t>(h.bpp[i]));
    }
    ok = out.item(h.bpp_tag == 20 ? 20 : 19, h.bpp_tag == 20 ? kTypeU32 : kTypeU16, h.planes, array.data(),
                  static_cast<uint32_t>(array.size()));
  }
  if (ok && h.image_type == 4) ok = out.text(21, h.sepnames);
  if (ok && h.has(6)) ok = out.f32(6, h.xres);
  if (ok && h.has(7)) ok = out.f32(7, h.yres);
  if (ok && h.has(8)) ok = out.u16(8, h.res_unit);
  if (ok && h.has(11)) ok = out.u16(11, h.orientation);
  if (ok && h.has(9)) ok = out.u32(9, h.colourspace);
  if (ok && h.has(15)) ok = out.text(15, h.description);
  if (ok && h.has(17)) ok = out.text(17, h.software);
  if (ok && h.has(26)) ok = out.bytes(26, h.icc);
  if (ok && h.has(27)) ok = out.u32(27, h.tile_flags);
  if (ok && h.has(28)) ok = out.bytes(28, h.blob1);
  if (ok && h.has(29)) ok = out.bytes(29, h.blob2);
  if (ok && h.mipmap_level > 0) ok = out.u32(30, h.mipmap_level);
  if (ok && h.has(33)) ok = out.u32(33, h.page_number);
  if (ok && h.tiled()) {
    const uint32_t n = tile_count(h);
    ok = out.u32(23, h.tile_width) && out.u32(24, h.tile_height);
    // The table's place is kept now and filled once every tile has its offset.
    uint8_t head[14];
    zt::store_be32(head, 25);
    zt::store_be32(head + 4, n * kTileEntrySize + 6);
    zt::store_be16(head + 8, kTypeU32);
    zt::store_be32(head + 10, n);
    ok = ok && f->io.write(head, 14);
    f->table_pos = f->io.tell();
    static const uint8_t kZero[kTileEntrySize] = {};
    for (uint32_t i = 0; ok && i < n; ++i) ok = f->io.write(kZero, kTileEntrySize);
    h.tiles.assign(n, VLIMG_TileEntry{});
    for (uint32_t i = 0; i < n; ++i) {
      uint32_t x = 0, y = 0;
      tile_rect(h, i, &x, &y, &h.tiles[i].width, &h.tiles[i].height);
    }
    f->tile_done.assign(n, 0);
    f->tiles_done = 0;
  }
  ok = ok && out.item(16, kTypeU32, 0, nullptr, 0);
  if (!ok) {
    ZT_LOG(kModule, fn, "Failed to write to disk");
    return -1;
  }
  f->data_start = f->io.tell();
  f->header_written = true;
  return prepare_codec(f, fn) ? 0 : -1;
}

bool finish_tile_table(VLIMG_File *f, const char *fn) {
  const auto &tiles = f->h.tiles;
  std::vector<uint8_t> table(tiles.size() * kTileEntrySize);
  for (size_t i = 0; i < tiles.size(); ++i) {
    uint8_t *p = table.data() + i * kTileEntrySize;
    zt::store_be32(p, tiles[i].width);
    zt::store_be32(p + 4, tiles[i].height);
    zt::store_be64(p + 8, tiles[i].offset);
    zt::store_be32(p + 16, tiles[i].size);
    zt::store_be32(p + 20, tiles[i].flags);
  }
  if (!f->io.flush()) {
    ZT_LOG(kModule, fn, "Failed to write to disk");
    return false;
  }
  if (!f->io.pwrite_at(table.data(), table.size(), f->table_pos)) {
    ZT_LOG(kModule, fn, "Failed to seek to begining of tile table");
    return false;
  }
  return true;
}

// ---- The page chain ----------------------------------------------------------------

bool scan_page(VLIMG_File *f, uint64_t offset, PageLink *link, const char *fn) {
  FileIo &io = f->io;
  const uint64_t size = io.size();
  uint8_t prologue[10];
  if (offset > size || size - offset < 10 || !io.pread_at(prologue, 10, offset) || prologue[0] != 0x42 ||
      prologue[1] != 0x42 || zt::load_be32(prologue + 2) != kMagic) {
    ZT_LOG(kModule, fn, "No VLIMG page at offset %llu", static_cast<unsigned long long>(offset));
    return false;
  }
  *link = PageLink{};
  uint64_t pos = offset + 10;
  for (;;) {
    uint8_t head[14];
    if (pos > size || size - pos < 14 || !io.pread_at(head, 14, pos)) {
      ZT_LOG(kModule, fn, "%s", kReadError);
      return false;
    }
    const uint32_t tag = zt::load_be32(head), length = zt::load_be32(head + 4);
    if (length < 6 || length - 6 > size - pos - 14) {
      ZT_LOG(kModule, fn, "Item %u at offset %llu has a length of %u that does not fit the file", tag,
             static_cast<unsigned long long>(pos), length);
      return false;
    }
    uint8_t value[8];
    if (tag == 32 && length == 14) {
      if (!io.pread_at(value, 8, pos + 14)) return false;
      link->next = zt::load_be64(value);
      link->value_pos = pos + 14;
    } else if (tag == 30 && length == 10) {
      if (!io.pread_at(value, 4, pos + 14)) return false;
      link->level = zt::load_be32(value);
    } else if (tag == 16) {
      return true;
    }
    pos += 8 + uint64_t{length};
  }
}

int32_t enter_page(VLIMG_File *f, uint64_t offset, const char *fn) {
  f->io.seek(offset);
  return read_header(f, fn);
}

bool find_page(VLIMG_File *f, uint32_t page, uint64_t *offset, const char *fn) {
  std::unordered_set<uint64_t> seen;
  uint64_t at = 0;
  uint32_t index = 0;
  for (;;) {
    PageLink link;
    if (!scan_page(f, at, &link, fn)) return false;
    if (link.level == 0) {
      if (index == page) {
        *offset = at;
        return true;
      }
      ++index;
    }
    if (link.next == kNoNextPage || link.next == 0) {
      ZT_LOG(kModule, fn, "Cannot find page %u: the file has %u", page, index);
      return false;
    }
    seen.insert(at);
    if (seen.count(link.next) != 0) {
      ZT_LOG(kModule, fn, "The page chain loops back to offset %llu",
             static_cast<unsigned long long>(link.next));
      return false;
    }
    at = link.next;
  }
}

}  // namespace zt::raster::vlimg
