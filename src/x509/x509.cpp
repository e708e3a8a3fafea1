#include "tessel/x509.h"

#include "core/diag.h"
#include "tessel/pkcs8.h"
#include "x509/x509_ext.h"

namespace tessel {

HashID X509Base::digestAlgo = hashSha1;

namespace {

using Bytes = std::vector<unsigned char>;
using asn1::blob;

using asn1::Presence;

struct UsageName {
  std::uint32_t bit;
  const char* name;
  unsigned char ekuArc;  // last arc of 1.3.6.1.5.5.7.3.x; 0 for KeyUsage bits
};

// In dump order.
constexpr UsageName kUsageNames[] = {
    {kuDigitalSignature, "digital-signature", 0},
    {kuContentCommitment, "content-commitment", 0},
    {kuKeyEncipherment, "key-encipherment", 0},
    {kuDataEncipherment, "data-encipherment", 0},
    {kuKeyAgreement, "key-agreement", 0},
    {kuKeyCertSign, "key-cert-sign", 0},
    {kuCrlSign, "crl-sign", 0},
    {kuEncipherOnly, "encipher-only", 0},
    {kuDecipherOnly, "decipher-only", 0},
    {ekuTlsServer, "tls-server", 1},
    {ekuTlsClient, "tls-client", 2},
    {ekuCodeSigning, "code-signing", 3},
    {ekuEmailProtection, "email-protection", 4},
    {ekuTimeStamping, "time-stamping", 8},
    {ekuOcspSigning, "ocsp-signing", 9},
    {ekuDvcs, "dvcs", 10},
};
constexpr std::uint32_t kKeyUsageBits = 0xFFFF;
// dvcs alone does not open the extended-usage line; kept so dumps match stored logs.
constexpr std::uint32_t kExtLineBits = 0x3F0000;

// readNames appends every GeneralName of a list; false on a malformed list or name.
bool readNameList(blob list, std::vector<GeneralName>& out) {
  asn1::parser p(list);
  while (!p.atEnd()) {
    if (p.failed()) return false;
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
  for (; !p.atEnd(); p.next()) {
    blob subtree;
    if (!p.isAt(asn1::tagSequence, &subtree)) return false;
    if (haveOne) {
      diag() << "multiple name contraints not supported";
      return !critical;
    }
    // An empty or malformed subtree reads as a name of type 0 (GeneralName::parse takes the
    // type from the parser's state), which a non-critical extension keeps with a message.
    asn1::parser s(subtree);
    GeneralName name;
    if (!name.parse(s.takeElement())) return false;
    // minimum and maximum are looked for as constructed [0] and [1], as they always were.
    if (s.isAt(asn1::explicitTag(0))) {
      if (critical) return false;
      s.next();
    }
    if (s.isAt(asn1::explicitTag(1)) && critical) return false;
    kept = std::move(name);
    haveOne = true;
  }
  return true;
}

// readDistributionPoints appends the fullName GeneralNames of a CRLDistributionPoints value.
// The distributionPoint [0] is also taken with a primitive tag, and reasons [1] and
// cRLIssuer [2] are reported with either form; stored certificates have both.
bool readDistributionPoints(blob value, std::vector<GeneralName>& out) {
  blob points;
  if (!asn1::parser(value).isAt(asn1::tagSequence, &points)) return false;
  for (asn1::parser p(points); !p.atEnd(); p.next()) {
    blob point;
    if (!p.isAt(asn1::tagSequence, &point)) return false;
    asn1::parser dp(point);
    blob pointName, fullName;
    if (dp.isAt(asn1::implicitTag(0), &pointName) || dp.isAt(asn1::explicitTag(0), &pointName)) {
      if (asn1::parser(pointName).isAt(asn1::implicitConstructedTag(0), &fullName) && !readNameList(fullName, out))
        return false;
    } else if (dp.isAt(asn1::implicitTag(1)) || dp.isAt(asn1::explicitTag(1)) || dp.isAt(asn1::implicitTag(2)) ||
               dp.isAt(asn1::implicitConstructedTag(2))) {
      diag() << "unsupported attribute: " << std::hex << dp.tag << std::dec << " in CRL DistributionPoint";
    }
  }
  return true;
}

// readKeyUsage ORs a KeyUsage BIT STRING into the flags; a certificate whose flags stay 0 fails.
bool readKeyUsage(X509Certificate& c, blob value, bool) {
  blob bits;
  if (!asn1::parser(value).isAt(asn1::tagBitString, &bits)) return false;
  c.keyUsage |= keyUsageValue(bits);
  return c.keyUsage != 0;
}

bool readExtKeyUsage(X509Certificate& c, blob value, bool) {
  blob purposes;
  if (!asn1::parser(value).isAt(asn1::tagSequence, &purposes)) return false;
  c.keyUsage |= x509::extKeyUsageBits(purposes);
  return true;
}

bool readSubjectAltName(X509Certificate& c, blob value, bool critical) {
  return x509::readSubjectAltNames(value, critical, c.subjectAltNames);
}

bool readAuthorityKeyIdentifier(X509Certificate& c, blob value, bool) {
  return x509::readAuthorityKeyId(value, c.authorityKeyId);
}

bool readSubjectKeyIdentifier(X509Certificate& c, blob value, bool) {
  blob id;
  if (!asn1::parser(value).isAt(asn1::tagOctetString, &id)) return false;
  c.subjectKeyId = id.vec();
  return true;
}

bool readCrlDistributionPoints(X509Certificate& c, blob value, bool) {
  return readDistributionPoints(value, c.crlDistributionPoints);
}

bool acceptUnused(X509Certificate&, blob, bool) { return true; }

// readBasicConstraints reads SEQUENCE { cA BOOLEAN DEFAULT FALSE, pathLenConstraint INTEGER
// OPTIONAL }; isCa becomes 1 for cA TRUE and 2 otherwise.
bool readBasicConstraints(X509Certificate& c, blob value, bool) {
  blob fields;
  if (!asn1::parser(value).isAt(asn1::tagSequence, &fields)) return false;
  c.isCa = 2;
  asn1::parser b(fields);
  if (b.isAt(asn1::tagBoolean)) {
    if (b.takeBool()) c.isCa = 1;
    if (b.failed()) return false;
  }
  blob pathLen;
  if (b.readOptional(asn1::tagInteger, &pathLen) == Presence::present) {
    if (pathLen.size() > 4 || (!pathLen.empty() && (pathLen[0] & 0x80))) return false;
    std::uint32_t n = 0;
    for (unsigned char x : pathLen) n = (n << 8) | x;
    c.pathLen = static_cast<std::int32_t>(n);
  }
  return b.atEnd();
}

// readNameConstraints reads SEQUENCE { permittedSubtrees [0] OPTIONAL, excludedSubtrees [1]
// OPTIONAL }, keeping one dNSName subtree of each.
bool readNameConstraints(X509Certificate& c, blob value, bool critical) {
  blob fields, permitted, excluded;
  if (!asn1::parser(value).isAt(asn1::tagSequence, &fields)) return false;
  asn1::parser nc(fields);
  if (nc.readOptional(asn1::implicitConstructedTag(0), &permitted) == Presence::present &&
      !readSubtrees(permitted, c.permittedName, critical))
    return false;
  if (nc.readOptional(asn1::implicitConstructedTag(1), &excluded) == Presence::present &&
      !readSubtrees(excluded, c.excludedName, critical))
    return false;
  if (!nc.atEnd()) return false;
  auto supported = [](const GeneralName& n) { return n.type == GeneralName::dNSName || n.type == GeneralName::none; };
  if (!supported(c.permittedName) || !supported(c.excludedName)) {
    diag() << "unsupported ext: name constraints, critical: " << critical;
    if (critical) return false;
  }
  return true;
}

bool refusePolicyConstraints(X509Certificate&, blob, bool critical) {
  diag() << "unsupported ext: policy constraints, critical: " << critical;
  return !critical;
}

bool refuseInhibitAnyPolicy(X509Certificate&, blob, bool critical) {
  diag() << "unsupported ext: inhibit any policy, critical: " << critical;
  return !critical;
}

const x509::ExtensionReader<X509Certificate> kCertificateExtensions[] = {
    {&asn1::oid::subjectAltName, readSubjectAltName},
    {&asn1::oid::keyUsage, readKeyUsage},
    {&asn1::oid::extKeyUsage, readExtKeyUsage},
    {&asn1::oid::authorityKeyIdentifier, readAuthorityKeyIdentifier},
    {&asn1::oid::subjectKeyIdentifier, readSubjectKeyIdentifier},
    {&asn1::oid::cRLDistributionPoints, readCrlDistributionPoints},
    {&asn1::oid::authorityInfoAccess, acceptUnused},
    {&asn1::oid::embeddedSctList, acceptUnused},
    {&asn1::oid::certificatePolicies, acceptUnused},
    {&asn1::oid::policyMappings, acceptUnused},
    {&asn1::oid::basicConstraints, readBasicConstraints},
    {&asn1::oid::nameConstraints, readNameConstraints},
    {&asn1::oid::policyConstraints, refusePolicyConstraints},
    {&asn1::oid::inhibitAnyPolicy, refuseInhibitAnyPolicy},
};

}  // namespace

namespace x509 {

bool ExtensionList::read(blob ext, blob* oid, bool* critical, blob* value) {
  return readExtension(ext, oid, critical, value) && seen_.insert(*oid).second;
}

bool readSubjectAltNames(blob value, bool critical, std::vector<GeneralName>& out) {
  blob names;
  if (!asn1::parser(value).isAt(asn1::tagSequence, &names) || !readNameList(names, out)) return false;
  return !(critical && out.empty());
}

bool readAuthorityKeyId(blob value, std::vector<unsigned char>& out) {
  blob fields, keyId;
  if (!asn1::parser(value).isAt(asn1::tagSequence, &fields)) return false;
  asn1::parser a(fields);
  if (a.readOptional(asn1::implicitTag(0), &keyId) == Presence::present) out = keyId.vec();
  a.skipIf(asn1::implicitConstructedTag(1));  // authorityCertIssuer
  a.skipIf(asn1::implicitTag(2));             // authorityCertSerialNumber
  return a.atEnd();
}

bool readExtension(blob ext, blob* oid, bool* critical, blob* value) {
  asn1::parser p(ext);
  if (!p.read(asn1::tagOid, oid)) return false;
  *critical = false;
  blob flag;
  switch (p.readOptional(asn1::tagBoolean, &flag)) {
    case Presence::malformed: return false;
    case Presence::present:
      if (flag.size() != 1 || (flag[0] != 0x00 && flag[0] != 0xFF)) return false;
      *critical = flag[0] == 0xFF;
      break;
    case Presence::absent: break;
  }
  return p.isAt(asn1::tagOctetString, value);
}

std::uint32_t extKeyUsageBits(blob seqContent) {
  std::uint32_t bits = 0;
  for (asn1::parser p(seqContent); p.isAt(asn1::tagOid); p.next()) {
    const blob oid = p.content;
    std::uint32_t bit = 0;
    if (asn1::oid::idKp.prefixes(oid))
      for (const UsageName& u : kUsageNames)
        if (u.ekuArc != 0 && u.ekuArc == oid[asn1::oid::idKp.size]) bit = u.bit;
    if (bit == 0) diag() << "unknown extended key usage " << asn1::oidStr(oid);
    bits |= bit;
  }
  return bits;
}

std::vector<unsigned char> extKeyUsageValue(std::uint32_t flags) {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    for (const UsageName& u : kUsageNames) {
      if (u.ekuArc == 0 || !(flags & u.bit)) continue;
      std::vector<unsigned char> oid = asn1::oid::idKp.content().vec();
      oid.push_back(u.ekuArc);
      s.addOid(asn1::blob(oid));
    }
  });
  return e.data.size() > 2 ? std::move(e.data) : std::vector<unsigned char>();
}

void dumpNames(const std::vector<GeneralName>& names, const char* indent, std::ostream& os) {
  for (const GeneralName& n : names) os << indent << n.typeStr() << ": " << n.dataStr() << "\n";
}

}  // namespace x509

