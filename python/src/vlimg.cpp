// VLIMG files from Python: a reader that hands out header items as a dict and
// rows and tiles as arrays, and a writer of whole arrays.
#include <zt/vlimg.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common.h"

namespace ztpy {
namespace {

struct FileDeleter {
  void operator()(VLIMG_File *f) const { VLIMG_Close(f); }
};
using FilePtr = std::unique_ptr<VLIMG_File, FileDeleter>;

const std::pair<const char *, uint32_t> kCompressions[] = {
    {"none", VLIMG_COMPRESSION_NONE},         {"lzw", VLIMG_COMPRESSION_LZW},
    {"deflate", VLIMG_COMPRESSION_DEFLATE},   {"packbits", VLIMG_COMPRESSION_PACKBITS},
    {"default", VLIMG_COMPRESSION_DEFAULT},   {"lzjb", VLIMG_COMPRESSION_LZJB},
    {"lz4", VLIMG_COMPRESSION_LZ4}};

class Reader {
 public:
  explicit Reader(const std::string &path) {
    CallLog log;
    VLIMG_File *f = nullptr;
    {
      py::gil_scoped_release release;
      f = VLIMG_Open(path.c_str(), VLIMG_MODE_READ);
    }
    // A file that does not start like a page fails without a message of its own.
    if (!f) log.raise_value(("cannot open " + path + ": not a VLIMG file").c_str());
    file_.reset(f);
    path_ = path;
  }

  VLIMG_File *get() const {
    if (!file_) throw py::value_error("the file is closed");
    return file_.get();
  }

  void seek(uint32_t page) {
    CallLog log;
    if (VLIMG_SeekToPage(get(), page) != 0) log.raise_value("cannot seek to the page");
    page_ = page;
  }

  uint32_t u32(uint32_t tag, bool &ok) const {
    uint32_t v = 0;
    ok = VLIMG_GetField(get(), tag, &v) == 0;
    return v;
  }

  py::dict header() const {
    CallLog log;  // unset items are expected; their messages stay here
    py::dict d;
    static const std::pair<const char *, uint32_t> kU32[] = {
        {"width", VLIMG_TAG_WIDTH},           {"height", VLIMG_TAG_HEIGHT},
        {"compression", VLIMG_TAG_COMPRESSION}, {"image_type", VLIMG_TAG_IMAGETYPE},
        {"resolution_unit", VLIMG_TAG_RESOLUTIONUNIT}, {"colour_space", VLIMG_TAG_COLOURSPACE},
        {"orientation", VLIMG_TAG_ORIENTATION}, {"num_seps", VLIMG_TAG_NUMSEPS},
        {"tile_width", VLIMG_TAG_TILEWIDTH},  {"tile_height", VLIMG_TAG_TILEHEIGHT},
        {"tile_flags", VLIMG_TAG_TILEFLAGS},  {"mipmap_level", VLIMG_TAG_MIPMAPLEVEL},
        {"page_number", VLIMG_TAG_PAGENUMBER}};
    for (const auto &[name, tag] : kU32) {
      bool ok = false;
      const uint32_t v = u32(tag, ok);
      if (ok) d[name] = v;
    }
    float f = 0;
    if (VLIMG_GetField(get(), VLIMG_TAG_XRESOLUTION, &f) == 0) d["x_resolution"] = f;
    if (VLIMG_GetField(get(), VLIMG_TAG_YRESOLUTION, &f) == 0) d["y_resolution"] = f;
    double v = 0;
    if (VLIMG_GetField(get(), VLIMG_TAG_VERSION, &v) == 0) d["version"] = v;
    const char *text = nullptr;
    if (VLIMG_GetField(get(), VLIMG_TAG_DESCRIPTION, &text) == 0 && text) d["description"] = text;
    if (VLIMG_GetField(get(), VLIMG_TAG_SOFTWARE, &text) == 0 && text) d["software"] = text;
    if (VLIMG_GetField(get(), VLIMG_TAG_SEPNAMES, &text) == 0 && text) d["separation_names"] = text;
    const uint32_t planes = VLIMG_NumPlanes(get());
    std::vector<uint32_t> bpp(planes ? planes : 1);
    if (planes && VLIMG_GetField(get(), VLIMG_TAG_BPP_ARRAY, bpp.data()) == 0) {
      d["bits_per_plane"] = py::tuple(py::cast(bpp));
    }
    VLIMG_Blob blob{};
    if (VLIMG_GetField(get(), VLIMG_TAG_ICCPROFILE, &blob) == 0 && blob.data) {
      d["icc_profile"] = py::bytes(static_cast<const char *>(blob.data), blob.length);
    }
    d["planes"] = planes;
    d["tiled"] = VLIMG_IsTiled(get()) == 1;
    return d;
  }

