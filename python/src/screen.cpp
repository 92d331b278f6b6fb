// Screening objects from Python: one object a channel, fed whole images or
// rows; the interpreter lock is released while rows are screened.
#include <zt/screening.h>

#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "common.h"

namespace ztpy {
namespace {

struct ScreenDeleter {
  void operator()(ScreeningObject *o) const { DestroyScreeningObject(o); }
};

class Screen {
 public:
  Screen(uint32_t width, uint32_t input_bits, uint32_t mode, uint32_t levels, uint32_t output_bits, double lpi,
         double angle, uint32_t spot_shape, uint32_t resolution_x, uint32_t resolution_y, uint32_t channel,
         bool cmyk_set, uint32_t max_tile_side, const std::string &screen_name, double ink_limit) {
    if (input_bits != 8 && input_bits != 16) throw py::value_error("input_bits must be 8 or 16");
    if (width == 0) throw py::value_error("width must be at least 1");
    if (levels < 2) throw py::value_error("levels must be at least 2");
    if (output_bits == 0) {
      while ((1u << output_bits) < levels && output_bits < 16) ++output_bits;
    }
    ScreeningSettings s{};
    s.mode = mode;
    s.levels = levels;
    s.outputBits = output_bits;
    s.linesPerInch = lpi;
    s.angle = angle;
    s.spotShape = spot_shape;
    s.resolutionX = resolution_x;
    s.resolutionY = resolution_y;
    s.flags = cmyk_set ? ZT_SCREEN_FLAG_CMYK_SET : 0;
    s.levelSource = ZT_LEVELS_EVEN;
    s.inkLimit = ink_limit;
    s.channel = channel;
    s.maxTileSide = max_tile_side;
    s.screenName = screen_name.empty() ? nullptr : screen_name.c_str();
    CallLog log;
    ScreeningObject *o = nullptr;
    {
      // Building a blue-noise mask or a super-cell takes a while.
      py::gil_scoped_release release;
      o = CreateScreeningObject(&s, width, input_bits);
    }
    if (!o) log.raise_value("cannot create the screening object");
    object_.reset(o);
    scratch_.resize(static_cast<size_t>(width) * (input_bits / 8));
  }

  ScreeningObject *get() const {
    if (!object_) throw py::value_error("the screen is closed");
    return object_.get();
  }

  // Screens rows y0 ... of `im` into `out` (planes x rows x bytesPerPlane).
  void run(const Image &im, uint8_t *out, uint32_t y0) {
    ScreeningObject *o = get();
    const size_t planes = o->outputPlanes, bpp = o->bytesPerPlane;
    std::vector<uint8_t> line(planes * bpp);
    const size_t row_bytes = static_cast<size_t>(im.width) * im.itemsize;
    CallLog log;
    bool failed = false;
    {
      py::gil_scoped_release release;
      for (uint32_t y = 0; y < im.height && !failed; ++y) {
        // The object may rewrite its input through its tone table: it gets a copy.
        std::memcpy(scratch_.data(), im.row(y), row_bytes);
        // One plane: the row's bytes are already where the array wants them.
        uint8_t *target = planes == 1 ? out + y * bpp : line.data();
        if (o->screenScanline(o, scratch_.data(), target, im.width, y0 + y) != 0) {
          failed = true;
          break;
        }
        for (size_t p = 0; planes > 1 && p < planes; ++p) {
          std::memcpy(out + (p * im.height + y) * bpp, line.data() + p * bpp, bpp);
        }
      }
    }
    if (failed) log.raise_value("screening failed");
    next_y_ = y0 + im.height;
  }

