// Certificates: the openssl-made fixtures with dumps written from `openssl x509 -text`,
// hand-built extensions for every rule of the extension table, and the Debian CA bundle.
#include <dirent.h>

#include <algorithm>
#include <functional>

#include "ol/file.h"
#include "support.h"
#include "tessel/pem.h"
#include "tessel/pkcs8.h"
#include "tessel/x509.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;

std::string fixtureText(const std::string& name) {
  Bytes b = test::readFixture("certs/" + name);
  return std::string(b.begin(), b.end());
}

// parseCaptured parses DER and returns the parse result with what it printed.
std::pair<bool, std::string> parseCaptured(X509Certificate& cert, const Bytes& der) {
  testing::internal::CaptureStdout();
  bool ok = cert.parse(der.data(), static_cast<unsigned>(der.size()));
  return {ok, testing::internal::GetCapturedStdout()};
}

Bytes derOf(const std::string& name) {
  if (name.ends_with(".der")) return test::readFixture("certs/" + name);
  return test::pemBody(test::readFixture("certs/" + name));
}

TEST(X509Certificate, DumpsMatchOpensslView) {
  struct Case {
    const char* file;
    const char* dump;
    const char* parseOutput;
  } cases[] = {
      {"leaf.pem", "leaf.dump", "unknown ext id=1.2.3.4.5, critical: 0\n"},
      {"leaf.der", "leaf.dump", "unknown ext id=1.2.3.4.5, critical: 0\n"},
      {"ca.pem", "ca.dump", ""},
      {"nc-dns.pem", "nc-dns.dump", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    X509Certificate cert;
    auto [ok, out] = parseCaptured(cert, derOf(c.file));
    ASSERT_TRUE(ok);
    EXPECT_EQ(out, c.parseOutput);
    std::ostringstream dump;
    cert.dump(dump);
    EXPECT_EQ(dump.str(), fixtureText(c.dump));
  }
}

TEST(X509Certificate, FixturesParseOrFailWithTheirMessages) {
  struct Case {
    const char* file;
    bool ok;
    const char* output;
    std::function<void(const X509Certificate&)> check;
  } cases[] = {
      {"ca.pem", true, "", [](const X509Certificate& c) {
         EXPECT_EQ(c.isCa, 1u);
         EXPECT_EQ(c.pathLen, 1);
         EXPECT_TRUE(c.selfSigned);
         EXPECT_TRUE(c.authorityKeyId.empty());  // the tool leaves AKI out of self-signed ones
       }},
      {"ca-nopathlen.pem", true, "", [](const X509Certificate& c) {
         EXPECT_EQ(c.isCa, 1u);
         EXPECT_EQ(c.pathLen, -1);
         EXPECT_TRUE(c.authorityKeyId.empty());
         EXPECT_TRUE(c.selfSigned);  // AKI absent, SKI present
       }},
      {"leaf.pem", true, "unknown ext id=1.2.3.4.5, critical: 0\n", [](const X509Certificate& c) {
         EXPECT_EQ(c.isCa, 2u);  // CA:FALSE is written as an empty SEQUENCE
         EXPECT_EQ(c.keyUsage, 0x3F00A0u);
         ASSERT_EQ(c.subjectAltNames.size(), 5u);
         EXPECT_EQ(c.subjectAltNames[1].data, fromHex("c0000201"));
         EXPECT_EQ(c.subjectAltNames[2].data, fromHex("20010db8000000000000000000000001"));
         EXPECT_EQ(c.subjectAltNames[3].type, GeneralName::rfc822Name);
         EXPECT_FALSE(c.selfSigned);
       }},
      {"unknown-critical.pem", false, "unknown ext id=1.2.3.4.6, critical: 1\n", nullptr},
      {"nc-two.pem", true, "multiple name contraints not supported\n", [](const X509Certificate& c) {
         EXPECT_EQ(c.permittedName.type, GeneralName::dNSName);
         EXPECT_EQ(std::string(c.permittedName.data.begin(), c.permittedName.data.end()), ".example.com");
         EXPECT_EQ(c.excludedName.type, GeneralName::none);
       }},
      {"nc-two-critical.pem", false, "multiple name contraints not supported\n", nullptr},
      {"nc-email.pem", true, "unsupported ext: name constraints, critical: 0\n", [](const X509Certificate& c) {
         EXPECT_EQ(c.permittedName.type, GeneralName::rfc822Name);
       }},
      {"policy-critical.pem", false, "unsupported ext: policy constraints, critical: 1\n", nullptr},
      {"selfissued-noski.pem", true, "", [](const X509Certificate& c) {
         EXPECT_TRUE(c.issuer == c.subject);
         EXPECT_FALSE(c.selfSigned);
         EXPECT_EQ(c.isCa, 0u);
       }},
      {"serial20.pem", true, "", [](const X509Certificate& c) {
         EXPECT_EQ(c.serial, fromHex("7f0102030405060708090a0b0c0d0e0f10111213"));
       }},
      {"serial21.pem", false, "", nullptr},
      {"uniqueid.der", false, "", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    X509Certificate cert;
    const Bytes der = derOf(c.file);
    auto [ok, out] = parseCaptured(cert, der);
    EXPECT_EQ(ok, c.ok);
    EXPECT_EQ(out, c.output);
    if (ok && c.check) c.check(cert);
    if (ok) {
      EXPECT_EQ(cert.serialize(), der);
    }
  }
}

// Certificate bodies around a hand-written extension list. Signatures are not checked by
// parsing, so the signature is a dummy.
struct CertBuilder {
  Bytes spki = test::readFixture("keys/rsa1024.pub.der");
  Bytes serial = {0x01};
  Bytes name = fromHex("3010310e300c06035504030c05746573746e");  // CN=testn
  Bytes afterSpki;                                                 // unique IDs etc.

  Bytes build(const std::vector<Bytes>& extensions) const {
    DerEncoder e;
    e.sequence([&](DerEncoder& outer) {
      outer.sequence([&](DerEncoder& t) {
        t.element(0xA0, [](DerEncoder& v) { v.addInt(0x02, 2u); });
        t.addPrimitive(0x02, asn1::blob(serial));
        t.addBytes(asn1::blob(fromHex("300d06092a864886f70d01010b0500")));
        t.addBytes(asn1::blob(name));
        t.addBytes(asn1::blob(fromHex("301e170d3236303130313030303030305a170d3336303130313030303030305a")));
        t.addBytes(asn1::blob(name));
        t.addBytes(asn1::blob(spki));
        t.addBytes(asn1::blob(afterSpki));
        if (!extensions.empty())
          t.element(0xA3, [&](DerEncoder& a3) {
            a3.sequence([&](DerEncoder& list) {
              for (const Bytes& x : extensions) list.addBytes(asn1::blob(x));
            });
          });
      });
      outer.addBytes(asn1::blob(fromHex("300d06092a864886f70d01010b0500")));
      outer.addBitString(asn1::blob(fromHex("00112233")));
    });
    return e.data;
  }
};

// ext writes Extension { OID 2.5.29.x or a full OID, [critical], OCTET STRING value }.
Bytes ext(const std::string& oidHex, const std::string& valueHex, int critical = -1) {
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.addOid(asn1::blob(fromHex(oidHex)));
    if (critical >= 0) s.addBool(0x01, critical != 0);
    s.addOctetString(asn1::blob(fromHex(valueHex)));
  });
  return e.data;
}

