// X.509 names: DistinguishedName (an X.501 Name reduced to the attributes the library uses,
// with every other attribute kept raw) and GeneralName (one GeneralName choice).
#pragma once

#include "tessel/export.h"

#include <cstdint>
#include <string>
#include <vector>

#include "ol/ipaddr.h"
#include "tessel/blob.h"

namespace tessel {

// DistinguishedName holds the seven attributes the library understands, one value each (an
// empty string is an absent attribute), and the raw RDN contents of all other attributes so
// they can be written back unchanged.
struct TESSEL_API DistinguishedName {
  std::vector<std::vector<unsigned char>> unknownAttrs;  // content bytes of unrecognised RDN SETs
  std::string C, S, L, O, OU, CN, SerialNumber;

  // parse reads a DER Name (SEQUENCE OF SET). It clears unknownAttrs; known attributes are
  // overwritten only where the input has them, the last occurrence winning. Values of a type
  // other than the directory string types skip their RDN silently; an unknown attribute prints
  // "unknown name attr: OID" on standard output. Only the first value of a multi-valued RDN is
  // read. False when the outer SEQUENCE or an RDN's structure is malformed.
  bool parse(asn1::blob der);
  // serialize writes the Name in canonical order C, S, L, O, OU, CN, SerialNumber (C as a
  // PrintableString, the rest as UTF8String), then the unknown RDNs in their stored order.
  std::vector<unsigned char> serialize() const;
  // setAttr stores `value` in the attribute whose OID content bytes are `oid`; false, and
  // nothing changed, when the OID is not one of the seven.
  bool setAttr(const asn1::blob& oid, const std::string& value);
  // str renders the present attributes as "C=LV, O=Example, CN=host"; unknown ones are left out.
  std::string str() const;
  // empty is true when none of the seven attributes is present (unknown ones do not count).
  bool empty() const;
  // Names are equal when each of the seven attributes matches ignoring ASCII case; attribute
  // order and unknown attributes play no part.
  bool operator==(const DistinguishedName& other) const;
};

// GeneralName is one X.509 GeneralName: its choice number and content bytes as found.
struct TESSEL_API GeneralName {
  enum : std::uint8_t {
    otherName = 0,
    rfc822Name = 1,
    dNSName = 2,
    x400Address = 3,
    directoryName = 4,
    ediPartyName = 5,
    uniformResourceIdentifier = 6,
    iPAddress = 7,
    registeredID = 8,
    none = 255
  };
  std::vector<unsigned char> data;  // content octets; 4 or 16 bytes for an IP address
  std::uint8_t type = none;

  // parse reads one element: the type is the context number of its tag, the data its content.
  // An empty or malformed input still "parses" (types 0 and 1 with no data), which callers rely
  // on only to skip. False only for an IP address that is not 4 or 16 bytes long.
  bool parse(asn1::blob der);
  // serialize writes one primitive element [type] with the data as content; a directoryName is
  // thus written primitive as well.
  std::vector<unsigned char> serialize() const;
  // typeStr names the type as dumps show it ("DNS", "IP", "rfc822", "[empty]", ...).
  std::string typeStr() const;
  // setIp makes this an IP address name: 4 bytes for IPv4 and for the all-zero address, else 16.
  void setIp(const ol::IPAddr6& ip);
  // getIp returns the address of an IP name with 4 or 16 bytes; otherwise the all-zero address.
  ol::IPAddr6 getIp() const;
  // dataStr renders the data: an IP address as text, anything else as its bytes.
  std::string dataStr() const;
};

}  // namespace tessel
