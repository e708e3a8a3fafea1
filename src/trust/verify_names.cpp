// verifyChain's name rules: the leaf's DNS names, IP addresses and e-mail addresses against the
// caller's, and the issuers' name constraints (DNS, IP ranges, rfc822, directory names, URIs),
// read from the certificates' own bytes so that every subtree counts.
#include <string>
#include <string_view>

#include "tessel/oids.h"
#include "tessel/x509_path.h"
#include "trust/trust_internal.h"
#include "trust/verify_internal.h"

namespace tessel::verify {

namespace {

std::string textOf(const std::vector<unsigned char>& bytes) { return {bytes.begin(), bytes.end()}; }

std::string withoutTrailingDot(std::string s) {
  if (!s.empty() && s.back() == '.') s.pop_back();
  return s;
}

// hostMatches compares a certificate's DNS name with a host, both lower case. A wildcard counts
// only as the whole leftmost label over at least two more ("*.b.c" covers a.b.c, not b.c, not
// x.a.b.c); any other '*' is an ordinary character, which no host name holds.
bool hostMatches(const std::string& pattern, const std::string& host) {
  if (host.empty() || host[0] == '.' || host.find('*') != std::string::npos) return false;
  if (pattern.size() > 2 && pattern[0] == '*' && pattern[1] == '.') {
    const std::string_view rest = std::string_view(pattern).substr(2);
    const std::size_t dot = host.find('.');
    return rest.find('.') != std::string_view::npos && dot != std::string::npos && dot > 0 &&
           std::string_view(host).substr(dot + 1) == rest;
  }
  return pattern == host;
}

// emailMatches compares mailboxes: the local part exactly, the domain ignoring case.
bool emailMatches(std::string_view a, std::string_view b) {
  const std::size_t at = a.rfind('@');
  return at != std::string_view::npos && b.rfind('@') == at && a.substr(0, at) == b.substr(0, at) &&
         lowerCase(a.substr(at)) == lowerCase(b.substr(at));
}

}  // namespace

Failure checkLeafNames(const X509Certificate& leaf, const VerifyOptions& options) {
  const Failure mismatch{VerifyCode::nameMismatch, 0};
  if (!options.dnsName.empty()) {
    const std::string host = withoutTrailingDot(lowerCase(options.dnsName));
    bool found = false;
    for (const GeneralName& n : leaf.subjectAltNames)
      found =
          found || (n.type == GeneralName::dNSName && hostMatches(withoutTrailingDot(lowerCase(textOf(n.data))), host));
    // The common name stands in only when asked and when the leaf has no alternative name at all.
    if (!found && options.cnFallback && leaf.subjectAltNames.empty())
      found = hostMatches(withoutTrailingDot(lowerCase(leaf.subject.CN)), host);
    if (!found) return mismatch;
  }
  if (!options.ip.isZero()) {
    bool found = false;
    for (const GeneralName& n : leaf.subjectAltNames)
      found = found || (n.type == GeneralName::iPAddress && n.getIp() == options.ip);
    if (!found) return mismatch;
  }
  if (!options.email.empty()) {
    bool found = false;
    for (const GeneralName& n : leaf.subjectAltNames)
      found = found || (n.type == GeneralName::rfc822Name && emailMatches(textOf(n.data), options.email));
    if (!found) return mismatch;
  }
  return {};
}

namespace {

// Subtree is one GeneralSubtree base: its type, content bytes and, for a directory name, the name.
struct Subtree {
  std::uint8_t type = GeneralName::none;
  std::vector<unsigned char> data;
  DistinguishedName dn;
};

struct Constraints {
  std::vector<Subtree> permitted, excluded;
};

bool readSubtrees(asn1::blob list, std::vector<Subtree>& out) {
  for (asn1::parser p(list); !p.atEnd(); p.next()) {
    asn1::blob subtree;
    if (!p.isAt(asn1::tagSequence, &subtree)) return false;
    asn1::parser base(subtree);
    if (base.failed() || base.atEnd() || (base.tag & 0xC0) != 0x80) return false;
    Subtree s;
    s.type = static_cast<std::uint8_t>(base.tag & 0x1F);
    s.data = base.content.vec();
    if (s.type == GeneralName::directoryName && !s.dn.parse(base.content)) return false;
    out.push_back(std::move(s));
  }
  return true;
}

// readConstraints reads a certificate's nameConstraints; false when it has them malformed.
bool readConstraints(const X509Certificate& cert, Constraints* out) {
  bool critical = false;
  asn1::blob value, fields, list;
  if (!cert.findExtension(asn1::oid::nameConstraints.content(), &critical, &value)) return true;
  if (!asn1::parser(value).isAt(asn1::tagSequence, &fields)) return false;
  asn1::parser nc(fields);
  if (nc.isAt(asn1::implicitConstructedTag(0), &list)) {
    if (!readSubtrees(list, out->permitted)) return false;
    nc.next();
  }
  if (nc.isAt(asn1::implicitConstructedTag(1), &list)) {
    if (!readSubtrees(list, out->excluded)) return false;
    nc.next();
  }
  return nc.atEnd();
}

// dnsWithin: an empty constraint holds every name; otherwise matchNameConstraint's rule.
bool dnsWithin(const Subtree& c, const GeneralName& name) {
  if (c.data.empty()) return true;
  GeneralName constraint;
  constraint.type = GeneralName::dNSName;
  constraint.data = c.data;
  return matchNameConstraint(constraint, name);
}

// wildcardReaches is true when a wildcard name "*.X" stands for a host inside the excluded
// DNS subtree `c` that dnsWithin misses: c is one label over X (the wildcard's own expansion).
bool wildcardReaches(const Subtree& c, const GeneralName& name) {
  const std::string n = lowerCase(textOf(name.data));
  const std::string e = lowerCase(textOf(c.data));
  if (n.size() < 3 || n[0] != '*' || n[1] != '.' || e.empty() || e[0] == '.') return false;
  const std::size_t dot = e.find('.');
  return dot != std::string::npos && dot > 0 && e.substr(dot + 1) == n.substr(2);
}

bool ipWithin(const Subtree& c, const GeneralName& name) {
  const std::size_t n = name.data.size();
  if (c.data.size() != 2 * n) return false;
  for (std::size_t i = 0; i < n; ++i)
    if ((name.data[i] & c.data[n + i]) != (c.data[i] & c.data[n + i])) return false;
  return true;
}

// domainWithin applies a host constraint: ".x.y" holds the hosts below x.y, "x.y" that host only.
bool domainWithin(std::string_view constraint, std::string_view host) {
  const std::string c = lowerCase(constraint), h = lowerCase(host);
  if (c.empty()) return true;
  if (c[0] == '.') return h.size() > c.size() && h.ends_with(c);
  return h == c;
}

bool emailWithin(const Subtree& c, const GeneralName& name) {
  const std::string constraint = textOf(c.data), mailbox = textOf(name.data);
  const std::size_t at = mailbox.rfind('@');
  if (at == std::string::npos) return false;
  if (constraint.find('@') != std::string::npos) return emailMatches(constraint, mailbox);
  return domainWithin(constraint, std::string_view(mailbox).substr(at + 1));
}

// uriHost is the host of "scheme://[user@]host[:port][/...]"; empty when there is none.
std::string uriHost(const std::string& uri) {
  const std::size_t scheme = uri.find("://");
  if (scheme == std::string::npos) return {};
  std::string rest = uri.substr(scheme + 3);
  rest = rest.substr(0, rest.find_first_of("/?#"));
  if (const std::size_t at = rest.rfind('@'); at != std::string::npos) rest = rest.substr(at + 1);
  if (!rest.empty() && rest[0] == '[') return {};  // an address literal: no host name
  return rest.substr(0, rest.find(':'));
}

bool uriWithin(const Subtree& c, const GeneralName& name) {
  const std::string host = uriHost(textOf(name.data));
  if (host.empty()) return false;
  const std::string constraint = textOf(c.data);
  // "x.y" holds that host only; ".x.y" the hosts below it.
  return domainWithin(constraint, host);
}

// dnWithin: every attribute the constraint names has the same value in the name.
bool dnWithin(const DistinguishedName& c, const DistinguishedName& n) {
  const std::string DistinguishedName::*const attrs[] = {
      &DistinguishedName::C,  &DistinguishedName::S,  &DistinguishedName::L,           &DistinguishedName::O,
      &DistinguishedName::OU, &DistinguishedName::CN, &DistinguishedName::SerialNumber};
  for (const auto attr : attrs) {
    if ((c.*attr).empty()) continue;
    DistinguishedName a, b;
    a.CN = c.*attr;
    b.CN = n.*attr;
    if (!(a == b)) return false;
  }
  return true;
}

// NameRef is one name of a certificate under constraint: a GeneralName or its subject.
struct NameRef {
  const GeneralName* general = nullptr;
  const DistinguishedName* subject = nullptr;
  std::uint8_t type() const { return general ? general->type : std::uint8_t{GeneralName::directoryName}; }
};

bool within(const Subtree& c, const NameRef& n) {
  if (c.type != n.type()) return false;
  switch (c.type) {
    case GeneralName::dNSName: return dnsWithin(c, *n.general);
    case GeneralName::iPAddress: return ipWithin(c, *n.general);
    case GeneralName::rfc822Name: return emailWithin(c, *n.general);
    case GeneralName::uniformResourceIdentifier: return uriWithin(c, *n.general);
    case GeneralName::directoryName: {
      if (n.subject) return dnWithin(c.dn, *n.subject);
      DistinguishedName dn;
      return dn.parse(asn1::blob(n.general->data)) && dnWithin(c.dn, dn);
    }
    default: return false;
  }
}

bool allowedBy(const Constraints& cs, const NameRef& n) {
  for (const Subtree& c : cs.excluded) {
    if (within(c, n)) return false;
    if (c.type == GeneralName::dNSName && n.type() == GeneralName::dNSName && wildcardReaches(c, *n.general))
      return false;
  }
  bool typed = false;
  for (const Subtree& c : cs.permitted) {
    if (c.type != n.type()) continue;
    typed = true;
    if (within(c, n)) return true;
  }
  return !typed;
}

}  // namespace

Failure checkNameConstraints(const Chain& chain) {
  for (std::size_t i = 1; i < chain.size(); ++i) {
    Constraints cs;
    if (!readConstraints(*chain[i], &cs)) return {VerifyCode::nameConstraint, i};
    if (cs.permitted.empty() && cs.excluded.empty()) continue;
    for (std::size_t j = 0; j < i; ++j) {
      const X509Certificate& cert = *chain[j];
      // Self-issued intermediates (key rollover) are not held to the constraints above them.
      if (j > 0 && selfIssued(cert)) continue;
      if (!cert.subject.empty() && !allowedBy(cs, NameRef{nullptr, &cert.subject}))
        return {VerifyCode::nameConstraint, j};
      for (const GeneralName& n : cert.subjectAltNames)
        if (!allowedBy(cs, NameRef{&n, nullptr})) return {VerifyCode::nameConstraint, j};
    }
  }
  return {};
}

}  // namespace tessel::verify
