#include "tessel/names.h"

#if TESSEL_HAVE_OPENSSL
#include <openssl/asn1.h>
#include <openssl/x509.h>
#endif

#include "support.h"
#include "tessel/asn1.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;

// rdn builds SET { SEQUENCE { OID 2.5.4.arc, value } } with the value's tag and text.
std::string rdn(unsigned arc, unsigned valueTag, const std::string& value) {
  DerEncoder e;
  e.element(0x31, [&](DerEncoder& s) {
    s.sequence([&](DerEncoder& q) {
      const unsigned char oid[3] = {0x55, 0x04, static_cast<unsigned char>(arc)};
      q.addOid(asn1::blob(oid, 3));
      q.addPrimitive(valueTag, asn1::blob(std::string_view(value)));
    });
  });
  return test::toHex(e.data);
}

Bytes nameOf(const std::vector<std::string>& rdns) {
  std::string body;
  for (const auto& r : rdns) body += r;
  DerEncoder e;
  e.sequence([&](DerEncoder& s) { s.addBytes(asn1::blob(fromHex(body))); });
  return e.data;
}

TEST(DistinguishedName, ReadsKnownAttributesLastOneWinning) {
  Bytes der = nameOf({rdn(3, 0x0C, "first"), rdn(6, 0x13, "LV"), rdn(10, 0x14, "Org"), rdn(3, 0x16, "last"),
                      rdn(11, 0x1E, std::string("\0U\0n", 4)), rdn(7, 0x02, "skipped: not a string")});
  DistinguishedName n;
  ASSERT_TRUE(n.parse(asn1::blob(der)));
  EXPECT_EQ(n.CN, "last");
  EXPECT_EQ(n.OU, std::string("\0U\0n", 4));  // BMPString bytes kept as they are
  EXPECT_EQ(n.L, "");
  EXPECT_EQ(n.str(), std::string("C=LV, O=Org, OU=") + std::string("\0U\0n", 4) + ", CN=last");
  EXPECT_TRUE(n.unknownAttrs.empty());
}

TEST(DistinguishedName, UnknownAttributesAreKeptAndReported) {
  // 2.5.4.12 (title) is not one of ours; its RDN is kept whole, second value included.
  std::string title = rdn(12, 0x0C, "Dr");
  std::string multi = "3118" "3009060355040c0c024472" "300b060355040c0c0450726f66";  // two values
  Bytes der = nameOf({title, rdn(3, 0x0C, "host"), multi});
  DistinguishedName n;
  EXPECT_EQ(test::said([&] { EXPECT_TRUE(n.parse(asn1::blob(der))); }),
            "unknown name attr: 2.5.4.12\nunknown name attr: 2.5.4.12\n");
  ASSERT_EQ(n.unknownAttrs.size(), 2u);
  EXPECT_EQ(test::toHex(n.unknownAttrs[1]), multi.substr(4));
  // Written back: known attributes first, then the unknown RDNs byte for byte.
  EXPECT_EQ(test::toHex(n.serialize()), test::toHex(nameOf({rdn(3, 0x0C, "host"), title, multi})));
}

TEST(DistinguishedName, MalformedStructure) {
  for (const std::string hex : test::parseCases("badNames")) {
    DistinguishedName n;
    EXPECT_FALSE(n.parse(asn1::blob(fromHex(hex)))) << hex;
  }
  DistinguishedName n;
  EXPECT_TRUE(n.parse(asn1::blob(fromHex("3000"))));
  EXPECT_TRUE(n.empty());
  EXPECT_EQ(n.str(), "");
  EXPECT_TRUE(n.parse(asn1::blob(fromHex("30020500"))));  // the loop ends at the first non-SET
}

TEST(DistinguishedName, EqualityIgnoresCaseOrderAndUnknowns) {
  DistinguishedName a, b, c;
  ASSERT_TRUE(a.parse(asn1::blob(nameOf({rdn(6, 0x13, "lv"), rdn(3, 0x0C, "Host.Example")}))));
  ASSERT_TRUE(b.parse(asn1::blob(nameOf({rdn(3, 0x0C, "host.example"), rdn(6, 0x13, "LV"), rdn(12, 0x0C, "x")}))));
  EXPECT_TRUE(a == b);
  c = b;
  c.O = "Org";
  EXPECT_FALSE(a == c);
  const unsigned char unknownOid[3] = {0x55, 0x04, 0x0C};
  EXPECT_FALSE(c.setAttr(asn1::blob(unknownOid, 3), "x"));
}

