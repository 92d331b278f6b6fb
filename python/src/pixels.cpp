// Table interpolation, resampling, block compression and 16-to-8 dithering
// over numpy arrays, the interpreter lock released while pixels flow.
#include <zt/compress.h>
#include <zt/dither.h>
#include <zt/resample.h>
#include <zt/scanlinebuf.h>
#include <zt/table_interpolator.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "common.h"

namespace ztpy {
namespace {

// ---- Table interpolation ---------------------------------------------------

int32_t scheme_of(const std::string &method) {
  if (method == "tetrahedral") return ZT_INTERP_TETRAHEDRAL;
  if (method == "trilinear") return ZT_INTERP_TRILINEAR;
  if (method == "prism") return ZT_INTERP_PRISM;
  throw py::value_error("unknown interpolation method '" + method +
                        "'; methods available: 'tetrahedral', 'trilinear', 'prism'");
}

struct InterpDeleter {
  void operator()(ZT_TableInterpolator *p) const { TableInterpolatorDestroy(p); }
};

py::array interpolate(const py::array &table_in, const py::array &pixels_in, const std::string &method,
                      int32_t threads) {
  const int32_t scheme = scheme_of(method);
  py::array table = contiguous(table_in, py::dtype::of<float>(), "table");
  const auto rank = table.ndim();
  if (rank != 4 && rank != 5) {
    throw py::value_error("table must have shape (n, n, n, outputs) or (n, n, n, n, outputs)");
  }
  const uint32_t inputs = static_cast<uint32_t>(rank - 1);
  const py::ssize_t n = table.shape(0);
  for (py::ssize_t i = 1; i < rank - 1; ++i) {
    if (table.shape(i) != n) throw py::value_error("table must have the same number of grid points on every axis");
  }
  const py::ssize_t outputs = table.shape(rank - 1);
  const auto kind = pixels_in.dtype().kind();
  const auto size = pixels_in.itemsize();
  if (kind != 'u' || (size != 1 && size != 2)) {
    throw py::type_error("pixels must be a uint8 or uint16 array, not " + dtype_name(pixels_in));
  }
  py::array pixels = contiguous(pixels_in, pixels_in.dtype(), "pixels", inputs);
  const size_t count = static_cast<size_t>(pixels.size() / inputs);
  if (count > UINT32_MAX) throw py::value_error("too many pixels for one call");
  std::vector<py::ssize_t> shape(pixels.shape(), pixels.shape() + pixels.ndim());
  shape.back() = outputs;
  py::array out(pixels.dtype(), shape);
  CallLog log;
  auto init = size == 2 ? TableInterpolatorInit_ushort : TableInterpolatorInit_uchar;
  std::unique_ptr<ZT_TableInterpolator, InterpDeleter> interp(
      init(inputs, static_cast<uint32_t>(n), static_cast<uint32_t>(outputs), static_cast<const float *>(table.data()),
           scheme, threads, nullptr));
  if (!interp) log.raise_value("cannot create the interpolator");
  int32_t rc = 0;
  {
    py::gil_scoped_release release;
    rc = TableInterpolatorConvertRect(interp.get(), pixels.data(), static_cast<uint32_t>(count * inputs * size),
                                      out.mutable_data(), static_cast<uint32_t>(count * outputs * size),
                                      static_cast<uint32_t>(count), 1, 0);
  }
  if (rc != 0) log.raise_value("interpolation failed");
  return out;
}

// ---- Resampling ------------------------------------------------------------

const char *const kFilterNames[] = {nullptr,     "hermite",  "box",       "triangle",   "bell",     "bspline",
                                    "lanczos3",  "mitchell", "cubic_b15", "quadratic",  "gaussian", "filter11",
                                    "filter12",  "butterworth", "bessel", "keys05", "keys075", "catmull_rom"};

uint32_t filter_of(const py::object &filter) {
  if (py::isinstance<py::int_>(filter)) {
    const int v = filter.cast<int>();
    if (v < ZT_FILTER_FIRST || v > ZT_FILTER_LAST) throw py::value_error("filter ids run from 1 to 17");
    return static_cast<uint32_t>(v);
  }
  const std::string name = filter.cast<std::string>();
  for (uint32_t i = ZT_FILTER_FIRST; i <= ZT_FILTER_LAST; ++i) {
    if (name == kFilterNames[i]) return i;
  }
  std::string known;
  for (uint32_t i = ZT_FILTER_FIRST; i <= ZT_FILTER_LAST; ++i) known += std::string(i > 1 ? ", " : "") + kFilterNames[i];
  throw py::value_error("unknown filter '" + name + "'; filters: " + known);
}

struct Feed {
  Image im;
};

// Rows pass in pixel-interleaved (numpy's layout); the resampler wants each
// plane's row after the other.
int32_t read_row(void *user, ScanlineBuf *dst, uint32_t line) {
  const Image &im = static_cast<Feed *>(user)->im;
  if (!dst) return 0;
  if (line >= im.height) return 1;
  const uint8_t *src = im.row(line);
  if (im.channels == 1) {
    std::memcpy(dst->data, src, static_cast<size_t>(im.width) * im.itemsize);
    return 0;
  }
  for (uint32_t c = 0; c < im.channels; ++c) {
    uint8_t *plane = dst->data + static_cast<size_t>(c) * dst->bytesPerPlaneRow;
    if (im.itemsize == 1) {
      for (uint32_t x = 0; x < im.width; ++x) plane[x] = src[static_cast<size_t>(x) * im.channels + c];
    } else {
      const auto *s16 = reinterpret_cast<const uint16_t *>(src);
      auto *p16 = reinterpret_cast<uint16_t *>(plane);
      for (uint32_t x = 0; x < im.width; ++x) p16[x] = s16[static_cast<size_t>(x) * im.channels + c];
    }
  }
  return 0;
}

struct ResampleDeleter {
  void operator()(ResampleContext *c) const { resampleFree(c); }
};
struct LineDeleter {
  void operator()(ScanlineBuf *b) const { scanlinebufFree(b); }
};

py::array resample(const py::array &array, const py::object &size, const py::object &scale, const py::object &filter,
                   uint32_t out_bits) {
  Feed feed{image_view(array, "image", true, true, ZT_RESAMPLE_MAX_PLANES)};
  const Image &im = feed.im;
  const uint32_t filter_id = filter_of(filter);
  uint32_t ow = 0, oh = 0;
  if (!size.is_none() && !scale.is_none()) throw py::value_error("give size or scale, not both");
  if (!size.is_none()) {
    auto wh = size.cast<std::pair<int64_t, int64_t>>();
    if (wh.first < 1 || wh.second < 1 || wh.first > UINT32_MAX || wh.second > UINT32_MAX) {
      throw py::value_error("size is (width, height), each at least 1");
    }
    ow = static_cast<uint32_t>(wh.first);
    oh = static_cast<uint32_t>(wh.second);
  } else if (!scale.is_none()) {
    double sx = 0, sy = 0;
    if (py::isinstance<py::tuple>(scale) || py::isinstance<py::list>(scale)) {
      auto p = scale.cast<std::pair<double, double>>();
      sx = p.first;
      sy = p.second;
    } else {
      sx = sy = scale.cast<double>();
    }
    if (!(sx > 0) || !(sy > 0)) throw py::value_error("scale must be positive");
    const double w = im.width * sx + 0.5, h = im.height * sy + 0.5;
    if (w < 1 || h < 1 || w > UINT32_MAX || h > UINT32_MAX) throw py::value_error("scale gives an empty or huge image");
    ow = static_cast<uint32_t>(w);
    oh = static_cast<uint32_t>(h);
  } else {
    throw py::value_error("give size=(width, height) or scale");
  }
  const uint32_t in_bits = im.itemsize * 8;
  if (out_bits == 0) out_bits = in_bits;
  if (out_bits != 8 && out_bits != 16) throw py::value_error("out_bits must be 8 or 16");
  CallLog log;
  std::unique_ptr<ResampleContext, ResampleDeleter> ctx(
      resampleInitUsingFilter(ZT_RESAMPLE_FILTERED, im.width, im.height, ow, oh, im.channels, in_bits, out_bits,
                              read_row, nullptr, nullptr, &feed, filter_id));
  if (!ctx) log.raise_value("cannot set up the resampler");
  std::unique_ptr<ScanlineBuf, LineDeleter> line(
      scanlinebufAlloc(ZT_INTERLEAVE_BY_LINE, out_bits, im.channels, 0, ow, 1, 0));
  if (!line) log.raise_value("cannot allocate a scanline");
  std::vector<py::ssize_t> shape{static_cast<py::ssize_t>(oh), static_cast<py::ssize_t>(ow)};
  if (array.ndim() == 3) shape.push_back(im.channels);
  py::array out(out_bits == 8 ? py::dtype::of<uint8_t>() : py::dtype::of<uint16_t>(), shape);
  auto *dst = static_cast<uint8_t *>(out.mutable_data());
  const size_t sample = out_bits / 8, row_bytes = static_cast<size_t>(ow) * im.channels * sample;
  bool failed = false;
  {
    py::gil_scoped_release release;
    for (uint32_t y = 0; y < oh; ++y) {
      if (resampleGetNextScanline(ctx.get(), line.get()) != 0) {
        failed = true;
        break;
      }
      uint8_t *row = dst + y * row_bytes;
      if (im.channels == 1) {
        std::memcpy(row, line->data, row_bytes);
        continue;
      }
      for (uint32_t c = 0; c < im.channels; ++c) {
        const uint8_t *plane = line->data + static_cast<size_t>(c) * line->bytesPerPlaneRow;
        if (sample == 1) {
          for (uint32_t x = 0; x < ow; ++x) row[static_cast<size_t>(x) * im.channels + c] = plane[x];
        } else {
          auto *r16 = reinterpret_cast<uint16_t *>(row);
          const auto *p16 = reinterpret_cast<const uint16_t *>(plane);
          for (uint32_t x = 0; x < ow; ++x) r16[static_cast<size_t>(x) * im.channels + c] = p16[x];
        }
      }
    }
  }
  if (failed) log.raise_value("resampling failed");
  return out;
}

// ---- Compression -----------------------------------------------------------

// A C-contiguous view of any buffer (bytes, bytearray, memoryview, array).
class Bytes {
 public:
  explicit Bytes(const py::object &obj) {
    if (PyObject_GetBuffer(obj.ptr(), &view_, PyBUF_C_CONTIGUOUS) != 0) {
      PyErr_Clear();
      throw py::type_error("data must be bytes or a C-contiguous buffer");
    }
  }
  ~Bytes() { PyBuffer_Release(&view_); }
  Bytes(const Bytes &) = delete;
  Bytes &operator=(const Bytes &) = delete;
  const uint8_t *data() const { return static_cast<const uint8_t *>(view_.buf); }
  size_t size() const { return static_cast<size_t>(view_.len); }

