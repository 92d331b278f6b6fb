// The exported screening objects: creation checks the settings, builds the
// levels, the input tables and the mode's matrix, weights or tiles, and
// installs the mode's scanline routine; destruction releases it all.
#include <zt/screening.h>
#include <zt/threads.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "foundation/internal.h"
#include "screening/screening_internal.h"

namespace zt::screening {
namespace {

constexpr const char *kCreate = "CreateScreeningObject";

struct ObjectDeleter {
  void operator()(ScreeningObject *o) const { DestroyScreeningObject(o); }
};
using ObjectPtr = std::unique_ptr<ScreeningObject, ObjectDeleter>;

// Checks the scanline and hands over to the mode's routine.
int32_t checked_screen(ScreeningObject *o, void *input, uint8_t *output, uint32_t width, uint32_t y) {
  if (o == nullptr || input == nullptr || output == nullptr || width > o->width) {
    ZT_LOG(kModule, "screenScanline", "Cannot screen a scanline of %u pixels", width);
    return -1;
  }
  if (width == 0) return 0;
  switch (o->mode) {
    case ZT_SCREEN_STOCHASTIC:
    case ZT_SCREEN_STOCHASTIC_B:
      return screen_error_diffusion(o, input, output, width, y);
    case ZT_SCREEN_PATTERN:
      return screen_pattern(o, input, output, width, y);
    default:
      return screen_threshold(o, input, output, width, y);
  }
}

// A table of the input's size, identity to start with.
uint16_t *identity_table(uint32_t size) {
  uint16_t *t = static_cast<uint16_t *>(std::malloc(size * sizeof(uint16_t)));
  if (t != nullptr)
    for (uint32_t i = 0; i < size; ++i) t[i] = static_cast<uint16_t>(i);
  return t;
}

// The colour-management tables of the channel: the linearisation curve (its
// points evenly spaced over the input range, outputs 0 ... 65535), the ink
// limit (a scale below full ink) and the black table (identity: black
// generation happens in colour conversion). Their composition is the input
// table, left null when it changes nothing.
int32_t build_tables(ScreeningObject *o, const ScreeningSettings *s) {
  const uint32_t size = o->inputBits == 16 ? 65536u : 256u;
  const double top = size - 1.0;
  if (s->linearisationPoints == 1 || s->linearisationPoints > 65536 ||
      (s->linearisationPoints != 0 && s->linearisation == nullptr) ||
      (o->channelLinearisation = identity_table(size)) == nullptr) {
    ZT_LOG(kModule, kCreate, "Cannot create channel linearisation lut");
    return -1;
  }
  if (s->linearisationPoints >= 2) {
    const uint32_t n = s->linearisationPoints;
    for (uint32_t i = 0; i < size; ++i) {
      const double pos = i * (n - 1) / top;
      const uint32_t k = pos >= n - 1 ? n - 2 : static_cast<uint32_t>(pos);
      const double f = pos - k;
      const double v =
          (s->linearisation[k] + (s->linearisation[k + 1] - s->linearisation[k]) * f) / 65535.0 * top;
      o->channelLinearisation[i] = static_cast<uint16_t>(std::floor(v + 0.5));
    }
  }
  if (!(s->inkLimit >= 0.0 && s->inkLimit <= 100.0) ||
      (o->channelInkLimit = identity_table(size)) == nullptr) {
    ZT_LOG(kModule, kCreate, "Cannot create channel ink limiting lut");
    return -1;
  }
  const bool limited = s->inkLimit > 0.0 && s->inkLimit < 100.0;
  if (limited)
    for (uint32_t i = 0; i < size; ++i)
      o->channelInkLimit[i] = static_cast<uint16_t>(std::floor(i * s->inkLimit / 100.0 + 0.5));
  o->blackLut = identity_table(size);
  if (o->blackLut == nullptr) {
    ZT_LOG(kModule, kCreate, "Error NULL black lut encountered");
    return -1;
  }
  bool identity = true;
  for (uint32_t i = 0; i < size && identity; ++i)
    identity = o->channelInkLimit[o->channelLinearisation[o->blackLut[i]]] == i;
  if (identity) return 0;
  void *lut = std::malloc(size * (o->inputBits == 16 ? 2 : 1));
  if (lut == nullptr) {
    ZT_LOG(kModule, kCreate, "Cannot create channel linearisation lut");
    return -1;
  }
  for (uint32_t i = 0; i < size; ++i) {
    const uint16_t v = o->channelInkLimit[o->channelLinearisation[o->blackLut[i]]];
    if (o->inputBits == 16)
      static_cast<uint16_t *>(lut)[i] = v;
    else
      static_cast<uint8_t *>(lut)[i] = static_cast<uint8_t>(v);
  }
  o->inputLut = lut;
  return 0;
}

ScreeningObject *allocate(uint32_t mode, uint32_t width, uint32_t input_bits, uint32_t planes,
                          uint32_t levels) {
  // Sixteen planes of a 2^31-pixel line would not fit the 32-bit byte count.
  if (static_cast<uint64_t>(planes) * ((width + 7ull) / 8) > 0xFFFFFFFFull) {
    ZT_LOG(kModule, kCreate, "Bad scanline width %u", width);
    return nullptr;
  }
  ScreeningObject *o = static_cast<ScreeningObject *>(std::calloc(1, sizeof(ScreeningObject)));
  if (o == nullptr) {
    ZT_LOG(kModule, kCreate, "Cannot allocate memory for object");
    return nullptr;
  }
  o->mode = mode;
  o->inputBits = input_bits;
  o->width = width;
  o->outputPlanes = planes;
  o->levels = levels;
  o->bytesPerPlane = (width + 7) / 8;
  o->outputBytes = planes * o->bytesPerPlane;
  o->screenScanline = checked_screen;
  return o;
}

bool width_ok(uint32_t width, const char *function) {
  if (width == 0 || width > 0x7FFFFFFFu) {
    ZT_LOG(kModule, function, "Bad scanline width %u", width);
    return false;
  }
  return true;
}

int32_t build_matrix_mode(ScreeningObject *o, const ScreeningSettings *s) {
  uint32_t w = 0, h = 0;
  switch (s->mode) {
    case ZT_SCREEN_ORDERED_4X4:
      o->matrix = static_cast<uint8_t *>(std::malloc(16));
      if (o->matrix == nullptr) {
        ZT_LOG(kModule, kCreate, "Cannot allocate memory for thresholds");
        return -1;
      }
      ordered4x4(o->matrix);
      w = h = 4;
      break;
    case ZT_SCREEN_HALFTONE_RATIONAL:
      if (SuperCellCreate_rational(s, &o->matrix, &w, &h, &o->effectiveLpi, &o->effectiveAngle) != 0)
        return -1;
      break;
    case ZT_SCREEN_HALFTONE_SUPERCELL:
      if (SuperCellCreate(s, &o->matrix, &w, &h, &o->effectiveLpi, &o->effectiveAngle) != 0) return -1;
      break;
    case ZT_SCREEN_BLUE_NOISE:
      if (blue_noise_matrix(s, &o->matrix, &w) != 0) return -1;
      h = w;
      break;
    case ZT_SCREEN_VRFS:
      if (load_vrfs(s, &o->matrix, &w, &h) != 0) return -1;
      break;
    default:
      return -1;
  }
  o->cellWidth = w;
  o->cellHeight = h;
  if (build_matrix_rows(o) != 0) return -1;
  return build_level_tables(o);
}

ScreeningObject *create(const ScreeningSettings *s, uint32_t width, uint32_t input_bits) {
  if (s == nullptr) {
    ZT_LOG(kModule, kCreate, "Uknown screening mode requested");
    return nullptr;
  }
  if (!width_ok(width, kCreate)) return nullptr;
  if (input_bits != 8 && input_bits != 16) {
    ZT_LOG(kModule, kCreate, "%u bits per pixel is not currently supported", input_bits);
    return nullptr;
  }
  const uint32_t planes = s->outputBits == 0 ? 1 : s->outputBits;
  if (planes > 16 || s->levels < 2) {
    ZT_LOG(kModule, kCreate, "Unsupported number of levels %d and bpp %d", static_cast<int>(s->levels),
           static_cast<int>(planes));
    return nullptr;
  }
  if (s->levels > (1u << planes)) {
    ZT_LOG(kModule, kCreate, "screenlevels %d is too large for bpp = %d", static_cast<int>(s->levels),
           static_cast<int>(planes));
    return nullptr;
  }
  switch (s->mode) {
    case ZT_SCREEN_HALFTONE_RATIONAL:
    case ZT_SCREEN_HALFTONE_SUPERCELL:
    case ZT_SCREEN_BLUE_NOISE:
    case ZT_SCREEN_STOCHASTIC:
    case ZT_SCREEN_STOCHASTIC_B:
    case ZT_SCREEN_VRFS:
    case ZT_SCREEN_ORDERED_4X4:
      break;
    case ZT_SCREEN_PATTERN:
      if (input_bits != 8) {
        ZT_LOG(kModule, kCreate,
               "%u bits per pixel input is not currently supported, please use Stochastic screening instead",
               input_bits);
        return nullptr;
      }
      if (s->levels != 2) {
        ZT_LOG(kModule, kCreate, "Unsupported number of levels %d and bpp %d", static_cast<int>(s->levels),
               static_cast<int>(planes));
        return nullptr;
      }
      break;
    case 7:
      ZT_LOG(kModule, kCreate, "Screening mode 7 is not supported, use mode 2 or 3");
      return nullptr;
    default:
      ZT_LOG(kModule, kCreate, "Uknown screening mode requested");
      return nullptr;
  }
  if (s->levels > 256 && s->mode != ZT_SCREEN_STOCHASTIC && s->mode != ZT_SCREEN_STOCHASTIC_B) {
    ZT_LOG(kModule, kCreate, "Unsupported number of levels %d and bpp %d", static_cast<int>(s->levels),
           static_cast<int>(planes));
    return nullptr;
  }
  ObjectPtr o(allocate(s->mode, width, input_bits, planes, s->levels));
  if (o == nullptr) return nullptr;
  if (GeneratePixelThresholdsAndDensities(s, s->levels, &o->thresholds, &o->densities, &o->dotCodes,
                                          input_bits) != 0)
    return nullptr;
  if (build_tables(o.get(), s) != 0) return nullptr;
  if (s->mode == ZT_SCREEN_STOCHASTIC || s->mode == ZT_SCREEN_STOCHASTIC_B) {
    if (create_stochastic_structs(o.get()) != 0) return nullptr;
  } else if (s->mode == ZT_SCREEN_PATTERN) {
    if (build_pattern_tiles(o.get(), s) != 0) return nullptr;
  } else if (build_matrix_mode(o.get(), s) != 0) {
    return nullptr;
  }
  return o.release();
}

struct ChannelJob {
  ScreeningObject *object;
  uint8_t *input;
  size_t input_stride;
  uint8_t *output;
  size_t output_stride;
  uint32_t width, y, lines;
  int32_t status;
};

void run_channel(void *argument) {
  ChannelJob *job = static_cast<ChannelJob *>(argument);
  job->status = 0;
  for (uint32_t l = 0; l < job->lines && job->status == 0; ++l)
    job->status = job->object->screenScanline(job->object, job->input + l * job->input_stride,
                                              job->output + l * job->output_stride, job->width, job->y + l);
}

// Channels first, first + step, ... below count, one after another.
struct ChannelPiece {
  ChannelJob *jobs;
  uint32_t first, step, count;
};

void run_piece(void *argument) {
  const ChannelPiece *piece = static_cast<const ChannelPiece *>(argument);
  for (uint32_t c = piece->first; c < piece->count; c += piece->step) run_channel(&piece->jobs[c]);
}

}  // namespace
}  // namespace zt::screening