const std::string kSki = "551d0e", kAki = "551d23", kKu = "551d0f", kEku = "551d25", kBc = "551d13",
                  kSan = "551d11", kNc = "551d1e", kCdp = "551d1f", kIap = "551d36";

TEST(X509Certificate, ExtensionRules) {
  struct Case {
    const char* what;
    std::vector<Bytes> exts;
    bool ok;
    const char* output;
    std::function<void(const X509Certificate&)> check;
  } cases[] = {
      {"keyUsage bit 0", {ext(kKu, "03020780")}, true, "",
       [](auto& c) { EXPECT_EQ(c.keyUsage, 0x80u); }},
      {"keyUsage zero", {ext(kKu, "03020000")}, false, "", nullptr},
      {"keyUsage zero after extKeyUsage", {ext(kEku, "300a06082b06010505070301"), ext(kKu, "03020000")}, true, "",
       [](auto& c) { EXPECT_EQ(c.keyUsage, 0x10000u); }},
      {"keyUsage unused count above 7", {ext(kKu, "03020880")}, false, "", nullptr},
      {"keyUsage two bytes, unused bits cleared", {ext(kKu, "0303078080")}, true, "",
       [](auto& c) { EXPECT_EQ(c.keyUsage, 0x8080u); }},
      {"keyUsage unused bits of the last byte cleared", {ext(kKu, "030307807f")}, true, "",
       [](auto& c) { EXPECT_EQ(c.keyUsage, 0x80u); }},
      {"keyUsage not a BIT STRING", {ext(kKu, "040180")}, false, "", nullptr},
      {"unknown extended key usage", {ext(kEku, "3016060a2b0601040182370a030c06082b0601050507030a")}, true,
       "unknown extended key usage 1.3.6.1.4.1.311.10.3.12\n", [](auto& c) { EXPECT_EQ(c.keyUsage, 0x400000u); }},
      {"basicConstraints cA FALSE explicit", {ext(kBc, "3003010100")}, true, "",
       [](auto& c) { EXPECT_EQ(c.isCa, 2u); EXPECT_EQ(c.pathLen, -1); }},
      {"basicConstraints empty", {ext(kBc, "3000")}, true, "", [](auto& c) { EXPECT_EQ(c.isCa, 2u); }},
      {"basicConstraints pathLen 0", {ext(kBc, "30060101ff020100")}, true, "",
       [](auto& c) { EXPECT_EQ(c.isCa, 1u); EXPECT_EQ(c.pathLen, 0); }},
      {"basicConstraints pathLen empty reads 0", {ext(kBc, "30050101ff0200")}, true, "",
       [](auto& c) { EXPECT_EQ(c.pathLen, 0); }},
      {"basicConstraints 4-byte pathLen", {ext(kBc, "300602047fffffff")}, true, "",
       [](auto& c) { EXPECT_EQ(c.pathLen, 0x7fffffff); }},
      {"basicConstraints 5-byte pathLen", {ext(kBc, "30070205007fffffff")}, false, "", nullptr},
      {"basicConstraints negative pathLen", {ext(kBc, "30030201ff")}, false, "", nullptr},
      {"basicConstraints trailing element", {ext(kBc, "30060201010500")}, false, "", nullptr},
      {"repeated extension", {ext(kBc, "3000"), ext(kBc, "3000")}, false, "", nullptr},
      {"unknown critical", {ext("2a0304", "0500", 1)}, false, "unknown ext id=1.2.3.4, critical: 1\n", nullptr},
      {"unknown non-critical", {ext("2a0304", "0500", 0)}, true, "unknown ext id=1.2.3.4, critical: 0\n", nullptr},
      {"inhibitAnyPolicy", {ext(kIap, "020100", 0)}, true, "unsupported ext: inhibit any policy, critical: 0\n",
       nullptr},
      {"critical empty subjectAltName", {ext(kSan, "3000", 1)}, false, "", nullptr},
      {"non-critical empty subjectAltName", {ext(kSan, "3000", 0)}, true, "", nullptr},
      {"subjectAltName with a 5-byte IP", {ext(kSan, "30078705c000020101")}, false, "", nullptr},
      {"AKI with issuer and serial", {ext(kAki, "300da1048202aabb82020102800101")}, false, "", nullptr},
      {"AKI keyId, issuer, serial", {ext(kAki, "300d800101a10482020aab82020102")}, true, "",
       [](auto& c) { EXPECT_EQ(c.authorityKeyId, Bytes{1}); }},
      {"SKI not an OCTET STRING", {ext(kSki, "0201aa")}, false, "", nullptr},
      {"self-signed: SKI equals AKI", {ext(kSki, "0402abcd"), ext(kAki, "30048002abcd")}, true, "",
       [](auto& c) { EXPECT_TRUE(c.selfSigned); }},
      {"not self-signed: AKI differs", {ext(kSki, "0402abcd"), ext(kAki, "30048002abce")}, true, "",
       [](auto& c) { EXPECT_FALSE(c.selfSigned); }},
      {"name constraints rfc822, critical", {ext(kNc, "300ba009300781056140622e63", 1)}, false,
       "unsupported ext: name constraints, critical: 1\n", nullptr},
      {"name constraints minimum, critical", {ext(kNc, "3011a00f300d820b6578616d706c652e636f6d", 1)}, true, "",
       [](auto& c) { EXPECT_EQ(c.permittedName.type, GeneralName::dNSName); }},
      {"name constraints with [0] minimum, critical", {ext(kNc, "3016a0143012820b6578616d706c652e636f6da003020101", 1)},
       false, "", nullptr},
      {"name constraints with [0] minimum, non-critical",
       {ext(kNc, "3016a0143012820b6578616d706c652e636f6da003020101", 0)}, true, "", nullptr},
      {"name constraints with [1] maximum, critical", {ext(kNc, "3016a0143012820b6578616d706c652e636f6da103020101", 1)},
       false, "", nullptr},
      {"CRL distribution point by cRLIssuer", {ext(kCdp, "300a3008a2063004a4023000")}, true,
       "unsupported attribute: a2 in CRL DistributionPoint\n", [](auto& c) { EXPECT_TRUE(c.crlDistributionPoints.empty()); }},
      {"CRL distribution points not SEQUENCEs", {ext(kCdp, "30020500")}, false, "", nullptr},
  };
  CertBuilder b;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    X509Certificate cert;
    const Bytes der = b.build(c.exts);
    auto [ok, out] = parseCaptured(cert, der);
    EXPECT_EQ(ok, c.ok);
    EXPECT_EQ(out, c.output);
    if (ok && c.check) c.check(cert);
  }
  // A critical flag written as 01 01 01 is not DER.
  Bytes badBool = ext(kBc, "3000", 1);
  badBool[badBool.size() - 5] = 0x01;
  X509Certificate cert;
  EXPECT_FALSE(parseCaptured(cert, b.build({badBool})).first);
}

