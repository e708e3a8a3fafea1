// RSA keys: PKCS#1 key syntax, EMSA-PKCS1-v1_5 signing with the CRT private operation, and the
// DigestInfo check of signature verification.
#pragma once

#include "tessel/bignum.h"
#include "tessel/keys.h"

namespace tessel {

class RsaPublicKey : public virtual PublicKey {
 public:
  BigNum n;  // modulus
  BigNum e;  // public exponent

  // parseFromDerEncoded reads a PKCS#1 RSAPublicKey SEQUENCE { n, e }. It accepts only an odd
  // e >= 3 below n, a modulus of at most 16384 bits, an exponent of at most 64 bits when the
  // modulus exceeds 2048 bits, and nothing after e. `params` are not used.
  bool parseFromDerEncoded(asn1::blob key, asn1::blob params) override;
  // encodeToDerEncoded writes SEQUENCE { INTEGER n, INTEGER e }.
  std::vector<unsigned char> encodeToDerEncoded() const override;
  // encodeParams is the NULL element (05 00) that stands beside rsaEncryption.
  std::vector<unsigned char> encodeParams() const override { return {0x05, 0x00}; }
  bool equals(const PublicKey& other) const override;
  KeyType getKeyType() const override { return keyRsa; }
  void dump(std::ostream& out) const override;

  // modulusLength is k, the byte length of the modulus.
  unsigned modulusLength() const { return (n.bits() + 7) / 8; }
  // parseHashFromDerEncoded checks a DigestInfo recovered from a signature (padding already
  // removed) against the expected digest `id` and returns a view of its digest bytes inside
  // `block`. On failure it prints one line naming the fault to standard output and returns an
  // empty view.
  static asn1::blob parseHashFromDerEncoded(unsigned id, asn1::blob block);

 protected:
  // checkPublicParts applies the acceptance rules on n and e.
  bool checkPublicParts() const;
};

class RsaPrivateKey : public RsaPublicKey, public PrivateKey {
 public:
  BigNum d, p, q, dP, dQ, qInv;

  // parseFromDerEncoded reads a two-prime PKCS#1 RSAPrivateKey (version 0, nine INTEGERs,
  // nothing after qInv) with the public checks on n and e.
  bool parseFromDerEncoded(asn1::blob key, asn1::blob params) override;
  // encodeToDerEncoded writes the nine INTEGERs with version 0.
  std::vector<unsigned char> encodeToDerEncoded() const override;
  void dump(std::ostream& out) const override;

  // signHashed returns the PKCS#1 v1.5 signature (k bytes) of the digest `hash`: T is its
  // DigestInfo, or the raw 36 bytes for the MD5+SHA-1 pair (TLS 1.0 style). Empty when the
  // modulus is too short for T or the private operation fails.
  std::vector<unsigned char> signHashed(unsigned hashId, asn1::blob hash) const override;
  // privateOperation returns c^d mod n as k bytes, through the CRT when the key has its CRT
  // values, in constant time on a randomly blinded c; the result is checked against the public
  // exponent. Empty when c >= n, when the key is unusable (an even modulus or prime) or when the
  // check fails.
  std::vector<unsigned char> privateOperation(asn1::blob c) const;
};

}  // namespace tessel
