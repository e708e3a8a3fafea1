// Pieces of verifyChain shared between its source files (not a public header).
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "tessel/verify.h"

namespace tessel::verify {

using Chain = std::vector<std::shared_ptr<X509Certificate>>;

// Failure is a code and the chain index of the certificate it concerns.
struct Failure {
  VerifyCode code = VerifyCode::ok;
  std::size_t index = 0;
  explicit operator bool() const { return code != VerifyCode::ok; }
};

// selfIssued is true when a certificate's issuer and subject names are equal.
bool selfIssued(const X509Certificate& cert);
// sameCertificate is true for the same DER, or the same subject and key.
bool sameCertificate(const X509Certificate& a, const X509Certificate& b);

// checkChain applies every per-certificate, name, purpose, name-constraint and revocation rule
// to a complete chain (leaf first, anchor last) whose signatures the search has checked.
Failure checkChain(const Chain& chain, const CertificateStore& anchors, const VerifyOptions& options);
// checkLeafNames matches the options' DNS name, IP address and e-mail against the leaf.
Failure checkLeafNames(const X509Certificate& leaf, const VerifyOptions& options);
// checkNameConstraints applies each issuer's nameConstraints to the certificates below it.
Failure checkNameConstraints(const Chain& chain);

// PathSearch is the depth-first search with backtracking over candidate issuers.
struct SearchOutcome {
  Chain chain;      // the passing chain, or the first complete chain that failed
  Failure failure;  // ok with a chain: found; noPath / searchLimit / tooDeep without one
  unsigned signatureChecks = 0;
};
SearchOutcome searchPaths(const std::shared_ptr<X509Certificate>& leaf, const Chain& intermediates,
                          const CertificateStore& anchors, const VerifyOptions& options);

}  // namespace tessel::verify