using namespace zt::screening;

extern "C" {

ZT_API ScreeningObject *CreateScreeningObject(const ScreeningSettings *settings, uint32_t width,
                                              uint32_t inputBits) {
  return zt::api_guard<ScreeningObject *>(kModule, kCreate, nullptr,
                                          [&] { return create(settings, width, inputBits); });
}

ZT_API ScreeningObject *CreateScreeningObject16To8(uint32_t mode, uint32_t width) {
  const char *function = "CreateScreeningObject16To8";
  return zt::api_guard<ScreeningObject *>(kModule, function, nullptr, [&]() -> ScreeningObject * {
    if (mode != ZT_SCREEN_STOCHASTIC) {
      ZT_LOG(kModule, function, "Only stochastic screening is currently supported");
      return nullptr;
    }
    if (!width_ok(width, function)) return nullptr;
    ObjectPtr o(allocate(mode, width, 16, 8, 256));
    if (o == nullptr) return nullptr;
    o->byteOutput = 1;
    o->outputBytes = width;
    ScreeningSettings s{};
    s.mode = mode;
    s.levels = 256;
    s.outputBits = 8;
    if (GeneratePixelThresholdsAndDensities(&s, 256, &o->thresholds, &o->densities, &o->dotCodes, 16) != 0 ||
        build_tables(o.get(), &s) != 0 || create_stochastic_structs(o.get()) != 0)
      return nullptr;
    return o.release();
  });
}

ZT_API void DestroyScreeningObject(ScreeningObject *object) {
  if (object == nullptr) return;
  release_stochastic_structs(object);
  if (object->freeUserData != nullptr) object->freeUserData(object->userData);
  std::free(object->matrix);
  std::free(object->modulation);
  std::free(object->thresholds);
  std::free(object->densities);
  std::free(object->dotCodes);
  std::free(object->channelLinearisation);
  std::free(object->channelInkLimit);
  std::free(object->blackLut);
  std::free(object->inputLut);
  std::free(object->levelTable);
  std::free(object->matrixRows);
  std::free(object->levelRows);
  for (uint8_t *tile : object->ditherScreens) std::free(tile);
  std::free(object);
}

ZT_API int32_t screeningScreenChannelLines(ScreeningObject **objects, uint32_t channels, void **inputs,
                                           size_t inputStride, uint8_t **outputs, size_t outputStride,
                                           uint32_t width, uint32_t y, uint32_t lines) {
  const char *function = "screeningScreenChannels";
  return zt::api_guard<int32_t>(kModule, function, -1, [&]() -> int32_t {
    if (objects == nullptr || inputs == nullptr || outputs == nullptr || channels == 0) {
      ZT_LOG(kModule, function, "Cannot screen %u channels", channels);
      return -1;
    }
    std::unique_ptr<ChannelJob[]> jobs(new ChannelJob[channels]);
    for (uint32_t c = 0; c < channels; ++c) {
      if (objects[c] == nullptr || inputs[c] == nullptr || outputs[c] == nullptr) {
        ZT_LOG(kModule, function, "Cannot screen %u channels", channels);
        return -1;
      }
      jobs[c] = ChannelJob{objects[c],
                           static_cast<uint8_t *>(inputs[c]),
                           inputStride,
                           outputs[c],
                           outputStride,
                           width,
                           y,
                           lines,
                           -1};
    }
    // When the channels share out evenly over the processors, each piece
    // screens its share one channel after another: the queue has more workers
    // than processors, and channels time-sliced on one processor evict each
    // other's error rows from its caches. Otherwise one piece per channel
    // keeps the load even.
    const uint32_t processors = std::max<uint32_t>(1, ZT_numberOfLogicalCPUS());
    const uint32_t pieces = channels > processors && channels % processors == 0 ? processors : channels;
    std::unique_ptr<ChannelPiece[]> shares(new ChannelPiece[pieces]);
    for (uint32_t p = 0; p < pieces; ++p) shares[p] = ChannelPiece{jobs.get(), p, pieces, channels};
    ZT_TaskQueue *queue = pthread_taskq_get_default();
    ZT_TaskCompletion completion;
    if (queue == nullptr || channels == 1 || pthread_taskq_completion_init(&completion) != 0) {
      for (uint32_t c = 0; c < channels; ++c) run_channel(&jobs[c]);
    } else {
      const int32_t queued = pthread_taskq_enqueue_multiple_and_wait(
          queue, &completion, pieces, run_piece, shares.get(), sizeof(ChannelPiece));
      pthread_taskq_completion_destroy(&completion);
      if (queued != 0) return -1;
    }
    for (uint32_t c = 0; c < channels; ++c)
      if (jobs[c].status != 0) return -1;
    return 0;
  });
}

ZT_API int32_t screeningScreenChannels(ScreeningObject **objects, uint32_t channels, void **inputs,
                                       uint8_t **outputs, uint32_t width, uint32_t y) {
  return screeningScreenChannelLines(objects, channels, inputs, 0, outputs, 0, width, y, 1);
}

}  // extern "C"
