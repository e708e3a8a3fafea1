// Generic key containers: SubjectPublicKeyInfo, PKCS#8 PrivateKeyInfo / OneAsymmetricKey and
// EncryptedPrivateKeyInfo with PBES2 (written) or PBES2 and the PKCS#12 triple-DES scheme
// (read). The key class is chosen by the algorithm OID and given the inner DER.
#pragma once

#include "tessel/export.h"

#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "tessel/keys.h"

namespace tessel {

// PBES2Params are the parameters pbes2_encrypt uses: PBKDF2 with `salt`, `iterations` and the
// PRF `prfOid` (empty means HMAC-SHA-1), then the CBC cipher `encOid` with `iv`.
struct TESSEL_API PBES2Params {
  std::vector<unsigned char> kdfOid;
  std::vector<unsigned char> salt;
  unsigned iterations = 0;
  std::vector<unsigned char> prfOid;
  std::vector<unsigned char> encOid;
  std::vector<unsigned char> iv;
};

// Password-based decryption refuses iteration counts above this: a hostile file could
// otherwise keep the appliance busy for hours. Real keys use thousands, at most millions.
inline constexpr unsigned kMaxPbeIterations = 16u << 20;

// makePublicKey and makePrivateKey create an empty key object of a type; null for types whose
// class this build does not have.
TESSEL_API std::shared_ptr<PublicKey> makePublicKey(KeyType type);
TESSEL_API std::shared_ptr<PrivateKey> makePrivateKey(KeyType type);

// encodePkcs8PublicKey writes SubjectPublicKeyInfo { AlgorithmIdentifier, BIT STRING key } with
// the object's own DER (encodeToDerEncoded): handed a private key object it writes the private
// body, as it always has. Empty when the key has no DER. New code uses
// encodeSubjectPublicKeyInfo.
TESSEL_API std::vector<unsigned char> encodePkcs8PublicKey(const PublicKey& key);
// encodeSubjectPublicKeyInfo writes the SubjectPublicKeyInfo of the key's public part only
// (encodePublicKey), whether it is handed a public or a private key object; empty when the key
// is not set.
TESSEL_API std::vector<unsigned char> encodeSubjectPublicKeyInfo(const PublicKey& key);
// parsePkcs8PublicKey reads exactly one SubjectPublicKeyInfo. Unknown algorithm OIDs read as
// RSA. Null on any failure.
TESSEL_API std::shared_ptr<PublicKey> parsePkcs8PublicKey(asn1::blob der);
// encodePkcs8PrivateKey writes PrivateKeyInfo { 0, AlgorithmIdentifier, OCTET STRING key };
// empty for a key of unknown type or without DER.
TESSEL_API std::vector<unsigned char> encodePkcs8PrivateKey(const PrivateKey& key);
// parseOneAssimetricKey reads a PrivateKeyInfo (version 0) or OneAsymmetricKey (version 1,
// which may carry the public key in [1]); attributes in [0] are skipped. The pair is (private
// key, public key or null); both null on any failure.
TESSEL_API std::pair<std::shared_ptr<PrivateKey>, std::shared_ptr<PublicKey>> parseOneAssimetricKey(asn1::blob der);
// encodePkcs8EncryptedPrivateKey writes an EncryptedPrivateKeyInfo: PBES2 with PBKDF2 over
// HMAC-SHA-256 (`iterations` rounds, fresh 16-byte salt) and AES-256-CBC (fresh IV). Empty on
// failure.
TESSEL_API std::vector<unsigned char> encodePkcs8EncryptedPrivateKey(const PrivateKey& key, std::string_view password,
                                                                     unsigned iterations);
// parsePkcs8EncryptedPrivateKey decrypts and reads an EncryptedPrivateKeyInfo (PBES2, or the
// PKCS#12 pbeWithSHAAnd3-KeyTripleDES-CBC). A wrong password gives null, as does anything
// malformed; an unknown scheme also prints "PKCS8: unsupported PBE: <name>".
TESSEL_API std::shared_ptr<PrivateKey> parsePkcs8EncryptedPrivateKey(asn1::blob der, std::string_view password);

// pbes2_encrypt pads (PKCS#5) and encrypts `plaintext` as `params` say; empty on failure, with
// "unsupported PBES2 KDF: <name>" or "PBES2: unimplemented cipher: <name>" on standard output
// for an unknown PRF or cipher.
TESSEL_API std::vector<unsigned char> pbes2_encrypt(asn1::blob plaintext, std::string_view password,
                                                    const PBES2Params& params);
// pbes2_crypt runs PBES2 in either direction from a parsed AlgorithmIdentifier (its params
// hold the PBKDF2 and cipher parameters). Decryption checks and removes the padding. False on
// any failure.
TESSEL_API bool pbes2_crypt(const AlgorithmIdentifier& alg, std::string_view password, asn1::blob data,
                            std::vector<unsigned char>& out, bool encrypt);
// pbe1_crypt runs pbeWithSHAAnd3-KeyTripleDES-CBC (key and IV from the PKCS#12 KDF with SHA-1,
// RFC 7292 appendix B) in either direction; params are SEQUENCE { salt, iterations }.
TESSEL_API bool pbe1_crypt(const AlgorithmIdentifier& alg, std::string_view password, asn1::blob data,
                           std::vector<unsigned char>& out, bool encrypt);

}  // namespace tessel
