// Certificate chain verification for new code: verifyChain searches every path from a leaf to a
// trust anchor through the peer's intermediates and the anchor store, and checks each path
// against validity, signatures (with an algorithm floor), CA constraints, names, purposes,
// revocation and name constraints. x509BuildPath / x509ValidatePath stay for existing hosts.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "ol/ipaddr.h"
#include "tessel/cert_store.h"
#include "tessel/timepoint.h"
#include "tessel/x509.h"

namespace tessel {

// VerifyPurpose is what the leaf is to be used for; `any` checks no extended key usage.
enum class VerifyPurpose : unsigned { any, serverAuth, clientAuth, codeSigning, emailProtection, timeStamping };

// VerifyCode values are stable: hosts may store and compare them.
enum class VerifyCode : unsigned {
  ok = 0,
  noTime = 1,       // the options carry no validation time
  noPath = 2,       // no path from the leaf reaches a trust anchor
  searchLimit = 3,  // the path search ran out of signature checks or candidates
  notYetValid = 4,
  expired = 5,
  badSignature = 6,
  weakAlgorithm = 7,  // signature digest or key below the algorithm floor
  notCa = 8,          // an issuer lacks basicConstraints cA TRUE
  noCertSign = 9,     // an issuer's keyUsage lacks keyCertSign
  pathLenExceeded = 10,
  unknownCritical = 11,  // a critical extension this validator does not enforce
  tooDeep = 12,          // more intermediates than maxDepth
  leafIsCa = 13,
  nameMismatch = 14,
  badPurpose = 15,   // extended key usage of the leaf or an issuer excludes the purpose
  badKeyUsage = 16,  // the leaf's keyUsage does not allow the purpose
  revoked = 17,
  revocationUnknown = 18,  // no authentic CRL current at the validation time
  nameConstraint = 19,
};

// verifyCodeText names a code in one short English phrase ("ok", "certificate expired", ...).
const char* verifyCodeText(VerifyCode code);

// AlgorithmFloor is the weakest signature and key verifyChain accepts. MD5 is never accepted.
struct AlgorithmFloor {
  bool allowSha1 = false;
  unsigned minRsaBits = 2048;
  unsigned minEcBits = 256;  // P-256 and larger; Ed25519 always passes
};

struct VerifyOptions {
  TimePoint time;  // required: there is no hidden clock; zero fails with noTime
  VerifyPurpose purpose = VerifyPurpose::serverAuth;
  std::string dnsName;      // matched against the leaf's DNS SANs when not empty
  ol::IPAddr6 ip;           // matched against IP SANs when not the zero address
  std::string email;        // matched against rfc822 SANs when not empty
  bool cnFallback = false;  // let a leaf without SANs match dnsName by its common name
  unsigned maxDepth = 8;    // intermediates between the leaf and the anchor
  AlgorithmFloor floor;
  bool leafMayBeCa = true;
  bool checkRevocation = false;       // every certificate below the anchor needs a current CRL
  unsigned maxSignatureChecks = 100;  // the path search's budget
  unsigned maxCandidates = 32;        // issuers tried per certificate
};

struct VerifyResult {
  VerifyCode code = VerifyCode::noPath;
  const char* text = "";
  // index is the certificate that failed, in `chain`. Without a chain it counts up from the leaf:
  // for badSignature the first certificate no candidate's key verified, for noPath and
  // searchLimit the depth the search reached.
  std::size_t index = 0;
  std::vector<std::shared_ptr<X509Certificate>> chain;  // leaf first, anchor last; empty when none
  unsigned signatureChecks = 0;                         // spent by the search
  bool ok() const { return code == VerifyCode::ok; }
};

// verifyChain finds and checks a path from `leaf` through `intermediates` (untrusted; not kept
// beyond the result's chain) to a certificate of `anchors`, trying every candidate issuer
// depth-first within the options' bounds. The first path that passes every check is returned
// with code ok; otherwise the failure of the first complete path found, or noPath/searchLimit.
VerifyResult verifyChain(const X509Certificate& leaf,
                         const std::vector<std::shared_ptr<X509Certificate>>& intermediates,
                         const CertificateStore& anchors, const VerifyOptions& options);

}  // namespace tessel
