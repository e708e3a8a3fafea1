// What the memcheck programs share: marking bytes and numbers secret, revealing a value that is
// public by design, a checksum that releases a result only to print it, and reading a fixture.
#pragma once

#include <valgrind/memcheck.h>

#include <cstddef>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

namespace ctcheck {

inline void secret(void* p, std::size_t n) { VALGRIND_MAKE_MEM_UNDEFINED(p, n); }
template <class T>
T reveal(T value) {
  VALGRIND_MAKE_MEM_DEFINED(&value, sizeof value);
  return value;
}
// revealed marks the elements of each vector defined (public by design).
template <class... V>
void revealed(V&... v) {
  for (auto [p, n] : {std::pair<const void*, std::size_t>{v.data(), v.size() * sizeof *v.data()}...})
    VALGRIND_MAKE_MEM_DEFINED(p, n);
}
// secretNum marks a number's digits secret; publicNum marks them public again.
template <class Num>
void secretNum(Num& x) {
  secret(x.digits().data(), x.digits().size() * sizeof *x.digits().data());
}
template <class Num>
void publicNum(Num& x) {
  revealed(x.digits());
}
inline unsigned checksum(const unsigned char* p, std::size_t n) {
  VALGRIND_MAKE_MEM_DEFINED(p, n);
  unsigned sum = 0;
  for (std::size_t i = 0; i < n; ++i) sum = sum * 31 + p[i];
  return sum;
}
// fixture returns the bytes of a file below tests/data (run.sh runs the programs from the checkout).
inline std::vector<unsigned char> fixture(const char* path) {
  std::ifstream file(std::string("tests/data/") + path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

}  // namespace ctcheck
