// HKDF (RFC 5869): extract-and-expand key derivation with HMAC over any Hash.
#pragma once

#include "tessel/export.h"

#include <vector>

#include "tessel/hash.h"

namespace tessel {

// HKPDF_Expand derives `length` bytes from the pseudo-random key `prk` and `info` with HMAC
// over `h` (RFC 5869 section 2.3). The block counter is a single byte and is not checked:
// more than 255 blocks wrap it to 0, a behaviour kept for compatibility with derived keys
// already in use. `h` must be at a message boundary.
TESSEL_API std::vector<unsigned char> HKPDF_Expand(Hash& h, const unsigned char* info, unsigned infoLen,
                                                   const unsigned char* prk, unsigned prkLen, unsigned length);

// HKPDF extracts a pseudo-random key from `ikm` under `salt` and expands it with `info` to
// `length` bytes (RFC 5869). Note the argument order: salt, info, then the keying material. An
// empty salt acts as the RFC's default salt of zero bytes.
TESSEL_API std::vector<unsigned char> HKPDF(Hash& h, const std::vector<unsigned char>& salt,
                                            const std::vector<unsigned char>& info,
                                            const std::vector<unsigned char>& ikm, unsigned length);

}  // namespace tessel
