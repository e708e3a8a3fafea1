// The key class roots. Every key type (RSA here; EC, Ed25519, X25519 elsewhere) reads and
// writes its own DER body and prints itself; the generic containers (SubjectPublicKeyInfo,
// PKCS#8) choose the class by the algorithm OID and hand it the inner bytes.
#pragma once

#include "tessel/export.h"

#include <memory>
#include <ostream>
#include <vector>

#include "tessel/algorithm_id.h"
#include "tessel/asn1.h"
#include "tessel/rng.h"

namespace tessel {

// PublicKey is the interface of every public key. Private keys derive from their public
// counterpart as well, so a private key can go wherever a public one is expected.
class TESSEL_API PublicKey {
 public:
  virtual ~PublicKey() = default;
  // parseFromDerEncoded reads the key from its DER body; `params` are the AlgorithmIdentifier
  // parameters of the enclosing container. False on any malformation; the object is then
  // partly filled and must be discarded.
  virtual bool parseFromDerEncoded(asn1::blob key, asn1::blob params) = 0;
  // encodeToDerEncoded returns the DER body (what parseFromDerEncoded reads).
  virtual std::vector<unsigned char> encodeToDerEncoded() const = 0;
  // encodeParams returns the DER of the AlgorithmIdentifier parameters to put beside the key.
  virtual std::vector<unsigned char> encodeParams() const = 0;
  // equals compares the public parts; keys of different types are never equal.
  virtual bool equals(const PublicKey& other) const = 0;
  virtual KeyType getKeyType() const = 0;
  // dump writes the key in the library's diagnostic text form.
  virtual void dump(std::ostream& out) const = 0;

  // encodePublicKey returns the DER body of the public part alone, also when the object is a
  // private key: what a SubjectPublicKeyInfo may carry. Empty when the key is not set.
  virtual std::vector<unsigned char> encodePublicKey() const = 0;
  // verify checks `signature` over `message` as `params` say (the message is digested here,
  // except by Ed25519, which hashes inside the signature), to the letter of the signature
  // scheme: RSA signatures must be exactly k bytes below n with the one valid padding. True
  // only for a valid signature; keys that cannot sign verify nothing. Public data only.
  virtual bool verify(asn1::blob message, asn1::blob signature, const SignatureParams& params) const;
  // verifyLenient is verify as stored certificates and CRLs have always been checked, so that
  // what validated before still does: RSA PKCS#1 v1.5 reads the padding and the DigestInfo
  // leniently, ECDSA takes non-minimal DER lengths. Other keys and schemes: verify.
  virtual bool verifyLenient(asn1::blob message, asn1::blob signature, const SignatureParams& params) const {
    return verify(message, signature, params);
  }
  // encrypt transports `message` to the holder of the private key as `params` say, randomised
  // from `rng`: RSA keys only (RSAES-PKCS1-v1_5 or RSAES-OAEP). Empty when the message is too
  // long for the key, the parameters are unusable or the key cannot encrypt.
  virtual std::vector<unsigned char> encrypt(asn1::blob message, const EncryptionParams& params, Rng& rng) const {
    (void)message, (void)params, (void)rng;
    return {};
  }
};

// PrivateKey adds the private operation the signing code uses.
class TESSEL_API PrivateKey : public virtual PublicKey {
 public:
  // signHashed signs an already computed digest `hash` of algorithm `hashId`; empty on failure.
  virtual std::vector<unsigned char> signHashed(unsigned hashId, asn1::blob hash) const = 0;
  // sign returns the signature of `message` as `params` say: the message digest goes to
  // signHashed (Ed25519 takes the message whole, with hashNone), and RSA keys also sign with
  // RSASSA-PSS. Empty when the key cannot sign that way (another digest, PSS on a key that is
  // not RSA, a key that only agrees on secrets).
  virtual std::vector<unsigned char> sign(asn1::blob message, const SignatureParams& params) const;
  // decrypt undoes encrypt: the message, or empty on any failure, one answer for every cause.
  // The padding is checked in constant time and only the verdict becomes public; with PKCS#1
  // v1.5 that verdict is itself an oracle for whoever sees it, so key transport uses decryptKey.
  virtual std::vector<unsigned char> decrypt(asn1::blob ciphertext, const EncryptionParams& params) const {
    (void)ciphertext, (void)params;
    return {};
  }
  // decryptKey recovers a `keyLength`-byte content-encryption key. With PKCS#1 v1.5 a ciphertext
  // that does not hold a key of that length yields a key drawn from `rng` instead, in the same
  // time and without a sign, so that only the content's decryption fails (RFC 3218). With OAEP,
  // or when the key cannot decrypt, failure is empty.
  virtual std::vector<unsigned char> decryptKey(asn1::blob ciphertext, const EncryptionParams& params,
                                                std::size_t keyLength, Rng& rng) const {
    (void)ciphertext, (void)params, (void)keyLength, (void)rng;
    return {};
  }
  // agree returns the raw key-agreement secret with `peer`: the ECDH x-coordinate on the same
  // NIST curve, or the X25519 output. Empty when the key does not agree on secrets, `peer` is of
  // another type or curve, or the result is degenerate (a small-order X25519 point).
  virtual std::vector<unsigned char> agree(const PublicKey& peer) const {
    (void)peer;
    return {};
  }
  // publicPart returns a new public key object holding this key's public part; null when the
  // public part does not read back.
  std::shared_ptr<PublicKey> publicPart() const;
};

}  // namespace tessel
