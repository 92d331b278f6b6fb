// Big-endian fields on disk and on the wire. Every file format and stream of
// the library reads and writes its multi-byte fields through these, from any
// alignment.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace zt {

inline uint16_t load_be16(const void *p) noexcept {
  uint16_t v;
  std::memcpy(&v, p, sizeof v);
  if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap16(v);
  return v;
}
inline uint32_t load_be32(const void *p) noexcept {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap32(v);
  return v;
}
inline uint64_t load_be64(const void *p) noexcept {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
  return v;
}
inline void store_be16(void *p, uint16_t v) noexcept {
  if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap16(v);
  std::memcpy(p, &v, sizeof v);
}
inline void store_be32(void *p, uint32_t v) noexcept {
  if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap32(v);
  std::memcpy(p, &v, sizeof v);
}
inline void store_be64(void *p, uint64_t v) noexcept {
  if constexpr (std::endian::native == std::endian::little) v = __builtin_bswap64(v);
  std::memcpy(p, &v, sizeof v);
}

}  // namespace zt
