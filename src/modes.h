// Small helpers shared by the mode, GCM and CMAC sources. Internal header.
#pragma once

#include "endian.h"

namespace tessel::detail {

// xorBytes writes a XOR b to out for `len` bytes; out may equal a or b.
inline void xorBytes(unsigned char* out, const unsigned char* a, const unsigned char* b, unsigned len) {
  for (unsigned i = 0; i < len; ++i) out[i] = a[i] ^ b[i];
}

// incrementCounter32 adds one to the big-endian 32-bit number in the last four bytes of a
// 16-byte counter block, modulo 2^32; the first twelve bytes never change.
inline void incrementCounter32(unsigned char* block) { storeBe32(block + 12, loadBe32(block + 12) + 1); }

}  // namespace tessel::detail
