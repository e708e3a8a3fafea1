// Path building and validation over a CertificateStore, and signature checks of signed objects.
#include "tessel/x509_path.h"

#include <cstdint>
#include <limits>

#include "core/diag.h"
#include "tessel/algorithm_id.h"
#include "tessel/asn1.h"
#include "tessel/pkcs8.h"
#include "tessel/rsa.h"
#include "trust/trust_internal.h"

namespace tessel {

namespace {

using Chain = std::vector<std::shared_ptr<X509Certificate>>;

std::string_view text(const std::vector<unsigned char>& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// describe names a certificate in messages: its subject, or failing that its alternative names.
std::string describe(const X509Certificate& cert) {
  if (!cert.subject.empty()) return cert.subject.str();
  std::string out;
  for (const auto& name : cert.subjectAltNames) {
    if (!out.empty()) out += ", ";
    out += name.dataStr();
  }
  return out;
}

// hostMatches compares a (lower-cased) certificate name with a host. "*.b.c" stands for exactly
// one leftmost label: it covers a.b.c but neither b.c nor x.a.b.c.
bool hostMatches(std::string_view pattern, std::string_view host) {
  if (pattern.size() >= 3 && pattern[0] == '*' && pattern[1] == '.') {
    const size_t dot = host.find('.');
    return dot != std::string_view::npos && host.substr(dot + 1) == pattern.substr(2);
  }
  return pattern == host;
}

bool leafNameMatches(const X509Certificate& leaf, std::string_view host, const ol::IPAddr6& ip,
                     std::string_view email) {
  const bool haveIp = !ip.isZero();
  for (const auto& name : leaf.subjectAltNames) {
    if (!host.empty() && name.type == GeneralName::dNSName && hostMatches(lowerCase(text(name.data)), host))
      return true;
  }
  for (const auto& name : leaf.subjectAltNames) {
    if (haveIp && name.type == GeneralName::iPAddress && name.getIp() == ip) return true;
  }
  for (const auto& name : leaf.subjectAltNames) {
    if (!email.empty() && name.type == GeneralName::rfc822Name && text(name.data) == email) return true;
  }
  const std::string cn = lowerCase(leaf.subject.CN);
  if (!host.empty() && hostMatches(cn, host)) return true;
  if (haveIp && ip.str(true) == cn) return true;
  return !email.empty() && leaf.subject.CN == email;
}

// checkNameConstraints walks from the top of the chain down, testing each certificate's
// alternative names against the subtrees collected from the certificates above it.
unsigned checkNameConstraints(const Chain& chain, std::string* error) {
  std::vector<const GeneralName*> permitted, excluded;
  for (size_t i = chain.size(); i-- > 0;) {
    const X509Certificate& cert = *chain[i];
    for (const auto& name : cert.subjectAltNames) {
      for (const GeneralName* c : excluded) {
        if (c->type == name.type && matchNameConstraint(*c, name)) {
          *error = "name constraint excluded: " + c->dataStr() + " not satisfied for: " + name.dataStr();
          return pathNameConstraint;
        }
      }
      const GeneralName* firstMiss = nullptr;
      bool satisfied = false;
      for (const GeneralName* c : permitted) {
        if (c->type != name.type) continue;
        if (matchNameConstraint(*c, name)) {
          satisfied = true;
          break;
        }
        if (firstMiss == nullptr) firstMiss = c;
      }
      if (!satisfied && firstMiss != nullptr) {
        *error = "name constraint permitted: " + firstMiss->dataStr() + " not satisfied for: " + name.dataStr();
        return pathNameConstraint;
      }
    }
    if (cert.permittedName.type != GeneralName::none) permitted.push_back(&cert.permittedName);
    if (cert.excludedName.type != GeneralName::none) excluded.push_back(&cert.excludedName);
  }
  return pathValid;
}

void printPossibleCrls(const Chain& chain) {
  for (const auto& cert : chain) {
    for (const auto& point : cert->crlDistributionPoints) diag() << "\tpossible crl: " << point.dataStr();
  }
}

// checkCertificate applies the per-certificate rules of the upward walk: CA flag, validity
// period and revocation. pathValid lets the walk go on.
unsigned checkCertificate(const Chain& chain, size_t i, const CertificateStore& store, TimePoint now, bool checkCrl,
                          std::string* error) {
  const X509Certificate& cert = *chain[i];
  if (i > 0 && cert.isCa != 1) return pathNotCa;
  if (now < cert.notBefore) {
    *error = "cert not valid (before: " + cert.notBefore.toString() + " > now: " + now.toString() + ") - \"" +
             describe(cert) + "\"";
    return pathNotYetValid;
  }
  if (cert.notAfter < now) {
    *error = "cert not valid (after: " + cert.notAfter.toString() + " < now: " + now.toString() + ") - \"" +
             describe(cert) + "\"";
    return pathExpired;
  }
  if (!checkCrl) return pathValid;
  // The next certificate of the chain signs this one when the store does not hold it (the walk
  // checks that below), so its CRLs count; a held one is found through the store instead, so
  // that a peer's copy of an anchor over another key never vouches for a CRL.
  const X509Certificate* next = i + 1 < chain.size() ? chain[i + 1].get() : nullptr;
  if (next && store.findIssuer(next->subject, asn1::blob(next->subjectKeyId))) next = nullptr;
  if (auto crl = store.findCrlFor(cert, next)) {
    if (isRevoked(*crl, cert)) {
      *error = "cert is revoked by crl - \"" + describe(cert) + "\"";
      return pathRevoked;
    }
  } else if (!cert.crlDistributionPoints.empty()) {
    *error = "crl not found for: \"" + describe(cert) + "\"";
    printPossibleCrls(chain);
    return pathCrlMissing;
  }
  return pathValid;
}

}  // namespace

bool verifySignature(const X509Base* object, asn1::blob publicKeyInfo, PathRes* result) {
  const std::shared_ptr<PublicKey> key = parsePkcs8PublicKey(publicKeyInfo);
  if (!key) {
    result->code = pathBadKey;
    return false;
  }
  KeyType keyType = keyRsa;
  HashID hashId = hashNone;
  if (!parseAlgosFromKeyInfo(asn1::blob(object->sigAlg), &keyType, &hashId) || keyType != key->getKeyType()) {
    result->code = pathBadAlgorithm;
    return false;
  }
  result->code = pathBadSignature;
  return key->verifyLenient(asn1::blob(object->tbs), asn1::blob(object->signature), SignatureParams{hashId});
}

bool matchNameConstraint(const GeneralName& constraint, const GeneralName& name) {
  if (constraint.type != GeneralName::dNSName || name.type != GeneralName::dNSName) return false;
  std::string c = lowerCase(text(constraint.data));
  const std::string n = lowerCase(text(name.data));
  const bool leadingDot = !c.empty() && c[0] == '.';
  if (leadingDot) c.erase(0, 1);
  if (c.empty() || n.empty()) return false;
  if (c.size() < n.size() && n.ends_with(c) && n[n.size() - c.size() - 1] == '.') return true;
  return !leadingDot && c == n;
}

bool x509BuildPath(const CertificateStore& store, Chain& chain, std::shared_ptr<X509Certificate> start) {
  if (!start) {
    if (chain.empty()) return false;
    start = chain.back();
  }
  for (std::shared_ptr<X509Certificate> current = std::move(start); !current->selfSigned;) {
    auto issuer = store.findIssuer(current->issuer, asn1::blob(current->authorityKeyId));
    if (!issuer) {
      diag() << "trust path: next certificate not found for akid: " << asn1::str(current->authorityKeyId);
      return !chain.empty();
    }
    if (issuer->isCa != 1) {
      diag() << "trust path: certificate without CA constraint with skid: " << asn1::str(issuer->subjectKeyId);
      return !chain.empty();
    }
    for (const auto& held : chain) {
      if (held->subject == issuer->subject && held->subjectKeyId == issuer->subjectKeyId) {
        // A loop ends building with what was collected; validation then judges that chain.
        diag() << "trust path: loop skid: " << asn1::str(issuer->subjectKeyId);
        return true;
      }
    }
    chain.push_back(issuer);
    current = std::move(issuer);
  }
  return !chain.empty();
}

unsigned x509ValidatePath(const Chain& chain, const CertificateStore& store, TimePoint now, std::string_view host,
                          const ol::IPAddr6& ip, std::string_view email, bool checkCrl, std::string* error) {
  std::string ignored;
  if (error == nullptr) error = &ignored;
  if (chain.empty()) return pathEmpty;
  const X509Certificate& leaf = *chain[0];
  if (!host.empty() || !email.empty() || !ip.isZero()) {
    if (!leafNameMatches(leaf, lowerCase(host), ip, email)) {
      *error = "name verification failed for: \"" + describe(leaf) + "\"";
      return pathNameMismatch;
    }
  }
  if (unsigned code = checkNameConstraints(chain, error)) return code;

  // Walk up until a certificate the store holds: that is the trust anchor.
  std::shared_ptr<X509Certificate> anchor;
  size_t k = 0;
  for (size_t i = 0; i < chain.size() && !anchor; ++i) {
    if (unsigned code = checkCertificate(chain, i, store, now, checkCrl, error)) return code;
    // A leaf is its own anchor only when it is self-signed.
    if (i > 0 || chain[i]->selfSigned) {
      anchor = store.findIssuer(chain[i]->subject, asn1::blob(chain[i]->subjectKeyId));
      k = i;
    }
  }
  if (!anchor) return pathNoAnchor;

  for (size_t j = 1; j < k; ++j) {
    // An absent limit (-1) reads as the largest unsigned value.
    if (static_cast<std::uint32_t>(chain[j]->pathLen) < j - 1) {
      *error = "pathLenConstraint exceeded for: " + describe(*chain[j]);
      return pathLenExceeded;
    }
  }

  // Each certificate below the anchor is checked with its issuer's key; the one just below
  // the anchor uses the store's copy of the anchor, never the copy the peer sent.
  const size_t last = k == 0 ? 0 : k - 1;
  for (size_t i = 0; i <= last; ++i) {
    const X509Certificate& signer = (i == last) ? *anchor : *chain[i + 1];
    PathRes res;
    if (!verifySignature(chain[i].get(), asn1::blob(signer.publicKeyInfo), &res)) {
      *error = "cert signature is invalid for: \"" + describe(*chain[i]) + "\"";
      return res.code;
    }
  }
  return pathValid;
}

const char* pathCodeText(unsigned code) {
  switch (code) {
    case pathValid: return "chain valid";
    case pathEmpty: return "empty chain";
    case pathNotCa: return "a certificate above the first is not a CA";
    case pathNoAnchor: return "no certificate of the chain is held by the store";
    default: return "";
  }
}

std::string lowerCase(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

bool isRevoked(const X509Crl& crl, const X509Certificate& cert) {
  for (const auto& entry : crl.revoked) {
    if (entry.serial == cert.serial) return true;
  }
  return false;
}

}  // namespace tessel
