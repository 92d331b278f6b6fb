// Colour arithmetic over arrays of triples: each function walks an array of
// shape (..., 3) float64 with the interpreter lock released.
#include <zt/ztcms.h>

#include <array>
#include <limits>
#include <vector>

#include "common.h"

namespace ztpy {
namespace {

using Triple = std::array<double, 3>;

Triple white_of(const py::object &white) {
  Triple w{};
  if (white.is_none()) {
    getIlluminant(ZTCMS_ILLUMINANT_D50, w.data());
    return w;
  }
  auto a = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(white);
  if (!a || a.size() != 3) throw py::value_error("a white point is three numbers (X, Y, Z)");
  for (int i = 0; i < 3; ++i) w[i] = a.data()[i];
  return w;
}

py::array triples(const py::array &a, const char *what) {
  return contiguous(a, py::dtype::of<double>(), what, 3);
}

py::array like(const py::array &a) {
  std::vector<py::ssize_t> shape(a.shape(), a.shape() + a.ndim());
  return py::array_t<double>(shape);
}

template <typename Fn>
py::array map3(const py::array &in, const char *what, Fn fn) {
  py::array a = triples(in, what);
  py::array out = like(a);
  const double *src = static_cast<const double *>(a.data());
  double *dst = static_cast<double *>(out.mutable_data());
  const size_t n = static_cast<size_t>(a.size() / 3);
  CallLog log;
  {
    py::gil_scoped_release release;
    for (size_t i = 0; i < n; ++i) fn(src + 3 * i, dst + 3 * i);
  }
  return out;
}

using DiffFn = double (*)(const double *, const double *);

DiffFn diff_of(const std::string &method) {
  if (method == "76" || method == "cie76" || method == "deltae") return ZTCMS_ColourDiff_DeltaE;
  if (method == "94" || method == "cie94") return ZTCMS_ColourDiff_CIE94;
  if (method == "dh" || method == "dH") return ZTCMS_ColourDiff_dH;
  if (method == "cmc1" || method == "cmc11") return ZTCMS_ColourDiff_CMC1;
  if (method == "cmc2" || method == "cmc21") return ZTCMS_ColourDiff_CMC2;
  if (method == "2000" || method == "ciede2000") return ZTCMS_ColourDiff_CIE2000;
  throw py::value_error("unknown colour difference '" + method + "': use 76, 94, dH, cmc1, cmc2 or 2000");
}

int32_t adapt_method(const std::string &method) {
  if (method == "cat02") return ZTCMS_ADAPT_CAT02;
  if (method == "vonkries" || method == "von_kries") return ZTCMS_ADAPT_VON_KRIES;
  if (method == "bradford") return ZTCMS_ADAPT_BRADFORD;
  if (method == "matrix3") return ZTCMS_ADAPT_MATRIX3;
  throw py::value_error("unknown adaptation '" + method + "': use bradford, cat02, vonkries or matrix3");
}

}  // namespace

void register_colour(py::module_ &m) {
  m.def(
      "xyz_to_lab",
      [](const py::array &xyz, const py::object &white) {
        const Triple w = white_of(white);
        return map3(xyz, "xyz", [w](const double *s, double *d) { ZTCMS_XYZToLab(s, w.data(), d); });
      },
      py::arg("xyz"), py::arg("white") = py::none(),
      "XYZ (Y = 1 for white) to Lab relative to `white` (default D50); arrays of shape (..., 3) float64.");
  m.def(
      "lab_to_xyz",
      [](const py::array &lab, const py::object &white) {
        const Triple w = white_of(white);
        return map3(lab, "lab", [w](const double *s, double *d) { ZTCMS_LabToXYZ(s, w.data(), d); });
      },
      py::arg("lab"), py::arg("white") = py::none(), "Lab to XYZ relative to `white` (default D50).");
  m.def(
      "lab_to_lch", [](const py::array &lab) { return map3(lab, "lab", ZTCMS_LabToLch); }, py::arg("lab"),
      "Lab to LCh (hue in degrees).");
  m.def(
      "xyz_to_luv",
      [](const py::array &xyz, const py::object &white) {
        const Triple w = white_of(white);
        return map3(xyz, "xyz", [w](const double *s, double *d) { ZTCMS_XYZToLUV(s, w.data(), d); });
      },
      py::arg("xyz"), py::arg("white") = py::none(), "XYZ to CIELUV relative to `white` (default D50).");
  m.def(
      "xyz_to_xy", [](const py::array &xyz) { return map3(xyz, "xyz", ZTCMS_XYZToxy); }, py::arg("xyz"),
      "XYZ to chromaticity (x, y, z), each component over their sum.");
  m.def(
      "xy_to_xyz",
      [](const py::array &xyY) {
        return map3(xyY, "xyY", [](const double *s, double *d) { ZTCMS_xyToXYZ(s, s[2], d); });
      },
      py::arg("xyY"), "Chromaticity and luminance (x, y, Y) to XYZ.");
  m.def(
      "colour_difference",
      [](const py::array &reference, const py::array &sample, const std::string &method) {
        DiffFn fn = diff_of(method);
        py::array r = triples(reference, "reference"), s = triples(sample, "sample");
        if (r.ndim() != s.ndim() || !std::equal(r.shape(), r.shape() + r.ndim(), s.shape())) {
          throw py::value_error("reference and sample must have the same shape");
        }
        std::vector<py::ssize_t> shape(r.shape(), r.shape() + r.ndim() - 1);
        py::array_t<double> out(shape);
        const double *a = static_cast<const double *>(r.data());
        const double *b = static_cast<const double *>(s.data());
        double *d = out.mutable_data();
        const size_t n = static_cast<size_t>(r.size() / 3);
        {
          py::gil_scoped_release release;
          for (size_t i = 0; i < n; ++i) d[i] = fn(a + 3 * i, b + 3 * i);
        }
        return out;
      },
      py::arg("reference"), py::arg("sample"), py::arg("method") = "76",
      "Colour difference of Lab arrays (..., 3): method 76, 94, dH, cmc1, cmc2 or 2000; returns shape (...).");
  m.def(
      "cct",
      [](const py::array &xyz, bool strict) {
        py::array a = triples(xyz, "xyz");
        std::vector<py::ssize_t> shape(a.shape(), a.shape() + a.ndim() - 1);
        py::array_t<double> out(shape);
        const double *s = static_cast<const double *>(a.data());
        double *d = out.mutable_data();
        const size_t n = static_cast<size_t>(a.size() / 3);
        CallLog log;
        bool failed = false;
        {
          py::gil_scoped_release release;
          for (size_t i = 0; i < n; ++i) {
            if (ZTCMS_XYZtoCorColourTemp(s + 3 * i, d + i) != 0) {
              d[i] = std::numeric_limits<double>::quiet_NaN();
              failed = true;
            }
          }
        }
        if (failed && strict) log.raise_value("no correlated colour temperature");
        return out;
      },
      py::arg("xyz"), py::arg("strict") = true,
      "Correlated colour temperature in kelvin of XYZ arrays (..., 3); returns shape (...). A colour without "
      "one raises ValueError with the library's message, or gives NaN when strict is False.");
  m.def(
      "cct_to_xy",
      [](double kelvin) {
        double xyz[3] = {0, 0, 0};
        if (kelvin < 4000 || kelvin > 25000) throw py::value_error("the daylight locus runs from 4000 to 25000 K");
        ZTCMS_CorColourTempToxy(kelvin, xyz);
        return py::make_tuple(xyz[0], xyz[1], xyz[2]);
      },
      py::arg("kelvin"), "Chromaticity (x, y, z) of the CIE daylight locus at `kelvin` (4000 ... 25000).");
  m.def(
      "illuminant",
      [](int32_t code) {
        double w[3] = {0, 0, 0};
        getIlluminant(code, w);
        return py::make_tuple(w[0], w[1], w[2]);
      },
      py::arg("code"), "The reference white of an illuminant code (0 D50, 2 D65).");
  m.def(
      "adapt",
      [](const py::array &xyz, const py::object &src_white, const py::object &dst_white, const std::string &method) {
        const Triple s = white_of(src_white), d = white_of(dst_white);
        const int32_t code = adapt_method(method);
        return map3(xyz, "xyz", [s, d, code](const double *in, double *out) {
          ZTCMS_Chromatic_Adaptation(in, s.data(), d.data(), code, out);
        });
      },
      py::arg("xyz"), py::arg("src_white"), py::arg("dst_white"), py::arg("method") = "bradford",
      "Chromatic adaptation of XYZ arrays (..., 3) from one white to another (bradford, cat02, vonkries, "
      "matrix3).");
}

}  // namespace ztpy
