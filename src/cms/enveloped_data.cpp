// CMS EnvelopedData and AuthEnvelopedData: reading a ContentInfo that carries one, writing it
// back and printing it.
#include <iostream>

#include "tessel/cms_enveloped.h"
#include "tessel/oids.h"

namespace tessel {

using asn1::blob;
using asn1::Presence;
using Bytes = std::vector<unsigned char>;

namespace {

// readVersion reads a small INTEGER version (one content byte, at most 4).
bool readVersion(asn1::parser& p, unsigned* version) {
  blob v;
  if (!p.isAt(asn1::tagInteger, &v) || v.size() != 1 || v[0] > 4) return false;
  *version = p.takeUInt();
  return !p.failed();
}

// readIssuerAndSerial reads IssuerAndSerialNumber { Name, INTEGER } from a SEQUENCE content.
bool readIssuerAndSerial(blob content, Bytes* issuer, Bytes* serial) {
  asn1::parser p(content);
  blob name, number;
  if (!p.readElement(asn1::tagSequence, &name) || !p.read(asn1::tagInteger, &number) || !p.atEnd()) return false;
  if (number.empty()) return false;
  *issuer = name.vec();
  *serial = number.vec();
  return true;
}

// readIdentifier reads a RecipientIdentifier: IssuerAndSerialNumber, or the [0] subject key id.
bool readIdentifier(asn1::parser& p, Bytes* issuer, Bytes* serial, Bytes* skid) {
  blob content;
  if (p.read(asn1::tagSequence, &content)) return readIssuerAndSerial(content, issuer, serial);
  if (!p.read(asn1::implicitTag(0), &content)) return false;
  *skid = content.vec();
  return true;
}

// readAlgorithm copies a whole AlgorithmIdentifier SEQUENCE that starts with an OID.
bool readAlgorithm(asn1::parser& p, Bytes* out) {
  blob whole;
  asn1::parser inner;
  if (!p.readElement(asn1::tagSequence, &whole) || !asn1::readOnly(whole, asn1::tagSequence, &inner) ||
      !inner.isAt(asn1::tagOid))
    return false;
  *out = whole.vec();
  return true;
}

// readRecipientKey reads RecipientEncryptedKey { KeyAgreeRecipientIdentifier, OCTET STRING }:
// issuer and serial, or [0] RecipientKeyIdentifier { skid, date OPTIONAL, other OPTIONAL }.
bool readRecipientKey(blob whole, CmsRecipientKey* out) {
  asn1::parser p;
  blob content, key;
  if (!asn1::readOnly(whole, asn1::tagSequence, &p)) return false;
  if (p.read(asn1::tagSequence, &content)) {
    if (!readIssuerAndSerial(content, &out->issuer, &out->serial)) return false;
  } else {
    asn1::parser rkeyId;
    blob skid;
    if (!p.read(asn1::implicitConstructedTag(0), &rkeyId) || !rkeyId.read(asn1::tagOctetString, &skid)) return false;
    out->subjectKeyId = skid.vec();
  }
  if (!p.read(asn1::tagOctetString, &key) || !p.atEnd()) return false;
  out->encryptedKey = key.vec();
  return true;
}

bool parseKeyTransport(asn1::parser& p, CmsRecipientInfo* ri) {
  blob key;
  return readVersion(p, &ri->version) && readIdentifier(p, &ri->issuer, &ri->serial, &ri->subjectKeyId) &&
         readAlgorithm(p, &ri->keyEncryptionAlgorithm) && p.read(asn1::tagOctetString, &key) && p.atEnd() &&
         (ri->encryptedKey = key.vec(), true);
}

// parseKeyAgreement reads KeyAgreeRecipientInfo. Only an originator public key ([1]) can be
// opened; an originator named by certificate is read and left without a key.
bool parseKeyAgreement(asn1::parser& p, CmsRecipientInfo* ri) {
  asn1::parser originator, seq;
  if (!readVersion(p, &ri->version) || !p.read(asn1::explicitTag(0), &originator)) return false;
  asn1::parser pub;
  if (originator.read(asn1::implicitConstructedTag(1), &pub)) {
    blob bits;
    if (!readAlgorithm(pub, &ri->originatorAlgorithm) || !pub.read(asn1::tagBitString, &bits) || !pub.atEnd())
      return false;
    blob key = asn1::bitStringContent(bits);
    if (key.empty() || bits[0] != 0) return false;
    ri->originatorKey = key.vec();
  } else if (!originator.skipIf(originator.tag) || originator.failed()) {
    return false;
  }
  if (!originator.atEnd()) return false;
  asn1::parser ukm;
  switch (p.readOptional(asn1::explicitTag(1), &ukm)) {
    case Presence::malformed: return false;
    case Presence::present: {
      blob octets;
      if (!ukm.read(asn1::tagOctetString, &octets) || !ukm.atEnd()) return false;
      ri->ukm = octets.vec();
      break;
    }
    case Presence::absent: break;
  }
  if (!readAlgorithm(p, &ri->keyEncryptionAlgorithm) || !p.read(asn1::tagSequence, &seq) || !p.atEnd()) return false;
  while (!seq.atEnd()) {
    blob whole;
    if (!seq.readElement(asn1::tagSequence, &whole)) return false;
    ri->recipientKeys.emplace_back();
    if (!readRecipientKey(whole, &ri->recipientKeys.back())) return false;
  }
  return !ri->recipientKeys.empty();
}

bool parsePassword(asn1::parser& p, CmsRecipientInfo* ri) {
  blob derivation, key;
  if (!readVersion(p, &ri->version)) return false;
  switch (p.readOptional(asn1::implicitConstructedTag(0), &derivation)) {
    case Presence::malformed: return false;
    case Presence::present: {
      // Kept as the SEQUENCE it would be without the implicit tag, for the KDF reader.
      DerEncoder e;
      e.addPrimitive(asn1::tagSequence, derivation);
      ri->keyDerivationAlgorithm = std::move(e.data);
      break;
    }
    case Presence::absent: break;
  }
  if (!readAlgorithm(p, &ri->keyEncryptionAlgorithm) || !p.read(asn1::tagOctetString, &key) || !p.atEnd()) return false;
  ri->encryptedKey = key.vec();
  return true;
}

const char* kindName(CmsRecipientKind kind) {
  switch (kind) {
    case CmsRecipientKind::keyTransport: return "key-transport";
    case CmsRecipientKind::keyAgreement: return "key-agreement";
    case CmsRecipientKind::kek: return "kek";
    case CmsRecipientKind::password: return "password";
    case CmsRecipientKind::other: break;
  }
  return "other";
}

// algorithmName prints an AlgorithmIdentifier's OID in dotted form.
std::string algorithmName(blob whole) {
  asn1::parser p(whole);
  if (!p.enter() || !p.isAt(asn1::tagOid)) return "?";
  return asn1::oidStr(p.content);
}

}  // namespace

bool CmsRecipientInfo::parse(blob whole) {
  *this = CmsRecipientInfo();
  asn1::parser outer(whole), p(outer.content);
  if (outer.failed() || outer.atEnd() || outer.rest.size() != 0) return false;
  der = whole.vec();
  switch (outer.tag) {
    case asn1::tagSequence: kind = CmsRecipientKind::keyTransport; return parseKeyTransport(p, this);
    case asn1::implicitConstructedTag(1): kind = CmsRecipientKind::keyAgreement; return parseKeyAgreement(p, this);
    case asn1::implicitConstructedTag(2): kind = CmsRecipientKind::kek; return true;
    case asn1::implicitConstructedTag(3): kind = CmsRecipientKind::password; return parsePassword(p, this);
    case asn1::implicitConstructedTag(4): kind = CmsRecipientKind::other; return true;
    default: return false;
  }
}

void PKCS7EnvelopedData::clear() { *this = PKCS7EnvelopedData(); }

bool PKCS7EnvelopedData::parse(blob der) {
  clear();
  asn1::parser info, body, p;
  blob type, set, octets;
  if (!asn1::readOnly(der, asn1::tagSequence, &info) || !info.read(asn1::tagOid, &type) ||
      !info.read(asn1::explicitTag(0), &body) || !info.atEnd() || !body.read(asn1::tagSequence, &p) || !body.atEnd())
    return false;
  if (asn1::oid::idCtAuthEnvelopedData.is(type)) authenticated = true;
  else if (!asn1::oid::idEnvelopedData.is(type)) return false;
  if (!readVersion(p, &version)) return false;
  if (p.readElement(asn1::implicitConstructedTag(0), &octets)) originatorInfo = octets.vec();
  if (p.failed() || !p.read(asn1::tagSet, &set)) return false;
  for (asn1::parser r(set); !r.atEnd();) {
    blob whole = r.takeElement();
    if (whole.empty() || r.failed()) return false;
    recipientInfos.emplace_back();
    if (!recipientInfos.back().parse(whole)) return false;
  }
  if (recipientInfos.empty()) return false;
  asn1::parser encrypted;
  blob oid;
  if (!p.read(asn1::tagSequence, &encrypted) || !encrypted.read(asn1::tagOid, &oid) ||
      !readAlgorithm(encrypted, &contentEncryptionAlgorithm))
    return false;
  contentType = oid.vec();
  switch (encrypted.readOptional(asn1::implicitTag(0), &octets)) {
    case Presence::malformed: return false;
    case Presence::present: contentPresent = true, encryptedContent = octets.vec(); break;
    case Presence::absent: break;
  }
  if (!encrypted.atEnd()) return false;
  blob attrs;
  if (authenticated) {
    if (p.readElement(asn1::implicitConstructedTag(1), &attrs)) authAttrs = attrs.vec();
    if (p.failed() || !p.read(asn1::tagOctetString, &octets)) return false;
    mac = octets.vec();
    if (p.readElement(asn1::implicitConstructedTag(2), &attrs)) unprotectedAttrs = attrs.vec();
  } else if (p.readElement(asn1::implicitConstructedTag(1), &attrs)) {
    unprotectedAttrs = attrs.vec();
  }
  return p.atEnd();
}

std::vector<unsigned char> PKCS7EnvelopedData::encode() const {
  DerEncoder e;
  e.sequence([&](DerEncoder& info) {
    info.addOid(authenticated ? asn1::oid::idCtAuthEnvelopedData.content() : asn1::oid::idEnvelopedData.content());
    info.element(asn1::explicitTag(0), [&](DerEncoder& wrapper) {
      wrapper.sequence([&](DerEncoder& ed) {
        ed.addInt(asn1::tagInteger, version);
        ed.addBytes(blob(originatorInfo));
        ed.element(asn1::tagSet, [&](DerEncoder& s) {
          for (const CmsRecipientInfo& r : recipientInfos) s.addBytes(blob(r.der));
        });
        ed.sequence([&](DerEncoder& eci) {
          eci.addOid(blob(contentType));
          eci.addBytes(blob(contentEncryptionAlgorithm));
          if (contentPresent) eci.addPrimitive(asn1::implicitTag(0), blob(encryptedContent));
        });
        if (authenticated) {
          ed.addBytes(blob(authAttrs));
          ed.addOctetString(blob(mac));
        }
        ed.addBytes(blob(unprotectedAttrs));
      });
    });
  });
  return std::move(e.data);
}

void PKCS7EnvelopedData::dump(std::ostream& os) const {
  os << (authenticated ? "auth-enveloped-data" : "enveloped-data") << " version: " << version << "\n";
  if (!originatorInfo.empty()) os << "originator-info: " << originatorInfo.size() << " bytes\n";
  os << "recipients: " << recipientInfos.size() << "\n";
  for (std::size_t i = 0; i < recipientInfos.size(); ++i) {
    const CmsRecipientInfo& r = recipientInfos[i];
    os << "recipient " << i << ": " << kindName(r.kind) << " version " << r.version << "\n";
    if (!r.serial.empty()) os << "  serial: " << asn1::str(blob(r.serial)) << "\n";
    if (!r.subjectKeyId.empty()) os << "  subject-key-id: " << asn1::str(blob(r.subjectKeyId)) << "\n";
    if (!r.keyDerivationAlgorithm.empty())
      os << "  key-derivation: " << algorithmName(blob(r.keyDerivationAlgorithm)) << "\n";
    if (!r.keyEncryptionAlgorithm.empty())
      os << "  key-encryption: " << algorithmName(blob(r.keyEncryptionAlgorithm)) << "\n";
    if (!r.originatorAlgorithm.empty())
      os << "  originator-key: " << algorithmName(blob(r.originatorAlgorithm)) << ", " << r.originatorKey.size()
         << " bytes\n";
    for (const CmsRecipientKey& k : r.recipientKeys)
      os << "  recipient-key: "
         << (k.serial.empty() ? "subject-key-id " + asn1::str(blob(k.subjectKeyId))
                              : "serial " + asn1::str(blob(k.serial)))
         << ", " << k.encryptedKey.size() << " bytes\n";
    if (!r.encryptedKey.empty()) os << "  encrypted-key: " << r.encryptedKey.size() << " bytes\n";
  }
  os << "content-type: " << asn1::oidStr(blob(contentType)) << "\n";
  os << "content-encryption: " << algorithmName(blob(contentEncryptionAlgorithm)) << "\n";
  if (contentPresent) os << "encrypted-content: " << encryptedContent.size() << " bytes\n";
  else os << "encrypted-content: absent\n";
  if (authenticated) os << "mac: " << mac.size() << " bytes\n";
}

}  // namespace tessel