TEST(X509Certificate, BodyStructure) {
  CertBuilder b;
  X509Certificate cert;
  EXPECT_TRUE(parseCaptured(cert, b.build({})).first);
  b.serial = Bytes(20, 0x11);
  EXPECT_TRUE(parseCaptured(cert, b.build({})).first);
  b.serial = Bytes(21, 0x11);
  EXPECT_FALSE(parseCaptured(cert, b.build({})).first);
  b.serial = {0x01};
  b.afterSpki = fromHex("81020001");  // issuerUniqueID
  EXPECT_FALSE(parseCaptured(cert, b.build({})).first);
  b.afterSpki = fromHex("82020001");  // subjectUniqueID
  EXPECT_FALSE(parseCaptured(cert, b.build({})).first);
  b.afterSpki = {};
  Bytes der = b.build({});
  for (std::size_t cut = 0; cut < der.size(); ++cut) {
    X509Certificate partial;
    EXPECT_FALSE(partial.parse(der.data(), static_cast<unsigned>(cut))) << cut;
  }
}

TEST(X509Base, UnpackObjAndSerialize) {
  struct Case {
    const char* der;
    bool ok;
    const char* signature;
  } cases[] = {
      {"300a30003000030400aabbcc", true, "aabbcc"},
      {"300a30003000030407aabbcc", true, "aabbcc"},
      {"300a30003000030408aabbcc", true, ""},  // an unused count of 8 or more drops the bits
      {"3007300030000301 00", true, ""},
      {"300c300030000304 00aabbcc 0500", false, ""},  // trailing element
      {"30083000300003020000", true, "00"},
      {"300a30003100030400aabbcc", false, ""},
      {"300a31003000030400aabbcc", false, ""},
      {"300a30003000040400aabbcc", false, ""},
  };
  for (const Case& c : cases) {
    std::string hex = c.der;
    hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
    SCOPED_TRACE(hex);
    X509Base obj;
    Bytes der = fromHex(hex);
    ASSERT_EQ(obj.unpackObj(asn1::blob(der)), c.ok);
    if (!c.ok) continue;
    EXPECT_EQ(obj.tbs, fromHex("3000"));
    EXPECT_EQ(obj.sigAlg, fromHex("3000"));
    EXPECT_EQ(obj.signature, fromHex(c.signature));
  }
  EXPECT_EQ(X509Base::digestAlgo, 4u);
}

