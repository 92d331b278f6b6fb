// The VRFS screen reader on arbitrary text: it refuses or gives a matrix of
// exactly the sides it announces, which then screens a line without fault.
#include <zt/screening.h>

#include <cstdlib>
#include <vector>

#include "codec_fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  zt::fuzz::start_quiet_library();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  uint8_t *matrix = nullptr;
  uint32_t mx = 0, my = 0;
  if (screeningVRFSParse(reinterpret_cast<const char *>(data), size, "fuzz", &matrix, &mx, &my) != 0) {
    zt::fuzz::check(matrix == nullptr);
    return 0;
  }
  zt::fuzz::check(matrix != nullptr && mx >= 1 && mx <= 4096 && my >= 1 && my <= 4096);
  zt::fuzz::check(size >= size_t(mx) * my * 2);
  // Every entry is readable: a sum over the whole matrix touches each byte.
  unsigned sum = 0;
  for (size_t i = 0; i < size_t(mx) * my; ++i) sum += matrix[i];
  zt::fuzz::check(sum <= 255u * mx * my);
  std::free(matrix);
  return 0;
}
