// RSA key generation without a secret-dependent branch or memory index (not a public header).
//
// Primes are drawn whole from the caller's random source (top two bits and the low bit set), so
// the only values anything branches on are verdicts about candidates: a candidate that fails
// trial division, the e test, the base-2 Fermat test or Miller–Rabin is discarded and so its
// values are public; a candidate that passes only tells that it is prime. Those verdicts are
// declassified for the constant-time check; everything else about an accepted prime (its
// remainders, its powers, the derived exponents) goes through fixed-width limb arithmetic.
#pragma once

#include "tessel/rng.h"
#include "tessel/rsa.h"

namespace tessel::rsa {

// kPublicExponent is the e of every key we generate.
inline constexpr unsigned kPublicExponent = 65537;

// millerRabinRounds is the number of random-base Miller–Rabin rounds run on a candidate of
// `bits` bits after trial division and a base-2 Fermat test: 5 below 1536 bits and 4 from there
// on (FIPS 186-5 table B.1 for an error below 2^-100), 8 for the short primes of tests.
unsigned millerRabinRounds(unsigned bits);

// generateKey fills `key` with a fresh two-prime key of `bits` bits (even, at least 256; the
// public entry point RsaPrivateKey::generate narrows that to 2048..4096) from `rng` alone. False
// when bits is refused or rng fails; `key` is then unspecified.
bool generateKey(RsaPrivateKey& key, unsigned bits, Rng& rng);

// deriveKey sets n, e = 65537, p > q (the two primes in either order, each of `primeBits` bits,
// a public length), d = e⁻¹ mod lcm(p − 1, q − 1), dP, dQ and qInv, in constant time. False, with
// `key` unspecified, when |p − q| is too small, e divides p − 1 or q − 1, or d would be short:
// those verdicts are public (the caller draws another prime).
bool deriveKey(RsaPrivateKey& key, const BigNum& p, const BigNum& q, unsigned primeBits);

// isProbablePrime runs trial division, the base-2 Fermat test and `rounds` Miller–Rabin rounds
// with bases drawn from `rng` on the secret w (a clamped BigNum above 2^11; its digit count is
// public), in constant time; only the verdict is public. False for an even or composite w, and
// when rng fails.
bool isProbablePrime(const BigNum& w, unsigned rounds, Rng& rng);

}  // namespace tessel::rsa