 private:
  Py_buffer view_{};
};

struct CodecName {
  const char *name;
  uint32_t flag;
};
const CodecName kCodecs[] = {{"lz4", ZT_COMPRESS_LZ4},   {"packbits", ZT_COMPRESS_PACKBITS},
                             {"lzjb", ZT_COMPRESS_LZJB}, {"lzw", ZT_COMPRESS_LZW},
                             {"deflate", ZT_COMPRESS_DEFLATE}};

uint32_t codec_flags(const py::object &codecs) {
  std::vector<std::string> names;
  if (py::isinstance<py::str>(codecs)) {
    names.push_back(codecs.cast<std::string>());
  } else {
    names = codecs.cast<std::vector<std::string>>();
  }
  if (names.empty()) throw py::value_error("name at least one codec: lz4, packbits, lzjb, lzw, deflate");
  uint32_t flags = ZT_COMPRESS_ON;
  for (const auto &n : names) {
    bool found = false;
    for (const auto &c : kCodecs) {
      if (n == c.name) {
        flags |= c.flag;
        found = true;
      }
    }
    if (!found) throw py::value_error("unknown codec '" + n + "'; codecs: lz4, packbits, lzjb, lzw, deflate");
  }
  return flags;
}

struct CompressorDeleter {
  void operator()(ZT_Compressor *c) const { ZT_CompressFree(c); }
};
struct DecompressorDeleter {
  void operator()(ZT_Decompressor *c) const { ZT_DecompressFree(c); }
};

py::tuple compress(const py::object &data, const py::object &codecs, uint32_t bits, bool delta) {
  uint32_t flags = codec_flags(codecs);
  if (delta) flags |= ZT_COMPRESS_DELTA;
  Bytes src(data);
  if (src.size() >= UINT32_MAX / 2) throw py::value_error("blocks are limited to 2 GiB");
  const auto length = static_cast<uint32_t>(src.size());
  CallLog log;
  std::unique_ptr<ZT_Compressor, CompressorDeleter> ctx(ZT_CompressInit(flags, bits));
  if (!ctx) log.raise_value("cannot create the compressor");
  // The codec writes straight into the bytes object handed back (not yet
  // shared, so it may be filled and shrunk): no zero-fill, no second copy.
  PyObject *raw = PyBytes_FromStringAndSize(nullptr, static_cast<py::ssize_t>(length ? length : 1));
  if (!raw) throw py::error_already_set();
  py::object out = py::reinterpret_steal<py::object>(raw);
  uint32_t block = 0, size = 0;
  {
    py::gil_scoped_release release;
    size = ZT_Compress(ctx.get(), src.data(), reinterpret_cast<uint8_t *>(PyBytes_AS_STRING(raw)), length, length,
                       &block);
  }
  if (size == ZT_COMPRESS_ERROR) log.raise_value("compression failed");
  if (size == 0) return py::make_tuple(py::bytes(reinterpret_cast<const char *>(src.data()), length), block);
  PyObject *shrunk = out.release().ptr();
  if (_PyBytes_Resize(&shrunk, static_cast<py::ssize_t>(size)) != 0) throw py::error_already_set();
  return py::make_tuple(py::reinterpret_steal<py::bytes>(shrunk), block);
}

py::bytes decompress(const py::object &data, uint32_t flags, size_t size, uint32_t bits) {
  Bytes src(data);
  if (src.size() >= UINT32_MAX || size >= UINT32_MAX) throw py::value_error("blocks are limited to 4 GiB");
  CallLog log;
  std::unique_ptr<ZT_Decompressor, DecompressorDeleter> ctx(ZT_DecompressInit(flags & ZT_COMPRESS_CODEC_MASK, bits));
  if (!ctx) log.raise_value("cannot create the decompressor");
  PyObject *raw = PyBytes_FromStringAndSize(nullptr, static_cast<py::ssize_t>(size));
  if (!raw) throw py::error_already_set();
  py::bytes out = py::reinterpret_steal<py::bytes>(raw);
  uint32_t got = 0;
  {
    py::gil_scoped_release release;
    got = ZT_Decompress(ctx.get(), src.data(), reinterpret_cast<uint8_t *>(PyBytes_AS_STRING(raw)),
                        static_cast<uint32_t>(src.size()), static_cast<uint32_t>(size), flags);
  }
  if (got == ZT_COMPRESS_ERROR) log.raise_value("decompression failed");
  if (got != size) {
    throw py::value_error("the block holds " + std::to_string(got) + " bytes, not " + std::to_string(size));
  }
  return out;
}

// ---- CCITT Group 4 -----------------------------------------------------------

py::bytes g4_compress(const py::array &packed, uint32_t width) {
  Image im = image_view(packed, "packed", false, false);
  if (width == 0 || (width + 7) / 8 > im.width) {
    throw py::value_error("width must be 1 ... 8 x the bytes of a row");
  }
  CallLog log;
  ZT_CCITG4Encoder *enc = CCITG4Create(width);
  if (!enc) log.raise_value("cannot create the encoder");
  // Room for the worst case: every row of alternating pixels in long codes.
  const size_t capacity = static_cast<size_t>(im.height) * (static_cast<size_t>(width) * 2 + 16) + 64;
  if (capacity > UINT32_MAX) {
    CCITG4Close(enc, nullptr, 0, nullptr);
    throw py::value_error("image too large for one stream");
  }
  std::string out(capacity, '\0');
  uint32_t used = 0, tail = 0;
  int32_t rc = 0;
  {
    py::gil_scoped_release release;
    rc = CCITG4Compress(enc, im.data, im.height, static_cast<uint32_t>(im.row_stride),
                        reinterpret_cast<uint8_t *>(out.data()), static_cast<uint32_t>(capacity), &used);
    const int32_t end = CCITG4Close(enc, reinterpret_cast<uint8_t *>(out.data()) + used,
                                    static_cast<uint32_t>(capacity - used), &tail);
    if (rc == 0) rc = end;
  }
  if (rc != 0) log.raise_value("Group 4 encoding failed");
  return py::bytes(out.data(), used + tail);
}

py::array g4_decompress(const py::object &data, uint32_t width, uint32_t height) {
  Bytes src(data);
  if (width == 0 || height == 0) throw py::value_error("width and height must be at least 1");
  const py::ssize_t stride = (width + 7) / 8;
  py::array_t<uint8_t> page({static_cast<py::ssize_t>(height), stride});
  CallLog log;
  ZT_CCITG4Decoder *dec = CCITG4DecompressCreate(width, height);
  if (!dec) log.raise_value("cannot create the decoder");
  uint32_t done = 0;
  int32_t rc = 0;
  {
    py::gil_scoped_release release;
    rc = CCITG4DeCompress(dec, src.data(), static_cast<uint32_t>(src.size()), page.mutable_data(),
                          static_cast<uint32_t>(stride), &done);
    const int32_t end = CCITG4DecompressClose(dec);
    if (rc == 0) rc = end;
  }
  if (rc != 0) log.raise_value("Group 4 decoding failed");
  return page;
}

// ---- 16 to 8 bits ------------------------------------------------------------

struct DitherGuard {
  DitherContext ctx{};
  ~DitherGuard() { ditherCleanup(&ctx, 0); }
};

py::array dither16to8(const py::array &array, const std::string &method) {
  Image im = image_view(array, "image", true, true);
  if (im.itemsize != 2) throw py::type_error("image must be a uint16 array, not " + dtype_name(array));
  std::vector<py::ssize_t> shape(array.shape(), array.shape() + array.ndim());
  py::array_t<uint8_t> out(shape);
  uint8_t *dst = out.mutable_data();
  const size_t count = static_cast<size_t>(im.width) * im.channels;
  if (count > UINT32_MAX) throw py::value_error("rows are too long");
  DitherGuard guard;
  CallLog log;
  if (method == "noise" || method == "round") {
    if (ditherSetup(&guard.ctx, method == "noise" ? ZT_DITHER_NOISE : ZT_DITHER_ROUND, 0) != 0) {
      log.raise_value("cannot set up dithering");
    }
    py::gil_scoped_release release;
    for (uint32_t y = 0; y < im.height; ++y) {
      ditherBuf16To8(&guard.ctx, dst + y * count, reinterpret_cast<const uint16_t *>(im.row(y)),
                     static_cast<uint32_t>(count));
    }
    return out;
  }
  if (method == "diffusion") {
    if (im.channels != 1) throw py::value_error("diffusion takes one channel: pass a 2-dimensional array");
    if (ditherSetupImage16to8(&guard.ctx, im.width, 1) != 0) log.raise_value("cannot set up dithering");
    std::vector<uint16_t> row(im.width);
    bool failed = false;
    {
      py::gil_scoped_release release;
      for (uint32_t y = 0; y < im.height && !failed; ++y) {
        std::memcpy(row.data(), im.row(y), count * 2);
        failed = ditherImage16To8(&guard.ctx, dst + y * count, row.data(), im.width, 0) != 0;
      }
    }
    if (failed) log.raise_value("dithering failed");
    return out;
  }
  throw py::value_error("unknown method '" + method + "'; methods: 'noise', 'round', 'diffusion'");
}

}  // namespace

void register_pixels(py::module_ &m) {
  m.def("interpolate", &interpolate, py::arg("table"), py::arg("pixels"), py::arg("method") = "tetrahedral",
        py::arg("threads") = 1,
        "Evaluates a colour table at pixels.\n\n"
        "table: float32 (n, n, n, m) or (n, n, n, n, m), first input slowest, values on the 0 ... 65535 scale.\n"
        "pixels: uint16 or uint8 array (..., inputs). Returns (..., m) of the pixels' dtype.\n"
        "method: 'tetrahedral' (the default: the cell's simplex around the pixel, 4 of 8 corners or 5 of 16;\n"
        "    for 3 inputs the scheme Little CMS and other ICC engines use, agreeing with Little CMS within one\n"
        "    code on 16-bit tables), 'trilinear' (every corner of the cell) or 'prism' (6 of 8 corners, or 12\n"
        "    of 16). Each output is rounded half up; 8-bit pixels are widened to 16 bits and back.\n"
        "threads: workers over the library's task queue (0: one per processor).");
  m.def("resample", &resample, py::arg("image"), py::arg("size") = py::none(), py::arg("scale") = py::none(),
        py::arg("filter") = "hermite", py::arg("out_bits") = 0,
        "Resamples a uint8/uint16 image (rows, columns[, planes]) to size=(width, height) or by scale (one "
        "number or (sx, sy)) with a filter by name or id 1 ... 17. out_bits 8 or 16 (default: the input's).");
  m.attr("FILTERS") = [] {
    py::list l;
    for (uint32_t i = ZT_FILTER_FIRST; i <= ZT_FILTER_LAST; ++i) l.append(kFilterNames[i]);
    return l;
  }();
  m.def("compress", &compress, py::arg("data"), py::arg("codecs") = py::make_tuple("lz4"), py::arg("bits") = 8,
        py::arg("delta") = false,
        "Compresses one block with the smallest result of the named codecs (lz4, packbits, lzjb, lzw, deflate); "
        "returns (bytes, block_flags). Flags without a codec bit mean the block is stored raw.");
  m.def("decompress", &decompress, py::arg("data"), py::arg("flags"), py::arg("size"), py::arg("bits") = 8,
        "Undoes a block made by compress(): its bytes, block flags and original size.");
  m.def("g4_compress", &g4_compress, py::arg("packed"), py::arg("width"),
        "CCITT Group 4 (T.6) stream of 1-bit rows: `packed` is uint8 (rows, bytes), most significant bit "
        "first, a set bit black; `width` pixels a row.");
  m.def("g4_decompress", &g4_decompress, py::arg("data"), py::arg("width"), py::arg("height"),
        "Decodes a Group 4 stream of `height` rows of `width` pixels into uint8 (rows, ceil(width / 8)).");
  m.def("dither16to8", &dither16to8, py::arg("image"), py::arg("method") = "noise",
        "uint16 image (rows, columns[, channels]) to uint8: 'noise' (triangular noise), 'round' "
        "(floor(v * 255 / 65535 + 0.5)) or 'diffusion' (whole-image error diffusion, one channel).");
}

}  // namespace ztpy
