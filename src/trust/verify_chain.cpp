// verifyChain: the path search's complete chains judged by the per-certificate rules (validity,
// extensions, algorithm floor, CA constraints), the leaf's names and purpose, name constraints
// and revocation from authenticated CRLs.
#include <memory>

#include "tessel/algorithm_id.h"
#include "tessel/ec_key.h"
#include "tessel/oids.h"
#include "tessel/rsa.h"
#include "trust/trust_internal.h"
#include "trust/verify_internal.h"
#include "x509/x509_ext.h"

namespace tessel {

namespace verify {

namespace {

// kHandled are the extensions whose rules this validator applies (or, for policies, which it
// may ignore as most validators do); any other critical extension refuses its certificate.
const asn1::Oid* const kHandled[] = {
    &asn1::oid::basicConstraints,      &asn1::oid::keyUsage,
    &asn1::oid::extKeyUsage,           &asn1::oid::subjectAltName,
    &asn1::oid::nameConstraints,       &asn1::oid::certificatePolicies,
    &asn1::oid::subjectKeyIdentifier,  &asn1::oid::authorityKeyIdentifier,
    &asn1::oid::cRLDistributionPoints,
};

bool hasUnhandledCritical(const X509Certificate& cert) {
  asn1::parser p, extensions, list;
  if (!asn1::readOnly(asn1::blob(cert.tbs), asn1::tagSequence, &p)) return true;
  while (!p.atEnd() && !p.failed() && p.tag != asn1::explicitTag(3)) p.next();
  if (p.atEnd()) return false;
  if (!p.read(asn1::explicitTag(3), &extensions) || !extensions.read(asn1::tagSequence, &list)) return true;
  for (; !list.atEnd(); list.next()) {
    asn1::blob oid, value;
    bool critical = false;
    if (!list.isAt(asn1::tagSequence) || !x509::readExtension(list.content, &oid, &critical, &value)) return true;
    if (!critical) continue;
    bool handled = false;
    for (const asn1::Oid* h : kHandled) handled = handled || h->is(oid);
    if (!handled) return true;
  }
  return false;
}

bool extension(const X509Certificate& cert, const asn1::Oid& oid, asn1::blob* value = nullptr) {
  bool critical = false;
  asn1::blob ignored;
  return cert.findExtension(oid.content(), &critical, value ? value : &ignored);
}

// keyBelowFloor is true for an RSA or EC key weaker than the floor, or a key that cannot be read.
bool keyBelowFloor(const X509Certificate& cert, const AlgorithmFloor& floor) {
  const std::shared_ptr<PublicKey> key = cert.parsePublicKey();
  if (!key) return true;
  if (const auto* rsa = dynamic_cast<const RsaPublicKey*>(key.get())) return rsa->n.bits() < floor.minRsaBits;
  if (const auto* ec = dynamic_cast<const EcPublicKey*>(key.get())) {
    static constexpr unsigned kBits[] = {0, 192, 224, 256, 384, 521};
    const unsigned c = static_cast<unsigned>(ec->curve);
    return c >= std::size(kBits) || kBits[c] < floor.minEcBits;
  }
  return false;
}

bool signatureBelowFloor(const X509Certificate& cert, const AlgorithmFloor& floor) {
  KeyType keyType = keyRsa;
  SignatureParams params;
  if (!parseSignatureAlgorithm(asn1::blob(cert.sigAlg), &keyType, &params)) return true;
  if (keyType == keyEd25519) return false;
  const HashID h = params.hash;
  if (h == hashSha1) return !floor.allowSha1;
  return h != hashSha256 && h != hashSha384 && h != hashSha512;
}

// Failure checks of one certificate at position i of a chain ending at index last (the anchor).
Failure checkCertificate(const Chain& chain, std::size_t i, const VerifyOptions& options) {
  const X509Certificate& cert = *chain[i];
  const std::size_t last = chain.size() - 1;
  if (options.time < cert.notBefore) return {VerifyCode::notYetValid, i};
  if (cert.notAfter < options.time) return {VerifyCode::expired, i};
  if (hasUnhandledCritical(cert)) return {VerifyCode::unknownCritical, i};
  if (keyBelowFloor(cert, options.floor)) return {VerifyCode::weakAlgorithm, i};
  // The anchor's own signature is never relied on.
  if (i < last && signatureBelowFloor(cert, options.floor)) return {VerifyCode::weakAlgorithm, i};
  if (i == 0) {
    if (!options.leafMayBeCa && last > 0 && cert.isCa == 1) return {VerifyCode::leafIsCa, 0};
    return {};
  }
  // An anchor may be an old root without basicConstraints; an intermediate may not.
  if (i < last ? cert.isCa != 1 : cert.isCa == 2) return {VerifyCode::notCa, i};
  if (extension(cert, asn1::oid::keyUsage) && !(cert.keyUsage & kuKeyCertSign)) return {VerifyCode::noCertSign, i};
  if (cert.pathLen >= 0) {
    // Self-issued intermediates (key rollover) do not count against a limit.
    std::size_t below = 0;
    for (std::size_t j = 1; j < i; ++j) below += !selfIssued(*chain[j]);
    if (below > static_cast<std::size_t>(cert.pathLen)) return {VerifyCode::pathLenExceeded, i};
  }
  return {};
}

// purposeOid is the extended key usage of a purpose (empty for `any`).
asn1::blob purposeOid(VerifyPurpose purpose) {
  static constexpr asn1::Oid kOids[] = {
      asn1::oidFromDotted("2.5.29.37.0"),       asn1::oidFromDotted("1.3.6.1.5.5.7.3.1"),
      asn1::oidFromDotted("1.3.6.1.5.5.7.3.2"), asn1::oidFromDotted("1.3.6.1.5.5.7.3.3"),
      asn1::oidFromDotted("1.3.6.1.5.5.7.3.4"), asn1::oidFromDotted("1.3.6.1.5.5.7.3.8")};
  return kOids[static_cast<unsigned>(purpose)].content();
}

// ekuAllows is true when the certificate has no extended key usage, or lists the purpose or
// anyExtendedKeyUsage.
bool ekuAllows(const X509Certificate& cert, VerifyPurpose purpose) {
  asn1::blob value, list;
  if (purpose == VerifyPurpose::any || !extension(cert, asn1::oid::extKeyUsage, &value)) return true;
  if (!asn1::parser(value).isAt(asn1::tagSequence, &list)) return false;
  for (asn1::parser p(list); p.isAt(asn1::tagOid); p.next())
    if (p.content == purposeOid(purpose) || p.content == purposeOid(VerifyPurpose::any)) return true;
  return false;
}

// keyUsageAllows applies the leaf's keyUsage, when it has one, to the purpose.
bool keyUsageAllows(const X509Certificate& leaf, VerifyPurpose purpose) {
  if (!extension(leaf, asn1::oid::keyUsage)) return true;
  std::uint32_t need = 0;
  switch (purpose) {
    case VerifyPurpose::any: return true;
    case VerifyPurpose::serverAuth: need = kuDigitalSignature | kuKeyEncipherment | kuKeyAgreement; break;
    case VerifyPurpose::clientAuth: need = kuDigitalSignature | kuKeyAgreement; break;
    case VerifyPurpose::codeSigning: need = kuDigitalSignature; break;
    case VerifyPurpose::emailProtection: need = kuDigitalSignature | kuContentCommitment | kuKeyEncipherment; break;
    case VerifyPurpose::timeStamping: need = kuDigitalSignature | kuContentCommitment; break;
  }
  return (leaf.keyUsage & need) != 0;
}

Failure checkPurpose(const Chain& chain, VerifyPurpose purpose) {
  for (std::size_t i = 0; i < chain.size(); ++i)
    if (!ekuAllows(*chain[i], purpose)) return {VerifyCode::badPurpose, i};
  if (!keyUsageAllows(*chain[0], purpose)) return {VerifyCode::badKeyUsage, 0};
  return {};
}

// checkRevocation wants, for every certificate below the anchor, an authentic CRL of its issuer
// that is current at the validation time and does not list it.
Failure checkRevocation(const Chain& chain, const CertificateStore& anchors, TimePoint at) {
  for (std::size_t i = 0; i + 1 < chain.size(); ++i) {
    const X509Certificate& cert = *chain[i];
    const std::shared_ptr<X509Crl> crl = anchors.findCrlFor(cert, chain[i + 1].get());
    if (!crl || at < crl->thisUpdate || (crl->nextUpdate.seconds() != 0 && crl->nextUpdate < at))
      return {VerifyCode::revocationUnknown, i};
    if (isRevoked(*crl, cert)) return {VerifyCode::revoked, i};
  }
  return {};
}

}  // namespace

bool selfIssued(const X509Certificate& cert) { return cert.issuer == cert.subject; }

Failure checkChain(const Chain& chain, const CertificateStore& anchors, const VerifyOptions& options) {
  if (chain.size() > options.maxDepth + 2) return {VerifyCode::tooDeep, options.maxDepth + 1};
  for (std::size_t i = 0; i < chain.size(); ++i)
    if (Failure f = checkCertificate(chain, i, options)) return f;
  if (Failure f = checkLeafNames(*chain[0], options)) return f;
  if (Failure f = checkPurpose(chain, options.purpose)) return f;
  if (Failure f = checkNameConstraints(chain)) return f;
  if (options.checkRevocation)
    if (Failure f = checkRevocation(chain, anchors, options.time)) return f;
  return {};
}

}  // namespace verify

const char* verifyCodeText(VerifyCode code) {
  switch (code) {
    case VerifyCode::ok: return "ok";
    case VerifyCode::noTime: return "no validation time given";
    case VerifyCode::noPath: return "no path to a trust anchor";
    case VerifyCode::searchLimit: return "path search limit reached";
    case VerifyCode::notYetValid: return "certificate not yet valid";
    case VerifyCode::expired: return "certificate expired";
    case VerifyCode::badSignature: return "signature does not verify";
    case VerifyCode::weakAlgorithm: return "signature or key below the algorithm floor";
    case VerifyCode::notCa: return "issuer is not a CA";
    case VerifyCode::noCertSign: return "issuer key usage lacks keyCertSign";
    case VerifyCode::pathLenExceeded: return "path length constraint exceeded";
    case VerifyCode::unknownCritical: return "unhandled critical extension";
    case VerifyCode::tooDeep: return "chain longer than the maximum depth";
    case VerifyCode::leafIsCa: return "leaf certificate is a CA";
    case VerifyCode::nameMismatch: return "name does not match the certificate";
    case VerifyCode::badPurpose: return "extended key usage does not allow the purpose";
    case VerifyCode::badKeyUsage: return "key usage does not allow the purpose";
    case VerifyCode::revoked: return "certificate revoked";
    case VerifyCode::revocationUnknown: return "no current CRL for the certificate";
    case VerifyCode::nameConstraint: return "name constraint violated";
  }
  return "unknown code";
}

VerifyResult verifyChain(const X509Certificate& leaf,
                         const std::vector<std::shared_ptr<X509Certificate>>& intermediates,
                         const CertificateStore& anchors, const VerifyOptions& options) {
  VerifyResult result;
  if (options.time.seconds() == 0) {
    result.code = VerifyCode::noTime;
  } else {
    verify::SearchOutcome found =
        verify::searchPaths(std::make_shared<X509Certificate>(leaf), intermediates, anchors, options);
    result.code = found.failure.code;
    result.index = found.failure.index;
    result.chain = std::move(found.chain);
    result.signatureChecks = found.signatureChecks;
  }
  result.text = verifyCodeText(result.code);
  return result;
}

}  // namespace tessel