  // numpy dtype and shape of rows of `width` pixels, or none when the planes'
  // depths differ or are below a byte (then rows come as raw bytes).
  py::dtype dtype(bool &uniform) const {
    const uint32_t planes = VLIMG_NumPlanes(get());
    std::vector<uint32_t> bpp(planes ? planes : 1);
    uniform = planes && VLIMG_GetField(get(), VLIMG_TAG_BPP_ARRAY, bpp.data()) == 0;
    for (uint32_t p = 0; uniform && p < planes; ++p) uniform = bpp[p] == bpp[0] && (bpp[0] == 8 || bpp[0] == 16);
    return uniform && bpp[0] == 16 ? py::dtype::of<uint16_t>() : py::dtype::of<uint8_t>();
  }

  py::array make(uint32_t height, uint32_t width) const {
    bool uniform = false;
    py::dtype dt = dtype(uniform);
    const uint32_t planes = VLIMG_NumPlanes(get());
    if (!uniform) {
      const uint64_t bits = static_cast<uint64_t>(width) * VLIMG_BitsPerPixel(get());
      return py::array(py::dtype::of<uint8_t>(),
                       std::vector<py::ssize_t>{static_cast<py::ssize_t>(height), static_cast<py::ssize_t>((bits + 7) / 8)});
    }
    std::vector<py::ssize_t> shape{static_cast<py::ssize_t>(height), static_cast<py::ssize_t>(width)};
    if (planes > 1) shape.push_back(planes);
    return py::array(dt, shape);
  }

  py::array read() {
    VLIMG_File *f = get();
    bool ok = false;
    const uint32_t w = u32(VLIMG_TAG_WIDTH, ok), h = u32(VLIMG_TAG_HEIGHT, ok);
    py::array out = make(h, w);
    auto *dst = static_cast<uint8_t *>(out.mutable_data());
    const size_t stride = static_cast<size_t>(out.strides(0));
    CallLog log;
    bool failed = false;
    {
      py::gil_scoped_release release;
      if (VLIMG_IsTiled(f) == 1) {
        const uint32_t tiles = VLIMG_NumTiles(f);
        uint32_t tw = 0, th = 0;
        ok = VLIMG_GetField(f, VLIMG_TAG_TILEWIDTH, &tw) == 0 && VLIMG_GetField(f, VLIMG_TAG_TILEHEIGHT, &th) == 0;
        const uint32_t across = tw ? (w + tw - 1) / tw : 0;
        const uint32_t bits = VLIMG_BitsPerPixel(f);
        std::vector<uint32_t> indices(tiles), strides(tiles, static_cast<uint32_t>(stride));
        std::vector<uint8_t *> dsts(tiles);
        for (uint32_t i = 0; i < tiles; ++i) {
          indices[i] = i;
          const size_t x = static_cast<size_t>(i % across) * tw, y = static_cast<size_t>(i / across) * th;
          dsts[i] = dst + y * stride + x * bits / 8;
        }
        failed = !ok || bits % 8 != 0 || VLIMG_ReadTiles(f, indices.data(), tiles, dsts.data(), strides.data()) != 0;
      } else {
        failed = VLIMG_GoToStartOfData(f) != 0;
        for (uint32_t y = 0; y < h && !failed; ++y) failed = VLIMG_ReadScanline(f, dst + y * stride) != 0;
      }
    }
    if (failed) log.raise_value("cannot read the page");
    return out;
  }

