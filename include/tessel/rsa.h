// RSA keys: PKCS#1 key syntax, EMSA-PKCS1-v1_5 signing with the CRT private operation, and the
// DigestInfo check of signature verification.
#pragma once

#include "tessel/export.h"

#include "tessel/bignum.h"
#include "tessel/keys.h"
#include "tessel/rng.h"

namespace tessel {

class TESSEL_API RsaPublicKey : public virtual PublicKey {
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

  std::vector<unsigned char> encodePublicKey() const override { return RsaPublicKey::encodeToDerEncoded(); }
  // verify checks a PKCS#1 v1.5 signature (SHA-1 to SHA-512, or the bare MD5+SHA-1 pair) by
  // rebuilding the one valid block and comparing it whole, or an RSASSA-PSS signature (RFC 8017
  // section 9.1.2, SHA-1 to SHA-512, the salt length of `params`). The signature must be k bytes
  // and below n; keys with exponents or moduli no real key has are refused.
  bool verify(asn1::blob message, asn1::blob signature, const SignatureParams& params) const override;
  // verifyLenient checks PKCS#1 v1.5 as stored certificates have always been checked: s taken
  // modulo n whatever its length, at least eight FF bytes of padding and a DigestInfo read by
  // parseHashFromDerEncoded (which prints why it refuses one). PSS: verify.
  bool verifyLenient(asn1::blob message, asn1::blob signature, const SignatureParams& params) const override;

  // encrypt pads `message` (RSAES-OAEP, or PKCS#1 v1.5 with non-zero random padding) and
  // raises it to e: k bytes, or empty when it is longer than the padding leaves room for.
  std::vector<unsigned char> encrypt(asn1::blob message, const EncryptionParams& params, Rng& rng) const override;
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
  // publicParamsSane bounds what a verifier will compute with: an odd modulus of at most 16384
  // bits and an odd exponent of 3 to 64 bits.
  bool publicParamsSane() const;
};

class TESSEL_API RsaPrivateKey : public RsaPublicKey, public PrivateKey {
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
  // sign signs `message` with PKCS#1 v1.5 (SHA-1 to SHA-512, the MD5+SHA-1 pair) or RSASSA-PSS
  // (SHA-1 to SHA-512, MGF1, a fresh random salt from the default source). Empty for another
  // digest, a salt that does not fit the key, or a failed private operation.
  std::vector<unsigned char> sign(asn1::blob message, const SignatureParams& params) const override;
  // decrypt and decryptKey: see PrivateKey. The ciphertext must be exactly k bytes below n.
  std::vector<unsigned char> decrypt(asn1::blob ciphertext, const EncryptionParams& params) const override;
  std::vector<unsigned char> decryptKey(asn1::blob ciphertext, const EncryptionParams& params, std::size_t keyLength,
                                        Rng& rng) const override;
  // privateOperation returns c^d mod n as k bytes, through the CRT when the key has its CRT
  // values, in constant time on a randomly blinded c; the result is checked against the public
  // exponent. Empty when c >= n, when the key is unusable (an even modulus or prime) or when the
  // check fails.
  std::vector<unsigned char> privateOperation(asn1::blob c) const;
  // generate replaces the key with a fresh two-prime key of `bits` bits (even, 2048 to 4096) and
  // e = 65537, drawn from `rng` alone in constant time. False when bits is refused or rng fails;
  // the key is then unspecified.
  bool generate(unsigned bits, Rng& rng);
};

// rsaPkcs1Block is the k-byte EMSA-PKCS1-v1_5 block 00 01 FF..FF 00 T of a digest: T is its
// DigestInfo, or the raw digest for the MD5+SHA-1 pair. Empty when k is too short for T.
TESSEL_API std::vector<unsigned char> rsaPkcs1Block(unsigned hashId, asn1::blob hash, unsigned k);

}  // namespace tessel
