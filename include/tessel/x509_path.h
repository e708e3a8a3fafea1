// Certificate path building and validation, and the signature check of one signed object.
//
// Validation answers with a small code (0 valid) and, for most failures, one reason text:
//   1 empty chain                         8  signature algorithm unusable for the key
//   2 name verification failed            9  signature does not verify
//   3 an issuer is not a CA               10 revoked
//   4 not yet valid                       11 CRL required but not found
//   5 expired                             12 name constraint violated
//   6 no trust anchor in the store        13 pathLenConstraint exceeded
//   7 issuer public key unreadable
#pragma once

#include "tessel/export.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ol/ipaddr.h"
#include "tessel/blob.h"
#include "tessel/cert_store.h"
#include "tessel/names.h"
#include "tessel/timepoint.h"
#include "tessel/x509.h"

namespace tessel {

// Result codes of x509ValidatePath (7 to 9 come from PathRes::code).
enum PathCode : unsigned {
  pathValid = 0,
  pathEmpty = 1,
  pathNameMismatch = 2,
  pathNotCa = 3,
  pathNotYetValid = 4,
  pathExpired = 5,
  pathNoAnchor = 6,
  pathBadKey = 7,
  pathBadAlgorithm = 8,
  pathBadSignature = 9,
  pathRevoked = 10,
  pathCrlMissing = 11,
  pathNameConstraint = 12,
  pathLenExceeded = 13
};

// PathRes carries the reason of a signature failure out of verifySignature.
struct TESSEL_API PathRes {
  unsigned code = 0;  // 7 key unreadable, 8 algorithm unusable, 9 set once verification starts
};

// pathCodeText names the codes that x509ValidatePath returns without a reason text of their
// own ("chain valid", "empty chain", ...); empty for the others.
TESSEL_API const char* pathCodeText(unsigned code);

// verifySignature checks the signature of `object` (certificate, CRL or request) with the key
// in the SubjectPublicKeyInfo `publicKeyInfo`: RSA PKCS#1 v1.5 (at least eight 0xFF padding
// bytes), ECDSA or Ed25519. True when it verifies; on false `result->code` says why.
TESSEL_API bool verifySignature(const X509Base* object, asn1::blob publicKeyInfo, PathRes* result);

// matchNameConstraint is true when the dNSName `name` lies in the dNSName subtree
// `constraint` ("b.c" covers b.c and a.b.c, ".b.c" only a.b.c). Other types never match.
TESSEL_API bool matchNameConstraint(const GeneralName& constraint, const GeneralName& name);

// x509BuildPath appends issuers from `store` to `chain`, starting from `start` (not itself
// appended) or, when `start` is empty, from the last element of `chain`, until a self-signed
// certificate, a missing issuer, a non-CA issuer or a loop. It returns whether `chain` holds
// anything; why building stopped short is printed ("trust path: ...").
TESSEL_API bool x509BuildPath(const CertificateStore& store, std::vector<std::shared_ptr<X509Certificate>>& chain,
                              std::shared_ptr<X509Certificate> start);

// x509ValidatePath validates `chain` (leaf first, each next element its issuer) at `now`: the
// leaf's names against `host`, `ip` and `email` (each ignored when empty), name constraints,
// validity times, revocation when `checkCrl` is set, CA flags, a trust anchor held by `store`,
// path lengths and signatures. Returns a PathCode; `*error` gets the reason where there is one.
TESSEL_API unsigned x509ValidatePath(const std::vector<std::shared_ptr<X509Certificate>>& chain,
                                     const CertificateStore& store, TimePoint now, std::string_view host,
                                     const ol::IPAddr6& ip, std::string_view email, bool checkCrl, std::string* error);

}  // namespace tessel
