// Revocation lists: openssl-made CRLs with dumps written from `openssl crl -text`, and
// hand-built bodies for the entry and list extension rules (tests/data/cert_cases.json).
#include "tessel/crl.h"
#include "support.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;

TEST(X509Crl, OpensslCrls) {
  X509Crl crl;
  const Bytes der = test::readFixture("certs/crl.der");
  ASSERT_EQ(test::parseSaying(crl, der), std::make_pair(true, std::string()));
  EXPECT_EQ(test::dumpOf(crl), test::fixtureText("certs/crl.dump"));
  EXPECT_EQ(crl.serialize(), der);
  ASSERT_EQ(crl.revoked.size(), 4u);
  EXPECT_EQ(crl.revoked[0].reason, 4);    // superseded
  EXPECT_EQ(crl.revoked[1].reason, 8);    // removeFromCRL
  EXPECT_EQ(crl.revoked[3].reason, 255);  // no reasonCode
  EXPECT_EQ(crl.crlNumber, fromHex("1001"));

  // The same list with nextUpdate cut out: no "nextUpdate" line, nothing else changes.
  X509Crl noNext;
  ASSERT_TRUE(test::parseSaying(noNext, test::readFixture("certs/crl-nonext.der")).first);
  EXPECT_EQ(noNext.nextUpdate.seconds(), 0);
  std::string expected = test::fixtureText("certs/crl.dump");
  expected.erase(expected.find("  nextUpdate: "), std::string("  nextUpdate: Mon Dec 21 03:31:41 2026\n").size());
  EXPECT_EQ(test::dumpOf(noNext), expected);

  X509Crl empty;
  ASSERT_TRUE(test::parseSaying(empty, test::fixtureDer("certs/crl-empty.pem")).first);
  EXPECT_TRUE(empty.revoked.empty());
  EXPECT_NE(test::dumpOf(empty).find("\n  revoked certs: (empty)\n  signed with: SHA256+RSA\n"), std::string::npos);
  // Truncations never parse and never read past the end.
  for (std::size_t cut = 0; cut < der.size(); ++cut) {
    X509Crl partial;
    EXPECT_FALSE(partial.parse(der.data(), static_cast<unsigned>(cut))) << cut;
  }
}

// buildCrl writes a v2 CRL issued by CN=testn on 2026-01-01 with the given revoked list
// element (whole SEQUENCE, or nothing) and CRL extensions (inside [0] SEQUENCE, or no [0]).
Bytes buildCrl(const Bytes& revoked, const nlohmann::json* extensions) {
  DerEncoder e;
  e.sequence([&](DerEncoder& outer) {
    outer.sequence([&](DerEncoder& t) {
      t.addInt(0x02, 1u);
      t.addBytes(asn1::blob(fromHex("300d06092a864886f70d01010b0500")));
      t.addBytes(asn1::blob(fromHex("3010310e300c06035504030c05746573746e")));
      t.addBytes(asn1::blob(fromHex("170d3236303130313030303030305a")));
      t.addBytes(asn1::blob(revoked));
      if (extensions)
        t.element(0xA0, [&](DerEncoder& a0) {
          a0.sequence([&](DerEncoder& list) {
            for (const auto& x : *extensions) list.addBytes(asn1::blob(fromHex(x.get<std::string>())));
          });
        });
    });
    outer.addBytes(asn1::blob(fromHex("300d06092a864886f70d01010b0500")));
    outer.addBitString(asn1::blob(fromHex("00")));
  });
  return e.data;
}

// entries writes one revoked certificate with serial 0x42, revoked 2026-01-02, and the entry
// extensions given as hex (a whole Extension SEQUENCE each).
Bytes entries(const nlohmann::json& entryExtensions) {
  DerEncoder e;
  e.sequence([&](DerEncoder& list) {
    list.sequence([&](DerEncoder& one) {
      one.addBytes(asn1::blob(fromHex("020142170d3236303130323030303030305a")));
      one.sequence([&](DerEncoder& x) {
        for (const auto& h : entryExtensions) x.addBytes(asn1::blob(fromHex(h.get<std::string>())));
      });
    });
  });
  return e.data;
}

TEST(X509Crl, EntryReasons) {
  const nlohmann::json file = test::dataFile("cert_cases.json");
  for (const auto& c : file.at("crlReasons")) {
    SCOPED_TRACE(c[0].get<std::string>());
    X509Crl crl;
    ASSERT_EQ(test::parseSaying(crl, buildCrl(entries(nlohmann::json::array({c[0]})), nullptr)).first, !c[1].is_null());
    if (c[1].is_null()) continue;
    EXPECT_EQ(test::dumpOf(crl),
              "CRL\n  issuer: <CN=testn>\n  lastUpdate: Thu Jan  1 00:00:00 2026\n"
              "  CRL extensions:\n  revoked certs:\n    serialNr: 42\n"
              "      revocationData: Fri Jan  2 00:00:00 2026\n      extensions:\n"
              "        reasonCode: " +
                  c[1].get<std::string>() + "\n  signed with: SHA256+RSA\n");
  }
}

TEST(X509Crl, ExtensionRules) {
  const nlohmann::json file = test::dataFile("cert_cases.json");
  for (const auto& c : file.at("crlBuilt")) {
    SCOPED_TRACE(c["what"].get<std::string>());
    const Bytes revoked = c.contains("entryExts") ? entries(c["entryExts"]) : test::hexField(c, "revoked");
    const nlohmann::json exts = c.value("exts", nlohmann::json::array());
    X509Crl crl;
    auto [ok, out] = test::parseSaying(crl, buildCrl(revoked, c.value("noExts", false) ? nullptr : &exts));
    EXPECT_EQ(ok, c["ok"].get<bool>());
    EXPECT_EQ(out, c.value("output", ""));
    if (c.contains("dump")) {
      EXPECT_EQ(test::dumpOf(crl), c["dump"].get<std::string>());
    }
  }
}

}  // namespace
}  // namespace tessel
