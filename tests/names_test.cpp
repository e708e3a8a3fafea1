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

const nlohmann::json& cases(const char* table) {
  static const nlohmann::json all = test::dataFile("pki_der.json");  // written by gen_pki_der.py
  return all.at(table);
}

DistinguishedName parsed(const nlohmann::json& hex) {
  DistinguishedName n;
  EXPECT_TRUE(n.parse(asn1::blob(fromHex(hex.get<std::string>())))) << hex;
  return n;
}

TEST(DistinguishedName, ParseTextUnknownsAndWriting) {
  for (const auto& r : cases("names")) {
    SCOPED_TRACE(r[0].get<std::string>());
    DistinguishedName n;
    bool ok = false;
    EXPECT_EQ(test::said([&] { ok = n.parse(asn1::blob(fromHex(r[0].get<std::string>()))); }), r[3]);
    ASSERT_EQ(ok, r[1].get<bool>());
    if (!ok) continue;
    EXPECT_EQ(n.str(), r[2]);
    EXPECT_EQ(n.empty(), r[2] == "");
    EXPECT_EQ(n.unknownAttrs.size(), r[4].get<std::size_t>());
    EXPECT_TRUE(r[5].is_null() || test::toHex(n.serialize()) == r[5]) << test::toHex(n.serialize());
  }
}

TEST(DistinguishedName, EqualityIgnoresCaseOrderAndUnknowns) {
  for (const auto& r : cases("nameEquality")) EXPECT_EQ(parsed(r[0]) == parsed(r[1]), r[2].get<bool>()) << r;
  const unsigned char unknownOid[3] = {0x55, 0x04, 0x0C};
  EXPECT_FALSE(DistinguishedName().setAttr(asn1::blob(unknownOid, 3), "x"));
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
  const std::pair<const char*, const char*> rows[] = {{"::", "00000000"},
                                                      {"10.1.2.3", "0a010203"},
                                                      {"::ffff:10.1.2.3", "0a010203"},
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