TEST(X509Certificate, PublicKeyAccess) {
  X509Certificate cert;
  ASSERT_TRUE(parseCaptured(cert, derOf("ca.pem")).first);
  auto key = cert.parsePublicKey();
  ASSERT_TRUE(key);
  auto expected = parsePkcs8PublicKey(asn1::blob(test::readFixture("keys/rsa2048.pub.der")));
  ASSERT_TRUE(expected);
  EXPECT_TRUE(key->equals(*expected));
  X509Certificate fresh;
  EXPECT_FALSE(fresh.parsePublicKey());
  ASSERT_TRUE(fresh.setPublicKey(*expected));
  EXPECT_EQ(fresh.publicKeyInfo, test::readFixture("keys/rsa2048.pub.der"));
}

TEST(X509Certificate, DumpKeyUsageLines) {
  struct Case {
    unsigned flags;
    const char* text;
  } cases[] = {
      {0, ""},
      {0x80, "    key usage: digital-signature\n"},
      {0xFF, "    key usage: digital-signature, content-commitment, key-encipherment, data-encipherment, "
             "key-agreement, key-cert-sign, crl-sign, encipher-only\n"},
      {0x8000, "    key usage: decipher-only\n"},
      {0x10000, "    key usage: \n    extended key usage: tls-server\n"},
      {0x400000, "    key usage: \n"},  // dvcs alone gets no second line
      {0x400004, "    key usage: key-cert-sign\n"},
      {0x600000, "    key usage: \n    extended key usage: ocsp-signing, dvcs\n"},
      {0x3F0001, "    key usage: encipher-only\n    extended key usage: tls-server, tls-client, code-signing, "
                 "email-protection, time-stamping, ocsp-signing\n"},
  };
  for (const Case& c : cases) {
    std::ostringstream os;
    X509Certificate::dumpKeyUsage(c.flags, os);
    EXPECT_EQ(os.str(), c.text) << std::hex << c.flags;
  }
}

