// Ed25519 (KeyType 3) and X25519 (KeyType 4) keys in the form of RFC 8410.
//
// The public key is the 32 raw bytes that stand in the SubjectPublicKeyInfo BIT STRING. The
// private key body (what the OneAsymmetricKey privateKey OCTET STRING holds) is itself an OCTET
// STRING of the 32-byte private key: the Ed25519 seed or the X25519 scalar. The
// AlgorithmIdentifier of both has no parameters, so a key with parameters is refused. A private
// key derives its public key when it is read.
#pragma once

#include "tessel/export.h"

#include <array>

#include "tessel/keys.h"
#include "tessel/rng.h"

namespace tessel {

// Key25519Public holds the shared public part: 32 raw bytes.
class TESSEL_API Key25519Public : public virtual PublicKey {
 public:
  std::array<unsigned char, 32> publicKey{};

  // parseFromDerEncoded takes exactly 32 bytes; `params` must be empty.
  bool parseFromDerEncoded(asn1::blob key, asn1::blob params) override;
  // encodeToDerEncoded returns the 32 raw bytes.
  std::vector<unsigned char> encodeToDerEncoded() const override;
  // encodeParams is empty: RFC 8410 leaves the parameters absent.
  std::vector<unsigned char> encodeParams() const override { return {}; }
  std::vector<unsigned char> encodePublicKey() const override { return {publicKey.begin(), publicKey.end()}; }
  // equals compares the key type and the 32 bytes.
  bool equals(const PublicKey& other) const override;
  // dump writes "[ED25519-PUBLIC]" or "[X25519-PUBLIC]", then "\npublicKey: " and the hex.
  void dump(std::ostream& out) const override;
};

// Key25519Private holds the 32-byte private key beside the derived public key.
class TESSEL_API Key25519Private : public virtual Key25519Public, public PrivateKey {
 public:
  std::array<unsigned char, 32> privateKey{};

  ~Key25519Private() override;
  // parseFromDerEncoded reads OCTET STRING (32 bytes) with nothing after it and derives the
  // public key; `params` must be empty.
  bool parseFromDerEncoded(asn1::blob key, asn1::blob params) override;
  // encodeToDerEncoded writes OCTET STRING { privateKey }.
  std::vector<unsigned char> encodeToDerEncoded() const override;
  // dump writes the public dump's lines with "PRIVATE" in the label and a "\nprivateKey: " line.
  void dump(std::ostream& out) const override;
  // setPrivateKey installs a 32-byte private key and derives the public key.
  void setPrivateKey(const unsigned char key[32]);
  // generate installs 32 bytes drawn from `rng` as the private key and derives the public key.
  // False, the key left as it was, when rng fails.
  bool generate(Rng& rng);

 protected:
  // derivePublic computes publicKey from privateKey.
  virtual void derivePublic() = 0;
};

class TESSEL_API Ed25519PublicKey : public virtual Key25519Public {
 public:
  KeyType getKeyType() const override { return keyEd25519; }
  // verify returns true only for a valid Ed25519 signature of `message` (see eddsa::verify).
  bool verify(asn1::blob message, asn1::blob signature) const;
  // verify with params is verify when `params` name no digest and no PSS; false otherwise.
  bool verify(asn1::blob message, asn1::blob signature, const SignatureParams& params) const override;
};

class TESSEL_API Ed25519PrivateKey : public Ed25519PublicKey, public Key25519Private {
 public:
  KeyType getKeyType() const override { return keyEd25519; }
  // signHashed signs `hash` as the whole message: Ed25519 hashes inside the signature, so
  // `hashId` must be hashNone (0) and the caller passes the data itself. Returns the 64-byte
  // signature, or empty for any other hashId.
  std::vector<unsigned char> signHashed(unsigned hashId, asn1::blob hash) const override;
  // sign returns the 64-byte signature of `message`.
  std::vector<unsigned char> sign(asn1::blob message) const;
  using PrivateKey::sign;

 protected:
  void derivePublic() override;
};

class TESSEL_API X25519PublicKey : public virtual Key25519Public {
 public:
  KeyType getKeyType() const override { return keyX25519; }
};

class TESSEL_API X25519PrivateKey : public X25519PublicKey, public Key25519Private {
 public:
  KeyType getKeyType() const override { return keyX25519; }
  // signHashed always fails (empty): an X25519 key only agrees on secrets.
  std::vector<unsigned char> signHashed(unsigned, asn1::blob) const override { return {}; }
  // deriveSharedSecret returns the 32-byte X25519 secret with `peer`, or empty when the
  // result would be all zero (a small-order peer key).
  std::vector<unsigned char> deriveSharedSecret(const X25519PublicKey& peer) const;
  // agree is deriveSharedSecret for a peer that is an X25519 key; empty for any other.
  std::vector<unsigned char> agree(const PublicKey& peer) const override;

 protected:
  void derivePublic() override;
};

}  // namespace tessel
