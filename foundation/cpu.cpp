// The processor's features, probed once, and the library's SIMD registry.
#include <zt/cpu.h>

#include <cstdlib>

#include "foundation/simd_dispatch.h"
#include "foundation/internal.h"

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#define ZT_CPU_X86 1
#endif

namespace zt {
namespace {

#if defined(ZT_CPU_X86)

// The XCR0 register: which register state the operating system saves on a
// context switch. Read with the raw instruction so this file needs no -mxsave.
uint64_t read_xcr0() {
  uint32_t eax = 0, edx = 0;
  __asm__ volatile("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0));
  return (static_cast<uint64_t>(edx) << 32) | eax;
}

uint32_t probe_features() {
  unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx) == 0) return 0;
  uint32_t features = 0;
  if (edx & bit_SSE2) features |= ZT_CPU_SSE2;
  if (ecx & bit_SSE4_1) features |= ZT_CPU_SSE41;

  // The processor may have AVX while the operating system does not save the
  // upper halves of the YMM registers; then every VEX instruction (AVX, AVX2,
  // FMA) is unusable. XCR0 bits 1 and 2 are the SSE and AVX state.
  constexpr uint64_t kXmmYmmState = 0x6;
  const bool os_saves_ymm = (ecx & bit_OSXSAVE) != 0 && (read_xcr0() & kXmmYmmState) == kXmmYmmState;
  const bool has_fma = (ecx & bit_FMA) != 0;
  if (os_saves_ymm && (ecx & bit_AVX) != 0) {
    features |= ZT_CPU_AVX;
    if (has_fma) features |= ZT_CPU_FMA;
  }

  unsigned max_leaf = __get_cpuid_max(0, nullptr);
  if (max_leaf >= 7) {
    __cpuid_count(7, 0, eax, ebx, ecx, edx);
    if ((features & ZT_CPU_AVX) != 0 && (ebx & bit_AVX2) != 0) features |= ZT_CPU_AVX2;
    if (ebx & bit_BMI2) features |= ZT_CPU_BMI2;
  }
  return features;
}

#else

uint32_t probe_features() { return 0; }

#endif

uint32_t cpu_features() {
  static const uint32_t features = probe_features();
  return features;
}

// The vector forms are compiled with -mavx2 -mfma, so they need both.
int32_t best_level(uint32_t features) {
  constexpr uint32_t kAvx2Level = ZT_CPU_AVX | ZT_CPU_AVX2 | ZT_CPU_FMA;
  return (features & kAvx2Level) == kAvx2Level ? ZT_SIMD_AVX2 : ZT_SIMD_BASELINE;
}

SimdRegistry &simd_registry() {
  static SimdRegistry registry = [] {
    const int32_t best = best_level(cpu_features());
    return SimdRegistry(best, simd_level_from_env(std::getenv("ZT_SIMD"), best));
  }();
  return registry;
}

}  // namespace

void simd_static_init() { simd_registry(); }

int32_t simd_register_table(SimdRefillFn fn) {
  if (fn == nullptr) return 0;
  if (!simd_registry().add(fn)) {
    ZT_LOG("simd", "simd_register_table", "More than %zu kernel tables", SimdRegistry::kMaxTables);
    return -1;
  }
  return 0;
}

void simd_unregister_table(SimdRefillFn fn) { simd_registry().remove(fn); }

}  // namespace zt

uint32_t ZT_CpuFeatures(void) { return zt::cpu_features(); }

int32_t ZT_SimdBestLevel(void) { return zt::simd_registry().best(); }

int32_t ZT_SimdLevel(void) { return zt::simd_registry().level(); }

int32_t ZT_SetSimdLevel(int32_t level) { return zt::simd_registry().set_level(level); }
