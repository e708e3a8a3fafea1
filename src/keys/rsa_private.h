// The RSA private operation without a secret-dependent branch or memory index (not a public
// header): blinded, exponentiated by the constant-time Montgomery arithmetic, and checked.
#pragma once

#include "bignum/mont_ct.h"
#include "tessel/rsa.h"

namespace tessel::rsa {

// privateOperationMasked writes c^d mod n for c below n (the caller checks) as exactly `k`
// big-endian bytes to `out` and returns an all-ones mask when the result passed the check
// against the public exponent, zero otherwise (a fault, or a key whose parts do not belong
// together). The mask is derived from secrets and is only public once the caller acts on it:
// out must not be released unless it is all ones. `k` must hold n.
ct::Limb privateOperationMasked(const RsaPrivateKey& key, const BigNum& c, unsigned char* out, std::size_t k);

// mgf1 is the mask generation function of RFC 8017 appendix B.2.1 with the digest `hash`;
// empty when the factory has no such digest. It runs in time independent of the seed's value.
std::vector<unsigned char> mgf1(unsigned hash, asn1::blob seed, std::size_t length);

// publicOperationSecretInput writes m^e mod n for the k-byte block `m` (below n: it starts with
// a zero byte) as k bytes to `out`, with constant-time products, since the block carries a
// secret on its way to the key's holder.
void publicOperationSecretInput(const RsaPublicKey& key, const unsigned char* m, unsigned char* out, std::size_t k);

}  // namespace tessel::rsa
