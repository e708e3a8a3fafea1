// Fixed-base multiplication on edwards25519 shared with the X25519 code (not a public header).
#pragma once

namespace tessel::edwards25519 {

// baseMultU writes the Montgomery u-coordinate of [scalar]B, which equals X25519(scalar, 9),
// for a scalar below 2^255 (already clamped by the caller). Constant time in the scalar.
void baseMultU(unsigned char out[32], const unsigned char scalar[32]);

}  // namespace tessel::edwards25519
