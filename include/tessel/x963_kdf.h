// The ANSI X9.63 key derivation function (SEC 1 section 3.6.1), which CMS uses to turn an ECDH
// or X25519 shared secret into a key-encryption key (RFC 5753, RFC 8418).
#pragma once

#include "tessel/export.h"

#include <vector>

#include "tessel/blob.h"
#include "tessel/hash.h"

namespace tessel {

// x963Kdf derives `length` bytes from the shared secret `z` and `sharedInfo` with the digest
// `h` (reset and reused): Hash(Z || counter || SharedInfo) for counter = 1, 2, ... as 32-bit
// big-endian numbers, concatenated and cut. Empty for a length of 0 or more than the counter
// allows.
TESSEL_API std::vector<unsigned char> x963Kdf(Hash& h, asn1::blob z, asn1::blob sharedInfo, std::size_t length);

}  // namespace tessel
