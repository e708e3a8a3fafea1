// Algorithm identifiers: digest, key and signature algorithms to and from their OIDs, the raw
// AlgorithmIdentifier record, and the DigestInfo writer of PKCS#1 v1.5 signatures.
#pragma once

#include "tessel/export.h"

#include <vector>

#include "tessel/asn1.h"
#include "tessel/ec.h"
#include "tessel/hash.h"

namespace tessel {

// KeyType numbers the key algorithms. The values are stable (stored and compared as numbers);
// 1 is unused.
enum KeyType : unsigned {
  keyRsa = 0,
  keyEc = 2,  // ECDSA/ECDH over the NIST curves
  keyEd25519 = 3,
  keyX25519 = 4,
  keyMlkem768 = 5,  // ML-KEM-768 key encapsulation (id-alg-ml-kem-768)
};

// AlgorithmIdentifier is an OID with its parameters kept as raw DER.
struct TESSEL_API AlgorithmIdentifier {
  std::vector<unsigned char> oid;     // OID content bytes (no tag or length)
  std::vector<unsigned char> params;  // the whole parameters element; empty when absent
};

// SignatureParams says how a message is signed or checked: its digest (hashNone for Ed25519,
// which hashes inside the signature) and, for RSA, whether RSASSA-PSS replaces PKCS#1 v1.5. PSS
// masks with MGF1 over `mgfHash` and salts with `saltLength` bytes; left unset they follow the
// message digest, as RFC 4055 recommends.
struct TESSEL_API SignatureParams {
  HashID hash = hashNone;
  bool pss = false;
  HashID mgfHash = hashNone;  // PSS only; hashNone: the message digest
  int saltLength = -1;        // PSS only; -1: the message digest's length

