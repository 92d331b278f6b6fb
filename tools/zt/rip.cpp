// zt rip: page images to screened VLIMG planes and a preview.
//
// Each page streams through in bands of one tile row: lines come from the
// image (or the built-in page), through the resampler to the device
// resolution, through the colour link to the four inks, through one screening
// object a channel (the channels in parallel on the task queue), are packed
// into VLIMG pixels and written as tiles; the preview adds the printed
// densities into a reduced image on the way. Memory is a few bands.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <zt/random.h>
#include <zt/resample.h>
#include <zt/scanlinebuf.h>
#include <zt/screening.h>
#include <zt/vlimg.h>

#include "colour.h"
#include "image_io.h"
#include "testpage.h"
#include "tool.h"

namespace zt::tool {

namespace {

struct RipOptions {
  std::string input, output, preview, paper_profile, profile, input_profile;
  uint32_t xdpi = 720, ydpi = 720;
  uint32_t levels = 4, bits = 0;
  std::string screen = "ed";
  double lpi = 150.0;
  bool have_angles = false;
  double angles[4] = {15, 75, 0, 45};
  int intent = 1;
  uint32_t compression = VLIMG_COMPRESSION_LZ4;
  uint32_t tile = 256;
  uint32_t threads = 0;
  uint32_t first_page = 1, last_page = 0;  // 0: to the end
  bool pages_given = false;
  uint32_t preview_size = 2000;
  double input_dpi = 72.0;
  uint32_t page_size = 4;  // built-in page: A4
};

void parse_dpi(const std::string &text, uint32_t &x, uint32_t &y) {
  const size_t sep = text.find_first_of("xX");
  x = parse_u32("--dpi", text.substr(0, sep), 1, 20000);
  y = sep == std::string::npos ? x : parse_u32("--dpi", text.substr(sep + 1), 1, 20000);
}

RipOptions parse(int argc, char **argv) {
  RipOptions o;
  Args a(argc, argv, 2);
  std::string v;
  bool levels_given = false;
  while (!a.done()) {
    if (a.option("-o", v) || a.option("--output", v)) o.output = v;
    else if (a.option("--preview", v)) o.preview = v;
    else if (a.option("--preview-size", v)) o.preview_size = parse_u32("--preview-size", v, 16, 100000);
    else if (a.option("--dpi", v)) parse_dpi(v, o.xdpi, o.ydpi);
    else if (a.option("--page-size", v)) {
      if (v.size() != 2 || (v[0] != 'A' && v[0] != 'a') || v[1] < '0' || v[1] > '4')
        usage_error("--page-size: '" + v + "' is not A0, A1, A2, A3 or A4");
      o.page_size = static_cast<uint32_t>(v[1] - '0');
    } else if (a.option("--input-dpi", v)) o.input_dpi = parse_double("--input-dpi", v, 1, 100000);
    else if (a.option("--levels", v)) o.levels = parse_u32("--levels", v, 2, 65536), levels_given = true;
    else if (a.option("--bits", v)) o.bits = parse_u32("--bits", v, 1, 8);
    else if (a.option("--paper-profile", v)) o.paper_profile = v;
    else if (a.option("--screen", v)) {
      if (v != "ed" && v != "bluenoise" && v != "halftone" && v != "ordered" && v != "pattern")
        usage_error("--screen: '" + v + "' is not ed, bluenoise, halftone, ordered or pattern");
      o.screen = v;
    } else if (a.option("--lpi", v)) o.lpi = parse_double("--lpi", v, 1.01, 2000);
    else if (a.option("--angles", v)) {
      std::stringstream ss(v);
      std::string item;
      int n = 0;
      while (std::getline(ss, item, ',')) {
        if (n == 4) usage_error("--angles: give four angles, c,m,y,k");
        o.angles[n++] = parse_double("--angles", item, -360, 360);
      }
      if (n != 4) usage_error("--angles: give four angles, c,m,y,k");
      o.have_angles = true;
    } else if (a.option("--profile", v)) o.profile = v;
    else if (a.option("--input-profile", v)) o.input_profile = v;
    else if (a.option("--intent", v)) {
      if (v == "perceptual") o.intent = 0;
      else if (v == "relative") o.intent = 1;
      else if (v == "saturation") o.intent = 2;
      else if (v == "absolute") o.intent = 3;
      else usage_error("--intent: '" + v + "' is not perceptual, relative, saturation or absolute");
    } else if (a.option("--compress", v)) {
      if (v == "lz4") o.compression = VLIMG_COMPRESSION_LZ4;
      else if (v == "deflate") o.compression = VLIMG_COMPRESSION_DEFLATE;
      else if (v == "packbits") o.compression = VLIMG_COMPRESSION_PACKBITS;
      else if (v == "lzw") o.compression = VLIMG_COMPRESSION_LZW;
      else if (v == "none") o.compression = VLIMG_COMPRESSION_NONE;
      else if (v == "g4")
        usage_error("--compress g4: VLIMG pages have no Group 4 compression type; use lz4, deflate, packbits, lzw or none");
      else usage_error("--compress: '" + v + "' is not lz4, deflate, packbits, lzw, g4 or none");
    } else if (a.option("--tile", v)) {
      o.tile = parse_u32("--tile", v, 8, 4096);
      if (o.tile % 8) usage_error("--tile: the tile side must be a multiple of 8");
    } else if (a.option("--threads", v)) o.threads = parse_u32("--threads", v, 1, 64);
    else if (a.option("--pages", v)) {
      const size_t dash = v.find('-');
      o.first_page = parse_u32("--pages", v.substr(0, dash), 1, 1u << 20);
      o.last_page = dash == std::string::npos ? o.first_page : parse_u32("--pages", v.substr(dash + 1), 1, 1u << 20);
      if (o.last_page < o.first_page) usage_error("--pages: '" + v + "' ends before it starts");
      o.pages_given = true;
    } else if (a.flag("--quiet") || a.flag("-q")) g_verbosity = Verbosity::kQuiet;
    else if (a.flag("--verbose") || a.flag("-v")) g_verbosity = Verbosity::kVerbose;
    else if (a.peek().size() > 1 && a.peek()[0] == '-') usage_error("unknown option '" + a.peek() + "'");
    else if (o.input.empty()) o.input = a.next();
    else usage_error("more than one input given ('" + o.input + "', '" + a.peek() + "')");
  }
  if (o.output.empty()) usage_error("no output file given (-o OUT.vlimg)");
  if (!o.paper_profile.empty() && levels_given) usage_error("--levels and --paper-profile exclude each other");
  if (o.levels > 256) usage_error("--levels: at most 256 levels");
  if (o.screen == "pattern" && o.levels != 2 && o.paper_profile.empty())
    usage_error("--screen pattern is two-level: give --levels 2");
  if (o.threads == 0) o.threads = processor_count();
  return o;
}

// The paper profile: drops with their dot codes and measured XYZ.
struct PaperProfile {
  std::vector<ScreeningDrop> drops;
  double yule_nielsen = 1.0;
};

PaperProfile read_paper_profile(const std::string &path) {
  std::ifstream in(path);
  if (!in) fail(path + ": " + std::strerror(errno));
  PaperProfile p;
  std::string line;
  int number = 0;
  while (std::getline(in, line)) {
    ++number;
    const size_t hash = line.find('#');
    if (hash != std::string::npos) line.resize(hash);
    std::istringstream ss(line);
    std::string key;
    if (!(ss >> key)) continue;
    std::string rest;
    auto bad = [&](const char *why) { fail(path + ": line " + std::to_string(number) + ": " + why); };
    if (key == "yule-nielsen") {
      if (!(ss >> p.yule_nielsen) || !(p.yule_nielsen >= 0.1 && p.yule_nielsen <= 20) || (ss >> rest))
        bad("yule-nielsen takes one number from 0.1 to 20");
    } else if (key == "drop") {
      ScreeningDrop d{};
      long long code = -1;
      if (!(ss >> code >> d.xyz[0] >> d.xyz[1] >> d.xyz[2]) || (ss >> rest)) bad("drop takes CODE X Y Z");
      if (code < 0 || code > 255) bad("the dot code must be 0 ... 255");
      for (double c : d.xyz)
        if (!(c > 0 && c <= 2)) bad("X, Y and Z must be above 0 and at most 2");
      d.dotCode = static_cast<uint32_t>(code);
      p.drops.push_back(d);
    } else {
      bad("expected 'drop' or 'yule-nielsen'");
    }
  }
  if (in.bad()) fail(path + ": " + std::strerror(errno));
  if (p.drops.size() < 2) fail(path + ": a paper profile needs at least two drops (paper and one ink)");
  if (p.drops.size() > 256) fail(path + ": more than 256 drops");
  return p;
}

uint32_t bits_for(uint32_t levels) {
  uint32_t b = 1;
  while ((1u << b) < levels) ++b;
  return b;
}

// One page's device-resolution lines as planar 8-bit rows, from the built-in
// page or from an image through the resampler.
class LineSource {
 public:
  virtual ~LineSource() = default;
  uint32_t width = 0, height = 0, channels = 0;
  virtual void next(uint8_t *planar) = 0;
};

class TestPageLines : public LineSource {
 public:
  TestPageLines(uint32_t xdpi, uint32_t ydpi, uint32_t size) : page_(xdpi, ydpi, size) {
    width = page_.width();
    height = page_.height();
    channels = 4;
  }
  void next(uint8_t *planar) override { page_.draw(y_++, planar); }

