// Small helpers shared by the mode, GCM and CMAC sources. Internal header.
#pragma once

#include <cstring>

#include "core/endian.h"
#include "tessel/block.h"

namespace tessel::detail {

// xorBytes writes a XOR b to out for `len` bytes; out may equal a or b.
inline void xorBytes(unsigned char* out, const unsigned char* a, const unsigned char* b, unsigned len) {
  for (unsigned i = 0; i < len; ++i) out[i] = a[i] ^ b[i];
}

// incrementCounter32 adds one to the big-endian 32-bit number in the last four bytes of a
// 16-byte counter block, modulo 2^32; the first twelve bytes never change.
inline void incrementCounter32(unsigned char* block) { storeBe32(block + 12, loadBe32(block + 12) + 1); }

// ctrKeystream writes the encryptions of `blocks` (at most kCtrBatch) consecutive counter
// values to `keystream`, advancing `counter` by one per block: after each use (CTR mode), or
// before each use when `incrementFirst` is set (GCM, whose counter block holds the last value
// used).
constexpr unsigned kCtrBatch = 8;
inline void ctrKeystream(const BlockCipher& cipher, unsigned char* counter, unsigned char* keystream, unsigned blocks,
                         bool incrementFirst = false) {
  unsigned char counters[kCtrBatch * 16];
  for (unsigned i = 0; i < blocks; ++i) {
    if (incrementFirst) incrementCounter32(counter);
    std::memcpy(counters + 16 * i, counter, 16);
    if (!incrementFirst) incrementCounter32(counter);
  }
  cipher.encryptBlocks(counters, keystream, blocks);
}

}  // namespace tessel::detail
