// CMS attributes and SignerInfo: reading, writing and printing one signer.
#include <algorithm>
#include <cstring>
#include <ostream>

#include "cms/cms_internal.h"
#include "tessel/cms.h"
#include "tessel/oids.h"

namespace tessel {

using asn1::blob;
using asn1::Presence;
using Bytes = std::vector<unsigned char>;

std::vector<unsigned char> PKCS7Attribute::encode() const {
  std::vector<Bytes> sorted = values;
  cms::sortDerSet(sorted);
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.addOid(blob(type));
    s.element(asn1::tagSet, [&](DerEncoder& set) {
      for (const Bytes& v : sorted) set.addBytes(blob(v));
    });
  });
  return std::move(e.data);
}

namespace cms {

bool parseAttributes(blob content, std::vector<PKCS7Attribute>* out) {
  for (asn1::parser p(content); !p.atEnd();) {
    asn1::parser attr, values;
    blob type;
    if (!p.read(asn1::tagSequence, &attr) || !attr.read(asn1::tagOid, &type) || !attr.read(asn1::tagSet, &values) ||
        !attr.atEnd())
      return false;
    PKCS7Attribute a;
    a.type = type.vec();
    for (; !values.atEnd();) {
      blob v;
      if (values.failed() || (v = values.takeElement()).empty()) return false;
      a.values.push_back(v.vec());
    }
    out->push_back(std::move(a));
  }
  return true;
}

// DER orders the members of a SET OF by their encodings, the shorter padded with zero bytes.
bool derSetLess(const Bytes& a, const Bytes& b) {
  const std::size_t n = std::min(a.size(), b.size());
  if (int c = n ? std::memcmp(a.data(), b.data(), n) : 0; c != 0) return c < 0;
  for (std::size_t i = n; i < b.size(); ++i)
    if (b[i] != 0) return true;  // a padded with zeros is smaller
  return false;
}

void sortDerSet(std::vector<Bytes>& members) { std::stable_sort(members.begin(), members.end(), derSetLess); }

HashID digestFromAlgorithm(blob der) {
  asn1::parser p, inner;
  blob oid;
  if (!asn1::readOnly(der, asn1::tagSequence, &inner) || !inner.read(asn1::tagOid, &oid)) return hashNone;
  inner.skipIf(asn1::tagNull);  // RFC 5754 wants the parameters absent; older writers put NULL
  if (!inner.atEnd()) return hashNone;
  const HashID hash = getHashID(oid);
  return getHashOid(hash) == oid ? hash : hashNone;  // not the HMAC OIDs getHashID also knows
}

}  // namespace cms

bool PKCS7SignerInfo::parse(blob der) {
  asn1::parser p, sid, attrs;
  blob v, value;
  if (!asn1::readOnly(der, asn1::tagSequence, &p) || !p.isAt(asn1::tagInteger, &v) || v.size() != 1) return false;
  version = p.takeUInt();
  if (version == 1) {
    blob name, number;
    if (!p.read(asn1::tagSequence, &sid) || !sid.readElement(asn1::tagSequence, &name) ||
        !sid.read(asn1::tagInteger, &number) || !sid.atEnd())
      return false;
    issuer = name.vec();
    serial = number.vec();
  } else if (version == 3) {
    if (!p.read(asn1::implicitTag(0), &value)) return false;
    subjectKeyId = value.vec();
  } else {
    return false;
  }
  if (!p.readElement(asn1::tagSequence, &value)) return false;
  digestAlgorithm = value.vec();
  if (p.isAt(asn1::implicitConstructedTag(0))) {
    if (!p.readElement(asn1::implicitConstructedTag(0), &value)) return false;
    if (!cms::parseAttributes(asn1::parser(value).content, &signedAttributes) || signedAttributes.empty()) return false;
    signedAttrs = value.vec();
  }
  if (!p.readElement(asn1::tagSequence, &value)) return false;
  signatureAlgorithm = value.vec();
  if (!p.read(asn1::tagOctetString, &value)) return false;
  signature = value.vec();
  switch (p.readOptional(asn1::implicitConstructedTag(1), &value)) {
    case Presence::malformed: return false;
    case Presence::present:
      if (!cms::parseAttributes(value, &unsignedAttributes)) return false;
      break;
    case Presence::absent: break;
  }
  return p.atEnd();
}

