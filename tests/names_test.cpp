// Distinguished and general names: parsing, text, equality and writing over the tables of
// tests/data/pki_der.json and parse_cases.json. Names OpenSSL builds and reads back are in
// tests/data/pki_tool.json (group issue).
#include "tessel/names.h"

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
  for (const auto& r : test::parseCases("ipNames")) {
    const std::string text = r[0];
    ol::IPAddr6 ip;
    ASSERT_TRUE(ip.parse(text));
    GeneralName g;
    g.setIp(ip);
    EXPECT_EQ(g.type, GeneralName::iPAddress);
    EXPECT_EQ(test::toHex(g.data), r[1]) << text;
    EXPECT_EQ(g.getIp(), ip.isZero() ? ol::IPAddr6::fromBytes(Bytes(4, 0)) : ip) << text;
  }
  GeneralName dns;
  dns.type = GeneralName::dNSName;
  dns.data = Bytes(4, 1);
  EXPECT_TRUE(dns.getIp().isZero());
}

}  // namespace
}  // namespace tessel
