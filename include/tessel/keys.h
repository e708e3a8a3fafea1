// The key class roots. Every key type (RSA here; EC, Ed25519, X25519 elsewhere) reads and
// writes its own DER body and prints itself; the generic containers (SubjectPublicKeyInfo,
// PKCS#8) choose the class by the algorithm OID and hand it the inner bytes.
#pragma once

#include <ostream>
#include <vector>

#include "tessel/algorithm_id.h"
#include "tessel/asn1.h"

namespace tessel {

// PublicKey is the interface of every public key. Private keys derive from their public
// counterpart as well, so a private key can go wherever a public one is expected.
class PublicKey {
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
};

// PrivateKey adds the private operation the signing code uses.
class PrivateKey : public virtual PublicKey {
 public:
  // signHashed signs an already computed digest `hash` of algorithm `hashId`; empty on failure.
  virtual std::vector<unsigned char> signHashed(unsigned hashId, asn1::blob hash) const = 0;
};

}  // namespace tessel
