// Shared helpers of the ztlib bindings: the log capture that turns a failing
// library call into a Python exception carrying the library's own message,
// and the checks that let numpy arrays through without copies.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace py = pybind11;

namespace ztpy {

// Collects what the library logs on the calling thread while it lives, so the
// exception for a failed call names the fault the library found. Messages
// logged on worker threads land in a process-wide slot that is used when the
// calling thread saw none.
class CallLog {
 public:
  CallLog();
  ~CallLog();
  CallLog(const CallLog &) = delete;
  CallLog &operator=(const CallLog &) = delete;
  // The first message of this call, or `fallback`.
  std::string message(const char *fallback) const;
  [[noreturn]] void raise_value(const char *fallback) const;
  [[noreturn]] void raise_runtime(const char *fallback) const;
  void note(const std::string &text);

 private:
  std::string first_;
  uint64_t global_seq_;
  CallLog *outer_;
};

// A two- or three-dimensional image whose pixels are contiguous within a row
// (rows may be any positive distance apart: slices of a larger image pass
// without a copy).
struct Image {
  const uint8_t *data = nullptr;
  uint32_t height = 0;
  uint32_t width = 0;
  uint32_t channels = 1;
  uint32_t itemsize = 1;
  size_t row_stride = 0;  // bytes
  const uint8_t *row(uint32_t y) const { return data + static_cast<size_t>(y) * row_stride; }
};

// Checks `array` and describes it. `what` names the argument in messages;
// `sizes` lists the accepted item sizes (1 for uint8, 2 for uint16) of an
// unsigned integer dtype. TypeError for dtype or rank, ValueError for an
// empty array or an unsupported layout.
Image image_view(const py::array &array, const char *what, bool allow_16, bool allow_channels,
                 uint32_t max_channels = 64);

// `array` as a C-contiguous array of `dtype` with last axis `last` (0: any):
// TypeError for another dtype, ValueError for another layout or an empty one.
py::array contiguous(const py::array &array, const py::dtype &dtype, const char *what, py::ssize_t last = 0);

std::string dtype_name(const py::array &array);

void register_screen(py::module_ &m);
void register_colour(py::module_ &m);
void register_pixels(py::module_ &m);
void register_vlimg(py::module_ &m);

}  // namespace ztpy
