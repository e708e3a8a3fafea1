#include "tessel/secret.h"

#include "core/secret.h"

namespace tessel {

bool constantTimeEqual(std::span<const unsigned char> a, std::span<const unsigned char> b) {
  if (a.size() != b.size()) return false;
  return ct::equal(a.data(), b.data(), a.size());
}

void secureWipe(void* p, std::size_t n) {
  // Stores through a volatile pointer are observable behaviour, so they are never removed.
  volatile unsigned char* v = static_cast<volatile unsigned char*>(p);
  for (std::size_t i = 0; i < n; ++i) v[i] = 0;
}

namespace ct {

std::string hex(const unsigned char* data, std::size_t n) {
  std::string out(2 * n, '0');
  for (std::size_t i = 0; i < n; ++i) {
    for (unsigned half = 0; half < 2; ++half) {
      const unsigned nibble = (data[i] >> (4 - 4 * half)) & 0xf;
      // '0' + nibble, plus the distance to 'a' when nibble > 9, chosen by a mask.
      const unsigned above9 = lessThanMask<unsigned>(9u, nibble);
      out[2 * i + half] = static_cast<char>('0' + nibble + (above9 & ('a' - '0' - 10)));
    }
  }
  return out;
}

}  // namespace ct

}  // namespace tessel
