// CMS SignedData: reading a ContentInfo that carries one, writing it back and printing it.
#include <iostream>

#include "cms/cms_internal.h"
#include "tessel/cms.h"
#include "tessel/oids.h"

namespace tessel {

using asn1::blob;
using asn1::Presence;
using Bytes = std::vector<unsigned char>;

void PKCS7SignedData::clear() {
  version = 1;
  digestAlgorithms.clear();
  contentType.clear();
  detached = false;
  content.clear();
  nested.reset();
  certificateDer.clear();
  certificates.clear();
  crlDer.clear();
  crls.clear();
  signerInfos.clear();
}

bool PKCS7SignedData::parse(blob der, unsigned depth) {
  clear();
  if (depth > kMaxDepth) return false;
  asn1::parser info, body;
  blob type;
  if (!asn1::readOnly(der, asn1::tagSequence, &info) || !info.read(asn1::tagOid, &type) ||
      !asn1::oid::idSignedData.is(type) || !info.read(asn1::explicitTag(0), &body) || !info.atEnd())
    return false;
  asn1::parser signedData;
  if (!body.read(asn1::tagSequence, &signedData) || !body.atEnd()) return false;
  return parseSignedData(signedData, depth);
}

namespace {

// readEncapsulated reads EncapsulatedContentInfo { eContentType, [0] EXPLICIT OCTET STRING
// OPTIONAL }. Only the CMS form is read: PKCS#7 1.5's content of any type, unwrapped, is not.
bool readEncapsulated(asn1::parser& p, Bytes* type, bool* detached, Bytes* content) {
  asn1::parser encap, wrapper;
  blob oid, octets;
  if (!p.read(asn1::tagSequence, &encap) || !encap.read(asn1::tagOid, &oid)) return false;
  *type = oid.vec();
  switch (encap.readOptional(asn1::explicitTag(0), &wrapper)) {
    case Presence::malformed: return false;
    case Presence::absent: *detached = true; return encap.atEnd();
    case Presence::present: break;
  }
  if (!wrapper.read(asn1::tagOctetString, &octets) || !wrapper.atEnd()) return false;
  *detached = false;
  *content = octets.vec();
  return encap.atEnd();
}

// readElements copies each element of a SET's content whole, failing on a malformed one.
bool readElements(blob setContent, std::vector<Bytes>* out) {
  for (asn1::parser p(setContent); !p.atEnd();) {
    if (p.failed()) return false;
    blob whole = p.takeElement();
    if (whole.empty()) return false;
    out->push_back(whole.vec());
  }
  return true;
}

}  // namespace

bool PKCS7SignedData::parseSignedData(asn1::parser& p, unsigned depth) {
  blob v, set;
  if (!p.isAt(asn1::tagInteger, &v) || v.size() != 1 || v[0] > 5) return false;
  version = p.takeUInt();
  if (!p.read(asn1::tagSet, &set) || !readElements(set, &digestAlgorithms)) return false;
  for (const Bytes& a : digestAlgorithms)
    if (!asn1::parser(blob(a)).isAt(asn1::tagSequence)) return false;
  if (!readEncapsulated(p, &contentType, &detached, &content)) return false;
  if (!detached && asn1::oid::idSignedData.is(blob(contentType))) {
    // Signed again as a whole: the content is itself a signed message, read to a bounded depth.
    // RFC 5652 carries the inner SignedData bare; some writers wrap it in its ContentInfo.
    asn1::parser inner;
    if (depth + 1 > kMaxDepth || !asn1::readOnly(blob(content), asn1::tagSequence, &inner)) return false;
    nested = std::make_unique<PKCS7SignedData>();
    const bool read =
        inner.isAt(asn1::tagOid) ? nested->parse(blob(content), depth + 1) : nested->parseSignedData(inner, depth + 1);
    if (!read) return false;
  }
  switch (p.readOptional(asn1::implicitConstructedTag(0), &set)) {
    case Presence::malformed: return false;
    case Presence::present:
      if (!readElements(set, &certificateDer)) return false;
      break;
    case Presence::absent: break;
  }
  switch (p.readOptional(asn1::implicitConstructedTag(1), &set)) {
    case Presence::malformed: return false;
    case Presence::present:
      if (!readElements(set, &crlDer)) return false;
      break;
    case Presence::absent: break;
  }
  if (!p.read(asn1::tagSet, &set) || !p.atEnd()) return false;
  std::vector<Bytes> signerDer;
  if (!readElements(set, &signerDer)) return false;
  for (const Bytes& s : signerDer) {
    signerInfos.emplace_back();
    if (!signerInfos.back().parse(blob(s))) return false;
  }
  // Other certificate choices (attribute certificates, [0] to [3]) are kept as DER only.
  for (const Bytes& c : certificateDer) {
    auto cert = std::make_shared<X509Certificate>();
    if (c[0] == asn1::tagSequence && cert->parse(c.data(), static_cast<unsigned>(c.size())))
      certificates.push_back(std::move(cert));
  }
  for (const Bytes& c : crlDer) {
    auto crl = std::make_shared<X509Crl>();
    if (c[0] == asn1::tagSequence && crl->parse(c.data(), static_cast<unsigned>(c.size())))
      crls.push_back(std::move(crl));
  }
  return true;
}

std::vector<unsigned char> PKCS7SignedData::encode() const {
  auto writeSet = [](DerEncoder& e, unsigned tag, const std::vector<Bytes>& members) {
    e.element(tag, [&](DerEncoder& s) {
      for (const Bytes& m : members) s.addBytes(blob(m));
    });
  };
  DerEncoder e;
  e.sequence([&](DerEncoder& info) {
    info.addOid(asn1::oid::idSignedData.content());
    info.element(asn1::explicitTag(0), [&](DerEncoder& wrapper) {
      wrapper.sequence([&](DerEncoder& sd) {
        sd.addInt(asn1::tagInteger, version);
        writeSet(sd, asn1::tagSet, digestAlgorithms);
        sd.sequence([&](DerEncoder& encap) {
          encap.addOid(blob(contentType));
          if (!detached) encap.element(asn1::explicitTag(0), [&](DerEncoder& c) { c.addOctetString(blob(content)); });
        });
        if (!certificateDer.empty()) writeSet(sd, asn1::implicitConstructedTag(0), certificateDer);
        if (!crlDer.empty()) writeSet(sd, asn1::implicitConstructedTag(1), crlDer);
        std::vector<Bytes> signers;
        for (const PKCS7SignerInfo& s : signerInfos) signers.push_back(s.encode());
        writeSet(sd, asn1::tagSet, signers);
      });
    });
  });
  return std::move(e.data);
}

void PKCS7SignedData::dump(std::ostream& os) const {
  os << "signed-data version: " << version << "\n";
  os << "content-type: " << asn1::oidStr(blob(contentType)) << "\n";
  if (detached) os << "content: detached\n";
  else os << "content: " << content.size() << " bytes\n";
  for (const Bytes& a : digestAlgorithms) {
    asn1::parser p(blob{a}), inner(p.content);
    os << "digest-algo: "
       << (getHashID(inner.content) != hashNone ? getHashName(getHashID(inner.content)) : asn1::oidStr(inner.content))
       << "\n";
  }
  os << "certificates: " << certificateDer.size() << "\n";
  for (const std::shared_ptr<X509Certificate>& c : certificates)
    os << "  subject: " << c->subject.str() << "\n  issuer: " << c->issuer.str() << "\n";
  os << "crls: " << crlDer.size() << "\n";
  for (const std::shared_ptr<X509Crl>& c : crls) os << "  issuer: " << c->issuer.str() << "\n";
  os << "signers: " << signerInfos.size() << "\n";
  for (std::size_t i = 0; i < signerInfos.size(); ++i) {
    os << "signer " << i << ":\n";
    signerInfos[i].dump(os, "  ");
  }
  if (nested) {
    os << "nested:\n";
    nested->dump(os);
  }
}

}  // namespace tessel
