// Revocation lists: openssl-made CRLs with dumps written from `openssl crl -text`, and
// hand-built bodies for the entry and list extension rules.
#include <functional>

#include "support.h"
#include "tessel/crl.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;

std::pair<bool, std::string> parseCaptured(X509Crl& crl, const Bytes& der) {
  testing::internal::CaptureStdout();
  bool ok = crl.parse(der.data(), static_cast<unsigned>(der.size()));
  return {ok, testing::internal::GetCapturedStdout()};
}

std::string dumpOf(const X509Crl& crl) {
  std::ostringstream os;
  crl.dump(os);
  return os.str();
}

std::string fixtureText(const std::string& name) {
  Bytes b = test::readFixture("certs/" + name);
  return std::string(b.begin(), b.end());
}

TEST(X509Crl, OpensslCrls) {
  X509Crl crl;
  const Bytes der = test::readFixture("certs/crl.der");
  auto [ok, out] = parseCaptured(crl, der);
  ASSERT_TRUE(ok);
  EXPECT_EQ(out, "");
  EXPECT_EQ(dumpOf(crl), fixtureText("crl.dump"));
  EXPECT_EQ(crl.serialize(), der);
  ASSERT_EQ(crl.revoked.size(), 4u);
  EXPECT_EQ(crl.revoked[0].reason, 4);    // superseded
  EXPECT_EQ(crl.revoked[1].reason, 8);    // removeFromCRL
  EXPECT_EQ(crl.revoked[3].reason, 255);  // no reasonCode
  EXPECT_EQ(crl.crlNumber, fromHex("1001"));

  // The same list with nextUpdate cut out: no "nextUpdate" line, nothing else changes.
  X509Crl noNext;
  ASSERT_TRUE(parseCaptured(noNext, test::readFixture("certs/crl-nonext.der")).first);
  EXPECT_EQ(noNext.nextUpdate.seconds(), 0);
  std::string expected = fixtureText("crl.dump");
  expected.erase(expected.find("  nextUpdate: "), std::string("  nextUpdate: Mon Dec 21 03:31:41 2026\n").size());
  EXPECT_EQ(dumpOf(noNext), expected);

  X509Crl empty;
  ASSERT_TRUE(parseCaptured(empty, test::pemBody(test::readFixture("certs/crl-empty.pem"))).first);
  EXPECT_TRUE(empty.revoked.empty());
  EXPECT_NE(dumpOf(empty).find("\n  revoked certs: (empty)\n  signed with: SHA256+RSA\n"), std::string::npos);
}

// buildCrl writes a v2 CRL issued by CN=testn on 2026-01-01 with the given revoked list
// element (whole SEQUENCE, or nothing) and CRL extensions (inside [0] SEQUENCE, or no [0]).
Bytes buildCrl(const Bytes& revoked, const std::vector<Bytes>* extensions) {
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
            for (const Bytes& x : *extensions) list.addBytes(asn1::blob(x));
          });
        });
    });
    outer.addBytes(asn1::blob(fromHex("300d06092a864886f70d01010b0500")));
    outer.addBitString(asn1::blob(fromHex("00")));
  });
  return e.data;
}

// entry writes one revoked certificate with serial 0x42, revoked 2026-01-02, and the entry
// extensions given as hex (a whole Extension SEQUENCE each).
Bytes entries(const std::vector<std::string>& entryExtensions) {
  DerEncoder e;
  e.sequence([&](DerEncoder& list) {
    list.sequence([&](DerEncoder& one) {
      one.addBytes(asn1::blob(fromHex("020142170d3236303130323030303030305a")));
      if (!entryExtensions.empty())
        one.sequence([&](DerEncoder& x) {
          for (const std::string& h : entryExtensions) x.addBytes(asn1::blob(fromHex(h)));
        });
    });
  });
  return e.data;
}

