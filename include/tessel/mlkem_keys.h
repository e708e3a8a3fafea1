// ML-KEM-768 keys (KeyType 5) in the containers of the IETF LAMPS profile for ML-KEM.
//
// The algorithm identifier is id-alg-ml-kem-768 (2.16.840.1.101.3.4.4.2) with absent
// parameters; a key with parameters is refused. The public key is the 1184-byte encapsulation
// key that stands in the SubjectPublicKeyInfo BIT STRING. The private key body (what the
// OneAsymmetricKey privateKey OCTET STRING holds) is one of the three forms of the profile's
// CHOICE:
//   seed         [0] IMPLICIT OCTET STRING, the 64 bytes d || z       (what we write)
//   expandedKey  OCTET STRING, the 2400-byte decapsulation key
//   both         SEQUENCE { OCTET STRING seed, OCTET STRING expandedKey }
// All three are read. The seed form derives both keys; the pair form must carry the expanded
// key that its seed derives; the expanded form must pass the FIPS 203 decapsulation-key check
// and is then written back in that same form, as no seed is known.
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <span>
#include <vector>

#include "tessel/keys.h"
#include "tessel/rng.h"

namespace tessel {

// MLKEMPublicKey holds an ML-KEM-768 encapsulation key.
class TESSEL_API MLKEMPublicKey : public virtual PublicKey {
 public:
  std::vector<unsigned char> encapsulationKey;  // 1184 bytes once set

  // parseFromDerEncoded takes exactly 1184 bytes that pass the FIPS 203 encapsulation-key
  // check (every coefficient below q); `params` must be empty.
  bool parseFromDerEncoded(asn1::blob key, asn1::blob params) override;
  // encodeToDerEncoded returns the encapsulation key (empty for an unset key).
  std::vector<unsigned char> encodeToDerEncoded() const override;
  // encodeParams is empty: the parameters are absent.
  std::vector<unsigned char> encodeParams() const override { return {}; }
  std::vector<unsigned char> encodePublicKey() const override { return encapsulationKey; }
  // equals compares the key type and the encapsulation key.
  bool equals(const PublicKey& other) const override;
  KeyType getKeyType() const override { return keyMlkem768; }
  // dump writes "[MLKEM768-PUBLIC]", then "\nencapsulationKey: " and the hex.
  void dump(std::ostream& out) const override;
  // encapsulate draws the 32-byte message from `rng` and writes the 1088-byte ciphertext and
  // the 32-byte shared secret. False, outputs cleared, for an unset key or a failed draw.
  bool encapsulate(Rng& rng, std::vector<unsigned char>& ciphertext, std::vector<unsigned char>& sharedSecret) const;
  // encapsulateWith is encapsulate with the caller's 32-byte message m (deterministic; for
  // known answers). False, outputs cleared, for an unset key or a wrong m length.
  bool encapsulateWith(std::span<const unsigned char> m, std::vector<unsigned char>& ciphertext,
                       std::vector<unsigned char>& sharedSecret) const;
};

// MLKEMPrivateKey holds the decapsulation key, its seed when known, and the encapsulation key.
class TESSEL_API MLKEMPrivateKey : public MLKEMPublicKey, public PrivateKey {
 public:
  ~MLKEMPrivateKey() override;
  // parseFromDerEncoded reads one of the three private key forms above; `params` must be empty.
  bool parseFromDerEncoded(asn1::blob key, asn1::blob params) override;
  // encodeToDerEncoded writes [0] seed, or the expanded key when the key was read without a
  // seed; empty for an unset key.
  std::vector<unsigned char> encodeToDerEncoded() const override;
  // dump writes "[MLKEM768-PRIVATE]", the public dump's line, then "\nseed: " and the hex, or
  // "\ndecapsulationKey: " and the hex for a key without a seed.
  void dump(std::ostream& out) const override;
  // signHashed always fails (empty): an ML-KEM key only encapsulates.
  std::vector<unsigned char> signHashed(unsigned, asn1::blob) const override { return {}; }
  // setSeed installs the 64-byte seed d || z and derives both keys; false for another length.
  bool setSeed(std::span<const unsigned char> seed);
  // generate draws a fresh seed from `rng` and derives both keys; false when the draw fails.
  bool generate(Rng& rng);
  // decapsulate writes the 32-byte shared secret for a 1088-byte ciphertext (a wrong but
  // well-formed ciphertext gives the implicit-rejection secret). False, output cleared, for an
  // unset key or a ciphertext of another length.
  bool decapsulate(std::span<const unsigned char> ciphertext, std::vector<unsigned char>& sharedSecret) const;
  // seed is the 64-byte d || z, or empty for a key read from its expanded form.
  const std::vector<unsigned char>& seed() const { return seed_; }
  // decapsulationKey is the 2400-byte expanded key (empty for an unset key).
  const std::vector<unsigned char>& decapsulationKey() const { return dk_; }

 private:
  bool setExpanded(asn1::blob dk);
  void clear();

  std::vector<unsigned char> seed_, dk_;
};

}  // namespace tessel