  py::array screen(const py::array &array, std::optional<uint32_t> y, const py::object &out_arg) {
    ScreeningObject *o = get();
    py::array input = array;
    bool one_row = false;
    if (input.ndim() == 1) {
      input = input.attr("reshape")(1, -1);
      one_row = true;
    }
    Image im = image_view(input, "image", true, false);
    if (im.itemsize * 8 != o->inputBits) {
      throw py::type_error("this screen takes " + std::string(o->inputBits == 8 ? "uint8" : "uint16") +
                           " samples, not " + dtype_name(array));
    }
    if (im.width > o->width) {
      throw py::value_error("rows of " + std::to_string(im.width) + " pixels are wider than the screen's " +
                            std::to_string(o->width));
    }
    const py::ssize_t planes = o->outputPlanes, bpp = (im.width + 7) / 8;
    py::array_t<uint8_t> out;
    if (out_arg.is_none()) {
      out = py::array_t<uint8_t>({planes, static_cast<py::ssize_t>(im.height), bpp});
    } else {
      // Screening into the caller's array spares a fresh allocation a call.
      py::array given = contiguous(py::reinterpret_borrow<py::array>(out_arg), py::dtype::of<uint8_t>(), "out");
      if (given.ndim() != 3 || given.shape(0) != planes || given.shape(1) != im.height || given.shape(2) != bpp ||
          !given.writeable()) {
        throw py::value_error("out must be a writeable uint8 array of shape (" + std::to_string(planes) + ", " +
                              std::to_string(im.height) + ", " + std::to_string(bpp) + ")");
      }
      out = given;
    }
    // The object writes bytesPerPlane bytes a plane; narrower rows keep the
    // bytes their width needs.
    if (static_cast<uint32_t>(bpp) == o->bytesPerPlane) {
      run(im, out.mutable_data(), y.value_or(next_y_));
    } else {
      py::array_t<uint8_t> full({planes, static_cast<py::ssize_t>(im.height), static_cast<py::ssize_t>(o->bytesPerPlane)});
      run(im, full.mutable_data(), y.value_or(next_y_));
      auto src = full.unchecked<3>();
      auto dst = out.mutable_unchecked<3>();
      for (py::ssize_t p = 0; p < planes; ++p)
        for (py::ssize_t r = 0; r < im.height; ++r)
          std::memcpy(dst.mutable_data(p, r, 0), src.data(p, r, 0), bpp);
    }
    if (one_row) return out.attr("reshape")(planes, bpp);
    return out;
  }

  void close() { object_.reset(); }

