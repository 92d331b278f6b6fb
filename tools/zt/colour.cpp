// Colour through Little CMS (building the link) and the library's table
// interpolator (applying it).
#include "colour.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <lcms2.h>

#include "tool.h"

namespace zt::tool {

namespace {

thread_local std::string t_lcms_error;
void lcms_error(cmsContext, cmsUInt32Number, const char *text) {
  if (t_lcms_error.empty()) t_lcms_error = text ? text : "";
}

struct ProfileHandle {
  cmsHPROFILE h = nullptr;
  ~ProfileHandle() {
    if (h) cmsCloseProfile(h);
  }
};

cmsHPROFILE open_profile(const std::vector<uint8_t> &bytes, const std::string &name) {
  cmsSetLogErrorHandler(lcms_error);
  t_lcms_error.clear();
  cmsHPROFILE h = cmsOpenProfileFromMem(bytes.data(), static_cast<cmsUInt32Number>(bytes.size()));
  if (!h) fail(name + ": not an ICC profile" + (t_lcms_error.empty() ? "" : " (" + t_lcms_error + ")"));
  return h;
}

uint32_t profile_channels(cmsHPROFILE h) { return cmsChannelsOf(cmsGetColorSpace(h)); }

}  // namespace

std::vector<uint8_t> read_file_bytes(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f) fail(path + ": " + std::strerror(errno));
  std::vector<uint8_t> out;
  uint8_t buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
    out.insert(out.end(), buf, buf + n);
    if (out.size() > (64u << 20)) {
      std::fclose(f);
      fail(path + ": larger than any ICC profile");
    }
  }
  const bool bad = std::ferror(f);
  std::fclose(f);
  if (bad) fail(path + ": " + std::strerror(errno));
  return out;
}

void check_profile(const std::vector<uint8_t> &bytes, const std::string &name, uint32_t channels) {
  ProfileHandle p{open_profile(bytes, name)};
  if (channels && profile_channels(p.h) != channels)
    fail(name + ": a profile of " + std::to_string(profile_channels(p.h)) + " channels where " +
         std::to_string(channels) + " are needed");
}

ColourLink::ColourLink(uint32_t channels, const std::vector<uint8_t> &input, const std::string &input_name,
                       const Profiles &profiles, uint32_t threads)
    : channels_(channels) {
  if (channels == 4 && input.empty()) return;  // already in the output's inks
  ProfileHandle out{open_profile(profiles.output, profiles.output_name)};
  ProfileHandle in;
  if (!input.empty()) {
    in.h = open_profile(input, input_name);
    if (profile_channels(in.h) != channels)
      fail(input_name + ": a profile of " + std::to_string(profile_channels(in.h)) + " channels for an image of " +
           std::to_string(channels));
  } else if (channels == 3) {
    in.h = cmsCreate_sRGBProfile();
  } else {
    cmsToneCurve *gamma = cmsBuildGamma(nullptr, 2.2);
    in.h = cmsCreateGrayProfile(cmsD50_xyY(), gamma);
    cmsFreeToneCurve(gamma);
  }
  const cmsUInt32Number in_format = channels == 1 ? TYPE_GRAY_16 : channels == 3 ? TYPE_RGB_16 : TYPE_CMYK_16;
  t_lcms_error.clear();
  cmsHTRANSFORM t = cmsCreateTransform(in.h, in_format, out.h, TYPE_CMYK_16, static_cast<cmsUInt32Number>(profiles.intent),
                                       cmsFLAGS_NOCACHE | cmsFLAGS_HIGHRESPRECALC);
  if (!t) fail(input_name + ": Little CMS cannot link it to " + profiles.output_name + ": " + t_lcms_error);
  // Grey is sampled along the first axis of a three-input grid and fed three
  // equal rows: exact, since the grid does not vary along the other two.
  const uint32_t inputs = channels == 4 ? 4 : 3;
  uint64_t points = 1;
  for (uint32_t i = 0; i < inputs; ++i) points *= kGridPoints;
  std::vector<uint16_t> in_samples(points * channels), out_samples(points * 4);
  for (uint64_t p = 0; p < points; ++p) {
    uint64_t rest = p;
    uint16_t coord[4] = {};
    for (int a = static_cast<int>(inputs) - 1; a >= 0; --a) {
      coord[a] = static_cast<uint16_t>((rest % kGridPoints) * 65535 / (kGridPoints - 1));
      rest /= kGridPoints;
    }
    for (uint32_t c = 0; c < channels; ++c) in_samples[p * channels + c] = coord[c];
  }
  cmsDoTransform(t, in_samples.data(), out_samples.data(), static_cast<cmsUInt32Number>(points));
  cmsDeleteTransform(t);
  std::vector<float> grid(out_samples.begin(), out_samples.end());
  interp_ = TableInterpolatorInit_uchar(inputs, kGridPoints, 4, grid.data(), ZT_INTERP_PRISM,
                                        static_cast<int32_t>(threads), nullptr);
  if (!interp_) fail_lib("cannot make the colour interpolator");
}

ColourLink::~ColourLink() { TableInterpolatorDestroy(interp_); }

void ColourLink::convert(const uint8_t *src, uint8_t *dst, uint32_t width, uint32_t lines) {
  if (!interp_) {
    std::memcpy(dst, src, static_cast<size_t>(width) * 4 * lines);
    return;
  }
  const uint8_t *from = src;
  uint32_t inputs = channels_;
  if (channels_ == 1) {
    scratch_.resize(static_cast<size_t>(width) * 3 * lines);
    for (uint32_t l = 0; l < lines; ++l)
      for (int c = 0; c < 3; ++c)
        std::memcpy(&scratch_[(static_cast<size_t>(l) * 3 + c) * width], src + static_cast<size_t>(l) * width, width);
    from = scratch_.data();
    inputs = 3;
  }
  if (TableInterpolatorConvertRect(interp_, from, width * inputs, dst, width * 4, width, lines, 1) != 0)
    fail_lib("colour conversion failed");
}

Proof::Proof(const Profiles &profiles) {
  ProfileHandle out{open_profile(profiles.output, profiles.output_name)};
  ProfileHandle srgb{cmsCreate_sRGBProfile()};
  transform_ = cmsCreateTransform(out.h, TYPE_CMYK_8, srgb.h, TYPE_RGB_8, INTENT_RELATIVE_COLORIMETRIC, 0);
  if (!transform_) fail(profiles.output_name + ": Little CMS cannot make the proof transform");
}

Proof::~Proof() {
  if (transform_) cmsDeleteTransform(static_cast<cmsHTRANSFORM>(transform_));
}

void Proof::convert(const uint8_t *cmyk, uint8_t *rgb, uint32_t pixels) {
  cmsDoTransform(static_cast<cmsHTRANSFORM>(transform_), cmyk, rgb, pixels);
}

}  // namespace zt::tool
