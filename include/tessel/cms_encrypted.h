// CMS EncryptedData (RFC 5652 section 8, PKCS#7 encrypted-data) under a password, and the
// password-based encryption it and PKCS#12 files share: PBES2 (RFC 8018) and the PKCS#12 PBEs
// (RFC 7292 appendix C: triple DES and RC2 keyed through the PKCS#12 key derivation).
//
// Passwords are optional strings: PBES2 takes a present password as its UTF-8 bytes and an
// absent one as no bytes; the PKCS#12 PBEs hash a present password as BMPString with two
// terminating zero bytes (so "" is 00 00) and an absent one as no bytes at all.
#pragma once

#include "tessel/export.h"

#include <optional>
#include <string>
#include <vector>

#include "tessel/asn1.h"
#include "tessel/pkcs8.h"

namespace tessel {

// PbePassword is a password that may be absent (nullopt), which is not the same as empty.
using PbePassword = std::optional<std::string>;

// PbeScheme names a password-based encryption a writer can choose.
enum class PbeScheme {
  pbes2Aes256,      // PBES2: PBKDF2 with HMAC-SHA-256, AES-256-CBC; what new files use
  pkcs12TripleDes,  // pbeWithSHAAnd3-KeyTripleDES-CBC, for old readers
  pkcs12Rc2_40,     // pbeWithSHAAnd40BitRC2-CBC, for the oldest readers; weak
};

// encodePbeAlgorithm writes the AlgorithmIdentifier of `scheme` with `iterations` and a fresh
// salt (16 bytes for PBES2, 8 for the PKCS#12 PBEs) and IV; empty when `iterations` is 0 or the
// random source fails.
TESSEL_API std::vector<unsigned char> encodePbeAlgorithm(PbeScheme scheme, unsigned iterations);
// pbeEncrypt pads and encrypts `plaintext` under `password` as the whole AlgorithmIdentifier
// element `algorithm` says (PBES2 or a PKCS#12 PBE); false on an unknown or malformed algorithm.
TESSEL_API bool pbeEncrypt(asn1::blob algorithm, const PbePassword& password, asn1::blob plaintext,
                           std::vector<unsigned char>& out);
// pbeDecrypt decrypts and unpads `ciphertext`; false, with `out` empty, for a wrong password,
// an unknown or malformed algorithm, or an iteration count above `maxIterations`.
TESSEL_API bool pbeDecrypt(asn1::blob algorithm, const PbePassword& password, asn1::blob ciphertext,
                           std::vector<unsigned char>& out, unsigned maxIterations = kMaxPbeIterations);
// describePbeAlgorithm names the encryption of an AlgorithmIdentifier element for people
// ("PBES2, PBKDF2-hmacWithSHA256, AES-256-CBC, 2048 iterations"); the dotted OID when unknown.
TESSEL_API std::string describePbeAlgorithm(asn1::blob algorithm);

// PKCS7EncryptedData is a ContentInfo of type encrypted-data: content of some type encrypted
// with a content-encryption algorithm, here always a password-based one.
class TESSEL_API PKCS7EncryptedData {
 public:
  unsigned version = 0;                         // 0 (2 would mean unprotected attributes)
  std::vector<unsigned char> contentType;       // OID content of the encrypted content's type
  std::vector<unsigned char> algorithm;         // whole contentEncryptionAlgorithm element
  std::vector<unsigned char> encryptedContent;  // the [0] content; empty when absent

  // parse reads ContentInfo { id-encryptedData, [0] EXPLICIT EncryptedData }; false on any
  // structural fault or a version other than 0 or 2. Unprotected attributes are skipped. The
  // object must not be used after a failure.
  bool parse(asn1::blob der);
  // encode writes the ContentInfo back from the fields.
  std::vector<unsigned char> encode() const;
  // decrypt decrypts the content into `plaintext`; false, with `plaintext` empty, on a wrong
  // password, missing content, an unusable algorithm or more than `maxIterations`.
  bool decrypt(const PbePassword& password, std::vector<unsigned char>& plaintext,
               unsigned maxIterations = kMaxPbeIterations) const;
  // encrypt fills the object with `plaintext` (of type id-data) encrypted under `password`
  // with `scheme` and `iterations`; false, the object cleared, when that cannot be done.
  bool encrypt(asn1::blob plaintext, const PbePassword& password, PbeScheme scheme, unsigned iterations);
};

}  // namespace tessel