std::vector<unsigned char> PKCS7SignerInfo::encode() const {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.addInt(asn1::tagInteger, version);
    if (version == 3) {
      s.addPrimitive(asn1::implicitTag(0), blob(subjectKeyId));
    } else {
      s.sequence([&](DerEncoder& id) {
        id.addBytes(blob(issuer));
        id.addPrimitive(asn1::tagInteger, blob(serial));
      });
    }
    s.addBytes(blob(digestAlgorithm));
    s.addBytes(blob(signedAttrs));
    s.addBytes(blob(signatureAlgorithm));
    s.addOctetString(blob(signature));
    if (!unsignedAttributes.empty()) {
      std::vector<Bytes> encoded;
      for (const PKCS7Attribute& a : unsignedAttributes) encoded.push_back(a.encode());
      cms::sortDerSet(encoded);
      s.element(asn1::implicitConstructedTag(1), [&](DerEncoder& set) {
        for (const Bytes& a : encoded) set.addBytes(blob(a));
      });
    }
  });
  return std::move(e.data);
}

HashID PKCS7SignerInfo::digest() const { return cms::digestFromAlgorithm(blob(digestAlgorithm)); }

bool PKCS7SignerInfo::identifies(const X509Certificate& cert) const {
  if (version == 3) return !subjectKeyId.empty() && cert.subjectKeyId == subjectKeyId;
  return cert.serial == serial && cert.issuerDer() == blob(issuer);
}

const PKCS7Attribute* PKCS7SignerInfo::findSignedAttribute(blob oid) const {
  for (const PKCS7Attribute& a : signedAttributes)
    if (blob(a.type) == oid) return &a;
  return nullptr;
}

std::vector<unsigned char> PKCS7SignerInfo::signedAttributesForSignature() const {
  Bytes out = signedAttrs;
  if (!out.empty()) out[0] = asn1::tagSet;  // the [0] IMPLICIT tag is signed as the SET OF it replaces
  return out;
}

namespace {

std::string algorithmName(blob der) {
  asn1::parser p;
  blob oid;
  if (!asn1::readOnly(der, asn1::tagSequence, &p) || !p.read(asn1::tagOid, &oid)) return "(unreadable)";
  if (HashID h = getHashID(oid); h != hashNone) return getHashName(h);
  return asn1::oid2name(oid);
}

std::string attributeName(blob type) {
  if (asn1::oid::contentTypeAttr.is(type)) return "content-type";
  if (asn1::oid::messageDigestAttr.is(type)) return "message-digest";
  if (asn1::oid::signingTimeAttr.is(type)) return "signing-time";
  if (asn1::oid::signingCertificate.is(type)) return "signing-certificate";
  if (asn1::oid::signingCertificateV2.is(type)) return "signing-certificate-v2";
  return asn1::oidStr(type);
}

// valueText shows an OID dotted, a time as its text and anything else as hex.
std::string valueText(blob value) {
  asn1::parser p(value);
  switch (p.tag) {
    case asn1::tagOid: return asn1::oidStr(p.content);
    case asn1::tagUtcTime:
    case asn1::tagGeneralizedTime: return p.takeString();
    case asn1::tagOctetString: return asn1::str(p.content);
    default: return asn1::str(value);
  }
}

void dumpAttributes(std::ostream& os, const std::string& indent, const char* label,
                    const std::vector<PKCS7Attribute>& list) {
  for (const PKCS7Attribute& a : list) {
    os << indent << label << attributeName(blob(a.type)) << ":";
    for (const Bytes& v : a.values) os << " " << valueText(blob(v));
    os << "\n";
  }
}

}  // namespace

void PKCS7SignerInfo::dump(std::ostream& os, const std::string& indent) const {
  os << indent << "version: " << version << "\n";
  if (version == 3) {
    os << indent << "subject-key-id: " << asn1::str(blob(subjectKeyId)) << "\n";
  } else {
    DistinguishedName name;
    os << indent << "issuer: " << (name.parse(blob(issuer)) ? name.str() : std::string("(unreadable)")) << "\n";
    os << indent << "serial: " << asn1::str(blob(serial)) << "\n";
  }
  os << indent << "digest-algo: " << algorithmName(blob(digestAlgorithm)) << "\n";
  os << indent << "signature-algo: " << algorithmName(blob(signatureAlgorithm)) << "\n";
  dumpAttributes(os, indent, "signed-attr ", signedAttributes);
  dumpAttributes(os, indent, "unsigned-attr ", unsignedAttributes);
  os << indent << "signature: " << signature.size() << " bytes\n";
}

}  // namespace tessel
