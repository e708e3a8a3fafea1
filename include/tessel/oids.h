// The one table of the OIDs the library reads and writes, each spelled once in dotted decimal
// and turned into its DER content bytes when compiled, and the one way to compare an OID read
// from DER with an entry.
#pragma once

#include "tessel/export.h"

#include <cstddef>
#include <span>

#include "tessel/algorithm_id.h"
#include "tessel/blob.h"
#include "tessel/hash.h"

namespace tessel::asn1 {

// Oid is an OID's dotted text with its DER content bytes (no tag or length).
struct TESSEL_API Oid {
  static constexpr std::size_t kMaxBytes = 16;
  const char* dotted = "";
  unsigned char size = 0;
  unsigned char bytes[kMaxBytes] = {};

  // content views the content bytes; they live as long as the entry.
  blob content() const { return blob(bytes, size); }
  // is says whether `oid` (content bytes as read) is this OID.
  bool is(blob oid) const { return content() == oid; }
  // prefixes says whether `oid` is this OID followed by exactly one more single-byte arc (0..127).
  bool prefixes(blob oid) const { return oid.size() == size + 1u && blob(oid.start, size) == content(); }
};

// oidFromDotted encodes dotted decimal text at compile time: the first two arcs share one byte
// (40 * first + second) and each later arc is base 128, most significant group first. A
// malformed text or one too long for Oid stops the compilation.
TESSEL_API consteval Oid oidFromDotted(const char* dotted) {
  Oid out;
  out.dotted = dotted;
  unsigned long long arcs[24] = {};
  std::size_t count = 0;
  bool digit = false;
  for (const char* c = dotted;; ++c) {
    if (*c >= '0' && *c <= '9') {
      arcs[count] = arcs[count] * 10 + static_cast<unsigned>(*c - '0');
      digit = true;
    } else if ((*c == '.' || *c == 0) && digit && count < 23) {
      ++count;
      digit = false;
      if (*c == 0) break;
    } else {
      throw "malformed dotted OID";  // not a constant expression: a compile error
    }
  }
  if (count < 2 || arcs[0] > 2 || (arcs[0] < 2 && arcs[1] >= 40)) throw "malformed dotted OID";
  auto put = [&out](unsigned long long arc) {
    unsigned char groups[10] = {};
    std::size_t n = 0;
    do {
      groups[n++] = static_cast<unsigned char>(arc & 0x7F);
      arc >>= 7;
    } while (arc != 0);
    while (n-- > 0) {
      if (out.size == Oid::kMaxBytes) throw "OID too long";
      out.bytes[out.size++] = static_cast<unsigned char>(groups[n] | (n > 0 ? 0x80 : 0));
    }
  };
  put(arcs[0] * 40 + arcs[1]);
  for (std::size_t i = 2; i < count; ++i) put(arcs[i]);
  return out;
}

namespace oid {

// Digests and HMACs.
inline constexpr Oid md5 = oidFromDotted("1.2.840.113549.2.5");
inline constexpr Oid sha1 = oidFromDotted("1.3.14.3.2.26");
inline constexpr Oid sha256 = oidFromDotted("2.16.840.1.101.3.4.2.1");
inline constexpr Oid sha384 = oidFromDotted("2.16.840.1.101.3.4.2.2");
inline constexpr Oid sha512 = oidFromDotted("2.16.840.1.101.3.4.2.3");
inline constexpr Oid hmacWithSha1 = oidFromDotted("1.2.840.113549.2.7");
inline constexpr Oid hmacWithSha256 = oidFromDotted("1.2.840.113549.2.9");
inline constexpr Oid hmacWithSha384 = oidFromDotted("1.2.840.113549.2.10");
inline constexpr Oid hmacWithSha512 = oidFromDotted("1.2.840.113549.2.11");

// Public-key algorithms.
inline constexpr Oid rsaEncryption = oidFromDotted("1.2.840.113549.1.1.1");
inline constexpr Oid ecPublicKey = oidFromDotted("1.2.840.10045.2.1");
inline constexpr Oid x25519 = oidFromDotted("1.3.101.110");
inline constexpr Oid ed25519 = oidFromDotted("1.3.101.112");
inline constexpr Oid ed448 = oidFromDotted("1.3.101.113");
inline constexpr Oid mlKem768 = oidFromDotted("2.16.840.1.101.3.4.4.2");

// Signature algorithms.
inline constexpr Oid md5WithRsaEncryption = oidFromDotted("1.2.840.113549.1.1.4");
inline constexpr Oid sha1WithRsaEncryption = oidFromDotted("1.2.840.113549.1.1.5");
inline constexpr Oid sha256WithRsaEncryption = oidFromDotted("1.2.840.113549.1.1.11");
inline constexpr Oid sha384WithRsaEncryption = oidFromDotted("1.2.840.113549.1.1.12");
inline constexpr Oid sha512WithRsaEncryption = oidFromDotted("1.2.840.113549.1.1.13");
inline constexpr Oid ecdsaWithSha1 = oidFromDotted("1.2.840.10045.4.1");
inline constexpr Oid ecdsaWithSha224 = oidFromDotted("1.2.840.10045.4.3.1");
inline constexpr Oid ecdsaWithSha256 = oidFromDotted("1.2.840.10045.4.3.2");
inline constexpr Oid ecdsaWithSha384 = oidFromDotted("1.2.840.10045.4.3.3");
inline constexpr Oid ecdsaWithSha512 = oidFromDotted("1.2.840.10045.4.3.4");
inline constexpr Oid rsassaPss = oidFromDotted("1.2.840.113549.1.1.10");
inline constexpr Oid mgf1 = oidFromDotted("1.2.840.113549.1.1.8");
inline constexpr Oid rsaesOaep = oidFromDotted("1.2.840.113549.1.1.7");
inline constexpr Oid pSpecified = oidFromDotted("1.2.840.113549.1.1.9");

// Named curves.
inline constexpr Oid prime192v1 = oidFromDotted("1.2.840.10045.3.1.1");
inline constexpr Oid secp224r1 = oidFromDotted("1.3.132.0.33");
inline constexpr Oid prime256v1 = oidFromDotted("1.2.840.10045.3.1.7");
inline constexpr Oid secp384r1 = oidFromDotted("1.3.132.0.34");
inline constexpr Oid secp521r1 = oidFromDotted("1.3.132.0.35");

// Password-based encryption and the CBC ciphers it uses.
inline constexpr Oid pbes2 = oidFromDotted("1.2.840.113549.1.5.13");
inline constexpr Oid pbkdf2 = oidFromDotted("1.2.840.113549.1.5.12");
inline constexpr Oid pbmac1 = oidFromDotted("1.2.840.113549.1.5.14");
inline constexpr Oid pbeWithShaAnd3KeyTripleDesCbc = oidFromDotted("1.2.840.113549.1.12.1.3");
inline constexpr Oid pbeWithShaAnd2KeyTripleDesCbc = oidFromDotted("1.2.840.113549.1.12.1.4");
inline constexpr Oid pbeWithShaAnd128BitRc2Cbc = oidFromDotted("1.2.840.113549.1.12.1.5");
inline constexpr Oid pbeWithShaAnd40BitRc2Cbc = oidFromDotted("1.2.840.113549.1.12.1.6");
inline constexpr Oid desEde3Cbc = oidFromDotted("1.2.840.113549.3.7");
inline constexpr Oid aes128Cbc = oidFromDotted("2.16.840.1.101.3.4.1.2");
inline constexpr Oid aes192Cbc = oidFromDotted("2.16.840.1.101.3.4.1.22");
inline constexpr Oid aes256Cbc = oidFromDotted("2.16.840.1.101.3.4.1.42");

// Name attributes (id-at, followed by one arc) and request attributes.
inline constexpr Oid idAt = oidFromDotted("2.5.4");
inline constexpr Oid challengePassword = oidFromDotted("1.2.840.113549.1.9.7");
inline constexpr Oid extensionRequest = oidFromDotted("1.2.840.113549.1.9.14");

// Certificate, CRL and CRL entry extensions.
inline constexpr Oid subjectKeyIdentifier = oidFromDotted("2.5.29.14");
inline constexpr Oid keyUsage = oidFromDotted("2.5.29.15");
inline constexpr Oid subjectAltName = oidFromDotted("2.5.29.17");
inline constexpr Oid basicConstraints = oidFromDotted("2.5.29.19");
inline constexpr Oid cRLNumber = oidFromDotted("2.5.29.20");
inline constexpr Oid cRLReason = oidFromDotted("2.5.29.21");
inline constexpr Oid issuingDistributionPoint = oidFromDotted("2.5.29.28");
inline constexpr Oid nameConstraints = oidFromDotted("2.5.29.30");
inline constexpr Oid cRLDistributionPoints = oidFromDotted("2.5.29.31");
inline constexpr Oid certificatePolicies = oidFromDotted("2.5.29.32");
inline constexpr Oid policyMappings = oidFromDotted("2.5.29.33");
inline constexpr Oid authorityKeyIdentifier = oidFromDotted("2.5.29.35");
inline constexpr Oid policyConstraints = oidFromDotted("2.5.29.36");
inline constexpr Oid extKeyUsage = oidFromDotted("2.5.29.37");
inline constexpr Oid inhibitAnyPolicy = oidFromDotted("2.5.29.54");
inline constexpr Oid authorityInfoAccess = oidFromDotted("1.3.6.1.5.5.7.1.1");
inline constexpr Oid embeddedSctList = oidFromDotted("1.3.6.1.4.1.11129.2.4.2");
// id-kp: the extended key usages are this followed by one arc.
inline constexpr Oid idKp = oidFromDotted("1.3.6.1.5.5.7.3");
// CMS content types and attributes, and the time-stamp content.
inline constexpr Oid idData = oidFromDotted("1.2.840.113549.1.7.1");
inline constexpr Oid idSignedData = oidFromDotted("1.2.840.113549.1.7.2");
inline constexpr Oid idEnvelopedData = oidFromDotted("1.2.840.113549.1.7.3");
inline constexpr Oid idCtAuthEnvelopedData = oidFromDotted("1.2.840.113549.1.9.16.1.23");
// Enveloped content: the key-encryption and content-encryption algorithms.
inline constexpr Oid idAlgPwriKek = oidFromDotted("1.2.840.113549.1.9.16.3.9");
inline constexpr Oid aes128Wrap = oidFromDotted("2.16.840.1.101.3.4.1.5");
inline constexpr Oid aes192Wrap = oidFromDotted("2.16.840.1.101.3.4.1.25");
inline constexpr Oid aes256Wrap = oidFromDotted("2.16.840.1.101.3.4.1.45");
inline constexpr Oid aes128Gcm = oidFromDotted("2.16.840.1.101.3.4.1.6");
inline constexpr Oid aes256Gcm = oidFromDotted("2.16.840.1.101.3.4.1.46");
inline constexpr Oid dhSinglePassStdDhSha1Kdf = oidFromDotted("1.3.133.16.840.63.0.2");
inline constexpr Oid dhSinglePassStdDhSha256Kdf = oidFromDotted("1.3.132.1.11.1");
inline constexpr Oid dhSinglePassStdDhSha384Kdf = oidFromDotted("1.3.132.1.11.2");
inline constexpr Oid dhSinglePassStdDhSha512Kdf = oidFromDotted("1.3.132.1.11.3");
inline constexpr Oid idEncryptedData = oidFromDotted("1.2.840.113549.1.7.6");
inline constexpr Oid contentTypeAttr = oidFromDotted("1.2.840.113549.1.9.3");
inline constexpr Oid messageDigestAttr = oidFromDotted("1.2.840.113549.1.9.4");
inline constexpr Oid signingTimeAttr = oidFromDotted("1.2.840.113549.1.9.5");
inline constexpr Oid idCtTstInfo = oidFromDotted("1.2.840.113549.1.9.16.1.4");
inline constexpr Oid signingCertificate = oidFromDotted("1.2.840.113549.1.9.16.2.12");
inline constexpr Oid signingCertificateV2 = oidFromDotted("1.2.840.113549.1.9.16.2.47");
// PKCS#12 bag types, the certificate and CRL types of their bags, and bag attributes.
inline constexpr Oid keyBag = oidFromDotted("1.2.840.113549.1.12.10.1.1");
inline constexpr Oid pkcs8ShroudedKeyBag = oidFromDotted("1.2.840.113549.1.12.10.1.2");
inline constexpr Oid certBag = oidFromDotted("1.2.840.113549.1.12.10.1.3");
inline constexpr Oid crlBag = oidFromDotted("1.2.840.113549.1.12.10.1.4");
inline constexpr Oid secretBag = oidFromDotted("1.2.840.113549.1.12.10.1.5");
inline constexpr Oid safeContentsBag = oidFromDotted("1.2.840.113549.1.12.10.1.6");
inline constexpr Oid x509CertificateType = oidFromDotted("1.2.840.113549.1.9.22.1");
inline constexpr Oid x509CrlType = oidFromDotted("1.2.840.113549.1.9.23.1");
inline constexpr Oid friendlyName = oidFromDotted("1.2.840.113549.1.9.20");
inline constexpr Oid localKeyId = oidFromDotted("1.2.840.113549.1.9.21");

}  // namespace oid

// kAllOids lists every entry above, for checks over the whole table.
inline constexpr const Oid* kAllOids[] = {
    &oid::md5,
    &oid::sha1,
    &oid::sha256,
    &oid::sha384,
    &oid::sha512,
    &oid::hmacWithSha1,
    &oid::hmacWithSha256,
    &oid::hmacWithSha384,
    &oid::hmacWithSha512,
    &oid::rsaEncryption,
    &oid::ecPublicKey,
    &oid::x25519,
    &oid::ed25519,
    &oid::ed448,
    &oid::mlKem768,
    &oid::md5WithRsaEncryption,
    &oid::sha1WithRsaEncryption,
    &oid::sha256WithRsaEncryption,
    &oid::sha384WithRsaEncryption,
    &oid::sha512WithRsaEncryption,
    &oid::ecdsaWithSha1,
    &oid::ecdsaWithSha224,
    &oid::ecdsaWithSha256,
    &oid::ecdsaWithSha384,
    &oid::ecdsaWithSha512,
    &oid::rsassaPss,
    &oid::mgf1,
    &oid::rsaesOaep,
    &oid::pSpecified,
    &oid::prime192v1,
    &oid::secp224r1,
    &oid::prime256v1,
    &oid::secp384r1,
    &oid::secp521r1,
    &oid::pbes2,
    &oid::pbkdf2,
    &oid::pbmac1,
    &oid::pbeWithShaAnd3KeyTripleDesCbc,
    &oid::pbeWithShaAnd2KeyTripleDesCbc,
    &oid::pbeWithShaAnd128BitRc2Cbc,
    &oid::pbeWithShaAnd40BitRc2Cbc,
    &oid::desEde3Cbc,
    &oid::aes128Cbc,
    &oid::aes192Cbc,
    &oid::aes256Cbc,
    &oid::idAt,
    &oid::challengePassword,
    &oid::extensionRequest,
    &oid::subjectKeyIdentifier,
    &oid::keyUsage,
    &oid::subjectAltName,
    &oid::basicConstraints,
    &oid::cRLNumber,
    &oid::cRLReason,
    &oid::issuingDistributionPoint,
    &oid::nameConstraints,
    &oid::cRLDistributionPoints,
    &oid::certificatePolicies,
    &oid::policyMappings,
    &oid::authorityKeyIdentifier,
    &oid::policyConstraints,
    &oid::extKeyUsage,
    &oid::inhibitAnyPolicy,
    &oid::authorityInfoAccess,
    &oid::embeddedSctList,
    &oid::idKp,
    &oid::idData,
    &oid::idSignedData,
    &oid::idEnvelopedData,
    &oid::idCtAuthEnvelopedData,
    &oid::idAlgPwriKek,
    &oid::aes128Wrap,
    &oid::aes192Wrap,
    &oid::aes256Wrap,
    &oid::aes128Gcm,
    &oid::aes256Gcm,
    &oid::dhSinglePassStdDhSha1Kdf,
    &oid::dhSinglePassStdDhSha256Kdf,
    &oid::dhSinglePassStdDhSha384Kdf,
    &oid::dhSinglePassStdDhSha512Kdf,
    &oid::idEncryptedData,
    &oid::contentTypeAttr,
    &oid::messageDigestAttr,
    &oid::signingTimeAttr,
    &oid::idCtTstInfo,
    &oid::signingCertificate,
    &oid::signingCertificateV2,
    &oid::keyBag,
    &oid::pkcs8ShroudedKeyBag,
    &oid::certBag,
    &oid::crlBag,
    &oid::secretBag,
    &oid::safeContentsBag,
    &oid::x509CertificateType,
    &oid::x509CrlType,
    &oid::friendlyName,
    &oid::localKeyId,
};

// SignatureAlgorithm ties a signature OID to its key type, digest and dump name.
struct TESSEL_API SignatureAlgorithm {
  const Oid* oid;
  const char* name;  // as oid2name shows it; null: shown dotted
  KeyType key;
  HashID hash;
  bool forSigning;  // false: only named in dumps; the signing and verifying lookups skip it
};
// signatureAlgorithms lists the signature algorithms in lookup order (the first match wins).
TESSEL_API std::span<const SignatureAlgorithm> signatureAlgorithms();
// findSignatureAlgorithm is the entry of a signature OID (content bytes), or null.
TESSEL_API const SignatureAlgorithm* findSignatureAlgorithm(blob oid);

// HmacAlgorithm ties an HMAC OID (a PBKDF2 PRF) to its digest.
struct TESSEL_API HmacAlgorithm {
  const Oid* oid;
  HashID hash;
};
// hmacAlgorithms lists the HMAC OIDs we know.
TESSEL_API std::span<const HmacAlgorithm> hmacAlgorithms();
// hmacHash is the digest of an HMAC OID (content bytes), or hashNone.
TESSEL_API HashID hmacHash(blob oid);

}  // namespace tessel::asn1
