// PBKDF2 (RFC 8018): password-based key derivation with HMAC over any Hash.
#pragma once

#include "tessel/export.h"

#include <string_view>
#include <vector>

#include "tessel/hash.h"

namespace tessel {

// pbkdf2 derives `length` bytes from `password` and `salt` with `iterations` rounds of HMAC over
// `h` (PBKDF2, RFC 8018 section 5.2). `h` must be at a message boundary; it is left at one.
TESSEL_API std::vector<unsigned char> pbkdf2(Hash& h, std::string_view password, const unsigned char* salt,
                                             unsigned saltLen, unsigned iterations, unsigned length);

}  // namespace tessel
