// Ed25519 signatures (RFC 8032, the pure variant) and the edwards25519 point encoding.
//
// A private key is the 32-byte seed of RFC 8032 section 5.1.5; the public key is the encoded
// point A. Signing is deterministic and constant time in the seed. Verification is the
// cofactorless check [S]B = R + [k]A done by re-encoding: it rejects S >= L (malleable
// signatures), public keys and R values whose y is not reduced below p, and the encoding of
// x = 0 with the sign bit set.
#pragma once

#include "tessel/export.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace tessel {

// Edwards25519 is a point of the twisted Edwards curve -x^2 + y^2 = 1 + d x^2 y^2 over
// 2^255 - 19, in extended coordinates. Its operations are constant time unless their names
// end in _vartime.
class TESSEL_API Edwards25519 {
 public:
  // Edwards25519 constructs the neutral element (0, 1).
  Edwards25519();
  // base returns the generator B of RFC 8032.
  static const Edwards25519& base();
  // fromBin decodes 32 bytes (RFC 8032 section 5.1.3) into *out. It returns false, leaving *out
  // unchanged, when y is not below p, when no x exists, or when x = 0 carries the sign bit.
  // Public data only: the decoder's branches depend on the input.
  static bool fromBin_vartime(Edwards25519* out, const unsigned char in[32]);
  // toBin writes the 32-byte encoding (y with the parity of x in the top bit).
  void toBin(unsigned char out[32]) const;
  // add returns this + other (complete formula: no exceptional cases).
  Edwards25519 add(const Edwards25519& other) const;
  // negate returns -this.
  Edwards25519 negate() const;
  // scalarMult returns [scalar] this for a 32-byte little-endian scalar, constant time.
  Edwards25519 scalarMult(const unsigned char scalar[32]) const;

 private:
  std::uint64_t x_[5], y_[5], z_[5], t_[5];  // field elements in the library's limb form (40 bytes)
  friend struct EdwardsAccess;
};

namespace eddsa {

constexpr std::size_t seedSize = 32;
constexpr std::size_t publicKeySize = 32;
constexpr std::size_t signatureSize = 64;

// publicKeyFromSeed derives the encoded public key from a 32-byte private seed.
TESSEL_API void publicKeyFromSeed(unsigned char publicKey[32], const unsigned char seed[32]);

// sign writes the 64-byte signature of `message` under the seed and its public key (as
// returned by publicKeyFromSeed; a wrong public key gives a signature that does not verify).
TESSEL_API void sign(unsigned char signature[64], std::span<const unsigned char> message, const unsigned char seed[32],
                     const unsigned char publicKey[32]);

// verify returns true only for a valid signature of `message` under `publicKey`. A signature
// of any length but 64 bytes fails. Public data only.
TESSEL_API bool verify(std::span<const unsigned char> signature, std::span<const unsigned char> message,
                       std::span<const unsigned char> publicKey);

// reduceScalar reduces a 64-byte little-endian number modulo the group order L into 32 bytes,
// constant time.
TESSEL_API void reduceScalar(unsigned char out[32], const unsigned char in[64]);

}  // namespace eddsa
}  // namespace tessel