  std::unique_ptr<ScreeningObject, ScreenDeleter> object_;
  std::vector<uint8_t> scratch_;
  uint32_t next_y_ = 0;
};

}  // namespace

void register_screen(py::module_ &m) {
  py::class_<Screen>(m, "Screen", R"doc(
A screening object for one colour channel (see zt/screening.h).

Screen(width, input_bits=8, mode=2, levels=2, output_bits=0, lpi=0.0, angle=0.0,
       spot_shape=0, resolution=(600, 600), channel=0, cmyk_set=False,
       max_tile_side=0, screen_name="", ink_limit=0.0)

`screen(rows, y=None)` turns rows of continuous tone (uint8 or uint16 as
`input_bits` says, shape (rows, width) or one row) into bit-planes: uint8 of
shape (planes, rows, ceil(width / 8)), most significant bit first, bit k of a
pixel's dot code in plane k. Rows continue where the last call stopped unless
`y` gives the line number. Error diffusion carries its state from call to call,
so feed a page's rows in order. The object is freed by `close()` or on leaving
a `with` block; a closed screen raises ValueError.)doc")
      .def(py::init([](uint32_t width, uint32_t input_bits, uint32_t mode, uint32_t levels, uint32_t output_bits,
                       double lpi, double angle, uint32_t spot_shape, std::pair<uint32_t, uint32_t> resolution,
                       uint32_t channel, bool cmyk_set, uint32_t max_tile_side, const std::string &screen_name,
                       double ink_limit) {
             return new Screen(width, input_bits, mode, levels, output_bits, lpi, angle, spot_shape,
                               resolution.first, resolution.second, channel, cmyk_set, max_tile_side, screen_name,
                               ink_limit);
           }),
           py::arg("width"), py::arg("input_bits") = 8, py::arg("mode") = ZT_SCREEN_BLUE_NOISE,
           py::arg("levels") = 2, py::arg("output_bits") = 0, py::arg("lpi") = 0.0, py::arg("angle") = 0.0,
           py::arg("spot_shape") = 0, py::arg("resolution") = std::pair<uint32_t, uint32_t>(600, 600),
           py::arg("channel") = 0, py::arg("cmyk_set") = false, py::arg("max_tile_side") = 0,
           py::arg("screen_name") = "", py::arg("ink_limit") = 0.0)
      .def("screen", &Screen::screen, py::arg("rows"), py::arg("y") = py::none(), py::arg("out") = py::none(),
           "Screens rows (uint8/uint16, shape (rows, width) or (width,)) into bit-planes; `out` may give the "
           "uint8 (planes, rows, ceil(width / 8)) array to fill.")
      .def("close", &Screen::close, "Frees the screening object now (also done on garbage collection).")
      .def("__enter__", [](Screen &s) -> Screen & { return s; }, py::return_value_policy::reference)
      .def("__exit__", [](Screen &s, py::args) { s.close(); })
      .def_property_readonly("closed", [](const Screen &s) { return !s.object_; })
      .def_property_readonly("mode", [](const Screen &s) { return s.get()->mode; })
      .def_property_readonly("width", [](const Screen &s) { return s.get()->width; })
      .def_property_readonly("input_bits", [](const Screen &s) { return s.get()->inputBits; })
      .def_property_readonly("levels", [](const Screen &s) { return s.get()->levels; })
      .def_property_readonly("planes", [](const Screen &s) { return s.get()->outputPlanes; },
                             "Bit-planes a row screens into.")
      .def_property_readonly("next_row", [](const Screen &s) { return s.next_y_; })
      .def_property_readonly("effective_lpi", [](const Screen &s) { return s.get()->effectiveLpi; },
                             "Halftone modes: the screen frequency the cell achieves.")
      .def_property_readonly("effective_angle", [](const Screen &s) { return s.get()->effectiveAngle; },
                             "Halftone modes: the angle the cell achieves, in degrees.")
      .def_property_readonly("cell", [](const Screen &s) {
        return std::make_pair(s.get()->cellWidth, s.get()->cellHeight);
      }, "(width, height) of the threshold matrix (threshold modes).")
      .def_property_readonly("matrix", [](const Screen &s) -> py::object {
        ScreeningObject *o = s.get();
        if (!o->matrix || o->cellWidth == 0) return py::none();
        py::array_t<uint8_t> a({static_cast<py::ssize_t>(o->cellHeight), static_cast<py::ssize_t>(o->cellWidth)});
        std::memcpy(a.mutable_data(), o->matrix, static_cast<size_t>(o->cellWidth) * o->cellHeight);
        return py::object(a);
      }, "A copy of the threshold matrix (rows, columns), or None.");

  m.def("spot_value", &screeningSpotValue, py::arg("shape"), py::arg("x"), py::arg("y"),
        "The spot function of `shape` (0 ... 6) at cell coordinates x, y in [-1, 1].");
  m.def(
      "parse_vrfs",
      [](py::bytes data, const std::string &name) {
        std::string text = data;
        CallLog log;
        uint8_t *matrix = nullptr;
        uint32_t mx = 0, my = 0;
        if (screeningVRFSParse(text.data(), text.size(), name.c_str(), &matrix, &mx, &my) != 0) {
          log.raise_value("cannot parse the VRFS screen");
        }
        std::unique_ptr<uint8_t, decltype(&free)> owned(matrix, &free);
        py::array_t<uint8_t> a({static_cast<py::ssize_t>(my), static_cast<py::ssize_t>(mx)});
        std::memcpy(a.mutable_data(), matrix, static_cast<size_t>(mx) * my);
        return a;
      },
      py::arg("data"), py::arg("name") = "<bytes>",
      "Parses a VRFS screen file's bytes into its threshold matrix (rows, columns).");
}

}  // namespace ztpy
