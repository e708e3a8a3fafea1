// TSTInfo (RFC 3161, 2.4.2): the content a time-stamp token signs.
#include <ostream>

#include "cms/cms_internal.h"
#include "cms/tsp.h"
#include "tessel/timestamp.h"

namespace tessel {

namespace {

using asn1::blob;

// readCount reads a non-negative INTEGER content of at most 31 bits; false for anything else.
bool readCount(blob content, std::int32_t* out) {
  if (content.empty() || content.size() > 4 || (content[0] & 0x80)) return false;
  std::uint32_t v = 0;
  for (unsigned char b : content) v = (v << 8) | b;
  *out = static_cast<std::int32_t>(v);
  return true;
}

// readFraction reads the millis or micros of an Accuracy, which RFC 3161 bounds to 1..999.
bool readFraction(blob content, std::int32_t* out) { return readCount(content, out) && *out >= 1 && *out <= 999; }

// readAccuracy reads Accuracy { seconds INTEGER OPTIONAL, millis [0] OPTIONAL, micros [1] OPTIONAL }.
bool readAccuracy(blob content, TSTInfo& t) {
  asn1::parser p(content);
  blob v;
  if (p.read(asn1::tagInteger, &v) && !readCount(v, &t.accuracySeconds)) return false;
  if (p.read(asn1::implicitTag(0), &v) && !readFraction(v, &t.accuracyMillis)) return false;
  if (p.read(asn1::implicitTag(1), &v) && !readFraction(v, &t.accuracyMicros)) return false;
  return p.atEnd();
}

bool readImprint(blob content, TSTInfo& t) {
  asn1::parser p(content);
  blob algorithm, digest;
  if (!p.readElement(asn1::tagSequence, &algorithm) || !p.read(asn1::tagOctetString, &digest) || !p.atEnd())
    return false;
  t.hashAlgorithm = algorithm.vec();
  t.hash = cms::digestFromAlgorithm(algorithm);
  t.digest = digest.vec();
  return true;
}

bool readGenTime(asn1::parser& p, TSTInfo& t) {
  blob text;
  if (!p.isAt(asn1::tagGeneralizedTime, &text)) return false;
  t.genTimeText.assign(text.begin(), text.end());
  return t.genTime.parse(p);
}

// generalizedTime writes `t` as YYYYMMDDhhmmssZ; TimePoint gives the years 1950..2049 as UTCTime.
std::string generalizedTime(TimePoint t) {
  const auto [tag, text] = t.toAsn1Time();
  if (tag == asn1::tagGeneralizedTime) return text;
  return (text[0] >= '5' ? "19" : "20") + text;
}

}  // namespace

bool TSTInfo::parse(blob der) {
  *this = TSTInfo{};
  asn1::parser p;
  blob v;
  if (!asn1::readOnly(der, asn1::tagSequence, &p) || !p.isAt(asn1::tagInteger)) return false;
  version = p.takeUInt();
  if (!p.read(asn1::tagOid, &v)) return false;
  policy = v.vec();
  if (!p.read(asn1::tagSequence, &v) || !readImprint(v, *this)) return false;
  if (!p.read(asn1::tagInteger, &v) || v.empty()) return false;
  serial = v.vec();
  if (!readGenTime(p, *this)) return false;
  if (p.read(asn1::tagSequence, &v) && !readAccuracy(v, *this)) return false;
  if (p.isAt(asn1::tagBoolean)) ordering = p.takeBool();
  if (p.read(asn1::tagInteger, &v)) {
    if (v.empty()) return false;
    nonce = v.vec();
  }
  if (p.readElement(asn1::explicitTag(0), &v)) tsaName = v.vec();
  return p.atEnd();  // extensions ([1]) are refused with anything else that may follow
}

std::vector<unsigned char> TSTInfo::encode() const {
  DerEncoder e;
  {
    DerScope seq = e.beginSequence();
    e.addInt(asn1::tagInteger, version);
    e.addOid(blob(policy));
    {
      DerScope imprint = e.beginSequence();
      if (hashAlgorithm.empty()) saveHash(e, hash);
      else e.addBytes(blob(hashAlgorithm));
      e.addOctetString(blob(digest));
    }
    e.addPrimitive(asn1::tagInteger, blob(serial));
    e.addPrimitive(asn1::tagGeneralizedTime, blob(std::string_view(generalizedTime(genTime))));
    if (accuracySeconds >= 0 || accuracyMillis >= 0 || accuracyMicros >= 0) {
      DerScope accuracy = e.beginSequence();
      if (accuracySeconds >= 0) e.addInt(asn1::tagInteger, static_cast<unsigned>(accuracySeconds));
      if (accuracyMillis >= 0) e.addInt(asn1::implicitTag(0), static_cast<unsigned>(accuracyMillis));
      if (accuracyMicros >= 0) e.addInt(asn1::implicitTag(1), static_cast<unsigned>(accuracyMicros));
    }
    if (ordering) e.addBool(asn1::tagBoolean, true);
    if (!nonce.empty()) e.addPrimitive(asn1::tagInteger, blob(nonce));
    e.addBytes(blob(tsaName));
  }
  return std::move(e.data);
}

void TSTInfo::dump(std::ostream& os) const {
  os << "version: " << version << "\n";
  os << "policy: " << asn1::oidStr(blob(policy)) << "\n";
  os << "digest-algo: " << getHashName(hash) << "\n";
  os << "digest: " << asn1::str(blob(digest)) << "\n";
  os << "serial: " << asn1::str(blob(serial)) << "\n";
  os << "gen-time: " << genTimeText << "\n";
  if (accuracySeconds >= 0 || accuracyMillis >= 0 || accuracyMicros >= 0) {
    os << "accuracy:";
    if (accuracySeconds >= 0) os << " " << accuracySeconds << "s";
    if (accuracyMillis >= 0) os << " " << accuracyMillis << "ms";
    if (accuracyMicros >= 0) os << " " << accuracyMicros << "us";
    os << "\n";
  }
  os << "ordering: " << (ordering ? "yes" : "no") << "\n";
  if (!nonce.empty()) os << "nonce: " << asn1::str(blob(nonce)) << "\n";
  if (!tsaName.empty()) os << "tsa: " << asn1::str(blob(tsaName)) << "\n";
}

}  // namespace tessel