  py::array read_tile(uint32_t index) {
    VLIMG_File *f = get();
    CallLog log;
    uint32_t tw = 0, th = 0;
    if (VLIMG_GetTileSize(f, index, &tw, &th) != 0) log.raise_value("no such tile");
    py::array out = make(th, tw);
    int32_t rc = 0;
    {
      py::gil_scoped_release release;
      rc = VLIMG_ReadTile(f, index, static_cast<uint8_t *>(out.mutable_data()), static_cast<uint32_t>(out.strides(0)));
    }
    if (rc != 0) log.raise_value("cannot read the tile");
    return out;
  }

  py::array read_rows(uint32_t count) {
    VLIMG_File *f = get();
    bool ok = false;
    const uint32_t w = u32(VLIMG_TAG_WIDTH, ok);
    py::array out = make(count, w);
    auto *dst = static_cast<uint8_t *>(out.mutable_data());
    CallLog log;
    bool failed = false;
    {
      py::gil_scoped_release release;
      for (uint32_t y = 0; y < count && !failed; ++y) failed = VLIMG_ReadScanline(f, dst + y * out.strides(0)) != 0;
    }
    if (failed) log.raise_value("cannot read the rows");
    return out;
  }

  FilePtr file_;
  std::string path_;
  uint32_t page_ = 0;
};

uint32_t image_type_for(uint32_t channels) {
  switch (channels) {
    case 1: return VLIMG_IMAGETYPE_GREY;
    case 3: return VLIMG_IMAGETYPE_RGB;
    case 4: return VLIMG_IMAGETYPE_CMYK;
    case 6: return VLIMG_IMAGETYPE_HEXACHROME;
    case 7: return VLIMG_IMAGETYPE_CMYKOGV;
    default: return 0;
  }
}

void write(const std::string &path, const py::array &array, bool tiled, std::pair<uint32_t, uint32_t> tile,
           const std::string &compression, bool append, const std::string &description, uint32_t image_type) {
  Image im = image_view(array, "image", true, true);
  uint32_t ctype = 0;
  for (const auto &[name, v] : kCompressions) {
    if (compression == name) ctype = v;
  }
  if (!ctype) throw py::value_error("unknown compression '" + compression + "'; use none, lzw, deflate, packbits, lzjb or lz4");
  if (!image_type) image_type = image_type_for(im.channels);
  if (!image_type) {
    throw py::value_error("no image type has " + std::to_string(im.channels) + " channels; give image_type");
  }
  if (tiled && (tile.first == 0 || tile.second == 0)) throw py::value_error("tile sides must be at least 1");
  CallLog log;
  FilePtr file(VLIMG_Open(path.c_str(), append ? VLIMG_MODE_APPEND : VLIMG_MODE_CREATE));
  if (!file) log.raise_value("cannot create the file");
  VLIMG_File *f = file.get();
  std::vector<uint32_t> bpp(im.channels, im.itemsize * 8);
  const bool set = VLIMG_SetField(f, VLIMG_TAG_WIDTH, &im.width) == 0 &&
                   VLIMG_SetField(f, VLIMG_TAG_HEIGHT, &im.height) == 0 &&
                   VLIMG_SetField(f, VLIMG_TAG_COMPRESSION, &ctype) == 0 &&
                   VLIMG_SetField(f, VLIMG_TAG_IMAGETYPE, &image_type) == 0 &&
                   VLIMG_SetField(f, VLIMG_TAG_BPP_ARRAY, bpp.data()) == 0 &&
                   (description.empty() || VLIMG_SetField(f, VLIMG_TAG_DESCRIPTION, description.c_str()) == 0) &&
                   (!tiled || VLIMG_EnableTiling(f, tile.first, tile.second) == 0);
  if (!set) log.raise_value("cannot set up the page");
  bool failed = false;
  {
    py::gil_scoped_release release;
    const size_t pixel = static_cast<size_t>(im.channels) * im.itemsize;
    if (tiled) {
      const uint32_t tiles = VLIMG_NumTiles(f);
      const uint32_t across = (im.width + tile.first - 1) / tile.first;
      for (uint32_t i = 0; i < tiles && !failed; ++i) {
        const uint32_t x = (i % across) * tile.first, y = (i / across) * tile.second;
        // Tiles come straight out of the array: its row stride is the tile's.
        failed = VLIMG_WriteTile(f, i, im.row(y) + x * pixel, static_cast<uint32_t>(im.row_stride)) != 0;
      }
    } else {
      for (uint32_t y = 0; y < im.height && !failed; ++y) failed = VLIMG_WriteScanline(f, im.row(y)) != 0;
    }
    if (!failed) failed = VLIMG_Close(file.release()) != 0;
  }
  if (failed) log.raise_value("cannot write the page");
}

}  // namespace

void register_vlimg(py::module_ &m) {
  py::class_<Reader>(m, "VlimgReader", "A VLIMG file open for reading (see ztlib.vlimg.open).")
      .def(py::init<const std::string &>(), py::arg("path"))
      .def("seek", &Reader::seek, py::arg("page"), "Moves to page `page` (0 is the first).")
      .def_property_readonly("page", [](const Reader &r) { return r.page_; })
      .def("header", &Reader::header, "The current page's header items as a dict.")
      .def("read", &Reader::read, "The whole current page as an array (rows, columns[, planes]).")
      .def("read_tile", &Reader::read_tile, py::arg("index"), "Tile `index` of a tiled page as an array.")
      .def("read_rows", &Reader::read_rows, py::arg("count"),
           "The next `count` rows of a scanline page (after read() or seek the page starts again).")
      .def("rewind", [](Reader &r) {
        CallLog log;
        if (VLIMG_GoToStartOfData(r.get()) != 0) log.raise_value("cannot rewind");
      }, "Positions the reader at the page's first row.")
      .def_property_readonly("num_tiles", [](const Reader &r) { return VLIMG_NumTiles(r.get()); })
      .def("tile_size", [](const Reader &r, uint32_t i) {
        CallLog log;
        uint32_t w = 0, h = 0;
        if (VLIMG_GetTileSize(r.get(), i, &w, &h) != 0) log.raise_value("no such tile");
        return std::make_pair(w, h);
      }, py::arg("index"), "(width, height) of tile `index`.")
      .def("close", [](Reader &r) { r.file_.reset(); }, "Closes the file.")
      .def_property_readonly("closed", [](const Reader &r) { return !r.file_; });
  m.def("vlimg_write", &write, py::arg("path"), py::arg("image"), py::arg("tiled") = true,
        py::arg("tile") = std::pair<uint32_t, uint32_t>(256, 256), py::arg("compression") = "lz4",
        py::arg("append") = false, py::arg("description") = "", py::arg("image_type") = 0,
        "Writes an image (uint8/uint16, rows x columns[ x planes]) as a VLIMG page.");
  m.def("vlimg_count_pages", [](const std::string &path) {
    CallLog log;  // the failing open past the last page is how the end is found
    uint32_t n = 0;
    for (;;) {
      FilePtr f(VLIMG_OpenAtPage(path.c_str(), n));
      if (!f) break;
      ++n;
    }
    if (n == 0) log.raise_value("cannot open the file");
    return n;
  }, py::arg("path"));
}

}  // namespace ztpy
