// Certificates, revocation lists and requests: the openssl-made fixtures with dumps written from
// `openssl x509/crl/req -text`, hand-described bodies for every rule of the extension tables
// (tests/data/cert_cases.json, encoded by gen_pki_built.py into pki_built.json). Debian's CA
// bundle is read in cert_store_test.cpp.
#include <algorithm>

#include "support.h"
#include "tessel/crl.h"
#include "tessel/pem.h"
#include "tessel/pkcs8.h"
#include "tessel/req.h"
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

// fieldsOf gives the object's values of the fields a case names in "expect", to compare as a whole.
template <class T>
nlohmann::json fieldsOf(const T& c, const nlohmann::json& want) {
  nlohmann::json got = nlohmann::json::object();
  if constexpr (requires { c.keyUsage; })
    if (want.contains("keyUsage")) got["keyUsage"] = c.keyUsage;
  if constexpr (std::is_same_v<T, X509Certificate>) {
    auto name = [](const GeneralName& g) { return g.typeStr() + ": " + g.dataStr(); };
    for (const auto& [k, v] : want.items()) {
      if (k == "isCa") got[k] = c.isCa;
      if (k == "pathLen") got[k] = c.pathLen;
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
  }
  return got;
}

// check parses `der` as a T the way case `c` says: verdict, messages, fields, dump; a fixture
// (`writesBack`) must serialize to its own bytes, and no truncation of it parses.
template <class T>
void check(const nlohmann::json& c, const Bytes& der, bool writesBack) {
  T obj;
  auto [ok, out] = test::parseSaying(obj, der);
  EXPECT_EQ(ok, c["ok"].get<bool>());
  EXPECT_EQ(out, c["output"].get<std::string>());
  for (std::size_t cut = 0; cut < der.size(); ++cut)
    test::said([&] { EXPECT_FALSE(T().parse(der.data(), static_cast<unsigned>(cut))) << cut; });
  if (!ok) return;
  const auto want = c.value("expect", nlohmann::json::object());
  EXPECT_EQ(fieldsOf(obj, want), want);
  EXPECT_TRUE(!writesBack || obj.serialize() == der);
  EXPECT_TRUE(!c.contains("dumpHas") || test::dumpOf(obj).find(c["dumpHas"].get<std::string>()) != std::string::npos)
      << test::dumpOf(obj);
  if (!c.contains("dump")) return;
  // A fixture names its dump file; a built case holds the text.
  std::string dump =
      c.contains("der") ? c["dump"].get<std::string>() : test::fixtureText("certs/" + c["dump"].get<std::string>());
  if (c.contains("dropLine"))
    dump.erase(dump.find(c["dropLine"].get<std::string>()), c["dropLine"].get<std::string>().size());
  EXPECT_EQ(test::dumpOf(obj), dump);
}

void checkAny(const nlohmann::json& c, const Bytes& der, bool writesBack) {
  const std::string kind = c.value("kind", "cert");
  if (kind == "cert") check<X509Certificate>(c, der, writesBack);
  if (kind == "crl") check<X509Crl>(c, der, writesBack);
  if (kind == "req") check<X509Req>(c, der, writesBack);
}

TEST(SignedObjects, FixturesParseDumpAndWriteBack) {
  for (const auto& c : cases("fixtures")) {
    SCOPED_TRACE(c["file"].get<std::string>());
    checkAny(c, test::fixtureDer("certs/" + c["file"].get<std::string>()), true);
  }
}

TEST(SignedObjects, BodyAndExtensionRules) {
  const nlohmann::json rows = test::dataFile("pki_built.json")["cases"];  // a copy: the file's object is a temporary
  for (const auto& c : rows) {
    SCOPED_TRACE(c["what"].get<std::string>());
    checkAny(c, test::hexField(c, "der"), false);
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
}

TEST(X509Certificate, PublicKeyAccessAndKeyUsageLines) {
  // A parsed certificate's key is dumped in every fixture's dump (FixturesParseDumpAndWriteBack).
  auto expected = parsePkcs8PublicKey(asn1::blob(test::readFixture("keys/rsa2048.pub.der")));
  ASSERT_TRUE(expected);
  X509Certificate fresh;
  EXPECT_FALSE(fresh.parsePublicKey());
  X509Req req;
  ASSERT_TRUE(fresh.setPublicKey(*expected) && req.setPublicKey(*expected));
  EXPECT_EQ(fresh.publicKeyInfo, test::readFixture("keys/rsa2048.pub.der"));
  EXPECT_EQ(req.publicKeyInfo, fresh.publicKeyInfo);
  for (const auto& c : cases("keyUsageLines")) {
    std::ostringstream os;
    X509Certificate::dumpKeyUsage(c[0].get<unsigned>(), os);
    EXPECT_EQ(os.str(), c[1].get<std::string>()) << c[0];
  }
}

}  // namespace
}  // namespace tessel
