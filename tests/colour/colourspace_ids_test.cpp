// Colour-space identifiers: ICC signatures both ways (with the GRAY
// asymmetry), additivity, fill characters, channel counts, intents and the
// display-list check.
#include <gtest/gtest.h>
#include <zt/colourspace.h>

#include <climits>
#include <set>
#include <string>

#include "colour/ztcms_fixture.h"

namespace {

using ColourSpaceTest = zt::test::ColourTest;

uint32_t sig(const char *s) { return ZT_ICC_SIGNATURE(s[0], s[1], s[2], s[3]); }

// What is written reads back as itself, except that black-only 0 comes back
// as the additive grey 14, and "6CLR" and "7CLR" come back as N-colour.
TEST_F(ColourSpaceTest, SignaturesBothWays) {
  std::set<int32_t> written;
  for (int32_t id = -2; id <= 20; ++id) {
    const uint32_t s = ZT_ICCcolourspaceFromServercolourspace(id);
    if (s == ZT_ICC_NO_SIGNATURE) continue;
    written.insert(id);
    const int32_t expect = id == 0 ? ZT_CS_GREY : id == 6 || id == 12 ? ZT_CS_NCOLOUR : id;
    EXPECT_EQ(ZT_ServercolourspaceFromICCcolourspace(s), expect) << id;
  }
  EXPECT_EQ(written, (std::set<int32_t>{0, 1, 2, 6, 7, 12, 14}));
  EXPECT_EQ(ZT_ICCcolourspaceFromServercolourspace(0), sig("GRAY"));
  EXPECT_EQ(ZT_ICCcolourspaceFromServercolourspace(12), sig("7CLR"));
  EXPECT_EQ(ZT_ICCcolourspaceFromServercolourspace(ZT_CS_LAB), 0xFFFFFFFFu);
  for (const char *s : {"1CLR", "9CLR", "ACLR", "GCLR"}) {
    EXPECT_EQ(ZT_ServercolourspaceFromICCcolourspace(sig(s)), ZT_CS_NCOLOUR) << s;
  }
  for (const char *s : {"0CLR", "HCLR", "aCLR", ":CLR", "@CLR", "1CLX", "Lab ", "MCH5", "gray"}) {
    EXPECT_EQ(ZT_ServercolourspaceFromICCcolourspace(sig(s)), ZT_CS_UNKNOWN_ICC) << s;
  }
}

TEST_F(ColourSpaceTest, AdditivityFillAndChannels) {
  // Paper white: full scale in the light-additive spaces, the neutral axis in
  // Lab, no ink in the subtractive and unknown ones.
  struct Case {
    int32_t id;
    int32_t additive, fill;
  };
  const Case cases[] = {{ZT_CS_RGB, 1, 255}, {ZT_CS_GREY, 1, 255}, {ZT_CS_LAB, 0, 128},
                        {ZT_CS_CMYK, 0, 0},  {ZT_CS_BLACK, 0, 0},  {ZT_CS_CHANNELS11, 0, 0},
                        {-3, 0, 0},          {40, 0, 0}};
  for (const Case &c : cases) {
    EXPECT_EQ(isAdditiveColourspace(c.id), c.additive) << c.id;
    EXPECT_EQ(fillcharFromColourspace(c.id), c.fill) << c.id;
  }
  for (const char *s : {"RGB ", "GRAY", "CMYK", "3CLR", "Lab "}) {
    EXPECT_EQ(fillcharFromICCColourspace(sig(s)), s[0] == 'R' || s[0] == 'G' ? 255 : 0) << s;
  }
  // Spaces whose count a profile supplies, and values outside the table, say 1.
  for (int32_t id : {11, 16, 17, 18, INT_MAX, -1, INT_MIN})
    EXPECT_EQ(NumberofBandsFromColourSpace(id), 1) << id;
  EXPECT_EQ(NumberofBandsFromColourSpace(ZT_CS_CHANNELS11), 11);
}

TEST_F(ColourSpaceTest, IntentsPassOrFallBackToPerceptual) {
  for (int32_t intent : {-1, 0, 1, 2, 3, -2, 4, 7, INT_MAX, INT_MIN}) {
    const int32_t expect = intent >= -1 && intent <= 3 ? intent : ZT_INTENT_PERCEPTUAL;
    EXPECT_EQ(toIccIntent(intent), expect);
    EXPECT_EQ(fromIccIntent(intent), expect);
  }
}

TEST_F(ColourSpaceTest, DisplayListCheck) {
  for (int32_t id : {0, 1, 2, 4, 6, 7, 9, 12, 13, 14, 15})
    EXPECT_EQ(ZT_CheckDisplayListColourspace(id, 0), 0);
  EXPECT_EQ(ZT_CheckDisplayListColourspace(16, 1), 0);
  EXPECT_EQ(ZT_CheckDisplayListColourspace(17, 1), 0);
  for (int32_t id : {3, 5, 8, 10, 11, 18, -1}) {
    EXPECT_EQ(ZT_CheckDisplayListColourspace(id, 1), -1);
    expect_one_log("ZT_CheckDisplayListColourspace",
                   "Unknown colourspace " + std::to_string(id) + " requested");
  }
  EXPECT_EQ(ZT_CheckDisplayListColourspace(16, 0), -1);
  expect_one_log("ZT_CheckDisplayListColourspace", "CMYK+Ncolour colourspace requires a paperprofile");
  EXPECT_EQ(ZT_CheckDisplayListColourspace(17, 0), -1);
  ASSERT_EQ(log_.count(), 1u);
  EXPECT_EQ(log_.lines()[0].message, "CMYK+CMYK+Ncolour colourspace requires a paperprofile");
  log_.clear();
}

}  // namespace