  // mgfDigest is the MGF1 digest in effect.
  HashID mgfDigest() const { return mgfHash == hashNone ? hash : mgfHash; }
  bool operator==(const SignatureParams&) const = default;
};

// EncryptionParams says how an RSA key transports a secret: RSAES-PKCS1-v1_5, or RSAES-OAEP
// with its digest, MGF1 digest (hashNone: the digest) and label (RFC 8017 section 7).
struct TESSEL_API EncryptionParams {
  bool oaep = false;
  HashID hash = hashSha1;  // OAEP only
  HashID mgfHash = hashNone;
  std::vector<unsigned char> label;
  // mgfDigest is the MGF1 digest in effect.
  HashID mgfDigest() const { return mgfHash == hashNone ? hash : mgfHash; }
  bool operator==(const EncryptionParams&) const = default;
};

// encodeEncryptionAlgorithm writes the key-transport AlgorithmIdentifier of `params`:
// rsaEncryption with NULL, or id-RSAES-OAEP with its RFC 4055 parameters (defaults omitted).
// Empty for an OAEP digest other than SHA-1 to SHA-512.
TESSEL_API std::vector<unsigned char> encodeEncryptionAlgorithm(const EncryptionParams& params);
// parseEncryptionAlgorithm reads a complete key-transport AlgorithmIdentifier: rsaEncryption
// (NULL or absent parameters) or id-RSAES-OAEP (SHA-1 to SHA-512, MGF1, an explicit label).
// False, `params` untouched, for anything else.
TESSEL_API bool parseEncryptionAlgorithm(asn1::blob der, EncryptionParams* params);

// getHashLength is the output length of MD5, SHA-1, SHA-256, SHA-384, SHA-512 and the MD5+SHA-1
// pair (16, 20, 32, 48, 64, 36); 0 for any other id.
TESSEL_API unsigned getHashLength(unsigned hash);

// isPssDigest says whether RSASSA-PSS signs and masks with `hash`: SHA-1 to SHA-512.
TESSEL_API bool isPssDigest(unsigned hash);

// getHashOid returns the OID content of MD5, SHA-1, SHA-256, SHA-384 or SHA-512 (pointing at
// constant data), or an empty blob for any other id.
TESSEL_API asn1::blob getHashOid(unsigned hash);
// getHashID maps a digest OID, or the HMAC-SHA1/256/512 OIDs, to its HashID; 0 for anything
// else (HMAC-SHA384 included, which no peer of ours sends).
TESSEL_API HashID getHashID(asn1::blob oid);
// saveHash writes the digest AlgorithmIdentifier SEQUENCE { OID, NULL }.
TESSEL_API void saveHash(DerEncoder& e, unsigned hash);
// saveDigest writes the PKCS#1 DigestInfo SEQUENCE { AlgorithmIdentifier, OCTET STRING digest }.
TESSEL_API void saveDigest(DerEncoder& e, unsigned hash, asn1::blob digest);
// getHashFromDER reads a complete digest AlgorithmIdentifier, which must carry NULL
// parameters; 0 on any other shape.
TESSEL_API HashID getHashFromDER(asn1::blob der);
// getKeyInfoFromKeyHash returns the signature algorithm OID for a key type and digest, or an
// empty blob for a combination we do not sign with (MD5 with RSA among them).
TESSEL_API asn1::blob getKeyInfoFromKeyHash(unsigned keyType, unsigned hash);
// parseAlgosFromKeyInfo reads a complete signature AlgorithmIdentifier (an OID, optionally one
// NULL, nothing else) and sets both outputs on a known OID; false, outputs untouched, otherwise.
TESSEL_API bool parseAlgosFromKeyInfo(asn1::blob der, KeyType* keyType, HashID* hash);
// encodeSignatureAlgorithm writes the signature AlgorithmIdentifier of a key type and params:
// the RSA OIDs with NULL parameters, RSASSA-PSS with its RFC 4055 parameters (defaults
// omitted, as DER wants), ECDSA and Ed25519 without parameters (RFC 5758, RFC 8410). Empty for
// a combination nothing signs with (MD5, a key that cannot sign, a PSS salt out of range).
TESSEL_API std::vector<unsigned char> encodeSignatureAlgorithm(KeyType keyType, const SignatureParams& params);
// parseSignatureAlgorithm reads a complete signature AlgorithmIdentifier: every form
// parseAlgosFromKeyInfo accepts, and RSASSA-PSS with parameters (SHA-1 to SHA-512 digests, with
// NULL or absent digest parameters; MGF1; a salt of at most 1024 bytes; trailer 1). False, and
// the outputs untouched, on anything else.
TESSEL_API bool parseSignatureAlgorithm(asn1::blob der, KeyType* keyType, SignatureParams* params);
// keyTypeFromOid maps a public-key algorithm OID to its KeyType; unknown OIDs read as RSA, the
// type of every key the appliance stored before other types existed.
TESSEL_API KeyType keyTypeFromOid(asn1::blob oid);
// getKeyOid returns the public-key algorithm OID of a key type (rsaEncryption, id-ecPublicKey,
// Ed25519, X25519, id-alg-ml-kem-768); empty for any other value.
TESSEL_API asn1::blob getKeyOid(unsigned keyType);
// parse reads the content of an AlgorithmIdentifier SEQUENCE: an OID and at most one further
// element, copied whole into params. False when the OID is missing or more elements follow.
TESSEL_API bool parse(AlgorithmIdentifier& id, asn1::blob content);
// save writes SEQUENCE { OID, params as stored }; empty params add nothing.
TESSEL_API void save(const AlgorithmIdentifier& id, DerEncoder& e);
// encode is save into a fresh encoder.
TESSEL_API std::vector<unsigned char> encode(const AlgorithmIdentifier& id);

// calcDigest hashes `data` in one go with the factory's digest `hash` (kernel or software);
// empty when the factory has no such digest.
TESSEL_API std::vector<unsigned char> calcDigest(unsigned hash, asn1::blob data);
// getModLen is the byte length of a field element of a named curve (24, 28, 32, 48, 66 for
// P-192 to P-521); 0 for any other value.
TESSEL_API unsigned getModLen(Curve curve);

}  // namespace tessel
