// Certificate requests: openssl-made requests with a dump written from `openssl req -text`,
// and hand-built attribute lists.
#include <algorithm>

#include "support.h"
#include "tessel/pkcs8.h"
#include "tessel/req.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;

std::pair<bool, std::string> parseCaptured(X509Req& req, const Bytes& der) {
  testing::internal::CaptureStdout();
  bool ok = req.parse(der.data(), static_cast<unsigned>(der.size()));
  return {ok, testing::internal::GetCapturedStdout()};
}

TEST(X509Req, OpensslRequests) {
  X509Req req;
  const Bytes der = test::pemBody(test::readFixture("certs/req.pem"));
  auto [ok, out] = parseCaptured(req, der);
  ASSERT_TRUE(ok);
  EXPECT_EQ(out, "unknown attribute 2a:86:48:86:f7:0d:01:09:02\n");
  std::ostringstream os;
  req.dump(os);
  const Bytes expected = test::readFixture("certs/req.dump");
  EXPECT_EQ(os.str(), std::string(expected.begin(), expected.end()));
  EXPECT_EQ(req.serialize(), der);

  X509Req plain;
  ASSERT_TRUE(parseCaptured(plain, test::pemBody(test::readFixture("certs/req-plain.pem"))).first);
  EXPECT_TRUE(plain.challengePassword.empty());
  EXPECT_TRUE(plain.subjectAltNames.empty());
  EXPECT_EQ(plain.keyUsage, 0u);

  X509Req utf8;  // the password as UTF8String
  EXPECT_FALSE(parseCaptured(utf8, test::pemBody(test::readFixture("certs/req-utf8pw.pem"))).first);
}

// buildReq writes a request for CN=testn with the rsa1024 key and the given attributes
// (whole Attribute SEQUENCEs as hex) inside [0], or no [0] when `attrs` is null.
Bytes buildReq(const std::vector<std::string>* attrs) {
  DerEncoder e;
  e.sequence([&](DerEncoder& outer) {
    outer.sequence([&](DerEncoder& t) {
      t.addInt(0x02, 0u);
      t.addBytes(asn1::blob(fromHex("3010310e300c06035504030c05746573746e")));
      t.addBytes(asn1::blob(test::readFixture("keys/rsa1024.pub.der")));
      if (attrs)
        t.element(0xA0, [&](DerEncoder& a0) {
          for (const std::string& h : *attrs) a0.addBytes(asn1::blob(fromHex(h)));
        });
    });
    outer.addBytes(asn1::blob(fromHex("300d06092a864886f70d01010b0500")));
    outer.addBitString(asn1::blob(fromHex("00")));
  });
  return e.data;
}

// extReq wraps Extension SEQUENCEs (hex) into an extensionRequest attribute.
std::string extReq(std::string extensionsHex) {
  extensionsHex.erase(std::remove(extensionsHex.begin(), extensionsHex.end(), ' '), extensionsHex.end());
  DerEncoder e;
  e.sequence([&](DerEncoder& attr) {
    attr.addOid(asn1::blob(fromHex("2a864886f70d01090e")));
    attr.element(0x31, [&](DerEncoder& set) {
      set.sequence([&](DerEncoder& list) { list.addBytes(asn1::blob(fromHex(extensionsHex))); });
    });
  });
  return test::toHex(e.data);
}

TEST(X509Req, AttributeRules) {
  struct Case {
    const char* what;
    std::vector<std::string> attrs;
    bool ok;
    const char* output;
    std::uint32_t keyUsage;
  } cases[] = {
      {"keyUsage read big-endian", {extReq("300c0603551d0f0405030307 8080")}, true, "", 0x8080},
      {"keyUsage one byte, unused bits kept", {extReq("300b0603551d0f0404030207ff")}, true, "", 0xff},
      {"keyUsage zero accepted", {extReq("300b0603551d0f040403020000")}, true, "", 0},
      {"keyUsage over four bytes ignored", {extReq("300f0603551d0f0408030600 0102030405")}, true, "", 0},
      {"extKeyUsage", {extReq("30130603551d25040c300a06082b06010505070302")}, true, "", 0x20000},
      {"unknown critical extension ignored", {extReq("300b06032a03040101ff04010a")}, true, "unknown ext id=1.2.3.4\n",
       0},
      {"repeated extension", {extReq("30130603551d25040c300a06082b06010505070302 30130603551d25040c300a06082b06010505070302")},
       false, "", 0},
      {"critical empty subjectAltName", {extReq("300c0603551d110101ff04023000")}, false, "", 0},
      {"challengePassword PrintableString", {"3011 06092a864886f70d010907 3104 13027077"}, true, "", 0},
      {"challengePassword UTF8String", {"3011 06092a864886f70d010907 3104 0c027077"}, false, "", 0},
      {"unknown attribute", {"3009 06032a0304 3102 0500"}, true, "unknown attribute 2a:03:04\n", 0},
      {"attribute without SET", {"3009 06032a0304 3002 0500"}, false, "", 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::string> attrs;
    for (std::string h : c.attrs) {
      h.erase(std::remove(h.begin(), h.end(), ' '), h.end());
      attrs.push_back(h);
    }
    X509Req req;
    auto [ok, out] = parseCaptured(req, buildReq(&attrs));
    EXPECT_EQ(ok, c.ok);
    EXPECT_EQ(out, c.output);
    if (ok) {
      EXPECT_EQ(req.keyUsage, c.keyUsage);
    }
  }
  X509Req bare;
  EXPECT_TRUE(parseCaptured(bare, buildReq(nullptr)).first);
  std::ostringstream os;
  bare.dump(os);
  EXPECT_TRUE(os.str().starts_with("REQ\n  name: <CN=testn>\n  extensions:\n[RSA-PUBLIC]\n"));
  X509Req keyed;
  auto key = bare.publicKeyInfo;
  EXPECT_TRUE(keyed.setPublicKey(*parsePkcs8PublicKey(asn1::blob(key))));
  EXPECT_EQ(keyed.publicKeyInfo, key);
}

}  // namespace
}  // namespace tessel