 private:
  TestPage page_;
  uint32_t y_ = 0;
};

// Deinterleaves one line of the image into planar rows of the output depth.
void to_planar(const ImageSource &img, const uint8_t *line, uint8_t *planar, bool keep16) {
  const uint32_t w = img.width, c = img.channels;
  if (img.bits == 8) {
    for (uint32_t ch = 0; ch < c; ++ch) {
      uint8_t *dst = planar + static_cast<size_t>(ch) * w;
      for (uint32_t x = 0; x < w; ++x) dst[x] = line[static_cast<size_t>(x) * c + ch];
    }
  } else {
    const auto *s = reinterpret_cast<const uint16_t *>(line);
    for (uint32_t ch = 0; ch < c; ++ch) {
      if (keep16) {
        auto *dst = reinterpret_cast<uint16_t *>(planar) + static_cast<size_t>(ch) * w;
        for (uint32_t x = 0; x < w; ++x) dst[x] = s[static_cast<size_t>(x) * c + ch];
      } else {
        uint8_t *dst = planar + static_cast<size_t>(ch) * w;
        for (uint32_t x = 0; x < w; ++x)
          dst[x] = static_cast<uint8_t>((s[static_cast<size_t>(x) * c + ch] * 255u + 32767u) / 65535u);
      }
    }
  }
}

// Owners of the library's objects, so that a constructor failing half-way
// (it throws) releases what it made before.
struct ResampleFree {
  void operator()(ResampleContext *c) const { resampleFree(c); }
};
struct ScreeningDestroy {
  void operator()(ScreeningObject *o) const { DestroyScreeningObject(o); }
};
using ScreeningPtr = std::unique_ptr<ScreeningObject, ScreeningDestroy>;

class ImageLines : public LineSource {
 public:
  ImageLines(std::unique_ptr<ImageSource> img, uint32_t out_w, uint32_t out_h, uint32_t threads)
      : img_(std::move(img)) {
    width = out_w;
    height = out_h;
    channels = img_->channels;
    line_.resize(img_->bytes_per_line());
    if (out_w == img_->width && out_h == img_->height) return;  // already at the device resolution
    ctx_.reset(resampleInitUsingFilter(ZT_RESAMPLE_FILTERED, img_->width, img_->height, out_w, out_h, channels,
                                       img_->bits, 8, read_cb, nullptr, nullptr, this, ZT_FILTER_LANCZOS3));
    if (!ctx_) fail_lib(img_->name + ": cannot resample " + std::to_string(img_->width) + " x " +
                        std::to_string(img_->height) + " to " + std::to_string(out_w) + " x " + std::to_string(out_h));
    resampleSetupThreads(ctx_.get(), threads);
    if (scanlinebufSetup(&out_, ZT_INTERLEAVE_BY_LINE, 8, channels, 0, out_w, 1, ZT_SLB_ZERO) != 0)
      fail_lib("cannot set up a scanline");
  }
  void next(uint8_t *planar) override {
    if (!ctx_) {
      img_->read_line(line_.data());
      to_planar(*img_, line_.data(), planar, false);
      return;
    }
    out_.data = planar;
    if (resampleGetNextScanline(ctx_.get(), &out_) != 0) {
      if (!error_.empty()) fail(error_);
      fail_lib(img_->name + ": resampling failed");
    }
  }