bool X509Base::unpackObj(blob der) {
  blob body, tbsElement, sigAlgElement, bits;
  if (!asn1::parser(der).isAt(asn1::tagSequence, &body)) return false;
  asn1::parser p(body);
  if (!p.readElement(asn1::tagSequence, &tbsElement) || !p.readElement(asn1::tagSequence, &sigAlgElement) ||
      !p.read(asn1::tagBitString, &bits) || !p.atEnd())
    return false;
  tbs = tbsElement.vec();
  sigAlg = sigAlgElement.vec();
  signature.clear();
  if (!bits.empty() && bits[0] < 8) signature.assign(bits.begin() + 1, bits.end());
  return true;
}

std::string X509Base::sigAlgName() const {
  asn1::parser p{blob(sigAlg)};
  blob oid;
  if (!p.enter() || !p.isAt(asn1::tagOid, &oid)) return asn1::oid2name({});
  return asn1::oid2name(oid);
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
  asn1::parser p, version, signatureAlg, validity;
  blob serialNumber, spki, extensions;
  if (!asn1::readOnly(der, asn1::tagSequence, &p)) return false;
  switch (p.readOptional(asn1::explicitTag(0), &version)) {
    case Presence::malformed: return false;
    case Presence::present:
      if (!version.isAt(asn1::tagInteger)) return false;
      break;
    case Presence::absent: break;
  }
  if (!p.read(asn1::tagInteger, &serialNumber) || serialNumber.size() > 20) return false;
  serial = serialNumber.vec();
  if (!p.read(asn1::tagSequence, &signatureAlg) || !signatureAlg.isAt(asn1::tagOid)) return false;
  if (!issuer.parse(p.takeElement())) return false;
  if (!p.read(asn1::tagSequence, &validity)) return false;
  if (!notBefore.parse(validity) || !notAfter.parse(validity)) return false;
  if (!subject.parse(p.takeElement())) return false;
  if (!p.readElement(asn1::tagSequence, &spki)) return false;
  publicKeyInfo = spki.vec();
  switch (p.readOptional(asn1::explicitTag(3), &extensions)) {
    case Presence::malformed: return false;
    case Presence::present:
      if (!parseExtensions(extensions)) return false;
      break;
    case Presence::absent: break;
  }
  if (!p.atEnd()) return false;  // unique IDs are not supported
  selfSigned = issuer == subject && !subjectKeyId.empty() && (authorityKeyId.empty() || authorityKeyId == subjectKeyId);
  return true;
}

