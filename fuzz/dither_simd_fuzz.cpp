// The dither kernels at every level: 16- and 24-bit rows through each method
// and noise kind, and the 16-to-8 buffer copy with and without a context.
// One context is set up and copied, so every run starts from the same table
// position; the bytes out and the cursor left behind must agree between the
// levels, and a row dithered in two calls must equal the row in one (the
// cursor carries the sequence on). The cursor may be put just before the end
// of its table so that the wrap to the start is crossed inside a vector block.
#include <zt/buf.h>
#include <zt/dither.h>

#include "simd_fuzz_support.h"

namespace {

using zt::fuzz::check;

struct Run {
  std::vector<uint8_t> out;
  const void *cursor;
};

template <class Sample, class Fn>
Run dither_row(const DitherContext &base, const std::vector<Sample> &in, size_t split, Fn fn) {
  DitherContext context = base;
  Run run{std::vector<uint8_t>(in.size()), nullptr};
  // Each piece in a buffer of its own size, so that a kernel reading past
  // the piece it was given is caught.
  const std::vector<Sample> head(in.begin(), in.begin() + static_cast<std::ptrdiff_t>(split));
  const std::vector<Sample> tail(in.begin() + static_cast<std::ptrdiff_t>(split), in.end());
  std::vector<uint8_t> out_head(head.size()), out_tail(tail.size());
  fn(&context, out_head.data(), head.data(), static_cast<uint32_t>(head.size()));
  fn(&context, out_tail.data(), tail.data(), static_cast<uint32_t>(tail.size()));
  if (!out_head.empty()) std::memcpy(run.out.data(), out_head.data(), out_head.size());
  if (!out_tail.empty()) std::memcpy(run.out.data() + split, out_tail.data(), out_tail.size());
  run.cursor = context.tableCursor;
  return run;
}

template <class Sample, class Fn>
void compare_levels(const DitherContext &base, const std::vector<Sample> &in, size_t split, Fn fn) {
  Run first{};
  bool have_first = false;
  for (const int32_t level : zt::fuzz::kLevels) {
    zt::fuzz::set_level(level);
    const Run whole = dither_row(base, in, in.size(), fn);
    const Run pieces = dither_row(base, in, split, fn);
    check(whole.out == pieces.out && whole.cursor == pieces.cursor);
    if (have_first) check(whole.out == first.out && whole.cursor == first.cursor);
    first = whole;
    have_first = true;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  zt::fuzz::Reader in(data, size);
  // 7 covers 0 (the default method), the four named ones and two that truncate.
  const uint32_t method = in.byte() % 7;
  const uint32_t kind = in.byte() % 5;
  const uint32_t flags = in.byte();
  const size_t width = in.u16() % 2048;
  const size_t split = width ? in.u16() % (width + 1) : 0;
  const uint32_t back = in.u16();
  const std::vector<uint8_t> pool = in.rest();

  DitherContext base{};
  check(ditherSetup(&base, method, kind) == 0);
  if ((flags & 1) && base.tableCursor != nullptr)
    base.tableCursor = static_cast<const int32_t *>(base.tableEnd) - (1 + back % (width + 16));

  const auto samples16 = zt::fuzz::cycled_as<uint16_t>(pool, width);
  const auto samples24 = zt::fuzz::cycled_as<uint32_t>(pool, width);
  compare_levels(base, samples16, split, ditherBuf16To8);
  compare_levels(base, samples24, split, ditherBuf24To8);

  // The buffer copy: through the table without a context or with the switch
  // off, through the context (the same bytes as ditherBuf16To8) with it on.
  const bool use_dithering = flags & 2;
  setScanlinebufUseDithering(use_dithering);
  std::vector<uint8_t> expected(width), table(width), first(width);
  DitherContext direct = base;
  ditherBuf16To8(&direct, expected.data(), samples16.data(), static_cast<uint32_t>(width));
  for (const int32_t level : zt::fuzz::kLevels) {
    zt::fuzz::set_level(level);
    DitherContext context = base;
    std::vector<uint8_t> out(width);
    check(bufCopy16To8(out.data(), samples16.data(), static_cast<uint32_t>(width), &context) == 0);
    if (use_dithering) check(out == expected && context.tableCursor == direct.tableCursor);
    check(bufCopy16To8(table.data(), samples16.data(), static_cast<uint32_t>(width), nullptr) == 0);
    if (!use_dithering) check(out == table);
    if (level == zt::fuzz::kLevels[0])
      first = table;
    else
      check(table == first);
  }
  setScanlinebufUseDithering(0);
  ditherCleanup(&base, 0);
  return 0;
}
