// PKCS#12 files (RFC 7292, ".p12"/".pfx"): a private key with its certificates (and perhaps
// CRLs) under a password, as devices, browsers and servers exchange them.
//
// Reading checks the MAC first (HMAC with the PKCS#12 key derivation, or PBMAC1 as RFC 9579
// has it) and decrypts nothing unless it verifies; files without a MAC are read too. Contents
// may be in the clear or encrypted-data under PBES2 or a PKCS#12 PBE (triple DES, RC2). Only DER
// is read: BER's indefinite lengths and constructed OCTET STRINGs are refused.
//
// Passwords may be absent (nullopt), which differs from empty: the PKCS#12 derivation hashes ""
// as the two terminating zero bytes and an absent password as nothing. When the MAC does not
// verify with an empty or absent password the other is tried, as OpenSSL does.
#pragma once

#include "tessel/export.h"

#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "tessel/cms.h"
#include "tessel/cms_encrypted.h"
#include "tessel/crl.h"
#include "tessel/keys.h"
#include "tessel/x509.h"

namespace tessel {

// PKCS12Bag is one SafeBag as read: its type, its attributes and what it holds.
struct TESSEL_API PKCS12Bag {
  enum class Kind { key, certificate, crl, other };
  Kind kind = Kind::other;
  std::vector<unsigned char> bagType;            // OID content
  std::vector<PKCS7Attribute> attributes;        // every attribute, as found
  std::string friendlyName;                      // the friendlyName attribute as UTF-8; empty when absent
  std::vector<unsigned char> localKeyId;         // the localKeyId attribute's octets; empty when absent
  std::shared_ptr<PrivateKey> key;               // key and shrouded key bags
  std::shared_ptr<X509Certificate> certificate;  // certificate bags of type x509Certificate
  std::shared_ptr<X509Crl> crl;                  // CRL bags of type x509CRL
  std::vector<unsigned char> value;              // certificate or CRL DER; for other bags the bag value
  std::vector<unsigned char> encryption;         // whole AlgorithmIdentifier that protected the bag
  unsigned depth = 0;                            // how deep in safeContentsBags it sat
};

// PKCS12Mac says how the file's integrity was protected.
struct TESSEL_API PKCS12Mac {
  bool present = false;
  bool pbmac1 = false;        // PBMAC1: PBKDF2 keys the HMAC
  HashID hash = hashNone;     // the HMAC's digest
  HashID kdfHash = hashNone;  // PBMAC1's PBKDF2 PRF digest
  unsigned iterations = 0;
};

// PKCS12ReadOptions bounds the work a file may ask for.
struct TESSEL_API PKCS12ReadOptions {
  unsigned maxIterations = kMaxPbeIterations;  // for the MAC and every decryption
};

// PKCS12WriteOptions says how a new file is protected. The defaults are those of OpenSSL 3:
// PBES2 (PBKDF2-HMAC-SHA-256, AES-256-CBC) for the key and the certificates, HMAC-SHA-256 MAC.
struct TESSEL_API PKCS12WriteOptions {
  bool legacy = false;                       // triple DES key, RC2-40 certificates, HMAC-SHA-1 MAC
  bool legacyCertificatesTripleDes = false;  // with `legacy`: certificates under triple DES
  unsigned iterations = 2048;                // key and certificate encryption
  unsigned macIterations = 2048;
  std::string friendlyName;  // set on the key and its certificate when not empty
};

// PKCS12KeyAndCertificate is a key with the certificate that goes with it and the others.
struct TESSEL_API PKCS12KeyAndCertificate {
  std::shared_ptr<PrivateKey> key;
  std::shared_ptr<X509Certificate> certificate;          // null when none matches the key
  std::vector<std::shared_ptr<X509Certificate>> others;  // the remaining certificates, in file order
};

// PKCS12PFX is a PKCS#12 file as read.
class TESSEL_API PKCS12PFX {
 public:
  // kMaxDepth bounds the nesting of safeContentsBags; kMaxEncrypted bounds the password-encrypted
  // items (each costs a key derivation) a file may hold.
  static constexpr unsigned kMaxDepth = 4;
  static constexpr unsigned kMaxEncrypted = 64;

  PKCS12Mac mac;
  std::vector<std::vector<unsigned char>> contentEncryption;  // per ContentInfo: algorithm, empty for data
  std::vector<PKCS12Bag> bags;                                // in file order, nested ones in place
  std::string error;                                          // why parse failed

  // parse reads a whole PFX with `password`. False, with `error` set and no bag kept, for a
  // malformed file, a MAC that does not verify, a wrong password, an unsupported algorithm or
  // one asking for more iterations than allowed.
  bool parse(asn1::blob der, const PbePassword& password, const PKCS12ReadOptions& options = {});
  // dump writes the MAC, the contents' encryption and each bag with its attributes.
  void dump(std::ostream& os) const;
  // keyAndCertificate pairs the first key with the certificate of the same localKeyId or,
  // failing that, the same public key.
  PKCS12KeyAndCertificate keyAndCertificate() const;

 private:
  struct Reader;
};

// encodePkcs12 writes a new PFX holding `key`, its certificate `cert` (linked to it by a
// localKeyId, the SHA-1 of the certificate) and the `chain` certificates, under `password`.
// Empty when the key cannot be encoded, an iteration count is 0 or the random source fails.
TESSEL_API std::vector<unsigned char> encodePkcs12(const PrivateKey& key, const X509Certificate& cert,
                                                   const std::vector<std::shared_ptr<X509Certificate>>& chain,
                                                   const PbePassword& password, const PKCS12WriteOptions& options = {});

}  // namespace tessel