namespace {
// tbsAtIssuer opens `tbs` and steps to the issuer Name (past the version and signature fields).
bool tbsAtIssuer(blob tbs, asn1::parser* p) {
  if (!asn1::readOnly(tbs, asn1::tagSequence, p)) return false;
  if (p->readOptional(asn1::explicitTag(0)) == Presence::malformed) return false;
  return p->read(asn1::tagInteger) && p->read(asn1::tagSequence) && p->isAt(asn1::tagSequence);
}
}  // namespace

blob X509Certificate::issuerDer() const {
  asn1::parser p;
  blob name;
  if (!tbsAtIssuer(blob(tbs), &p) || !p.readElement(asn1::tagSequence, &name)) return {};
  return name;
}

bool X509Certificate::findExtension(const blob& oid, bool* critical, blob* value) const {
  asn1::parser p;
  blob extensions;
  if (!tbsAtIssuer(blob(tbs), &p)) return false;
  while (!p.atEnd() && !p.failed() && p.tag != asn1::explicitTag(3)) p.next();
  if (!p.read(asn1::explicitTag(3), &extensions)) return false;
  asn1::parser list(extensions), x;
  if (!list.read(asn1::tagSequence, &x)) return false;
  for (; x.tag == asn1::tagSequence; x.next()) {
    blob found;
    if (x509::readExtension(x.content, &found, critical, value) && found == oid) return true;
  }
  return false;
}

