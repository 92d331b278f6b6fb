// The native module: library start-up, the log client and the argument checks
// shared by every wrapper.
#include <zt/init.h>
#include <zt/log.h>

#include <atomic>
#include <mutex>

#include "common.h"

namespace ztpy {
namespace {

thread_local CallLog *t_call = nullptr;
std::mutex g_mutex;
std::string g_last;
std::atomic<uint64_t> g_seq{0};

void log_client(void *, const char *module, const char *function, const char *message, int64_t, uint32_t) {
  std::string text;
  text += module ? module : "";
  text += ':';
  text += function ? function : "";
  text += ": ";
  text += message ? message : "";
  if (t_call) {
    t_call->note(text);
    return;
  }
  std::lock_guard<std::mutex> lock(g_mutex);
  g_last = std::move(text);
  g_seq.fetch_add(1);
}

}  // namespace

CallLog::CallLog() : global_seq_(g_seq.load()), outer_(t_call) { t_call = this; }
CallLog::~CallLog() { t_call = outer_; }

void CallLog::note(const std::string &text) {
  if (first_.empty()) first_ = text;
}

std::string CallLog::message(const char *fallback) const {
  if (!first_.empty()) return first_;
  if (g_seq.load() != global_seq_) {
    std::lock_guard<std::mutex> lock(g_mutex);
    return g_last;
  }
  return fallback;
}

void CallLog::raise_value(const char *fallback) const { throw py::value_error(message(fallback)); }
void CallLog::raise_runtime(const char *fallback) const { throw std::runtime_error(message(fallback)); }

std::string dtype_name(const py::array &array) { return py::str(array.dtype()).cast<std::string>(); }

Image image_view(const py::array &array, const char *what, bool allow_16, bool allow_channels,
                 uint32_t max_channels) {
  const auto kind = array.dtype().kind();
  const auto size = array.itemsize();
  const bool ok_type = kind == 'u' && (size == 1 || (allow_16 && size == 2));
  if (!ok_type) {
    throw py::type_error(std::string(what) + " must be a uint8" + (allow_16 ? " or uint16" : "") +
                         " array, not " + dtype_name(array));
  }
  if (size == 2 && !array.dtype().attr("isnative").cast<bool>()) {
    throw py::type_error(std::string(what) + " must be in the machine's byte order");
  }
  const auto rank = array.ndim();
  if (rank != 2 && !(allow_channels && rank == 3)) {
    throw py::type_error(std::string(what) + " must have " + (allow_channels ? "2 or 3" : "2") +
                         " dimensions (rows, columns" + (allow_channels ? "[, channels]" : "") + "), not " +
                         std::to_string(rank));
  }
  if (array.size() == 0) throw py::value_error(std::string(what) + " is empty");
  Image im;
  im.itemsize = static_cast<uint32_t>(size);
  if (array.shape(0) > UINT32_MAX || array.shape(1) > UINT32_MAX) {
    throw py::value_error(std::string(what) + " is too large");
  }
  im.height = static_cast<uint32_t>(array.shape(0));
  im.width = static_cast<uint32_t>(array.shape(1));
  py::ssize_t pixel = size;
  if (rank == 3) {
    if (array.shape(2) > max_channels) {
      throw py::value_error(std::string(what) + " has " + std::to_string(array.shape(2)) +
                            " channels, more than " + std::to_string(max_channels));
    }
    im.channels = static_cast<uint32_t>(array.shape(2));
    if (im.channels > 1 && array.strides(2) != size) {
      throw py::value_error(std::string(what) + " must have its channels side by side (a C-contiguous row)");
    }
    pixel = size * im.channels;
  }
  if (im.width > 1 && array.strides(1) != pixel) {
    throw py::value_error(std::string(what) +
                          " must have contiguous rows (use numpy.ascontiguousarray for this view)");
  }
  const py::ssize_t row_bytes = pixel * im.width;
  py::ssize_t stride = array.strides(0);
  if (im.height == 1) stride = row_bytes;
  if (stride < row_bytes) {
    throw py::value_error(std::string(what) + " has overlapping or reversed rows (use numpy.ascontiguousarray)");
  }
  im.row_stride = static_cast<size_t>(stride);
  im.data = static_cast<const uint8_t *>(array.data());
  return im;
}

py::array contiguous(const py::array &array, const py::dtype &dtype, const char *what, py::ssize_t last) {
  if (!array.dtype().is(dtype)) {
    throw py::type_error(std::string(what) + " must be a " + py::str(static_cast<py::handle>(dtype)).cast<std::string>() + " array, not " +
                         dtype_name(array));
  }
  if (!(array.flags() & py::array::c_style)) {
    throw py::value_error(std::string(what) + " must be C-contiguous (use numpy.ascontiguousarray)");
  }
  if (array.size() == 0) throw py::value_error(std::string(what) + " is empty");
  if (last > 0 && (array.ndim() < 1 || array.shape(array.ndim() - 1) != last)) {
    throw py::value_error(std::string(what) + " must have a last axis of " + std::to_string(last));
  }
  return array;
}

}  // namespace ztpy

PYBIND11_MODULE(_native, m) {
  m.doc() = "Native part of ztlib: thin wrappers over libzt's C interface.";
  ZT_InitSubSystems();
  // A notebook should not leave errors.log in its working directory; the
  // messages reach Python through the client instead.
  LogErrorLogtofile(0, nullptr);
  LogErrorAddClient(ztpy::log_client, nullptr);
  m.def(
      "_shutdown", [] { ZT_DeInitSubSystems(); }, "Stops the library (called at interpreter exit).");
  m.def(
      "set_root",
      [](const std::string &root) {
        ztpy::CallLog log;
        if (ZTSetVariables(root.c_str()) != 0) log.raise_value("cannot set the installation root");
      },
      py::arg("root"),
      "Sets the installation root below which the library finds its files (e.g. VRFS screens in "
      "lib/screens/vrfs).");
  ztpy::register_screen(m);
  ztpy::register_colour(m);
  ztpy::register_pixels(m);
  ztpy::register_vlimg(m);
}
