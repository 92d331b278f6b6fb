// The library's random-number generator: xoshiro256** behind one lock, so
// every thread draws from the same sequence and a seeded run repeats.
#include "foundation/locks.h"

#include <zt/random.h>
#include <zt/api.h>

#include <atomic>
#include <ctime>
#include <mutex>

#include <unistd.h>

namespace zt {
namespace {

struct Generator {
  uint64_t s[4];
};

constinit AtomicSpinLock g_lock;
constinit Generator g_state{{0x9E3779B97F4A7C15ull, 0xBF58476D1CE4E5B9ull, 0x94D049BB133111EBull, 1}};
constinit std::atomic<bool> g_initialised{false};

uint64_t splitmix64(uint64_t &x) {
  uint64_t z = (x += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

constexpr uint64_t rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

// Caller holds g_lock.
uint64_t next_locked() {
  uint64_t *s = g_state.s;
  uint64_t result = rotl(s[1] * 5, 7) * 9;
  uint64_t t = s[1] << 17;
  s[2] ^= s[0];
  s[3] ^= s[1];
  s[1] ^= s[2];
  s[0] ^= s[3];
  s[2] ^= t;
  s[3] = rotl(s[3], 45);
  return result;
}

void seed_locked(uint64_t seed) {
  for (uint64_t &word : g_state.s) word = splitmix64(seed);
}

}  // namespace
}  // namespace zt

extern "C" {

ZT_API void ZT_randomInit(void) {
  if (zt::g_initialised.exchange(true)) return;
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  uint64_t seed = static_cast<uint64_t>(ts.tv_sec) * 1000000007ull ^ static_cast<uint64_t>(ts.tv_nsec) ^
                  (static_cast<uint64_t>(getpid()) << 32);
  std::lock_guard<zt::AtomicSpinLock> guard(zt::g_lock);
  zt::seed_locked(seed);
}

ZT_API void ZT_randomDeInit(void) { zt::g_initialised.store(false); }

ZT_API void ZT_randomSeed(uint64_t seed) {
  std::lock_guard<zt::AtomicSpinLock> guard(zt::g_lock);
  zt::seed_locked(seed);
}

ZT_API uint32_t ZT_random32(void) {
  std::lock_guard<zt::AtomicSpinLock> guard(zt::g_lock);
  return static_cast<uint32_t>(zt::next_locked() >> 32);
}

ZT_API int32_t ZT_randomIntInRange(int32_t lo, int32_t hi) {
  if (hi <= lo) return lo;
  // Span up to 2^32; multiply-shift with rejection keeps every value equally likely.
  uint64_t span = static_cast<uint64_t>(static_cast<int64_t>(hi) - lo) + 1;
  uint64_t threshold = (0x100000000ull - span) % span;
  std::lock_guard<zt::AtomicSpinLock> guard(zt::g_lock);
  for (;;) {
    uint64_t draw = zt::next_locked() >> 32;
    uint64_t product = draw * span;
    if ((product & 0xFFFFFFFFull) >= threshold)
      return static_cast<int32_t>(static_cast<int64_t>(lo) + static_cast<int64_t>(product >> 32));
  }
}

}  // extern "C"
