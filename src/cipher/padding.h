// Constant-time removal of the PKCS#5/PKCS#7 block padding. Internal header.
#pragma once

#include <cstdint>

#include "core/secret.h"

namespace tessel::detail {

// pkcs7UnpaddedLength returns the length of the `size` decrypted bytes at `data` without their
// padding (n bytes of value n, 1 <= n <= block), or all ones when the padding is wrong. It reads
// the whole last block every time and neither branches nor indexes on the data, so that a
// padding oracle learns nothing; the caller's test of the result is where the verdict becomes
// public. `size` must be a positive multiple of `block`.
inline std::uint32_t pkcs7UnpaddedLength(const unsigned char* data, std::uint32_t size, unsigned block) {
  const std::uint32_t pad = data[size - 1];
  std::uint32_t good =
      ~ct::isZeroMask(pad) & ~ct::lessThanMask<std::uint32_t>(block, pad) & ~ct::lessThanMask(size, pad);
  unsigned char wrong = 0;
  for (unsigned i = 0; i < block && i < size; ++i) {
    const auto inPadding = static_cast<unsigned char>(ct::lessThanMask<std::uint32_t>(i, pad));
    wrong |= static_cast<unsigned char>((data[size - 1 - i] ^ pad) & inPadding);
  }
  good &= ct::isZeroMask<std::uint32_t>(wrong);
  return ct::select<std::uint32_t>(good, size - pad, ~std::uint32_t{0});
}

}  // namespace tessel::detail
