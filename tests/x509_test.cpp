// Certificates: the openssl-made fixtures with dumps written from `openssl x509 -text`,
// hand-built bodies for every rule of the extension table (tests/data/cert_cases.json), and the
// Debian CA bundle.
#include <dirent.h>

#include <algorithm>
#include <map>

#include "ol/file.h"
#include "support.h"
#include "tessel/pem.h"
#include "tessel/pkcs8.h"
#include "tessel/x509.h"

namespace tessel {
namespace {

using test::Bytes;
using test::fromHex;
using test::toHex;

const nlohmann::json& cases(const char* table) {
  static const nlohmann::json all = test::dataFile("cert_cases.json");
  return all.at(table);
}

// fieldsOf gives the certificate's values of the fields a case names in "expect", to compare as a whole.
nlohmann::json fieldsOf(const X509Certificate& c, const nlohmann::json& want) {
  auto name = [](const GeneralName& g) { return g.typeStr() + ": " + g.dataStr(); };
  nlohmann::json got = nlohmann::json::object();
  for (const auto& [k, v] : want.items()) {
    if (k == "isCa") got[k] = c.isCa;
    if (k == "pathLen") got[k] = c.pathLen;
    if (k == "keyUsage") got[k] = c.keyUsage;
    if (k == "selfSigned") got[k] = c.selfSigned;
    if (k == "authorityKeyId") got[k] = toHex(c.authorityKeyId);
    if (k == "serial") got[k] = toHex(c.serial);
    if (k == "issuerIsSubject") got[k] = c.issuer == c.subject;
    if (k == "permitted") got[k] = name(c.permittedName);
    if (k == "excluded") got[k] = name(c.excludedName);
    if (k == "permittedType") got[k] = c.permittedName.typeStr();
    if (k == "crlDistributionPoints") got[k] = c.crlDistributionPoints.size();
    if (k == "sanCount") got[k] = c.subjectAltNames.size();
    if (k == "sanData")
      for (const auto& [i, hex] : v.items())
        got[k][i] = std::stoul(i) < c.subjectAltNames.size() ? toHex(c.subjectAltNames[std::stoul(i)].data) : "";
  }
  return got;
}

TEST(X509Certificate, FixturesParseDumpAndWriteBack) {
  for (const auto& c : cases("fixtures")) {
    const std::string file = c["file"];
    SCOPED_TRACE(file);
    X509Certificate cert;
    const Bytes der = test::fixtureDer("certs/" + file);
    auto [ok, out] = test::parseSaying(cert, der);
    EXPECT_EQ(ok, c["ok"].get<bool>());
    EXPECT_EQ(out, c["output"].get<std::string>());
    if (!ok) continue;
    const auto want = c.value("expect", nlohmann::json::object());
    EXPECT_EQ(fieldsOf(cert, want), want);
    EXPECT_EQ(cert.serialize(), der);
    const std::string dump = c.value("dump", "");
    EXPECT_EQ(dump.empty() ? "" : test::dumpOf(cert), dump.empty() ? "" : test::fixtureText("certs/" + dump));
  }
}

// build writes a certificate body around a hand-written extension list. Signatures are not
// checked by parsing, so the signature is a dummy.
Bytes build(const Bytes& serial, const Bytes& afterSpki, const std::vector<Bytes>& extensions) {
  const Bytes name = fromHex("3010310e300c06035504030c05746573746e"), alg = fromHex("300d06092a864886f70d01010b0500");
  DerEncoder e;
  e.sequence([&](DerEncoder& outer) {
    outer.sequence([&](DerEncoder& t) {
      t.element(0xA0, [](DerEncoder& v) { v.addInt(0x02, 2u); });
      t.addPrimitive(0x02, asn1::blob(serial));
      t.addBytes(asn1::blob(alg));
      t.addBytes(asn1::blob(name));
      t.addBytes(asn1::blob(fromHex("301e170d3236303130313030303030305a170d3336303130313030303030305a")));
      t.addBytes(asn1::blob(name));
      t.addBytes(asn1::blob(test::readFixture("keys/rsa1024.pub.der")));
      t.addBytes(asn1::blob(afterSpki));
      if (!extensions.empty())
        t.element(0xA3, [&](DerEncoder& a3) {
          a3.sequence([&](DerEncoder& list) {
            for (const Bytes& x : extensions) list.addBytes(asn1::blob(x));
          });
        });
    });
    outer.addBytes(asn1::blob(alg));
    outer.addBitString(asn1::blob(fromHex("00112233")));
  });
  return e.data;
}

// ext writes Extension { OID, [critical], OCTET STRING value } from ["name or OID hex", value
// hex, critical?]; a plain string is a whole Extension in hex.
Bytes ext(const nlohmann::json& x) {
  if (x.is_string()) return fromHex(x.get<std::string>());
  static const std::map<std::string, std::string> oids = {{"ski", "551d0e"}, {"aki", "551d23"}, {"ku", "551d0f"},
                                                          {"eku", "551d25"}, {"bc", "551d13"},  {"san", "551d11"},
                                                          {"nc", "551d1e"},  {"cdp", "551d1f"}, {"iap", "551d36"}};
  const auto named = oids.find(x[0].get<std::string>());
  DerEncoder e;
  e.sequence([&](DerEncoder& s) {
    s.addOid(asn1::blob(fromHex(named == oids.end() ? x[0].get<std::string>() : named->second)));
    if (x.size() > 2) s.addBool(0x01, x[2].get<bool>());
    s.addOctetString(asn1::blob(fromHex(x[1].get<std::string>())));
  });
  return e.data;
}

TEST(X509Certificate, BodyAndExtensionRules) {
  for (const auto& c : cases("built")) {
    SCOPED_TRACE(c["what"].get<std::string>());
    std::vector<Bytes> exts;
    for (const auto& x : c["exts"]) exts.push_back(ext(x));
    const Bytes serial = c.contains("serial") ? test::hexField(c, "serial") : Bytes{1};
    X509Certificate cert;
    auto [ok, out] = test::parseSaying(cert, build(serial, test::hexField(c, "afterSpki"), exts));
    EXPECT_EQ(ok, c["ok"].get<bool>());
    EXPECT_EQ(out, c.value("output", ""));
    const auto want = c.value("expect", nlohmann::json::object());
    if (ok) {
      EXPECT_EQ(fieldsOf(cert, want), want);
    }
  }
  const Bytes der = build({1}, {}, {});
  for (std::size_t cut = 0; cut < der.size(); ++cut) {
    X509Certificate partial;
    EXPECT_FALSE(partial.parse(der.data(), static_cast<unsigned>(cut))) << cut;
  }
}

TEST(X509Base, UnpackObjAndSerialize) {
  for (const auto& c : cases("unpackObj")) {
    std::string hex = c[0];
    hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
    SCOPED_TRACE(hex);
    X509Base obj;
    ASSERT_EQ(obj.unpackObj(asn1::blob(fromHex(hex))), !c[1].is_null());
    if (c[1].is_null()) continue;
    EXPECT_EQ(toHex(obj.tbs), "3000");
    EXPECT_EQ(toHex(obj.sigAlg), "3000");
    EXPECT_EQ(toHex(obj.signature), c[1].get<std::string>());
  }
  EXPECT_EQ(X509Base::digestAlgo, 4u);
}

TEST(X509Certificate, PublicKeyAccessAndKeyUsageLines) {
  X509Certificate cert;
  ASSERT_TRUE(test::parseSaying(cert, test::fixtureDer("certs/ca.pem")).first);
  auto key = cert.parsePublicKey();
  auto expected = parsePkcs8PublicKey(asn1::blob(test::readFixture("keys/rsa2048.pub.der")));
  ASSERT_TRUE(key && expected);
  EXPECT_TRUE(key->equals(*expected));
  X509Certificate fresh;
  EXPECT_FALSE(fresh.parsePublicKey());
  ASSERT_TRUE(fresh.setPublicKey(*expected));
  EXPECT_EQ(fresh.publicKeyInfo, test::readFixture("keys/rsa2048.pub.der"));
  for (const auto& c : cases("keyUsageLines")) {
    std::ostringstream os;
    X509Certificate::dumpKeyUsage(c[0].get<unsigned>(), os);
    EXPECT_EQ(os.str(), c[1].get<std::string>()) << c[0];
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
    Bytes der;
    ASSERT_TRUE(parsePem(in, &label, &body) && pemDecode(body, &der));
    X509Certificate cert;
    auto [ok, out] = test::parseSaying(cert, der);
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
