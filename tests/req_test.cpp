// Certificate requests: openssl-made requests with a dump written from `openssl req -text`,
// and hand-built attribute lists (tests/data/cert_cases.json).
#include <algorithm>

#include "support.h"
#include "tessel/pkcs8.h"
#include "tessel/req.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;

TEST(X509Req, OpensslRequests) {
  X509Req req;
  const Bytes der = test::fixtureDer("certs/req.pem");
  auto [ok, out] = test::parseSaying(req, der);
  ASSERT_TRUE(ok);
  EXPECT_EQ(out, "unknown attribute 2a:86:48:86:f7:0d:01:09:02\n");
  EXPECT_EQ(test::dumpOf(req), test::fixtureText("certs/req.dump"));
  EXPECT_EQ(req.serialize(), der);

  X509Req plain;
  ASSERT_TRUE(test::parseSaying(plain, test::fixtureDer("certs/req-plain.pem")).first);
  EXPECT_TRUE(plain.challengePassword.empty());
  EXPECT_TRUE(plain.subjectAltNames.empty());
  EXPECT_EQ(plain.keyUsage, 0u);

  X509Req utf8;  // the password as UTF8String
  EXPECT_FALSE(test::parseSaying(utf8, test::fixtureDer("certs/req-utf8pw.pem")).first);
}

Bytes spaced(std::string hex) {
  hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
  return fromHex(hex);
}

// buildReq writes a request for CN=testn with the rsa1024 key and one attribute (a whole
// Attribute SEQUENCE) inside [0], or no [0] when `attr` is null.
Bytes buildReq(const Bytes* attr) {
  DerEncoder e;
  e.sequence([&](DerEncoder& outer) {
    outer.sequence([&](DerEncoder& t) {
      t.addInt(0x02, 0u);
      t.addBytes(asn1::blob(fromHex("3010310e300c06035504030c05746573746e")));
      t.addBytes(asn1::blob(test::readFixture("keys/rsa1024.pub.der")));
      if (attr) t.element(0xA0, [&](DerEncoder& a0) { a0.addBytes(asn1::blob(*attr)); });
    });
    outer.addBytes(asn1::blob(fromHex("300d06092a864886f70d01010b0500")));
    outer.addBitString(asn1::blob(fromHex("00")));
  });
  return e.data;
}

// extReq wraps Extension SEQUENCEs into an extensionRequest attribute.
Bytes extReq(const Bytes& extensions) {
  DerEncoder e;
  e.sequence([&](DerEncoder& attr) {
    attr.addOid(asn1::blob(fromHex("2a864886f70d01090e")));
    attr.element(0x31, [&](DerEncoder& set) {
      set.sequence([&](DerEncoder& list) { list.addBytes(asn1::blob(extensions)); });
    });
  });
  return e.data;
}

TEST(X509Req, AttributeRules) {
  const nlohmann::json file = test::dataFile("cert_cases.json");
  for (const auto& c : file.at("reqAttributes")) {
    SCOPED_TRACE(c["what"].get<std::string>());
    const Bytes attr = c.contains("ext") ? extReq(spaced(c["ext"])) : spaced(c["attr"]);
    X509Req req;
    auto [ok, out] = test::parseSaying(req, buildReq(&attr));
    EXPECT_EQ(ok, c["ok"].get<bool>());
    EXPECT_EQ(out, c.value("output", ""));
    if (ok) {
      EXPECT_EQ(req.keyUsage, c["keyUsage"].get<std::uint32_t>());
    }
  }
  X509Req bare;
  EXPECT_TRUE(test::parseSaying(bare, buildReq(nullptr)).first);
  EXPECT_TRUE(test::dumpOf(bare).starts_with("REQ\n  name: <CN=testn>\n  extensions:\n[RSA-PUBLIC]\n"));
  X509Req keyed;
  auto key = bare.publicKeyInfo;
  EXPECT_TRUE(keyed.setPublicKey(*parsePkcs8PublicKey(asn1::blob(key))));
  EXPECT_EQ(keyed.publicKeyInfo, key);
}

}  // namespace
}  // namespace tessel
