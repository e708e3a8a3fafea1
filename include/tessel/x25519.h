// X25519 Diffie-Hellman over curve25519 (RFC 7748).
//
// Our choices where the RFC leaves room: the peer's u-coordinate is read with its top bit
// ignored and non-canonical values (u >= p) reduced, as the RFC says; a result of all zero
// bytes (the peer sent a point of small order) is reported as a failure, as section 6.1 allows,
// so that callers cannot end up with a predictable shared secret. All work on the private
// scalar is constant time.
#pragma once

#include "tessel/export.h"

#include <cstddef>

namespace tessel::x25519 {

constexpr std::size_t keySize = 32;

// scalarMult computes X25519(scalar, u) into `out` (32 bytes each, the scalar clamped as the
// RFC says). It returns false, with `out` holding the zero result, when the result is all
// zero; true otherwise.
TESSEL_API bool scalarMult(unsigned char out[32], const unsigned char scalar[32], const unsigned char u[32]);

// publicKey computes the public u-coordinate X25519(privateKey, 9) into `out`.
TESSEL_API void publicKey(unsigned char out[32], const unsigned char privateKey[32]);

}  // namespace tessel::x25519