TEST(X509Crl, EntryReasons) {
  struct Case {
    const char* reasonHex;  // reasonCode Extension
    bool ok;
    const char* line;
  } cases[] = {
      {"300a0603551d1504030a0100", true, "        reasonCode: unspecified\n"},
      {"300a0603551d1504030a0101", true, "        reasonCode: key compromise\n"},
      {"300a0603551d1504030a0106", true, "        reasonCode: certificate hold\n"},
      {"300a0603551d1504030a0107", true, "        reasonCode: remove from crl\n"},
      {"300a0603551d1504030a0108", true, "        reasonCode: \n"},
      {"300a0603551d1504030a0109", true, "        reasonCode: privilge withdrawn\n"},
      {"300a0603551d1504030a010a", true, "        reasonCode: aa compromise\n"},
      {"300a0603551d1504030a010b", true, "        reasonCode: \n"},
      {"300a0603551d15040302010a", false, ""},  // INTEGER instead of ENUMERATED
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reasonHex);
    X509Crl crl;
    auto [ok, out] = parseCaptured(crl, buildCrl(entries({c.reasonHex}), nullptr));
    ASSERT_EQ(ok, c.ok);
    if (!ok) continue;
    EXPECT_EQ(dumpOf(crl), std::string("CRL\n  issuer: <CN=testn>\n  lastUpdate: Thu Jan  1 00:00:00 2026\n"
                                       "  CRL extensions:\n  revoked certs:\n    serialNr: 42\n"
                                       "      revocationData: Fri Jan  2 00:00:00 2026\n      extensions:\n") +
                               c.line + "  signed with: SHA256+RSA\n");
  }
}

TEST(X509Crl, ExtensionRules) {
  const Bytes idpCritical = fromHex("300c0603551d1c0101ff04023000");
  const Bytes number = fromHex("300a0603551d140403020101");
  const Bytes unknownCritical = fromHex("300b06032a03040101ff04010a");
  const Bytes unknownPlain = fromHex("300806032a030404010a");
  const Bytes aki = fromHex("300d0603551d230406300480020102");
  const Bytes notInteger = fromHex("300a0603551d140403040101");
  struct Case {
    const char* what;
    Bytes revoked;
    std::vector<Bytes> exts;
    bool ok;
    const char* output;
  } cases[] = {
      {"critical issuingDistributionPoint", {}, {idpCritical}, true, "ignoring crl ext issuingDistributionPoint\n"},
      {"crlNumber", {}, {number, aki}, true, ""},
      {"two crlNumbers", {}, {number, number}, false, ""},
      {"crlNumber not an INTEGER", {}, {notInteger}, false, ""},
      {"unknown critical list extension", {}, {unknownCritical}, false, "unknown crl ext id=1.2.3.4, critical: 1\n"},
      {"unknown list extension", {}, {unknownPlain}, true, "unknown crl ext id=1.2.3.4, critical: 0\n"},
      {"unknown critical entry extension", entries({"300b06032a03040101ff04010a"}), {}, false,
       "unknown crlEntry ext id=1.2.3.4, critical: 1\n"},
      {"unknown entry extension", entries({"300806032a030404010a"}), {}, true,
       "unknown crlEntry ext id=1.2.3.4, critical: 0\n"},
      {"empty revoked list", fromHex("3000"), {}, true, ""},
      {"entry serial not an INTEGER", fromHex("30133011040142170d3236303130323030303030305a"), {}, false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    X509Crl crl;
    auto [ok, out] = parseCaptured(crl, buildCrl(c.revoked, &c.exts));
    EXPECT_EQ(ok, c.ok);
    EXPECT_EQ(out, c.output);
  }
  X509Crl crl;
  const std::vector<Bytes> exts = {number, aki};
  ASSERT_TRUE(parseCaptured(crl, buildCrl(fromHex("3000"), &exts)).first);
  EXPECT_EQ(dumpOf(crl), "CRL\n  issuer: <CN=testn>\n  lastUpdate: Thu Jan  1 00:00:00 2026\n  CRL extensions:\n"
                         "    authority key id: 01:02\n    CRL number HEX: 01\n  revoked certs: (empty)\n"
                         "  signed with: SHA256+RSA\n");
  // Truncations never parse and never read past the end.
  const Bytes der = test::readFixture("certs/crl.der");
  for (std::size_t cut = 0; cut < der.size(); ++cut) {
    X509Crl partial;
    EXPECT_FALSE(partial.parse(der.data(), static_cast<unsigned>(cut))) << cut;
  }
}

}  // namespace
}  // namespace tessel
