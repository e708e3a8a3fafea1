// Constant-time building blocks for code that handles secrets (not a public header).
//
// Everything here runs in time independent of the secret values it is given: no branch and no
// memory index depends on them. Masks are all ones (true) or all zeros (false) and are combined
// with AND/OR/XOR only. The functions are inline and small so that the compiler sees through
// them; `valueBarrier` keeps it from turning a mask back into a branch.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "tessel/secret.h"

namespace tessel::ct {

// valueBarrier returns `x` unchanged while hiding its value from the optimiser, which could
// otherwise prove that a mask is 0 or ~0 and reintroduce a conditional jump.
template <class T>
inline T valueBarrier(T x) {
  static_assert(std::is_unsigned_v<T>);
#if defined(__GNUC__) || defined(__clang__)
  __asm__("" : "+r"(x));
#endif
  return x;
}

// maskFromBit turns a bit that is 0 or 1 into a mask of all zeros or all ones.
template <class T = std::uint32_t>
inline T maskFromBit(T bit) {
  return static_cast<T>(static_cast<T>(0) - valueBarrier(static_cast<T>(bit & 1)));
}

// isZeroMask is all ones when x == 0: the top bit of ~x & (x - 1) is set only for zero.
template <class T>
inline T isZeroMask(T x) {
  const T t = static_cast<T>(static_cast<T>(~x) & static_cast<T>(x - 1));
  return maskFromBit<T>(static_cast<T>(t >> (sizeof(T) * 8 - 1)));
}

// equalMask is all ones when a == b.
template <class T>
inline T equalMask(T a, T b) {
  return isZeroMask<T>(a ^ b);
}

// lessThanMask is all ones when a < b (unsigned), from the borrow of a - b computed without a
// comparison instruction the compiler could turn into a branch.
template <class T>
inline T lessThanMask(T a, T b) {
  const T t = static_cast<T>(a ^ static_cast<T>(static_cast<T>(a ^ b) | static_cast<T>(static_cast<T>(a - b) ^ a)));
  return maskFromBit<T>(static_cast<T>(t >> (sizeof(T) * 8 - 1)));
}

// select returns `a` where `mask` is all ones and `b` where it is zero.
template <class T>
inline T select(T mask, T a, T b) {
  return static_cast<T>((mask & a) | (static_cast<T>(~mask) & b));
}

// conditionalMove copies `n` bytes from `src` to `dst` when `mask` is all ones and leaves `dst`
// alone when it is zero; both cases read and write every byte.
inline void conditionalMove(unsigned char* dst, const unsigned char* src, std::size_t n, unsigned char mask) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = static_cast<unsigned char>(dst[i] ^ (mask & (dst[i] ^ src[i])));
}

// conditionalSwap exchanges `n` words of `a` and `b` when `mask` is all ones, by XOR with the
// masked difference, so that both outcomes do the same loads and stores.
template <class T>
inline void conditionalSwap(T* a, T* b, std::size_t n, T mask) {
  for (std::size_t i = 0; i < n; ++i) {
    const T t = static_cast<T>(mask & (a[i] ^ b[i]));
    a[i] ^= t;
    b[i] ^= t;
  }
}

// differenceMask compares `n` bytes without an early exit: zero when equal, all ones otherwise.
inline unsigned char differenceMask(const unsigned char* a, const unsigned char* b, std::size_t n) {
  unsigned char diff = 0;
  for (std::size_t i = 0; i < n; ++i) diff |= a[i] ^ b[i];
  return static_cast<unsigned char>(~isZeroMask<unsigned char>(diff));
}

// equal is the pointer form of tessel::constantTimeEqual, for equal-length buffers.
inline bool equal(const unsigned char* a, const unsigned char* b, std::size_t n) { return differenceMask(a, b, n) == 0; }

// wipe is tessel::secureWipe; wipeObject clears a whole trivially copyable object or array.
inline void wipe(void* p, std::size_t n) { secureWipe(p, n); }
template <class T>
inline void wipeObject(T& object) {
  static_assert(std::is_trivially_copyable_v<T>);
  secureWipe(&object, sizeof object);
}

// hex writes `n` bytes as lower-case hexadecimal without a table lookup, so that it may print
// key material in debugging dumps and tests without leaking it through the cache.
std::string hex(const unsigned char* data, std::size_t n);

}  // namespace tessel::ct
