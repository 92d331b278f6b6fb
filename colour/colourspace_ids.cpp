// The colour-space identifiers: one table of what the library attaches to each
// identifier, and the mappings to and from ICC colour-space signatures.
#include <zt/colourspace.h>

#include <cstddef>
#include <cstdint>

#include "foundation/internal.h"

namespace {

constexpr const char *kModule = "colourspace";

constexpr uint32_t sig(const char (&s)[5]) { return ZT_ICC_SIGNATURE(s[0], s[1], s[2], s[3]); }

constexpr uint32_t kGray = sig("GRAY");
constexpr uint32_t kRgb = sig("RGB ");
constexpr uint32_t kCmyk = sig("CMYK");
constexpr uint32_t kMch6 = sig("MCH6");
constexpr uint32_t kNone = ZT_ICC_NO_SIGNATURE;

struct ColourSpace {
  int32_t channels;  // 1 where a profile supplies the real count
  uint32_t to_icc;   // the signature written for this identifier
  bool additive;
  uint8_t fill;
};

// Indexed by identifier 0 ... 17. Identifier 0 writes "GRAY" although "GRAY"
// reads back as 14: the one-way mapping is part of the file formats' history.
constexpr ColourSpace kColourSpaces[] = {
    {1, kGray, false, 0},        // 0 black only
    {3, kRgb, true, 255},        // 1 RGB
    {4, kCmyk, false, 0},        // 2 CMYK
    {1, kNone, false, 0},        // 3
    {3, kNone, false, 128},      // 4 CIELAB
    {3, kNone, false, 0},        // 5
    {6, sig("6CLR"), false, 0},  // 6 CMYK plus two
    {6, kMch6, false, 0},        // 7 six-channel multicolour
    {1, kNone, false, 0},        // 8
    {8, kNone, false, 0},        // 9 eight-channel
    {1, kNone, false, 0},        // 10
    {1, kNone, false, 0},        // 11 N-colour, count from the profile
    {7, sig("7CLR"), false, 0},  // 12 CMYK plus red, green and blue
    {10, kNone, false, 0},       // 13 ten-channel
    {1, kGray, true, 255},       // 14 additive grey
    {11, kNone, false, 0},       // 15 eleven-channel
    {1, kNone, false, 0},        // 16 CMYK+Ncolour, count from the paper profile
    {1, kNone, false, 0},        // 17 CMYK+CMYK+Ncolour, likewise
};
constexpr int32_t kColourSpaceCount = static_cast<int32_t>(sizeof kColourSpaces / sizeof kColourSpaces[0]);
static_assert(kColourSpaceCount == ZT_CS_CMYK_CMYK_NCOLOUR + 1);

const ColourSpace *lookup(int32_t identifier) {
  if (identifier < 0 || identifier >= kColourSpaceCount) return nullptr;
  return &kColourSpaces[identifier];
}

// "1CLR" ... "9CLR" and "ACLR" ... "GCLR": the N-colour spaces of 1 to 16 inks.
bool is_nclr(uint32_t signature) {
  if ((signature & 0x00FFFFFFu) != (sig("xCLR") & 0x00FFFFFFu)) return false;
  const uint32_t lead = signature >> 24;
  return (lead >= '1' && lead <= '9') || (lead >= 'A' && lead <= 'G');
}

int32_t clamp_intent(int32_t intent) { return intent >= -1 && intent <= 3 ? intent : ZT_INTENT_PERCEPTUAL; }

}  // namespace

extern "C" {

ZT_API int32_t ZT_ServercolourspaceFromICCcolourspace(uint32_t signature) {
  if (signature == kGray) return ZT_CS_GREY;
  if (signature == kRgb) return ZT_CS_RGB;
  if (signature == kCmyk) return ZT_CS_CMYK;
  if (signature == kMch6) return ZT_CS_MULTICOLOUR6;
  if (is_nclr(signature)) return ZT_CS_NCOLOUR;
  return ZT_CS_UNKNOWN_ICC;
}

ZT_API uint32_t ZT_ICCcolourspaceFromServercolourspace(int32_t identifier) {
  const ColourSpace *cs = lookup(identifier);
  return cs != nullptr ? cs->to_icc : kNone;
}

ZT_API int32_t isAdditiveColourspace(int32_t identifier) {
  const ColourSpace *cs = lookup(identifier);
  return cs != nullptr && cs->additive ? 1 : 0;
}

ZT_API uint8_t fillcharFromColourspace(int32_t identifier) {
  const ColourSpace *cs = lookup(identifier);
  return cs != nullptr ? cs->fill : 0;
}

ZT_API uint8_t fillcharFromICCColourspace(uint32_t signature) {
  return signature == kRgb || signature == kGray ? 255 : 0;
}

ZT_API int32_t NumberofBandsFromColourSpace(int32_t identifier) {
  const ColourSpace *cs = lookup(identifier);
  return cs != nullptr ? cs->channels : 1;
}

ZT_API int32_t toIccIntent(int32_t intent) { return clamp_intent(intent); }

ZT_API int32_t fromIccIntent(int32_t intent) { return clamp_intent(intent); }

ZT_API int32_t ZT_CheckDisplayListColourspace(int32_t identifier, int32_t has_paper_profile) {
  static constexpr const char *kFunction = "ZT_CheckDisplayListColourspace";
  switch (identifier) {
    case ZT_CS_RESERVED3:
    case ZT_CS_RESERVED5:
    case ZT_CS_RESERVED8:
    case ZT_CS_RESERVED10:
    case ZT_CS_NCOLOUR:
      break;
    case ZT_CS_CMYK_NCOLOUR:
      if (has_paper_profile) return 0;
      ZT_LOG(kModule, kFunction, "CMYK+Ncolour colourspace requires a paperprofile");
      return -1;
    case ZT_CS_CMYK_CMYK_NCOLOUR:
      if (has_paper_profile) return 0;
      ZT_LOG(kModule, kFunction, "CMYK+CMYK+Ncolour colourspace requires a paperprofile");
      return -1;
    default:
      if (lookup(identifier) != nullptr) return 0;
      break;
  }
  ZT_LOG(kModule, kFunction, "Unknown colourspace %d requested", identifier);
  return -1;
}

}  // extern "C"
