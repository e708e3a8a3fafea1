#include "tessel/x509.h"

#include <iostream>

#include "tessel/pkcs8.h"
#include "x509/x509_ext.h"

namespace tessel {

HashID X509Base::digestAlgo = hashSha1;

namespace {

using Bytes = std::vector<unsigned char>;
using asn1::blob;

// Extension OIDs (content bytes).
constexpr unsigned char kSubjectKeyId[] = {0x55, 0x1D, 0x0E};
constexpr unsigned char kCrlDistributionPoints[] = {0x55, 0x1D, 0x1F};
constexpr unsigned char kBasicConstraints[] = {0x55, 0x1D, 0x13};
constexpr unsigned char kCertificatePolicies[] = {0x55, 0x1D, 0x20};
constexpr unsigned char kPolicyMappings[] = {0x55, 0x1D, 0x21};
constexpr unsigned char kNameConstraints[] = {0x55, 0x1D, 0x1E};
constexpr unsigned char kPolicyConstraints[] = {0x55, 0x1D, 0x24};
constexpr unsigned char kInhibitAnyPolicy[] = {0x55, 0x1D, 0x36};
constexpr unsigned char kAuthorityInfoAccess[] = {0x2B, 0x06, 0x01, 0x05, 0x05, 0x07, 0x01, 0x01};
constexpr unsigned char kEmbeddedScts[] = {0x2B, 0x06, 0x01, 0x04, 0x01, 0xD6, 0x79, 0x02, 0x04, 0x02};

struct UsageName {
  std::uint32_t bit;
  const char* name;
  unsigned char ekuArc;  // last arc of 1.3.6.1.5.5.7.3.x; 0 for KeyUsage bits
};

// In dump order.
constexpr UsageName kUsageNames[] = {
    {kuDigitalSignature, "digital-signature", 0}, {kuContentCommitment, "content-commitment", 0},
    {kuKeyEncipherment, "key-encipherment", 0},   {kuDataEncipherment, "data-encipherment", 0},
    {kuKeyAgreement, "key-agreement", 0},         {kuKeyCertSign, "key-cert-sign", 0},
    {kuCrlSign, "crl-sign", 0},                   {kuEncipherOnly, "encipher-only", 0},
    {kuDecipherOnly, "decipher-only", 0},         {ekuTlsServer, "tls-server", 1},
    {ekuTlsClient, "tls-client", 2},              {ekuCodeSigning, "code-signing", 3},
    {ekuEmailProtection, "email-protection", 4},  {ekuTimeStamping, "time-stamping", 8},
    {ekuOcspSigning, "ocsp-signing", 9},          {ekuDvcs, "dvcs", 10},
};
constexpr std::uint32_t kKeyUsageBits = 0xFFFF;
// dvcs alone does not open the extended-usage line; kept so dumps match stored logs.
constexpr std::uint32_t kExtLineBits = 0x3F0000;

// readNames appends every GeneralName of a list; false on a malformed list or name.
bool readNameList(blob list, std::vector<GeneralName>& out) {
  asn1::parser p(list);
  while (p.tag != asn1::tagEnd) {
    if (p.tag == asn1::tagError) return false;
    GeneralName name;
    if (!name.parse(p.takeElement())) return false;
    out.push_back(std::move(name));
  }
  return true;
}

// keyUsageValue reads a KeyUsage BIT STRING content least significant byte first, clearing the
// unused bits of the last byte read.
std::uint32_t keyUsageValue(blob c) {
  if (c.empty() || c[0] > 7) return 0;
  const unsigned unused = c[0];
  const std::size_t n = std::min<std::size_t>(c.size() - 1, 4);
  std::uint32_t v = 0;
  for (std::size_t i = 0; i < n; ++i) {
    unsigned b = c[1 + i];
    if (i + 1 == n) b &= 0xFFu << unused;
    v |= (b & 0xFFu) << (8 * i);
  }
  return v;
}

// readSubtrees keeps the first GeneralSubtree of a list in `kept`. More subtrees are dropped
// with a message (and fail a critical extension); minimum and maximum fail a critical one.
bool readSubtrees(blob list, GeneralName& kept, bool critical) {
  asn1::parser p(list);
  bool haveOne = false;
  for (; p.tag != asn1::tagEnd; p.next()) {
    if (p.tag != 0x30) return false;
    if (haveOne) {
      std::cout << "multiple name contraints not supported\n";
      return !critical;
    }
    asn1::parser s(p.content);
    if (s.tag == asn1::tagError || s.tag == asn1::tagEnd) return false;
    GeneralName name;
    if (!name.parse(s.takeElement())) return false;
    if (s.tag == 0xA0) {
      if (critical) return false;
      s.next();
    }
    if (s.tag == 0xA1 && critical) return false;
    kept = std::move(name);
    haveOne = true;
  }
  return true;
}

bool readDistributionPoints(blob value, std::vector<GeneralName>& out) {
  asn1::parser v(value);
  if (v.tag != 0x30) return false;
  asn1::parser p(v.content);
  for (; p.tag != asn1::tagEnd; p.next()) {
    if (p.tag != 0x30) return false;
    asn1::parser dp(p.content);
    if (dp.tag == 0x80 || dp.tag == 0xA0) {
      asn1::parser inner(dp.content);
      if (inner.tag == 0xA0 && !readNameList(inner.content, out)) return false;
    } else if (dp.tag == 0x81 || dp.tag == 0xA1 || dp.tag == 0x82 || dp.tag == 0xA2) {
      std::cout << "unsupported attribute: " << std::hex << dp.tag << std::dec << " in CRL DistributionPoint\n";
    }
  }
  return true;
}

}  // namespace

namespace x509 {

bool ExtensionList::read(blob ext, blob* oid, bool* critical, blob* value) {
  if (!readExtension(ext, oid, critical, value)) return false;
  for (const blob& s : seen_)
    if (s == *oid) return false;
  seen_.push_back(*oid);
  return true;
}

bool readSubjectAltNames(blob value, bool critical, std::vector<GeneralName>& out) {
  asn1::parser v(value);
  if (v.tag != 0x30 || !readNameList(v.content, out)) return false;
  return !(critical && out.empty());
}

bool readAuthorityKeyId(blob value, std::vector<unsigned char>& out) {
  asn1::parser v(value);
  if (v.tag != 0x30) return false;
  asn1::parser a(v.content);
  if (a.tag == 0x80) out = a.takeContent().vec();
  a.skipIf(0xA1);
  a.skipIf(0x82);
  return a.tag == asn1::tagEnd;
}

bool readExtension(blob ext, blob* oid, bool* critical, blob* value) {
  asn1::parser p(ext);
  if (p.tag != 0x06) return false;
  *oid = p.takeContent();
  *critical = false;
  if (p.tag == 0x01) {
    if (p.content.size() != 1 || (p.content[0] != 0x00 && p.content[0] != 0xFF)) return false;
    *critical = p.takeBool();
  }
  if (p.tag != 0x04) return false;
  *value = p.content;
  return true;
}

std::uint32_t extKeyUsageBits(blob seqContent) {
  static constexpr unsigned char kEkuPrefix[] = {0x2B, 0x06, 0x01, 0x05, 0x05, 0x07, 0x03};
  std::uint32_t bits = 0;
  for (asn1::parser p(seqContent); p.tag == 0x06; p.next()) {
    const blob oid = p.content;
    std::uint32_t bit = 0;
    if (oid.size() == sizeof kEkuPrefix + 1 && std::equal(std::begin(kEkuPrefix), std::end(kEkuPrefix), oid.begin()))
      for (const UsageName& u : kUsageNames)
        if (u.ekuArc != 0 && u.ekuArc == oid[sizeof kEkuPrefix]) bit = u.bit;
    if (bit == 0) std::cout << "unknown extended key usage " << asn1::oidStr(oid) << "\n";
    bits |= bit;
  }
  return bits;
}

void dumpNames(const std::vector<GeneralName>& names, const char* indent, std::ostream& os) {
  for (const GeneralName& n : names) os << indent << n.typeStr() << ": " << n.dataStr() << "\n";
}

}  // namespace x509

bool X509Base::unpackObj(blob der) {
  asn1::parser outer(der);
  if (outer.tag != 0x30) return false;
  asn1::parser p(outer.content);
  if (p.tag != 0x30) return false;
  tbs = p.takeElement().vec();
  if (p.tag != 0x30) return false;
  sigAlg = p.takeElement().vec();
  if (p.tag != 0x03) return false;
  const blob bits = p.takeContent();
  if (p.tag != asn1::tagEnd) return false;
  signature.clear();
  if (!bits.empty() && bits[0] < 8) signature.assign(bits.begin() + 1, bits.end());
  return true;
}

std::string X509Base::sigAlgName() const {
  asn1::parser p{blob(sigAlg)};
  if (!p.enter() || p.tag != 0x06) return asn1::oid2name({});
  return asn1::oid2name(p.content);
}

std::vector<unsigned char> X509Base::serialize() const {
  DerEncoder e;
  e.sequence([&](DerEncoder& d) {
    d.addBytes(blob(tbs));
    d.addBytes(blob(sigAlg));
    d.addBitString(blob(signature));
  });
  return std::move(e.data);
}

bool X509Certificate::parse(const unsigned char* data, unsigned len) {
  return unpackObj(blob(data, len)) && parseBody(blob(tbs));
}

bool X509Certificate::parseBody(blob der) {
  asn1::parser top(der);
  if (top.tag != 0x30 || !top.rest.empty()) return false;
  asn1::parser p(top.content);
  if (p.tag == 0xA0) {
    if (asn1::parser(p.content).tag != 0x02) return false;
    p.next();
  }
  if (p.tag != 0x02 || p.content.size() > 20) return false;
  serial = p.takeContent().vec();
  if (p.tag != 0x30 || asn1::parser(p.content).tag != 0x06) return false;
  p.next();
  if (!issuer.parse(p.takeElement())) return false;
  if (p.tag != 0x30) return false;
  asn1::parser validity(p.takeContent());
  if (!notBefore.parse(validity) || !notAfter.parse(validity)) return false;
  if (!subject.parse(p.takeElement())) return false;
  if (p.tag != 0x30) return false;
  publicKeyInfo = p.takeElement().vec();
  if (p.tag == 0xA3) {
    if (!parseExtensions(p.takeContent())) return false;
  }
  if (p.tag != asn1::tagEnd) return false;  // unique IDs are not supported
  selfSigned = issuer == subject && !subjectKeyId.empty() &&
               (authorityKeyId.empty() || authorityKeyId == subjectKeyId);
  return true;
}

bool X509Certificate::parseExtensions(blob a3) {
  asn1::parser wrapper(a3);
  if (wrapper.tag != 0x30) return false;
  x509::ExtensionList extensions;
  for (asn1::parser list(wrapper.content); list.tag != asn1::tagEnd; list.next()) {
    if (list.tag != 0x30) return false;
    blob oid, value;
    bool critical;
    if (!extensions.read(list.content, &oid, &critical, &value)) return false;
    asn1::parser v(value);
    if (x509::oidIs(x509::kOidSubjectAltName, oid)) {
      if (!x509::readSubjectAltNames(value, critical, subjectAltNames)) return false;
    } else if (x509::oidIs(x509::kOidKeyUsage, oid)) {
      if (v.tag != 0x03) return false;
      keyUsage |= keyUsageValue(v.content);
      if (keyUsage == 0) return false;
    } else if (x509::oidIs(x509::kOidExtKeyUsage, oid)) {
      if (v.tag != 0x30) return false;
      keyUsage |= x509::extKeyUsageBits(v.content);
    } else if (x509::oidIs(x509::kOidAuthorityKeyId, oid)) {
      if (!x509::readAuthorityKeyId(value, authorityKeyId)) return false;
    } else if (x509::oidIs(kSubjectKeyId, oid)) {
      if (v.tag != 0x04) return false;
      subjectKeyId = v.content.vec();
    } else if (x509::oidIs(kCrlDistributionPoints, oid)) {
      if (!readDistributionPoints(value, crlDistributionPoints)) return false;
    } else if (x509::oidIs(kAuthorityInfoAccess, oid) || x509::oidIs(kEmbeddedScts, oid) || x509::oidIs(kCertificatePolicies, oid) ||
               x509::oidIs(kPolicyMappings, oid)) {
      // accepted, not used
    } else if (x509::oidIs(kBasicConstraints, oid)) {
      if (v.tag != 0x30) return false;
      isCa = 2;
      asn1::parser b(v.content);
      if (b.tag == 0x01) {
        if (b.takeBool()) isCa = 1;
        if (b.tag == asn1::tagError) return false;
      }
      if (b.tag == 0x02) {
        const blob c = b.takeContent();
        if (c.size() > 4 || (!c.empty() && (c[0] & 0x80))) return false;
        std::uint32_t n = 0;
        for (unsigned char x : c) n = (n << 8) | x;
        pathLen = static_cast<std::int32_t>(n);
      }
      if (b.tag != asn1::tagEnd) return false;
    } else if (x509::oidIs(kNameConstraints, oid)) {
      if (v.tag != 0x30) return false;
      asn1::parser nc(v.content);
      if (nc.tag == 0xA0) {
        if (!readSubtrees(nc.takeContent(), permittedName, critical)) return false;
      }
      if (nc.tag == 0xA1) {
        if (!readSubtrees(nc.takeContent(), excludedName, critical)) return false;
      }
      if (nc.tag != asn1::tagEnd) return false;
      auto supported = [](const GeneralName& n) { return n.type == GeneralName::dNSName || n.type == GeneralName::none; };
      if (!supported(permittedName) || !supported(excludedName)) {
        std::cout << "unsupported ext: name constraints, critical: " << critical << "\n";
        if (critical) return false;
      }
    } else if (x509::oidIs(kPolicyConstraints, oid)) {
      std::cout << "unsupported ext: policy constraints, critical: " << critical << "\n";
      if (critical) return false;
    } else if (x509::oidIs(kInhibitAnyPolicy, oid)) {
      std::cout << "unsupported ext: inhibit any policy, critical: " << critical << "\n";
      if (critical) return false;
    } else {
      std::cout << "unknown ext id=" << asn1::oidStr(oid) << ", critical: " << critical << "\n";
      if (critical) return false;
    }
  }
  return true;
}

std::shared_ptr<PublicKey> X509Certificate::parsePublicKey() const {
  return parsePkcs8PublicKey(blob(publicKeyInfo));
}

bool X509Certificate::setPublicKey(const PublicKey& key) {
  publicKeyInfo = encodePkcs8PublicKey(key);
  return !publicKeyInfo.empty();
}

void X509Certificate::dumpKeyUsage(unsigned flags, std::ostream& os) {
  if (flags == 0) return;
  auto line = [&](const char* head, std::uint32_t mask) {
    os << head;
    const char* sep = "";
    for (const UsageName& u : kUsageNames)
      if ((u.bit & mask) && (flags & u.bit)) {
        os << sep << u.name;
        sep = ", ";
      }
    os << "\n";
  };
  line("    key usage: ", kKeyUsageBits);
  if (flags & kExtLineBits) line("    extended key usage: ", ~kKeyUsageBits);
}

void X509Certificate::dump(std::ostream& os) const {
  os << "Certificate:\n";
  os << "  serialNr:  " << asn1::str(blob(serial)) << "\n";
  os << "  issuer:    <" << issuer.str() << ">\n";
  os << "  subject:   <" << subject.str() << ">\n";
  os << "  notBefore: " << notBefore.toString() << "\n";
  os << "  notAfter:  " << notAfter.toString() << "\n";
  os << "  selfSigned:" << selfSigned << "\n";
  os << "  extensions:\n";
  dumpKeyUsage(keyUsage, os);
  if (isCa != 0) os << "    basic constraints: isCa: " << (isCa == 1 ? "TRUE" : "FALSE") << "\n";
  if (!subjectKeyId.empty()) os << "    subject key id:  " << asn1::str(blob(subjectKeyId)) << "\n";
  if (!authorityKeyId.empty()) os << "    authority key id:" << asn1::str(blob(authorityKeyId)) << "\n";
  if (!subjectAltNames.empty()) {
    os << "    subject alternative name: \n";
    x509::dumpNames(subjectAltNames, "      ", os);
  }
  if (!crlDistributionPoints.empty()) {
    os << "    CRL distribution points: \n";
    x509::dumpNames(crlDistributionPoints, "       ", os);
  }
  if (permittedName.type != GeneralName::none) {
    os << "    name constraints permitted: \n";
    x509::dumpNames({permittedName}, "       ", os);
  }
  if (excludedName.type != GeneralName::none) {
    os << "    name constraints excluded: \n";
    x509::dumpNames({excludedName}, "       ", os);
  }
  os << "  signed with: " << sigAlgName() << "\n";
  if (auto key = parsePublicKey()) key->dump(os);
}

}  // namespace tessel
