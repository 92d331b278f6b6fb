// CCITT run-length and mode codes for Group 4 (ITU-T T.6) coding: the terminating
// and make-up codes of ITU-T T.4 Tables 2 and 3 and the mode codes of T.6
// Table 1. Each code is its bits right-aligned in `bits`, first-sent bit
// highest, and its length.
#pragma once

#include <cstdint>

namespace zt::raster::g4 {

struct Code {
  uint16_t bits;
  uint8_t length;
};

// Runs 0 to 63.
inline constexpr Code kWhiteTerm[64] = {
    {0x0035, 8}, {0x0007, 6}, {0x0007, 4}, {0x0008, 4}, {0x000b, 4}, {0x000c, 4}, {0x000e, 4}, {0x000f, 4},
    {0x0013, 5}, {0x0014, 5}, {0x0007, 5}, {0x0008, 5}, {0x0008, 6}, {0x0003, 6}, {0x0034, 6}, {0x0035, 6},
    {0x002a, 6}, {0x002b, 6}, {0x0027, 7}, {0x000c, 7}, {0x0008, 7}, {0x0017, 7}, {0x0003, 7}, {0x0004, 7},
    {0x0028, 7}, {0x002b, 7}, {0x0013, 7}, {0x0024, 7}, {0x0018, 7}, {0x0002, 8}, {0x0003, 8}, {0x001a, 8},
    {0x001b, 8}, {0x0012, 8}, {0x0013, 8}, {0x0014, 8}, {0x0015, 8}, {0x0016, 8}, {0x0017, 8}, {0x0028, 8},
    {0x0029, 8}, {0x002a, 8}, {0x002b, 8}, {0x002c, 8}, {0x002d, 8}, {0x0004, 8}, {0x0005, 8}, {0x000a, 8},
    {0x000b, 8}, {0x0052, 8}, {0x0053, 8}, {0x0054, 8}, {0x0055, 8}, {0x0024, 8}, {0x0025, 8}, {0x0058, 8},
    {0x0059, 8}, {0x005a, 8}, {0x005b, 8}, {0x004a, 8}, {0x004b, 8}, {0x0032, 8}, {0x0033, 8}, {0x0034, 8},
};

// Runs 0 to 63.
inline constexpr Code kBlackTerm[64] = {
    {0x0037, 10}, {0x0002, 3},  {0x0003, 2},  {0x0002, 2},  {0x0003, 3},  {0x0003, 4},  {0x0002, 4},
    {0x0003, 5},  {0x0005, 6},  {0x0004, 6},  {0x0004, 7},  {0x0005, 7},  {0x0007, 7},  {0x0004, 8},
    {0x0007, 8},  {0x0018, 9},  {0x0017, 10}, {0x0018, 10}, {0x0008, 10}, {0x0067, 11}, {0x0068, 11},
    {0x006c, 11}, {0x0037, 11}, {0x0028, 11}, {0x0017, 11}, {0x0018, 11}, {0x00ca, 12}, {0x00cb, 12},
    {0x00cc, 12}, {0x00cd, 12}, {0x0068, 12}, {0x0069, 12}, {0x006a, 12}, {0x006b, 12}, {0x00d2, 12},
    {0x00d3, 12}, {0x00d4, 12}, {0x00d5, 12}, {0x00d6, 12}, {0x00d7, 12}, {0x006c, 12}, {0x006d, 12},
    {0x00da, 12}, {0x00db, 12}, {0x0054, 12}, {0x0055, 12}, {0x0056, 12}, {0x0057, 12}, {0x0064, 12},
    {0x0065, 12}, {0x0052, 12}, {0x0053, 12}, {0x0024, 12}, {0x0037, 12}, {0x0038, 12}, {0x0027, 12},
    {0x0028, 12}, {0x0058, 12}, {0x0059, 12}, {0x002b, 12}, {0x002c, 12}, {0x005a, 12}, {0x0066, 12},
    {0x0067, 12},
};

// Runs 64 to 1,728 in steps of 64.
inline constexpr Code kWhiteMakeup[27] = {
    {0x001b, 5}, {0x0012, 5}, {0x0017, 6}, {0x0037, 7}, {0x0036, 8}, {0x0037, 8}, {0x0064, 8},
    {0x0065, 8}, {0x0068, 8}, {0x0067, 8}, {0x00cc, 9}, {0x00cd, 9}, {0x00d2, 9}, {0x00d3, 9},
    {0x00d4, 9}, {0x00d5, 9}, {0x00d6, 9}, {0x00d7, 9}, {0x00d8, 9}, {0x00d9, 9}, {0x00da, 9},
    {0x00db, 9}, {0x0098, 9}, {0x0099, 9}, {0x009a, 9}, {0x0018, 6}, {0x009b, 9},
};

// Runs 64 to 1,728 in steps of 64.
inline constexpr Code kBlackMakeup[27] = {
    {0x000f, 10}, {0x00c8, 12}, {0x00c9, 12}, {0x005b, 12}, {0x0033, 12}, {0x0034, 12}, {0x0035, 12},
    {0x006c, 13}, {0x006d, 13}, {0x004a, 13}, {0x004b, 13}, {0x004c, 13}, {0x004d, 13}, {0x0072, 13},
    {0x0073, 13}, {0x0074, 13}, {0x0075, 13}, {0x0076, 13}, {0x0077, 13}, {0x0052, 13}, {0x0053, 13},
    {0x0054, 13}, {0x0055, 13}, {0x005a, 13}, {0x005b, 13}, {0x0064, 13}, {0x0065, 13},
};

// Runs 1,792 to 2,560 in steps of 64, the same for both colours.
inline constexpr Code kExtMakeup[13] = {
    {0x0008, 11}, {0x000c, 11}, {0x000d, 11}, {0x0012, 12}, {0x0013, 12}, {0x0014, 12}, {0x0015, 12},
    {0x0016, 12}, {0x0017, 12}, {0x001c, 12}, {0x001d, 12}, {0x001e, 12}, {0x001f, 12},
};

// Two-dimensional mode codes. VRn: a1 lies n pixels right of b1; VLn: n left.
inline constexpr Code kPass = {0x0001, 4};
inline constexpr Code kHorizontal = {0x0001, 3};
inline constexpr Code kV0 = {0x0001, 1};
inline constexpr Code kVR1 = {0x0003, 3};
inline constexpr Code kVR2 = {0x0003, 6};
inline constexpr Code kVR3 = {0x0003, 7};
inline constexpr Code kVL1 = {0x0002, 3};
inline constexpr Code kVL2 = {0x0002, 6};
inline constexpr Code kVL3 = {0x0002, 7};
inline constexpr Code kEol = {0x0001, 12};
// Vertical codes by a1 - b1 + 3, from VL3 to VR3.
inline constexpr Code kVertical[7] = {
    {0x0002, 7}, {0x0002, 6}, {0x0002, 3}, {0x0001, 1}, {0x0003, 3}, {0x0003, 6}, {0x0003, 7},
};

}  // namespace zt::raster::g4
