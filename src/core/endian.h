// Byte-order helpers shared by the digest and cipher sources. Internal header.
#pragma once

#include <cstdint>

namespace tessel::detail {

inline std::uint32_t loadBe32(const unsigned char* p) {
  return std::uint32_t{p[0]} << 24 | std::uint32_t{p[1]} << 16 | std::uint32_t{p[2]} << 8 | p[3];
}
inline std::uint32_t loadLe32(const unsigned char* p) {
  return std::uint32_t{p[3]} << 24 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[1]} << 8 | p[0];
}
inline std::uint64_t loadBe64(const unsigned char* p) {
  return std::uint64_t{loadBe32(p)} << 32 | loadBe32(p + 4);
}
inline void storeBe32(unsigned char* p, std::uint32_t v) {
  p[0] = static_cast<unsigned char>(v >> 24);
  p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8);
  p[3] = static_cast<unsigned char>(v);
}
inline void storeLe32(unsigned char* p, std::uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}
inline void storeBe64(unsigned char* p, std::uint64_t v) {
  storeBe32(p, static_cast<std::uint32_t>(v >> 32));
  storeBe32(p + 4, static_cast<std::uint32_t>(v));
}
inline constexpr std::uint32_t rotl32(std::uint32_t x, unsigned n) { return x << n | x >> (32 - n); }
inline constexpr std::uint32_t rotr32(std::uint32_t x, unsigned n) { return x >> n | x << (32 - n); }
inline constexpr std::uint64_t rotr64(std::uint64_t x, unsigned n) { return x >> n | x << (64 - n); }

}  // namespace tessel::detail