// Every CA certificate Debian ships parses, and writes back to its exact bytes. Their
// unknown extensions (Microsoft CA version and template name, private key usage period,
// Netscape cert type, Entrust version ...) are non-critical and only reported.
TEST(X509Certificate, DebianCaBundle) {
  const std::string dir = "/usr/share/ca-certificates/mozilla/";
  DIR* d = opendir(dir.c_str());
  if (!d) GTEST_SKIP() << "ca-certificates not installed";
  unsigned count = 0;
  while (dirent* e = readdir(d)) {
    std::string name = e->d_name;
    if (!name.ends_with(".crt")) continue;
    SCOPED_TRACE(name);
    const std::string text = ol::readFile(dir + name);
    std::string_view in = text, label, body;
    ASSERT_TRUE(parsePem(in, &label, &body));
    Bytes der;
    ASSERT_TRUE(pemDecode(body, &der));
    X509Certificate cert;
    auto [ok, out] = parseCaptured(cert, der);
    EXPECT_TRUE(ok);
    for (std::string_view rest = out, line; nextLine(rest, &line);)
      EXPECT_TRUE(line.starts_with("unknown ext id=") || line.starts_with("unknown name attr: ")) << line;
    EXPECT_EQ(out.find("critical: 1"), std::string::npos);
    if (ok) {
      EXPECT_EQ(cert.serialize(), der);
    }
    ++count;
  }
  closedir(d);
  EXPECT_GT(count, 100u);
}

}  // namespace
}  // namespace tessel