 private:
  static int32_t read_cb(void *user, ScanlineBuf *dst, uint32_t) {
    auto *self = static_cast<ImageLines *>(user);
    try {
      self->img_->read_line(self->line_.data());
      if (dst) to_planar(*self->img_, self->line_.data(), dst->data, dst->bitsPerPixel == 16);
      return 0;
    } catch (const Failure &f) {
      self->error_ = f.what();
      return -1;
    }
  }
  std::unique_ptr<ImageSource> img_;
  std::unique_ptr<ResampleContext, ResampleFree> ctx_;
  ScanlineBuf out_{};
  std::vector<uint8_t> line_;
  std::string error_;
};

// The screening objects of one page, one a channel.
class Screens {
 public:
  // Error diffusion draws its weight table (shared through the library's
  // cache) and each channel's start in it from the library's generator. A
  // page is to come out the same whether it is ripped alone or after others
  // (so that slices ripped apart merge into the file one run makes): the
  // table is made first from a fixed seed, whether or not the cache already
  // holds it, and the starts from a seed of the page's number.
  Screens(const RipOptions &o, const PaperProfile *paper, uint32_t width, uint32_t page_number) {
    ScreeningPtr warm;
    for (uint32_t c = 0; c < 4; ++c) {
      ScreeningSettings s{};
      s.mode = o.screen == "ed"          ? ZT_SCREEN_STOCHASTIC
               : o.screen == "bluenoise" ? ZT_SCREEN_BLUE_NOISE
               : o.screen == "halftone"  ? ZT_SCREEN_HALFTONE_SUPERCELL
               : o.screen == "ordered"   ? ZT_SCREEN_ORDERED_4X4
                                         : ZT_SCREEN_PATTERN;
      s.levels = paper ? static_cast<uint32_t>(paper->drops.size()) : o.levels;
      s.outputBits = o.bits;
      s.linesPerInch = o.lpi;
      s.angle = o.angles[c];
      if (s.mode == ZT_SCREEN_HALFTONE_SUPERCELL && !o.have_angles) s.flags = ZT_SCREEN_FLAG_CMYK_SET;
      s.resolutionX = o.xdpi;
      s.resolutionY = o.ydpi;
      s.channel = c;
      s.bandType = static_cast<int32_t>(c + 1);
      if (paper) {
        s.levelSource = ZT_LEVELS_LAB_V2;
        s.dropCount = s.levels;
        s.drops = paper->drops.data();
        s.yuleNielsen = paper->yule_nielsen;
      }
      Library::clear_message();
      if (c == 0 && s.mode == ZT_SCREEN_STOCHASTIC) {
        ZT_randomSeed(0x7A7);
        warm.reset(CreateScreeningObject(&s, width, 8));
        if (!warm) fail_lib("cannot make the 'ed' screen");
        ZT_randomSeed(0x7A70000ull + page_number);
      }
      owned_[c].reset(CreateScreeningObject(&s, width, 8));
      objects[c] = owned_[c].get();
      if (!objects[c]) fail_lib("cannot make the '" + o.screen + "' screen for channel " + std::to_string(c + 1));
      // Printed density of each dot code, for the preview.
      std::fill(std::begin(density[c]), std::end(density[c]), 0);
      const ScreeningObject *obj = objects[c];
      for (uint32_t l = 0; l < obj->levels; ++l)
        if (obj->dotCodes && obj->densities && obj->dotCodes[l] < 256) density[c][obj->dotCodes[l]] = static_cast<uint8_t>(obj->densities[l]);
      if (obj->levels == 2 && (!obj->dotCodes || !obj->densities)) density[c][1] = 255;
    }
  }
  Screens(const Screens &) = delete;
  Screens &operator=(const Screens &) = delete;
  ScreeningObject *objects[4] = {};
  uint8_t density[4][256];

