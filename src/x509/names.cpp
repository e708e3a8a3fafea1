#include "tessel/names.h"

#include <strings.h>

#include "core/diag.h"
#include "tessel/asn1.h"
#include "tessel/oids.h"

namespace tessel {

namespace {

// The known attributes in canonical order, with the last arc of their OID (id-at, 2.5.4.x),
// text label and the string type they are written with.
struct KnownAttr {
  unsigned char arc;
  const char* label;
  unsigned writtenAs;
  std::string DistinguishedName::*field;
};

constexpr unsigned kPrintableString = asn1::tagPrintableString, kUtf8String = asn1::tagUtf8String;

const KnownAttr kKnownAttrs[] = {
    {6, "C=", kPrintableString, &DistinguishedName::C},
    {8, "S=", kUtf8String, &DistinguishedName::S},
    {7, "L=", kUtf8String, &DistinguishedName::L},
    {10, "O=", kUtf8String, &DistinguishedName::O},
    {11, "OU=", kUtf8String, &DistinguishedName::OU},
    {3, "CN=", kUtf8String, &DistinguishedName::CN},
    {5, "SerialNumber=", kUtf8String, &DistinguishedName::SerialNumber},
};

const KnownAttr* findAttr(const asn1::blob& oid) {
  if (!asn1::oid::idAt.prefixes(oid)) return nullptr;
  for (const KnownAttr& a : kKnownAttrs)
    if (a.arc == oid[asn1::oid::idAt.size]) return &a;
  return nullptr;
}

// isDirectoryString accepts the string types a Name value may have (0x10 included, as found in
// some old certificates).
bool isDirectoryString(std::uint32_t tag) {
  switch (tag) {
    case asn1::tagUtf8String:
    case 0x10:
    case asn1::tagPrintableString:
    case asn1::tagT61String:
    case asn1::tagIa5String:
    case asn1::tagUniversalString:
    case asn1::tagBmpString: return true;
    default: return false;
  }
}

}  // namespace

bool DistinguishedName::parse(asn1::blob der) {
  unknownAttrs.clear();
  asn1::parser name(der);
  if (!name.enter()) return false;
  while (name.isAt(asn1::tagSet)) {
    asn1::blob rdn, attribute;
    if (!name.read(asn1::tagSet, &rdn) || !asn1::parser(rdn).isAt(asn1::tagSequence, &attribute)) return false;
    asn1::parser atv(attribute);
    if (!atv.isAt(asn1::tagOid)) return false;
    // A malformed value after the type skips the attribute rather than failing the name.
    asn1::blob oid = atv.takeContent();
    if (!isDirectoryString(atv.tag)) continue;
    asn1::blob value = atv.content;
    if (!setAttr(oid, std::string(value.begin(), value.end()))) {
      diag() << "unknown name attr: " << asn1::oidStr(oid);
      unknownAttrs.push_back(rdn.vec());
    }
  }
  return true;
}

std::vector<unsigned char> DistinguishedName::serialize() const {
  DerEncoder e;
  {
    DerScope name = e.beginSequence();
    for (const KnownAttr& a : kKnownAttrs) {
      const std::string& value = this->*a.field;
      if (value.empty()) continue;
      DerScope set = e.beginElement(asn1::tagSet);
      DerScope atv = e.beginSequence();
      asn1::Oid oid = asn1::oid::idAt;
      oid.bytes[oid.size++] = a.arc;
      e.addOid(oid.content());
      e.addPrimitive(a.writtenAs, asn1::blob(std::string_view(value)));
    }
    for (const auto& raw : unknownAttrs) e.addPrimitive(asn1::tagSet, asn1::blob(raw));
  }
  return std::move(e.data);
}

bool DistinguishedName::setAttr(const asn1::blob& oid, const std::string& value) {
  const KnownAttr* a = findAttr(oid);
  if (!a) return false;
  this->*a->field = value;
  return true;
}

std::string DistinguishedName::str() const {
  std::string out;
  for (const KnownAttr& a : kKnownAttrs) {
    const std::string& value = this->*a.field;
    if (value.empty()) continue;
    if (!out.empty()) out += ", ";
    out += a.label + value;
  }
  return out;
}

bool DistinguishedName::empty() const {
  for (const KnownAttr& a : kKnownAttrs)
    if (!(this->*a.field).empty()) return false;
  return true;
}

bool DistinguishedName::operator==(const DistinguishedName& other) const {
  for (const KnownAttr& a : kKnownAttrs)
    if (strcasecmp((this->*a.field).c_str(), (other.*a.field).c_str()) != 0) return false;
  return true;
}

bool GeneralName::parse(asn1::blob der) {
  asn1::parser p(der);
  type = static_cast<std::uint8_t>(p.tag & 0x5F);
  data = p.content.vec();
  return !(type == iPAddress && data.size() != 4 && data.size() != 16);
}

std::vector<unsigned char> GeneralName::serialize() const {
  DerEncoder e;
  e.addPrimitive(0x80u | type, asn1::blob(data));
  return std::move(e.data);
}

std::string GeneralName::typeStr() const {
  switch (type) {
    case otherName: return "other";
    case rfc822Name: return "rfc822";
    case dNSName: return "DNS";
    case x400Address: return "X400 address";
    case directoryName: return "Name";
    case ediPartyName: return "EDI party";
    case uniformResourceIdentifier: return "URI";
    case iPAddress: return "IP";
    case registeredID: return "REG ID";
    case none: return "[empty]";
    default: return "";
  }
}

void GeneralName::setIp(const ol::IPAddr6& ip) {
  type = iPAddress;
  if (ip.isV4() || ip.isZero()) {
    auto v4 = ip.v4Bytes();
    data.assign(v4.begin(), v4.end());
  } else {
    data.assign(ip.bytes().begin(), ip.bytes().end());
  }
}

ol::IPAddr6 GeneralName::getIp() const {
  if (type != iPAddress || (data.size() != 4 && data.size() != 16)) return {};
  return ol::IPAddr6::fromBytes(data);
}

std::string GeneralName::dataStr() const {
  if (type == iPAddress) return getIp().str();
  return std::string(data.begin(), data.end());
}

}  // namespace tessel
