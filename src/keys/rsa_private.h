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

}  // namespace tessel::rsa