 private:
  ScreeningPtr owned_[4];
};

// Dot codes of a line from a channel's bit-planes: eight pixels a step, each
// plane's byte spread to one bit in each of eight bytes.
struct Spread {
  uint64_t table[256];
  Spread() {
    for (uint32_t b = 0; b < 256; ++b) {
      uint64_t v = 0;
      for (int i = 0; i < 8; ++i)
        if (b & (0x80u >> i)) v |= uint64_t{1} << (8 * i);
      table[b] = v;
    }
  }
};
const Spread kSpread;

void planes_to_codes(const uint8_t *planes, uint32_t plane_count, uint32_t bytes_per_plane, uint32_t width,
                     uint8_t *codes) {
  const uint32_t groups = (width + 7) / 8;
  for (uint32_t g = 0; g < groups; ++g) {
    uint64_t v = 0;
    for (uint32_t k = 0; k < plane_count; ++k) v |= kSpread.table[planes[k * bytes_per_plane + g]] << k;
    std::memcpy(codes + 8 * g, &v, 8);  // codes has room for whole groups
  }
}

// VLIMG pixels: each pixel's four planes one after the other, `bits` each,
// most significant first.
void pack_pixels(uint8_t *const codes[4], uint32_t bits, uint32_t width, uint8_t *out) {
  if (bits == 2) {
    for (uint32_t x = 0; x < width; ++x)
      out[x] = static_cast<uint8_t>(codes[0][x] << 6 | codes[1][x] << 4 | codes[2][x] << 2 | codes[3][x]);
  } else if (bits == 4) {
    for (uint32_t x = 0; x < width; ++x) {
      out[2 * x] = static_cast<uint8_t>(codes[0][x] << 4 | codes[1][x]);
      out[2 * x + 1] = static_cast<uint8_t>(codes[2][x] << 4 | codes[3][x]);
    }
  } else if (bits == 8) {
    for (uint32_t x = 0; x < width; ++x)
      for (int c = 0; c < 4; ++c) out[4 * x + c] = codes[c][x];
  } else {
    const size_t total = (static_cast<size_t>(width) * bits * 4 + 7) / 8;
    std::memset(out, 0, total);
    size_t bit = 0;
    for (uint32_t x = 0; x < width; ++x)
      for (int c = 0; c < 4; ++c)
        for (int b = static_cast<int>(bits) - 1; b >= 0; --b, ++bit)
          if ((codes[c][x] >> b) & 1) out[bit >> 3] |= static_cast<uint8_t>(0x80u >> (bit & 7));
  }
}

// The preview: printed densities summed over blocks of factor x factor
// device pixels, then through the proof transform to sRGB.
class Preview {
 public:
  Preview(const std::string &path, uint32_t w, uint32_t h, uint32_t max_side, const Profiles &profiles)
      : file_(path), factor_(std::max<uint32_t>(1, (std::max(w, h) + max_side - 1) / max_side)),
        pw_((w + factor_ - 1) / factor_), ph_((h + factor_ - 1) / factor_), src_w_(w), src_h_(h), proof_(profiles),
        sums_(static_cast<size_t>(pw_) * 4), cmyk_(static_cast<size_t>(pw_) * 4), rgb_(static_cast<size_t>(pw_) * 3) {
    sink_ = create_png(file_.temp(), path, pw_, ph_, 3, 8, 0, {});
  }
  // One device line: its codes per channel and, when every plane takes two
  // bits, its packed pixels (`packed`, else null).
  void add(uint8_t *const codes[4], const uint8_t density[4][256], const uint8_t *packed) {
    // Two-bit pixels: one table look-up gives all four densities in 16-bit
    // lanes, which hold a block's sum while blocks are at most 16 x 16.
    if (packed && factor_ <= 16) {
      if (!fast_) {
        fast_ = true;
        acc_.assign(pw_, 0);
        for (uint32_t b = 0; b < 256; ++b)
          lut_[b] = uint64_t{density[0][b >> 6]} | uint64_t{density[1][(b >> 4) & 3]} << 16 |
                    uint64_t{density[2][(b >> 2) & 3]} << 32 | uint64_t{density[3][b & 3]} << 48;
      }
      uint32_t px = 0, x = 0;
      for (; x + factor_ <= src_w_; x += factor_, ++px) {
        uint64_t s = 0;
        for (uint32_t i = 0; i < factor_; ++i) s += lut_[packed[x + i]];
        acc_[px] += s;
      }
      if (x < src_w_) {
        uint64_t s = 0;
        for (; x < src_w_; ++x) s += lut_[packed[x]];
        acc_[px] += s;
      }
      ++rows_;
      if (rows_ == factor_ || done_rows_ + rows_ == src_h_) flush();
      return;
    }
    for (int c = 0; c < 4; ++c) {
      const uint8_t *d = density[c];
      const uint8_t *code = codes[c];
      uint32_t *sum = &sums_[static_cast<size_t>(c) * pw_];
      for (uint32_t x = 0, px = 0; x < src_w_; x += factor_, ++px) {
        const uint32_t end = std::min(x + factor_, src_w_);
        uint32_t s = 0;
        for (uint32_t i = x; i < end; ++i) s += d[code[i]];
        sum[px] += s;
      }
    }
    ++rows_;
    if (rows_ == factor_ || done_rows_ + rows_ == src_h_) flush();
  }
  void finish() {
    if (rows_) flush();
    sink_->finish();
  }
  void commit() { file_.commit(); }
  uint32_t width() const { return pw_; }
  uint32_t height() const { return ph_; }

