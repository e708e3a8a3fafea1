// What the memcheck programs share: marking bytes secret, revealing a value that is public by
// design, and a checksum that releases a result only to print it.
#pragma once

#include <valgrind/memcheck.h>

#include <cstddef>

namespace ctcheck {

inline void secret(void* p, std::size_t n) { VALGRIND_MAKE_MEM_UNDEFINED(p, n); }
template <class T>
T reveal(T value) {
  VALGRIND_MAKE_MEM_DEFINED(&value, sizeof value);
  return value;
}
inline unsigned checksum(const unsigned char* p, std::size_t n) {
  VALGRIND_MAKE_MEM_DEFINED(p, n);
  unsigned sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum = sum * 31 + p[i];
  return sum;
}

}  // namespace ctcheck