bool X509Certificate::parseExtensions(blob a3) {
  // The list is the content of [3]'s first element whatever its tag, as certificates have always
  // been read here: an empty [3] (A3 00) is an empty list.
  const blob list = asn1::parser(a3).content;
  x509::ExtensionList extensions;
  for (asn1::parser x(list); !x.atEnd(); x.next()) {
    blob ext, oid, value;
    bool critical;
    if (!x.isAt(asn1::tagSequence, &ext) || !extensions.read(ext, &oid, &critical, &value)) return false;
    if (const auto* reader = x509::findReader(kCertificateExtensions, oid)) {
      if (!reader->read(*this, value, critical)) return false;
    } else {
      diag() << "unknown ext id=" << asn1::oidStr(oid) << ", critical: " << critical;
      if (critical) return false;
    }
  }
  return true;
}

std::shared_ptr<PublicKey> X509Certificate::parsePublicKey() const { return parsePkcs8PublicKey(blob(publicKeyInfo)); }

bool X509Certificate::setPublicKey(const PublicKey& key) {
  publicKeyInfo = encodePkcs8PublicKey(key);
  return !publicKeyInfo.empty();
}

bool X509Certificate::setSubjectPublicKey(const PublicKey& key) {
  publicKeyInfo = encodeSubjectPublicKeyInfo(key);
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