 private:
  void flush() {
    if (fast_)
      for (uint32_t px = 0; px < pw_; ++px) {
        for (int c = 0; c < 4; ++c) sums_[c * pw_ + px] = static_cast<uint32_t>((acc_[px] >> (16 * c)) & 0xFFFF);
        acc_[px] = 0;
      }
    for (uint32_t px = 0; px < pw_; ++px) {
      const uint32_t cols = std::min(factor_, src_w_ - px * factor_);
      const uint32_t n = cols * rows_;
      for (int c = 0; c < 4; ++c) cmyk_[4 * px + c] = static_cast<uint8_t>((sums_[c * pw_ + px] + n / 2) / n);
    }
    proof_.convert(cmyk_.data(), rgb_.data(), pw_);
    sink_->write_line(rgb_.data());
    std::fill(sums_.begin(), sums_.end(), 0);
    done_rows_ += rows_;
    rows_ = 0;
  }
  OutputFile file_;
  uint32_t factor_, pw_, ph_, src_w_, src_h_;
  Proof proof_;
  std::unique_ptr<ImageSink> sink_;
  std::vector<uint32_t> sums_;
  bool fast_ = false;
  std::vector<uint64_t> acc_;
  uint64_t lut_[256];
  std::vector<uint8_t> cmyk_, rgb_;
  uint32_t rows_ = 0, done_rows_ = 0;
};

// Two band slots between the reading thread and the screening thread.
class BandPipe {
 public:
  explicit BandPipe(size_t bytes) : slots_{std::vector<uint8_t>(bytes), std::vector<uint8_t>(bytes)} {}
  uint8_t *acquire_empty(uint32_t slot) {
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait(hold, [&] { return !full_[slot] || aborted_; });
    return aborted_ ? nullptr : slots_[slot].data();
  }
  void publish(uint32_t slot) {
    std::lock_guard<std::mutex> hold(lock_);
    full_[slot] = true;
    changed_.notify_all();
  }
  // Fails with the reader's message when reading failed.
  const uint8_t *acquire_full(uint32_t slot) {
    std::unique_lock<std::mutex> hold(lock_);
    changed_.wait(hold, [&] { return full_[slot] || !error_.empty(); });
    if (!full_[slot]) zt::tool::fail(error_);
    return slots_[slot].data();
  }
  void release(uint32_t slot) {
    std::lock_guard<std::mutex> hold(lock_);
    full_[slot] = false;
    changed_.notify_all();
  }
  void set_error(const std::string &message) {
    std::lock_guard<std::mutex> hold(lock_);
    error_ = message.empty() ? "reading failed" : message;
    changed_.notify_all();
  }
  void abort() {
    std::lock_guard<std::mutex> hold(lock_);
    aborted_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<uint8_t> slots_[2];
  bool full_[2] = {false, false};
  bool aborted_ = false;
  std::string error_;
};

struct PageInput {
  bool builtin = true;
  std::unique_ptr<ImageSource> image;
};

// Rips one page into the open VLIMG file (its own page of the chain).
void rip_page(const RipOptions &o, const PaperProfile *paper, const Profiles &profiles, LineSource &src,
              ColourLink &link, VLIMG_File *vf, Preview *preview, uint32_t page_number, const std::string &label) {
  const uint32_t w = src.width, h = src.height, tile = o.tile;
  const uint32_t bits = o.bits;
  uint32_t bpp[4] = {bits, bits, bits, bits};
  const uint32_t type = VLIMG_IMAGETYPE_CMYK;
  const float xres = static_cast<float>(o.xdpi), yres = static_cast<float>(o.ydpi);
  const uint32_t unit = 2;  // inch
  const char *software = "zt " ZT_TOOL_VERSION;
  std::string description = "screen=" + o.screen + " levels=" + std::to_string(paper ? paper->drops.size() : o.levels) +
                            " source=" + label;
  VLIMG_Blob icc{profiles.output.data(), static_cast<uint32_t>(profiles.output.size())};
  if (VLIMG_SetField(vf, VLIMG_TAG_WIDTH, &w) || VLIMG_SetField(vf, VLIMG_TAG_HEIGHT, &h) ||
      VLIMG_SetField(vf, VLIMG_TAG_COMPRESSION, &o.compression) || VLIMG_SetField(vf, VLIMG_TAG_IMAGETYPE, &type) ||
      VLIMG_SetField(vf, VLIMG_TAG_BPP_ARRAY, bpp) || VLIMG_SetField(vf, VLIMG_TAG_XRESOLUTION, &xres) ||
      VLIMG_SetField(vf, VLIMG_TAG_YRESOLUTION, &yres) || VLIMG_SetField(vf, VLIMG_TAG_RESOLUTIONUNIT, &unit) ||
      VLIMG_SetField(vf, VLIMG_TAG_SOFTWARE, software) ||
      VLIMG_SetField(vf, VLIMG_TAG_DESCRIPTION, description.c_str()) ||
      VLIMG_SetField(vf, VLIMG_TAG_PAGENUMBER, &page_number) || VLIMG_SetField(vf, VLIMG_TAG_ICCPROFILE, &icc) ||
      VLIMG_EnableTiling(vf, tile, tile) != 0)
    fail_lib(o.output + ": cannot set up the page header");

  Screens screens(o, paper, w, page_number);
  const size_t in_row = static_cast<size_t>(w) * src.channels;
  std::vector<uint8_t> in_band(in_row * tile);
  const size_t ink_band_bytes = static_cast<size_t>(w) * 4 * tile;
  const uint32_t out_bytes = screens.objects[0]->outputBytes;
  std::vector<uint8_t> screened(static_cast<size_t>(out_bytes) * 4 * tile);
  const size_t code_w = (static_cast<size_t>(w) + 7) / 8 * 8;
  std::vector<uint8_t> code_rows(code_w * 4);
  const size_t packed_line = (static_cast<size_t>(w) * bits * 4 + 7) / 8;
  std::vector<uint8_t> packed(packed_line * tile);
  const uint32_t tiles_across = (w + tile - 1) / tile;
  const size_t tile_bytes = static_cast<size_t>(tile) * bits * 4 / 8;

  // Reading, resampling and colour of the next band run on a thread of their
  // own while this one screens, packs and writes the band before: two bands
  // in flight, handed over through two slots.
  BandPipe pipe(ink_band_bytes);
  std::thread producer([&] {
    try {
      for (uint32_t y0 = 0, slot = 0; y0 < h; y0 += tile, slot ^= 1) {
        uint8_t *ink = pipe.acquire_empty(slot);
        if (!ink) return;  // the consumer gave up
        const uint32_t lines = std::min(tile, h - y0);
        for (uint32_t l = 0; l < lines; ++l) src.next(&in_band[l * in_row]);
        link.convert(in_band.data(), ink, w, lines);
        pipe.publish(slot);
      }
    } catch (const std::exception &e) {
      pipe.set_error(e.what());
    }
  });
  struct Joiner {
    BandPipe &pipe;
    std::thread &t;
    ~Joiner() {
      pipe.abort();
      t.join();
    }
  } joiner{pipe, producer};

  Progress progress(label.c_str(), h);
  for (uint32_t y0 = 0, slot = 0; y0 < h; y0 += tile, slot ^= 1) {
    const uint32_t lines = std::min(tile, h - y0);
    const uint8_t *ink = pipe.acquire_full(slot);
    void *inputs[4];
    uint8_t *outputs[4];
    for (int c = 0; c < 4; ++c) {
      inputs[c] = const_cast<uint8_t *>(&ink[static_cast<size_t>(c) * w]);
      outputs[c] = &screened[static_cast<size_t>(c) * out_bytes];
    }
    if (screeningScreenChannelLines(screens.objects, 4, inputs, static_cast<size_t>(w) * 4, outputs,
                                    static_cast<size_t>(out_bytes) * 4, w, y0, lines) != 0)
      fail_lib("screening failed");
    pipe.release(slot);
    for (uint32_t l = 0; l < lines; ++l) {
      uint8_t *codes[4];
      for (int c = 0; c < 4; ++c) {
        codes[c] = &code_rows[c * code_w];
        const ScreeningObject *so = screens.objects[c];
        planes_to_codes(&screened[(static_cast<size_t>(l) * 4 + c) * out_bytes], so->outputPlanes, so->bytesPerPlane,
                        w, codes[c]);
      }
      pack_pixels(codes, bits, w, &packed[l * packed_line]);
      if (preview) preview->add(codes, screens.density, bits == 2 ? &packed[l * packed_line] : nullptr);
    }
    const uint32_t ty = y0 / tile;
    for (uint32_t tx = 0; tx < tiles_across; ++tx)
      if (VLIMG_WriteTile(vf, ty * tiles_across + tx, &packed[tx * tile_bytes], static_cast<uint32_t>(packed_line)) != 0)
        fail_lib(o.output + ": cannot write tile " + std::to_string(ty * tiles_across + tx));
    progress.update(y0 + lines);
  }
  progress.finish();
}

}  // namespace

int cmd_rip(int argc, char **argv) {
  RipOptions o = parse(argc, argv);
  // Levels against output bits.
  PaperProfile paper;
  if (!o.paper_profile.empty()) {
    paper = read_paper_profile(o.paper_profile);
    uint32_t max_code = 0;
    for (const ScreeningDrop &d : paper.drops) max_code = std::max(max_code, d.dotCode);
    const uint32_t need = bits_for(std::max<uint32_t>(max_code + 1, static_cast<uint32_t>(paper.drops.size())));
    if (o.bits == 0) o.bits = need;
    if (o.bits < need) usage_error(o.paper_profile + ": its codes need " + std::to_string(need) + " bits, --bits is " + std::to_string(o.bits));
  } else {
    if (o.bits == 0) o.bits = bits_for(o.levels);
    if (o.levels > (1u << o.bits))
      usage_error("--levels " + std::to_string(o.levels) + " do not fit in " + std::to_string(o.bits) + " output bits");
  }
  if (o.bits == 3 || o.bits > 4) o.bits = o.bits == 3 ? 4 : 8;  // whole nibbles or bytes a plane keep tiles on bytes

  Profiles profiles;
  profiles.intent = o.intent;
  profiles.output_name = o.profile.empty() ? std::string(ZT_DEFAULT_CMYK_PROFILE) : o.profile;
  profiles.output = read_file_bytes(profiles.output_name);
  check_profile(profiles.output, profiles.output_name, 4);
  std::vector<uint8_t> input_profile;
  if (!o.input_profile.empty()) {
    input_profile = read_file_bytes(o.input_profile);
    check_profile(input_profile, o.input_profile, 0);
  }

  // Pages of the input.
  uint32_t pages = 1;
  if (!o.input.empty()) pages = image_page_count(o.input);
  const uint32_t last = o.last_page == 0 ? pages : o.last_page;
  if (o.first_page > pages || last > pages)
    fail((o.input.empty() ? std::string("the built-in page") : o.input) + ": has " + std::to_string(pages) +
         " page(s); --pages asks for " + std::to_string(o.first_page) + "-" + std::to_string(last));

  Library lib(o.threads);
  OutputFile out(o.output);
  std::unique_ptr<Preview> preview;
  VLIMG_File *vf = nullptr;
  struct Closer {
    VLIMG_File **f;
    ~Closer() {
      if (*f) VLIMG_Close(*f);
    }
  } closer{&vf};

  for (uint32_t p = o.first_page; p <= last; ++p) {
    std::unique_ptr<LineSource> lines;
    std::string label;
    std::vector<uint8_t> icc = input_profile;
    std::string icc_name = o.input_profile;
    uint32_t channels = 4;
    if (o.input.empty()) {
      lines = std::make_unique<TestPageLines>(o.xdpi, o.ydpi, o.page_size);
      label = "built-in page";
      if (!o.profile.empty()) {  // the page is drawn in the default press profile's inks
        icc = read_file_bytes(ZT_DEFAULT_CMYK_PROFILE);
        icc_name = ZT_DEFAULT_CMYK_PROFILE;
      }
    } else {
      auto img = open_image(o.input, p - 1);
      if (icc.empty() && !img->icc.empty()) {
        icc = img->icc;
        icc_name = o.input + " (embedded profile)";
      }
      channels = img->channels;
      const double in_x = img->xdpi > 0 ? img->xdpi : o.input_dpi, in_y = img->ydpi > 0 ? img->ydpi : o.input_dpi;
      const double ow = std::round(img->width * o.xdpi / in_x), oh = std::round(img->height * o.ydpi / in_y);
      if (ow < 1 || oh < 1 || ow > kMaxInputSide || oh > kMaxInputSide || ow * oh > static_cast<double>(kMaxInputPixels))
        fail(o.input + ": page " + std::to_string(p) + " would be " + std::to_string(static_cast<uint64_t>(ow)) + " x " +
             std::to_string(static_cast<uint64_t>(oh)) + " device pixels, beyond what a page can be");
      label = o.input + (pages > 1 ? " page " + std::to_string(p) : "");
      lines = std::make_unique<ImageLines>(std::move(img), static_cast<uint32_t>(ow), static_cast<uint32_t>(oh), o.threads);
    }
    if (icc_name.empty()) icc_name = "input profile";
    ColourLink link(channels, icc, icc_name, profiles, o.threads);
    verbose("%s: %u x %u device pixels, %u channel(s) in, %s", label.c_str(), lines->width, lines->height, channels,
            link.identity() ? "no colour conversion" : "device link applied");
    // The preview shows the first page ripped.
    if (!o.preview.empty() && p == o.first_page)
      preview = std::make_unique<Preview>(o.preview, lines->width, lines->height, o.preview_size, profiles);
    Library::clear_message();
    vf = VLIMG_Open(out.temp().c_str(), p == o.first_page ? VLIMG_MODE_CREATE : VLIMG_MODE_APPEND);
    if (!vf) fail_lib(o.output + ": cannot write");
    rip_page(o, o.paper_profile.empty() ? nullptr : &paper, profiles, *lines, link, vf,
             p == o.first_page ? preview.get() : nullptr, p, label);
    VLIMG_File *done = vf;
    vf = nullptr;
    if (VLIMG_Close(done) != 0) fail_lib(o.output + ": cannot finish the page");
    if (preview && p == o.first_page) preview->finish();
  }
  out.commit();
  if (preview) preview->commit();
  return kOk;
}

}  // namespace zt::tool