TEST(GeneralName, ParseSerializeAndText) {
  for (const auto& r : test::parseCases("generalNames")) {
    const std::string der = r[0];
    GeneralName g;
    EXPECT_EQ(g.parse(asn1::blob(fromHex(der))), r[1].get<bool>()) << der;
    EXPECT_EQ(g.type, r[2].get<unsigned>()) << der;
    EXPECT_EQ(g.typeStr() + ": " + g.dataStr(), r[3].get<std::string>()) << der;
  }
  GeneralName dir;
  dir.parse(asn1::blob(fromHex("a4023000")));
  EXPECT_EQ(test::toHex(dir.serialize()), "84023000");  // written primitive, as the library always has
  EXPECT_EQ(GeneralName().typeStr(), "[empty]");
}

TEST(GeneralName, IpAddresses) {
  const std::pair<const char*, const char*> rows[] = {
      {"::", "00000000"}, {"10.1.2.3", "0a010203"}, {"::ffff:10.1.2.3", "0a010203"},
      {"2001:db8::5", "20010db8000000000000000000000005"}};
  for (auto [text, hex] : rows) {
    ol::IPAddr6 ip;
    ASSERT_TRUE(ip.parse(text));
    GeneralName g;
    g.setIp(ip);
    EXPECT_EQ(g.type, GeneralName::iPAddress);
    EXPECT_EQ(test::toHex(g.data), hex) << text;
    EXPECT_EQ(g.getIp(), ip.isZero() ? ol::IPAddr6::fromBytes(Bytes(4, 0)) : ip) << text;
  }
  GeneralName dns;
  dns.type = GeneralName::dNSName;
  dns.data = Bytes(4, 1);
  EXPECT_TRUE(dns.getIp().isZero());
}

#if TESSEL_HAVE_OPENSSL
// Names built by OpenSSL (multi-valued RDNs, repeated CN, BMPString) read as OpenSSL sees them,
// and our canonical writing is read back by OpenSSL with the same entries.
TEST(DistinguishedName, InteroperatesWithOpenSsl) {
  X509_NAME* name = X509_NAME_new();
  auto add = [&](const char* field, int type, const std::string& value, int set) {
    X509_NAME_add_entry_by_txt(name, field, type, reinterpret_cast<const unsigned char*>(value.data()),
                               static_cast<int>(value.size()), -1, set);
  };
  add("C", MBSTRING_ASC, "LV", 0);
  add("O", MBSTRING_UTF8, "Pārbaude", 0);
  add("OU", MBSTRING_ASC, "unit", 0);
  add("title", MBSTRING_ASC, "extra", -1);  // joins the OU RDN: multi-valued
  add("CN", MBSTRING_ASC, "one", 0);
  add("CN", MBSTRING_ASC, "two", 0);
  add("serialNumber", MBSTRING_ASC, "42", 0);
  unsigned char* der = nullptr;
  int len = i2d_X509_NAME(name, &der);
  ASSERT_GT(len, 0);
  DistinguishedName ours;
  ASSERT_TRUE(ours.parse(asn1::blob(der, static_cast<std::size_t>(len))));
  EXPECT_EQ(ours.str(), "C=LV, O=Pārbaude, OU=unit, CN=two, SerialNumber=42");
  OPENSSL_free(der);
  X509_NAME_free(name);

  Bytes written = ours.serialize();
  const unsigned char* p = written.data();
  X509_NAME* back = d2i_X509_NAME(nullptr, &p, static_cast<long>(written.size()));
  ASSERT_TRUE(back);
  char line[256];
  X509_NAME_oneline(back, line, sizeof line);
  EXPECT_STREQ(line, "/C=LV/O=P\\xC4\\x81rbaude/OU=unit/CN=two/serialNumber=42");
  X509_NAME_free(back);
}
#endif

}  // namespace
}  // namespace tessel
